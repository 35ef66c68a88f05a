#include "src/dev/soft/SoftCard.h"

#include <sys/mman.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "src/dev/soft/ReplayClock.h"
#include "src/dev/soft/ReplaySource.h"

CSoftPort::CSoftPort(volatile uint32_t* registers, uint32_t streamRegister, CReplayClock& clock)
    : m_pRegisters(registers), m_streamRegister(streamRegister), m_refClock(clock) {}

CFrameBytes CFrameBytes::Mapped(void* address, size_t size) {
    CFrameBytes bytes;
    bytes.m_pMapping = address;
    bytes.m_mappingSize = size;
    bytes.m_pData = static_cast<const char*>(address);
    return bytes;
}

CFrameBytes& CFrameBytes::operator=(CFrameBytes&& other) noexcept {
    if (this != &other) {
        _Unmap();
        const bool copied = other.m_pMapping == nullptr;
        m_copy = std::move(other.m_copy);
        m_pMapping = std::exchange(other.m_pMapping, nullptr);
        m_mappingSize = std::exchange(other.m_mappingSize, 0);
        m_pData = copied ? m_copy.data() : static_cast<const char*>(m_pMapping);
        other.m_pData = nullptr;
    }
    return *this;
}

void CFrameBytes::_Unmap() {
    if (m_pMapping != nullptr) {
        munmap(m_pMapping, m_mappingSize);
        m_pMapping = nullptr;
    }
}

void CSoftPort::Load(CFrameBytes bytes, const SoftRecords& records) {
    m_data = std::move(bytes);
    m_records = records;
    m_statuses.clear();
    Rewind();
}

void CSoftPort::Load(const std::vector<char>& bytes, const std::vector<SoftFrame>& frames) {
    std::vector<char> copy;
    SoftRecords records;
    bool marked = false;
    for (const SoftFrame& frame : frames) {
        append_soft_record(copy, frame.timeNs, bytes.data() + frame.offset, frame.length);
        marked = marked || frame.status != 0;
    }
    records.end = copy.size();
    records.count = frames.size();
    Load(CFrameBytes(std::move(copy)), records);
    if (marked) {
        for (size_t i = 0; i < frames.size(); ++i) {
            MarkFrame(i, frames[i].status);
        }
    }
}

bool CSoftPort::GetFirstTime(int64_t& timeNs) const {
    if (m_records.begin == m_records.end) {
        return false;
    }
    uint32_t length = 0;
    _ReadHeader(m_data.Data() + m_records.begin, length, timeNs);
    return true;
}

bool CSoftPort::MarkFrame(size_t index, uint8_t status) {
    if (index >= m_records.count) {
        return false;
    }
    if (m_statuses.empty()) {
        m_statuses.resize(m_records.count);
    }
    m_statuses[index] = status;
    return true;
}

void CSoftPort::HoldUntilStreamCycled(uint32_t streamRegister) {
    m_holdRegister = streamRegister;
    m_hold = HOLD_UNTIL_ON;
}

bool CSoftPort::_HoldReleased() {
    const bool on = __atomic_load_n(&m_pRegisters[m_holdRegister], __ATOMIC_RELAXED) == 1;
    if (m_hold == HOLD_UNTIL_ON && on) {
        m_hold = HOLD_UNTIL_OFF;
    } else if (m_hold == HOLD_UNTIL_OFF && !on) {
        m_hold = HOLD_NONE;
    }
    return m_hold == HOLD_NONE;
}

void CSoftPort::Rewind() {
    m_next = m_records.begin;
    m_index = 0;
    m_exhausted.store(m_records.begin == m_records.end, std::memory_order_relaxed);
}

bool CSoftPort::IsIdle() const {
    return m_exhausted.load(std::memory_order_relaxed) ||
           __atomic_load_n(&m_pRegisters[m_streamRegister], __ATOMIC_RELAXED) != 1;
}

namespace {

std::mutex g_failureMutex;
std::string g_pendingFailure[SOFT_STEP_COUNT];
bool g_failurePending[SOFT_STEP_COUNT] = {};

std::mutex g_sourceMutex;

// Made on first use and never destroyed: registrations run from static
// initialisers, in any order.
std::map<std::string, SoftSourceFactory>& Sources() {
    static auto* sources = new std::map<std::string, SoftSourceFactory>();
    return *sources;
}

volatile uint32_t* AllocateRegisters() {
    void* window = aligned_alloc(4096, CSoftCard::kRegisterWords * sizeof(uint32_t));
    if (window == nullptr) {
        return nullptr;
    }
    memset(window, 0, CSoftCard::kRegisterWords * sizeof(uint32_t));
    return static_cast<volatile uint32_t*>(window);
}

}  // namespace

bool soft_card_register_source(const char* name, SoftSourceFactory factory) {
    std::lock_guard<std::mutex> lock(g_sourceMutex);
    Sources()[name] = factory;
    return true;
}

SoftSourceFactory soft_card_find_source(const std::string& device, std::string& options) {
    const size_t colon = device.find(':');
    const std::string name = device.substr(0, colon);
    std::lock_guard<std::mutex> lock(g_sourceMutex);
    const auto found = Sources().find(name);
    if (found == Sources().end()) {
        return nullptr;
    }
    options = colon == std::string::npos ? std::string() : device.substr(colon + 1);
    return found->second;
}

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

CSoftCard::CSoftCard(const std::string& device, std::unique_ptr<CSoftSource> source,
                     volatile uint32_t* registers, CReplaySource* replay, bool usesRing)
    : m_device(device),
      m_pRegisters(registers),
      m_source(std::move(source)),
      m_pReplay(replay),
      m_paced(m_source->IsPaced()),
      m_usesRing(usesRing),
      m_exitSeconds(m_source->GetExitSeconds()),
      m_lastActivityNs(monotonic_ns()),
      m_recorder(std::make_unique<CRegisterRecorder>(registers)) {
    if (m_pReplay != nullptr) {
        m_replayPorts[0] = m_pReplay->GetPort(0);
        m_replayPorts[1] = m_pReplay->GetPort(1);
    }
}

CSoftCard::~CSoftCard() {
    const char* statsPath = getenv("QUVO_SOFT_CARD_STATS");
    if (statsPath != nullptr && *statsPath != '\0') {
        FILE* file = fopen(statsPath, "w");
        if (file == nullptr || fputs(DescribeDelivery().c_str(), file) < 0) {
            fprintf(stderr, "software card: cannot write %s: %s\n", statsPath, strerror(errno));
        }
        if (file != nullptr) {
            fclose(file);
        }
    }
    m_source.reset();
    m_recorder.reset();
    free(const_cast<uint32_t*>(m_pRegisters));
}

std::unique_ptr<CSoftCard> CSoftCard::Open(const std::string& device, std::string& error) {
    bool useRing = QUVO_HAVE_EXANIC != 0;
    const char* delivery = getenv("QUVO_SOFT_CARD_RX");
    if (delivery != nullptr && *delivery != '\0') {
        const std::string choice(delivery);
        if (choice != "ring" && choice != "direct") {
            error = "QUVO_SOFT_CARD_RX must be ring or direct, not '" + choice + "'";
            return nullptr;
        }
        if (choice == "ring" && QUVO_HAVE_EXANIC == 0) {
            error = "QUVO_SOFT_CARD_RX=ring needs the card library: build with the card preset";
            return nullptr;
        }
        useRing = choice == "ring";
    }
    const bool replay = device.rfind("replay:", 0) == 0;
    std::string options;
    SoftSourceFactory factory = replay ? nullptr : soft_card_find_source(device, options);
    if (!replay && factory == nullptr) {
        error = "'" + device + "' is not a software device (expected replay:... or a simulator)";
        return nullptr;
    }
    volatile uint32_t* registers = AllocateRegisters();
    if (registers == nullptr) {
        error = "cannot allocate the register window";
        return nullptr;
    }
    std::unique_ptr<CSoftSource> source;
    CReplaySource* replaySource = nullptr;
    if (replay) {
        std::unique_ptr<CReplaySource> opened = CReplaySource::Open(device.substr(7), registers, error);
        replaySource = opened.get();
        source = std::move(opened);
    } else {
        source = factory(options, registers, error);
    }
    if (!source) {
        free(const_cast<uint32_t*>(registers));
        return nullptr;
    }
    std::unique_ptr<CSoftCard> card(
        new CSoftCard(device, std::move(source), registers, replaySource, useRing));
    if (useRing && !card->_AllocateRings()) {
        error = "cannot allocate the receive rings";
        return nullptr;
    }
    return card;
}

bool CSoftCard::_AllocateRings() {
#if QUVO_HAVE_EXANIC
    for (std::unique_ptr<CSoftRxRing>& ring : m_rings) {
        ring = CSoftRxRing::Create();
        if (!ring) {
            return false;
        }
    }
    return true;
#else
    return false;
#endif
}

CSoftPort* CSoftCard::GetPort(int port) {
    return m_pReplay != nullptr && (port == 0 || port == 1) ? m_pReplay->GetPort(port) : nullptr;
}

void CSoftCard::_WatchQuiet() {
    const uint64_t moves =
        m_moves[0].value.load(std::memory_order_relaxed) + m_moves[1].value.load(std::memory_order_relaxed);
    if (moves != m_movesSeen.load(std::memory_order_relaxed)) {
        m_movesSeen.store(moves, std::memory_order_relaxed);
        m_lastActivityNs.store(monotonic_ns(), std::memory_order_relaxed);
    }
    if (m_exitRaised.load(std::memory_order_relaxed) || !m_source->IsIdle()) {
        return;
    }
    const int64_t quietNs = monotonic_ns() - m_lastActivityNs.load(std::memory_order_relaxed);
    if (static_cast<double>(quietNs) >= m_exitSeconds * 1e9 && !m_exitRaised.exchange(true)) {
        raise(SIGINT);
    }
}

void CSoftCard::OnHandleReleased() {
    m_source->OnHandleReleased();
}

#if QUVO_HAVE_EXANIC
void CSoftCard::NoteReaderReleased(int port, const exanic_rx_t& reader) {
    m_lastReader[port] = reader;
}
#endif

SoftRxFigures CSoftCard::GetFigures(int port) const {
    SoftRxFigures figures;
    figures.frames = m_frames[port].load(std::memory_order_relaxed);
    figures.dropped = m_dropped[port].load(std::memory_order_relaxed);
    figures.overruns = m_overruns[port].load(std::memory_order_relaxed);
#if QUVO_HAVE_EXANIC
    if (m_usesRing) {
        figures.chunks = m_rings[port]->GetChunksWritten();
        return figures;
    }
#endif
    figures.chunks = m_direct[port].GetChunksWritten();
    return figures;
}

std::string CSoftCard::DescribeDelivery() const {
    std::string text;
    for (int port = 0; port < 2; ++port) {
        const SoftRxFigures figures = GetFigures(port);
        char line[256];
        snprintf(line, sizeof(line), "port=%d delivery=%s frames=%llu dropped=%llu chunks=%llu overruns=%llu",
                 port, m_usesRing ? "ring" : "direct", static_cast<unsigned long long>(figures.frames),
                 static_cast<unsigned long long>(figures.dropped),
                 static_cast<unsigned long long>(figures.chunks),
                 static_cast<unsigned long long>(figures.overruns));
        text += line;
#if QUVO_HAVE_EXANIC
        if (m_usesRing) {
            const CSoftRxRing& ring = *m_rings[port];
            snprintf(line, sizeof(line), " writer=%u/%u reader=%u/%u", ring.GetNextChunk(),
                     ring.GetGeneration(), m_lastReader[port].next_chunk, m_lastReader[port].generation);
            text += line;
        }
#endif
        text += "\n";
    }
    return text;
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
