// Keys that the ASSOC index files under one tag. A tag holds a few bits of
// a strong hash of the whole key, so distinct keys meet under one now and
// then, and the index must tell them apart by the key it keeps in the
// group: the bytes themselves for a key of at most 8 bytes, the text for a
// longer one. Such keys are found by search here, then used through the
// public interface only. The tag is internal, so this program links the
// library's objects.

#include <gtest/gtest.h>
#include <stdio.h>

#include <string>
#include <unordered_map>
#include <utility>

#include "containers/assoc_index.h"
#include "harness.h"
#include "qor/containers.h"

namespace {

// Two distinct keys made by `make` (from 0 up) whose tags agree.
template <class Make>
std::pair<std::string, std::string> colliding(Make make) {
    std::unordered_map<uint32_t, std::string> seen;
    for (long i = 0; i < 10000000; ++i) {
        std::string k = make(i);
        auto [it, fresh] =
            seen.emplace(qor::containers::string_key_tag(k.c_str()), k);
        if (!fresh && it->second != k) return {it->second, k};
    }
    ADD_FAILURE() << "no two keys share a tag";
    return {};
}

void *val(long v) { return reinterpret_cast<void *>(v); }
long value_of(QOR_ASSOC_entry *e) {
    return reinterpret_cast<long>(reinterpret_cast<QOR_ASSOC_string_entry *>(e)->value);
}

// Both keys in one table, found apart, inserted apart, removed apart.
void expect_told_apart(const std::string &a, const std::string &b) {
    ASSERT_NE(a, b);
    QOR_ASSOC_table *t =
        QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type, "tags", nullptr);
    int found = -1;
    QOR_ASSOC_table_insert(t, a.c_str(), val(1), &found);
    EXPECT_EQ(found, 0);
    EXPECT_EQ(QOR_ASSOC_table_find(t, b.c_str()), nullptr);
    QOR_ASSOC_entry *eb = QOR_ASSOC_table_insert(t, b.c_str(), val(2), &found);
    EXPECT_EQ(found, 0);  // not taken for a
    EXPECT_EQ(t->count, 2);
    QOR_ASSOC_entry *ea = QOR_ASSOC_table_find(t, a.c_str());
    ASSERT_NE(ea, nullptr);
    EXPECT_EQ(value_of(ea), 1);
    EXPECT_EQ(QOR_ASSOC_table_find(t, b.c_str()), eb);
    EXPECT_EQ(value_of(eb), 2);
    QOR_ASSOC_table_remove(t, ea);
    EXPECT_EQ(QOR_ASSOC_table_find(t, a.c_str()), nullptr);
    EXPECT_EQ(QOR_ASSOC_table_find(t, b.c_str()), eb);
    QOR_ASSOC_table_destroy(t);

    // Atoms keep their keys in a freestore, under the same index.
    QOR_atom_table *atoms = QOR_create_atom_table("tags", 0, 0, 0);
    const int atom_a = QOR_string_to_atom(atoms, a.c_str());
    EXPECT_EQ(QOR_string_to_existing_atom(atoms, b.c_str()), 0);
    const int atom_b = QOR_string_to_atom(atoms, b.c_str());
    EXPECT_NE(atom_a, atom_b);
    EXPECT_EQ(QOR_string_to_atom(atoms, a.c_str()), atom_a);
    EXPECT_STREQ(QOR_atom_to_string(atoms, atom_b), b.c_str());
    QOR_destroy_atom_table(atoms);
}

}  // namespace

// Eight bytes, the first four the same for all: only the last four tell
// them apart.
TEST(AssocTags, KeysOfEightBytesUnderOneTagAreToldApart) {
    auto [a, b] = colliding([](long i) {
        std::string k = "abcd";
        for (int d = 0; d < 4; ++d) {
            k += static_cast<char>(1 + i % 255);
            i /= 255;
        }
        return k;
    });
    EXPECT_EQ(a.size(), 8u);
    EXPECT_EQ(b.size(), 8u);
    expect_told_apart(a, b);
}

// Three bytes or fewer are read one by one.
TEST(AssocTags, KeysOfThreeBytesUnderOneTagAreToldApart) {
    auto [a, b] = colliding([](long i) {
        std::string k;
        for (int d = 0; d < 3; ++d) {
            k += static_cast<char>(1 + i % 255);
            i /= 255;
        }
        return k;
    });
    expect_told_apart(a, b);
}

// Keys from five to seven bytes: the two four-byte reads overlap.
TEST(AssocTags, KeysOfSixBytesUnderOneTagAreToldApart) {
    auto [a, b] = colliding([](long i) {
        char buf[16];
        snprintf(buf, sizeof buf, "q%05lx", i & 0xfffff);
        return std::string(buf);
    });
    EXPECT_EQ(a.size(), 6u);
    expect_told_apart(a, b);
}

// Longer keys are kept by address and compared as text.
TEST(AssocTags, LongKeysUnderOneTagAreToldApart) {
    auto [a, b] = colliding([](long i) {
        char buf[48];
        snprintf(buf, sizeof buf, "/a/longer/key/%08ld/end", i);
        return std::string(buf);
    });
    expect_told_apart(a, b);
}
