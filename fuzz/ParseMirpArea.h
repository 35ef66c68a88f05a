// The market-data area the parse_mirp fuzzer works on, and the meaning of the
// first byte of each input, which prepares that area before the rest of the
// input is parsed as one decoded record. Shared with the seed generator.
#pragma once

#include <cstdint>

#include "interface/commonheader.h"

namespace parse_mirp_fuzz {

// Every named instrument starts here; mode kChangeAsPrepared keeps it.
constexpr uint32_t kPreparedChangeNo = 10;

struct NamedInstrument {
    bool ine;
    uint32_t instrumentNo;
    char id[16];
    double tick;
    double codec;
    int multi;
};

// Chosen for the edges of the slot table (0, 16383 next to INE's 4095, INE's 0
// in slot 20479), options (ids past six characters), TAS ids, and an
// unsubscribed slot whose id has a stray seventh byte.
inline constexpr NamedInstrument kInstruments[] = {
    {false, 0, "cu2501", 10.0, 70000.0, 5},   {false, 1, "al2501", 5.0, 20000.0, 5},
    {false, 2, "au2506", 0.02, 600.0, 1000},  {false, 3, "cu2501C70000", 2.0, 1500.0, 5},
    {false, 4, "auTAS6", 0.02, 0.0, 1000},    {false, 5, "\0\0\0\0\0\0X", 1.0, 100.0, 1},
    {false, 100, "rb2510", 1.0, 3500.0, 10},  {false, 16383, "zn2512", 5.0, 22000.0, 5},
    {true, 0, "sc2501", 0.1, 550.0, 1000},    {true, 1, "lu2503", 1.0, 4000.0, 10},
    {true, 2, "scTAS2501", 0.1, 0.0, 1000},   {true, 3, "sc2501C500", 0.05, 30.0, 1000},
    {true, 4095, "nr2512", 5.0, 13000.0, 10},
};

inline uint32_t SlotOf(const NamedInstrument& inst) {
    return inst.ine ? quvo_ine_slot(inst.instrumentNo) : quvo_shfe_slot(inst.instrumentNo);
}

// The first input byte.
enum : uint8_t {
    // Where the record's change number stands against the slot's.
    kChangeMask = 0x03,
    kChangeFollows = 0x00,  // stored = changeNo - 1: the record applies
    kChangeFollowsToo = 0x01,
    kChangeStale = 0x02,       // stored = changeNo
    kChangeAsPrepared = 0x03,  // stored = kPreparedChangeNo
    // Parse with options off instead of on.
    kOptionsOff = 0x04,
    // The slot's book before the record.
    kBookMask = 0x18,
    kBookFive = 0x00,
    kBookTen = 0x08,
    kBookEmpty = 0x10,
    kBookIrregular = 0x18,  // holes, levels out of order, bid1 above ask1
    // Parse the record a second time, its change number made to follow again.
    kTwice = 0x20,
};

}  // namespace parse_mirp_fuzz
