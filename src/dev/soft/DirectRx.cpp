#include "src/dev/soft/DirectRx.h"

#include <cstring>

static_assert((kRxRingChunks & (kRxRingChunks - 1)) == 0, "frame slots are indexed with a mask");
constexpr uint64_t kSlotMask = kRxRingChunks - 1;

CSoftDirectRx::CSoftDirectRx() : m_frames(kRxRingChunks) {}

void CSoftDirectRx::Write(const SoftFrameRef& frame) {
    if (m_tail - m_head == kRxRingChunks) {
        ++m_head;  // overwritten; the next read reports the lap
        ++m_lost;
    }
    m_frames[m_tail++ & kSlotMask] = frame;
    m_write += rx_frame_chunks(frame.length);
}

void CSoftDirectRx::Attach() {
    m_head = m_tail;
    m_read = m_write;
    m_sentinel = m_write - 1;
}

void CSoftDirectRx::_CatchUp() {
    m_lost += m_tail - m_head;
    Attach();
}

// The frame under the reader, its chunks already counted read: a truncation,
// a lap on the previous frame's end, or its bytes and hardware status.
inline ssize_t CSoftDirectRx::_Deliver(const SoftFrameRef& frame, char* buf, size_t size) {
    if (frame.length > size) {
        return -RX_FRAME_TRUNCATED;
    }
    // The previous frame's end was overwritten while this one was read.
    const int64_t sentinel = m_sentinel;
    m_sentinel = m_read - 1;
    if (m_write - sentinel > static_cast<int64_t>(kRxRingChunks)) {
        ++m_lost;
        _CatchUp();
        return -RX_FRAME_SWOVFL;
    }
    memcpy(buf, frame.data, frame.length);
    if ((frame.status & RX_FRAME_ERROR_MASK) != 0) {
        return -(frame.status & RX_FRAME_ERROR_MASK);
    }
    return static_cast<ssize_t>(frame.length);
}

ssize_t CSoftDirectRx::Pass(const SoftFrameRef& frame, char* buf, size_t size) {
    const int64_t chunks = rx_frame_chunks(frame.length);
    if (m_read != m_write || m_head != m_tail || chunks > static_cast<int64_t>(kRxRingChunks)) {
        Write(frame);
        return Read(buf, size);
    }
    // The slot is read as soon as it is written, so it need not be stored.
    ++m_tail;
    ++m_head;
    m_write += chunks;
    m_read = m_write;
    return _Deliver(frame, buf, size);
}

ssize_t CSoftDirectRx::Read(char* buf, size_t size) {
    if (m_read == m_write) {
        return 0;
    }
    // The frame's first chunk was overwritten.
    if (m_write - m_read > static_cast<int64_t>(kRxRingChunks)) {
        _CatchUp();
        return -RX_FRAME_SWOVFL;
    }
    const SoftFrameRef frame = m_frames[m_head++ & kSlotMask];
    m_read += rx_frame_chunks(frame.length);
    return _Deliver(frame, buf, size);
}
