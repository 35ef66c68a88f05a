// The software card: a stand-in for the ExaNIC card that replays captures or
// runs the exchange simulator behind the same contract, so the feed runs
// unchanged on hosts without the card.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "src/dev/Registers.h"

class CReplayClock;
class CSimDevice;

// One captured frame, held in its port's byte store.
struct SoftFrame {
    uint64_t offset;
    uint32_t length;
    int64_t timeNs;  // capture time; used only when pacing
};

// Frames of one receive port. Only the thread that receives from the port
// touches its cursor; counters and the idle state are read by other threads.
class CSoftPort {
public:
    // Frame longer than the caller's buffer: the status libexanic returns.
    static constexpr ssize_t kTruncated = -512;

    CSoftPort(volatile uint32_t* registers, uint32_t streamRegister, CReplayClock& clock);

    void Load(std::vector<char> bytes, std::vector<SoftFrame> frames);
    // Starts the frames over from the first; for looping benchmarks.
    void Rewind();

    // Copies the next frame into `buf` and returns its length; 0 when no frame
    // is due; kTruncated (frame consumed) when it does not fit. A due frame
    // whose stream register is not 1 is dropped and counted instead.
    ssize_t Receive(char* buf, size_t size);

    uint64_t GetDelivered() const { return m_delivered.load(std::memory_order_relaxed); }
    uint64_t GetDropped() const { return m_dropped.load(std::memory_order_relaxed); }
    uint64_t GetTruncated() const { return m_truncated.load(std::memory_order_relaxed); }
    size_t GetFrameCount() const { return m_frames.size(); }
    // Nothing left that could be delivered: all frames taken, or stream off.
    bool IsIdle() const;

private:
    volatile uint32_t* m_pRegisters;
    uint32_t m_streamRegister;
    CReplayClock& m_refClock;
    std::vector<char> m_data;
    std::vector<SoftFrame> m_frames;
    size_t m_next = 0;
    std::atomic<bool> m_exhausted{true};
    std::atomic<uint64_t> m_delivered{0};
    std::atomic<uint64_t> m_dropped{0};
    std::atomic<uint64_t> m_truncated{0};
};

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

class CSoftCard {
public:
    static constexpr uint32_t kRegisterWords = 8192;

    // Builds the card for a software device string ("replay:..." or "sim...").
    // Returns null and sets `error` when the string or a file is unusable.
    static std::unique_ptr<CSoftCard> Open(const std::string& device, std::string& error);
    ~CSoftCard();
    CSoftCard(const CSoftCard&) = delete;
    CSoftCard& operator=(const CSoftCard&) = delete;

    const std::string& GetDevice() const { return m_device; }
    volatile uint32_t* GetRegisters() { return m_pRegisters; }
    // Port 0 carries decoded records, port 1 raw frames.
    CSoftPort* GetPort(int port) { return port == 0 ? m_port0.get() : port == 1 ? m_port1.get() : nullptr; }

    // Records what the feed does to this card's registers.
    CRegisterRecorder& GetRecorder() { return *m_recorder; }
    // Called on every release of the card's handle: the simulator writes its
    // expected state then, since a feed that restarted holds more than one.
    void OnHandleReleased();
    // The exchange simulator of a "sim" device, else null.
    CSimDevice* GetSim() { return m_pSim.get(); }

    // Acquisitions and releases of this card's handle and buffers, in order
    // ("handle acquired", "rx 1 acquired", "rx 0 released", ...).
    void NoteEvent(const std::string& event);
    std::vector<std::string> GetEvents() const;

    // Receives from one of this card's ports (see CSoftPort::Receive). With
    // exit=S it also raises SIGINT once both ports are idle and nothing was
    // delivered for S seconds.
    ssize_t Receive(CSoftPort* port, char* buf, size_t size) {
        const ssize_t n = m_pSim == nullptr ? port->Receive(buf, size) : _ReceiveSim(port, buf, size);
        if (__builtin_expect(m_exitSeconds >= 0, 0)) {
            _WatchForExit(n);
        }
        return n;
    }

private:
    CSoftCard(const std::string& device, double speed, double exitSeconds);
    void _WatchForExit(ssize_t received);
    ssize_t _ReceiveSim(CSoftPort* port, char* buf, size_t size);
    bool _IsIdle() const;

    std::string m_device;
    volatile uint32_t* m_pRegisters;
    std::unique_ptr<CReplayClock> m_clock;
    std::unique_ptr<CSoftPort> m_port0;
    std::unique_ptr<CSoftPort> m_port1;
    double m_exitSeconds;
    std::atomic<int64_t> m_lastActivityNs;
    std::atomic<bool> m_exitRaised{false};
    std::unique_ptr<CRegisterRecorder> m_recorder;
    std::unique_ptr<CSimDevice> m_pSim;
    mutable std::mutex m_eventMutex;
    std::vector<std::string> m_events;
};

// Makes the next acquisition of `step` on any software card fail with `why`.
void soft_card_fail_next(ESoftCardStep step, const std::string& why);
// Consumes a pending failure of `step`: true (with `why` filled) if one was set.
bool soft_card_take_failure(ESoftCardStep step, std::string& why);
