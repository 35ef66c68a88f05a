#include "src/ExanicMdImpl.h"

#include <atomic>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>

#include "public/log/CommonLog.h"
#include "src/api/Health.h"
#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "src/api/ZeroedBuffer.h"
#include "src/config/ConfigParse.h"
#include "src/dev/ExanicDevFunc.h"
#include "src/tcp/ExanicTcpFunc.h"
#include "src/udp/ExanicUdpFunc.h"
#include "src/udp/LiveFigures.h"

namespace {

constexpr const char* kSoftwareVersion = __DATE__ " " __TIME__ " Shfe V2.1.1.12";

inline bool Running(const int* running) {
    return __atomic_load_n(running, __ATOMIC_RELAXED) != 0;
}

// A start-up failure ends the process with the figures as they stand.
int Fail() {
    health_phase(QUVO_PHASE_FAILED);
    detach_health();
    return -1;
}

}  // namespace

const char* quvo_software_version() {
    return kSoftwareVersion;
}

extern "C" int quvo_recv(const char* config_path, int* running) {
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));

    SharedSegments segments = attach_shared_segments();
    share& area = *segments.pMdArea;
    CUpdateRing ring(segments.pUpdateRing);
    attach_health(config_path);
    quvo_health& figures = health();

    // The process's heap memory goes with any return; the card and the
    // segments are released only on an orderly stop.
    CZeroedBuffer cacheArea(CExanicUdpFunc::kCacheSize);
    CacheBufInfo cache{};
    cache.pCacheBuf = cacheArea.data();
    if (cache.pCacheBuf == nullptr) {
        QUVO_LOG(LOG_ERROR, "failed to allocate the decode buffer");
        return Fail();
    }
    // 200 MiB of page faults take about 100 ms on a small machine. Rather
    // than before the start, or beside it and the snapshot, whose threads
    // need the processors, they are taken on a thread of their own once the
    // first snapshot is loaded; until then caching maps the pages it writes.
    ExanicMdConfigData config;
    UEnableMask enabledMask{};
    UEnableMask finishedMask{};
    uint32_t lastInstNo = 0;
    auto calcInfo = std::make_unique<PriceCalcInfo>();
    CExanicDevFunc dev(config, enabledMask);
    auto tcp = std::make_unique<CExanicTcpFunc>(config, &area, enabledMask, finishedMask, *calcInfo);

    QUVO_LOG(LOG_INFO, "software version: %s", kSoftwareVersion);

    while (Running(running)) {
        health_phase(QUVO_PHASE_CONFIGURING);
        health_add(figures.process.run);
        clear_books(area);
        config = ExanicMdConfigData();
        CConfigParse parse(config);
        if (parse.InitConfig(config_path) != 0) {
            QUVO_LOG(LOG_ERROR, "failed to initialize config data");
            return Fail();
        }
        if (dev.InitDev() != 0) {
            QUVO_LOG(LOG_ERROR, "failed to initialize network device");
            return Fail();
        }
        if (mask_load(enabledMask) == 0) {
            QUVO_LOG(LOG_ERROR, "all SHFE and INE are disabled");
            return Fail();
        }
        if (tcp->InitTcp(dev.GetRegisters(), dev.GetTcpRxBuffer()) != 0) {
            QUVO_LOG(LOG_ERROR, "failed to initialize TCP function");
            return Fail();
        }
        // A new set-up each run, so its warn-once flags are fresh.
        std::optional<CExanicUdpFunc> udp;
        udp.emplace(config, &area, cache, *calcInfo, lastInstNo);
        if (udp->InitUdp(dev.GetRegisters(), dev.GetUdpRxBuffer()) != 0) {
            QUVO_LOG(LOG_ERROR, "failed to initialize UDP function");
            return Fail();
        }

        cacheArea.PauseMapping();
        dev.StartDecodeData();
        dev.StartOrigData();
        dev.StartAllIne();
        dev.StartAllShfe();
        tcp->StartRunning();
        health_phase(QUVO_PHASE_SNAPSHOT);
        const uint64_t snapshotStart = health_load(figures.process.phase_started_ns[QUVO_PHASE_SNAPSHOT]);
        std::thread decoder([&tcp] { tcp->RunTcpDecoder(); });

        // Snapshot phase: keep what the incremental feed sends meanwhile.
        while (Running(running) && tcp->GetInitialized() == 0) {
            udp->CachePacket();
        }
        tcp->StopRunning();
        decoder.join();
        cacheArea.MapInBackground();
        if (tcp->GetInitialized() == -1) {
            return Fail();  // the process is expected to end; nothing is released
        }
        if (tcp->GetInitialized() == 1) {
            const uint64_t took = health_wall_ns() - snapshotStart;
            health_add(figures.snapshot.completed);
            health_set(figures.snapshot.last_duration_ns, took);
            health_add(figures.snapshot.total_duration_ns, took);
        }

        dev.StopAllIne();
        dev.StopAllShfe();
        dev.StopOrigData();
        if (area.ine_inst_cnt > QUVO_INE_MAX_INST_CNT) {
            QUVO_LOG(LOG_ERROR, "too many instruments, ine: %d, limit: %d", area.ine_inst_cnt,
                     QUVO_INE_MAX_INST_CNT);
        }
        if (area.shfe_inst_cnt > QUVO_SHFE_MAX_INST_CNT) {
            QUVO_LOG(LOG_ERROR, "too many instruments, shfe: %d, limit: %d", area.shfe_inst_cnt,
                     QUVO_SHFE_MAX_INST_CNT);
        }

        // Replay: the first n updates come from frames cached before the
        // replay began and are deliberately not announced.
        health_phase(QUVO_PHASE_REPLAY);
        udp->PrefetchCalcInfo();
        const int cached = cache.cachedCount;
        QUVO_LOG(LOG_INFO, "process decode buffer %d frames", cached);
        int applied = 0;
        int result = 0;
        while (Running(running)) {
            if (cache.cachedCount < 1 || result == -1) {
                break;
            }
            udp->CachePacket();
            result = udp->ProcessCached();
            if (result == 1) {
                if (++applied > cached) {
                    ring.Publish(lastInstNo);
                    udp->AccountAnnounced(ring.GetWriteCount(), false);
                }
            } else if (result == -1) {
                udp->ClearCache();
            }
        }

        health_phase(QUVO_PHASE_LIVE);
        udp->PrefetchCalcInfo();
        CLiveFigures live(*udp, ring.GetWriteCount());
        while (Running(running) && result != -1) {
            result = live.Turn(ring, lastInstNo);
        }
        live.End(ring.GetWriteCount());
        dev.StopDecodeData();
        if (Running(running)) {
            const quvo_health_restart reason = udp->GetFatalReason();
            health_add(figures.restarts.by_reason[reason]);
            health_set(figures.restarts.last_reason, reason);
            health_set(figures.restarts.last_ns, health_wall_ns());
        }
        // Still running here means a fatal stream error: start over from the
        // configuration, keeping the card, the segments, the ring and the cache.
    }

    health_phase(QUVO_PHASE_STOPPING);
    dev.ReleaseDev();
    detach_shared_segments(segments);
    health_phase(QUVO_PHASE_STOPPED);
    detach_health();
    return 0;
}
