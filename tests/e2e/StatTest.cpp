// quvo-stat and quvo-dump --health against quvo-md on the simulator: the
// figures of a live feed, their rates, the figures a stopped feed left, a
// successor picked up by a quvo-stat that keeps watching, and the plain
// refusal when no feed ever made a health segment.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "interface/quvohealthreader.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

// Generous: under the sanitizers every process here runs several times slower.
constexpr double kTimeoutSeconds = 60;

using ojson = nlohmann::ordered_json;

std::vector<std::string> keys_of(const ojson& object) {
    std::vector<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it) {
        keys.push_back(it.key());
    }
    return keys;
}

// The number after "received " in a report, commas dropped; -1 when absent.
long long received_in(const std::string& report) {
    std::smatch match;
    if (!std::regex_search(report, match, std::regex("records +received ([0-9,]+)"))) {
        return -1;
    }
    std::string digits = match[1];
    digits.erase(std::remove(digits.begin(), digits.end(), ','), digits.end());
    return std::stoll(digits);
}

// The fixed top-level form, then what quvo-stat --json adds.
const std::vector<std::string> kTopKeys = {
    "layout_version", "state",    "pid", "start_ns", "config_path", "phase", "run",    "phase_started_ns",
    "restarts",       "snapshot", "tcp", "records",  "cache",       "ring",  "latency"};

void expect_form(const ojson& object, const std::string& state, const std::string& phase) {
    EXPECT_EQ(object["layout_version"], 1);
    EXPECT_EQ(object["state"], state);
    EXPECT_EQ(object["phase"], phase);
    EXPECT_TRUE(object["pid"].is_number_unsigned());
    EXPECT_TRUE(object["start_ns"].is_number_unsigned());
    EXPECT_GE(object["run"].get<long long>(), 1);
    EXPECT_EQ(keys_of(object["phase_started_ns"]),
              (std::vector<std::string>{"starting", "configuring", "snapshot", "replay", "live", "stopping",
                                        "stopped", "failed"}));
    EXPECT_GT(object["phase_started_ns"]["live"].get<uint64_t>(), 0u);
    EXPECT_EQ(keys_of(object["restarts"]), (std::vector<std::string>{"gap", "topic", "short", "cache",
                                                                     "total", "last_ns", "last_reason"}));
    EXPECT_EQ(keys_of(object["snapshot"]),
              (std::vector<std::string>{"feeds", "cleared", "price_check_failures", "completed",
                                        "last_duration_ns", "total_duration_ns"}));
    EXPECT_EQ(keys_of(object["snapshot"]["feeds"]),
              (std::vector<std::string>{"shfe2ps", "ine2ps", "shfe4ps", "ine4ps"}));
    // Both 2ps feeds are enabled and the simulator lists instruments on both.
    EXPECT_GT(object["snapshot"]["feeds"]["shfe2ps"]["instruments"].get<uint64_t>(), 0u);
    EXPECT_GT(object["snapshot"]["feeds"]["ine2ps"]["instruments"].get<uint64_t>(), 0u);
    EXPECT_EQ(object["snapshot"]["feeds"]["shfe4ps"]["instruments"], 0);
    EXPECT_GE(object["snapshot"]["completed"].get<uint64_t>(), 1u);
    EXPECT_EQ(object["tcp"].size(), 22u);
    EXPECT_GT(object["tcp"]["frames"].get<uint64_t>(), 0u);
    EXPECT_EQ(object["records"].size(), 17u);
    EXPECT_GT(object["records"]["received"].get<uint64_t>(), 0u);
    EXPECT_GT(object["records"]["announced"].get<uint64_t>(), 0u);
    EXPECT_EQ(object["records"]["announced"], object["ring"]["write_count"]);
    EXPECT_EQ(object["cache"].size(), 6u);
    EXPECT_EQ(object["ring"].size(), 5u);
    EXPECT_EQ(keys_of(object["latency"]),
              (std::vector<std::string>{"samples", "sum_ns", "max_ns", "polls_empty", "polls_busy", "p50_ns",
                                        "p90_ns", "p99_ns", "p999_ns", "buckets"}));
    EXPECT_EQ(object["latency"]["buckets"].size(), static_cast<size_t>(QUVO_HEALTH_LATENCY_BUCKETS));
}

class StatE2E : public ::testing::Test {
protected:
    std::unique_ptr<CChildProcess> StartFeed(const std::string& name) {
        const std::string config = m_dir.WriteFile(
            name + ".ini",
            "[config]\ndevice = sim:shfe=300,ine=60,rate=2000,seed=1\ncpucore = -1\ninsts = all\n"
            "shfe2ps = enabled\nine2ps = enabled\n");
        return std::make_unique<CChildProcess>(std::vector<std::string>{QUVO_MD_PATH, config}, m_dir.Path(),
                                               m_dir.Path() + "/" + name + ".out");
    }

    // Until the health segment of the process `pid` says live with records received.
    static bool WaitLive(pid_t pid) {
        return poll_until(
            [pid] {
                CQuvoHealthReader reader;
                std::string error;
                quvo_health copy;
                return reader.Attach(error) && reader.Read(copy, error) &&
                       copy.process.pid == static_cast<uint64_t>(pid) &&
                       copy.process.phase == QUVO_PHASE_LIVE && copy.records.received > 0;
            },
            kTimeoutSeconds, 20);
    }

    static void StopFeed(CChildProcess& feed) {
        feed.Signal(SIGINT);
        int status = -1;
        ASSERT_TRUE(feed.Wait(kTimeoutSeconds, status));
        ASSERT_EQ(status, 0);
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
};

TEST_F(StatE2E, FiguresOfALiveFeedThenTheFiguresItLeft) {
    std::unique_ptr<CChildProcess> feed = StartFeed("feed");
    ASSERT_TRUE(WaitLive(feed->Pid()));

    RunResult once = run_piped(QUVO_STAT_PATH, {"--once"});
    EXPECT_EQ(once.status, 0) << once.err;
    EXPECT_EQ(once.err, "");
    EXPECT_EQ(once.out.rfind("phase      live for ", 0), 0u) << once.out;
    EXPECT_TRUE(contains(once.out, "process    pid " + std::to_string(feed->Pid()) + ",")) << once.out;
    EXPECT_TRUE(contains(once.out, "config     " + m_dir.Path() + "/feed.ini\n")) << once.out;
    EXPECT_TRUE(contains(once.out, "  shfe4ps   not used\n")) << once.out;
    const long long receivedLive = received_in(once.out);
    EXPECT_GT(receivedLive, 0) << once.out;
    EXPECT_FALSE(contains(once.out, "figures it left")) << once.out;

    RunResult json = run_piped(QUVO_STAT_PATH, {"--json", "--count", "2", "--interval", "0.2"});
    EXPECT_EQ(json.status, 0) << json.err;
    const std::vector<std::string> lines = split_lines(json.out);
    ASSERT_EQ(lines.size(), 2u) << json.out;
    std::vector<ojson> reports;
    for (const std::string& line : lines) {
        reports.push_back(ojson::parse(line));
        std::vector<std::string> keys = kTopKeys;
        keys.push_back("interval");
        keys.push_back("at_ns");
        EXPECT_EQ(keys_of(reports.back()), keys);
        expect_form(reports.back(), "running", "live");
        EXPECT_EQ(reports.back()["pid"], feed->Pid());
    }
    EXPECT_TRUE(reports[0]["interval"]["seconds"].is_null());
    EXPECT_TRUE(reports[0]["interval"]["received_per_s"].is_null());
    const ojson& interval = reports[1]["interval"];
    EXPECT_EQ(keys_of(interval), (std::vector<std::string>{"seconds", "received_per_s", "applied_per_s",
                                                           "stale_per_s", "restored_per_s", "announced_per_s",
                                                           "snapshot_frames_per_s", "restarts"}));
    EXPECT_GE(interval["seconds"].get<double>(), 0.15);
    EXPECT_GT(interval["received_per_s"].get<double>(), 0.0);
    EXPECT_GT(interval["applied_per_s"].get<double>(), 0.0);
    EXPECT_GT(interval["announced_per_s"].get<double>(), 0.0);
    EXPECT_GE(reports[1]["records"]["received"].get<uint64_t>(),
              reports[0]["records"]["received"].get<uint64_t>());
    EXPECT_GT(reports[1]["at_ns"].get<uint64_t>(), reports[0]["at_ns"].get<uint64_t>());

    RunResult dump = run_piped(QUVO_DUMP_PATH, {"--health", "--json"});
    EXPECT_EQ(dump.status, 0) << dump.err;
    ASSERT_EQ(split_lines(dump.out).size(), 1u) << dump.out;
    const ojson dumped = ojson::parse(dump.out);
    EXPECT_EQ(keys_of(dumped), kTopKeys);
    expect_form(dumped, "running", "live");

    StopFeed(*feed);
    once = run_piped(QUVO_STAT_PATH, {"--once"});
    EXPECT_EQ(once.status, 0) << once.err;
    const std::vector<std::string> stopped = split_lines(once.out);
    ASSERT_GT(stopped.size(), 10u) << once.out;
    EXPECT_EQ(stopped[0].rfind("quvo-md stopped at ", 0), 0u) << once.out;
    EXPECT_TRUE(contains(stopped[0], "these are the figures it left")) << once.out;
    EXPECT_EQ(stopped[1].rfind("phase      stopped for ", 0), 0u) << once.out;
    EXPECT_GE(received_in(once.out), receivedLive) << once.out;

    dump = run_piped(QUVO_DUMP_PATH, {"--health", "--json"});
    EXPECT_EQ(dump.status, 0) << dump.err;
    const ojson left = ojson::parse(dump.out);
    expect_form(left, "stopped", "stopped");
    EXPECT_GT(left["phase_started_ns"]["stopped"].get<uint64_t>(),
              left["phase_started_ns"]["live"].get<uint64_t>());

    dump = run_piped(QUVO_DUMP_PATH, {"--health"});
    EXPECT_EQ(dump.status, 0) << dump.err;
    EXPECT_EQ(dump.out.rfind("quvo-md stopped at ", 0), 0u) << dump.out;
}

// Without --once quvo-stat keeps watching: the feed's stop, then a successor
// on the same keys, then SIGINT ends it with status 0.
TEST_F(StatE2E, WatchingFollowsTheStopAndTheSuccessor) {
    std::unique_ptr<CChildProcess> first = StartFeed("first");
    ASSERT_TRUE(WaitLive(first->Pid()));
    CPipedProcess stat(QUVO_STAT_PATH, {"--interval", "0.1"}, true);
    const auto waitLine = [&stat](const std::string& text) {
        std::string line;
        while (stat.ReadLine(line)) {
            if (contains(line, text)) {
                return true;
            }
        }
        return false;
    };
    ASSERT_TRUE(waitLine("process    pid " + std::to_string(first->Pid()) + ","));
    ASSERT_TRUE(waitLine("phase      live for "));

    StopFeed(*first);
    ASSERT_TRUE(waitLine("quvo-md stopped at "));

    std::unique_ptr<CChildProcess> second = StartFeed("second");
    ASSERT_TRUE(waitLine("process    pid " + std::to_string(second->Pid()) + ","));
    ASSERT_TRUE(waitLine("phase      live for "));

    kill(stat.Pid(), SIGINT);
    const RunResult result = stat.Wait();
    EXPECT_EQ(result.status, 0) << result.err;
    StopFeed(*second);
}

TEST(StatNoFeed, ExitsTwoWhenNoFeedMadeAHealthSegment) {
    CShmSandbox shm;
    RunResult result = run_piped(QUVO_STAT_PATH, {"--once"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quvo-stat: no quvo-md has made a health segment for key directory " + shm.Dir() +
                              ": start the feed, or set QUVO_KEY_DIR\n");

    result = run_piped(QUVO_DUMP_PATH, {"--health", "--json"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_TRUE(contains(result.err, "no quvo-md has made a health segment")) << result.err;
}

TEST(StatUsage, HelpAndBadOptions) {
    RunResult result = run_piped(QUVO_STAT_PATH, {"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("Usage: quvo-stat", 0), 0u) << result.out;
    EXPECT_TRUE(contains(result.out, "QUVO_KEY_DIR")) << result.out;
    EXPECT_TRUE(contains(result.out, "Exit status:")) << result.out;

    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--interval", "0"},
                                               {"--interval", "x"},
                                               {"--count", "0"},
                                               {"--once", "--count", "2"},
                                               {"--bogus"}}) {
        result = run_piped(QUVO_STAT_PATH, args);
        EXPECT_EQ(result.status, 2) << args[0];
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind("quvo-stat: ", 0), 0u) << result.err;
    }
}

}  // namespace
