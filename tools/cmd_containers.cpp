// qor commands and tour step for the associative containers: a hash table
// walked by a scan that removes entries as it goes, atoms, and a TABLE in a
// freestore walked by a sequence.

#include <qor/qor.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "commands.h"

namespace qor_tool {
namespace {

constexpr int kHashedBytes = 14;  // the ASSOC string hash's window

// qor assoc-hash KEY...: the ASSOC string hash of each key, its bucket in a
// new table, and the bytes the hash looked at.
int assoc_hash(Invocation &in) {
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type,
                                                "assoc-hash", nullptr);
    for (int i = 0; i < in.count; ++i) {
        const char *key = in.operands[i];
        const int n = static_cast<int>(strlen(key));
        const int start = n > kHashedBytes ? (n - kHashedBytes) / 2 : 0;
        const int span = n > kHashedBytes ? kHashedBytes : n;
        const uint64_t h = QOR_ASSOC_string_hash(t, key);
        printf("%s\t0x%08lx\tbucket %d of %d\thashed \"%.*s\"\n", key,
               static_cast<unsigned long>(h), static_cast<int>(h & t->mask),
               static_cast<int>(t->mask + 1), span, key + start);
    }
    QOR_ASSOC_table_destroy(t);
    return kExitOk;
}

void *word(long v) { return reinterpret_cast<void *>(static_cast<intptr_t>(v)); }
long number(void *v) { return static_cast<long>(reinterpret_cast<intptr_t>(v)); }

int tour_assoc() {
    printf("An ASSOC table of string keys (QOR_ASSOC_table_create), five "
           "fruits with their counts:\n");
    QOR_ASSOC_table *t = QOR_ASSOC_table_create(0, QOR_ASSOC_string_key_type,
                                                "fruit", nullptr);
    const char *fruits[] = {"apple", "banana", "cherry", "damson", "elder"};
    long count = 3;
    for (const char *f : fruits) {
        QOR_ASSOC_table_insert(t, f, word(count), nullptr);
        count += 4;
    }
    int found = 0;
    QOR_ASSOC_table_insert(t, "apple", word(99), &found);
    printf("  inserting \"apple\" again finds the entry (found = %d) and keeps "
           "its count\n", found);

    printf("A scan (QOR_ASSOC_scan_next) visits the buckets in order and "
           "removes \"banana\"\nas it passes (QOR_ASSOC_scan_remove); the scan "
           "carries on with the entry after it:\n");
    QOR_ASSOC_scan *s = QOR_ASSOC_scan_create(t, nullptr);
    int seen = 0;
    for (QOR_ASSOC_entry *e = QOR_ASSOC_scan_next(s); e != nullptr;
         e = QOR_ASSOC_scan_next(s)) {
        auto *se = reinterpret_cast<QOR_ASSOC_string_entry *>(e);
        printf("  bucket %2d: %-7s %ld\n", static_cast<int>(e->hash & t->mask),
               se->key, number(se->value));
        ++seen;
        if (strcmp(se->key, "banana") == 0) {
            QOR_ASSOC_scan_remove(s);
            printf("             (removed)\n");
        }
    }
    QOR_ASSOC_scan_destroy(s);
    if (seen != 5 || t->count != 4 || QOR_ASSOC_table_find(t, "banana")) {
        return 1;
    }

    printf("The library's report of the table, on standard error "
           "(QOR_ASSOC_table_report_by_name):\n");
    fflush(stdout);
    QOR_ASSOC_table_report_by_name(stderr, "fruit");
    fflush(stderr);
    QOR_ASSOC_table_destroy(t);
    return 0;
}

int tour_atoms() {
    printf("\nAtoms (QOR_string_to_atom): each distinct string gets the next "
           "number, for good:\n");
    QOR_atom_table *t = QOR_create_atom_table("colours", 0, 0, 0);
    const char *colours[] = {"red", "green", "blue", "red", "green"};
    for (const char *c : colours) {
        printf("  %-5s -> %d\n", c, QOR_string_to_atom(t, c));
    }
    const int unique = QOR_unique_atom(t);
    printf("  a unique atom (QOR_unique_atom) -> %d, with no string: %s\n",
           unique, QOR_atom_to_string(t, unique) ? "wrong" : "null");
    printf("  atom 2 is \"%s\"; \"purple\" has atom %d (none, and no number "
           "used up)\n",
           QOR_atom_to_string(t, 2), QOR_string_to_existing_atom(t, "purple"));
    const bool ok = QOR_string_to_atom(t, "red") == 1 && unique == 4 &&
                    QOR_string_to_atom(t, "purple") == 5;
    QOR_destroy_atom_table(t);
    return ok ? 0 : 1;
}

int tour_table() {
    printf("\nA TABLE kept in a freestore (QOR_TABLE_create), walked by a "
           "sequence that\nskips what is removed under it "
           "(QOR_TABLE_remove_entry):\n");
    QOR_FS_allocator fs = QOR_FS_INITIALISER(2016, 0);
    QOR_TABLE *t = QOR_TABLE_create(8, 1, &fs);
    const char *days[] = {"mon", "tue", "wed", "thu", "fri"};
    long n = 1;
    for (const char *d : days) QOR_TABLE_insert(t, d, word(n++), 1);
    QOR_TABLE_SEQ *s = QOR_TABLE_SEQ_create(t);
    int seen = 0;
    for (QOR_TABLE_entry *e = QOR_TABLE_SEQ_next(s); e != nullptr;
         e = QOR_TABLE_SEQ_next(s)) {
        // The entry is a piece of the freestore: copy its fields out.
        const void *key;
        void *value;
        memcpy(&key, reinterpret_cast<char *>(e), sizeof key);
        memcpy(&value, reinterpret_cast<char *>(e) + sizeof key, sizeof value);
        printf("  %s = %ld\n", static_cast<const char *>(key), number(value));
        ++seen;
        if (seen == 1) {
            void *removed = nullptr;
            for (const char *d : days) {
                if (strcmp(d, static_cast<const char *>(key)) != 0 &&
                    QOR_TABLE_remove_entry(t, d, &removed) == 1) {
                    printf("  (removed %s, which the sequence will not "
                           "return)\n", d);
                    break;
                }
            }
        }
    }
    QOR_TABLE_SEQ_destroy(s);
    printf("The report of what is left, on standard error (QOR_TABLE_report):\n");
    fflush(stdout);
    QOR_TABLE_report(t);
    fflush(stderr);
    QOR_TABLE_destroy(t);
    QOR_FS_destroy(&fs);
    return seen == 4 ? 0 : 1;
}

}  // namespace

const Command containers_commands[] = {
    {"assoc-hash", assoc_hash, "KEY...",
     "the ASSOC string hash of each key and its bucket in a new table",
     "Prints, tab-separated, each KEY, its ASSOC string hash, the bucket it "
     "falls\nin in a new table of the default size, and the bytes the hash "
     "looked at\n(at most 14, from the middle of a longer key).",
     nullptr, 1, -1},
    {}};

int tour_containers() {
    tour_heading("Associative containers: hash tables, scans and atoms");
    if (tour_assoc() != 0 || tour_atoms() != 0 || tour_table() != 0) return 1;
    fflush(stdout);
    return 0;
}

}  // namespace qor_tool
