// The bridge's conflation table: instruments waiting to be published, each
// held at most once, oldest first. An announcement of an instrument already
// waiting is folded into the one publication, which reads the record when it
// is made, so the latest book wins and the table never holds more entries
// than there are slots. Not thread-safe: the bridge guards it with a mutex.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "interface/commonheader.h"

class CPendingSet {
public:
    explicit CPendingSet(uint32_t slots = QUVO_INST_SLOTS);

    // Makes `slot` wait for publication, marked at `nowNs`; `force` asks for
    // it to be published even when its record equals the last one published.
    // Returns true when the slot was not waiting; false when it already was
    // (the announcement is conflated: the slot keeps its place and its first
    // mark time, and gains `force`) or is outside the table.
    bool Mark(uint32_t slot, uint64_t nowNs, bool force = false);

    // Takes the slot that has waited longest: true with it, when it was
    // marked and whether it was forced; false when none waits.
    bool Take(uint32_t& slot, uint64_t& markedNs, bool& force);

    size_t Size() const { return m_count; }
    bool IsPending(uint32_t slot) const { return slot < m_state.size() && m_state[slot] != 0; }

private:
    std::vector<uint32_t> m_queue;  // circular, one place per slot
    std::vector<uint64_t> m_markedNs;
    std::vector<uint8_t> m_state;  // 0 not waiting, 1 waiting, 2 waiting and forced
    size_t m_head = 0;
    size_t m_count = 0;
};
