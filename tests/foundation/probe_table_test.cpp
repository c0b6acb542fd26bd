// The hash of the private indexes: every byte of a key counts, at every
// length, and where the key lies in memory does not.

#include "foundation/probe_table.h"

#include <gtest/gtest.h>
#include <string.h>

#include <set>
#include <vector>

namespace {

TEST(BytesHash, EveryByteOfEveryLengthCounts) {
    for (size_t n = 1; n <= 40; ++n) {
        std::vector<unsigned char> key(n);
        for (size_t i = 0; i < n; ++i) key[i] = static_cast<unsigned char>('a' + i);
        const uint64_t h = qor::bytes_hash(key.data(), n);
        for (size_t p = 0; p < n; ++p) {
            std::vector<unsigned char> other = key;
            other[p] ^= 0x20;
            EXPECT_NE(qor::bytes_hash(other.data(), n), h)
                << "length " << n << ", byte " << p;
        }
    }
}

TEST(BytesHash, TheSameBytesAnywhereHashAlike) {
    alignas(16) unsigned char area[64 + 40];
    const char *text = "/srv/data/objects/o1234567/.lock";
    const size_t n = strlen(text);
    memcpy(area, text, n);
    const uint64_t h = qor::bytes_hash(area, n);
    for (size_t offset = 1; offset < 64; ++offset) {
        memcpy(area + offset, text, n);
        EXPECT_EQ(qor::bytes_hash(area + offset, n), h) << offset;
    }
}

TEST(BytesHash, LengthsAndShortKeysAreTold) {
    // Prefixes of one another, and the empty key, all differ.
    std::set<uint64_t> seen;
    const char text[] = "k0000000k0000001";
    for (size_t n = 0; n <= 16; ++n) seen.insert(qor::bytes_hash(text, n));
    EXPECT_EQ(seen.size(), 17u);
}

}  // namespace
