#include "sim/SimDevice.h"

#include <csignal>
#include <cstdio>
#include <cstring>

#include "src/dev/Registers.h"
#include "src/dev/soft/SoftCard.h"

namespace {

// A rate-limited simulator that was held up (stream off during a restart)
// catches up by at most this many records at once.
constexpr uint64_t kMaxBacklog = 1000;

inline uint32_t Register(volatile uint32_t* registers, uint32_t index) {
    return __atomic_load_n(&registers[index], __ATOMIC_RELAXED);
}

}  // namespace

CSimDevice::CSimDevice(const SimOptions& options, volatile uint32_t* registers, int64_t (*clock)())
    : m_options(options), m_model(options), m_pRegisters(registers), m_clock(clock) {
    if (m_options.interruptAt != SIM_INTERRUPT_NONE) {
        g_registerTap.store(this, std::memory_order_relaxed);
    }
}

std::unique_ptr<CSoftSource> CSimDevice::Create(const std::string& text, volatile uint32_t* registers,
                                                std::string& error) {
    SimOptions options;
    if (!text.empty() && !sim_parse_device_options(text, options, error)) {
        return nullptr;
    }
    if (options.shfe == 0 && options.ine == 0) {
        error = "the simulator needs instruments: shfe and ine are both 0";
        return nullptr;
    }
    return std::make_unique<CSimDevice>(options, registers);
}

CSimDevice::~CSimDevice() {
    CRegisterTap* self = this;
    g_registerTap.compare_exchange_strong(self, nullptr);
    delete m_handOver.exchange(nullptr);
}

void CSimDevice::OnRegisterWrite(volatile uint32_t* window, uint32_t, uint32_t) {
    if (window == m_pRegisters) {
        _InterruptAt(SIM_INTERRUPT_WRITE, m_writes.fetch_add(1, std::memory_order_relaxed) + 1);
    }
}

void CSimDevice::_InterruptAt(ESimInterrupt at, uint64_t count) {
    if (at != m_options.interruptAt || count != m_options.interruptCount ||
        m_interrupted.exchange(true, std::memory_order_relaxed)) {
        return;
    }
    // Says where the feed was stopped, so a test can place its next points.
    fprintf(stderr,
            "simulator: interrupt at %s %llu: %llu register writes, %llu snapshots, %llu raw frames, %llu "
            "decoded frames\n",
            sim_interrupt_name(at), static_cast<unsigned long long>(count),
            static_cast<unsigned long long>(m_writes.load(std::memory_order_relaxed)),
            static_cast<unsigned long long>(m_published.load(std::memory_order_relaxed)),
            static_cast<unsigned long long>(m_rawFrames.load(std::memory_order_relaxed)),
            static_cast<unsigned long long>(m_decodedFrames.load(std::memory_order_relaxed)));
    raise(SIGINT);
}

void CSimDevice::_CountDecoded() {
    const uint64_t decoded = m_decodedFrames.load(std::memory_order_relaxed) + 1;
    m_decodedFrames.store(decoded, std::memory_order_relaxed);
    if (__builtin_expect(m_options.interruptAt != SIM_INTERRUPT_NONE, 0)) {
        _InterruptAt(SIM_INTERRUPT_DECODED, decoded);
        if (m_rawSwitchedOff) {
            _InterruptAt(SIM_INTERRUPT_AFTER_SNAPSHOT, ++m_sinceRawOff);
        }
    }
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
    if (raw != m_rawOn) {
        m_rawOn = raw;
        m_rawSwitchedOff = !raw;
        m_sinceRawOff = 0;
    }
    if (!raw) {
        m_snapshotSent = false;
        m_snapshotAsked = false;
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
    if (!m_snapshotAsked) {
        m_snapshotAsked = true;
        m_warmupLeft = m_options.warmup;
    }
    if (m_warmupLeft > 0 && !m_recordsDone.load(std::memory_order_relaxed)) {
        return;
    }
    auto batch = std::make_unique<Batch>();
    m_model.BuildSnapshotFrames(wanted, batch->frames);
    batch->number = m_published.load(std::memory_order_relaxed) + 1;
    m_published.store(batch->number, std::memory_order_relaxed);
    delete m_handOver.exchange(batch.release(), std::memory_order_acq_rel);
    m_snapshotSent = true;
    _InterruptAt(SIM_INTERRUPT_SNAPSHOT, m_published.load(std::memory_order_relaxed));
}

void CSimDevice::_Deliver(SimFrames& frames, size_t& next, size_t& offset, SoftFrameRef& frame) {
    const uint32_t length = frames.lengths[next];
    frame.data = frames.bytes.data() + offset;
    frame.length = length;
    frame.status = 0;
    frame.timestamp = 0;  // the feed asks for no receive time
    ++next;
    offset += length;
}

ESoftNext CSimDevice::_NextDecoded(SoftFrameRef& frame) {
    _WatchSnapshotRequest();
    if (Register(m_pRegisters, REG_DECODE_DATA) != 1) {
        return SOFT_NEXT_NONE;
    }
    if (m_pendingNext == m_pending.Count()) {
        if (m_recordsDone.load(std::memory_order_relaxed)) {
            return SOFT_NEXT_NONE;
        }
        const bool timed = m_options.rate > 0 || m_options.seconds > 0;
        const int64_t now = timed ? m_clock() : 0;
        if (timed && m_startNs < 0) {
            m_startNs = now;
        }
        // A lost record is revealed before the end, so that the feed restarts
        // and the books end as the model's.
        if (m_options.seconds > 0 && !m_model.HasUnrevealedLoss() &&
            static_cast<double>(now - m_startNs) >= m_options.seconds * 1e9) {
            m_recordsDone.store(true, std::memory_order_relaxed);
            return SOFT_NEXT_NONE;
        }
        if (m_options.rate > 0) {
            const auto due =
                static_cast<uint64_t>(static_cast<double>(now - m_startNs) * m_options.rate / 1e9);
            if (m_steps >= due) {
                return SOFT_NEXT_NONE;
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
            return SOFT_NEXT_NONE;
        }
        ++m_steps;
        if (m_warmupLeft > 0) {
            --m_warmupLeft;
        }
        if (m_pending.Count() == 0) {
            return SOFT_NEXT_NONE;  // the record was lost on purpose
        }
    }
    _Deliver(m_pending, m_pendingNext, m_pendingOffset, frame);
    _CountDecoded();
    return SOFT_NEXT_FRAME;
}

ESoftNext CSimDevice::_NextRaw(SoftFrameRef& frame) {
    if (m_handOver.load(std::memory_order_relaxed) != nullptr) {
        if (m_current) {
            m_consumed.store(m_current->number, std::memory_order_relaxed);
            m_retired = std::move(m_current);
        }
        m_current.reset(m_handOver.exchange(nullptr, std::memory_order_acq_rel));
    }
    if (!m_current) {
        return SOFT_NEXT_NONE;
    }
    const uint64_t number = m_current->number;
    // The card drops what arrives while the raw stream is off.
    if (Register(m_pRegisters, REG_ORIG_DATA) != 1) {
        m_current.reset();
        m_consumed.store(number, std::memory_order_relaxed);
        return SOFT_NEXT_NONE;
    }
    _Deliver(m_current->frames, m_current->next, m_current->offset, frame);
    if (m_current->next == m_current->frames.Count()) {
        // The last frame's bytes must outlive this call.
        m_retired = std::move(m_current);
        m_consumed.store(number, std::memory_order_relaxed);
    }
    const uint64_t raw = m_rawFrames.load(std::memory_order_relaxed) + 1;
    m_rawFrames.store(raw, std::memory_order_relaxed);
    if (__builtin_expect(m_options.interruptAt != SIM_INTERRUPT_NONE, 0)) {
        _InterruptAt(SIM_INTERRUPT_RAW, raw);
    }
    return SOFT_NEXT_FRAME;
}

bool CSimDevice::IsIdle() const {
    return m_recordsDone.load(std::memory_order_relaxed) &&
           m_consumed.load(std::memory_order_relaxed) == m_published.load(std::memory_order_relaxed);
}
