// The software card's receive buffer when frames are handed over by a call:
// it keeps the card's ring arithmetic (chunk positions of the writer, the
// reader and the reader's last end-of-frame) without the bytes, so a reader
// gets exactly the results the card library would give on the same arrivals,
// laps and truncations included.
#pragma once

#include <sys/types.h>

#include <cstdint>
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
    // Write(frame) then Read(buf, size) on a drained buffer, with the same
    // results and state, in one call.
    ssize_t Pass(const SoftFrameRef& frame, char* buf, size_t size);
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
    ssize_t _Deliver(const SoftFrameRef& frame, char* buf, size_t size);

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
