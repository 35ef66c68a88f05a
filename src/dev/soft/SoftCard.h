// The software card: a stand-in for the ExaNIC card that replays captures or
// runs a registered source (the exchange simulator) behind the same contract,
// so the feed runs unchanged on hosts without the card.
//
// Delivery: without the card library, a receive call is answered from the
// card's ring arithmetic (CSoftDirectRx). In the card build the card is
// played instead: before each poll the frames that have arrived are written
// into a receive ring laid out as the card's DMA buffer, and the library's
// own exanic_receive_frame reads them.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/dev/Registers.h"
#include "src/dev/RxFrame.h"
#include "src/dev/soft/DirectRx.h"
#include "src/dev/soft/ReplayClock.h"
#include "src/dev/soft/RxRing.h"
#include "src/dev/soft/SoftSource.h"

class CReplaySource;

// One captured frame, held in its port's byte store.
struct SoftFrame {
    uint64_t offset;
    uint32_t length;
    int64_t timeNs;      // capture time; used only when pacing
    uint8_t status = 0;  // hardware frame status to deliver it with
};

// A port's frames as they lie in its byte store, each behind a 16-byte
// header: a plain pcap file's own record headers, or, for frames copied into
// memory, the capture time and the length.
struct SoftRecords {
    size_t begin = 0;  // the first record's header
    size_t end = 0;    // one past the last record
    size_t count = 0;
    bool pcap = false;       // pcap record headers, else SoftRecordHeader
    int64_t fractionNs = 1;  // ns in one unit of a pcap header's fraction
};
struct SoftRecordHeader {
    int64_t timeNs;
    uint32_t length;
    uint32_t unused;
};
struct SoftPcapRecordHeader {
    uint32_t seconds;
    uint32_t fraction;
    uint32_t capturedLength;
    uint32_t originalLength;
};
static_assert(sizeof(SoftRecordHeader) == 16 && sizeof(SoftPcapRecordHeader) == 16);

// Appends one frame, behind its SoftRecordHeader, to frames copied into memory.
inline void append_soft_record(std::vector<char>& bytes, int64_t timeNs, const char* data, uint32_t length) {
    const SoftRecordHeader header{timeNs, length, 0};
    const char* first = reinterpret_cast<const char*>(&header);
    bytes.insert(bytes.end(), first, first + sizeof(header));
    bytes.insert(bytes.end(), data, data + length);
}

// The bytes a port's frames point into: a copy in memory, or a capture file
// mapped read-only (a file cut short while it is mapped ends the process).
class CFrameBytes {
public:
    CFrameBytes() = default;
    explicit CFrameBytes(std::vector<char> copy) : m_copy(std::move(copy)), m_pData(m_copy.data()) {}
    // Takes over a mapping made with mmap.
    static CFrameBytes Mapped(void* address, size_t size);
    CFrameBytes(CFrameBytes&& other) noexcept { *this = std::move(other); }
    CFrameBytes& operator=(CFrameBytes&& other) noexcept;
    ~CFrameBytes() { _Unmap(); }

    const char* Data() const { return m_pData; }

private:
    void _Unmap();

    std::vector<char> m_copy;
    void* m_pMapping = nullptr;
    size_t m_mappingSize = 0;
    const char* m_pData = nullptr;
};

// Captured frames of one port of a replay. Only the thread that polls the
// port moves its cursor; the idle state is read by others.
class CSoftPort {
public:
    CSoftPort(volatile uint32_t* registers, uint32_t streamRegister, CReplayClock& clock);

    void Load(CFrameBytes bytes, const SoftRecords& records);
    // Frames at `frames`' offsets in `bytes`, copied behind headers of their own.
    void Load(const std::vector<char>& bytes, const std::vector<SoftFrame>& frames);
    // Starts the frames over from the first; for looping benchmarks.
    void Rewind();
    // Frame `index` is delivered with a hardware status, as the card reports
    // a frame that failed its CRC check or was aborted by the sender. False
    // when there is no such frame.
    bool MarkFrame(size_t index, uint8_t status);
    // Delivers nothing until `streamRegister` has been seen on and then off:
    // the records of a session arrive only after its snapshot was taken.
    void HoldUntilStreamCycled(uint32_t streamRegister);

    // The next frame, once its capture time has come when paced. A frame
    // whose stream register is not 1 when it arrives is dropped. Frame bytes
    // stay valid for the port's life.
    ESoftNext Next(SoftFrameRef& frame);

    size_t GetFrameCount() const { return m_records.count; }
    // The first frame's capture time; false when there is no frame.
    bool GetFirstTime(int64_t& timeNs) const;
    // Nothing left that could be delivered: all frames taken, or stream off.
    bool IsIdle() const;

private:
    enum EHold : uint8_t { HOLD_NONE, HOLD_UNTIL_ON, HOLD_UNTIL_OFF };
    bool _HoldReleased();
    void _ReadHeader(const char* record, uint32_t& length, int64_t& timeNs) const;

    volatile uint32_t* m_pRegisters;
    uint32_t m_streamRegister;
    uint32_t m_holdRegister = 0;
    EHold m_hold = HOLD_NONE;
    CReplayClock& m_refClock;
    CFrameBytes m_data;
    SoftRecords m_records;
    // Hardware statuses by frame, made on the first MarkFrame.
    std::vector<uint8_t> m_statuses;
    size_t m_next = 0;  // the next record's header
    size_t m_index = 0;
    std::atomic<bool> m_exhausted{true};
};

inline void CSoftPort::_ReadHeader(const char* record, uint32_t& length, int64_t& timeNs) const {
    if (m_records.pcap) {
        SoftPcapRecordHeader header;
        memcpy(&header, record, sizeof(header));
        length = header.capturedLength;
        // Signed, as libpcap reads them.
        timeNs = static_cast<int64_t>(static_cast<int32_t>(header.seconds)) * 1000000000 +
                 static_cast<int64_t>(static_cast<int32_t>(header.fraction)) * m_records.fractionNs;
    } else {
        SoftRecordHeader header;
        memcpy(&header, record, sizeof(header));
        length = header.length;
        timeNs = header.timeNs;
    }
}

inline ESoftNext CSoftPort::Next(SoftFrameRef& out) {
    if (m_next == m_records.end) {
        return SOFT_NEXT_NONE;
    }
    if (m_hold != HOLD_NONE && !_HoldReleased()) [[unlikely]] {
        return SOFT_NEXT_NONE;
    }
    const char* const record = m_data.Data() + m_next;
    uint32_t length;
    int64_t timeNs;
    _ReadHeader(record, length, timeNs);
    if (m_refClock.IsPaced() && !m_refClock.IsDue(timeNs)) {
        return SOFT_NEXT_NONE;
    }
    const size_t index = m_index++;
    m_next += 16 + length;
    if (m_next == m_records.end) {
        m_exhausted.store(true, std::memory_order_relaxed);
    }
    // The card drops what arrives while its stream is off.
    if (__atomic_load_n(&m_pRegisters[m_streamRegister], __ATOMIC_RELAXED) != 1) {
        return SOFT_NEXT_DROPPED;
    }
    out.data = record + 16;
    out.length = length;
    out.status = m_statuses.empty() ? 0 : m_statuses[index];
    out.timestamp = static_cast<uint32_t>(timeNs);
    return SOFT_NEXT_FRAME;
}

// Where a software card can be told to fail, for tests of the bring-up.
enum ESoftCardStep {
    SOFT_STEP_HANDLE,
    SOFT_STEP_REGISTERS,
    SOFT_STEP_RX_PORT0,
    SOFT_STEP_RX_PORT1,
    SOFT_STEP_COUNT,
};

struct RegisterAccess {
    bool write;
    uint32_t index;
    uint32_t value;
    bool operator==(const RegisterAccess&) const = default;
};

// Records, in order, every reg_read/reg_write on one register window (a card's
// or any block of words) while started. One recorder is installed at a time.
class CRegisterRecorder final : private CRegisterTap {
public:
    explicit CRegisterRecorder(volatile uint32_t* window) : m_pWindow(window) {}
    ~CRegisterRecorder() { Stop(); }

    void Start();
    void Stop();
    std::vector<RegisterAccess> GetAccesses() const;

private:
    void OnRegisterRead(volatile uint32_t* window, uint32_t index, uint32_t value) override;
    void OnRegisterWrite(volatile uint32_t* window, uint32_t index, uint32_t value) override;

    volatile uint32_t* m_pWindow;
    mutable std::mutex m_mutex;
    std::vector<RegisterAccess> m_accesses;
};

// Figures of one port's delivery.
struct SoftRxFigures {
    uint64_t frames = 0;    // frames that reached the receive buffer
    uint64_t dropped = 0;   // frames that arrived while the stream was off
    uint64_t chunks = 0;    // ring chunks they filled
    uint64_t overruns = 0;  // polls that found the reader a ring or more behind
};

class CSoftCard {
public:
    static constexpr uint32_t kRegisterWords = 8192;

    // Builds the card for a software device string ("replay:..." or a
    // registered source's "name[:...]"). Returns null and sets `error` when
    // the string or a file is unusable.
    static std::unique_ptr<CSoftCard> Open(const std::string& device, std::string& error);
    // Writes DescribeDelivery() to the file named by QUVO_SOFT_CARD_STATS,
    // when that is set.
    ~CSoftCard();
    CSoftCard(const CSoftCard&) = delete;
    CSoftCard& operator=(const CSoftCard&) = delete;

    const std::string& GetDevice() const { return m_device; }
    volatile uint32_t* GetRegisters() { return m_pRegisters; }
    // A replay's captured frames of port 0 (decoded records) or 1 (raw
    // frames); null for other sources.
    CSoftPort* GetPort(int port);

    // Records what the feed does to this card's registers.
    CRegisterRecorder& GetRecorder() { return *m_recorder; }
    // Called on every release of the card's handle: a source may write its
    // state then, since a feed that restarted holds more than one.
    void OnHandleReleased();

    // Acquisitions and releases of this card's handle and buffers, in order
    // ("handle acquired", "rx 1 acquired", "rx 0 released", ...).
    void NoteEvent(const std::string& event);
    std::vector<std::string> GetEvents() const;

    // Whether this card plays the card's receive ring or answers receive
    // calls itself: the ring in the card build, unless QUVO_SOFT_CARD_RX is
    // "direct" when the card is opened.
    bool UsesRing() const { return m_usesRing; }

    // Direct delivery: frames that have arrived on `port` enter its buffer,
    // then one read as the card library's receive call (see CSoftDirectRx).
    ssize_t ReceiveDirect(int port, char* buf, size_t size) {
        CSoftDirectRx& buffer = m_direct[port];
        if (!m_paced && buffer.IsDrained()) {
            return _PassDirect(port, buffer, buf, size);
        }
        const bool arrived = _Arrive(port, buffer, buffer.IsDrained());
        if (m_paced && arrived && buffer.GetPending() >= kRxRingChunks) {
            _Count(m_overruns[port]);
        }
        const ssize_t n = buffer.Read(buf, size);
        if (__builtin_expect(m_exitSeconds >= 0, 0)) {
            _WatchForExit(arrived || n != 0, port);
        }
        return n;
    }
    // A new reader of `port` starts after what has been written.
    void AttachDirect(int port) { m_direct[port].Attach(); }

#if QUVO_HAVE_EXANIC
    // Ring delivery: writes the frames that have arrived on `port` into its
    // ring; `reader` then reads them with exanic_receive_frame.
    void FillRing(int port, const exanic_rx_t& reader) {
        CSoftRxRing& ring = *m_rings[port];
        const bool arrived = _Arrive(port, ring, ring.IsDrained(reader));
        if (m_paced && arrived && ring.GetPending(reader) >= kRxRingChunks) {
            _Count(m_overruns[port]);
        }
        if (__builtin_expect(m_exitSeconds >= 0, 0)) {
            _WatchForExit(arrived || !ring.IsDrained(reader), port);
        }
    }
    // Places `reader` on `port`'s ring as the library does on acquisition.
    void AttachRing(int port, exanic_rx_t& reader) {
        m_rings[port]->Attach(reader);
    }
    // A reader of `port` is released; its position is kept for the figures.
    void NoteReaderReleased(int port, const exanic_rx_t& reader);
#endif

    SoftRxFigures GetFigures(int port) const;
    // One line per port: delivery, figures, and the positions of the ring's
    // writer and of its last reader ("chunk/generation").
    std::string DescribeDelivery() const;

private:
    CSoftCard(const std::string& device, std::unique_ptr<CSoftSource> source, volatile uint32_t* registers,
              CReplaySource* replay, bool usesRing);
    bool _AllocateRings();
    // A poll that moved a frame only counts it: a clock read per frame would
    // cost more than the rest of the delivery. The first quiet poll to see
    // the counts changed stands for the time of the last activity.
    void _WatchForExit(bool active, int port) {
        if (active) {
            _Count(m_moves[port].value);
            return;
        }
        _WatchQuiet();
    }
    void _WatchQuiet();
    // Figures have one writer, the thread polling the port: no locked
    // read-modify-write on the receive path.
    static void _Count(std::atomic<uint64_t>& counter) {
        counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    // Frames of a paced source are written as they come due, however far
    // behind the reader is; other sources hand over one frame when the
    // reader has taken the last.
    template <typename Buffer>
    bool _Arrive(int port, Buffer& buffer, bool drained) {
        if (!m_paced && !drained) {
            return false;
        }
        bool arrived = false;
        SoftFrameRef frame;
        for (;;) {
            const ESoftNext next = _Next(port, frame);
            if (next == SOFT_NEXT_NONE) {
                break;
            }
            if (next == SOFT_NEXT_FRAME) {
                _Write(buffer, frame);
                arrived = true;
            }
            if (!m_paced) {
                break;
            }
        }
        return arrived;
    }
    // An unpaced source's frame arrives only once the reader has taken the
    // last, and is read at once: written and read in one step.
    ssize_t _PassDirect(int port, CSoftDirectRx& buffer, char* buf, size_t size) {
        SoftFrameRef frame;
        const bool arrived = _Next(port, frame) == SOFT_NEXT_FRAME;
        const ssize_t n = arrived ? buffer.Pass(frame, buf, size) : 0;
        if (__builtin_expect(m_exitSeconds >= 0, 0)) {
            _WatchForExit(arrived, port);
        }
        return n;
    }
    // The source's next frame on `port`, counted as arrived or dropped.
    ESoftNext _Next(int port, SoftFrameRef& frame) {
        // A replay's port is called directly, sparing a virtual call a frame.
        CSoftPort* replayPort = m_replayPorts[port];
        ESoftNext next = replayPort != nullptr ? replayPort->Next(frame) : m_source->Next(port, frame);
        // A frame of no bytes cannot be written into the ring; the card never has one.
        if (next == SOFT_NEXT_FRAME && frame.length == 0) {
            next = SOFT_NEXT_DROPPED;
        }
        if (next == SOFT_NEXT_FRAME) {
            _Count(m_frames[port]);
        } else if (next == SOFT_NEXT_DROPPED) {
            _Count(m_dropped[port]);
        }
        return next;
    }
    static void _Write(CSoftDirectRx& buffer, const SoftFrameRef& frame) {
        buffer.Write(frame);
    }
#if QUVO_HAVE_EXANIC
    static void _Write(CSoftRxRing& ring, const SoftFrameRef& frame) {
        ring.Write(frame.data, frame.length, frame.status, frame.timestamp);
    }
#endif

    std::string m_device;
    volatile uint32_t* m_pRegisters;
    std::unique_ptr<CSoftSource> m_source;
    CReplaySource* m_pReplay;
    CSoftPort* m_replayPorts[2] = {};
    bool m_paced;
    bool m_usesRing;
    CSoftDirectRx m_direct[2];
#if QUVO_HAVE_EXANIC
    std::unique_ptr<CSoftRxRing> m_rings[2];
    exanic_rx_t m_lastReader[2] = {};
#endif
    std::atomic<uint64_t> m_frames[2] = {};
    std::atomic<uint64_t> m_dropped[2] = {};
    std::atomic<uint64_t> m_overruns[2] = {};
    double m_exitSeconds = -1;
    std::atomic<int64_t> m_lastActivityNs;
    // Each written by the thread polling its port only.
    struct alignas(64) PortMoves {
        std::atomic<uint64_t> value{0};
    };
    PortMoves m_moves[2];
    std::atomic<uint64_t> m_movesSeen{0};
    std::atomic<bool> m_exitRaised{false};
    std::unique_ptr<CRegisterRecorder> m_recorder;
    mutable std::mutex m_eventMutex;
    std::vector<std::string> m_events;
};

// Makes the next acquisition of `step` on any software card fail with `why`.
void soft_card_fail_next(ESoftCardStep step, const std::string& why);
// Consumes a pending failure of `step`: true (with `why` filled) if one was set.
bool soft_card_take_failure(ESoftCardStep step, std::string& why);
