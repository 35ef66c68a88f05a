// Tests on a slot's instrument identifier: 16 bytes, not necessarily ending
// in a NUL (the snapshot copies at most 15 characters; earlier runs leave bytes).
#pragma once

#include <cstring>

#include "interface/commonheader.h"

// Whether the identifier, up to its first NUL, contains `text`.
inline bool inst_id_contains(const unsigned char (&id)[sizeof(instrument::inst_id)], const char* text) {
    const size_t length = strnlen(reinterpret_cast<const char*>(id), sizeof(id));
    return memmem(id, length, text, strlen(text)) != nullptr;
}

// TAS (trade at settlement) instruments are exempt from the book checks.
inline bool is_tas_instrument(const instrument& inst) {
    return inst_id_contains(inst.inst_id, "TAS");
}

// A spread is named after its two legs (cu2501-cu2601); its prices may be 0
// or negative and it has no price limits.
inline bool is_spread_instrument(const instrument& inst) {
    return inst_id_contains(inst.inst_id, "-");
}
