#include "tools/bridge/MirrorBooks.h"

#include <cstring>

#include "tools/bridge/BridgeMessage.h"

CMirrorBooks::CMirrorBooks(share& area, CUpdateRing& ring)
    : m_area(area), m_ring(ring), m_order(QUVO_INST_SLOTS, BookOrder{0, 0}) {}

void CMirrorBooks::Clear() {
    memset(&m_area, 0, sizeof(m_area));
    m_order.assign(QUVO_INST_SLOTS, BookOrder{0, 0});
}

EMirrorApply CMirrorBooks::Apply(const quvo_book_msg& msg) {
    const uint32_t slot = msg.slot;
    BookOrder& order = m_order[slot];
    if (!bridge_newer(msg.epoch, msg.seq, order.epoch, order.seq)) {
        ++m_stale;
        return EMirrorApply::Stale;
    }
    order = BookOrder{msg.epoch, msg.seq};
    memcpy(&m_area.instmts[slot], &msg.book, sizeof(msg.book));
    // Readers bound their scans by the counts: a slot is seen once its count covers it.
    int32_t& count = quvo_slot_is_ine(slot) ? m_area.ine_inst_cnt : m_area.shfe_inst_cnt;
    const int32_t needed = static_cast<int32_t>(quvo_slot_inst_no(slot)) + 1;
    if (__atomic_load_n(&count, __ATOMIC_RELAXED) < needed) {
        __atomic_store_n(&count, needed, __ATOMIC_RELAXED);
    }
    m_ring.Publish(slot);
    ++m_applied;
    return EMirrorApply::Applied;
}
