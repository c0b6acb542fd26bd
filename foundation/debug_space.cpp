// Debug space: the debugging twin of basic space. Every block gets four guard
// bytes after the bytes asked for and an entry in a process-wide log of where
// it was allocated and freed, so that double frees and writes past the end
// are caught when the block is freed, and the whole history can be dumped.
//
// The log is kept with the system allocator, never with the library's own
// allocators, so that it cannot disturb the allocators being debugged. It is
// unguarded process-wide state, lives for the whole process and is scanned
// from the start on every call: this is a tool for debugging builds only.

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "foundation/internal.h"

namespace {

// Written directly after the last byte the caller asked for.
constexpr unsigned char kGuard[4] = {0x0F, 0x09, 0x17, 0x7F};
constexpr uint32_t kGuardSize = sizeof kGuard;

// Records the log starts with, and adds whenever none can be reused.
constexpr uint32_t kLogStep = 2048;

// Longest file name kept in a record; longer names are cut.
constexpr size_t kFileChars = 31;

// More texts than this in one QOR_cat_strings_debug call look like a
// forgotten terminating null.
constexpr int kSuspiciousTexts = 16;

// Where QOR_cat_strings_debug logs its results: it has no caller location.
constexpr const char kUnknownFile[] = "????";
constexpr int32_t kUnknownLine = -1;

struct log_record {
    uint8_t in_use;      // 1 while the block is allocated
    void *address;       // null only for a record never used
    int32_t count;       // units
    int32_t unit_size;   // bytes per unit
    char allocation_file[kFileChars + 1];
    int32_t allocation_line;
    char free_file[kFileChars + 1];
    int32_t free_line;
    uint64_t free_sequence;  // which successful free this was, from 0
};

// The fields in the order the log has always kept them.
static_assert(offsetof(log_record, in_use) == 0);
static_assert(offsetof(log_record, address) > offsetof(log_record, in_use));
static_assert(offsetof(log_record, count) > offsetof(log_record, address));
static_assert(offsetof(log_record, unit_size) > offsetof(log_record, count));
static_assert(offsetof(log_record, allocation_file) >
              offsetof(log_record, unit_size));
static_assert(offsetof(log_record, allocation_line) >
              offsetof(log_record, allocation_file));
static_assert(offsetof(log_record, free_file) >
              offsetof(log_record, allocation_line));
static_assert(offsetof(log_record, free_line) > offsetof(log_record, free_file));
static_assert(offsetof(log_record, free_sequence) >
              offsetof(log_record, free_line));

constinit log_record *freestore_log = nullptr;
constinit uint32_t log_records = 0;
// Counts every free the log accepted; the first one gets 0.
constinit uint64_t next_free_sequence = 0;

// What printf shows for a null text, so that the log and the report lines
// name a missing file the same way.
const char *file_text(const char *file) { return file ? file : "(null)"; }

void copy_file_name(char (&to)[kFileChars + 1], const char *file) {
    strncpy(to, file_text(file), kFileChars);
    to[kFileChars] = '\0';
}

unsigned long address_of(const void *p) {
    return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(p));
}

unsigned char *guard_of(void *block, int32_t count, int32_t unit_size) {
    return static_cast<unsigned char *>(block) +
           static_cast<size_t>(static_cast<uint32_t>(count)) *
               static_cast<uint32_t>(unit_size);
}

// Appends kLogStep cleared records and returns the first of them, or null
// when the system has no memory for them (the log is then unchanged).
log_record *grow_log() {
    const size_t records = static_cast<size_t>(log_records) + kLogStep;
    void *grown = freestore_log == nullptr
                      ? calloc(records, sizeof(log_record))
                      : realloc(freestore_log, records * sizeof(log_record));
    if (grown == nullptr) return nullptr;
    freestore_log = static_cast<log_record *>(grown);
    log_record *first_new = freestore_log + log_records;
    memset(first_new, 0, kLogStep * sizeof(log_record));
    log_records = static_cast<uint32_t>(records);
    return first_new;
}

// The record a new block goes into. A record never used is taken at once;
// otherwise only a free record whose sequence number is 0 may be reused,
// the last one seen. As the counter starts at 0, that is at most the one
// record freed first of all, so in practice the log reuses that record
// once and otherwise grows, keeping the history of every other block. The
// rule is kept as it is on purpose.
log_record *record_for_new_block() {
    log_record *candidate = nullptr;
    for (uint32_t i = 0; i < log_records; ++i) {
        log_record *r = &freestore_log[i];
        if (r->in_use) continue;
        if (r->address == nullptr) return r;
        if (r->free_sequence == 0) candidate = r;
    }
    return candidate != nullptr ? candidate : grow_log();
}

// Guards a fresh block and logs it. The free fields of a reused record are
// left as they were.
void *log_block(void *block, int32_t count, int32_t unit_size,
                const char *file, int32_t line) {
    memcpy(guard_of(block, count, unit_size), kGuard, kGuardSize);
    log_record *r = record_for_new_block();
    if (r == nullptr) {
        // Nobody holds the block yet: give it back before the fatal error,
        // which may jump to a handler and let the process carry on.
        free(block);
        qor::out_of_memory();
    }
    r->in_use = 1;
    r->address = block;
    r->count = count;
    r->unit_size = unit_size;
    copy_file_name(r->allocation_file, file);
    r->allocation_line = line;
    return block;
}

void report_already_freed(const char *file, int32_t line) {
    fprintf(stderr, "error: %d of %s: memory has already been freed\n", line,
            file_text(file));
}

// Logs the free of block and checks its guard. True when the block may be
// given back to the system; a block freed twice, unknown to the log, or
// written past its end is reported and must stay allocated.
bool check_free(void *block, const char *file, int32_t line) {
    if (freestore_log == nullptr) {
        report_already_freed(file, line);
        return false;
    }
    log_record *found = nullptr;
    log_record *last_free = nullptr;
    for (uint32_t i = 0; i < log_records && found == nullptr; ++i) {
        log_record *r = &freestore_log[i];
        if (r->address != block) continue;
        if (r->in_use) {
            found = r;
        } else {
            last_free = r;
        }
    }
    if (found == nullptr) {
        report_already_freed(file, line);
        if (last_free != nullptr) {
            fprintf(stderr,
                    "\tLast use was possibly: allocation at %d of %s and free "
                    "at %d of %s\n",
                    last_free->allocation_line, last_free->allocation_file,
                    last_free->free_line, last_free->free_file);
        }
        return false;
    }

    found->in_use = 0;
    copy_file_name(found->free_file, file);
    found->free_line = line;
    found->free_sequence = next_free_sequence++;
    const unsigned char *guard =
        guard_of(block, found->count, found->unit_size);
    if (memcmp(guard, kGuard, kGuardSize) != 0) {
        // Capital "Error:" here and lower-case "error:" for a double free:
        // both lines are kept exactly as they have always been printed.
        fprintf(stderr,
                "Error: %d of %s: memory written beyond original allocation "
                "boundary\n",
                line, file_text(file));
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

void *QOR_malloc_debug(uint32_t size, const char *file, int32_t line) {
    if (size == 0) return nullptr;
    void *block = malloc(static_cast<size_t>(size) + kGuardSize);
    if (block == nullptr) qor::out_of_memory();
    return log_block(block, 1, static_cast<int32_t>(size), file, line);
}

void *QOR_calloc_debug(uint32_t count, uint32_t size, const char *file,
                       int32_t line) {
    if (count == 0 || size == 0) return nullptr;
    // The extra unit holds the guard; small units are widened so that it
    // always fits in one.
    const uint32_t unit = size < kGuardSize ? kGuardSize : size;
    void *block = calloc(static_cast<size_t>(count) + 1, unit);
    if (block == nullptr) qor::out_of_memory();
    return log_block(block, static_cast<int32_t>(count),
                     static_cast<int32_t>(unit), file, line);
}

void *QOR_realloc_debug(void *block, uint32_t size, const char *file,
                        int32_t line) {
    if (size == 0) return nullptr;
    // The check reports what it finds, but the resize goes ahead regardless:
    // the caller asked for the memory and the report has been made.
    (void)check_free(block, file, line);
    void *resized = realloc(block, static_cast<size_t>(size) + kGuardSize);
    if (resized == nullptr) qor::out_of_memory();
    return log_block(resized, 1, static_cast<int32_t>(size), file, line);
}

void QOR_free_debug(void *block, const char *file, int32_t line) {
    if (check_free(block, file, line)) free(block);
}

char *QOR_copy_string_debug(const char *text, const char *file,
                            int32_t line) {
    if (text == nullptr) {
        char *empty = static_cast<char *>(QOR_malloc_debug(1, file, line));
        empty[0] = '\0';
        return empty;
    }
    const size_t n = strlen(text) + 1;
    char *copy = static_cast<char *>(
        QOR_malloc_debug(static_cast<uint32_t>(n), file, line));
    memcpy(copy, text, n);
    return copy;
}

void *QOR_copy_memory_debug(const void *block, uint32_t length,
                            const char *file, int32_t line) {
    if (block == nullptr) return nullptr;
    if (length == 0) return QOR_malloc_debug(1, file, line);  // content unset
    void *copy = QOR_malloc_debug(length, file, line);
    memcpy(copy, block, length);
    return copy;
}

char *QOR_cat_strings_debug(const char *first, ...) {
    if (first == nullptr)
        return QOR_copy_string_debug(nullptr, kUnknownFile, kUnknownLine);

    int count = 1;
    size_t total = strlen(first);
    va_list args;
    va_start(args, first);
    for (const char *s = va_arg(args, const char *); s != nullptr;
         s = va_arg(args, const char *)) {
        total += strlen(s);
        ++count;
    }
    va_end(args);
    if (count > kSuspiciousTexts) {
        fprintf(stderr,
                "warning: ?? of ????: suspicious no. of params (%d) for "
                "QOR_cat_strings\n",
                count);
    }

    char *result = static_cast<char *>(QOR_malloc_debug(
        static_cast<uint32_t>(total + 1), kUnknownFile, kUnknownLine));
    char *out = result;
    const char *s = first;
    va_start(args, first);
    for (int i = 0; i < count; ++i) {
        if (i > 0) s = va_arg(args, const char *);
        const size_t n = strlen(s);
        memcpy(out, s, n);
        out += n;
    }
    va_end(args);
    *out = '\0';
    return result;
}

void QOR_freestore_dump(void) {
    fputs("\n\nDUMPING FREESTORE LOG ... \n", stderr);
    if (freestore_log != nullptr) {
        for (uint32_t i = 0; i < log_records; ++i) {
            const log_record &r = freestore_log[i];
            if (!r.in_use) continue;
            fprintf(stderr, "%lx: %d units of %d bytes allocated at %d of %s\n",
                    address_of(r.address), r.count, r.unit_size,
                    r.allocation_line, r.allocation_file);
        }
        for (uint32_t i = 0; i < log_records; ++i) {
            const log_record &r = freestore_log[i];
            if (r.in_use || r.address == nullptr) continue;
            fprintf(stderr,
                    "%lx: %d units of %d bytes allocated at %d of %s and "
                    "deallocated at %d of %s\n",
                    address_of(r.address), r.count, r.unit_size,
                    r.allocation_line, r.allocation_file, r.free_line,
                    r.free_file);
        }
    }
    fputs("END OF FREESTORE DUMP\n", stderr);
}

}  // extern "C"
