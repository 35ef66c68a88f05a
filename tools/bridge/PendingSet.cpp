#include "tools/bridge/PendingSet.h"

CPendingSet::CPendingSet(uint32_t slots) : m_queue(slots), m_markedNs(slots), m_state(slots) {}

bool CPendingSet::Mark(uint32_t slot, uint64_t nowNs, bool force) {
    if (slot >= m_state.size()) {
        return false;
    }
    if (m_state[slot] != 0) {
        if (force) {
            m_state[slot] = 2;
        }
        return false;
    }
    m_state[slot] = force ? 2 : 1;
    m_markedNs[slot] = nowNs;
    m_queue[(m_head + m_count) % m_queue.size()] = slot;
    ++m_count;
    return true;
}

bool CPendingSet::Take(uint32_t& slot, uint64_t& markedNs, bool& force) {
    if (m_count == 0) {
        return false;
    }
    slot = m_queue[m_head];
    m_head = (m_head + 1) % m_queue.size();
    --m_count;
    markedNs = m_markedNs[slot];
    force = m_state[slot] == 2;
    m_state[slot] = 0;
    return true;
}
