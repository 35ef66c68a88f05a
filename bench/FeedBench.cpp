// The whole feed, in this process, replaying a session written by quvo-sim at
// full speed: the time until the snapshot is requested and loaded, the
// records a second through the replay and live phases, and the resident size
// at the end; and a bare loop over the same records to read them against. A
// register tap timestamps the feed's own register writes, so nothing is added
// to the feed's loops but a counter behind the tap's one branch (the feed
// writes register 12 for every record).
#include <benchmark/benchmark.h>
#include <malloc.h>
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#else
#define VALGRIND_DO_ADDED_LEAK_CHECK
#endif
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "interface/quvohealth.h"
#include "src/ExanicMdImpl.h"
#include "src/api/Health.h"
#include "src/api/UpdateRing.h"
#include "src/dev/Card.h"
#include "src/dev/Registers.h"
#include "src/dev/soft/ReplayClock.h"
#include "src/udp/DecodedRecord.h"

namespace {

constexpr uint64_t kRecords = 1000000;
constexpr uint32_t kSampleEvery = 1024;

int g_running = 1;
void Stop(int) {
    __atomic_store_n(&g_running, 0, __ATOMIC_RELAXED);
}

class CTimingTap final : public CRegisterTap {
public:
    void OnRegisterRead(volatile uint32_t*, uint32_t, uint32_t) override {}
    void OnRegisterWrite(volatile uint32_t*, uint32_t index, uint32_t value) override {
        if (index == REG_HOST_TIMESTAMP) {
            if (++records % kSampleEvery == 0) {
                lastSampleNs = monotonic_ns();
                recordsAtSample = records;
                // The cache's replay ends where the live phase begins.
                if (liveNs == 0 && health_load(health().process.phase) == QUVO_PHASE_LIVE) {
                    liveNs = lastSampleNs;
                    recordsAtLive = records;
                }
            }
        } else if (index == REG_RESET && value == 1 && cardReadyNs == 0) {
            cardReadyNs = monotonic_ns();
        } else if (index == REG_ORIG_DATA && value == 1 && snapshotRequestedNs == 0) {
            snapshotRequestedNs = monotonic_ns();
        } else if (index == REG_ORIG_DATA && value == 0 && snapshotDoneNs == 0) {
            snapshotDoneNs = monotonic_ns();
            recordsAtSnapshot = records;
        }
    }
    uint64_t records = 0;
    uint64_t recordsAtSample = 0;
    uint64_t recordsAtSnapshot = 0;
    uint64_t recordsAtLive = 0;
    int64_t lastSampleNs = 0;
    int64_t cardReadyNs = 0;
    int64_t snapshotRequestedNs = 0;
    int64_t snapshotDoneNs = 0;
    int64_t liveNs = 0;
};

// One capture for every repetition, written by quvo-sim once.
const std::string& SessionDir() {
    static const std::string dir = [] {
        const char* given = getenv("QUVO_FEED_BENCH_DIR");
        std::string path = given != nullptr ? given : "/tmp/quvo-feed-bench";
        std::filesystem::create_directories(path + "/keys");
        std::ofstream(path + "/keys/key_f").close();
        std::ofstream(path + "/keys/key_e").close();
        if (!std::filesystem::exists(path + "/expect.json")) {
            const std::string command = std::string(QUVO_SIM_PATH) + " --records " +
                                        std::to_string(kRecords) + " --shfe 2000 --ine 500 --seed 1 --raw " +
                                        path + "/raw.pcap --decoded " + path + "/decoded.pcap --expect " +
                                        path + "/expect.json";
            if (system(command.c_str()) != 0) {
                fprintf(stderr, "quvo-sim failed: %s\n", command.c_str());
                exit(1);
            }
        }
        // feed-live.ini holds the records until the snapshot is loaded, so
        // that they all go through the live loop.
        for (const auto& [name, extra] : {std::pair{"feed.ini", ""}, std::pair{"feed-live.ini", ",hold=1"}}) {
            std::ofstream(path + "/" + name)
                << "[config]\ndevice = replay:raw=" << path << "/raw.pcap,decoded=" << path
                << "/decoded.pcap,exit=0.2" << extra
                << "\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\ncpucore = -1\nlog_level = 1\n";
        }
        setenv("QUVO_KEY_DIR", (path + "/keys").c_str(), 1);
        return path;
    }();
    return dir;
}

double Rate(uint64_t records, int64_t ns) {
    return ns > 0 ? static_cast<double>(records) / (static_cast<double>(ns) * 1e-9) : 0.0;
}

// VmRSS of this process, to see that repetitions do not grow it. Free heap
// memory is handed back first: the allocator keeps up to twice its largest
// recent block, which would read as growth.
double ResidentMegabytes() {
    malloc_trim(0);
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stod(line.substr(6)) / 1024.0;
        }
    }
    return 0.0;
}

void RemoveSegments(const std::string& dir) {
    for (const char* file : {"/keys/key_f", "/keys/key_e"}) {
        for (int project : {QUVO_SHM_PROJ_ID, QUVO_HEALTH_PROJ_ID}) {
            const int id = shmget(ftok((dir + file).c_str(), project), 0, 0);
            if (id >= 0) {
                shmctl(id, IPC_RMID, nullptr);
            }
        }
    }
}

void RunFeed(benchmark::State& state, const char* config) {
    const std::string& dir = SessionDir();
    signal(SIGINT, Stop);
    // One untimed run first, so that what the process keeps once is not read
    // as growth.
    static bool warm = false;
    if (!warm) {
        g_running = 1;
        quvo_recv((dir + "/" + config).c_str(), &g_running);
        warm = true;
    }
    for (auto _ : state) {
        const double residentBeforeMb = ResidentMegabytes();
        CTimingTap tap;
        g_registerTap.store(&tap, std::memory_order_relaxed);
        g_running = 1;
        const int64_t startNs = monotonic_ns();
        const std::string path = dir + "/" + config;
        // Under valgrind's memcheck, the blocks one run leaves behind; a
        // no-op otherwise.
        VALGRIND_DO_ADDED_LEAK_CHECK;
        const int result = quvo_recv(path.c_str(), &g_running);
        VALGRIND_DO_ADDED_LEAK_CHECK;
        g_registerTap.store(nullptr, std::memory_order_relaxed);
        // What one whole run leaves behind in this process, read before the
        // counters below take heap of their own.
        const double residentMb = ResidentMegabytes();
        if (result != 0 || tap.snapshotDoneNs == 0 || tap.lastSampleNs <= tap.snapshotDoneNs) {
            state.SkipWithError("the feed did not load the snapshot and apply records");
            break;
        }
        state.SetIterationTime(static_cast<double>(tap.snapshotDoneNs - startNs) * 1e-9);
        state.counters["snapshot_requested_ms_from_start"] =
            static_cast<double>(tap.snapshotRequestedNs - startNs) * 1e-6;
        state.counters["snapshot_ms_from_start"] = static_cast<double>(tap.snapshotDoneNs - startNs) * 1e-6;
        state.counters["snapshot_ms_from_card"] =
            static_cast<double>(tap.snapshotDoneNs - tap.cardReadyNs) * 1e-6;
        state.counters["records_before_snapshot"] = static_cast<double>(tap.recordsAtSnapshot);
        state.counters["records_after_snapshot"] =
            static_cast<double>(tap.recordsAtSample - tap.recordsAtSnapshot);
        state.counters["records_per_s"] =
            Rate(tap.recordsAtSample - tap.recordsAtSnapshot, tap.lastSampleNs - tap.snapshotDoneNs);
        // Cached while the snapshot loaded, then applied from the cache. At
        // full speed the replay caches a frame for each one it applies, so
        // it lasts until the card has nothing more and no record is live.
        if (tap.liveNs == 0) {
            tap.liveNs = tap.lastSampleNs;
            tap.recordsAtLive = tap.recordsAtSample;
        }
        state.counters["replay_records"] = static_cast<double>(tap.recordsAtLive - tap.recordsAtSnapshot);
        state.counters["replay_records_per_s"] =
            Rate(tap.recordsAtLive - tap.recordsAtSnapshot, tap.liveNs - tap.snapshotDoneNs);
        state.counters["live_records"] = static_cast<double>(tap.recordsAtSample - tap.recordsAtLive);
        state.counters["live_records_per_s"] =
            Rate(tap.recordsAtSample - tap.recordsAtLive, tap.lastSampleNs - tap.liveNs);
        state.counters["resident_mb_at_end"] = residentMb;
        state.counters["resident_mb_growth"] = residentMb - residentBeforeMb;
    }
    RemoveSegments(dir);
}

void BM_FeedReplay(benchmark::State& state) {
    RunFeed(state, "feed.ini");
}
BENCHMARK(BM_FeedReplay)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same session with the records held until the snapshot is loaded: the
// cache is empty and every record is read and applied in the live loop.
void BM_FeedLive(benchmark::State& state) {
    RunFeed(state, "feed-live.ini");
}
BENCHMARK(BM_FeedLive)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The bare loop the live phase is read against: the same decoded capture
// through the software card, each record's instrument touched and announced,
// nothing else (no change-number check, no book, no health figures).
void BM_FeedBareLoop(benchmark::State& state) {
    const std::string device = "replay:decoded=" + SessionDir() + "/decoded.pcap";
    auto area = std::make_unique<share>();
    std::vector<uint16_t> entries(QUVO_UPDATE_RING_ENTRIES);
    CUpdateRing ring(entries.data());
    for (auto _ : state) {
        CardHandle* handle = card_acquire_handle(device.c_str());
        CardRx* rx = handle != nullptr ? card_acquire_rx_buffer(handle, 0, 0) : nullptr;
        if (rx == nullptr) {
            state.SkipWithError(card_get_last_error());
            if (handle != nullptr) {
                card_release_handle(handle);
            }
            break;
        }
        reg_write(card_get_devkit_registers(handle), REG_DECODE_DATA, 1);
        ring.Reset();
        alignas(8) char frame[kDecodedFrameMaxLen + 64] = {};
        uint64_t records = 0;
        const int64_t startNs = monotonic_ns();
        for (;;) {
            const ssize_t n = card_receive_frame(rx, frame, kDecodedFrameMaxLen);
            if (n <= 0) {
                break;
            }
            MarketDataIncreField incre;
            memcpy(&incre, frame + sizeof(DecodeHeader), sizeof(incre));
            const uint32_t slot = incre.instrumentNo % QUVO_INST_SLOTS;
            area->instmts[slot].change_no = incre.changeNo;
            ring.Publish(slot);
            ++records;
        }
        const int64_t endNs = monotonic_ns();
        card_release_rx_buffer(rx);
        card_release_handle(handle);
        state.SetIterationTime(static_cast<double>(endNs - startNs) * 1e-9);
        state.counters["records"] = static_cast<double>(records);
        state.counters["records_per_s"] =
            static_cast<double>(records) / (static_cast<double>(endNs - startNs) * 1e-9);
    }
    benchmark::DoNotOptimize(area.get());
    benchmark::DoNotOptimize(entries.data());
}
BENCHMARK(BM_FeedBareLoop)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
