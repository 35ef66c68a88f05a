// The exchange simulator behind the software card ("sim[:key=value,...]").
// Decoded records are made as port 0 is read, at the configured rate; a fresh
// snapshot is taken whenever the feed turns the raw stream and an exchange's
// feeds on (once `warmup` more records were sent), and is handed to port 1,
// which the snapshot thread reads. With `interrupt`, SIGINT is raised in the
// feed at one chosen event, so that tests can stop it anywhere.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "sim/ExchangeModel.h"
#include "src/dev/Registers.h"
#include "src/dev/soft/ReplayClock.h"
#include "src/dev/soft/SoftSource.h"

class CSimDevice final : public CSoftSource, private CRegisterTap {
public:
    // `clock` gives monotonic nanoseconds for `rate` and `seconds`.
    CSimDevice(const SimOptions& options, volatile uint32_t* registers, int64_t (*clock)() = monotonic_ns);
    ~CSimDevice() override;
    CSimDevice(const CSimDevice&) = delete;
    CSimDevice& operator=(const CSimDevice&) = delete;

    // The software card's factory for "sim[:key=value,...]" devices.
    static std::unique_ptr<CSoftSource> Create(const std::string& options, volatile uint32_t* registers,
                                               std::string& error);

    // Port 0 is read by the feed's main thread only, port 1 by the snapshot
    // thread only. A frame stays valid until that port's next call.
    ESoftNext Next(int port, SoftFrameRef& frame) override {
        return port == 0 ? _NextDecoded(frame) : _NextRaw(frame);
    }
    // Every record sent (when `records` or `seconds` is set) and no snapshot
    // frame waiting.
    bool IsIdle() const override;
    // The model's state goes to the expect= file, if one was named.
    void OnHandleReleased() override { WriteExpected(); }
    double GetExitSeconds() const override { return m_options.exitSeconds; }

    void WriteExpected();

private:
    ESoftNext _NextDecoded(SoftFrameRef& frame);
    ESoftNext _NextRaw(SoftFrameRef& frame);
    struct Batch {
        SimFrames frames;
        uint64_t number;
        size_t next = 0;
        size_t offset = 0;
    };
    static void _Deliver(SimFrames& frames, size_t& next, size_t& offset, SoftFrameRef& frame);
    void _WatchSnapshotRequest();
    unsigned _JoinedExchanges() const;
    // interrupt=: counts the feed's register writes while it is set.
    void OnRegisterRead(volatile uint32_t*, uint32_t, uint32_t) override {}
    void OnRegisterWrite(volatile uint32_t* window, uint32_t index, uint32_t value) override;
    void _CountDecoded();
    // Raises SIGINT, once, when `count` events `at` are the ones asked for.
    void _InterruptAt(ESimInterrupt at, uint64_t count);

    SimOptions m_options;
    CExchangeModel m_model;
    volatile uint32_t* m_pRegisters;
    int64_t (*m_clock)();
    // Main thread.
    SimFrames m_pending;
    size_t m_pendingNext = 0;
    size_t m_pendingOffset = 0;
    bool m_snapshotSent = false;
    bool m_snapshotAsked = false;
    uint64_t m_warmupLeft = 0;  // records still to send before the snapshot asked for
    int64_t m_startNs = -1;
    uint64_t m_steps = 0;
    bool m_exhausted = false;
    bool m_rawOn = false;
    bool m_rawSwitchedOff = false;
    uint64_t m_sinceRawOff = 0;
    // Counted by the thread that makes each event; read by any when interrupting.
    std::atomic<uint64_t> m_writes{0};
    std::atomic<uint64_t> m_rawFrames{0};
    std::atomic<uint64_t> m_decodedFrames{0};
    std::atomic<bool> m_interrupted{false};
    // Handed from the main thread to the snapshot thread.
    std::atomic<Batch*> m_handOver{nullptr};
    std::atomic<uint64_t> m_published{0};
    std::atomic<uint64_t> m_consumed{0};
    std::atomic<bool> m_recordsDone{false};
    // Snapshot thread: the batch being delivered, and the last one, whose
    // final frame may still be waiting to be read.
    std::unique_ptr<Batch> m_current;
    std::unique_ptr<Batch> m_retired;
};
