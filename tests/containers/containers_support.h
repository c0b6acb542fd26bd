// Helpers shared by the container tests.
#pragma once

#include <qor/qor.h>
#include <stdint.h>
#include <stdio.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "harness.h"

namespace containers_test {

// Captures standard error in rounds: each take() returns what was written
// since the last one and starts a new round.
class ErrLog {
  public:
    ErrLog() : cap_(std::make_unique<qor_test::StderrCapture>()) {}
    std::string take() {
        std::string s = cap_->take();
        cap_ = std::make_unique<qor_test::StderrCapture>();
        return s;
    }

  private:
    std::unique_ptr<qor_test::StderrCapture> cap_;
};

// A pointer or machine word as the printers write it: "0x%08lx".
inline std::string hex(uint64_t v) {
    char buf[32];
    snprintf(buf, sizeof buf, "0x%08lx", static_cast<unsigned long>(v));
    return buf;
}
inline std::string hex(const void *p) {
    return hex(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(p)));
}

// A long integer as an ASSOC key.
inline const void *lkey(long k) {
    return reinterpret_cast<const void *>(static_cast<intptr_t>(k));
}
// An opaque value word.
inline void *val(uintptr_t v) { return reinterpret_cast<void *>(v); }

inline QOR_ASSOC_string_entry *S(QOR_ASSOC_entry *e) {
    return reinterpret_cast<QOR_ASSOC_string_entry *>(e);
}
inline QOR_ASSOC_long_int_entry *L(QOR_ASSOC_entry *e) {
    return reinterpret_cast<QOR_ASSOC_long_int_entry *>(e);
}

// The line the string key type prints for an entry.
inline std::string string_line(QOR_ASSOC_entry *e, int bucket) {
    QOR_ASSOC_string_entry *s = S(e);
    return hex(s->hash) + "\t" + std::to_string(bucket) + "\t(" + hex(s->key) +
           ", " + s->key + "): " + hex(s->value) + "\n";
}

// The line the long-int key type prints for an entry.
inline std::string long_line(QOR_ASSOC_entry *e, int bucket) {
    QOR_ASSOC_long_int_entry *l = L(e);
    return hex(l->hash) + "\t" + std::to_string(bucket) + "\t(" +
           hex(l->hash) + ", " + std::to_string(static_cast<long>(l->hash)) +
           "): " + hex(l->value) + "\n";
}

// The hooks every key type of the library shares: default bucket arrays,
// table records and scans, no init hooks, tracing off. The rest is the
// caller's to check.
inline void expect_library_hooks(const QOR_ASSOC_key_type *k) {
    ASSERT_NE(k, nullptr);
    EXPECT_EQ(k->entry_init, nullptr);
    EXPECT_EQ(k->hash_alloc, &QOR_ASSOC_hash_alloc);
    EXPECT_EQ(k->hash_free, &QOR_ASSOC_hash_free);
    EXPECT_EQ(k->table_alloc, &QOR_ASSOC_table_alloc);
    EXPECT_EQ(k->table_init, nullptr);
    EXPECT_EQ(k->table_free, &QOR_ASSOC_table_free);
    EXPECT_EQ(k->scan_alloc, &QOR_ASSOC_scan_alloc);
    EXPECT_EQ(k->scan_init, nullptr);
    EXPECT_EQ(k->scan_free, &QOR_ASSOC_scan_free);
    EXPECT_EQ(k->scan_size, sizeof(QOR_ASSOC_scan));
    EXPECT_EQ(k->trace, 0);
}

// TABLE records and entries are pieces of a freestore, aligned to 4 bytes
// only: the tests read them through these views (never through `auto`,
// which drops the alignment), and give gtest's reference-taking assertions
// a copy of a field (`+V(t)->mask`), never the field itself.
typedef QOR_TABLE_entry TEntry __attribute__((aligned(4)));
typedef QOR_TABLE TTable __attribute__((aligned(4)));
inline TEntry *V(QOR_TABLE_entry *e) { return e; }
inline TTable *V(QOR_TABLE *t) { return t; }

}  // namespace containers_test
