// quvo-bridge between two key directories on one host, through a real NATS
// server with JetStream on a loopback port: a feed on the simulator in one,
// the bridge publishing its books, and a mirror in the other. When the feed
// has stopped and the mirror has caught up, every record of the mirror's area
// equals the feed's byte for byte, and readers read the same books from both.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "interface/quvoreader.h"
#include "tests/support/BookCheck.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/NatsServer.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

// Generous: under the sanitizers every process here runs several times slower.
constexpr double kTimeoutSeconds = 60;
constexpr const char* kEnv = "/usr/bin/env";

// The figure `name` of the last whole JSON line a bridge printed, or -1.
int64_t last_figure(const std::string& path, const std::string& name) {
    const std::vector<std::string> lines = split_lines(read_file(path));
    for (auto line = lines.rbegin(); line != lines.rend(); ++line) {
        if (line->empty() || line->front() != '{' || line->back() != '}') {
            continue;
        }
        const nlohmann::json figures = nlohmann::json::parse(*line, nullptr, false);
        if (figures.is_object() && figures.contains(name) && figures[name].is_number()) {
            return figures[name].get<int64_t>();
        }
    }
    return -1;
}

// Attaches `reader` to the segments of key directory `dir`.
void attach_at(CQuvoReader& reader, const std::string& dir) {
    setenv(QUVO_KEY_DIR_ENV, dir.c_str(), 1);
    std::string error;
    ASSERT_TRUE(reader.Attach(error)) << error;
}

// The first differences between two areas' records and counts, at most `limit`.
std::vector<std::string> area_differences(const share& feed, const share& mirror, size_t limit = 10) {
    std::vector<std::string> differences;
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS && differences.size() < limit; ++slot) {
        const instrument& a = feed.instmts[slot];
        const instrument& b = mirror.instmts[slot];
        if (memcmp(&a, &b, sizeof(a)) != 0) {
            differences.push_back("slot " + std::to_string(slot) + " (" +
                                  std::string(reinterpret_cast<const char*>(a.inst_id),
                                              strnlen(reinterpret_cast<const char*>(a.inst_id), 16)) +
                                  "): change_no " + std::to_string(a.change_no) + " in the feed, " +
                                  std::to_string(b.change_no) + " in the mirror");
        }
    }
    if (feed.shfe_inst_cnt != mirror.shfe_inst_cnt || feed.ine_inst_cnt != mirror.ine_inst_cnt) {
        differences.push_back("counts " + std::to_string(feed.shfe_inst_cnt) + "/" +
                              std::to_string(feed.ine_inst_cnt) + " in the feed, " +
                              std::to_string(mirror.shfe_inst_cnt) + "/" +
                              std::to_string(mirror.ine_inst_cnt) + " in the mirror");
    }
    return differences;
}

class BridgeE2E : public ::testing::Test {
protected:
    std::vector<std::string> In(const std::string& keyDir, std::vector<std::string> argv) {
        argv.insert(argv.begin(), {kEnv, std::string(QUVO_KEY_DIR_ENV) + "=" + keyDir});
        return argv;
    }

    std::unique_ptr<CChildProcess> StartFeed(const std::string& device) {
        const std::string config = m_dir.WriteFile(
            "feed.ini", "[config]\ndevice = " + device +
                            "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        return std::make_unique<CChildProcess>(In(m_feedKeys.Dir(), {QUVO_MD_PATH, config}), m_dir.Path(),
                                               m_dir.Path() + "/feed.out");
    }

    std::unique_ptr<CChildProcess> StartBridge(const std::string& keyDir, const std::string& output,
                                               std::vector<std::string> args) {
        args.insert(args.begin(), QUVO_BRIDGE_PATH);
        return std::make_unique<CChildProcess>(In(keyDir, args), m_dir.Path(), m_dir.Path() + "/" + output);
    }

    // Waits for the feed to end by itself, then for the mirror to hold the
    // feed's books; checks them, the mirror's ring and what quvo-dump reads.
    void ExpectMirrorEqualsFeed(CChildProcess& feed) {
        int status = -1;
        ASSERT_TRUE(feed.Wait(kTimeoutSeconds, status)) << read_file(m_dir.Path() + "/feed.out");
        ASSERT_EQ(status, 0) << read_file(m_dir.Path() + "/feed.out");
        CQuvoReader feedReader;
        CQuvoReader mirrorReader;
        attach_at(feedReader, m_feedKeys.Dir());
        attach_at(mirrorReader, m_mirrorKeys.Dir());
        ASSERT_GT(feedReader.ListSlots().size(), 100u);
        std::vector<std::string> differences;
        const bool equal = poll_until(
            [&] {
                differences = area_differences(*feedReader.Area(), *mirrorReader.Area());
                return differences.empty();
            },
            kTimeoutSeconds / 2, 50);
        EXPECT_TRUE(equal) << differences.size() << " differences, first: " << differences.front()
                           << "\nbridge:\n"
                           << read_file(m_dir.Path() + "/bridge.out") << "\nmirror:\n"
                           << read_file(m_dir.Path() + "/mirror.out");
        size_t announced = 0;
        const std::vector<std::string> ring =
            check_ring(mirrorReader.Ring(), *mirrorReader.Area(), announced);
        EXPECT_TRUE(ring.empty()) << ring.front();
        EXPECT_GE(announced, feedReader.ListSlots().size());
        // A reader of the replica reads what a reader of the feed reads.
        const RunResult fromFeed = run_piped(
            kEnv, {std::string(QUVO_KEY_DIR_ENV) + "=" + m_feedKeys.Dir(), QUVO_DUMP_PATH, "--json"});
        const RunResult fromMirror = run_piped(
            kEnv, {std::string(QUVO_KEY_DIR_ENV) + "=" + m_mirrorKeys.Dir(), QUVO_DUMP_PATH, "--json"});
        EXPECT_EQ(fromFeed.status, 0) << fromFeed.err;
        EXPECT_EQ(fromMirror.status, 0) << fromMirror.err;
        EXPECT_EQ(count_of(fromFeed.out, "\n"), feedReader.ListSlots().size());
        EXPECT_EQ(fromMirror.out, fromFeed.out);
    }

    // SIGINT; the process ends with status 0 within the bound.
    void ExpectStops(CChildProcess& process, const std::string& output) {
        process.Signal(SIGINT);
        int status = -1;
        ASSERT_TRUE(process.Wait(kTimeoutSeconds / 4, status)) << read_file(m_dir.Path() + "/" + output);
        EXPECT_EQ(status, 0) << read_file(m_dir.Path() + "/" + output);
    }

    std::string FigureFile(const std::string& name) const { return m_dir.Path() + "/" + name; }

    CTempDir m_dir;
    CShmSandbox m_feedKeys;
    CShmSandbox m_mirrorKeys;
};

TEST_F(BridgeE2E, MirrorStartedMidRunEndsWithTheFeedsBooks) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    const std::string url = server.Url();
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=300,ine=60,rate=20000,records=40000,seed=21,exit=0.5");
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out", {"--server", url, "--stats=0.1"});
    // The mirror comes once books are flowing, so it must start from the bucket.
    ASSERT_TRUE(poll_until([&] { return last_figure(FigureFile("bridge.out"), "published") > 1000; },
                           kTimeoutSeconds, 20))
        << read_file(FigureFile("bridge.out"));
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--server", url, "--stats=0.1"});
    ExpectMirrorEqualsFeed(*feed);
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
    EXPECT_GT(last_figure(FigureFile("mirror.out"), "bucket_books"), 100);
    EXPECT_GT(last_figure(FigureFile("mirror.out"), "applied"), 1000);
    EXPECT_EQ(last_figure(FigureFile("mirror.out"), "invalid"), 0);
    EXPECT_EQ(last_figure(FigureFile("bridge.out"), "publish_errors"), 0);
    server.Stop();
}

TEST_F(BridgeE2E, ServerStoppedAndRestartedMidRun) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    const std::string url = server.Url();
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=300,ine=60,rate=20000,records=50000,seed=22,exit=0.5");
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out", {"--server", url, "--json", "--stats=0.1"});
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--server", url, "--stats=0.1"});
    ASSERT_TRUE(poll_until(
        [&] {
            return last_figure(FigureFile("bridge.out"), "published") > 1000 &&
                   last_figure(FigureFile("mirror.out"), "resyncs") >= 1;
        },
        kTimeoutSeconds, 20))
        << read_file(FigureFile("bridge.out")) << read_file(FigureFile("mirror.out"));
    server.Stop();
    // The books move on while NATS is away.
    const int64_t announcedBefore = last_figure(FigureFile("bridge.out"), "announcements");
    ASSERT_TRUE(poll_until(
        [&] {
            return last_figure(FigureFile("bridge.out"), "disconnects") >= 1 &&
                   last_figure(FigureFile("bridge.out"), "announcements") > announcedBefore + 1000;
        },
        kTimeoutSeconds / 2, 20))
        << read_file(FigureFile("bridge.out"));
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    ExpectMirrorEqualsFeed(*feed);
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
    EXPECT_GE(last_figure(FigureFile("bridge.out"), "reconnects"), 1);
    EXPECT_GE(last_figure(FigureFile("mirror.out"), "reconnects"), 1);
    EXPECT_GE(last_figure(FigureFile("mirror.out"), "resyncs"), 2);
    EXPECT_EQ(last_figure(FigureFile("mirror.out"), "invalid"), 0);
    server.Stop();
}

TEST_F(BridgeE2E, ClusterOfThreeLosesOne) {
    const std::vector<int> clusterPorts = {free_loopback_port(), free_loopback_port(), free_loopback_port()};
    std::vector<std::unique_ptr<CNatsServer>> servers;
    for (size_t i = 0; i < clusterPorts.size(); ++i) {
        std::vector<int> routes;
        for (size_t j = 0; j < clusterPorts.size(); ++j) {
            if (j != i) {
                routes.push_back(clusterPorts[j]);
            }
        }
        servers.push_back(std::make_unique<CNatsServer>(
            QUVO_NATS_SERVER_PATH, m_dir.Path(), "n" + std::to_string(i + 1), clusterPorts[i], routes));
    }
    std::string urls;
    for (const auto& server : servers) {
        std::string error;
        ASSERT_TRUE(server->Start(kTimeoutSeconds / 4, error)) << error;
        urls += (urls.empty() ? "" : ",") + server->Url();
    }
    // JetStream takes requests once the cluster has chosen a leader for its metadata.
    ASSERT_TRUE(poll_until(
        [&] {
            for (const auto& server : servers) {
                if (contains(server->Output(), "new metadata leader")) {
                    return true;
                }
            }
            return false;
        },
        kTimeoutSeconds / 2, 50))
        << servers[0]->Output();
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=300,ine=60,rate=20000,records=50000,seed=23,exit=0.5");
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out", {"--server", urls, "--replicas", "3", "--stats=0.1"});
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--server", urls, "--stats=0.1"});
    ASSERT_TRUE(poll_until([&] { return last_figure(FigureFile("bridge.out"), "published") > 1000; },
                           kTimeoutSeconds, 20))
        << read_file(FigureFile("bridge.out")) << servers[0]->Output();
    servers[0]->Stop();
    ExpectMirrorEqualsFeed(*feed);
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
    EXPECT_EQ(last_figure(FigureFile("mirror.out"), "invalid"), 0);
    for (const auto& server : servers) {
        server->Stop();
    }
}

TEST_F(BridgeE2E, MirrorRefusesKeyFilesAFeedWrites) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    std::unique_ptr<CChildProcess> feed = StartFeed("sim:shfe=50,ine=10,rate=1000,seed=3");
    ASSERT_TRUE(wait_for_text(m_dir.Path() + "/feed.out", "initialization completed", kTimeoutSeconds, 20))
        << read_file(m_dir.Path() + "/feed.out");
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_feedKeys.Dir(), "mirror.out", {"--mirror", "--server", server.Url()});
    int status = -1;
    ASSERT_TRUE(mirror->Wait(kTimeoutSeconds / 4, status));
    EXPECT_EQ(status, 3);
    EXPECT_TRUE(contains(read_file(FigureFile("mirror.out")), "another feed"))
        << read_file(FigureFile("mirror.out"));
    ExpectStops(*feed, "feed.out");
    server.Stop();
}

}  // namespace
