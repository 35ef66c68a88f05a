// Compares the books the feed published with the simulator's expected state,
// under the subscription rules of the feed's configuration.
#pragma once

#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "sim/SimState.h"

struct SubscriptionRules {
    bool shfe = true;  // shfe2ps enabled
    bool ine = true;   // ine2ps enabled
    bool all = true;   // insts = all
    std::vector<std::string> insts;
    bool options = true;  // false: options = norecv
};

// Whether the feed keeps `inst` under `rules`: an option (an identifier longer
// than six characters) only with options on; then everything with insts = all,
// else an entry of two characters matching the identifier's start, or one equal
// to its first six characters.
bool expect_subscribed(const SimInstrumentState& inst, const SubscriptionRules& rules);

// Every difference between `area` and `expected`, one line each: the counts,
// every field of each subscribed instrument's record (first five levels), and
// that no other slot of an enabled exchange holds an instrument.
std::vector<std::string> compare_books(const share& area, const SimState& expected,
                                       const SubscriptionRules& rules);

// Checks the update ring of a run that published fewer than 65536 updates:
// slots up to the first end marker, end markers after it. Returns the
// problems found; `announced` receives the number of entries.
std::vector<std::string> check_ring(const uint16_t* ring, const share& area, size_t& announced);

// The expected state that `record` in `slot` matches field for field (the
// exchange and instrument number from the slot, the identifier up to its NUL).
SimInstrumentState expected_of_record(const instrument& record, uint32_t slot);
