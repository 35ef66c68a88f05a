// quvo-md's command line around the feed: --help, --version and --check touch
// nothing, a second feed on the same key files is refused while the first
// runs, a killed feed's successor starts normally, and SIGTERM stops the feed
// as SIGINT does.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "sim/SimState.h"
#include "tests/support/BookCheck.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

constexpr double kTimeoutSeconds = 60;

// Both segments' bytes.
std::string segment_bytes(const std::string& keyPath) {
    const int id = CShmSandbox::SegmentId(keyPath);
    if (id < 0) {
        return "";
    }
    shmid_ds info;
    if (shmctl(id, IPC_STAT, &info) != 0) {
        return "";
    }
    void* address = shmat(id, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) {
        return "";
    }
    std::string bytes(static_cast<const char*>(address), info.shm_segsz);
    shmdt(address);
    return bytes;
}

class FrontDoorE2E : public ::testing::Test {
protected:
    std::string Config(const std::string& name, const std::string& simOptions) {
        return m_dir.WriteFile(name,
                               "[config]\ndevice = sim:shfe=60,ine=20,rate=50000,seed=3," + simOptions +
                                   "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    }

    // A feed that stays up once the simulated market has gone quiet.
    std::unique_ptr<CChildProcess> StartFeed() {
        auto feed = std::make_unique<CChildProcess>(
            std::vector<std::string>{QUVO_MD_PATH, Config("running.ini", "records=3000")}, m_dir.Path(),
            FeedOutput());
        return feed;
    }

    std::string FeedOutput() const { return m_dir.Path() + "/running.out"; }

    // Waits until the feed is live and its books have stopped moving, and
    // returns them with the ring.
    std::string SettledSegments() {
        const double deadline = seconds_now() + kTimeoutSeconds;
        EXPECT_TRUE(wait_for_text(FeedOutput(), "process decode buffer", kTimeoutSeconds, 20))
            << read_file(FeedOutput());
        std::string segments;
        if (!wait_settled([&] { return Segments(); }, deadline - seconds_now(), 300, segments)) {
            ADD_FAILURE() << "the books did not settle";
        }
        return segments;
    }

    std::string Segments() const {
        return segment_bytes(m_shm.RingKeyPath()) + segment_bytes(m_shm.AreaKeyPath());
    }

    // Runs quvo-md with `args` in a directory of its own; returns the status
    // and leaves its output in `output`.
    int Run(const std::vector<std::string>& args, std::string& output, CTempDir& cwd) {
        std::vector<std::string> argv = {QUVO_MD_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        const std::string path = m_dir.Path() + "/run.out";
        const int status = run_program(argv, cwd.Path(), path, kTimeoutSeconds);
        output = read_file(path);
        return status;
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
};

TEST_F(FrontDoorE2E, HelpAndVersionLeaveARunningFeedUntouched) {
    std::unique_ptr<CChildProcess> feed = StartFeed();
    const std::string before = SettledSegments();
    ASSERT_EQ(before.size(), QUVO_UPDATE_RING_SIZE + sizeof(share));

    for (const std::string option : {"--help", "-h", "--version"}) {
        CTempDir cwd;
        std::string output;
        EXPECT_EQ(Run({option}, output, cwd), 0) << option;
        EXPECT_TRUE(cwd.List().empty()) << option << ": no log file";
        if (option == "--version") {
            EXPECT_TRUE(contains(output, "Shfe V2.1.1.12")) << output;
            EXPECT_TRUE(contains(output, "card support: ")) << output;
        } else {
            EXPECT_TRUE(contains(output, "--check CONFIG.ini")) << output;
        }
    }
    EXPECT_TRUE(Segments() == before) << "the running feed's books changed";
    feed->Signal(SIGINT);
    int status = -1;
    EXPECT_TRUE(feed->Wait(kTimeoutSeconds, status));
    EXPECT_EQ(status, 0);
}

// The decode cache is zero-filled page by page at start, so caching never
// takes a page fault: the whole 200 MiB is resident once the feed runs.
TEST_F(FrontDoorE2E, DecodeCacheIsResidentOnceTheFeedRuns) {
    std::unique_ptr<CChildProcess> feed = StartFeed();
    SettledSegments();
    const std::string status = read_file("/proc/" + std::to_string(feed->Pid()) + "/status");
    const size_t at = status.find("VmRSS:");
    ASSERT_NE(at, std::string::npos) << status;
    const long residentKb = strtol(status.c_str() + at + 6, nullptr, 10);
    EXPECT_GE(residentKb, 200L * 1024) << status;
    feed->Signal(SIGINT);
    int exitStatus = -1;
    EXPECT_TRUE(feed->Wait(kTimeoutSeconds, exitStatus));
}

TEST_F(FrontDoorE2E, SecondFeedIsRefusedWhileTheFirstRuns) {
    std::unique_ptr<CChildProcess> feed = StartFeed();
    const std::string before = SettledSegments();

    CTempDir cwd;
    std::string output;
    const int status = Run({Config("second.ini", "records=10")}, output, cwd);
    EXPECT_NE(status, 0);
    EXPECT_TRUE(contains(output, "(process " + std::to_string(feed->Pid()) + ")")) << output;
    EXPECT_TRUE(contains(output, m_shm.RingKeyPath())) << output;
    EXPECT_TRUE(contains(output, m_shm.AreaKeyPath())) << output;
    EXPECT_TRUE(cwd.List().empty()) << "the refused feed made a log file";
    EXPECT_TRUE(Segments() == before) << "the refused feed touched the books";
    EXPECT_TRUE(feed->Running());
}

TEST_F(FrontDoorE2E, SuccessorOfAKilledFeedStartsNormally) {
    std::unique_ptr<CChildProcess> feed = StartFeed();
    SettledSegments();
    feed->Signal(SIGKILL);
    int status = -1;
    ASSERT_TRUE(feed->Wait(kTimeoutSeconds, status));
    EXPECT_EQ(status, 128 + SIGKILL);

    const std::string expect = m_dir.Path() + "/expect.json";
    CTempDir cwd;
    std::string output;
    EXPECT_EQ(Run({Config("successor.ini", "records=4000,exit=0.3,expect=" + expect)}, output, cwd), 0)
        << output;
    EXPECT_TRUE(contains(output, "initialization completed")) << output;
    SimState expected;
    std::string error;
    ASSERT_TRUE(read_sim_state(expect, expected, error)) << error;
    const std::string bytes = segment_bytes(m_shm.AreaKeyPath());
    ASSERT_EQ(bytes.size(), sizeof(share));
    const std::vector<std::string> differences =
        compare_books(*reinterpret_cast<const share*>(bytes.data()), expected, SubscriptionRules{});
    EXPECT_TRUE(differences.empty()) << differences.front();
}

TEST_F(FrontDoorE2E, SigtermStopsTheFeedAsSigintDoes) {
    const std::string expect = m_dir.Path() + "/expect.json";
    CChildProcess feed({QUVO_MD_PATH, Config("term.ini", "records=3000,expect=" + expect)}, m_dir.Path(),
                       FeedOutput());
    SettledSegments();
    feed.Signal(SIGTERM);
    int status = -1;
    ASSERT_TRUE(feed.Wait(kTimeoutSeconds, status));
    EXPECT_EQ(status, 0);
    const std::string log = read_file(FeedOutput());
    EXPECT_TRUE(contains(log, "received Ctrl + C signal in api.\n")) << log;
    // The orderly stop releases the card (the simulator then writes its
    // expected books) and detaches both segments.
    SimState expected;
    std::string error;
    EXPECT_TRUE(read_sim_state(expect, expected, error)) << error;
    EXPECT_EQ(CShmSandbox::AttachCount(m_shm.AreaKeyPath()), 0);
    EXPECT_EQ(CShmSandbox::AttachCount(m_shm.RingKeyPath()), 0);
}

TEST_F(FrontDoorE2E, CheckReportsAndAttachesNothing) {
    struct Case {
        std::string text;
        int status;
        std::string finding;
    };
    const std::vector<Case> cases = {
        {"[config]\ndevice = sim:shfe=10\ninsts = all\nshfe2ps = enabled\n", 0, ": ok"},
        {"[config]\ndevice = sim:shfe=10\ndevcie = exanic0\ninsts = all\nshfe2ps = enabled\n", 1,
         ":3: warning: devcie: unknown key, did you mean device?"},
        {"[config]\ndevice = sim:shfe=10\ninsts = all\nine2ps = enabeld\n", 2,
         ": error: all SHFE and INE are disabled"},
    };
    for (const Case& c : cases) {
        CTempDir cwd;
        const std::string path = m_dir.WriteFile("check.ini", c.text);
        std::string output;
        EXPECT_EQ(Run({"--check", path}, output, cwd), c.status) << output;
        EXPECT_TRUE(contains(output, path + c.finding)) << output;
        EXPECT_TRUE(contains(output, "  md2ps_snap_port     33022\n")) << output;
        EXPECT_TRUE(cwd.List().empty()) << "--check made a log file";
    }
    EXPECT_LT(CShmSandbox::SegmentId(m_shm.RingKeyPath()), 0);
    EXPECT_LT(CShmSandbox::SegmentId(m_shm.AreaKeyPath()), 0);
}

TEST_F(FrontDoorE2E, UnknownOptionIsNotTakenForAConfigurationPath) {
    CTempDir cwd;
    std::string output;
    EXPECT_NE(Run({"--chek"}, output, cwd), 0);
    EXPECT_TRUE(contains(output, "unknown option --chek")) << output;
    EXPECT_TRUE(cwd.List().empty());
    EXPECT_LT(CShmSandbox::SegmentId(m_shm.AreaKeyPath()), 0);
}

TEST_F(FrontDoorE2E, CheckWithoutItsFileSaysSo) {
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"--check"}, std::vector<std::string>{"--check", "a.ini", "b.ini"}}) {
        CTempDir cwd;
        std::string output;
        EXPECT_NE(Run(args, output, cwd), 0);
        EXPECT_TRUE(contains(output, "--check takes one argument, the configuration file")) << output;
        EXPECT_TRUE(cwd.List().empty());
    }
    EXPECT_LT(CShmSandbox::SegmentId(m_shm.AreaKeyPath()), 0);
}

TEST_F(FrontDoorE2E, MissingKeyFileStillFailsAsItAlwaysHas) {
    // The ring's key file first, so that no segment is made; then, with it
    // back, the area's, after the ring was attached.
    for (const std::string& missing : {m_shm.RingKeyPath(), m_shm.AreaKeyPath()}) {
        ASSERT_EQ(unlink(missing.c_str()), 0);
        CTempDir cwd;
        std::string output;
        EXPECT_EQ(Run({Config("feed.ini", "records=10")}, output, cwd), 1) << output;
        EXPECT_TRUE(contains(output, "failed to attach memory: No such file or directory\n")) << output;
        EXPECT_TRUE(cwd.List().empty()) << "no log file";
        FILE* restored = fopen(missing.c_str(), "w");
        ASSERT_NE(restored, nullptr);
        fclose(restored);
    }
}

// The unit's start check, run as systemd would run it on this build: warnings
// let the feed start, a refusal stops it; it stops the feed with SIGTERM.
TEST_F(FrontDoorE2E, ServiceUnitChecksTheConfigurationFirst) {
    const std::string unit = read_file(std::string(QUVO_SOURCE_DIR) + "/examples/quvo-md.service");
    ASSERT_FALSE(unit.empty());
    auto setting = [&](const std::string& key) {
        const size_t at = unit.find("\n" + key + "=");
        EXPECT_NE(at, std::string::npos) << key;
        const size_t start = at + key.size() + 2;
        return at == std::string::npos ? std::string() : unit.substr(start, unit.find('\n', start) - start);
    };
    EXPECT_EQ(setting("KillSignal"), "SIGTERM");
    const std::string start = setting("ExecStart");
    const std::string check = setting("ExecStartPre");
    const size_t space = start.find(' ');
    ASSERT_NE(space, std::string::npos);
    const std::string binary = start.substr(0, space);
    const std::string config = start.substr(space + 1);
    ASSERT_NE(check.find(binary + " --check " + config), std::string::npos) << check;

    auto runCheck = [&](const std::string& text) {
        std::string command = check;
        const std::string path = m_dir.WriteFile("unit.ini", text);
        command.replace(command.find(binary), binary.size(), QUVO_MD_PATH);
        command.replace(command.find(config), config.size(), path);
        CTempDir cwd;
        return run_program({"/bin/sh", "-c", command}, cwd.Path(), m_dir.Path() + "/unit.out",
                           kTimeoutSeconds);
    };
    EXPECT_EQ(runCheck("[config]\ndevice = sim:shfe=10\ninsts = all\nshfe2ps = enabled\n"), 0);
    EXPECT_EQ(runCheck("[config]\ndevice = sim:shfe=10\ninsts = all\nshfe2ps = enabled\nlog_levle = 3\n"), 0);
    EXPECT_NE(runCheck("[config]\ndevice = sim:shfe=10\ninsts = all\nshfe2ps = Enabled\n"), 0);
}

}  // namespace
