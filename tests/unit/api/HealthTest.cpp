#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "interface/quvohealthreader.h"
#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "sim/MdqpBuilder.h"
#include "src/api/Health.h"
#include "src/udp/LiveFigures.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TcpHarness.h"
#include "tests/support/UdpHarness.h"

namespace {

// Each test starts from a zeroed local record and sees only its own counts.
class HealthCounts : public ::testing::Test {
protected:
    HealthCounts() {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(0));
        memset(static_cast<void*>(&health()), 0, sizeof(quvo_health));
    }
    ~HealthCounts() override { CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31)); }

    quvo_health& h = health();
};

TEST(HealthSegment, AttachCreatesAReadableSegmentThatOutlivesTheFeed) {
    CShmSandbox sandbox;
    ASSERT_LT(CShmSandbox::HealthSegmentId(sandbox.AreaKeyPath()), 0);
    attach_health("/etc/../etc/hosts");
    const int id = CShmSandbox::HealthSegmentId(sandbox.AreaKeyPath());
    ASSERT_GE(id, 0);
    struct shmid_ds info {};
    ASSERT_EQ(shmctl(id, IPC_STAT, &info), 0);
    EXPECT_EQ(info.shm_perm.mode & 0777, 0644u);
    EXPECT_EQ(info.shm_segsz, sizeof(quvo_health));
    EXPECT_NE(g_pQuvoHealth, nullptr);

    health_phase(QUVO_PHASE_LIVE);
    health_add(health().records.applied, 5);
    detach_health();
    health_add(health().records.applied);  // goes to the local record now

    CQuvoHealthReader reader;
    std::string error;
    ASSERT_TRUE(reader.Attach(error)) << error;
    quvo_health copy;
    ASSERT_TRUE(reader.Read(copy, error)) << error;
    EXPECT_EQ(copy.magic, QUVO_HEALTH_MAGIC);
    EXPECT_EQ(copy.version, QUVO_HEALTH_VERSION);
    EXPECT_EQ(copy.size, sizeof(quvo_health));
    EXPECT_EQ(copy.process.pid, static_cast<uint64_t>(getpid()));
    EXPECT_STREQ(copy.process.config_path, "/etc/hosts");
    EXPECT_EQ(copy.process.phase, QUVO_PHASE_LIVE);
    EXPECT_GT(copy.process.phase_started_ns[QUVO_PHASE_LIVE], 0u);
    EXPECT_GE(copy.process.phase_started_ns[QUVO_PHASE_LIVE],
              copy.process.phase_started_ns[QUVO_PHASE_STARTING]);
    EXPECT_EQ(copy.records.applied, 5u);
    EXPECT_TRUE(quvo_health_writer_alive(copy));
    EXPECT_FALSE(quvo_health_final(copy));
}

TEST(HealthSegment, ANewFeedStartsItsFiguresFromZero) {
    CShmSandbox sandbox;
    attach_health("first.ini");
    health_add(health().records.received, 7);
    detach_health();
    attach_health("second.ini");
    EXPECT_EQ(health_load(health().records.received), 0u);
    EXPECT_EQ(health().magic, QUVO_HEALTH_MAGIC);
    detach_health();
}

TEST(HealthSegment, ASegmentOfAnotherLayoutIsReplaced) {
    // Smaller and larger than this layout.
    for (size_t size : {size_t{64}, sizeof(quvo_health) + 64}) {
        CShmSandbox sandbox;
        const key_t key = ftok(sandbox.AreaKeyPath().c_str(), QUVO_HEALTH_PROJ_ID);
        const int old = shmget(key, size, IPC_CREAT | 0644);
        ASSERT_GE(old, 0);
        attach_health("x.ini");
        const int now = CShmSandbox::HealthSegmentId(sandbox.AreaKeyPath());
        EXPECT_NE(now, old) << size;
        struct shmid_ds info {};
        ASSERT_EQ(shmctl(now, IPC_STAT, &info), 0);
        EXPECT_EQ(info.shm_segsz, sizeof(quvo_health));
        EXPECT_EQ(health().magic, QUVO_HEALTH_MAGIC);
        detach_health();
    }
}

TEST(HealthSegment, AReaderRefusesAnUnknownLayout) {
    CShmSandbox sandbox;
    attach_health("x.ini");
    health().version = QUVO_HEALTH_VERSION + 1;
    CQuvoHealthReader reader;
    std::string error;
    ASSERT_TRUE(reader.Attach(error)) << error;
    quvo_health copy;
    EXPECT_FALSE(reader.Read(copy, error));
    EXPECT_NE(error.find("layout version 2"), std::string::npos) << error;
    health().version = QUVO_HEALTH_VERSION;
    detach_health();
}

TEST(HealthSegment, NoSegmentIsNamedAsSuch) {
    CShmSandbox sandbox;
    CQuvoHealthReader reader;
    std::string error;
    EXPECT_FALSE(reader.Attach(error));
    EXPECT_EQ(error, "no quvo-md has made a health segment for key directory " + sandbox.Dir() +
                         ": start the feed, or set QUVO_KEY_DIR");
}

TEST(HealthLatency, BucketsArePowersOfTwoInQuarters) {
    EXPECT_EQ(quvo_health_bucket(0), 0u);
    EXPECT_EQ(quvo_health_bucket(3), 3u);
    EXPECT_EQ(quvo_health_bucket(4), 4u);
    EXPECT_EQ(quvo_health_bucket(7), 7u);
    EXPECT_EQ(quvo_health_bucket(8), 8u);
    EXPECT_EQ(quvo_health_bucket(9), 8u);
    EXPECT_EQ(quvo_health_bucket(10), 9u);
    EXPECT_EQ(quvo_health_bucket(1000), quvo_health_bucket(1023));
    EXPECT_EQ(quvo_health_bucket((1u << 20) - 1), QUVO_HEALTH_LATENCY_BUCKETS - 2);
    EXPECT_EQ(quvo_health_bucket(1u << 20), QUVO_HEALTH_LATENCY_BUCKETS - 1);
    EXPECT_EQ(quvo_health_bucket(UINT64_MAX), QUVO_HEALTH_LATENCY_BUCKETS - 1);
    for (unsigned i = 0; i + 1 < QUVO_HEALTH_LATENCY_BUCKETS; ++i) {
        EXPECT_EQ(quvo_health_bucket(quvo_health_bucket_low(i)), i);
        EXPECT_EQ(quvo_health_bucket(quvo_health_bucket_low(i + 1) - 1), i);
    }
}

TEST_F(HealthCounts, LatencySamplesGiveSumMaxAndPercentiles) {
    for (uint64_t ns : {100u, 100u, 100u, 200u, 5000u}) {
        health_latency(ns);
    }
    EXPECT_EQ(h.latency.samples, 5u);
    EXPECT_EQ(h.latency.sum_ns, 5500u);
    EXPECT_EQ(h.latency.max_ns, 5000u);
    EXPECT_EQ(h.latency.buckets[quvo_health_bucket(100)], 3u);
    // The bucket holding 100 ns spans 96..111.
    EXPECT_EQ(quvo_health_percentile(h.latency, 0.5), 111u);
    EXPECT_EQ(quvo_health_percentile(h.latency, 0.8),
              quvo_health_bucket_low(quvo_health_bucket(200) + 1) - 1);
    EXPECT_EQ(quvo_health_percentile(h.latency, 0.99), 5000u);
    EXPECT_EQ(quvo_health_percentile(h.latency, 1.0), 5000u);
}

// The record outcomes a test can cause one at a time.
class ParseCounts : public HealthCounts {
protected:
    ParseCounts() {
        inst = &u.AddInstrument(7, "cu2501", 0.5, 1000.0, 10, 100);
        for (int i = 0; i < 5; ++i) {
            inst->bid_px[i] = 1000.0 - 0.5 * i;
            inst->bid_vol[i] = i + 1;
            inst->ask_px[i] = 1001.0 + 0.5 * i;
            inst->ask_vol[i] = 10 + i;
        }
    }
    int Parse(CDecodedRecordBuilder record) { return u.Parse(record.Build()); }

    CUdpHarness u;
    instrument* inst = nullptr;
};

TEST_F(ParseCounts, AppliedStaleRestoredAndGapEachHaveTheirCounter) {
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, 101, 93001, 250, 42)), 1);

    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, 101)), 0);
    EXPECT_EQ(h.records.stale, 1u);

    // Bid 1 at the best ask: crossed, undone.
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, 102).Update(MD_ENTRY_BID, 1, 2, 1)), 0);
    EXPECT_EQ(h.records.restored, 1u);

    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, 104)), -1);
    EXPECT_EQ(h.records.gaps, 1u);
    EXPECT_EQ(u.udp.GetFatalReason(), QUVO_RESTART_GAP);
    // Applied records are counted by the loop that announces them.
    EXPECT_EQ(h.records.applied, 0u);
}

TEST_F(ParseCounts, FiltersAndFaultsEachHaveTheirCounter) {
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 8, 1)), 0);
    EXPECT_EQ(h.records.unsubscribed, 1u);
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 16384, 1)), 0);
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kIneTopic, 4096, 1)), 0);
    EXPECT_EQ(h.records.out_of_range, 2u);

    u.AddInstrument(9, "cu2501C70000");
    u.config.options = 0;
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 9, 1)), 0);
    EXPECT_EQ(h.records.options, 1u);
    u.config.options = 1;

    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, 101, 93000, 0, 1, 0x0005)), 1);
    EXPECT_EQ(h.records.other_field_id, 1u);

    const uint16_t unknown[4] = {0x1FFF, 0, 0, 0};
    EXPECT_EQ(Parse(CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, 101)
                        .PriceChange(MD_ENTRY_BID, 11, 0, 1, PRICE_EVENT_UPDATE)
                        .PriceChange(MD_ENTRY_BID, 1, 0, 1, 9)
                        .PriceChange(7, 1, 0, 1, PRICE_EVENT_UPDATE)
                        .Bytes(unknown, sizeof(unknown))),
              1);
    EXPECT_EQ(h.records.bad_level, 1u);
    EXPECT_EQ(h.records.bad_event, 1u);
    EXPECT_EQ(h.records.bad_entry, 1u);
    EXPECT_EQ(h.records.unknown_fields, 1u);

    EXPECT_EQ(Parse(CDecodedRecordBuilder(777, 7, 102)), -1);
    EXPECT_EQ(h.records.unsupported_topic, 1u);
    EXPECT_EQ(u.udp.GetFatalReason(), QUVO_RESTART_TOPIC);

    std::vector<char> shortRecord(23, 0);
    EXPECT_EQ(u.Parse(shortRecord), -1);
    EXPECT_EQ(h.records.short_record, 1u);
    EXPECT_EQ(u.udp.GetFatalReason(), QUVO_RESTART_SHORT);
}

TEST_F(ParseCounts, ACorruptCacheEntryIsCountedAndNamedAsTheReason) {
    std::vector<char> area(CExanicUdpFunc::kCacheSize, 0);
    u.cache.pCacheBuf = area.data();
    u.cache.cachedCount = 1;
    u.cache.ciOffset = CExanicUdpFunc::kCacheSize - 4;
    EXPECT_EQ(u.udp.ProcessCached(), -1);
    EXPECT_EQ(h.cache.corrupt, 1u);
    EXPECT_EQ(h.cache.cleared, 1u);
    EXPECT_EQ(u.udp.GetFatalReason(), QUVO_RESTART_CACHE);
}

// A replayed record is counted applied by the replay when it applies, and
// only then; the live loop counts its own.
TEST_F(ParseCounts, AReplayedRecordCountsAsAppliedOnlyWhenItApplies) {
    std::vector<char> area(CExanicUdpFunc::kCacheSize, 0);
    size_t at = 0;
    for (uint32_t changeNo : {101u, 101u, 102u}) {  // applies, stale, applies
        const std::vector<char> record = CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, changeNo).Build();
        const CachedDecodeHdr header{static_cast<uint32_t>(record.size()), 0};
        memcpy(area.data() + at, &header, sizeof(header));
        memcpy(area.data() + at + sizeof(header), record.data(), record.size());
        at += sizeof(header) + record.size();
    }
    u.cache.pCacheBuf = area.data();
    u.cache.cachedCount = 3;
    EXPECT_EQ(u.udp.ProcessCached(), 1);
    EXPECT_EQ(h.records.applied, 1u);
    EXPECT_EQ(u.udp.ProcessCached(), 0);
    EXPECT_EQ(h.records.applied, 1u);
    EXPECT_EQ(h.records.stale, 1u);
    EXPECT_EQ(u.udp.ProcessCached(), 1);
    EXPECT_EQ(h.records.applied, 2u);
    EXPECT_EQ(h.cache.replayed, 3u);
}

// The live loop's figures, driven as the loop drives them: UdpRecv counts an
// empty poll itself, everything else is the loop's.
class LiveCounts : public HealthCounts {
protected:
    void EmptyPoll(CLiveFigures& live, uint32_t writeCount) {
        live.BeforePoll(writeCount);
        health_add(h.latency.polls_empty);
        live.Idle(writeCount);
    }
    void IgnoredRecord(CLiveFigures& live, uint32_t writeCount) {
        live.BeforePoll(writeCount);
        live.Idle(writeCount);
    }
    void Announce(CLiveFigures& live, uint32_t writeCount) {
        live.BeforePoll(writeCount - 1);
        live.Announced(writeCount);
    }

    CUdpHarness u;
};

TEST_F(LiveCounts, ReceivedAndAppliedFollowTheRingAndThePollsThatAnnounceNothing) {
    h.records.received = 10;
    h.records.applied = 8;
    h.latency.polls_empty = 5;
    h.cache.cached = 3;
    CLiveFigures live(u.udp, 100);
    for (uint32_t w = 101; w <= 103; ++w) {
        Announce(live, w);
    }
    // An announcement stores nothing.
    EXPECT_EQ(h.records.applied, 8u);
    EXPECT_EQ(h.records.received, 10u);
    EXPECT_EQ(h.ring.write_count, 0u);

    EmptyPoll(live, 103);
    EXPECT_EQ(h.records.applied, 11u);
    EXPECT_EQ(h.records.received, 13u);
    EXPECT_EQ(h.ring.write_count, 103u);
    IgnoredRecord(live, 103);
    EXPECT_EQ(h.records.received, 14u);
    EmptyPoll(live, 103);
    EmptyPoll(live, 103);
    Announce(live, 104);
    live.End(104);
    EXPECT_EQ(h.records.applied, 12u);
    EXPECT_EQ(h.records.received, 15u);
    EXPECT_EQ(h.ring.write_count, 104u);
    EXPECT_EQ(h.latency.polls_empty, 8u);
    EXPECT_EQ(h.latency.polls_busy, 15u - 3u);
    EXPECT_EQ(h.latency.samples, 0u);
}

TEST_F(LiveCounts, EveryNthAnnouncementIsSampledWithTheFiguresUpToIt) {
    constexpr uint32_t n = QUVO_HEALTH_LATENCY_SAMPLE_EVERY;
    CLiveFigures live(u.udp, 0);
    for (uint32_t w = 1; w <= 2 * n + 22; ++w) {
        Announce(live, w);
        if (w == n) {
            EXPECT_EQ(h.latency.samples, 1u);
            EXPECT_EQ(h.records.applied, n);
            EXPECT_EQ(h.records.received, n);
            EXPECT_EQ(h.ring.write_count, n);
        }
    }
    EXPECT_EQ(h.latency.samples, 2u);
    EXPECT_EQ(h.records.applied, 2 * n);
    uint64_t bucketed = 0;
    for (uint64_t count : h.latency.buckets) {
        bucketed += count;
    }
    EXPECT_EQ(bucketed, 2u);
    EXPECT_GT(h.latency.max_ns, 0u);
    EXPECT_GE(h.latency.sum_ns, h.latency.max_ns);
    EXPECT_GT(h.latency.buckets[quvo_health_bucket(h.latency.max_ns)], 0u);
    live.End(2 * n + 22);
    EXPECT_EQ(h.records.applied, 2 * n + 22);
}

// The clock starts before the poll that brings the sampled announcement,
// the last of them when the first ones find nothing.
TEST_F(LiveCounts, LatencyRunsFromThePollThatReadTheFrame) {
    constexpr uint32_t n = QUVO_HEALTH_LATENCY_SAMPLE_EVERY;
    CLiveFigures live(u.udp, n - 2);
    Announce(live, n - 1);
    live.BeforePoll(n - 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    health_add(h.latency.polls_empty);
    live.Idle(n - 1);
    live.BeforePoll(n - 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    live.Announced(n);
    ASSERT_EQ(h.latency.samples, 1u);
    EXPECT_GE(h.latency.max_ns, 2000000u);
    EXPECT_LT(h.latency.max_ns, 200000000u);
}

TEST_F(LiveCounts, TheRingsWriteCountWrapsWithoutLosingRecords) {
    h.records.applied = 1ull << 33;
    CLiveFigures live(u.udp, 0xFFFFFFF0u);
    uint32_t w = 0xFFFFFFF0u;
    for (int k = 0; k < 40; ++k) {
        Announce(live, ++w);
    }
    EXPECT_EQ(w, 24u);
    EXPECT_EQ(h.latency.samples, 1u);  // at 2^32, which is 0
    live.End(w);
    EXPECT_EQ(h.records.applied, (1ull << 33) + 40);
    EXPECT_EQ(h.records.received, 40u);
}

// Frames of one snapshot connection on the 2ps port.
class TcpCounts : public HealthCounts {
protected:
    std::vector<char> Segment(uint32_t seq, const std::vector<char>& payload) {
        TcpSegmentFields fields;
        fields.seq = seq;
        return build_tcp_frame(fields, payload);
    }
    // Opens the SHFE 2ps session; returns the next sequence number.
    uint32_t Start() {
        const std::vector<char> start =
            CMdqpMessageBuilder().Snap(1000).PacketNo(1).Inst("cu2501", 3, 0.5, 1000, 10).Build();
        t.Handle(Segment(1000, start));
        return 1000 + static_cast<uint32_t>(start.size());
    }
    std::vector<char> Message() { return CMdqpMessageBuilder().PacketNo(2).Build(); }

    CTcpHarness t;
};

TEST_F(TcpCounts, ValidationStepsEachCountTheirDrops) {
    t.Handle(std::vector<char>(20, 0));
    EXPECT_EQ(h.tcp.short_ip, 1u);

    TcpSegmentFields udp;
    udp.protocol = 17;
    t.Handle(build_tcp_frame(udp, Message()));
    EXPECT_EQ(h.tcp.not_tcp, 1u);

    TcpSegmentFields other;
    other.dstPort = 4000;
    t.Handle(build_tcp_frame(other, Message()));
    EXPECT_EQ(h.tcp.other_port, 1u);

    TcpSegmentFields bad;
    bad.badChecksum = true;
    t.Handle(build_tcp_frame(bad, Message()));
    EXPECT_EQ(h.tcp.checksum, 1u);

    t.Handle(Segment(5, Message()));  // no session yet, and not a start
    EXPECT_EQ(h.tcp.not_start, 1u);

    TcpSegmentFields reset;
    reset.flags = 0x14;
    t.Handle(build_tcp_frame(reset, Message()));
    EXPECT_EQ(h.tcp.rst_ack, 1u);
    EXPECT_EQ(h.snapshot.cleared[QUVO_CLEAN_RST_ACK], 1u);
    EXPECT_EQ(h.tcp.frames, 6u);
}

TEST_F(TcpCounts, HeldDuplicateOldAndInOrderSegments) {
    const uint32_t next = Start();
    EXPECT_EQ(h.snapshot.feeds[SHFE_2PS].messages, 1u);
    EXPECT_EQ(h.snapshot.feeds[SHFE_2PS].instruments, 1u);
    EXPECT_GT(h.snapshot.feeds[SHFE_2PS].started_ns, 0u);
    const std::vector<char> m = Message();
    const uint32_t size = static_cast<uint32_t>(m.size());
    t.Handle(Segment(next + size, m));      // a gap: held
    t.Handle(Segment(next + 2 * size, m));  // held behind it
    t.Handle(Segment(next + size, m));      // already held
    EXPECT_EQ(h.tcp.held, 2u);
    EXPECT_EQ(h.tcp.held_peak, 2u);
    EXPECT_EQ(h.tcp.duplicates, 1u);
    t.Handle(Segment(next, m));  // fills the gap; both held ones drain
    EXPECT_EQ(h.tcp.in_order, 1u);
    EXPECT_EQ(h.snapshot.feeds[SHFE_2PS].messages, 4u);
    EXPECT_EQ(h.snapshot.feeds[SHFE_2PS].bytes, (next - 1000) + 3u * size);
    t.Handle(Segment(next, m));  // below the expected sequence number now
    EXPECT_EQ(h.tcp.old, 1u);

    const std::vector<char> last = CMdqpMessageBuilder(kMdqpFlagLast).PacketNo(3).Build();
    t.Handle(Segment(next + 3 * size, last));
    EXPECT_EQ(h.snapshot.feeds[SHFE_2PS].completed, 1u);
    EXPECT_GE(h.snapshot.feeds[SHFE_2PS].completed_ns, h.snapshot.feeds[SHFE_2PS].started_ns);
}

}  // namespace
