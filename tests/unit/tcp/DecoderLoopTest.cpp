#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <thread>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "sim/PcapWriter.h"
#include "src/api/Health.h"
#include "tests/support/LogLines.h"
#include "tests/support/ReplayCard.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TcpHarness.h"
#include "tests/support/TempDir.h"

namespace {

// A clock that moves one second each time it is read, so rounds pass in a
// few hundred polls and no test waits.
std::atomic<int64_t> g_now{1000};
std::atomic<int64_t> g_reads{0};
int64_t SteppingClock() {
    ++g_reads;
    return g_now.fetch_add(1) + 1;
}

// A clock that stands still: the first round never ends.
int64_t StoppedClock() {
    ++g_reads;
    return g_now.load();
}

class DecoderLoopTest : public ::testing::Test {
protected:
    explicit DecoderLoopTest(CExanicTcpFunc::ClockFunc clock = SteppingClock) : h(clock) {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(LOG_ERROR | LOG_WARNING | LOG_INFO));
        g_now = 1000;
        g_reads = 0;
        h.enabled.mask = ENABLE_SHFE2PS;
        memset(static_cast<void*>(&health()), 0, sizeof(quvo_health));
    }

    // Replays `frames` on the raw-frame port of a software card feeding the loop.
    void Replay(const std::vector<std::vector<char>>& frames, const std::string& options = "") {
        m_card.emplace(m_dir.Path(), 1, frames, options);
        h.tcp->InitTcp(h.registers.data(), m_card->Rx());
    }

    // One SHFE 2ps snapshot of one instrument, in two messages and two frames.
    static std::vector<std::vector<char>> Snapshot() {
        const std::vector<char> first = CMdqpMessageBuilder(kMdqpFlagMore)
                                            .Snap(1000)
                                            .PacketNo(5)
                                            .Inst("cu2501", 3, 10.0, 70000.0, 5)
                                            .Build();
        const std::vector<char> last =
            CMdqpMessageBuilder(kMdqpFlagLast).Inst("cu2502", 1, 10.0, 70000.0, 5).Build();
        TcpSegmentFields segment;
        std::vector<std::vector<char>> frames;
        frames.push_back(build_tcp_frame(segment, first));
        segment.seq += static_cast<uint32_t>(first.size());
        frames.push_back(build_tcp_frame(segment, last));
        return frames;
    }

    std::string Run() {
        CStdoutCapture capture;
        h.tcp->StartRunning();
        h.tcp->RunTcpDecoder();
        return capture.Stop();
    }

    CTcpHarness h;
    CTempDir m_dir;
    std::optional<CReplayCard> m_card;
};

class DecoderLoopStoppedClockTest : public DecoderLoopTest {
protected:
    DecoderLoopStoppedClockTest() : DecoderLoopTest(StoppedClock) {}
};

TEST_F(DecoderLoopStoppedClockTest, CompletesWhenEveryEnabledFeedFinishes) {
    Replay(Snapshot());
    const std::string out = Run();
    EXPECT_EQ(h.tcp->GetInitialized(), 1);
    EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    EXPECT_EQ(h.area->shfe_inst_cnt, 4);
    EXPECT_EQ(h.area->shfe_pktno, 5);
    EXPECT_STREQ(reinterpret_cast<const char*>(h.area->instmts[3].inst_id), "cu2501");
    EXPECT_EQ(
        log_messages(out, "[I]", "RunTcpDecoder"),
        (std::vector<std::string>{"start initialization, enabled mask 0x1", "initialization completed"}));
}

TEST_F(DecoderLoopTest, FailsAfterTheRoundsAnchoredToTheStart) {
    h.config.timeout_cnt = 3;
    Replay({});
    const std::string out = Run();
    EXPECT_EQ(h.tcp->GetInitialized(), -1);
    EXPECT_EQ(log_messages(out, "[W]", "RunTcpDecoder"),
              (std::vector<std::string>{"initialization still not completed",
                                        "initialization still not completed"}));
    EXPECT_EQ(log_messages(out, "[E]", "RunTcpDecoder"),
              std::vector<std::string>{"too many initialization failures"});
    // start read at 1001; round k ends at the first poll more than 120 (k + 1) s after it
    EXPECT_EQ(g_now.load() - 1001, 361);
}

TEST_F(DecoderLoopTest, ZeroRoundsStillRunOneRound) {
    h.config.timeout_cnt = 0;
    Replay({});
    const std::string out = Run();
    EXPECT_EQ(h.tcp->GetInitialized(), -1);
    EXPECT_TRUE(log_messages(out, "[W]", "RunTcpDecoder").empty());
    EXPECT_EQ(g_now.load() - 1001, 121);
}

TEST_F(DecoderLoopStoppedClockTest, ClearedRunningFlagAbandonsWithoutAVerdict) {
    Replay({});
    std::string out;
    std::thread loop([&] { out = Run(); });
    while (g_reads.load() < 5) {
    }
    h.tcp->StopRunning();
    loop.join();
    EXPECT_EQ(h.tcp->GetInitialized(), 0);
    EXPECT_TRUE(log_messages(out, "[E]", "RunTcpDecoder").empty());
    EXPECT_EQ(log_messages(out, "[I]", "RunTcpDecoder"),
              std::vector<std::string>{"start initialization, enabled mask 0x1"});
}

TEST_F(DecoderLoopTest, StartingOverClearsTheAreaAndTheFinishedMask) {
    h.area->instmts[9].last_px = 1.5;
    h.finished.mask = ENABLE_INE2PS;
    Replay({});
    h.tcp->StopRunning();
    CStdoutCapture capture;
    h.tcp->RunTcpDecoder();
    capture.Stop();
    EXPECT_EQ(h.area->instmts[9].last_px, 0.0);
    EXPECT_EQ(h.finished.mask, 0);
    EXPECT_EQ(health().snapshot.cleared[QUVO_CLEAN_RUN_START], 1u);
}

TEST_F(DecoderLoopTest, FourteenByteFrameIsAbnormalAndFifteenIsHandedOver) {
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
    Replay({std::vector<char>(14, 0), std::vector<char>(15, 0)});
    CStdoutCapture capture;
    {
        CThread worker;
        h.tcp->TcpRecv(worker);
        h.tcp->TcpRecv(worker);
    }
    const std::string out = capture.Stop();
    EXPECT_EQ(log_messages(out, "[W]", "TcpRecv"),
              std::vector<std::string>{"receive abnormal decode length: 14"});
    EXPECT_EQ(log_messages(out, "[X]", "_PacketHandler"),
              std::vector<std::string>{"packet too short for IP, packetLen=15"});
    EXPECT_EQ(health().tcp.polls_busy, 2u);
    EXPECT_EQ(health().tcp.abnormal_length, 1u);
    EXPECT_EQ(health().tcp.frames, 1u);
}

TEST_F(DecoderLoopTest, EachReceiveErrorIsLoggedAsAnAbnormalLength) {
    Replay({std::vector<char>(60, 0), std::vector<char>(60, 0), std::vector<char>(60, 0),
            std::vector<char>(2049, 0)});
    CSoftPort* port = m_card->Card()->GetPort(1);
    ASSERT_TRUE(port->MarkFrame(0, RX_FRAME_ABORTED));
    ASSERT_TRUE(port->MarkFrame(1, RX_FRAME_CORRUPT));
    ASSERT_TRUE(port->MarkFrame(2, RX_FRAME_HWOVFL));
    CStdoutCapture capture;
    {
        CThread worker;
        for (int i = 0; i < 4; ++i) {
            h.tcp->TcpRecv(worker);
        }
    }
    EXPECT_EQ(
        log_messages(capture.Stop(), "[W]", "TcpRecv"),
        (std::vector<std::string>{
            "receive abnormal decode length: 4294967295", "receive abnormal decode length: 4294967294",
            "receive abnormal decode length: 4294967293", "receive abnormal decode length: 4294967039"}));
    EXPECT_EQ(health().tcp.abnormal_length, 4u);
}

TEST_F(DecoderLoopTest, LappedReaderLogsTheOverflowOnce) {
    Replay(std::vector<std::vector<char>>(1000, std::vector<char>(2048, 0)), ",speed=1");
    CStdoutCapture capture;
    {
        CThread worker;
        h.tcp->TcpRecv(worker);
        h.tcp->TcpRecv(worker);
    }
    EXPECT_EQ(log_messages(capture.Stop(), "[W]", "TcpRecv"),
              std::vector<std::string>{"receive abnormal decode length: 4294967040"});
    EXPECT_EQ(m_card->Card()->GetFigures(1).overruns, 1u);
}

TEST_F(DecoderLoopTest, FramesQueuedAfterEveryFeedFinishedAreDropped) {
    // An RST+ACK would start the snapshot over, were it handled.
    TcpSegmentFields reset;
    reset.flags = 0x14;
    const std::vector<char> payload(8, 0);
    Replay({build_tcp_frame(reset, payload)});
    h.area->instmts[2].volume = 77;
    h.finished.mask = h.enabled.mask;
    {
        CThread worker;
        h.tcp->TcpRecv(worker);
    }
    EXPECT_EQ(h.area->instmts[2].volume, 77u);
    EXPECT_EQ(health().tcp.late, 1u);
    EXPECT_EQ(health().tcp.frames, 0u);
}

TEST_F(DecoderLoopTest, FramesQueuedBeforeTheFeedsFinishAreHandled) {
    TcpSegmentFields reset;
    reset.flags = 0x14;
    const std::vector<char> payload(8, 0);
    Replay({build_tcp_frame(reset, payload)});
    h.area->instmts[2].volume = 77;
    {
        CThread worker;
        h.tcp->TcpRecv(worker);
    }
    EXPECT_EQ(h.area->instmts[2].volume, 0u);
}

}  // namespace
