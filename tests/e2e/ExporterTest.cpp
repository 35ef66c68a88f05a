// quvo-exporter over HTTP: every figure of a health segment the test writes
// itself, what a feed on the simulator left after SIGINT, the answer when no
// segment exists, and the Grafana dashboard and alert rules that name its
// metrics. promtool checks every exposition.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "interface/quvohealthreader.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Loopback.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

// Generous: under the sanitizers every process here runs several times slower.
constexpr double kTimeoutSeconds = 60;

// An exposition's samples: `name{labels}` as served, to value.
struct Exposition {
    std::string text;
    std::map<std::string, double> samples;
    std::set<std::string> names;  // sample names without labels, _bucket, _sum and _count included
    std::set<std::string> help;   // families with a HELP line
    std::set<std::string> typed;  // families with a TYPE line

    bool Has(const std::string& key) const { return samples.count(key) != 0; }
    // NAN when absent, for polls that wait for a sample to appear.
    double Get(const std::string& key) const {
        const auto it = samples.find(key);
        return it == samples.end() ? NAN : it->second;
    }
    double operator[](const std::string& key) const {
        const auto it = samples.find(key);
        EXPECT_NE(it, samples.end()) << "no sample " << key;
        return it == samples.end() ? NAN : it->second;
    }
};

Exposition parse_exposition(const std::string& text) {
    Exposition out;
    out.text = text;
    for (const std::string& line : split_lines(text)) {
        const std::vector<std::string> parts = words(line);
        if (parts.size() >= 3 && parts[0] == "#") {
            (parts[1] == "HELP" ? out.help : out.typed).insert(parts[2]);
            continue;
        }
        // Label values here never hold spaces (paths of the test's own directory).
        if (parts.size() != 2) {
            ADD_FAILURE() << "unexpected line: " << line;
            continue;
        }
        out.samples[parts[0]] = strtod(parts[1].c_str(), nullptr);
        out.names.insert(parts[0].substr(0, parts[0].find('{')));
    }
    return out;
}

// promtool reads the exposition and has nothing to say about it.
void expect_promtool_clean(const Exposition& scraped) {
    CTempDir scratch;
    const std::string path = scratch.WriteFile("scrape.txt", scraped.text);
    const RunResult result =
        run_piped("/bin/sh", {"-c", "exec " QUVO_PROMTOOL_PATH " check metrics < " + path});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.out + result.err, "") << scraped.text;
}

double seconds_of(uint64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

// Every sample the exporter should serve for `h`, by the field it shows.
std::vector<std::pair<std::string, double>> expected_samples(const quvo_health& h) {
    std::vector<std::pair<std::string, double>> out;
    auto add = [&out](const std::string& key, double value) { out.emplace_back(key, value); };
    auto count = [&add](const std::string& key, uint64_t value) { add(key, static_cast<double>(value)); };
    add("quvo_health_readable", 1);
    for (unsigned i = 0; i < QUVO_PHASE_COUNT; ++i) {
        add("quvo_phase{phase=\"" + std::string(quvo_health_phase_name(i)) + "\"}", h.process.phase == i);
    }
    count("quvo_run", h.process.run);
    add("quvo_process_start_time_seconds", seconds_of(h.process.start_ns));
    add("quvo_info{config_path=\"" + std::string(h.process.config_path) + "\",pid=\"" +
            std::to_string(h.process.pid) + "\"}",
        1);
    for (unsigned i = 0; i < QUVO_RESTART_COUNT; ++i) {
        count("quvo_restarts_total{reason=\"" + std::string(quvo_health_restart_name(i)) + "\"}",
              h.restarts.by_reason[i]);
    }
    add("quvo_last_restart_time_seconds", seconds_of(h.restarts.last_ns));
    const quvo_health_records& r = h.records;
    const std::vector<std::pair<const char*, uint64_t>> records = {{"received", r.received},
                                                                   {"applied", r.applied},
                                                                   {"announced", h.ring.write_count},
                                                                   {"stale", r.stale},
                                                                   {"restored", r.restored},
                                                                   {"unsubscribed", r.unsubscribed},
                                                                   {"options", r.options},
                                                                   {"out_of_range", r.out_of_range},
                                                                   {"short_record", r.short_record},
                                                                   {"unsupported_topic", r.unsupported_topic},
                                                                   {"gaps", r.gaps},
                                                                   {"abnormal_length", r.abnormal_length},
                                                                   {"other_field_id", r.other_field_id}};
    for (const auto& [result, value] : records) {
        count("quvo_records_total{result=\"" + std::string(result) + "\"}", value);
    }
    count("quvo_record_fields_total{problem=\"unknown_fields\"}", r.unknown_fields);
    count("quvo_record_fields_total{problem=\"bad_level\"}", r.bad_level);
    count("quvo_record_fields_total{problem=\"bad_event\"}", r.bad_event);
    count("quvo_record_fields_total{problem=\"bad_entry\"}", r.bad_entry);

    const quvo_health_snapshot& s = h.snapshot;
    add("quvo_snapshot_duration_seconds", seconds_of(s.last_duration_ns));
    count("quvo_snapshots_total", s.completed);
    add("quvo_snapshot_seconds_total", seconds_of(s.total_duration_ns));
    for (unsigned i = 0; i < QUVO_HEALTH_FEEDS; ++i) {
        const quvo_health_feed& f = s.feeds[i];
        const std::string label = "{feed=\"" + std::string(quvo_health_feed_name(i)) + "\"}";
        add("quvo_feed_snapshot_duration_seconds" + label,
            f.completed_ns >= f.started_ns && f.completed_ns != 0 ? seconds_of(f.completed_ns - f.started_ns)
                                                                  : 0);
        count("quvo_feed_snapshot_instruments" + label, f.instruments);
        count("quvo_feed_snapshot_messages_total" + label, f.messages_total);
        count("quvo_feed_snapshot_bytes_total" + label, f.bytes_total);
        count("quvo_feed_snapshots_total" + label, f.completed);
    }
    for (unsigned i = 0; i < QUVO_CLEAN_COUNT; ++i) {
        count("quvo_snapshot_clears_total{cause=\"" + std::string(quvo_health_clean_name(i)) + "\"}",
              s.cleared[i]);
    }
    count("quvo_price_check_failures_total", s.price_check_failures);

    const quvo_health_tcp& t = h.tcp;
    const std::vector<std::pair<const char*, uint64_t>> tcp = {{"handled", t.frames},
                                                               {"abnormal_length", t.abnormal_length},
                                                               {"late", t.late},
                                                               {"short_ip", t.short_ip},
                                                               {"bad_ip_header", t.bad_ip_header},
                                                               {"not_tcp", t.not_tcp},
                                                               {"short_tcp", t.short_tcp},
                                                               {"other_port", t.other_port},
                                                               {"bad_tcp_header", t.bad_tcp_header},
                                                               {"no_payload", t.no_payload},
                                                               {"checksum", t.checksum},
                                                               {"rst_ack", t.rst_ack},
                                                               {"not_start", t.not_start},
                                                               {"other_host", t.other_host},
                                                               {"in_order", t.in_order},
                                                               {"held", t.held},
                                                               {"duplicates", t.duplicates},
                                                               {"old", t.old},
                                                               {"not_mdqp", t.not_mdqp}};
    for (const auto& [result, value] : tcp) {
        count("quvo_tcp_frames_total{result=\"" + std::string(result) + "\"}", value);
    }
    count("quvo_tcp_held_peak", t.held_peak);
    count("quvo_tcp_polls_total{result=\"empty\"}", t.polls_empty);
    count("quvo_tcp_polls_total{result=\"busy\"}", t.polls_busy);

    count("quvo_cache_frames_total{event=\"cached\"}", h.cache.cached);
    count("quvo_cache_frames_total{event=\"replayed\"}", h.cache.replayed);
    count("quvo_cache_peak_frames", h.cache.peak);
    count("quvo_cache_overflows_total", h.cache.overflows);
    count("quvo_cache_corrupt_total", h.cache.corrupt);
    count("quvo_cache_clears_total", h.cache.cleared);

    count("quvo_ring_writes_total", h.ring.write_count);
    const uint64_t hhmmss = h.ring.exchange_time;
    add("quvo_last_exchange_time_seconds_of_day",
        static_cast<double>(hhmmss / 10000) * 3600 + static_cast<double>(hhmmss / 100 % 100) * 60 +
            static_cast<double>(hhmmss % 100) + static_cast<double>(h.ring.exchange_millis) / 1000);
    count("quvo_packet_number{exchange=\"shfe\"}", h.ring.shfe_packet_no);
    count("quvo_packet_number{exchange=\"ine\"}", h.ring.ine_packet_no);

    const quvo_health_latency& l = h.latency;
    count("quvo_record_latency_seconds_count", l.samples);
    add("quvo_record_latency_seconds_sum", seconds_of(l.sum_ns));
    add("quvo_record_latency_max_seconds", seconds_of(l.max_ns));
    count("quvo_live_polls_total{result=\"empty\"}", l.polls_empty);
    count("quvo_live_polls_total{result=\"busy\"}", l.polls_busy);
    return out;
}

// Equal to the last digit the exposition prints (about 15 significant digits).
bool same_value(double served, double expected) {
    return served == expected || std::fabs(served - expected) <= 1e-13 * std::fabs(expected);
}

void expect_figures(const Exposition& scraped, const quvo_health& h) {
    for (const auto& [key, value] : expected_samples(h)) {
        EXPECT_TRUE(same_value(scraped[key], value))
            << key << ": served " << scraped[key] << ", segment " << value;
    }
}

// The histogram's buckets in order of their bounds, +Inf last, as (le, count).
std::vector<std::pair<double, double>> latency_buckets(const Exposition& scraped) {
    std::vector<std::pair<double, double>> buckets;
    const std::regex bucket("quvo_record_latency_seconds_bucket\\{le=\"([^\"]+)\"\\}");
    for (const auto& [key, value] : scraped.samples) {
        std::smatch match;
        if (std::regex_match(key, match, bucket)) {
            buckets.emplace_back(strtod(match[1].str().c_str(), nullptr), value);
        }
    }
    std::sort(buckets.begin(), buckets.end());
    return buckets;
}

// quvo-exporter on a free loopback port; a port taken meanwhile by someone
// else makes it exit 2, and another port is tried.
class CExporter {
public:
    explicit CExporter(const std::string& dir) : m_dir(dir), m_output(dir + "/exporter.out") {}

    void Start() {
        for (int attempt = 0; attempt < 5 && m_port < 0; ++attempt) {
            const int port = free_loopback_port();
            ASSERT_GT(port, 0);
            m_process = std::make_unique<CChildProcess>(
                std::vector<std::string>{QUVO_EXPORTER_PATH, "--listen", "127.0.0.1:" + std::to_string(port)},
                m_dir, m_output);
            const std::string serving = "serving http://127.0.0.1:" + std::to_string(port) + "/metrics\n";
            ASSERT_TRUE(poll_until(
                [&] {
                    const std::string out = read_file(m_output);
                    return contains(out, serving) || contains(out, "cannot listen");
                },
                kTimeoutSeconds, 5))
                << read_file(m_output);
            if (contains(read_file(m_output), serving)) {
                m_port = port;
            } else {
                int status = -1;
                ASSERT_TRUE(m_process->Wait(kTimeoutSeconds, status));
                ASSERT_EQ(status, 2) << read_file(m_output);
            }
        }
        ASSERT_GT(m_port, 0) << "no free port in five tries";
    }

    Exposition Scrape() const {
        std::string body;
        std::string error;
        EXPECT_TRUE(scrape_metrics(m_port, body, error)) << error;
        return parse_exposition(body);
    }

    // SIGTERM: the exporter stops with status 0.
    void Stop() {
        m_process->Signal(SIGTERM);
        int status = -1;
        ASSERT_TRUE(m_process->Wait(kTimeoutSeconds, status));
        EXPECT_EQ(status, 0) << Output();
    }

    std::string Output() const { return read_file(m_output); }

private:
    std::string m_dir;
    std::string m_output;
    std::unique_ptr<CChildProcess> m_process;
    int m_port = -1;
};

class ExporterE2E : public ::testing::Test {
protected:
    CShmSandbox m_shm;
    CTempDir m_dir;
};

TEST_F(ExporterE2E, RefusesBadOptions) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{},
                                                 {"--listen"},
                                                 {"--listen", "9469"},
                                                 {"--listen", "127.0.0.1:65536"},
                                                 {"--listen", "127.0.0.1:x"},
                                                 {"--port", "9469"}}) {
        const RunResult result = run_piped(QUVO_EXPORTER_PATH, args);
        EXPECT_EQ(result.status, 2) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err.rfind("quvo-exporter: ", 0), 0u) << result.err;
    }
    const RunResult help = run_piped(QUVO_EXPORTER_PATH, {"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: quvo-exporter --listen ADDR:PORT\n", 0), 0u) << help.out;
}

TEST_F(ExporterE2E, WithoutAHealthSegmentAnswersUpZero) {
    CExporter exporter(m_dir.Path());
    ASSERT_NO_FATAL_FAILURE(exporter.Start());
    for (int i = 0; i < 3; ++i) {
        const Exposition scraped = exporter.Scrape();
        EXPECT_EQ(scraped["quvo_up"], 0);
        EXPECT_EQ(scraped["quvo_health_readable"], 0);
        EXPECT_EQ(scraped.help.count("quvo_health_readable"), 1u);
        for (const std::string& name : scraped.names) {
            EXPECT_TRUE(name == "quvo_up" || name == "quvo_health_readable" || name.rfind("quvo_", 0) != 0)
                << name;
        }
        expect_promtool_clean(scraped);
    }
    exporter.Stop();
    // The reason once, not once per scrape.
    EXPECT_EQ(
        count_of(exporter.Output(), "no quvo-md has made a health segment for key directory " + m_shm.Dir()),
        1u)
        << exporter.Output();
}

// The test plays the feed: a segment of its own, every field a distinct value.
class ExporterOnAHandMadeSegment : public ExporterE2E {
protected:
    void SetUp() override {
        const key_t key = ftok(m_shm.AreaKeyPath().c_str(), QUVO_HEALTH_PROJ_ID);
        m_id = shmget(key, sizeof(quvo_health), IPC_CREAT | 0644);
        ASSERT_GE(m_id, 0) << strerror(errno);
        void* address = shmat(m_id, nullptr, 0);
        ASSERT_NE(address, reinterpret_cast<void*>(-1)) << strerror(errno);
        m_health = static_cast<quvo_health*>(address);
        uint64_t* words = reinterpret_cast<uint64_t*>(&m_health->process);
        const size_t count = (sizeof(quvo_health) - offsetof(quvo_health, process)) / sizeof(uint64_t);
        for (size_t i = 0; i < count; ++i) {
            words[i] = 1000 + 37 * i;
        }
        quvo_health& h = *m_health;
        // This process is the writer, so it is alive.
        h.process.pid = static_cast<uint64_t>(getpid());
        h.process.start_ticks = quvo_process_start_ticks(h.process.pid);
        h.process.start_ns = 1700000000123456789ull;
        h.process.phase = QUVO_PHASE_LIVE;
        snprintf(h.process.config_path, sizeof(h.process.config_path), "%s/feed.ini", m_dir.Path().c_str());
        h.restarts.last_reason = QUVO_RESTART_TOPIC;
        h.restarts.last_ns = 1700000100987654321ull;
        h.snapshot.feeds[1].completed_ns = 0;  // ine2ps loading
        h.ring.exchange_time = 142959;
        h.ring.exchange_millis = 875;
        quvo_health_latency& l = h.latency;
        l.samples = 0;
        for (unsigned i = 0; i < QUVO_HEALTH_LATENCY_BUCKETS; ++i) {
            l.buckets[i] = i % 5;
            l.samples += l.buckets[i];
        }
        h.version = QUVO_HEALTH_VERSION;
        h.size = sizeof(quvo_health);
        h.magic = QUVO_HEALTH_MAGIC;
    }

    void TearDown() override {
        if (m_health != nullptr) {
            shmdt(m_health);
        }
    }

    int m_id = -1;
    quvo_health* m_health = nullptr;
};

TEST_F(ExporterOnAHandMadeSegment, ServesEveryFigureAndReadsAfreshOnEachScrape) {
    CExporter exporter(m_dir.Path());
    ASSERT_NO_FATAL_FAILURE(exporter.Start());
    Exposition scraped = exporter.Scrape();
    EXPECT_EQ(scraped["quvo_up"], 1);
    expect_figures(scraped, *m_health);
    EXPECT_EQ(scraped["quvo_phase{phase=\"live\"}"], 1);
    EXPECT_EQ(scraped["quvo_last_exchange_time_seconds_of_day"], 14 * 3600 + 29 * 60 + 59.875);
    EXPECT_EQ(scraped["quvo_feed_snapshot_duration_seconds{feed=\"ine2ps\"}"], 0);
    EXPECT_GT(scraped["quvo_feed_snapshot_duration_seconds{feed=\"shfe2ps\"}"], 0);
    for (const std::string& name : scraped.names) {
        const std::string family = std::regex_replace(name, std::regex("_(bucket|sum|count)$"), "");
        if (name.rfind("quvo_", 0) == 0) {
            EXPECT_EQ(scraped.help.count(family) + scraped.typed.count(family), 2u) << name;
        }
    }

    // One bucket per power of two: its bound 1 ns below the next, counts
    // cumulative, +Inf the whole count.
    const std::vector<std::pair<double, double>> buckets = latency_buckets(scraped);
    ASSERT_EQ(buckets.size(), 20u);
    uint64_t cumulative = 0;
    for (unsigned group = 0; group < 19; ++group) {
        for (unsigned i = 4 * group; i < 4 * group + 4; ++i) {
            cumulative += m_health->latency.buckets[i];
        }
        EXPECT_EQ(buckets[group].first, static_cast<double>((4ull << group) - 1) / 1e9) << group;
        EXPECT_EQ(buckets[group].second, static_cast<double>(cumulative)) << group;
    }
    EXPECT_TRUE(std::isinf(buckets.back().first));
    EXPECT_EQ(buckets.back().second, static_cast<double>(m_health->latency.samples));
    expect_promtool_clean(scraped);

    // Each scrape reads the segment again.
    m_health->records.applied += 5;
    m_health->process.phase = QUVO_PHASE_STOPPED;
    scraped = exporter.Scrape();
    EXPECT_EQ(scraped["quvo_up"], 0);
    EXPECT_EQ(scraped["quvo_phase{phase=\"stopped\"}"], 1);
    expect_figures(scraped, *m_health);

    // A writer that no longer exists: down, with its figures.
    m_health->process.phase = QUVO_PHASE_LIVE;
    m_health->process.start_ticks += 1;
    scraped = exporter.Scrape();
    EXPECT_EQ(scraped["quvo_up"], 0);
    expect_figures(scraped, *m_health);
    m_health->process.start_ticks -= 1;

    // A segment being set up, then one of another layout: not readable.
    m_health->magic = 0;
    scraped = exporter.Scrape();
    EXPECT_EQ(scraped["quvo_health_readable"], 0);
    EXPECT_EQ(scraped["quvo_up"], 0);
    EXPECT_FALSE(scraped.Has("quvo_run"));
    m_health->magic = QUVO_HEALTH_MAGIC;
    m_health->version = QUVO_HEALTH_VERSION + 1;
    EXPECT_EQ(exporter.Scrape()["quvo_health_readable"], 0);
    m_health->version = QUVO_HEALTH_VERSION;
    EXPECT_EQ(exporter.Scrape()["quvo_up"], 1);

    // Removed, then made again under the same key: attached afresh.
    shmdt(m_health);
    m_health = nullptr;
    ASSERT_EQ(shmctl(m_id, IPC_RMID, nullptr), 0);
    scraped = exporter.Scrape();
    EXPECT_EQ(scraped["quvo_health_readable"], 0);
    expect_promtool_clean(scraped);
    SetUp();
    ASSERT_NE(m_health, nullptr);
    scraped = exporter.Scrape();
    EXPECT_EQ(scraped["quvo_up"], 1);
    expect_figures(scraped, *m_health);
    exporter.Stop();
}

// The metric names an expression uses.
std::set<std::string> metric_names(const std::string& expr) {
    std::set<std::string> names;
    const std::regex name("quvo_[a-z0-9_]+");
    for (auto it = std::sregex_iterator(expr.begin(), expr.end(), name); it != std::sregex_iterator(); ++it) {
        names.insert(it->str());
    }
    return names;
}

void collect_exprs(const nlohmann::json& node, std::vector<std::string>& exprs) {
    if (node.is_object()) {
        for (auto it = node.begin(); it != node.end(); ++it) {
            if ((it.key() == "expr" || it.key() == "query") && it->is_string()) {
                exprs.push_back(it->get<std::string>());
            } else if (it.key() == "query" && it->is_object() && it->contains("query")) {
                exprs.push_back((*it)["query"].get<std::string>());
            } else {
                collect_exprs(*it, exprs);
            }
        }
    } else if (node.is_array()) {
        for (const nlohmann::json& item : node) {
            collect_exprs(item, exprs);
        }
    }
}

TEST_F(ExporterOnAHandMadeSegment, DashboardAndAlertRulesUseServedMetrics) {
    CExporter exporter(m_dir.Path());
    ASSERT_NO_FATAL_FAILURE(exporter.Start());
    const Exposition scraped = exporter.Scrape();
    exporter.Stop();
    ASSERT_GT(scraped.names.size(), 30u);

    const std::string path = QUVO_SOURCE_DIR "/examples/grafana-dashboard.json";
    const nlohmann::json dashboard = nlohmann::json::parse(read_file(path), nullptr, false);
    ASSERT_FALSE(dashboard.is_discarded()) << path << " is not JSON";
    EXPECT_GE(dashboard["schemaVersion"].get<int>(), 36);
    ASSERT_TRUE(dashboard["__inputs"].is_array());
    EXPECT_EQ(dashboard["__inputs"][0]["name"], "DS_PROMETHEUS");
    EXPECT_EQ(dashboard["__inputs"][0]["pluginId"], "prometheus");
    std::vector<std::string> exprs;
    collect_exprs(dashboard, exprs);
    EXPECT_GE(exprs.size(), 10u);
    std::set<std::string> used;
    for (const std::string& expr : exprs) {
        for (const std::string& name : metric_names(expr)) {
            used.insert(name);
            EXPECT_EQ(scraped.names.count(name), 1u) << name << " in " << expr;
        }
    }
    // Grafana's variables aside, every expression is PromQL: promtool parses
    // them as recording rules.
    std::string asRules = "groups:\n  - name: dashboard\n    rules:\n";
    for (size_t i = 0; i < exprs.size(); ++i) {
        if (exprs[i].rfind("label_values(", 0) == 0) {
            continue;
        }
        std::string expr = std::regex_replace(exprs[i], std::regex("\\$__rate_interval"), "5m");
        expr = std::regex_replace(expr, std::regex("\\$instance"), ".*");
        asRules += "      - record: dashboard:expr_" + std::to_string(i) +
                   "\n        expr: " + nlohmann::json(expr).dump() + "\n";
    }
    const RunResult parsed =
        run_piped(QUVO_PROMTOOL_PATH, {"check", "rules", m_dir.WriteFile("dashboard-rules.yml", asRules)});
    EXPECT_EQ(parsed.status, 0) << parsed.out << parsed.err << asRules;
    for (const char* wanted :
         {"quvo_records_total", "quvo_restarts_total", "quvo_record_latency_seconds_bucket",
          "quvo_snapshot_duration_seconds", "quvo_cache_overflows_total", "quvo_cache_peak_frames",
          "quvo_tcp_frames_total", "quvo_phase", "quvo_up"}) {
        EXPECT_EQ(used.count(wanted), 1u) << wanted << " is not on the dashboard";
    }

    // The alert rules in the operator's guide: valid for promtool, and only
    // served metrics.
    const std::string guide = read_file(QUVO_SOURCE_DIR "/docs/operations.md");
    const size_t start = guide.find("```yaml\ngroups:");
    ASSERT_NE(start, std::string::npos) << "no alert rules in docs/operations.md";
    const size_t end = guide.find("```\n", start + 8);
    ASSERT_NE(end, std::string::npos);
    const std::string rules = guide.substr(start + 8, end - start - 8);
    const std::string rulesPath = m_dir.WriteFile("rules.yml", rules);
    const RunResult check = run_piped(QUVO_PROMTOOL_PATH, {"check", "rules", rulesPath});
    EXPECT_EQ(check.status, 0) << check.out << check.err;
    EXPECT_TRUE(contains(check.out, "SUCCESS")) << check.out;
    std::smatch match;
    const std::regex expr("expr: *(.*)");
    size_t alerts = 0;
    for (auto it = rules.cbegin(); std::regex_search(it, rules.cend(), match, expr);
         it = match.suffix().first) {
        ++alerts;
        for (const std::string& name : metric_names(match[1].str())) {
            EXPECT_EQ(scraped.names.count(name), 1u) << name << " in " << match[1].str();
        }
    }
    EXPECT_GE(alerts, 8u);
}

// quvo-md on the simulator with faults and change-number gaps.
TEST_F(ExporterE2E, FiguresOfAFeedOnTheSimulator) {
    const std::string config = m_dir.WriteFile(
        "feed.ini",
        "[config]\ndevice = sim:shfe=200,ine=40,rate=5000,seed=3,stale=0.01,crossed=0.01,unknown_field=0.01,"
        "tcp_bad_checksum=0.05,gap=0.0002\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
    const std::string feedOutput = m_dir.Path() + "/feed.out";
    CChildProcess feed({QUVO_MD_PATH, config}, m_dir.Path(), feedOutput);
    CExporter exporter(m_dir.Path());
    ASSERT_NO_FATAL_FAILURE(exporter.Start());

    Exposition live;
    ASSERT_TRUE(poll_until(
        [&] {
            live = exporter.Scrape();
            return live.Get("quvo_phase{phase=\"live\"}") == 1 &&
                   live.Get("quvo_record_latency_seconds_count") > 0 &&
                   live.Get("quvo_restarts_total{reason=\"gap\"}") > 0;
        },
        kTimeoutSeconds, 50))
        << live.text << read_file(feedOutput);
    EXPECT_EQ(live["quvo_up"], 1);
    EXPECT_EQ(live.samples.count("quvo_info{config_path=\"" + config + "\",pid=\"" +
                                 std::to_string(feed.Pid()) + "\"}"),
              1u)
        << live.text;
    expect_promtool_clean(live);

    feed.Signal(SIGINT);
    int status = -1;
    ASSERT_TRUE(feed.Wait(kTimeoutSeconds, status));
    ASSERT_EQ(status, 0) << read_file(feedOutput);
    const Exposition stopped = exporter.Scrape();
    exporter.Stop();

    CQuvoHealthReader reader;
    std::string error;
    ASSERT_TRUE(reader.Attach(error)) << error;
    quvo_health h;
    ASSERT_TRUE(reader.Read(h, error)) << error;
    expect_figures(stopped, h);
    expect_promtool_clean(stopped);

    EXPECT_EQ(stopped["quvo_up"], 0);
    EXPECT_EQ(stopped["quvo_phase{phase=\"stopped\"}"], 1);
    const std::string log = read_file(feedOutput);
    double restarts = 0;
    for (const char* reason : {"gap", "topic", "short", "cache"}) {
        restarts += stopped["quvo_restarts_total{reason=\"" + std::string(reason) + "\"}"];
    }
    EXPECT_EQ(restarts, static_cast<double>(count_of(log, "discontinuous changeNo")));
    EXPECT_GE(restarts, 1);
    EXPECT_EQ(stopped["quvo_run"], restarts + 1);
    // A stop during a snapshot leaves that run's snapshot unfinished.
    EXPECT_GE(stopped["quvo_snapshots_total"], restarts);
    EXPECT_LE(stopped["quvo_snapshots_total"], restarts + 1);
    EXPECT_GT(stopped["quvo_records_total{result=\"applied\"}"], 0);
    // The injected faults show where they belong.
    EXPECT_GT(stopped["quvo_records_total{result=\"stale\"}"], 0);
    EXPECT_GT(stopped["quvo_records_total{result=\"restored\"}"], 0);
    EXPECT_GT(stopped["quvo_record_fields_total{problem=\"unknown_fields\"}"], 0);
    EXPECT_GT(stopped["quvo_tcp_frames_total{result=\"checksum\"}"], 0);
    EXPECT_GE(stopped["quvo_feed_snapshots_total{feed=\"shfe2ps\"}"], stopped["quvo_snapshots_total"]);

    const std::vector<std::pair<double, double>> buckets = latency_buckets(stopped);
    ASSERT_FALSE(buckets.empty());
    EXPECT_EQ(stopped["quvo_record_latency_seconds_count"], static_cast<double>(h.latency.samples));
    EXPECT_GT(h.latency.samples, 0u);
    for (size_t i = 1; i < buckets.size(); ++i) {
        EXPECT_LT(buckets[i - 1].first, buckets[i].first);
        EXPECT_LE(buckets[i - 1].second, buckets[i].second) << "le " << buckets[i].first;
    }
    EXPECT_TRUE(std::isinf(buckets.back().first));
    EXPECT_EQ(buckets.back().second, stopped["quvo_record_latency_seconds_count"]);
}

}  // namespace
