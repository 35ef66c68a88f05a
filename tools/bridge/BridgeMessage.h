// quvo-bridge's book messages (interface/quvobridge.h): building one from a
// record, the binary and JSON forms, and the subject and bucket key of each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "interface/quvobridge.h"

// "SHFE" for a slot below 16384, else "INE".
const char* bridge_exchange(uint32_t slot);

// The identifier as one subject token: its bytes up to the first NUL, each
// byte other than A-Z, a-z, 0-9, '-' and '_' written as '=' and two upper-case
// hex digits ("cu2501" stays, "a b" is "a=20b"); an empty identifier is "=".
// The token is also a valid key-value key.
std::string bridge_id_token(const instrument& book);

// "<prefix>.<SHFE|INE>.<token>": the subject a book is published on.
std::string bridge_subject(const std::string& prefix, uint32_t slot, const instrument& book);

// "<SHFE|INE>.<token>": the book's key in the key-value bucket.
std::string bridge_key(uint32_t slot, const instrument& book);

// A message of the current version for `book` in `slot`.
quvo_book_msg bridge_message(uint32_t slot, uint64_t epoch, uint64_t seq, uint64_t publishNs,
                             const instrument& book);

// The binary form: the QUVO_BOOK_MSG_SIZE bytes of `msg`.
std::string bridge_encode(const quvo_book_msg& msg);

// The JSON form, one object on one line: "v", "exchange", "slot", "inst_no",
// "epoch", "seq", "publish_ns", "id" (the identifier's bytes as Latin-1), then
// every field of the record under its C name, the levels as arrays of ten.
// Doubles are written in the shortest form that reads back as the same value;
// a value that is not finite is null (and reads back as a quiet NaN).
std::string bridge_encode_json(const quvo_book_msg& msg);

// Reads either form (JSON when the first byte is '{'). True with `out` set;
// false with `error` when the bytes are not a message of the current version
// or name a slot outside the area.
bool bridge_decode(const void* data, size_t size, quvo_book_msg& out, std::string& error);

// Whether `a` is newer than `b` for the same slot: (epoch, seq) is greater.
inline bool bridge_newer(uint64_t epochA, uint64_t seqA, uint64_t epochB, uint64_t seqB) {
    return epochA != epochB ? epochA > epochB : seqA > seqB;
}
