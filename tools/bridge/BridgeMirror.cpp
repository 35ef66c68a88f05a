#include "tools/bridge/BridgeMirror.h"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>

#include "src/FeedLock.h"
#include "src/api/shfe_recv.h"
#include "tools/StopSignal.h"
#include "tools/bridge/BridgeMessage.h"

namespace {

// How long one read of the bucket may wait for its next entry.
constexpr int64_t kBucketWaitMs = 5000;

}  // namespace

CBridgeMirror::CBridgeMirror(const BridgeOptions& options) : m_options(options) {}

CBridgeMirror::~CBridgeMirror() {
    m_pMetrics.reset();
    if (m_pSub != nullptr) {
        natsSubscription_Unsubscribe(m_pSub);
        natsSubscription_Destroy(m_pSub);
    }
    if (m_pJs != nullptr) {
        jsCtx_Destroy(m_pJs);
    }
    m_link.Close();
    if (m_segments.pMdArea != nullptr) {
        detach_shared_segments(m_segments);
    }
}

int CBridgeMirror::Run(const volatile sig_atomic_t& stop) {
    std::string error;
    if (feed_lock_key_files(shm_key_path(QUVO_UPDATE_RING_KEY_FILE), shm_key_path(QUVO_MD_AREA_KEY_FILE),
                            error) != 0) {
        fprintf(stderr, "quvo-bridge: %s\n", error.c_str());
        return 3;
    }
    m_segments = attach_shared_segments();
    m_pRing = std::make_unique<CUpdateRing>(m_segments.pUpdateRing);
    {
        std::lock_guard<std::mutex> lock(m_applyMutex);
        m_pBooks = std::make_unique<CMirrorBooks>(*m_segments.pMdArea, *m_pRing);
        // A replica holds only what it received: nothing an earlier run left.
        m_pBooks->Clear();
    }
    if (!m_link.Open(m_options, "quvo-bridge mirror", error)) {
        fprintf(stderr, "quvo-bridge: %s\n", error.c_str());
        return 2;
    }
    if (!serve_bridge_figures(
            m_options.metrics, "quvo_mirror", [this] { return Figures(); }, m_pMetrics, error)) {
        fprintf(stderr, "quvo-bridge: --metrics %s\n", error.c_str());
        return 2;
    }
    uint64_t loadedGeneration = 0;
    bool told = false;
    int64_t nextFigures = now_ms() + static_cast<int64_t>(m_options.statsSeconds * 1000);
    while (!stop && !m_link.Refused()) {
        if (m_link.TakeSlowConsumer()) {
            // Live messages were dropped: the bucket has what they carried.
            m_slowConsumers.fetch_add(1, std::memory_order_relaxed);
            loadedGeneration = 0;
        }
        const uint64_t generation = m_link.Generation();
        if (m_link.Connected() && generation != loadedGeneration) {
            // Live first, so that nothing published while the bucket is read is missed.
            natsStatus status = NATS_OK;
            if (m_pSub == nullptr) {
                const std::string subjects = m_options.prefix + ".>";
                status = natsConnection_Subscribe(&m_pSub, m_link.Connection(), subjects.c_str(), _OnMessage,
                                                  this);
                if (status == NATS_OK) {
                    status = natsSubscription_SetPendingLimits(m_pSub, -1, 256 * 1024 * 1024);
                }
            }
            if (status == NATS_OK && _LoadBucket(error)) {
                loadedGeneration = generation;
                m_resyncs.fetch_add(1, std::memory_order_relaxed);
                told = false;
            } else {
                if (status != NATS_OK) {
                    error = "cannot subscribe: " + nats_error_text(status);
                }
                if (!told) {
                    fprintf(stderr, "quvo-bridge: %s; trying again\n", error.c_str());
                    told = true;
                }
                std::this_thread::sleep_for(std::chrono::milliseconds(250));
            }
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (m_options.statsSeconds > 0 && now_ms() >= nextFigures) {
            nextFigures = now_ms() + static_cast<int64_t>(m_options.statsSeconds * 1000);
            _PrintFigures();
        }
    }
    if (m_pSub != nullptr) {
        natsSubscription_Unsubscribe(m_pSub);
        natsSubscription_Destroy(m_pSub);
        m_pSub = nullptr;
    }
    if (m_options.statsSeconds > 0) {
        _PrintFigures();
    }
    return m_link.Refused() ? 2 : 0;
}

void CBridgeMirror::_OnMessage(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    static_cast<CBridgeMirror*>(closure)->_Apply(natsMsg_GetData(msg),
                                                 static_cast<size_t>(natsMsg_GetDataLength(msg)));
    natsMsg_Destroy(msg);
}

void CBridgeMirror::_Apply(const void* data, size_t size) {
    quvo_book_msg msg;
    std::string error;
    if (!bridge_decode(data, size, msg, error)) {
        m_invalid.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    std::lock_guard<std::mutex> lock(m_applyMutex);
    m_pBooks->Apply(msg);
}

bool CBridgeMirror::_LoadBucket(std::string& error) {
    natsStatus status = NATS_OK;
    if (m_pJs == nullptr) {
        status = natsConnection_JetStream(&m_pJs, m_link.Connection(), nullptr);
        if (status != NATS_OK) {
            error = "cannot use JetStream: " + nats_error_text(status);
            return false;
        }
    }
    kvStore* kv = nullptr;
    status = js_KeyValue(&kv, m_pJs, m_options.bucket.c_str());
    if (status != NATS_OK) {
        error = status == NATS_NOT_FOUND
                    ? "no bucket " + m_options.bucket + " yet: is the bridge publishing?"
                    : "cannot open the bucket " + m_options.bucket + ": " + nats_error_text(status);
        return false;
    }
    kvWatchOptions watchOptions;
    kvWatchOptions_Init(&watchOptions);
    watchOptions.IgnoreDeletes = true;
    kvWatcher* watcher = nullptr;
    status = kvStore_WatchAll(&watcher, kv, &watchOptions);
    uint64_t books = 0;
    while (status == NATS_OK) {
        kvEntry* entry = nullptr;
        status = kvWatcher_Next(&entry, watcher, kBucketWaitMs);
        if (status != NATS_OK || entry == nullptr) {
            // No entry: every value the bucket held has been delivered.
            break;
        }
        _Apply(kvEntry_Value(entry), static_cast<size_t>(kvEntry_ValueLen(entry)));
        ++books;
        kvEntry_Destroy(entry);
    }
    if (watcher != nullptr) {
        kvWatcher_Destroy(watcher);
    }
    kvStore_Destroy(kv);
    if (status != NATS_OK) {
        error = "cannot read the bucket " + m_options.bucket + ": " + nats_error_text(status);
        return false;
    }
    m_bucketBooks.store(books, std::memory_order_relaxed);
    return true;
}

nlohmann::ordered_json CBridgeMirror::Figures() {
    uint64_t applied = 0;
    uint64_t stale = 0;
    {
        std::lock_guard<std::mutex> lock(m_applyMutex);
        if (m_pBooks != nullptr) {
            applied = m_pBooks->Applied();
            stale = m_pBooks->Stale();
        }
    }
    return {
        {"mode", "mirror"},
        {"connected", m_link.Connected()},
        {"applied", applied},
        {"stale", stale},
        {"invalid", m_invalid.load()},
        {"resyncs", m_resyncs.load()},
        {"bucket_books", m_bucketBooks.load()},
        {"reconnects", m_link.Reconnects()},
        {"disconnects", m_link.Disconnects()},
        {"slow_consumer", m_slowConsumers.load()},
    };
}

void CBridgeMirror::_PrintFigures() {
    printf("%s\n", Figures().dump().c_str());
    fflush(stdout);
}
