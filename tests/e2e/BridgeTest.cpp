// quvo-bridge between two key directories on one host, through a real NATS
// server with JetStream on a loopback port: a feed on the simulator in one,
// the bridge publishing its books, and a mirror in the other. When the feed
// has stopped and the mirror has caught up, every record of the mirror's area
// equals the feed's byte for byte, and readers read the same books from both.
// What the server stored (the history stream, the bucket) is read back
// through JetStream's API.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "interface/quvobridge.h"
#include "interface/quvohealthreader.h"
#include "interface/quvoreader.h"
#include "tests/support/BookCheck.h"
#include "tests/support/BridgeRun.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Loopback.h"
#include "tests/support/NatsServer.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"
#include "tests/support/TmuxPane.h"
#include "tests/support/ViewScreen.h"

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

// The feed's announcement counter, from the health segment of key directory
// `dir`; -1 when it cannot be read.
int64_t feed_announcements(const std::string& dir) {
    setenv(QUVO_KEY_DIR_ENV, dir.c_str(), 1);
    CQuvoHealthReader reader;
    std::string error;
    quvo_health health;
    if (!reader.Attach(error) || !reader.Read(health, error)) {
        return -1;
    }
    return static_cast<int64_t>(health.ring.write_count);
}

// Whether the child `pid` has ended, leaving it to be reaped by its owner.
bool has_ended(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid;
}

// A NATS client on the server's text protocol, just enough to put questions
// to the JetStream API and read the answers; the tests link no NATS library.
class CNatsProbe {
public:
    CNatsProbe() = default;
    ~CNatsProbe() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    CNatsProbe(const CNatsProbe&) = delete;
    CNatsProbe& operator=(const CNatsProbe&) = delete;

    bool Connect(int port, std::string& error) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(port));
        if (m_fd < 0 || connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
            error = "cannot connect to port " + std::to_string(port) + ": " + strerror(errno);
            return false;
        }
        const double deadline = seconds_now() + kTimeoutSeconds / 4;
        std::string line;
        if (!_ReadLine(deadline, line) || line.rfind("INFO ", 0) != 0) {
            error = "no INFO from the server: '" + line + "'";
            return false;
        }
        _Send(
            "CONNECT {\"verbose\":false,\"pedantic\":false,\"name\":\"test probe\"}\r\n"
            "SUB _INBOX.probe.> 1\r\nPING\r\n");
        while (_ReadLine(deadline, line)) {
            if (line == "PONG") {
                return true;
            }
            if (line.rfind("-ERR", 0) == 0) {
                error = line;
                return false;
            }
        }
        error = "no PONG from the server";
        return false;
    }

    // Sends `payload` to `subject` and waits up to `seconds` for the reply;
    // true with its payload in `reply`.
    bool Request(const std::string& subject, const std::string& payload, double seconds, std::string& reply) {
        const std::string inbox = "_INBOX.probe." + std::to_string(++m_requests);
        _Send("PUB " + subject + " " + inbox + " " + std::to_string(payload.size()) + "\r\n" + payload +
              "\r\n");
        const double deadline = seconds_now() + seconds;
        std::string line;
        while (_ReadLine(deadline, line)) {
            if (line == "PING") {
                _Send("PONG\r\n");
                continue;
            }
            const std::vector<std::string> parts = words(line);
            if (parts.size() < 4 || parts[0] != "MSG") {
                continue;
            }
            std::string data;
            if (!_Read(std::stoul(parts.back()) + 2, deadline, data)) {
                return false;
            }
            // A late answer to an earlier request that timed out is passed over.
            if (parts[1] == inbox) {
                reply = data.substr(0, data.size() - 2);
                return true;
            }
        }
        return false;
    }

private:
    void _Send(const std::string& data) {
        for (size_t sent = 0; sent < data.size();) {
            const ssize_t n = send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return;
            }
            sent += static_cast<size_t>(n);
        }
    }

    bool _Fill(double deadline) {
        const double left = deadline - seconds_now();
        pollfd ready{m_fd, POLLIN, 0};
        if (left <= 0 || poll(&ready, 1, static_cast<int>(left * 1000) + 1) <= 0) {
            return false;
        }
        char buffer[65536];
        const ssize_t n = recv(m_fd, buffer, sizeof(buffer), 0);
        if (n <= 0) {
            return false;
        }
        m_in.append(buffer, static_cast<size_t>(n));
        return true;
    }

    bool _ReadLine(double deadline, std::string& line) {
        size_t end;
        while ((end = m_in.find("\r\n")) == std::string::npos) {
            if (!_Fill(deadline)) {
                return false;
            }
        }
        line = m_in.substr(0, end);
        m_in.erase(0, end + 2);
        return true;
    }

    bool _Read(size_t size, double deadline, std::string& out) {
        while (m_in.size() < size) {
            if (!_Fill(deadline)) {
                return false;
            }
        }
        out = m_in.substr(0, size);
        m_in.erase(0, size);
        return true;
    }

    int m_fd = -1;
    std::string m_in;
    uint64_t m_requests = 0;
};

// The JetStream API's answer to `payload` on `subject`; null when none came.
nlohmann::json js_request(CNatsProbe& probe, const std::string& subject, const std::string& payload = "") {
    std::string reply;
    if (!probe.Request(subject, payload, kTimeoutSeconds / 10, reply)) {
        return nullptr;
    }
    return nlohmann::json::parse(reply, nullptr, false);
}

// The stream's configuration and state ("config", "state"); null, or an
// object with "error", when the server has none to give.
nlohmann::json stream_info(CNatsProbe& probe, const std::string& stream) {
    return js_request(probe, "$JS.API.STREAM.INFO." + stream);
}

// `field` of the stream's "config" or "state" (`section`), or -2 when there is none.
int64_t stream_figure(const nlohmann::json& info, const char* section, const char* field) {
    if (!info.is_object() || !info.contains(section) || !info[section].contains(field) ||
        !info[section][field].is_number()) {
        return -2;
    }
    return info[section][field].get<int64_t>();
}

std::string base64_decode(const std::string& text) {
    static const std::string kDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    uint32_t bits = 0;
    int held = 0;
    for (const char c : text) {
        const size_t digit = kDigits.find(c);
        if (digit == std::string::npos) {
            continue;
        }
        bits = (bits << 6) | static_cast<uint32_t>(digit);
        held += 6;
        if (held >= 8) {
            held -= 8;
            out += static_cast<char>((bits >> held) & 0xFF);
        }
    }
    return out;
}

// The book message stored in `stream` at the first sequence at or after
// `seq` (on `subject`, when given); false when there is none. `seq` becomes
// the message's own sequence.
bool stored_message(CNatsProbe& probe, const std::string& stream, uint64_t& seq, quvo_book_msg& msg,
                    const std::string& subject = "") {
    nlohmann::json request = {{"seq", seq}};
    if (!subject.empty()) {
        request["next_by_subj"] = subject;
    }
    const nlohmann::json answer = js_request(probe, "$JS.API.STREAM.MSG.GET." + stream, request.dump());
    if (!answer.is_object() || !answer.contains("message")) {
        return false;
    }
    const std::string data = base64_decode(answer["message"].value("data", ""));
    if (data.size() != QUVO_BOOK_MSG_SIZE) {
        return false;
    }
    memcpy(&msg, data.data(), sizeof(msg));
    seq = answer["message"].value("seq", uint64_t{0});
    return msg.magic == QUVO_BOOK_MSG_MAGIC && msg.version == QUVO_BOOK_MSG_VERSION;
}

class BridgeE2E : public ::testing::Test {
protected:
    std::unique_ptr<CChildProcess> StartFeed(const std::string& device) {
        const std::string config = m_dir.WriteFile(
            "feed.ini", "[config]\ndevice = " + device +
                            "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        return std::make_unique<CChildProcess>(in_key_dir(m_feedKeys.Dir(), {QUVO_MD_PATH, config}),
                                               m_dir.Path(), m_dir.Path() + "/feed.out");
    }

    std::unique_ptr<CChildProcess> StartBridge(const std::string& keyDir, const std::string& output,
                                               std::vector<std::string> args) {
        args.insert(args.begin(), QUVO_BRIDGE_PATH);
        return std::make_unique<CChildProcess>(in_key_dir(keyDir, args), m_dir.Path(),
                                               m_dir.Path() + "/" + output);
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
        if (HasFatalFailure()) {
            return;
        }
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

    // The Python reader, and quvo-view's list, read the same books from the
    // replica as from the feed's segments.
    void ExpectReadersSeeTheFeedsBooks() {
        std::string fromPython[2];
        for (int side = 0; side < 2; ++side) {
            const std::string dir = side == 0 ? m_feedKeys.Dir() : m_mirrorKeys.Dir();
            const RunResult run = run_piped(kEnv, {std::string(QUVO_KEY_DIR_ENV) + "=" + dir,
                                                   std::string("PYTHONPATH=") + QUVO_PYTHON_DIR,
                                                   "/usr/bin/python3", "-m", "quvo", "--json"});
            EXPECT_EQ(run.status, 0) << run.err;
            fromPython[side] = run.out;
        }
        EXPECT_GT(count_of(fromPython[0], "\n"), 100u);
        EXPECT_EQ(fromPython[1], fromPython[0]);

        std::vector<list_row> rows[2];
        for (int side = 0; side < 2; ++side) {
            const std::string dir = side == 0 ? m_feedKeys.Dir() : m_mirrorKeys.Dir();
            // A tmux server of its own for each: one just killed may still hold its socket.
            const std::string paneDir = m_dir.Path() + (side == 0 ? "/view-feed" : "/view-mirror");
            std::filesystem::create_directories(paneDir);
            CTmuxPane view(QUVO_TMUX_PATH, paneDir,
                           "exec env " QUVO_KEY_DIR_ENV "=" + dir + " " + QUVO_VIEW_PATH, 160, 30);
            ASSERT_TRUE(view.Started());
            view.WaitScreen(
                [&](const std::vector<std::string>& screen) {
                    rows[side] = list_rows(screen);
                    return rows[side].size() >= 20 ? "" : std::string("quvo-view lists fewer than 20 books");
                },
                kTimeoutSeconds / 2);
        }
        // The screens may hold a different number of rows (the feed's shows
        // that it stopped): the instruments both list must read the same, all
        // but the updates a second, which count what each side announced lately.
        std::map<std::string, std::vector<std::string>> feedRows;
        for (const list_row& row : rows[0]) {
            if (row.cells.size() > static_cast<size_t>(kAskVol)) {
                feedRows[row.cells[kId]] =
                    std::vector<std::string>(row.cells.begin(), row.cells.begin() + kAskVol + 1);
            }
        }
        size_t compared = 0;
        for (const list_row& row : rows[1]) {
            ASSERT_GT(row.cells.size(), static_cast<size_t>(kAskVol));
            const auto feedRow = feedRows.find(row.cells[kId]);
            if (feedRow == feedRows.end()) {
                continue;
            }
            EXPECT_EQ(std::vector<std::string>(row.cells.begin(), row.cells.begin() + kAskVol + 1),
                      feedRow->second);
            ++compared;
        }
        EXPECT_GE(compared, 20u);
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
    ExpectReadersSeeTheFeedsBooks();
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
    EXPECT_GT(last_figure(FigureFile("mirror.out"), "bucket_books"), 100);
    EXPECT_GT(last_figure(FigureFile("mirror.out"), "applied"), 1000);
    EXPECT_EQ(last_figure(FigureFile("mirror.out"), "invalid"), 0);
    EXPECT_EQ(last_figure(FigureFile("bridge.out"), "publish_errors"), 0);
    server.Stop();
}

// The port a bridge named on its "serving" line, or -1 before it has.
int serving_port(const std::string& path) {
    const std::string text = read_file(path);
    const std::string mark = "quvo-bridge: serving http://127.0.0.1:";
    const size_t at = text.find(mark);
    return at == std::string::npos ? -1 : atoi(text.c_str() + at + mark.size());
}

// The value of the unlabelled sample `name` in an exposition, or NAN.
double sample_of(const std::string& exposition, const std::string& name) {
    for (const std::string& line : split_lines(exposition)) {
        if (line.size() > name.size() && line.compare(0, name.size() + 1, name + " ") == 0) {
            return strtod(line.c_str() + name.size() + 1, nullptr);
        }
    }
    return NAN;
}

// Once the feed has stopped and the mirror holds its books, the figures each
// side serves for Prometheus are the ones it prints. The bridge writes each
// message at once here, which must carry the same books.
TEST_F(BridgeE2E, ServesItsFiguresForPrometheus) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    const std::string url = server.Url();
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=100,ine=20,rate=20000,records=10000,seed=29,exit=0.5");
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out",
                    {"--server", url, "--stats=0.1", "--metrics", "127.0.0.1:0", "--send-at-once"});
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out",
                    {"--mirror", "--server", url, "--stats=0.1", "--metrics=127.0.0.1:0"});
    ExpectMirrorEqualsFeed(*feed);
    const int bridgePort = serving_port(FigureFile("bridge.out"));
    const int mirrorPort = serving_port(FigureFile("mirror.out"));
    ASSERT_GT(bridgePort, 0) << read_file(FigureFile("bridge.out"));
    ASSERT_GT(mirrorPort, 0) << read_file(FigureFile("mirror.out"));
    // Both sides are idle now: a printed line and a scrape read the same counts.
    std::string bridgeFigures;
    std::string mirrorFigures;
    EXPECT_TRUE(poll_until(
        [&] {
            return scrape_metrics(bridgePort, bridgeFigures, error) &&
                   sample_of(bridgeFigures, "quvo_bridge_published_total") ==
                       static_cast<double>(last_figure(FigureFile("bridge.out"), "published")) &&
                   scrape_metrics(mirrorPort, mirrorFigures, error) &&
                   sample_of(mirrorFigures, "quvo_mirror_applied_total") ==
                       static_cast<double>(last_figure(FigureFile("mirror.out"), "applied"));
        },
        kTimeoutSeconds / 4, 100))
        << error << "\n"
        << bridgeFigures << "\n"
        << mirrorFigures;
    EXPECT_GT(sample_of(bridgeFigures, "quvo_bridge_published_total"), 100);
    EXPECT_EQ(sample_of(bridgeFigures, "quvo_bridge_connected"), 1);
    EXPECT_EQ(sample_of(bridgeFigures, "quvo_bridge_lag"), 0);
    EXPECT_EQ(sample_of(bridgeFigures, "quvo_bridge_pending"), 0);
    EXPECT_EQ(sample_of(bridgeFigures, "quvo_bridge_announcements_total"),
              static_cast<double>(last_figure(FigureFile("bridge.out"), "announcements")));
    EXPECT_NE(bridgeFigures.find("# TYPE quvo_bridge_published_total counter"), std::string::npos);
    EXPECT_EQ(sample_of(mirrorFigures, "quvo_mirror_connected"), 1);
    EXPECT_EQ(sample_of(mirrorFigures, "quvo_mirror_invalid_total"), 0);
    EXPECT_GE(sample_of(mirrorFigures, "quvo_mirror_resyncs_total"), 1);
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
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

TEST_F(BridgeE2E, LappedByTheRingComparesEveryBookAndCatchesUp) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    const std::string url = server.Url();
    // So many instruments that the last ring's worth of announcements leaves
    // some out: only the comparison of every record finds their last books.
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=8000,ine=2000,rate=100000,records=130000,seed=24,exit=0.5");
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out", {"--server", url, "--stats=0.05"});
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--server", url, "--stats=0.1"});
    ASSERT_TRUE(poll_until([&] { return last_figure(FigureFile("bridge.out"), "announcements") > 0; },
                           kTimeoutSeconds, 5))
        << read_file(FigureFile("bridge.out"));
    bridge->Signal(SIGSTOP);
    const int64_t announcedAtStop = feed_announcements(m_feedKeys.Dir());
    ASSERT_GE(announcedAtStop, 0);
    ASSERT_TRUE(poll_until([&] { return has_ended(feed->Pid()); }, kTimeoutSeconds, 20))
        << read_file(m_dir.Path() + "/feed.out");
    const int64_t announcedAtEnd = feed_announcements(m_feedKeys.Dir());
    bridge->Signal(SIGCONT);
    ASSERT_GT(announcedAtEnd - announcedAtStop, QUVO_UPDATE_RING_ENTRIES * 5 / 4)
        << "the feed made too few announcements while the bridge was held";
    ExpectMirrorEqualsFeed(*feed);
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
    const int64_t laps = last_figure(FigureFile("bridge.out"), "laps");
    EXPECT_GE(laps, 1) << read_file(FigureFile("bridge.out"));
    // One comparison at the start, one for each lap.
    EXPECT_GE(last_figure(FigureFile("bridge.out"), "rescans"), laps + 1);
    EXPECT_EQ(last_figure(FigureFile("bridge.out"), "lag"), 0);
    EXPECT_EQ(last_figure(FigureFile("mirror.out"), "invalid"), 0);
    server.Stop();
}

TEST_F(BridgeE2E, RestartedBridgePublishesUnderALaterEpochThatTheMirrorApplies) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    const std::string url = server.Url();
    std::unique_ptr<CChildProcess> feed =
        StartFeed("sim:shfe=300,ine=60,rate=20000,records=60000,seed=25,exit=0.5");
    std::unique_ptr<CChildProcess> first =
        StartBridge(m_feedKeys.Dir(), "first.out", {"--server", url, "--stats=0.1"});
    std::unique_ptr<CChildProcess> mirror =
        StartBridge(m_mirrorKeys.Dir(), "mirror.out", {"--mirror", "--server", url, "--stats=0.1"});
    // The first bridge carries most of the run, so that its sequence numbers
    // stay above the second's: only the later epoch lets the mirror take the
    // second's books.
    ASSERT_TRUE(poll_until(
        [&] {
            return feed_announcements(m_feedKeys.Dir()) > 40000 &&
                   last_figure(FigureFile("first.out"), "published") > 1000 &&
                   last_figure(FigureFile("mirror.out"), "applied") > 1000;
        },
        kTimeoutSeconds, 20))
        << read_file(FigureFile("first.out")) << read_file(FigureFile("mirror.out"));
    ExpectStops(*first, "first.out");
    // The books move on with no bridge.
    const int64_t announcedAtStop = feed_announcements(m_feedKeys.Dir());
    ASSERT_TRUE(poll_until([&] { return feed_announcements(m_feedKeys.Dir()) > announcedAtStop + 2000; },
                           kTimeoutSeconds / 2, 20));
    std::unique_ptr<CChildProcess> bridge =
        StartBridge(m_feedKeys.Dir(), "bridge.out", {"--server", url, "--stats=0.1"});
    ExpectMirrorEqualsFeed(*feed);
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*mirror, "mirror.out");
    EXPECT_EQ(last_figure(FigureFile("mirror.out"), "invalid"), 0);

    // The history starts with the first bridge's messages; the bucket holds
    // only the second's, every book in it published again under its later epoch.
    CNatsProbe probe;
    ASSERT_TRUE(probe.Connect(server.Port(), error)) << error;
    uint64_t seq = 1;
    quvo_book_msg oldest{};
    ASSERT_TRUE(stored_message(probe, "quvo-history", seq, oldest));
    std::set<uint64_t> epochs;
    std::set<uint16_t> slots;
    seq = 1;
    quvo_book_msg entry{};
    while (slots.size() < QUVO_INST_SLOTS &&
           stored_message(probe, "KV_quvo-books", seq, entry, "$KV.quvo-books.>")) {
        epochs.insert(entry.epoch);
        slots.insert(entry.slot);
        ++seq;
    }
    CQuvoReader feedReader;
    attach_at(feedReader, m_feedKeys.Dir());
    EXPECT_EQ(slots.size(), feedReader.ListSlots().size());
    ASSERT_EQ(epochs.size(), 1u);
    EXPECT_GT(*epochs.begin(), oldest.epoch);
    server.Stop();
}

TEST_F(BridgeE2E, HistoryStreamTakesTheRetentionOfTheOptions) {
    CNatsServer server(QUVO_NATS_SERVER_PATH, m_dir.Path(), "n1");
    std::string error;
    ASSERT_TRUE(server.Start(kTimeoutSeconds / 4, error)) << error;
    const std::string url = server.Url();
    CNatsProbe probe;
    ASSERT_TRUE(probe.Connect(server.Port(), error)) << error;
    std::unique_ptr<CChildProcess> feed = StartFeed("sim:shfe=300,ine=60,rate=20000,records=40000,seed=26");
    constexpr int64_t kLimit = 100000;
    std::unique_ptr<CChildProcess> bridge = StartBridge(
        m_feedKeys.Dir(), "bridge.out", {"--server", url, "--history-bytes", std::to_string(kLimit)});
    // Far more is published than the limit holds, so the oldest go.
    nlohmann::json info;
    int64_t mostBytes = 0;
    EXPECT_TRUE(poll_until(
        [&] {
            info = stream_info(probe, "quvo-history");
            mostBytes = std::max(mostBytes, stream_figure(info, "state", "bytes"));
            return stream_figure(info, "state", "first_seq") > 1;
        },
        kTimeoutSeconds / 2, 20))
        << info.dump();
    EXPECT_EQ(stream_figure(info, "config", "max_bytes"), kLimit);
    EXPECT_EQ(stream_figure(info, "config", "max_age"), int64_t{86400} * 1000000000);
    EXPECT_LE(mostBytes, kLimit);
    EXPECT_GT(mostBytes, kLimit / 2);
    ExpectStops(*bridge, "bridge.out");
    info = stream_info(probe, "quvo-history");
    const int64_t lastOfFirst = stream_figure(info, "state", "last_seq");
    ASSERT_GT(lastOfFirst, 0) << info.dump();

    // Started again with an age instead, it brings the stream to it; once the
    // feed has stopped and the age has passed, what it published is gone too.
    bridge = StartBridge(m_feedKeys.Dir(), "bridge.out", {"--server", url, "--history-age", "1"});
    EXPECT_TRUE(poll_until(
        [&] {
            info = stream_info(probe, "quvo-history");
            return stream_figure(info, "config", "max_age") == 1000000000;
        },
        kTimeoutSeconds / 2, 20))
        << info.dump();
    EXPECT_EQ(stream_figure(info, "config", "max_bytes"), -1);
    EXPECT_TRUE(poll_until(
        [&] {
            info = stream_info(probe, "quvo-history");
            return stream_figure(info, "state", "last_seq") > lastOfFirst &&
                   stream_figure(info, "state", "messages") == 0;
        },
        kTimeoutSeconds, 50))
        << info.dump();
    ExpectStops(*bridge, "bridge.out");
    ExpectStops(*feed, "feed.out");
    server.Stop();
}

}  // namespace
