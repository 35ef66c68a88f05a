// A reader's cost per update: one ring step (CRingFollower::Next) and one
// consistent copy of the announced record, apart and together. The ring holds
// 65535 announcements written by the feed's own publisher; each iteration
// follows all of them, so the figures are per announcement.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "interface/quvoreader.h"
#include "src/api/UpdateRing.h"

namespace {

constexpr uint32_t kAnnouncements = QUVO_UPDATE_RING_ENTRIES - 1;

struct CRingFixture {
    // Announcements of `instruments` slots spread over the whole area, in a
    // seeded random order: 1000 fit in the second-level cache, 20480 do not.
    explicit CRingFixture(uint32_t instruments)
        : area(new share()), entries(QUVO_UPDATE_RING_ENTRIES), fromStart(_Fresh(entries)) {
        CUpdateRing ring(entries.data());
        std::vector<uint32_t> slots;
        for (uint32_t n = 0; n < instruments; ++n) {
            slots.push_back(n * (QUVO_INST_SLOTS / instruments));
        }
        for (uint32_t slot : slots) {
            instrument& inst = area->instmts[slot];
            memcpy(inst.inst_id, "cu2501", 6);
            for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
                inst.bid_px[k] = 72000.0 - 10 * k;
                inst.bid_vol[k] = k + 1;
                inst.ask_px[k] = 72010.0 + 10 * k;
                inst.ask_vol[k] = k + 1;
            }
        }
        std::mt19937 random(7);
        for (uint32_t n = 0; n < kAnnouncements; ++n) {
            ring.Publish(slots[random() % slots.size()]);
        }
    }

    std::unique_ptr<share> area;
    std::vector<uint16_t> entries;
    // Made on the fresh ring, so it starts at entry 0.
    CRingFollower fromStart;

private:
    static CRingFollower _Fresh(std::vector<uint16_t>& entries) {
        CUpdateRing(entries.data()).Reset();
        return CRingFollower(entries.data());
    }
};

// Each iteration follows the ring from entry 0 to the end marker.
template <typename OnSlot>
void follow_ring(benchmark::State& state, CRingFixture& fixture, OnSlot&& onSlot) {
    for (auto _ : state) {
        CRingFollower follower = fixture.fromStart;
        uint16_t slot;
        while (follower.Next(slot)) {
            onSlot(slot);
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kAnnouncements);
}

void BM_RingStep(benchmark::State& state) {
    CRingFixture fixture(static_cast<uint32_t>(state.range(0)));
    uint32_t sum = 0;
    follow_ring(state, fixture, [&](uint16_t slot) { sum += slot; });
    benchmark::DoNotOptimize(sum);
}
BENCHMARK(BM_RingStep)->Arg(1000);

void BM_RingStepAndConsistentCopy(benchmark::State& state) {
    CRingFixture fixture(static_cast<uint32_t>(state.range(0)));
    instrument copy;
    uint32_t agreed = 0;
    follow_ring(state, fixture, [&](uint16_t slot) {
        agreed += quvo_copy_consistent(fixture.area->instmts[slot], copy) ? 1 : 0;
        benchmark::DoNotOptimize(copy);
    });
    state.counters["agreed"] =
        benchmark::Counter(static_cast<double>(agreed) / kAnnouncements, benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_RingStepAndConsistentCopy)->Arg(1000)->Arg(QUVO_INST_SLOTS);

// The plain copy a reader without the consistency check would make.
void BM_RingStepAndSingleCopy(benchmark::State& state) {
    CRingFixture fixture(static_cast<uint32_t>(state.range(0)));
    instrument copy;
    follow_ring(state, fixture, [&](uint16_t slot) {
        quvo_copy_record(fixture.area->instmts[slot], copy);
        benchmark::DoNotOptimize(copy);
    });
}
BENCHMARK(BM_RingStepAndSingleCopy)->Arg(1000)->Arg(QUVO_INST_SLOTS);

// A writer thread updates and announces records as fast as it can while the
// reader follows, so each record comes from the other core's cache. The
// writer outruns the reader and laps it; the figure is the reader's cost per
// announcement taken, waiting included.
void BM_FollowLiveWriter(benchmark::State& state) {
    auto area = std::make_unique<share>();
    std::vector<uint16_t> entries(QUVO_UPDATE_RING_ENTRIES);
    CUpdateRing ring(entries.data());
    ring.Reset();
    constexpr uint32_t kSlots = 1000;
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
        memcpy(area->instmts[slot].inst_id, "cu2501", 6);
    }
    std::atomic<bool> stop{false};
    CRingFollower follower(entries.data());
    std::thread writer([&] {
        uint32_t n = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            const uint32_t slot = n++ % kSlots;
            instrument& inst = area->instmts[slot];
            ++inst.change_no;
            inst.bid_vol[0] = static_cast<int32_t>(n);
            ring.Publish(slot);
        }
    });
    instrument copy;
    int64_t taken = 0;
    for (auto _ : state) {
        uint16_t slot;
        while (!follower.Next(slot)) {
        }
        quvo_copy_consistent(area->instmts[slot], copy);
        benchmark::DoNotOptimize(copy);
        ++taken;
    }
    stop = true;
    writer.join();
    state.SetItemsProcessed(taken);
}
BENCHMARK(BM_FollowLiveWriter)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
