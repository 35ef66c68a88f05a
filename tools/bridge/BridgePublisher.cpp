#include "tools/bridge/BridgePublisher.h"

#include <sys/shm.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "tools/StopSignal.h"
#include "tools/bridge/BridgeMessage.h"

namespace {

// Announcements taken from the ring before they are handed over in one lock.
constexpr size_t kBatch = 1024;
// At the ring's end the follower sleeps this long between looks.
constexpr auto kIdleSleep = std::chrono::microseconds(50);
constexpr int64_t kIdleCheckMs = 500;
constexpr int64_t kRescanMs = 1000;
// Puts in flight to the bucket. When the server is the bottleneck, the books
// behind them wait this long in its queue: at 100000 records a second on a
// 2-core host, 8192 held books about 250 ms, 256 about 13 ms. Past it a book
// waits in the table, where newer announcements fold into it.
constexpr int64_t kMaxPutsInFlight = 256;
constexpr int64_t kPutWaitMs = 5000;

uint64_t realtime_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

uint64_t monotonic_ns() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                     std::chrono::steady_clock::now().time_since_epoch())
                                     .count());
}

}  // namespace

CBridgePublisher::CBridgePublisher(const BridgeOptions& options)
    : m_options(options),
      m_epoch(realtime_ns()),
      m_seq(QUVO_INST_SLOTS, 0),
      m_last(QUVO_INST_SLOTS),
      m_kvPrefix("$KV." + options.bucket + "."),
      m_seen(QUVO_INST_SLOTS) {
    memset(m_last.data(), 0, m_last.size() * sizeof(instrument));
    memset(m_seen.data(), 0, m_seen.size() * sizeof(instrument));
}

CBridgePublisher::~CBridgePublisher() {
    m_pMetrics.reset();
    _StopPublisher();
    if (m_pJs != nullptr) {
        // Puts still unacknowledged at the stop stay the caller's to free;
        // the next bridge sends every book again.
        natsMsgList unacknowledged{};
        if (js_PublishAsyncGetPendingList(&unacknowledged, m_pJs) == NATS_OK) {
            natsMsgList_Destroy(&unacknowledged);
        }
        jsCtx_Destroy(m_pJs);
    }
    m_link.Close();
    if (m_pHealth != nullptr) {
        shmdt(m_pHealth);
    }
}

int CBridgePublisher::Run(const volatile sig_atomic_t& stop) {
    std::string error;
    if (!m_link.Open(m_options, "quvo-bridge", error)) {
        fprintf(stderr, "quvo-bridge: %s\n", error.c_str());
        return 2;
    }
    if (!serve_bridge_figures(
            m_options.metrics, "quvo_bridge", [this] { return Figures(true); }, m_pMetrics, error)) {
        fprintf(stderr, "quvo-bridge: --metrics %s\n", error.c_str());
        return 2;
    }
    if (!_AttachFeed(stop)) {
        return m_link.Refused() ? 2 : 0;
    }
    m_publisher = std::thread(&CBridgePublisher::_PublishLoop, this);
    CRingFollower follower(m_reader.Ring());
    uint16_t batch[kBatch];
    uint64_t sinceEnd = 0;
    int64_t lastIdleCheck = now_ms();
    int64_t lastRescan = now_ms();
    _Rescan();
    int64_t nextFigures = now_ms() + static_cast<int64_t>(m_options.statsSeconds * 1000);
    while (!stop && !m_link.Refused()) {
        size_t taken = 0;
        bool atEnd = false;
        while (taken < kBatch) {
            if (!follower.Next(batch[taken])) {
                atEnd = true;
                break;
            }
            ++taken;
        }
        m_figures.announcements.fetch_add(taken, std::memory_order_relaxed);
        m_position.Took(static_cast<uint32_t>(taken));
        sinceEnd += taken;
        const uint32_t published = _PublishedCount();
        m_figures.lag.store(m_pHealth != nullptr ? m_position.Behind(published) : -1,
                            std::memory_order_relaxed);
        // The feed's counter a ring ahead, or a whole ring read without
        // reaching the end: entries may have been overwritten unread, so
        // compare every book.
        if ((m_pHealth != nullptr && m_position.Lapped(published)) || sinceEnd >= QUVO_UPDATE_RING_ENTRIES) {
            m_figures.laps.fetch_add(1, std::memory_order_relaxed);
            _Rescan();
            lastRescan = now_ms();
            sinceEnd = 0;
            m_position.Forget();
        } else if (taken > 0) {
            const uint64_t now = monotonic_ns();
            uint64_t conflated = 0;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                for (size_t i = 0; i < taken; ++i) {
                    if (batch[i] < QUVO_INST_SLOTS && !m_pending.Mark(batch[i], now)) {
                        ++conflated;
                    }
                }
            }
            m_figures.conflated.fetch_add(conflated, std::memory_order_relaxed);
            m_wake.notify_one();
        }
        if (atEnd) {
            sinceEnd = 0;
            m_position.AtEnd(follower.Index(), _PublishedCount());
        }
        // The feed changes books it does not announce (a snapshot, the
        // clearing at a restart): a periodic comparison finds them.
        if (now_ms() - lastRescan >= kRescanMs) {
            _Rescan();
            lastRescan = now_ms();
        }
        // Short of a full batch the follower is at the ring's end: it sleeps
        // rather than spin, so that it leaves the host's cores to the others.
        if (atEnd) {
            std::this_thread::sleep_for(kIdleSleep);
        }
        if (taken == 0) {
            if (now_ms() - lastIdleCheck >= kIdleCheckMs) {
                lastIdleCheck = now_ms();
                if (follower.CheckRestart()) {
                    m_position.Forget();
                }
                if (!m_reader.IsCurrent()) {
                    // The segments were made anew: attach them, with the
                    // publisher stopped since it reads them, and send every book again.
                    _StopPublisher();
                    if (!_AttachFeed(stop)) {
                        break;
                    }
                    m_stopping = false;
                    m_publisher = std::thread(&CBridgePublisher::_PublishLoop, this);
                    follower = CRingFollower(m_reader.Ring());
                    m_position.Forget();
                    _MarkAll(true);
                }
            }
        }
        if (m_options.statsSeconds > 0 && now_ms() >= nextFigures) {
            nextFigures = now_ms() + static_cast<int64_t>(m_options.statsSeconds * 1000);
            _PrintFigures();
        }
    }
    _StopPublisher();
    if (m_options.statsSeconds > 0) {
        _PrintFigures();
    }
    return m_link.Refused() ? 2 : 0;
}

void CBridgePublisher::_StopPublisher() {
    m_stopping = true;
    m_wake.notify_all();
    if (m_publisher.joinable()) {
        m_publisher.join();
    }
}

bool CBridgePublisher::_AttachFeed(const volatile sig_atomic_t& stop) {
    std::string error;
    bool told = false;
    while (!stop && !m_link.Refused()) {
        if (m_reader.Attach(error)) {
            _AttachHealth();
            return true;
        }
        if (!told) {
            fprintf(stderr, "quvo-bridge: waiting for the feed: %s\n", error.c_str());
            told = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

void CBridgePublisher::_AttachHealth() {
    if (m_pHealth != nullptr) {
        shmdt(m_pHealth);
        m_pHealth = nullptr;
    }
    std::string error;
    const int id = quvo_find_segment(quvo_key_path(QUVO_HEALTH_KEY_FILE), QUVO_HEALTH_PROJ_ID,
                                     "health segment", "no health segment", error);
    struct shmid_ds segment {};
    if (id == -1 || shmctl(id, IPC_STAT, &segment) != 0 || segment.shm_segsz < sizeof(quvo_health)) {
        return;
    }
    void* addr = shmat(id, nullptr, SHM_RDONLY);
    if (addr == reinterpret_cast<void*>(-1)) {
        return;
    }
    const quvo_health* health = static_cast<const quvo_health*>(addr);
    if (__atomic_load_n(&health->magic, __ATOMIC_RELAXED) != QUVO_HEALTH_MAGIC ||
        __atomic_load_n(&health->version, __ATOMIC_RELAXED) != QUVO_HEALTH_VERSION) {
        shmdt(addr);
        return;
    }
    m_pHealth = health;
}

uint32_t CBridgePublisher::_PublishedCount() const {
    return m_pHealth == nullptr
               ? 0
               : static_cast<uint32_t>(__atomic_load_n(&m_pHealth->ring.write_count, __ATOMIC_RELAXED));
}

void CBridgePublisher::_MarkAll(bool force) {
    const std::vector<uint32_t> slots = m_reader.ListSlots();
    const uint64_t now = monotonic_ns();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const uint32_t slot : slots) {
            m_pending.Mark(slot, now, force);
        }
    }
    m_wake.notify_one();
}

void CBridgePublisher::_Rescan() {
    const share& area = *m_reader.Area();
    const uint64_t now = monotonic_ns();
    std::vector<uint32_t> changed;
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        if (memcmp(&area.instmts[slot], &m_seen[slot], sizeof(instrument)) != 0) {
            memcpy(&m_seen[slot], &area.instmts[slot], sizeof(instrument));
            if (quvo_slot_in_use(m_seen[slot])) {
                changed.push_back(slot);
            }
        }
    }
    m_figures.rescans.fetch_add(1, std::memory_order_relaxed);
    if (changed.empty()) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (const uint32_t slot : changed) {
            m_pending.Mark(slot, now);
        }
    }
    m_wake.notify_one();
}

void CBridgePublisher::_PublishLoop() {
    uint64_t seenGeneration = 0;
    bool told = false;
    while (!m_stopping) {
        if (!m_link.Connected()) {
            // Announcements keep folding into the table meanwhile.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        const uint64_t generation = m_link.Generation();
        if (generation != seenGeneration) {
            std::string error;
            if (!_SetUpJetStream(error)) {
                if (!told) {
                    fprintf(stderr, "quvo-bridge: %s; trying again\n", error.c_str());
                    told = true;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(250));
                continue;
            }
            told = false;
            seenGeneration = generation;
            // What was sent before a reconnect may not have reached the bucket.
            _MarkAll(true);
        }
        uint32_t slot = 0;
        uint64_t markedNs = 0;
        bool force = false;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_pending.Take(slot, markedNs, force)) {
                m_wake.wait_for(lock, std::chrono::milliseconds(20));
                continue;
            }
        }
        if (!_PublishOne(slot, markedNs, force)) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_pending.Mark(slot, markedNs, true);
        }
    }
}

bool CBridgePublisher::_SetUpJetStream(std::string& error) {
    natsStatus status = NATS_OK;
    if (m_pJs == nullptr) {
        jsOptions options;
        jsOptions_Init(&options);
        // Bounds the puts in flight; past it a put fails and the book waits in the table.
        options.PublishAsync.MaxPending = kMaxPutsInFlight;
        // With the bound reached, a put waits for room as long as an
        // acknowledgement may take, rather than fail: the table conflates
        // meanwhile, and only a put still without room counts as an error.
        options.PublishAsync.StallWait = kPutWaitMs;
        options.PublishAsync.ErrHandler = _OnPutFailed;
        options.PublishAsync.ErrHandlerClosure = this;
        status = natsConnection_JetStream(&m_pJs, m_link.Connection(), &options);
        if (status != NATS_OK) {
            error = "cannot use JetStream: " + nats_error_text(status);
            return false;
        }
    }
    const std::string subjects = m_options.prefix + ".>";
    const char* subjectList[] = {subjects.c_str()};
    jsStreamConfig stream;
    jsStreamConfig_Init(&stream);
    stream.Name = m_options.stream.c_str();
    stream.Subjects = subjectList;
    stream.SubjectsLen = 1;
    stream.MaxAge = static_cast<int64_t>(m_options.historySeconds * 1e9);
    stream.MaxBytes = m_options.historyBytes;
    stream.Storage = js_FileStorage;
    stream.Replicas = m_options.replicas;
    jsStreamInfo* info = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    status = js_AddStream(&info, m_pJs, &stream, nullptr, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr) {
        status = js_UpdateStream(&info, m_pJs, &stream, nullptr, &code);
    }
    if (info != nullptr) {
        jsStreamInfo_Destroy(info);
    }
    if (status != NATS_OK) {
        error = "cannot make the stream " + m_options.stream + ": " + nats_error_text(status);
        return false;
    }
    kvStore* kv = nullptr;
    status = js_KeyValue(&kv, m_pJs, m_options.bucket.c_str());
    if (status == NATS_NOT_FOUND) {
        kvConfig config;
        kvConfig_Init(&config);
        config.Bucket = m_options.bucket.c_str();
        config.History = 1;
        config.StorageType = js_FileStorage;
        config.Replicas = m_options.replicas;
        status = js_CreateKeyValue(&kv, m_pJs, &config);
    }
    if (kv != nullptr) {
        kvStore_Destroy(kv);
    }
    if (status != NATS_OK) {
        error = "cannot make the bucket " + m_options.bucket + ": " + nats_error_text(status);
        return false;
    }
    return true;
}

bool CBridgePublisher::_PublishOne(uint32_t slot, uint64_t markedNs, bool force) {
    instrument book;
    if (!quvo_copy_consistent(m_reader.Area()->instmts[slot], book)) {
        m_figures.inconsistent.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    if (!force && memcmp(&book, &m_last[slot], sizeof(book)) == 0) {
        m_figures.unchanged.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
    // A number once used is never used again, even if the send fails:
    // receivers would take a second book under it for the first.
    const quvo_book_msg msg = bridge_message(slot, m_epoch, ++m_seq[slot], realtime_ns(), book);
    const std::string data = m_options.json ? bridge_encode_json(msg) : bridge_encode(msg);
    const std::string key = bridge_key(slot, book);
    const std::string subject = m_options.prefix + "." + key;
    // The live subject is a plain publish (the history stream takes it as it
    // passes); the bucket's put is acknowledged, and one that fails puts the
    // book back in the table (_OnPutFailed).
    natsStatus status = natsConnection_Publish(m_link.Connection(), subject.c_str(), data.data(),
                                               static_cast<int>(data.size()));
    if (status == NATS_OK) {
        jsPubOptions put;
        jsPubOptions_Init(&put);
        put.MaxWait = kPutWaitMs;
        status = js_PublishAsync(m_pJs, (m_kvPrefix + key).c_str(), data.data(),
                                 static_cast<int>(data.size()), &put);
    }
    if (status != NATS_OK) {
        m_figures.publishErrors.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    m_last[slot] = book;
    m_figures.published.fetch_add(1, std::memory_order_relaxed);
    const uint64_t delay = monotonic_ns() - markedNs;
    for (std::atomic<uint64_t>* longest : {&m_figures.maxDelayNs, &m_figures.maxDelayScrapeNs}) {
        uint64_t seen = longest->load(std::memory_order_relaxed);
        while (delay > seen && !longest->compare_exchange_weak(seen, delay)) {
        }
    }
    return true;
}

void CBridgePublisher::_OnPutFailed(jsCtx*, jsPubAckErr* failure, void* closure) {
    CBridgePublisher* self = static_cast<CBridgePublisher*>(closure);
    self->m_figures.putErrors.fetch_add(1, std::memory_order_relaxed);
    quvo_book_msg msg;
    std::string error;
    if (failure->Msg == nullptr ||
        !bridge_decode(natsMsg_GetData(failure->Msg),
                       static_cast<size_t>(natsMsg_GetDataLength(failure->Msg)), msg, error)) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_pending.Mark(msg.slot, monotonic_ns(), true);
    }
    self->m_wake.notify_one();
}

nlohmann::ordered_json CBridgePublisher::Figures(bool scrape) {
    size_t pending = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        pending = m_pending.Size();
    }
    std::atomic<uint64_t>& longest = scrape ? m_figures.maxDelayScrapeNs : m_figures.maxDelayNs;
    return {
        {"mode", "publish"},
        {"connected", m_link.Connected()},
        {"announcements", m_figures.announcements.load()},
        {"published", m_figures.published.load()},
        {"conflated", m_figures.conflated.load()},
        {"unchanged", m_figures.unchanged.load()},
        {"laps", m_figures.laps.load()},
        {"rescans", m_figures.rescans.load()},
        {"reconnects", m_link.Reconnects()},
        {"disconnects", m_link.Disconnects()},
        {"pending", pending},
        {"lag", m_figures.lag.load()},
        {"max_delay_us", longest.exchange(0) / 1000},
        {"inconsistent", m_figures.inconsistent.load()},
        {"publish_errors", m_figures.publishErrors.load()},
        {"put_errors", m_figures.putErrors.load()},
    };
}

void CBridgePublisher::_PrintFigures() {
    printf("%s\n", Figures(false).dump().c_str());
    fflush(stdout);
}
