// quvo-md as a process, on the built-in simulator and on captures written by
// quvo-sim: after it stops, the books in shared memory must equal the
// simulator's expected state.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <string>
#include <vector>

#include "interface/quvoreader.h"
#include "sim/SimState.h"
#include "tests/support/BookCheck.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/LogLines.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

constexpr double kRunSeconds = 120;

class FeedE2E : public ::testing::Test {
protected:
    std::string Config(const std::string& device, const std::string& extra) {
        return m_dir.WriteFile("feed.ini", "[config]\ndevice = " + device + "\ncpucore = -1\n" + extra);
    }

    // Runs the feed to its end; returns its log (the copy on standard output).
    std::string RunFeed(const std::string& config, int expectedStatus = 0) {
        const std::string output = m_dir.Path() + "/feed.out";
        const int status = run_program({QUVO_MD_PATH, config}, m_dir.Path(), output, kRunSeconds);
        EXPECT_EQ(status, expectedStatus) << read_file(output);
        return read_file(output);
    }

    void Simulate(const std::vector<std::string>& args) {
        std::vector<std::string> argv = {QUVO_SIM_PATH,
                                         "--raw",
                                         m_dir.Path() + "/raw.pcap",
                                         "--decoded",
                                         m_dir.Path() + "/decoded.pcap",
                                         "--expect",
                                         m_dir.Path() + "/expect.json",
                                         "--quiet"};
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string output = m_dir.Path() + "/sim.out";
        ASSERT_EQ(run_program(argv, m_dir.Path(), output, kRunSeconds), 0) << read_file(output);
    }
    std::string ReplayDevice(const std::string& extra = "") {
        return "replay:raw=" + m_dir.Path() + "/raw.pcap,decoded=" + m_dir.Path() + "/decoded.pcap,exit=0.5" +
               extra;
    }
    std::string ExpectPath() const { return m_dir.Path() + "/expect.json"; }

    // The books, the counts and the ring against the expected state.
    void CheckBooks(const SubscriptionRules& rules, size_t minAnnounced = 1) {
        SimState expected;
        std::string error;
        ASSERT_TRUE(read_sim_state(ExpectPath(), expected, error)) << error;
        CQuvoReader reader;
        ASSERT_TRUE(reader.Attach(error)) << error;
        size_t subscribed = 0;
        for (const SimInstrumentState& inst : expected.instruments) {
            subscribed += expect_subscribed(inst, rules) ? 1 : 0;
        }
        EXPECT_GT(subscribed, 0u);
        const std::vector<std::string> differences = compare_books(*reader.Area(), expected, rules);
        EXPECT_TRUE(differences.empty())
            << differences.size() << " differences, first: " << differences.front();
        size_t announced = 0;
        const std::vector<std::string> ring = check_ring(reader.Ring(), *reader.Area(), announced);
        EXPECT_TRUE(ring.empty()) << ring.front();
        EXPECT_GE(announced, minAnnounced);
        EXPECT_LE(announced, expected.records);
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
};

TEST_F(FeedE2E, ShfeOnlyOnTheSimulator) {
    const std::string config =
        Config("sim:shfe=300,ine=40,rate=50000,records=20000,seed=7,exit=0.3,expect=" + ExpectPath(),
               "insts = all\nshfe2ps = enabled\n");
    const std::string log = RunFeed(config);
    EXPECT_EQ(count_of(log, "shfe2ps init finished"), 1u) << log;
    EXPECT_EQ(count_of(log, "ine2ps init finished"), 0u);
    EXPECT_EQ(count_of(log, "initialization completed"), 1u);
    EXPECT_EQ(count_of(log, "process decode buffer"), 1u);
    EXPECT_EQ(count_of(log, "received Ctrl + C signal in api."), 1u);
    SubscriptionRules rules;
    rules.ine = false;
    CheckBooks(rules, 1000);
}

TEST_F(FeedE2E, ShfeAndIneOnTheSimulator) {
    const std::string config =
        Config("sim:shfe=250,ine=120,rate=50000,records=20000,seed=11,exit=0.3,expect=" + ExpectPath(),
               "insts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    const std::string log = RunFeed(config);
    EXPECT_EQ(count_of(log, "shfe2ps init finished"), 1u) << log;
    EXPECT_EQ(count_of(log, "ine2ps init finished"), 1u);
    EXPECT_EQ(count_of(log, "initialization completed"), 1u);
    CheckBooks(SubscriptionRules{}, 1000);
}

TEST_F(FeedE2E, ProductPrefixAndSixCharacterList) {
    const std::string config =
        Config("sim:shfe=300,ine=100,rate=50000,records=20000,seed=5,exit=0.3,expect=" + ExpectPath(),
               "insts = cu, sc,al2502 ,ag2503\nshfe2ps = enabled\nine2ps = enabled\n");
    RunFeed(config);
    SubscriptionRules rules;
    rules.all = false;
    rules.insts = {"cu", "sc", "al2502", "ag2503"};
    CheckBooks(rules, 100);
}

TEST_F(FeedE2E, OptionsNotReceived) {
    const std::string config =
        Config("sim:shfe=300,ine=60,rate=50000,records=20000,seed=3,exit=0.3,expect=" + ExpectPath(),
               "insts = all\noptions = norecv\nshfe2ps = enabled\nine2ps = enabled\n");
    RunFeed(config);
    SubscriptionRules rules;
    rules.options = false;
    CheckBooks(rules, 1000);
}

TEST_F(FeedE2E, SnapshotOverFaultyTcp) {
    const std::string config = Config(
        "sim:shfe=400,ine=100,rate=50000,records=20000,seed=21,exit=0.3,tcp_reorder=0.05,tcp_duplicate=0.05,"
        "tcp_loss=0.05,tcp_bad_checksum=0.05,tcp_padding=0.1,tcp_other=0.05,tcp_reset=1,expect=" +
            ExpectPath(),
        "insts = all\nshfe2ps = enabled\nine2ps = enabled\nlog_level = 15\n");
    const std::string log = RunFeed(config);
    // The reset started the snapshot over, so a feed finished more than once.
    EXPECT_GE(count_of(log, "init finished"), 3u) << log;
    EXPECT_GE(count_of(log, "tcp checksum is not correct"), 1u);
    EXPECT_EQ(count_of(log, "initialization completed"), 1u);
    CheckBooks(SubscriptionRules{}, 1000);
}

TEST_F(FeedE2E, RecordFaultsLeaveTheBooksRight) {
    const std::string config = Config(
        "sim:shfe=200,ine=50,rate=50000,records=20000,seed=8,exit=0.3,stale=0.02,crossed=0.02,unknown_field="
        "0.01,"
        "short_record=0.01,bad_length=0.01,expect=" +
            ExpectPath(),
        "insts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    const std::string log = RunFeed(config);
    EXPECT_GE(count_of(log, "abnormal process fieldID"), 1u) << log;
    EXPECT_EQ(count_of(log, "discontinuous changeNo"), 0u);
    EXPECT_EQ(count_of(log, "start initialization"), 1u);
    CheckBooks(SubscriptionRules{}, 1000);
}

TEST_F(FeedE2E, ChangeNumberGapRestartsAndRecovers) {
    const std::string config = Config(
        "sim:shfe=200,ine=50,rate=50000,records=20000,seed=13,exit=0.5,gap=0.0002,expect=" + ExpectPath(),
        "insts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    const std::string log = RunFeed(config);
    const size_t gaps = count_of(log, "discontinuous changeNo");
    EXPECT_GE(gaps, 1u) << log;
    // Every gap starts a new run with a fresh snapshot.
    EXPECT_EQ(count_of(log, "start initialization"), gaps + 1);
    EXPECT_EQ(count_of(log, "initialization completed"), gaps + 1);
    CheckBooks(SubscriptionRules{}, 1000);
}

TEST_F(FeedE2E, ReplayOfSimulatedCaptures) {
    Simulate({"--records=40000", "--warmup=2000", "--shfe=300", "--ine=80", "--seed=17"});
    const std::string log =
        RunFeed(Config(ReplayDevice(",speed=5"), "insts = all\nshfe2ps = enabled\nine2ps = enabled\n"));
    EXPECT_EQ(count_of(log, "initialization completed"), 1u) << log;
    CheckBooks(SubscriptionRules{}, 1000);
}

// At full speed the whole capture may be cached while the snapshot loads, so
// nothing need be announced; the books must be right all the same.
TEST_F(FeedE2E, ReplayWithRecordAndTcpFaults) {
    Simulate({"--records=30000", "--shfe=200", "--ine=60", "--seed=23", "--stale=0.02", "--crossed=0.02",
              "--unknown_field=0.01", "--short_record=0.01", "--bad_length=0.01", "--tcp_reorder=0.05",
              "--tcp_loss=0.05", "--tcp_duplicate=0.05", "--tcp_other=0.05", "--tcp_padding=0.1"});
    const std::string log =
        RunFeed(Config(ReplayDevice(), "insts = all\nshfe2ps = enabled\nine2ps = enabled\n"));
    EXPECT_EQ(count_of(log, "initialization completed"), 1u) << log;
    CheckBooks(SubscriptionRules{}, 0);
}

// Held until the snapshot is loaded, the records find the cache empty and are
// all applied live, each one announced.
TEST_F(FeedE2E, ReplayHeldUntilTheSnapshotIsAppliedLive) {
    Simulate({"--records=30000", "--shfe=200", "--ine=60", "--seed=31"});
    const std::string log =
        RunFeed(Config(ReplayDevice(",hold=1"), "insts = all\nshfe2ps = enabled\nine2ps = enabled\n"));
    EXPECT_EQ(count_of(log, "initialization completed"), 1u) << log;
    EXPECT_EQ(count_of(log, "process decode buffer 0 frames"), 1u) << log;
    CheckBooks(SubscriptionRules{}, 10000);
}

// The software card's figures as quvo-md leaves them: one line per port.
class SoftCardStats {
public:
    explicit SoftCardStats(const std::string& path) : m_path(path) {
        setenv("QUVO_SOFT_CARD_STATS", path.c_str(), 1);
    }
    ~SoftCardStats() { unsetenv("QUVO_SOFT_CARD_STATS"); }

    // The value of `key` on port `port`'s line, or "" when it is absent.
    std::string Get(int port, const std::string& key) const {
        for (const std::string& line : split_lines(read_file(m_path))) {
            if (line.rfind("port=" + std::to_string(port) + " ", 0) != 0) {
                continue;
            }
            for (const std::string& word : words(line)) {
                if (word.rfind(key + "=", 0) == 0) {
                    return word.substr(key.size() + 1);
                }
            }
        }
        return "";
    }

private:
    std::string m_path;
};

// In the card build every frame of a software card is written into a ring
// laid out as the card's DMA buffer and read by the card library: its reader
// ends where the writer ends, which only exanic_receive_frame can bring about.
// Without the library the software card hands frames over itself.
void ExpectDeliveryOfTheBuild(const SoftCardStats& stats) {
    for (int port = 0; port < 2; ++port) {
        SCOPED_TRACE("port " + std::to_string(port));
        EXPECT_EQ(stats.Get(port, "delivery"), QUVO_HAVE_EXANIC ? "ring" : "direct");
        EXPECT_GT(std::stoull(stats.Get(port, "frames")), 0u);
        EXPECT_GE(std::stoull(stats.Get(port, "chunks")), std::stoull(stats.Get(port, "frames")));
#if QUVO_HAVE_EXANIC
        EXPECT_EQ(stats.Get(port, "reader"), stats.Get(port, "writer"));
        EXPECT_NE(stats.Get(port, "reader"), "0/0");
#else
        EXPECT_EQ(stats.Get(port, "reader"), "");
#endif
    }
}

TEST_F(FeedE2E, SimulatorFramesGoThroughTheBuildsReceivePath) {
    const SoftCardStats stats(m_dir.Path() + "/card.stats");
    RunFeed(Config("sim:shfe=100,ine=20,rate=50000,records=5000,seed=9,exit=0.3,expect=" + ExpectPath(),
                   "insts = all\nshfe2ps = enabled\nine2ps = enabled\n"));
    ExpectDeliveryOfTheBuild(stats);
    CheckBooks(SubscriptionRules{}, 100);
}

TEST_F(FeedE2E, ReplayedFramesGoThroughTheBuildsReceivePath) {
    Simulate({"--records=5000", "--shfe=100", "--ine=20", "--seed=19"});
    const SoftCardStats stats(m_dir.Path() + "/card.stats");
    RunFeed(Config(ReplayDevice(), "insts = all\nshfe2ps = enabled\nine2ps = enabled\n"));
    ExpectDeliveryOfTheBuild(stats);
    CheckBooks(SubscriptionRules{}, 0);
}

#if QUVO_HAVE_EXANIC
// The same session through the card library's ring and through the direct
// hand-over: the feed must write the same books and report the same faults.
TEST_F(FeedE2E, RingAndDirectDeliveryLeaveTheSameBooks) {
    Simulate({"--records=30000", "--shfe=200", "--ine=60", "--seed=29", "--stale=0.02", "--crossed=0.02",
              "--unknown_field=0.01", "--short_record=0.01", "--bad_length=0.01", "--tcp_reorder=0.05",
              "--tcp_loss=0.05", "--tcp_duplicate=0.05", "--tcp_other=0.05", "--tcp_padding=0.1"});
    const std::string config = Config(ReplayDevice(), "insts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    std::vector<std::vector<char>> areas;
    std::vector<std::vector<std::string>> faults;
    for (const char* delivery : {"direct", "ring"}) {
        SCOPED_TRACE(delivery);
        const SoftCardStats stats(m_dir.Path() + "/card.stats");
        setenv("QUVO_SOFT_CARD_RX", delivery, 1);
        const std::string log = RunFeed(config);
        unsetenv("QUVO_SOFT_CARD_RX");
        EXPECT_EQ(stats.Get(0, "delivery"), delivery);
        CQuvoReader reader;
        std::string error;
        ASSERT_TRUE(reader.Attach(error)) << error;
        const char* area = reinterpret_cast<const char*>(reader.Area());
        areas.emplace_back(area, area + sizeof(share));
        std::vector<std::string> lines;
        for (const LogLine& line : parse_log_lines(log)) {
            if (line.label == "[E]" || line.label == "[W]") {
                lines.push_back(line.function + ": " + line.message);
            }
        }
        // Two threads log; only the multiset of lines is the same in every run.
        std::sort(lines.begin(), lines.end());
        faults.push_back(lines);
    }
    EXPECT_TRUE(areas[0] == areas[1]) << "the books differ";
    EXPECT_EQ(faults[0], faults[1]);
    EXPECT_FALSE(faults[0].empty());
    CheckBooks(SubscriptionRules{}, 0);
}
#endif

TEST_F(FeedE2E, InterruptDuringTheSnapshot) {
    // INE is enabled but the simulator has no INE, so the snapshot never ends.
    const std::string config =
        Config("sim:shfe=100,ine=0,rate=1000", "insts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    const std::string output = m_dir.Path() + "/feed.out";
    CChildProcess feed({QUVO_MD_PATH, config}, m_dir.Path(), output);
    ASSERT_TRUE(wait_for_text(output, "shfe2ps init finished", 10, 2)) << read_file(output);
    feed.Signal(SIGINT);
    int status = -1;
    ASSERT_TRUE(feed.Wait(30, status));
    EXPECT_EQ(status, 0);
    const std::string log = read_file(output);
    EXPECT_EQ(count_of(log, "received Ctrl + C signal in api."), 1u);
    EXPECT_EQ(count_of(log, "initialization completed"), 0u);
    EXPECT_EQ(count_of(log, "too many initialization failures"), 0u);
    // The run went on through the replay, which ended at once, and stopped.
    EXPECT_EQ(count_of(log, "process decode buffer"), 1u);
    // Both segments were detached: no process holds them any more.
    EXPECT_EQ(CShmSandbox::AttachCount(m_shm.AreaKeyPath()), 0);
    EXPECT_EQ(CShmSandbox::AttachCount(m_shm.RingKeyPath()), 0);
}

TEST_F(FeedE2E, NoFeedEnabled) {
    const std::string log = RunFeed(Config("sim", "insts = all\n"));
    const std::vector<std::string> errors = log_messages(log, "[E]", "quvo_recv");
    ASSERT_EQ(errors.size(), 1u) << log;
    EXPECT_EQ(errors[0], "all SHFE and INE are disabled");
}

TEST_F(FeedE2E, UnreadableConfiguration) {
    const std::string log = RunFeed(m_dir.Path() + "/missing.ini");
    EXPECT_EQ(log_messages(log, "[E]", "quvo_recv"),
              std::vector<std::string>{"failed to initialize config data"})
        << log;
    EXPECT_EQ(count_of(log, "unable to open config file: " + m_dir.Path() + "/missing.ini"), 1u);
}

TEST_F(FeedE2E, MissingReplayFile) {
    const std::string missing = m_dir.Path() + "/nowhere.pcap";
    const std::string log =
        RunFeed(Config("replay:raw=" + missing + ",exit=0.2", "insts = all\nshfe2ps = enabled\n"));
    EXPECT_EQ(log_messages(log, "[E]", "quvo_recv"),
              std::vector<std::string>{"failed to initialize network device"})
        << log;
    EXPECT_NE(log.find("cannot open capture " + missing), std::string::npos) << log;
}

TEST(FeedUsage, WrongArgumentCount) {
    CTempDir dir;
    const std::string output = dir.Path() + "/out";
    EXPECT_EQ(run_program({QUVO_MD_PATH}, dir.Path(), output, 30), 255);
    EXPECT_EQ(read_file(output), std::string("Usage: ") + QUVO_MD_PATH + " config.ini\n");
}

}  // namespace
