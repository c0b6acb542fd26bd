// Open-addressed tables for the private indexes that sit beside public
// records (ASSOC chains, static allocator blocks): plain data that sets
// itself up on first use, safe to leave behind on a fatal error's jump.
#pragma once

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "foundation/internal.h"

namespace qor {

// A 64-bit finaliser: every input bit reaches every output bit.
inline uint64_t mix(uint64_t h) {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 33;
    return h;
}

inline uint64_t address_hash(const void *p) {
    return mix(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)));
}

// A strong hash of `n` bytes, eight at a time. The last 1 to 7 bytes are
// read as two overlapping loads rather than copied out one by one, so that
// no length costs a call.
inline uint64_t bytes_hash(const void *data, size_t n) {
    constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;
    const auto *s = static_cast<const unsigned char *>(data);
    uint64_t h = n * kMul;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        memcpy(&w, s + i, 8);
        h = (h ^ w) * kMul;
        h ^= h >> 29;
    }
    const size_t rest = n - i;
    if (rest != 0) {
        uint64_t w;
        if (rest >= 4) {
            uint32_t first, last;
            memcpy(&first, s + i, 4);
            memcpy(&last, s + n - 4, 4);
            w = first | (uint64_t{last} << 32);
        } else {
            // 1 to 3 bytes: the first, the middle and the last (some the
            // same byte).
            w = s[i] | (uint64_t{s[i + rest / 2]} << 8) |
                (uint64_t{s[n - 1]} << 16);
        }
        h = (h ^ w) * kMul;
        h ^= h >> 29;
    }
    return mix(h);
}

// Zero-filled memory for an index; exhaustion is the library's fatal error.
inline void *zeroed(uint64_t count, uint64_t size) {
    void *p = calloc(count, size);
    if (p == nullptr) qor::out_of_memory();
    return p;
}

// Open addressing with linear probing and backward-shift deletion: no
// tombstones, so a table that churns keeps its probe lengths. Nothing
// may point into the slot arrays, since slots move.
// Slots say whether they are empty (all zero) and give their home hash.
template <class Slot>
struct Probe {
    Slot *slots = nullptr;
    uint64_t mask = 0;
    uint64_t live = 0;

    void release() {
        free(slots);
        slots = nullptr;
        mask = 0;
        live = 0;
    }

    void reset() {
        if (slots != nullptr) memset(slots, 0, (mask + 1) * sizeof(Slot));
        live = 0;
    }

    // Room for one more, keeping the load at three quarters at most.
    void reserve_one() {
        if (slots != nullptr && (live + 1) * 4 <= (mask + 1) * 3) return;
        const uint64_t old_size = slots != nullptr ? mask + 1 : 0;
        const uint64_t size = old_size != 0 ? old_size * 2 : 64;
        Slot *old = slots;
        slots = static_cast<Slot *>(zeroed(size, sizeof(Slot)));
        mask = size - 1;
        for (uint64_t i = 0; i < old_size; ++i) {
            if (old[i].empty()) continue;
            uint64_t j = old[i].home() & mask;
            while (!slots[j].empty()) j = (j + 1) & mask;
            slots[j] = old[i];
        }
        free(old);
    }

    // A free slot for a new item whose home is `home` (after reserve_one).
    Slot *place(uint64_t home) {
        uint64_t j = home & mask;
        while (!slots[j].empty()) j = (j + 1) & mask;
        live += 1;
        return &slots[j];
    }

    void erase(Slot *s) {
        uint64_t i = static_cast<uint64_t>(s - slots);
        uint64_t j = i;
        for (;;) {
            j = (j + 1) & mask;
            if (slots[j].empty()) break;
            const uint64_t k = slots[j].home() & mask;
            // Move j back to i unless its home lies cyclically in (i, j].
            const bool stays = i <= j ? (i < k && k <= j) : (i < k || k <= j);
            if (!stays) {
                slots[i] = slots[j];
                i = j;
            }
        }
        slots[i] = Slot{};
        live -= 1;
    }
};

}  // namespace qor
