#include "src/dev/soft/SimDevice.h"

#include <cstdio>
#include <cstring>

#include "src/dev/Registers.h"
#include "src/dev/soft/ReplayClock.h"
#include "src/dev/soft/SoftCard.h"

namespace {

// A rate-limited simulator that was held up (stream off during a restart)
// catches up by at most this many records at once.
constexpr uint64_t kMaxBacklog = 1000;

inline uint32_t Register(volatile uint32_t* registers, uint32_t index) {
    return __atomic_load_n(&registers[index], __ATOMIC_RELAXED);
}

}  // namespace

CSimDevice::CSimDevice(const SimOptions& options, volatile uint32_t* registers)
    : m_options(options), m_model(options), m_pRegisters(registers) {}

CSimDevice::~CSimDevice() {
    delete m_handOver.exchange(nullptr);
}

void CSimDevice::WriteExpected() {
    if (m_options.expectPath.empty()) {
        return;
    }
    std::string error;
    if (!write_sim_state(m_options.expectPath, m_model.GetState(), error)) {
        fprintf(stderr, "simulator: cannot write the expected state: %s\n", error.c_str());
    }
}

unsigned CSimDevice::_JoinedExchanges() const {
    // The card decodes an exchange once the feed has loaded its addresses.
    unsigned joined = 0;
    if (Register(m_pRegisters, REG_SHFE_A_ADDR) != 0 || Register(m_pRegisters, REG_SHFE_B_ADDR) != 0) {
        joined |= 1;
    }
    if (Register(m_pRegisters, REG_INE_A_ADDR) != 0 || Register(m_pRegisters, REG_INE_B_ADDR) != 0) {
        joined |= 2;
    }
    return joined;
}

void CSimDevice::_WatchSnapshotRequest() {
    const bool raw = Register(m_pRegisters, REG_ORIG_DATA) == 1;
    if (!raw) {
        m_snapshotSent = false;
        return;
    }
    if (m_snapshotSent) {
        return;
    }
    const unsigned joined = _JoinedExchanges();
    unsigned wanted = 0;
    if (Register(m_pRegisters, REG_ALL_SHFE) == 1) {
        wanted |= joined & 1;
    }
    if (Register(m_pRegisters, REG_ALL_INE) == 1) {
        wanted |= joined & 2;
    }
    if (wanted == 0) {
        return;
    }
    auto batch = std::make_unique<Batch>();
    m_model.BuildSnapshotFrames(wanted, batch->frames);
    batch->number = m_published.load(std::memory_order_relaxed) + 1;
    m_published.store(batch->number, std::memory_order_relaxed);
    delete m_handOver.exchange(batch.release(), std::memory_order_acq_rel);
    m_snapshotSent = true;
}

ssize_t CSimDevice::_Deliver(SimFrames& frames, size_t& next, size_t& offset, char* buf, size_t size) {
    const uint32_t length = frames.lengths[next];
    const char* data = frames.bytes.data() + offset;
    ++next;
    offset += length;
    if (length > size) {
        return CSoftPort::kTruncated;
    }
    memcpy(buf, data, length);
    return static_cast<ssize_t>(length);
}

ssize_t CSimDevice::ReceiveDecoded(char* buf, size_t size) {
    _WatchSnapshotRequest();
    if (Register(m_pRegisters, REG_DECODE_DATA) != 1) {
        return 0;
    }
    if (m_pendingNext == m_pending.Count()) {
        if (m_recordsDone.load(std::memory_order_relaxed)) {
            return 0;
        }
        if (m_options.rate > 0) {
            const int64_t now = monotonic_ns();
            if (m_startNs < 0) {
                m_startNs = now;
            }
            const auto due =
                static_cast<uint64_t>(static_cast<double>(now - m_startNs) * m_options.rate / 1e9);
            if (m_steps >= due) {
                return 0;
            }
            if (due - m_steps > kMaxBacklog) {
                m_steps = due - kMaxBacklog;
            }
        }
        m_pending.Clear();
        m_pendingNext = 0;
        m_pendingOffset = 0;
        if (!m_model.Step(_JoinedExchanges(), m_pending)) {
            if (m_options.records != 0 && m_model.GetRecords() >= m_options.records) {
                m_recordsDone.store(true, std::memory_order_relaxed);
            }
            return 0;
        }
        ++m_steps;
        if (m_pending.Count() == 0) {
            return 0;  // the record was lost on purpose
        }
    }
    return _Deliver(m_pending, m_pendingNext, m_pendingOffset, buf, size);
}

ssize_t CSimDevice::ReceiveRaw(char* buf, size_t size) {
    if (m_handOver.load(std::memory_order_relaxed) != nullptr) {
        if (m_current) {
            m_consumed.store(m_current->number, std::memory_order_relaxed);
        }
        m_current.reset(m_handOver.exchange(nullptr, std::memory_order_acq_rel));
    }
    if (!m_current) {
        return 0;
    }
    const uint64_t number = m_current->number;
    ssize_t result = 0;
    // The card drops what arrives while the raw stream is off.
    if (Register(m_pRegisters, REG_ORIG_DATA) == 1) {
        result = _Deliver(m_current->frames, m_current->next, m_current->offset, buf, size);
        if (m_current->next < m_current->frames.Count()) {
            return result;
        }
    }
    m_current.reset();
    m_consumed.store(number, std::memory_order_relaxed);
    return result;
}

bool CSimDevice::IsIdle() const {
    return m_recordsDone.load(std::memory_order_relaxed) &&
           m_consumed.load(std::memory_order_relaxed) == m_published.load(std::memory_order_relaxed);
}
