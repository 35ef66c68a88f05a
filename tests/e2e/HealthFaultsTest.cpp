// quvo-md on the simulator with faults: once it stops, every figure of its
// health segment must have moved by what the simulator injected, exactly
// where the run makes that knowable, and a restart for every gap.
#include <gtest/gtest.h>

#include <string>

#include "interface/quvohealthreader.h"
#include "sim/SimState.h"
#include "src/tcp/MdqpRecord.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

namespace {

constexpr double kRunSeconds = 120;

class HealthFaultsE2E : public ::testing::Test {
protected:
    // Runs the feed on `device` to its end; false when it failed.
    bool Run(const std::string& device) {
        const std::string config =
            m_dir.WriteFile("feed.ini", "[config]\ndevice = " + device + ",expect=" + m_dir.Path() +
                                            "/expect.json\ncpucore = -1\ninsts = all\noptions = recv\n"
                                            "shfe2ps = enabled\nine2ps = enabled\nlog_level = 7\n");
        const std::string output = m_dir.Path() + "/feed.out";
        const int status = run_program({QUVO_MD_PATH, config}, m_dir.Path(), output, kRunSeconds);
        m_log = read_file(output);
        EXPECT_EQ(status, 0) << m_log;
        std::string error;
        EXPECT_TRUE(read_sim_state(m_dir.Path() + "/expect.json", m_expected, error)) << error;
        CQuvoHealthReader reader;
        EXPECT_TRUE(reader.Attach(error)) << error;
        EXPECT_TRUE(reader.Read(m_health, error)) << error;
        return status == 0 && error.empty();
    }

    uint64_t Instruments(ESimExchange exchange) const {
        uint64_t n = 0;
        for (const SimInstrumentState& inst : m_expected.instruments) {
            n += inst.exchange == exchange ? 1 : 0;
        }
        return n;
    }

    // What holds in every run, gaps or not.
    void CheckAlwaysExact() {
        const quvo_health& h = m_health;
        const SimFaultCounts& f = m_expected.faults;
        EXPECT_EQ(h.process.phase, QUVO_PHASE_STOPPED);
        EXPECT_TRUE(quvo_health_final(h));
        // Each phase last began in the order a run goes through them.
        const uint64_t* began = h.process.phase_started_ns;
        EXPECT_GE(began[QUVO_PHASE_STARTING], h.process.start_ns);
        for (int phase = QUVO_PHASE_CONFIGURING; phase <= QUVO_PHASE_STOPPED; ++phase) {
            EXPECT_GE(began[phase], began[phase - 1]) << quvo_health_phase_name(phase);
        }
        EXPECT_EQ(began[QUVO_PHASE_FAILED], 0u);

        // Every decoded frame was read: usable or of an abnormal length.
        EXPECT_EQ(h.records.received + h.records.abnormal_length, f.decodedFrames);
        EXPECT_EQ(h.records.abnormal_length, f.shortRecord + f.badLength);
        EXPECT_GT(f.shortRecord, 0u);
        EXPECT_GT(f.badLength, 0u);
        // Usable frames were cached or read live; the busy polls are the live ones.
        EXPECT_EQ(h.latency.polls_busy, h.records.received - h.cache.cached);
        EXPECT_LE(h.cache.replayed, h.cache.cached);
        EXPECT_EQ(h.cache.overflows, 0u);
        EXPECT_EQ(h.cache.corrupt, 0u);
        EXPECT_GE(h.cache.peak, 1u);

        // Every raw frame reached the packet handler, none late.
        EXPECT_EQ(h.tcp.frames, f.rawFrames);
        EXPECT_EQ(h.tcp.polls_busy, f.rawFrames);
        EXPECT_EQ(h.tcp.late, 0u);
        EXPECT_EQ(h.tcp.abnormal_length, 0u);
        EXPECT_EQ(h.tcp.checksum, f.tcpBadChecksum);
        EXPECT_GT(f.tcpBadChecksum, 0u);
        EXPECT_EQ(h.tcp.not_tcp, f.tcpOtherProtocol);
        EXPECT_EQ(h.tcp.other_port, f.tcpOtherPort);
        EXPECT_GT(f.tcpOtherProtocol + f.tcpOtherPort, 0u);
        // A swapped pair holds its first segment until the second arrives.
        EXPECT_EQ(h.tcp.held, f.tcpReorder);
        EXPECT_GT(f.tcpReorder, 0u);
        EXPECT_EQ(h.tcp.held_peak, 1u);
        EXPECT_EQ(h.tcp.duplicates, 0u);
        EXPECT_EQ(h.tcp.old, 0u);
        EXPECT_EQ(h.tcp.rst_ack, f.tcpReset);
        EXPECT_EQ(h.snapshot.cleared[QUVO_CLEAN_RST_ACK], f.tcpReset);
        EXPECT_EQ(h.snapshot.cleared[QUVO_CLEAN_PRICE_CHECK], 0u);
        EXPECT_EQ(h.snapshot.price_check_failures, 0u);

        // One run per snapshot, one snapshot per gap after the first.
        EXPECT_EQ(h.restarts.by_reason[QUVO_RESTART_GAP], m_expected.gaps);
        EXPECT_EQ(h.records.gaps, m_expected.gaps);
        EXPECT_EQ(count_of(m_log, "discontinuous changeNo"), m_expected.gaps);
        EXPECT_EQ(h.restarts.by_reason[QUVO_RESTART_TOPIC] + h.restarts.by_reason[QUVO_RESTART_SHORT] +
                      h.restarts.by_reason[QUVO_RESTART_CACHE],
                  0u);
        EXPECT_EQ(h.process.run, m_expected.gaps + 1);
        EXPECT_EQ(h.snapshot.completed, m_expected.gaps + 1);
        EXPECT_EQ(h.snapshot.cleared[QUVO_CLEAN_RUN_START], m_expected.gaps + 1);
        EXPECT_GT(h.snapshot.last_duration_ns, 0u);
        EXPECT_GE(h.snapshot.total_duration_ns, h.snapshot.last_duration_ns);

        // Each feed's last snapshot defined every instrument of its exchange.
        EXPECT_EQ(h.snapshot.feeds[SHFE_2PS].instruments, Instruments(ESimExchange::SHFE));
        EXPECT_EQ(h.snapshot.feeds[INE_2PS].instruments, Instruments(ESimExchange::INE));
        for (int feed : {SHFE_2PS, INE_2PS}) {
            EXPECT_GE(h.snapshot.feeds[feed].completed, h.snapshot.completed);
            EXPECT_GE(h.snapshot.feeds[feed].completed_ns, h.snapshot.feeds[feed].started_ns);
            EXPECT_GT(h.snapshot.feeds[feed].bytes, 0u);
            EXPECT_GE(h.snapshot.feeds[feed].messages_total, h.snapshot.feeds[feed].messages);
        }
        EXPECT_EQ(h.snapshot.feeds[SHFE_4PS].completed + h.snapshot.feeds[INE_4PS].completed, 0u);

        // Announcements: every applied record but the first ones replayed.
        EXPECT_LE(h.ring.write_count, h.records.applied);
        EXPECT_GE(h.ring.write_count + h.cache.replayed, h.records.applied);
        EXPECT_GT(h.ring.exchange_time, 0u);
        EXPECT_GT(h.ring.shfe_packet_no + h.ring.ine_packet_no, 0u);

        // Latency: one announcement in QUVO_HEALTH_LATENCY_SAMPLE_EVERY, by
        // the ring's write count.
        uint64_t bucketed = 0;
        for (uint64_t count : h.latency.buckets) {
            bucketed += count;
        }
        EXPECT_EQ(bucketed, h.latency.samples);
        EXPECT_LE(h.latency.samples, h.ring.write_count / QUVO_HEALTH_LATENCY_SAMPLE_EVERY);
        // How much is read live rather than replayed depends on the
        // machine's speed; ten sampling turns live give at least one sample.
        if (h.latency.polls_busy >= 10 * QUVO_HEALTH_LATENCY_SAMPLE_EVERY) {
            EXPECT_GT(h.latency.samples, 0u);
        }
        EXPECT_GE(h.latency.sum_ns, h.latency.max_ns);
        EXPECT_GT(h.latency.polls_empty, 0u);
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
    std::string m_log;
    SimState m_expected;
    quvo_health m_health{};
};

constexpr const char* kFaults =
    ",stale=0.02,crossed=0.02,unknown_field=0.02,short_record=0.01,bad_length=0.01,"
    "tcp_reorder=0.05,tcp_bad_checksum=0.05,tcp_other=0.05";

// Without gaps there is one snapshot, taken before the first record is made:
// every record fault meets the book it was made for.
TEST_F(HealthFaultsE2E, WithoutGapsEveryRecordFaultIsCountedExactly) {
    ASSERT_TRUE(Run(std::string("sim:shfe=300,ine=60,rate=50000,records=30000,seed=13,exit=0.3,tcp_reset=1") +
                    kFaults));
    CheckAlwaysExact();
    const quvo_health& h = m_health;
    const SimFaultCounts& f = m_expected.faults;
    EXPECT_EQ(m_expected.gaps, 0u);
    EXPECT_EQ(f.tcpReset, 1u);
    EXPECT_EQ(h.records.applied, m_expected.records);
    EXPECT_EQ(h.cache.replayed, h.cache.cached);
    EXPECT_EQ(h.cache.cleared, 0u);
    EXPECT_EQ(h.records.stale, f.stale);
    EXPECT_EQ(h.records.restored, f.crossed);
    EXPECT_EQ(h.records.unknown_fields, f.unknownField);
    EXPECT_EQ(h.records.received, m_expected.records + f.stale + f.crossed);
    EXPECT_GT(f.stale, 0u);
    EXPECT_GT(f.crossed, 0u);
    EXPECT_GT(f.unknownField, 0u);
    EXPECT_EQ(h.records.unsubscribed + h.records.options + h.records.out_of_range + h.records.other_field_id,
              0u);
    EXPECT_EQ(h.records.bad_level + h.records.bad_event + h.records.bad_entry, 0u);
}

// With gaps the feed restarts: a gap met in the replay clears the cache with
// whatever it still held, and records made before a restart's snapshot meet
// it as stale, so the record faults no longer fix the record counts.
TEST_F(HealthFaultsE2E, WithGapsEveryGapIsARestart) {
    ASSERT_TRUE(Run(std::string("sim:shfe=300,ine=60,rate=50000,records=30000,seed=17,exit=0.3,gap=0.0005") +
                    kFaults));
    CheckAlwaysExact();
    const quvo_health& h = m_health;
    const SimFaultCounts& f = m_expected.faults;
    EXPECT_GE(m_expected.gaps, 3u);
    EXPECT_EQ(h.restarts.last_reason, QUVO_RESTART_GAP);
    EXPECT_GE(h.restarts.last_ns, h.process.start_ns);
    EXPECT_GT(h.records.stale, 0u);
    EXPECT_LE(h.records.restored, f.crossed);
    EXPECT_LE(h.records.unknown_fields, f.unknownField);
    EXPECT_LE(h.records.applied, m_expected.records);
}

// A start-up failure leaves its mark: the failed phase, final figures.
TEST_F(HealthFaultsE2E, AFailedStartIsMarkedFailed) {
    const std::string config =
        m_dir.WriteFile("feed.ini", "[config]\ndevice = sim:shfe=10,ine=10\ncpucore = -1\ninsts = all\n");
    const std::string output = m_dir.Path() + "/feed.out";
    EXPECT_EQ(run_program({QUVO_MD_PATH, config}, m_dir.Path(), output, kRunSeconds), 0);
    EXPECT_EQ(count_of(read_file(output), "all SHFE and INE are disabled"), 1u) << read_file(output);
    CQuvoHealthReader reader;
    std::string error;
    ASSERT_TRUE(reader.Attach(error)) << error;
    ASSERT_TRUE(reader.Read(m_health, error)) << error;
    EXPECT_EQ(m_health.process.phase, QUVO_PHASE_FAILED);
    EXPECT_TRUE(quvo_health_final(m_health));
    EXPECT_EQ(m_health.process.run, 1u);
    EXPECT_GE(m_health.process.phase_started_ns[QUVO_PHASE_FAILED],
              m_health.process.phase_started_ns[QUVO_PHASE_CONFIGURING]);
    EXPECT_EQ(m_health.process.phase_started_ns[QUVO_PHASE_SNAPSHOT], 0u);
}

}  // namespace
