// The checks an instrument's book must pass after a decoded record: levels 1
// to 5 of both sides, bid prices falling, ask prices rising, the first bid
// under the first ask, pairs with an empty level skipped. TAS instruments
// are exempt.
#pragma once

#include <cstdint>
#include <cstring>

#include "interface/commonheader.h"

// The first failure, in the order bid, ask, crossed; `level` is the 0-based
// index of the pair's first level.
enum EBookFault { BOOK_FAULT_NONE, BOOK_FAULT_BID, BOOK_FAULT_ASK, BOOK_FAULT_CROSSED };
struct book_fault {
    EBookFault kind;
    int level;
};

// An empty level: no price and no volume. The volume test comes first: it
// settles the common, non-empty case.
inline bool book_level_empty(double px, int32_t vol) {
    return vol <= 0 && px > -1e-5 && px < 1e-5;
}

inline book_fault find_book_fault(const instrument& inst) {
    bool bidUsed[5];
    bool askUsed[5];
    for (int i = 0; i < 5; ++i) {
        bidUsed[i] = !book_level_empty(inst.bid_px[i], inst.bid_vol[i]);
        askUsed[i] = !book_level_empty(inst.ask_px[i], inst.ask_vol[i]);
    }
    for (int i = 0; i < 4; ++i) {
        if (bidUsed[i] && bidUsed[i + 1] && inst.bid_px[i + 1] >= inst.bid_px[i]) {
            return {BOOK_FAULT_BID, i};
        }
    }
    for (int i = 0; i < 4; ++i) {
        if (askUsed[i] && askUsed[i + 1] && inst.ask_px[i] >= inst.ask_px[i + 1]) {
            return {BOOK_FAULT_ASK, i};
        }
    }
    if (bidUsed[0] && askUsed[0] && inst.bid_px[0] >= inst.ask_px[0]) {
        return {BOOK_FAULT_CROSSED, 0};
    }
    return {BOOK_FAULT_NONE, 0};
}

// The same answer for the common book, without the pairing: when every
// checked level has a positive volume none is empty, and only the prices
// decide. Otherwise BOOK_UNDECIDED: find_book_fault decides. Loads match the
// width of the stores that wrote the levels, so they are served from the
// store buffer.
enum EBookVerdict { BOOK_SOUND, BOOK_FAULTY, BOOK_UNDECIDED };

inline EBookVerdict quick_book_verdict(const instrument& inst) {
#pragma GCC unroll 5
    for (int i = 0; i < 5; ++i) {
        if (__builtin_expect(inst.bid_vol[i] <= 0 || inst.ask_vol[i] <= 0, 0)) {
            return BOOK_UNDECIDED;
        }
    }
    const double* bid = inst.bid_px;
    const double* ask = inst.ask_px;
    const bool faulty = bid[1] >= bid[0] || bid[2] >= bid[1] || bid[3] >= bid[2] || bid[4] >= bid[3] ||
                        ask[0] >= ask[1] || ask[1] >= ask[2] || ask[2] >= ask[3] || ask[3] >= ask[4] ||
                        bid[0] >= ask[0];
    return __builtin_expect(faulty, 0) ? BOOK_FAULTY : BOOK_SOUND;
}

// Whether the id, up to its first NUL, contains "TAS". The three letters are
// not NUL, so a match that starts before the first NUL ends before it too.
inline bool inst_id_has_tas(const instrument& inst) {
    const unsigned char* id = inst.inst_id;
    for (size_t p = 0; p + 3 <= sizeof(inst.inst_id); ++p) {
        if (id[p] == 0) {
            return false;
        }
        if (id[p] == 'T' && id[p + 1] == 'A' && id[p + 2] == 'S') {
            return true;
        }
    }
    return false;
}
