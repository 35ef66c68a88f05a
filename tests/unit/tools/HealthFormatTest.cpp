// The health figures as JSON, as rates, as the report and as quvo-view's
// summary, from hand-filled records.
#include "tools/HealthFormat.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/TextUtil.h"

namespace {

constexpr uint64_t kSecond = 1000000000u;
constexpr uint64_t kStart = 1700000000 * kSecond;  // 2023-11-14 22:13:20 UTC

class HealthFormatTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = getenv("TZ");
        m_hadTz = tz != nullptr;
        m_savedTz = m_hadTz ? tz : "";
        setenv("TZ", "UTC", 1);
        tzset();
        Fill();
    }
    void TearDown() override {
        if (m_hadTz) {
            setenv("TZ", m_savedTz.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }

    // A feed live for 10 s after three restarts, the last for a gap.
    void Fill() {
        memset(&m_health, 0, sizeof(m_health));
        m_health.magic = QUVO_HEALTH_MAGIC;
        m_health.version = QUVO_HEALTH_VERSION;
        m_health.size = sizeof(quvo_health);
        quvo_health_process& process = m_health.process;
        process.pid = 4242;
        process.start_ns = kStart;
        process.start_ticks = 77;
        process.phase = QUVO_PHASE_LIVE;
        process.run = 4;
        for (unsigned phase = 0; phase <= QUVO_PHASE_LIVE; ++phase) {
            process.phase_started_ns[phase] = kStart + (phase + 1) * kSecond;
        }
        strcpy(process.config_path, "/etc/quvo-md.ini");
        m_health.restarts.by_reason[QUVO_RESTART_GAP] = 2;
        m_health.restarts.by_reason[QUVO_RESTART_TOPIC] = 1;
        m_health.restarts.last_ns = kStart + 4 * kSecond;
        m_health.restarts.last_reason = QUVO_RESTART_GAP;
        quvo_health_feed& shfe = m_health.snapshot.feeds[0];
        shfe.started_ns = kStart + 3 * kSecond;
        shfe.completed_ns = shfe.started_ns + 1500000;  // 1.5 ms
        shfe.instruments = 300;
        shfe.messages = 41;
        shfe.bytes = 148678;
        shfe.completed = 4;
        shfe.messages_total = 164;
        shfe.bytes_total = 594712;
        m_health.snapshot.cleared[QUVO_CLEAN_RUN_START] = 4;
        m_health.snapshot.cleared[QUVO_CLEAN_RST_ACK] = 1;
        m_health.snapshot.price_check_failures = 0;
        m_health.snapshot.completed = 4;
        m_health.snapshot.last_duration_ns = 2700000;
        m_health.snapshot.total_duration_ns = 9 * kSecond / 1000;
        m_health.tcp.frames = 1833;
        m_health.tcp.in_order = 1803;
        m_health.tcp.checksum = 3;
        m_health.tcp.held = 12;
        m_health.tcp.held_peak = 5;
        m_health.tcp.not_mdqp = 7;
        m_health.records.received = 11595;
        m_health.records.applied = 11475;
        m_health.records.stale = 106;
        m_health.records.gaps = 3;
        m_health.records.bad_entry = 2;
        m_health.cache.cached = 534;
        m_health.cache.peak = 174;
        m_health.cache.replayed = 534;
        m_health.ring.write_count = 11067;
        m_health.ring.exchange_time = 93015;
        m_health.ring.exchange_millis = 500;
        m_health.ring.shfe_packet_no = 86936;
        m_health.ring.ine_packet_no = 63347;
        // 90 records at 500 ns, 9 at 2000 ns, 1 at 40 µs.
        AddLatency(500, 90);
        AddLatency(2000, 9);
        AddLatency(40000, 1);
        m_health.latency.polls_empty = 1000;
        m_health.latency.polls_busy = 100;
    }

    void AddLatency(uint64_t ns, uint64_t count) {
        quvo_health_latency& latency = m_health.latency;
        latency.samples += count;
        latency.sum_ns += ns * count;
        latency.max_ns = std::max(latency.max_ns, ns);
        latency.buckets[quvo_health_bucket(ns)] += count;
    }

    static std::vector<std::string> Keys(const nlohmann::ordered_json& object) {
        std::vector<std::string> keys;
        for (auto it = object.begin(); it != object.end(); ++it) {
            keys.push_back(it.key());
        }
        return keys;
    }

    quvo_health m_health;
    bool m_hadTz = false;
    std::string m_savedTz;
};

TEST_F(HealthFormatTest, JsonHoldsEveryFigureUnderItsNameInOrder) {
    const nlohmann::ordered_json json = health_to_json(m_health, true);
    EXPECT_EQ(Keys(json),
              (std::vector<std::string>{"layout_version", "state", "pid", "start_ns", "config_path", "phase",
                                        "run", "phase_started_ns", "restarts", "snapshot", "tcp", "records",
                                        "cache", "ring", "latency"}));
    EXPECT_EQ(json["layout_version"], 1);
    EXPECT_EQ(json["state"], "running");
    EXPECT_EQ(json["pid"], 4242);
    EXPECT_EQ(json["start_ns"], kStart);
    EXPECT_EQ(json["config_path"], "/etc/quvo-md.ini");
    EXPECT_EQ(json["phase"], "live");
    EXPECT_EQ(json["run"], 4);
    EXPECT_EQ(Keys(json["phase_started_ns"]),
              (std::vector<std::string>{"starting", "configuring", "snapshot", "replay", "live", "stopping",
                                        "stopped", "failed"}));
    EXPECT_EQ(json["phase_started_ns"]["live"], kStart + 5 * kSecond);
    EXPECT_EQ(json["phase_started_ns"]["stopped"], 0);

    EXPECT_EQ(json["restarts"].dump(),
              "{\"gap\":2,\"topic\":1,\"short\":0,\"cache\":0,\"total\":3,\"last_ns\":" +
                  std::to_string(kStart + 4 * kSecond) + ",\"last_reason\":\"gap\"}");

    const nlohmann::ordered_json& snapshot = json["snapshot"];
    EXPECT_EQ(Keys(snapshot),
              (std::vector<std::string>{"feeds", "cleared", "price_check_failures", "completed",
                                        "last_duration_ns", "total_duration_ns"}));
    EXPECT_EQ(Keys(snapshot["feeds"]), (std::vector<std::string>{"shfe2ps", "ine2ps", "shfe4ps", "ine4ps"}));
    EXPECT_EQ(snapshot["feeds"]["shfe2ps"].dump(),
              "{\"started_ns\":" + std::to_string(kStart + 3 * kSecond) +
                  ",\"completed_ns\":" + std::to_string(kStart + 3 * kSecond + 1500000) +
                  ",\"instruments\":300,\"messages\":41,\"bytes\":148678,\"completed\":4,"
                  "\"messages_total\":164,\"bytes_total\":594712}");
    EXPECT_EQ(snapshot["feeds"]["ine4ps"]["instruments"], 0);
    EXPECT_EQ(snapshot["cleared"].dump(),
              "{\"run_start\":4,\"rst_ack\":1,\"fragment\":0,\"held\":0,\"price_check\":0}");
    EXPECT_EQ(snapshot["completed"], 4);
    EXPECT_EQ(snapshot["last_duration_ns"], 2700000);

    EXPECT_EQ(Keys(json["tcp"]),
              (std::vector<std::string>{"polls_empty", "polls_busy", "abnormal_length", "late",
                                        "frames",      "short_ip",   "bad_ip_header",   "not_tcp",
                                        "short_tcp",   "other_port", "bad_tcp_header",  "no_payload",
                                        "checksum",    "rst_ack",    "not_start",       "other_host",
                                        "in_order",    "held",       "held_peak",       "duplicates",
                                        "old",         "not_mdqp"}));
    EXPECT_EQ(json["tcp"]["frames"], 1833);
    EXPECT_EQ(json["tcp"]["checksum"], 3);
    EXPECT_EQ(json["tcp"]["not_mdqp"], 7);

    EXPECT_EQ(Keys(json["records"]),
              (std::vector<std::string>{"received", "abnormal_length", "applied", "stale", "restored",
                                        "unsubscribed", "options", "out_of_range", "short_record",
                                        "unsupported_topic", "gaps", "unknown_fields", "other_field_id",
                                        "bad_level", "bad_event", "bad_entry", "announced"}));
    EXPECT_EQ(json["records"]["received"], 11595);
    EXPECT_EQ(json["records"]["bad_entry"], 2);
    EXPECT_EQ(json["records"]["announced"], 11067);

    EXPECT_EQ(json["cache"].dump(),
              "{\"cached\":534,\"peak\":174,\"overflows\":0,\"replayed\":534,\"corrupt\":0,\"cleared\":0}");
    EXPECT_EQ(json["ring"].dump(),
              "{\"write_count\":11067,\"exchange_time\":93015,\"exchange_millis\":500,"
              "\"shfe_packet_no\":86936,\"ine_packet_no\":63347}");

    const nlohmann::ordered_json& latency = json["latency"];
    EXPECT_EQ(Keys(latency),
              (std::vector<std::string>{"samples", "sum_ns", "max_ns", "polls_empty", "polls_busy", "p50_ns",
                                        "p90_ns", "p99_ns", "p999_ns", "buckets"}));
    EXPECT_EQ(latency["samples"], 100);
    EXPECT_EQ(latency["sum_ns"], 90 * 500 + 9 * 2000 + 40000);
    EXPECT_EQ(latency["max_ns"], 40000);
    EXPECT_EQ(latency["polls_empty"], 1000);
    // 500 ns lies in [448, 512), 2000 ns in [1792, 2048): a percentile is its
    // bucket's upper end, the largest capped by the maximum.
    EXPECT_EQ(latency["p50_ns"], 511);
    EXPECT_EQ(latency["p90_ns"], 511);
    EXPECT_EQ(latency["p99_ns"], 2047);
    EXPECT_EQ(latency["p999_ns"], 40000);
    ASSERT_EQ(latency["buckets"].size(), static_cast<size_t>(QUVO_HEALTH_LATENCY_BUCKETS));
    EXPECT_EQ(latency["buckets"][quvo_health_bucket(500)], 90);
    EXPECT_EQ(latency["buckets"][quvo_health_bucket(2000)], 9);
    EXPECT_EQ(latency["buckets"][0], 0);

    // Integers stay integers on the line, which ends in one newline.
    const std::string line = health_json_line(json);
    EXPECT_EQ(count_of(line, "\n"), 1u);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_TRUE(contains(line, "\"p50_ns\":511,")) << line;
    EXPECT_EQ(nlohmann::ordered_json::parse(line), json);
}

TEST_F(HealthFormatTest, LastRestartReasonIsNullBeforeAnyRestart) {
    m_health.restarts = quvo_health_restarts{};
    const nlohmann::ordered_json json = health_to_json(m_health, true);
    EXPECT_TRUE(json["restarts"]["last_reason"].is_null());
    EXPECT_EQ(json["restarts"]["total"], 0);
    m_health.restarts.last_ns = 5;
    m_health.restarts.last_reason = QUVO_RESTART_CACHE;
    EXPECT_EQ(health_to_json(m_health, true)["restarts"]["last_reason"], "cache");
}

TEST_F(HealthFormatTest, ConfigPathThatIsNotUtf8StillMakesALine) {
    strcpy(m_health.process.config_path, "/etc/\xff.ini");
    const std::string line = health_json_line(health_to_json(m_health, true));
    EXPECT_EQ(nlohmann::json::parse(line)["config_path"], "/etc/\xef\xbf\xbd.ini");
}

TEST_F(HealthFormatTest, StateFollowsThePhaseAndTheWriter) {
    EXPECT_STREQ(health_state(m_health, true), "running");
    EXPECT_STREQ(health_state(m_health, false), "gone");
    m_health.process.phase = QUVO_PHASE_STOPPING;
    EXPECT_STREQ(health_state(m_health, false), "gone");
    m_health.process.phase = QUVO_PHASE_STOPPED;
    EXPECT_STREQ(health_state(m_health, true), "stopped");
    EXPECT_STREQ(health_state(m_health, false), "stopped");
    m_health.process.phase = QUVO_PHASE_FAILED;
    EXPECT_STREQ(health_state(m_health, false), "failed");
    EXPECT_EQ(health_to_json(m_health, false)["state"], "failed");
}

TEST_F(HealthFormatTest, StateAsksWhetherTheWriterStillRuns) {
    m_health.process.pid = static_cast<uint64_t>(getpid());
    m_health.process.start_ticks = quvo_process_start_ticks(m_health.process.pid);
    ASSERT_NE(m_health.process.start_ticks, 0u);
    EXPECT_STREQ(health_state(m_health), "running");
    // The same pid with another start: a process that took the number since.
    m_health.process.start_ticks += 1;
    EXPECT_STREQ(health_state(m_health), "gone");
}

TEST_F(HealthFormatTest, RatesBetweenTwoCopies) {
    quvo_health after = m_health;
    after.records.received += 4000;
    after.records.applied += 3900;
    after.records.stale += 10;
    after.ring.write_count += 3800;
    after.tcp.frames += 0;
    after.restarts.by_reason[QUVO_RESTART_SHORT] += 2;
    const health_rates rates = health_rates_between(m_health, after, 2.0);
    EXPECT_EQ(rates.seconds, 2.0);
    ASSERT_TRUE(rates.received && rates.applied && rates.stale && rates.restored && rates.announced &&
                rates.snapshot_frames && rates.restarts);
    EXPECT_EQ(*rates.received, 2000.0);
    EXPECT_EQ(*rates.applied, 1950.0);
    EXPECT_EQ(*rates.stale, 5.0);
    EXPECT_EQ(*rates.restored, 0.0);
    EXPECT_EQ(*rates.announced, 1900.0);
    EXPECT_EQ(*rates.snapshot_frames, 0.0);
    EXPECT_EQ(*rates.restarts, 2u);

    const nlohmann::ordered_json json = health_rates_to_json(&rates);
    EXPECT_EQ(
        json.dump(),
        "{\"seconds\":2.0,\"received_per_s\":2000.0,\"applied_per_s\":1950.0,\"stale_per_s\":5.0,"
        "\"restored_per_s\":0.0,\"announced_per_s\":1900.0,\"snapshot_frames_per_s\":0.0,\"restarts\":2}");
}

TEST_F(HealthFormatTest, CounterGoingBackwardsGivesNoRate) {
    quvo_health after = m_health;
    after.records.received += 100;
    after.records.stale -= 6;
    after.restarts.by_reason[QUVO_RESTART_GAP] = 0;
    const health_rates rates = health_rates_between(m_health, after, 1.0);
    ASSERT_TRUE(rates.received);
    EXPECT_EQ(*rates.received, 100.0);
    EXPECT_FALSE(rates.stale);
    EXPECT_FALSE(rates.restarts);
    const nlohmann::ordered_json json = health_rates_to_json(&rates);
    EXPECT_TRUE(json["stale_per_s"].is_null());
    EXPECT_TRUE(json["restarts"].is_null());
    EXPECT_EQ(json["received_per_s"], 100.0);
}

TEST_F(HealthFormatTest, NewFeedProcessGivesNoRates) {
    quvo_health after = m_health;
    after.records.received += 100;  // would be a rate in the same process
    for (const bool newPid : {true, false}) {
        after.process.pid = m_health.process.pid + (newPid ? 1 : 0);
        after.process.start_ns = m_health.process.start_ns + (newPid ? 0 : 1);
        const health_rates rates = health_rates_between(m_health, after, 1.0);
        EXPECT_FALSE(rates.received || rates.applied || rates.stale || rates.restored || rates.announced ||
                     rates.snapshot_frames || rates.restarts);
    }
    EXPECT_FALSE(health_rates_between(m_health, m_health, 0.0).received);
    EXPECT_EQ(
        health_rates_to_json(nullptr).dump(),
        "{\"seconds\":null,\"received_per_s\":null,\"applied_per_s\":null,\"stale_per_s\":null,"
        "\"restored_per_s\":null,\"announced_per_s\":null,\"snapshot_frames_per_s\":null,\"restarts\":null}");
}

TEST(HealthTextTest, CountsTimesAndDurations) {
    EXPECT_EQ(format_count(0), "0");
    EXPECT_EQ(format_count(999), "999");
    EXPECT_EQ(format_count(1000), "1,000");
    EXPECT_EQ(format_count(52311), "52,311");
    EXPECT_EQ(format_count(1234567), "1,234,567");
    EXPECT_EQ(format_count(18446744073709551615ull), "18,446,744,073,709,551,615");

    EXPECT_EQ(format_snap_time(93015, 500), "09:30:15.500");
    EXPECT_EQ(format_snap_time(0, 7), "00:00:00.007");
    EXPECT_EQ(format_snap_time(235959, 999), "23:59:59.999");
    EXPECT_EQ(format_snap_time(130000, 0), "13:00:00.000");

    EXPECT_EQ(format_latency(0), "0ns");
    EXPECT_EQ(format_latency(850), "850ns");
    EXPECT_EQ(format_latency(999), "999ns");
    EXPECT_EQ(format_latency(1234), "1.2µs");
    EXPECT_EQ(format_latency(12345), "12.3µs");
    EXPECT_EQ(format_latency(450000), "450µs");
    EXPECT_EQ(format_latency(999600), "1.0ms");
    EXPECT_EQ(format_latency(1500000), "1.5ms");
    EXPECT_EQ(format_latency(2300000000ull), "2.3s");

    EXPECT_EQ(format_duration(2700000), "2.7ms");
    EXPECT_EQ(format_duration(59 * kSecond), "59.0s");
    EXPECT_EQ(format_duration(61 * kSecond), "1m 01s");
    EXPECT_EQ(format_duration(3723 * kSecond), "1h 02m");
    EXPECT_EQ(format_duration(90000 * kSecond), "1d 01h");
}

TEST_F(HealthFormatTest, WallTimeIsLocal) {
    EXPECT_EQ(format_wall_time(kStart + 999999999), "2023-11-14 22:13:20");
    EXPECT_EQ(format_wall_time(0), "never");
}

TEST_F(HealthFormatTest, ReportOfARunningFeed) {
    quvo_health after = m_health;
    after.records.received += 2000;
    const health_rates rates = health_rates_between(m_health, after, 1.0);
    const std::string report = health_report(after, true, kStart + 15 * kSecond, &rates);
    const std::vector<std::string> lines = split_lines(report);
    ASSERT_GT(lines.size(), 10u) << report;
    EXPECT_EQ(lines[0], "phase      live for 10.0s, since 2023-11-14 22:13:25");
    EXPECT_EQ(lines[1], "process    pid 4242, started 2023-11-14 22:13:20 (15.0s ago), run 4");
    EXPECT_EQ(lines[2], "config     /etc/quvo-md.ini");
    EXPECT_EQ(
        lines[3],
        "restarts   3: gap 2, topic 1, short 0, cache 0; the last 2023-11-14 22:13:24 (11.0s ago), gap; 0 in "
        "the last 1.0s");
    EXPECT_TRUE(contains(report, "4 phases completed; the last took 2.7ms")) << report;
    // Used feeds with start, duration and sizes; the others named unused.
    EXPECT_TRUE(contains(report,
                         "  shfe2ps   2023-11-14 22:13:23     1.5ms          300           41        "
                         "148,678          4\n"))
        << report;
    EXPECT_TRUE(contains(report, "  ine2ps    not used\n")) << report;
    EXPECT_TRUE(contains(report, "  ine4ps    not used\n")) << report;
    EXPECT_TRUE(contains(report, "cleared   run_start 4, rst_ack 1, fragment 0, held 0, price_check 0"))
        << report;
    // TCP drops: only those not zero; frames, in_order, held and held_peak always.
    EXPECT_TRUE(contains(report, "tcp        frames 1,833 (0.0/s), in_order 1,803, held 12, held_peak 5\n"))
        << report;
    EXPECT_TRUE(contains(report, "dropped: checksum 3, not_mdqp 7\n")) << report;
    EXPECT_FALSE(contains(report, "short_ip")) << report;
    EXPECT_TRUE(
        contains(report, "received 13,595 (2,000/s), applied 11,475 (0.0/s), announced 11,067 (0.0/s)"))
        << report;
    EXPECT_TRUE(contains(report, "bad_entry 2")) << report;
    EXPECT_TRUE(contains(report, "cache      cached 534, peak 174, replayed 534")) << report;
    EXPECT_TRUE(contains(
        report, "ring       writes 11,067, last exchange time 09:30:15.500, packets SHFE 86,936, INE 63,347"))
        << report;
    EXPECT_TRUE(
        contains(report, "latency    p50 511ns  p90 511ns  p99 2.0µs  p99.9 40.0µs  max 40.0µs  mean 1.0µs"))
        << report;
    EXPECT_TRUE(contains(report, "100 samples: one live record in " +
                                     std::to_string(QUVO_HEALTH_LATENCY_SAMPLE_EVERY) + " is timed"))
        << report;
    EXPECT_TRUE(contains(report, "live polls empty 1,000, busy 100")) << report;
    EXPECT_FALSE(contains(report, "figures it left")) << report;
}

TEST_F(HealthFormatTest, ReportWithoutRatesOrSamples) {
    m_health.latency = quvo_health_latency{};
    m_health.ring.exchange_time = 0;
    m_health.ring.exchange_millis = 0;
    const std::string report = health_report(m_health, true, kStart + 15 * kSecond, nullptr);
    EXPECT_FALSE(contains(report, "/s)")) << report;
    EXPECT_TRUE(contains(report, "latency    no samples yet")) << report;
    EXPECT_TRUE(contains(report, "last exchange time none yet")) << report;
}

TEST_F(HealthFormatTest, ReportOfAFeedThatEndedSaysSoFirst) {
    m_health.process.phase = QUVO_PHASE_STOPPED;
    m_health.process.phase_started_ns[QUVO_PHASE_STOPPED] = kStart + 20 * kSecond;
    std::string report = health_report(m_health, false, kStart + 80 * kSecond, nullptr);
    EXPECT_EQ(split_lines(report)[0],
              "quvo-md stopped at 2023-11-14 22:13:40 (1m 00s ago); these are the figures it left");
    EXPECT_EQ(split_lines(report)[1], "phase      stopped for 1m 00s, since 2023-11-14 22:13:40");
    EXPECT_TRUE(contains(report, "received 11,595")) << report;

    m_health.process.phase = QUVO_PHASE_FAILED;
    m_health.process.phase_started_ns[QUVO_PHASE_FAILED] = kStart + 21 * kSecond;
    report = health_report(m_health, false, kStart + 80 * kSecond, nullptr);
    EXPECT_EQ(split_lines(report)[0],
              "quvo-md failed at 2023-11-14 22:13:41 (59.0s ago); these are the figures it left");

    m_health.process.phase = QUVO_PHASE_LIVE;
    report = health_report(m_health, false, kStart + 80 * kSecond, nullptr);
    EXPECT_EQ(
        split_lines(report)[0],
        "quvo-md (pid 4242) is gone: it ended without stopping in order, last in phase live; these are the "
        "figures it left");
}

TEST_F(HealthFormatTest, SummaryForTheStatusLine) {
    quvo_health after = m_health;
    after.records.received += 52311;
    const health_rates rates = health_rates_between(m_health, after, 1.0);
    EXPECT_EQ(health_summary(after, true, &rates), "live  52,311 rec/s  restarts 3  p99 2.0µs");
    EXPECT_EQ(health_summary(after, true, &rates, true), "live  52,311 rec/s  restarts 3  p99 2.0us");
    EXPECT_EQ(health_summary(after, true, nullptr), "live  restarts 3  p99 2.0µs");
    after.process.pid += 1;
    const health_rates acrossFeeds = health_rates_between(m_health, after, 1.0);
    EXPECT_EQ(health_summary(after, true, &acrossFeeds), "live  restarts 3  p99 2.0µs");
    after.process.pid = m_health.process.pid;
    after.process.phase = QUVO_PHASE_STOPPED;
    EXPECT_EQ(health_summary(after, false, &rates), "stopped  restarts 3  p99 2.0µs");
    after.latency = quvo_health_latency{};
    EXPECT_EQ(health_summary(after, false, nullptr), "stopped  restarts 3  p99 -");
    after.process.phase = QUVO_PHASE_SNAPSHOT;
    EXPECT_EQ(health_summary(after, false, nullptr), "gone  restarts 3  p99 -");
}

}  // namespace
