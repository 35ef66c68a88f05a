// quvo-bridge publishing: follows the feed's update ring on the calling
// thread and publishes the changed books from a second thread, through the
// conflation table between them.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "interface/quvohealth.h"
#include "interface/quvoreader.h"
#include "tools/bridge/BridgeMetrics.h"
#include "tools/bridge/BridgeOptions.h"
#include "tools/bridge/FeedPosition.h"
#include "tools/bridge/NatsLink.h"
#include "tools/bridge/PendingSet.h"

class CBridgePublisher {
public:
    explicit CBridgePublisher(const BridgeOptions& options);
    ~CBridgePublisher();
    CBridgePublisher(const CBridgePublisher&) = delete;
    CBridgePublisher& operator=(const CBridgePublisher&) = delete;

    // Runs until `stop` is set; the exit status (0 stopped, 2 NATS refused
    // the options).
    int Run(const volatile sig_atomic_t& stop);

    // The figures --stats prints; the longest delay is the one since the
    // previous call of the same kind (a printed line, or a scrape).
    nlohmann::ordered_json Figures(bool scrape);

private:
    struct Counts {
        std::atomic<uint64_t> announcements{0};
        std::atomic<uint64_t> published{0};
        std::atomic<uint64_t> conflated{0};
        std::atomic<uint64_t> unchanged{0};
        std::atomic<uint64_t> laps{0};
        std::atomic<uint64_t> rescans{0};
        std::atomic<uint64_t> inconsistent{0};
        std::atomic<uint64_t> publishErrors{0};
        std::atomic<uint64_t> putErrors{0};
        std::atomic<uint64_t> maxDelayNs{0};
        std::atomic<uint64_t> maxDelayScrapeNs{0};
        std::atomic<int64_t> lag{-1};
    };

    bool _AttachFeed(const volatile sig_atomic_t& stop);
    void _AttachHealth();
    uint32_t _PublishedCount() const;
    // Every slot in use waits for publication; `force` even when unchanged.
    void _MarkAll(bool force);
    // Marks every slot in use whose record differs from the copy the last
    // rescan took; the publisher then sends those that differ from what it sent.
    void _Rescan();
    void _PublishLoop();
    void _StopPublisher();
    bool _SetUpJetStream(std::string& error);
    bool _PublishOne(uint32_t slot, uint64_t markedNs, bool force);
    // A put the bucket did not acknowledge: its slot waits to be published again.
    static void _OnPutFailed(jsCtx* js, jsPubAckErr* failure, void* closure);
    void _PrintFigures();

    BridgeOptions m_options;
    CNatsLink m_link;
    jsCtx* m_pJs = nullptr;
    CQuvoReader m_reader;
    const quvo_health* m_pHealth = nullptr;
    CFeedPosition m_position;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    CPendingSet m_pending;
    std::atomic<bool> m_stopping{false};
    std::thread m_publisher;

    // Publisher thread only.
    uint64_t m_epoch;
    std::vector<uint64_t> m_seq;
    std::vector<instrument> m_last;
    std::string m_kvPrefix;

    // Follower thread only: the area as the last rescan saw it.
    std::vector<instrument> m_seen;

    Counts m_figures;
    std::unique_ptr<CMetricsServer> m_pMetrics;
};
