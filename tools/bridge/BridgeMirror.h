// quvo-bridge --mirror: a replica of the published books in this host's
// shared memory, filled from the key-value bucket, then kept current from
// the live subjects, and read again from the bucket after every reconnect.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>

#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "tools/bridge/BridgeMetrics.h"
#include "tools/bridge/BridgeOptions.h"
#include "tools/bridge/MirrorBooks.h"
#include "tools/bridge/NatsLink.h"

class CBridgeMirror {
public:
    explicit CBridgeMirror(const BridgeOptions& options);
    ~CBridgeMirror();
    CBridgeMirror(const CBridgeMirror&) = delete;
    CBridgeMirror& operator=(const CBridgeMirror&) = delete;

    // Runs until `stop` is set; the exit status (0 stopped, 2 NATS refused
    // the options, 3 another writer holds the key files).
    int Run(const volatile sig_atomic_t& stop);

    // The figures --stats prints.
    nlohmann::ordered_json Figures();

private:
    static void _OnMessage(natsConnection* conn, natsSubscription* sub, natsMsg* msg, void* closure);
    void _Apply(const void* data, size_t size);
    // Applies every book the bucket holds; false when it cannot be read now.
    bool _LoadBucket(std::string& error);
    void _PrintFigures();

    BridgeOptions m_options;
    CNatsLink m_link;
    jsCtx* m_pJs = nullptr;
    natsSubscription* m_pSub = nullptr;
    SharedSegments m_segments{};
    std::unique_ptr<CUpdateRing> m_pRing;
    std::unique_ptr<CMirrorBooks> m_pBooks;

    std::mutex m_applyMutex;  // the subscription's thread and the bucket loads both apply
    std::atomic<uint64_t> m_invalid{0};
    std::atomic<uint64_t> m_resyncs{0};
    std::atomic<uint64_t> m_bucketBooks{0};
    std::atomic<uint64_t> m_slowConsumers{0};
    std::unique_ptr<CMetricsServer> m_pMetrics;
};
