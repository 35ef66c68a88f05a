#include "src/dev/soft/DirectRx.h"


CSoftDirectRx::CSoftDirectRx() : m_frames(kRxRingChunks) {}

void CSoftDirectRx::Attach() {
    m_head = m_tail;
    m_read = m_write;
    m_sentinel = m_write - 1;
}

void CSoftDirectRx::_CatchUp() {
    m_lost += m_tail - m_head;
    Attach();
}
