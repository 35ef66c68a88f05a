#include "src/dev/soft/SoftCard.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "src/dev/soft/ReplayClock.h"
#include "src/dev/soft/ReplaySource.h"
#include "src/dev/soft/SimDevice.h"

CSoftPort::CSoftPort(volatile uint32_t* registers, uint32_t streamRegister, CReplayClock& clock)
    : m_pRegisters(registers), m_streamRegister(streamRegister), m_refClock(clock) {}

void CSoftPort::Load(std::vector<char> bytes, std::vector<SoftFrame> frames) {
    m_data = std::move(bytes);
    m_frames = std::move(frames);
    m_next = 0;
    m_exhausted.store(m_frames.empty(), std::memory_order_relaxed);
}

void CSoftPort::Rewind() {
    m_next = 0;
    m_exhausted.store(m_frames.empty(), std::memory_order_relaxed);
}

bool CSoftPort::IsIdle() const {
    return m_exhausted.load(std::memory_order_relaxed) ||
           __atomic_load_n(&m_pRegisters[m_streamRegister], __ATOMIC_RELAXED) != 1;
}

ssize_t CSoftPort::Receive(char* buf, size_t size) {
    if (m_next == m_frames.size()) {
        return 0;
    }
    const SoftFrame& frame = m_frames[m_next];
    if (m_refClock.IsPaced() && !m_refClock.IsDue(frame.timeNs)) {
        return 0;
    }
    ++m_next;
    if (m_next == m_frames.size()) {
        m_exhausted.store(true, std::memory_order_relaxed);
    }
    // The card drops what arrives while its stream is off.
    if (__atomic_load_n(&m_pRegisters[m_streamRegister], __ATOMIC_RELAXED) != 1) {
        m_dropped.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    if (frame.length > size) {
        m_truncated.fetch_add(1, std::memory_order_relaxed);
        return kTruncated;
    }
    memcpy(buf, m_data.data() + frame.offset, frame.length);
    m_delivered.fetch_add(1, std::memory_order_relaxed);
    return static_cast<ssize_t>(frame.length);
}

namespace {

std::mutex g_failureMutex;
std::string g_pendingFailure[SOFT_STEP_COUNT];
bool g_failurePending[SOFT_STEP_COUNT] = {};

volatile uint32_t* AllocateRegisters() {
    void* window = aligned_alloc(4096, CSoftCard::kRegisterWords * sizeof(uint32_t));
    if (window == nullptr) {
        return nullptr;
    }
    memset(window, 0, CSoftCard::kRegisterWords * sizeof(uint32_t));
    return static_cast<volatile uint32_t*>(window);
}

}  // namespace

void soft_card_fail_next(ESoftCardStep step, const std::string& why) {
    std::lock_guard<std::mutex> lock(g_failureMutex);
    g_pendingFailure[step] = why;
    g_failurePending[step] = true;
}

bool soft_card_take_failure(ESoftCardStep step, std::string& why) {
    std::lock_guard<std::mutex> lock(g_failureMutex);
    if (!g_failurePending[step]) {
        return false;
    }
    g_failurePending[step] = false;
    why = g_pendingFailure[step];
    return true;
}

CSoftCard::CSoftCard(const std::string& device, double speed, double exitSeconds)
    : m_device(device),
      m_pRegisters(AllocateRegisters()),
      m_clock(std::make_unique<CReplayClock>(speed)),
      m_exitSeconds(exitSeconds),
      m_lastActivityNs(monotonic_ns()) {
    m_port0 = std::make_unique<CSoftPort>(m_pRegisters, REG_DECODE_DATA, *m_clock);
    m_port1 = std::make_unique<CSoftPort>(m_pRegisters, REG_ORIG_DATA, *m_clock);
    m_recorder = std::make_unique<CRegisterRecorder>(m_pRegisters);
}

CSoftCard::~CSoftCard() {
    m_pSim.reset();
    m_recorder.reset();
    free(const_cast<uint32_t*>(m_pRegisters));
}

std::unique_ptr<CSoftCard> CSoftCard::Open(const std::string& device, std::string& error) {
    if (device == "sim" || device.rfind("sim:", 0) == 0) {
        SimOptions options;
        if (device.size() > 4 && !sim_parse_device_options(device.substr(4), options, error)) {
            return nullptr;
        }
        if (options.shfe == 0 && options.ine == 0) {
            error = "the simulator needs instruments: shfe and ine are both 0";
            return nullptr;
        }
        std::unique_ptr<CSoftCard> card(new CSoftCard(device, 0, options.exitSeconds));
        if (card->m_pRegisters == nullptr) {
            error = "cannot allocate the register window";
            return nullptr;
        }
        card->m_pSim = std::make_unique<CSimDevice>(options, card->m_pRegisters);
        return card;
    }
    if (device.rfind("replay:", 0) != 0) {
        error = "'" + device + "' is not a software device (expected replay:... or sim...)";
        return nullptr;
    }
    ReplayOptions options;
    if (!parse_replay_options(device.substr(7), options, error)) {
        return nullptr;
    }
    std::unique_ptr<CSoftCard> card(new CSoftCard(device, options.speed, options.exitSeconds));
    if (card->m_pRegisters == nullptr) {
        error = "cannot allocate the register window";
        return nullptr;
    }
    int64_t origin = std::numeric_limits<int64_t>::max();
    struct Source {
        const std::string& path;
        bool ethernet;
        CSoftPort* port;
    };
    for (const Source& source : {Source{options.raw, true, card->m_port1.get()},
                                 Source{options.decoded, false, card->m_port0.get()}}) {
        if (source.path.empty()) {
            continue;
        }
        std::vector<char> bytes;
        std::vector<SoftFrame> frames;
        if (!load_pcap(source.path, source.ethernet, bytes, frames, error)) {
            return nullptr;
        }
        if (!frames.empty() && frames.front().timeNs < origin) {
            origin = frames.front().timeNs;
        }
        source.port->Load(std::move(bytes), std::move(frames));
    }
    card->m_clock->SetOrigin(origin == std::numeric_limits<int64_t>::max() ? 0 : origin);
    return card;
}

void CSoftCard::_WatchForExit(ssize_t received) {
    if (received != 0) {
        m_lastActivityNs.store(monotonic_ns(), std::memory_order_relaxed);
        return;
    }
    if (m_exitRaised.load(std::memory_order_relaxed) || !_IsIdle()) {
        return;
    }
    const int64_t quietNs = monotonic_ns() - m_lastActivityNs.load(std::memory_order_relaxed);
    if (static_cast<double>(quietNs) >= m_exitSeconds * 1e9 && !m_exitRaised.exchange(true)) {
        raise(SIGINT);
    }
}

void CSoftCard::OnHandleReleased() {
    if (m_pSim != nullptr) {
        m_pSim->WriteExpected();
    }
}

ssize_t CSoftCard::_ReceiveSim(CSoftPort* port, char* buf, size_t size) {
    return port == m_port0.get() ? m_pSim->ReceiveDecoded(buf, size) : m_pSim->ReceiveRaw(buf, size);
}

bool CSoftCard::_IsIdle() const {
    return m_pSim != nullptr ? m_pSim->IsIdle() : m_port0->IsIdle() && m_port1->IsIdle();
}

void CSoftCard::NoteEvent(const std::string& event) {
    std::lock_guard<std::mutex> lock(m_eventMutex);
    m_events.push_back(event);
}

std::vector<std::string> CSoftCard::GetEvents() const {
    std::lock_guard<std::mutex> lock(m_eventMutex);
    return m_events;
}

void CRegisterRecorder::Start() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accesses.clear();
    }
    g_registerTap.store(this, std::memory_order_relaxed);
}

void CRegisterRecorder::Stop() {
    CRegisterTap* self = this;
    g_registerTap.compare_exchange_strong(self, nullptr);
}

std::vector<RegisterAccess> CRegisterRecorder::GetAccesses() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_accesses;
}

void CRegisterRecorder::OnRegisterRead(volatile uint32_t* window, uint32_t index, uint32_t value) {
    if (window == m_pWindow) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accesses.push_back({false, index, value});
    }
}

void CRegisterRecorder::OnRegisterWrite(volatile uint32_t* window, uint32_t index, uint32_t value) {
    if (window == m_pWindow) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accesses.push_back({true, index, value});
    }
}
