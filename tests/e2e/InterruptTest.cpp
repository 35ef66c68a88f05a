// quvo-md stopped by SIGINT at many points of each phase: while the card is
// configured, during the snapshot, during the replay of a large cache, live,
// and during a restart after a change-number gap. The simulator raises the
// signal itself at an exact event (interrupt=EVENT:N), so every point lands
// where it is aimed in every build. Each time the feed must stop through its
// normal path: exit status 0 (a leak found under the sanitizers makes it
// non-zero), the handler's line, the card released (the simulator writes its
// expected state then) and both segments detached.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "interface/quvoreader.h"
#include "sim/SimState.h"
#include "tests/support/BookCheck.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogLines.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

// Generous: under the sanitizers every run is several times slower.
constexpr double kTimeoutSeconds = 60;

// The simulator's line saying where it raised the signal, with what it had
// seen of the feed by then.
struct interrupt_report {
    std::string event;
    uint64_t count = 0;
    uint64_t writes = 0;
    uint64_t snapshots = 0;
    uint64_t raw = 0;
    uint64_t decoded = 0;
};

bool parse_report(const std::string& log, interrupt_report& report) {
    const std::string prefix = "simulator: interrupt at ";
    const size_t at = log.find(prefix);
    if (at == std::string::npos || log.find(prefix, at + 1) != std::string::npos) {
        return false;
    }
    char event[32] = {};
    const int fields =
        sscanf(log.c_str() + at + prefix.size(),
               "%31s %" SCNu64 ": %" SCNu64 " register writes, %" SCNu64 " snapshots, %" SCNu64
               " raw frames, %" SCNu64 " decoded frames",
               event, &report.count, &report.writes, &report.snapshots, &report.raw, &report.decoded);
    report.event = event;
    return fields == 6;
}

// What a stopped feed left behind.
struct stop_result {
    bool stopped = false;  // through the normal path, as checked by Interrupt()
    std::string log;
    interrupt_report report;
    SimState expected;
    int cached = -1;  // "process decode buffer N frames"; -1 when the replay was not reached
    size_t announced = 0;
    // Announced slots holding no instrument, and the like; a restart's
    // snapshot clears the area under the first run's announcements.
    std::vector<std::string> ringProblems;
    size_t inUse = 0;                      // instruments in use in the area
    std::vector<std::string> differences;  // the books against the expected state
};

class InterruptE2E : public ::testing::Test {
protected:
    // Runs the feed on the simulated `market` until the simulator interrupts it
    // at `interrupt` (EVENT:N), and checks that it stopped normally.
    stop_result Interrupt(const std::string& market, const std::string& interrupt) {
        SCOPED_TRACE("sim:" + market + ",interrupt=" + interrupt);
        stop_result result;
        CShmSandbox shm;
        CTempDir dir;
        const std::string expect = dir.Path() + "/expect.json";
        const std::string config = dir.WriteFile(
            "feed.ini", "[config]\ndevice = sim:" + market + ",interrupt=" + interrupt + ",expect=" + expect +
                            "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        const std::string output = dir.Path() + "/feed.out";
        int status = -1;
        {
            CChildProcess feed({QUVO_MD_PATH, config}, dir.Path(), output);
            const bool ended = feed.Wait(kTimeoutSeconds, status);
            result.log = read_file(output);
            if (!ended) {
                ADD_FAILURE() << "the feed did not stop within " << kTimeoutSeconds << " s\n" << result.log;
                return result;
            }
        }
        bool normal = status == 0;
        EXPECT_EQ(status, 0) << result.log;
        const bool reported =
            parse_report(result.log, result.report) &&
            result.report.event == interrupt.substr(0, interrupt.find(':')) &&
            std::to_string(result.report.count) == interrupt.substr(interrupt.find(':') + 1);
        EXPECT_TRUE(reported) << "not one interrupt line for " << interrupt << "\n" << result.log;
        normal = normal && reported;
        const size_t handled = count_of(result.log, "received Ctrl + C signal in api.\n");
        EXPECT_EQ(handled, 1u) << result.log;
        normal = normal && handled == 1;
        for (const LogLine& line : parse_log_lines(result.log)) {
            // A gap is the one error a restart scenario brings.
            const bool expected = line.label != "[E]" || line.message.rfind("discontinuous changeNo", 0) == 0;
            EXPECT_TRUE(expected) << line.function << ": " << line.message;
            normal = normal && expected;
        }
        // The card's release makes the simulator write its expected state.
        std::string error;
        const bool released = read_sim_state(expect, result.expected, error);
        EXPECT_TRUE(released) << "the card was not released: " << error << "\n" << result.log;
        normal = normal && released;
        for (const std::string& key : {shm.RingKeyPath(), shm.AreaKeyPath()}) {
            EXPECT_EQ(CShmSandbox::AttachCount(key), 0) << key;
            normal = normal && CShmSandbox::AttachCount(key) == 0;
        }
        const size_t replay = result.log.find("process decode buffer ");
        if (replay != std::string::npos) {
            result.cached = atoi(result.log.c_str() + replay + strlen("process decode buffer "));
        }
        CQuvoReader reader;
        if (reader.Attach(error)) {
            result.inUse = reader.ListSlots().size();
            result.ringProblems = check_ring(reader.Ring(), *reader.Area(), result.announced);
            if (released) {
                result.differences = compare_books(*reader.Area(), result.expected, SubscriptionRules{});
            }
        } else {
            ADD_FAILURE() << error;
            normal = false;
        }
        result.stopped = normal;
        return result;
    }

    static std::string Point(const char* event, uint64_t n) {
        return std::string(event) + ":" + std::to_string(n);
    }
};

// The market of the set-up and snapshot points: 200 warm-up records come
// between the feed's request for the snapshot and the snapshot.
const std::string kMarket = "shfe=200,ine=40,rate=20000,seed=5,warmup=200";

TEST_F(InterruptE2E, WhileTheCardIsConfigured) {
    // The feed asks for the snapshot after its last register write of the set-up.
    const stop_result probe = Interrupt(kMarket, "snapshot:1");
    ASSERT_TRUE(probe.stopped);
    const uint64_t setUp = probe.report.writes;
    ASSERT_GT(setUp, 4u);
    // The first writes (reset), the instrument tables, the streams turned on.
    for (const uint64_t n : {uint64_t{1}, uint64_t{2}, setUp / 4, setUp / 2, setUp - 3, setUp - 1, setUp}) {
        SCOPED_TRACE("write " + std::to_string(n));
        const stop_result run = Interrupt(kMarket, Point("write", n));
        EXPECT_EQ(run.report.snapshots, 0u);
        EXPECT_EQ(run.report.decoded, 0u);
        EXPECT_EQ(run.expected.snapshots, 0u);
        EXPECT_EQ(run.expected.records, 0u);
        EXPECT_EQ(run.inUse, 0u);
        EXPECT_EQ(run.announced, 0u);
        EXPECT_EQ(run.ringProblems, std::vector<std::string>{});
        EXPECT_EQ(count_of(run.log, "init finished"), 0u);
    }
}

TEST_F(InterruptE2E, DuringTheSnapshot) {
    const uint64_t warmup = 200;
    // Before any segment: taken once the warm-up records were sent.
    const stop_result taken = Interrupt(kMarket, "snapshot:1");
    ASSERT_TRUE(taken.stopped);
    EXPECT_EQ(taken.report.raw, 0u);
    EXPECT_EQ(taken.report.decoded, warmup);
    EXPECT_EQ(taken.expected.snapshots, 1u);
    const uint64_t setUp = taken.report.writes;

    // Just after: the snapshot loaded, the raw stream off, the replay's first poll.
    const stop_result loaded = Interrupt(kMarket, "after_snapshot:1");
    ASSERT_TRUE(loaded.stopped);
    EXPECT_EQ(count_of(loaded.log, "initialization completed"), 1u) << loaded.log;
    EXPECT_GE(loaded.cached, static_cast<int>(warmup));
    const uint64_t segments = loaded.report.raw;
    const uint64_t loadedWrites = loaded.report.writes;
    ASSERT_GE(segments, 4u);
    ASSERT_GT(loadedWrites, setUp + 3);

    struct Case {
        std::string interrupt;
        uint64_t snapshots;  // taken by the simulator when the signal came
    };
    const std::vector<Case> cases = {
        // Asked for, not yet sent: the incremental records keep coming.
        {"decoded:1", 0},
        {Point("decoded", warmup), 0},
        // The segments: first, second, middle, last but one, last.
        {"raw:1", 1},
        {"raw:2", 1},
        {Point("raw", segments / 2), 1},
        {Point("raw", segments - 1), 1},
        {Point("raw", segments), 1},
        // The first instrument the decoder subscribes.
        {Point("write", setUp + 1), 1},
        // The exchanges' feeds and the raw stream turned off once it is loaded.
        {Point("write", loadedWrites - 2), 1},
        {Point("write", loadedWrites), 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.interrupt);
        const stop_result run = Interrupt(kMarket, c.interrupt);
        EXPECT_EQ(run.report.snapshots, c.snapshots);
        EXPECT_EQ(run.expected.snapshots, c.snapshots);
        EXPECT_LE(run.report.raw, segments);
        EXPECT_EQ(run.announced, 0u);
        EXPECT_EQ(run.ringProblems, std::vector<std::string>{});
        EXPECT_EQ(count_of(run.log, "discontinuous changeNo"), 0u);
    }
}

TEST_F(InterruptE2E, DuringTheReplayOfALargeCache) {
    // Records as fast as they are read: every pass of the replay caches one
    // as it applies one, so the replay never drains and every decoded frame
    // after the snapshot comes in its loop. The warm-up makes the cache hold
    // at least that many frames whatever the speed of the snapshot.
    const uint64_t warmup = 5000;
    const std::string market = "shfe=300,ine=60,rate=0,seed=9,warmup=" + std::to_string(warmup);
    for (const uint64_t n : {uint64_t{1}, uint64_t{2}, warmup / 2, warmup}) {
        SCOPED_TRACE("replay pass " + std::to_string(n));
        const stop_result run = Interrupt(market, Point("after_snapshot", n));
        EXPECT_EQ(count_of(run.log, "initialization completed"), 1u) << run.log;
        EXPECT_GE(run.cached, static_cast<int>(warmup));
        // Only cached frames were applied: none is announced.
        EXPECT_EQ(run.announced, 0u);
        EXPECT_EQ(run.ringProblems, std::vector<std::string>{});
        EXPECT_EQ(run.report.snapshots, 1u);
        EXPECT_GT(run.inUse, 0u);
    }
}

TEST_F(InterruptE2E, LiveAtSeveralRecordCounts) {
    const std::string market = "shfe=100,ine=20,rate=20000,seed=7";
    // Well past the replay, even of a cache that grew while the feed was held
    // up: the simulator catches up by at most 1000 records at once.
    for (const uint64_t n : {uint64_t{2500}, uint64_t{6000}, uint64_t{12000}}) {
        const stop_result run = Interrupt(market, Point("after_snapshot", n));
        SCOPED_TRACE(std::to_string(n) + " records after the snapshot, " + std::to_string(run.cached) +
                     " cached before");
        // Every record delivered was applied, the last one included: the
        // replay was over and the feed was live.
        EXPECT_TRUE(run.differences.empty())
            << run.differences.size() << " differences, first: " << run.differences.front();
        EXPECT_EQ(run.announced, n);
        EXPECT_EQ(run.ringProblems, std::vector<std::string>{});
        EXPECT_EQ(run.report.snapshots, 1u);
        EXPECT_EQ(run.expected.records, run.report.decoded);
    }
}

TEST_F(InterruptE2E, DuringARestartAfterAGap) {
    const std::string market = "shfe=200,ine=40,rate=20000,seed=5,gap=0.001";
    const stop_result first = Interrupt(market, "snapshot:1");
    ASSERT_TRUE(first.stopped);
    const uint64_t setUp = first.report.writes;
    // The restart asks for a second snapshot once it has set the card up again.
    const stop_result second = Interrupt(market, "snapshot:2");
    ASSERT_TRUE(second.stopped);
    EXPECT_EQ(count_of(second.log, "discontinuous changeNo"), 1u) << second.log;
    const uint64_t restarted = second.report.writes;
    const uint64_t segments = second.report.raw;
    ASSERT_GT(restarted, 2 * setUp);
    ASSERT_GE(segments, 4u);

    struct Case {
        std::string interrupt;
        uint64_t snapshots;
    };
    // The restart's set-up makes the same writes as the first run's. The ring
    // is not checked: it keeps the first run's announcements, of slots the
    // second snapshot clears as it starts.
    const std::vector<Case> cases = {
        // The decoded stream stopped after the gap, then the set-up again.
        {Point("write", restarted - setUp), 1},
        {Point("write", restarted - setUp + 1), 1},
        {Point("write", restarted - setUp / 2), 1},
        {Point("write", restarted), 1},
        // The second snapshot's segments.
        {Point("raw", segments + 1), 2},
        {Point("raw", segments + segments / 2), 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.interrupt);
        const stop_result run = Interrupt(market, c.interrupt);
        EXPECT_EQ(count_of(run.log, "discontinuous changeNo"), 1u) << run.log;
        EXPECT_EQ(run.report.snapshots, c.snapshots);
        EXPECT_EQ(run.expected.snapshots, c.snapshots);
    }
}

}  // namespace
