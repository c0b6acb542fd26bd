// Views of records that may be carved out of a freestore.
//
// A freestore aligns its pieces to 4 bytes only, yet the records kept there
// (atom entries, TABLE records and entries, any entry of a caller's key
// type) hold pointers and 64-bit words. The container units read and write
// such records only through these views, which keep the natural layout but
// claim no more than the 4-byte alignment a piece is guaranteed to have, so
// every access is well defined wherever the piece starts. Name the view
// type in every declaration: `auto` deduces the underlying record and drops
// the alignment.
#pragma once

#include "qor/containers.h"

namespace qor::containers {

typedef QOR_ASSOC_entry Entry __attribute__((aligned(4)));
typedef QOR_ASSOC_string_entry StringEntry __attribute__((aligned(4)));
typedef QOR_TABLE Table __attribute__((aligned(4)));
typedef QOR_TABLE_entry TableEntry __attribute__((aligned(4)));

// The view of an entry handed in by a caller.
inline Entry *piece(QOR_ASSOC_entry *e) { return e; }

// The handle handed out to a caller's callbacks. The public type claims the
// natural alignment; callers only pass it back or read it through their own
// key type, so the claim is the interface's, not an access made here.
inline QOR_ASSOC_entry *handle(Entry *e) {
    return reinterpret_cast<QOR_ASSOC_entry *>(e);
}

// The doubly linked lists of the containers (the table registry, a table's
// scans, a table's sequences): newest at the head, linked through next and
// prev, the head's prev null.
template <class Node>
inline void push_front(Node *&head, Node *node) {
    node->next = head;
    node->prev = nullptr;
    if (head != nullptr) head->prev = node;
    head = node;
}

template <class Node>
inline void unlink(Node *&head, Node *node) {
    if (node->prev != nullptr) {
        node->prev->next = node->next;
    } else {
        head = node->next;
    }
    if (node->next != nullptr) node->next->prev = node->prev;
}

}  // namespace qor::containers
