/*
 * The book message quvo-bridge publishes over NATS, one per changed
 * instrument, and the form the key-value bucket keeps. Self-contained C11 and
 * C++; every field is little-endian at its natural alignment, no packing.
 *
 * A receiver checks `magic` and `version` and refuses anything else: a new
 * layout gets a new version number, never a changed meaning under the old one.
 *
 * Order: for one slot, a message is newer than another when its (epoch, seq)
 * pair is greater, epoch first. A bridge takes its epoch from the clock when
 * it starts and numbers each slot's messages 1, 2, 3... from there, so a
 * restarted bridge's books win over those of the bridge before it.
 */
#ifndef QUVO_INTERFACE_QUVOBRIDGE_H
#define QUVO_INTERFACE_QUVOBRIDGE_H

#include <stddef.h>
#include <stdint.h>

#include "commonheader.h"

#define QUVO_BOOK_MSG_MAGIC 0x4B425651u /* "QVBK" in memory order */
#define QUVO_BOOK_MSG_VERSION 1u
#define QUVO_BOOK_MSG_SIZE 368u

typedef struct quvo_book_msg {
    uint32_t magic;      /* QUVO_BOOK_MSG_MAGIC */
    uint16_t version;    /* QUVO_BOOK_MSG_VERSION */
    uint16_t slot;       /* instrument slot in the market-data area (SHFE below 16384) */
    uint64_t epoch;      /* the publishing bridge's start, ns since the Unix epoch */
    uint64_t seq;        /* this slot's message number within the epoch, from 1 */
    uint64_t publish_ns; /* when the bridge published it, ns since the Unix epoch */
    instrument book;     /* the record as the feed published it */
} quvo_book_msg;

#ifdef __cplusplus
#define QUVO_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QUVO_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, magic) == 0, "magic offset");
QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, version) == 4, "version offset");
QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, slot) == 6, "slot offset");
QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, epoch) == 8, "epoch offset");
QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, seq) == 16, "seq offset");
QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, publish_ns) == 24, "publish_ns offset");
QUVO_STATIC_ASSERT(offsetof(quvo_book_msg, book) == 32, "book offset");
QUVO_STATIC_ASSERT(sizeof(quvo_book_msg) == QUVO_BOOK_MSG_SIZE, "book message size");

#undef QUVO_STATIC_ASSERT

#endif /* QUVO_INTERFACE_QUVOBRIDGE_H */
