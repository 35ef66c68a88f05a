// The exchange simulator behind the software card ("sim[:key=value,...]").
// Decoded records are made as port 0 is read, at the configured rate; a fresh
// snapshot is taken whenever the feed turns the raw stream and an exchange's
// feeds on, and is handed to port 1, which the snapshot thread reads.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "sim/ExchangeModel.h"

class CSimDevice {
public:
    CSimDevice(const SimOptions& options, volatile uint32_t* registers);
    ~CSimDevice();
    CSimDevice(const CSimDevice&) = delete;
    CSimDevice& operator=(const CSimDevice&) = delete;

    // Port 0, read by the feed's main thread only.
    ssize_t ReceiveDecoded(char* buf, size_t size);
    // Port 1, read by the snapshot thread only.
    ssize_t ReceiveRaw(char* buf, size_t size);
    // Writes the model's state to the expect= file, if one was named.
    void WriteExpected();
    // Every record sent (when a limit is set) and no snapshot frame waiting.
    bool IsIdle() const;

private:
    struct Batch {
        SimFrames frames;
        uint64_t number;
        size_t next = 0;
        size_t offset = 0;
    };
    static ssize_t _Deliver(SimFrames& frames, size_t& next, size_t& offset, char* buf, size_t size);
    void _WatchSnapshotRequest();
    unsigned _JoinedExchanges() const;

    SimOptions m_options;
    CExchangeModel m_model;
    volatile uint32_t* m_pRegisters;
    // Main thread.
    SimFrames m_pending;
    size_t m_pendingNext = 0;
    size_t m_pendingOffset = 0;
    bool m_snapshotSent = false;
    int64_t m_startNs = -1;
    uint64_t m_steps = 0;
    bool m_exhausted = false;
    // Handed from the main thread to the snapshot thread.
    std::atomic<Batch*> m_handOver{nullptr};
    std::atomic<uint64_t> m_published{0};
    std::atomic<uint64_t> m_consumed{0};
    std::atomic<bool> m_recordsDone{false};
    // Snapshot thread.
    std::unique_ptr<Batch> m_current;
};
