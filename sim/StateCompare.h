// Compares a feed's shared-memory records with the simulator's expected
// state, field by field: what quvo-dump --check and the tests report.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "sim/SimState.h"

struct SimFieldDifference {
    std::string field;  // as the expected state names it: "change_no", "bid_px[2]"
    std::string got;    // the shared record's value
    std::string want;   // the expected state's value
};

// The slot `inst`'s exchange and instrument number give, or -1 when its
// number is outside the exchange's range.
int32_t sim_slot_of(const SimInstrumentState& inst);

// Every field of `want` that the shared record `got` holds and that differs:
// the identifier (its first 15 characters, what the record keeps), change_no,
// last_px, volume, turnover, open_interest, the totals, the highest and lowest
// price, and the published levels a side. Doubles are compared with ==, no
// tolerance, and given as the shortest text that reads back as the same
// double, so two values that differ never print alike. Empty when equal.
std::vector<SimFieldDifference> compare_instrument(const instrument& got, const SimInstrumentState& want);

// One line naming the instrument, its exchange, slot and field, with both
// values: cu2501 SHFE slot 3 bid_px[0]: 72010 in shared memory, 72000 expected
std::string describe_difference(const SimInstrumentState& want, const SimFieldDifference& difference);
