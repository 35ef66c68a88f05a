// Attaching, clearing and detaching the two output segments.
#pragma once

#include <cstdint>

#include "interface/commonheader.h"

struct SharedSegments {
    uint16_t* pUpdateRing;
    share* pMdArea;
};

// Attaches the update ring and fills it with end markers, then attaches the
// market-data area, which keeps whatever an earlier run left in it. Key files
// come from shm_key_path. Exits the process on failure (see create_shm).
SharedSegments attach_shared_segments();

// Detaches the market-data area, then the ring; both segments stay in place.
void detach_shared_segments(const SharedSegments& segments);

// Per-run clearing: zeroes the books, last price, volume, turnover, open
// interest and change number of all slots. Identifiers, times, type, totals,
// highs, lows and the four counters keep their values.
void clear_books(share& area);
