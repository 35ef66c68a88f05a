// The software card's receive buffer when frames are handed over by a call:
// it keeps the card's ring arithmetic (chunk positions of the writer, the
// reader and the reader's last end-of-frame) without the bytes, so a reader
// gets exactly the results the card library would give on the same arrivals,
// laps and truncations included.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "src/dev/RxFrame.h"
#include "src/dev/soft/SoftSource.h"

class CSoftDirectRx {
public:
    CSoftDirectRx();

    // A frame reaches the buffer. Never fails: a frame that no longer fits
    // overwrites the oldest, as the card does.
    void Write(const SoftFrameRef& frame);
    // One read, as the card library's receive call: a length, 0 when nothing
    // waits, -RX_FRAME_SWOVFL after a lap (every waiting frame lost),
    // -RX_FRAME_TRUNCATED (frame consumed) or a frame's hardware error status.
    ssize_t Read(char* buf, size_t size);
    // A reader starts after the last frame written, as on acquisition.
    void Attach();
    // The reader has taken everything written.
    bool IsDrained() const { return m_read == m_write; }
    // Chunks written and not yet read.
    uint64_t GetPending() const { return static_cast<uint64_t>(m_write - m_read); }
    uint64_t GetChunksWritten() const { return static_cast<uint64_t>(m_write); }
    uint64_t GetLost() const { return m_lost; }

private:
    void _CatchUp();

    // Frames between the reader and the writer, oldest first; a lap is
    // certain before more than one ring's worth of frames wait.
    std::vector<SoftFrameRef> m_frames;
    uint64_t m_head = 0;
    uint64_t m_tail = 0;
    // Absolute chunk positions.
    int64_t m_write = 0;
    int64_t m_read = 0;
    int64_t m_sentinel = -1;
    uint64_t m_lost = 0;
};

// Inline: the pair is on the path of every frame the software card delivers.
static_assert((kRxRingChunks & (kRxRingChunks - 1)) == 0, "frame slots are indexed with a mask");

inline void CSoftDirectRx::Write(const SoftFrameRef& frame) {
    if (m_tail - m_head == kRxRingChunks) {
        ++m_head;  // overwritten; the next read reports the lap
        ++m_lost;
    }
    m_frames[m_tail++ & (kRxRingChunks - 1)] = frame;
    m_write += rx_frame_chunks(frame.length);
}

inline ssize_t CSoftDirectRx::Read(char* buf, size_t size) {
    if (m_read == m_write) {
        return 0;
    }
    // The frame's first chunk was overwritten.
    if (m_write - m_read > static_cast<int64_t>(kRxRingChunks)) {
        _CatchUp();
        return -RX_FRAME_SWOVFL;
    }
    const SoftFrameRef frame = m_frames[m_head++ & (kRxRingChunks - 1)];
    m_read += rx_frame_chunks(frame.length);
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
