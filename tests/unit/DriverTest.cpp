#include "src/ExanicMdImpl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "interface/commonheader.h"
#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "sim/MdqpBuilder.h"
#include "sim/PcapWriter.h"
#include "src/api/shfe_recv.h"
#include "src/dev/RxFrame.h"
#include "tests/support/LogLines.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

int g_running = 1;
void StopOnInterrupt(int) {
    __atomic_store_n(&g_running, 0, __ATOMIC_RELAXED);
}

// The feed run in this process on replayed captures, with its own keys.
class DriverTest : public ::testing::Test {
protected:
    DriverTest() {
        g_running = 1;
        m_previous = signal(SIGINT, StopOnInterrupt);
    }
    ~DriverTest() override { signal(SIGINT, m_previous); }

    std::string WriteConfig(const std::string& device, const std::string& extra = "shfe2ps = enabled\n",
                            int logLevel = 7) {
        return m_dir.WriteFile("feed.ini", "[config]\ndevice = " + device +
                                               "\ninsts = all\ncpucore = -1\nlog_level = " +
                                               std::to_string(logLevel) + "\n" + extra);
    }

    // A SHFE 2ps snapshot of cu2501 (instrument 0, change number 10) with
    // five levels a side.
    std::string WriteSnapshot() {
        DealInfoField deal{};
        deal.inst_no = 0;
        deal.last_price = 70000.0;
        deal.upper_limit_price = 75000.0;
        deal.lower_limit_price = 65000.0;
        deal.change_no = 10;
        CMdqpMessageBuilder first(kMdqpFlagMore);
        first.Snap(1000).PacketNo(1).Inst("cu2501", 0, 10.0, 70000.0, 5).Deal(deal);
        CMdqpMessageBuilder last(kMdqpFlagLast);
        for (int k = 0; k < 5; ++k) {
            last.Level(0, '0', 69990.0 - 10 * k, 1 + k);
        }
        for (int k = 0; k < 5; ++k) {
            last.Level(0, '1', 70010.0 + 10 * k, 1 + k);
        }
        const std::vector<char> a = first.Build();
        const std::vector<char> b = last.Build();
        const std::string path = m_dir.Path() + "/raw.pcap";
        CPcapWriter writer(path, 1, true);
        TcpSegmentFields segment;
        std::vector<char> frame = build_tcp_frame(segment, a);
        writer.Write(frame.data(), static_cast<uint32_t>(frame.size()), 1);
        segment.seq += static_cast<uint32_t>(a.size());
        frame = build_tcp_frame(segment, b);
        writer.Write(frame.data(), static_cast<uint32_t>(frame.size()), 2);
        return path;
    }

    std::string WriteRecords(const std::vector<std::vector<char>>& records) {
        const std::string path = m_dir.Path() + "/decoded.pcap";
        write_pcap(path, records, 1, 3);
        return path;
    }

    int Run(const std::string& config) {
        CStdoutCapture capture;
        const int result = quvo_recv(config.c_str(), &g_running);
        m_out = capture.Stop();
        return result;
    }

    // Attaches the segments this test's feed wrote.
    share* Area() {
        return reinterpret_cast<share*>(create_shm(m_sandbox.AreaKeyPath().c_str(), QUVO_MD_AREA_SIZE));
    }
    uint16_t* Ring() {
        return reinterpret_cast<uint16_t*>(
            create_shm(m_sandbox.RingKeyPath().c_str(), QUVO_UPDATE_RING_SIZE));
    }

    CShmSandbox m_sandbox;
    CTempDir m_dir;
    std::string m_out;
    void (*m_previous)(int);
};

TEST_F(DriverTest, ClearedRunningFlagLogsTheVersionAndStopsAtOnce) {
    g_running = 0;
    EXPECT_EQ(Run(WriteConfig("replay:raw=/nonexistent")), 0);
    const std::vector<std::string> info = log_messages(m_out, "[I]", "quvo_recv");
    ASSERT_EQ(info.size(), 1u);
    EXPECT_NE(info[0].find(" Shfe V2.1.1.12"), std::string::npos);
    EXPECT_EQ(info[0].rfind("software version: ", 0), 0u);
    EXPECT_EQ(m_out.find("read configure file"), std::string::npos);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), 0);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.RingKeyPath()), 0);
}

TEST_F(DriverTest, UnreadableConfigurationFails) {
    EXPECT_EQ(Run(m_dir.Path() + "/missing.ini"), -1);
    EXPECT_EQ(log_messages(m_out, "[E]", "quvo_recv"),
              std::vector<std::string>{"failed to initialize config data"});
}

TEST_F(DriverTest, DeviceThatCannotBeBroughtUpFails) {
    EXPECT_EQ(Run(WriteConfig("replay:raw=" + m_dir.Path() + "/missing.pcap")), -1);
    EXPECT_EQ(log_messages(m_out, "[E]", "quvo_recv"),
              std::vector<std::string>{"failed to initialize network device"});
}

TEST_F(DriverTest, CardThatIsNotThereFailsTheRun) {
    ASSERT_NE(access("/dev/exanic0", F_OK), 0) << "this host has a card";
    EXPECT_EQ(Run(WriteConfig("exanic0")), -1);
    const std::vector<std::string> errors = log_messages(m_out, "[E]", "InitDev");
    ASSERT_EQ(errors.size(), 1u) << m_out;
    EXPECT_EQ(errors[0].rfind("get [exanic0] handle failed, ", 0), 0u);
    EXPECT_EQ(log_messages(m_out, "[E]", "quvo_recv"),
              std::vector<std::string>{"failed to initialize network device"});
}

TEST_F(DriverTest, NoEnabledFeedFails) {
    EXPECT_EQ(Run(WriteConfig("replay:raw=" + WriteSnapshot(), "")), -1);
    EXPECT_EQ(log_messages(m_out, "[E]", "quvo_recv"),
              std::vector<std::string>{"all SHFE and INE are disabled"});
}

TEST_F(DriverTest, SnapshotThenRecordsLeaveTheBooksAndAWellFormedRing) {
    // Ten records in a row, each setting the best bid's volume to its change number.
    std::vector<std::vector<char>> records;
    for (uint32_t change = 11; change <= 20; ++change) {
        records.push_back(CDecodedRecordBuilder(1000, 0, change).Update(MD_ENTRY_BID, 1, -1, change).Build());
    }
    const std::string config =
        WriteConfig("replay:raw=" + WriteSnapshot() + ",decoded=" + WriteRecords(records) + ",exit=1");
    EXPECT_EQ(Run(config), 0);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.AreaKeyPath()), 0);
    EXPECT_EQ(CShmSandbox::AttachCount(m_sandbox.RingKeyPath()), 0);

    share* area = Area();
    const instrument& inst = area->instmts[0];
    EXPECT_STREQ(reinterpret_cast<const char*>(inst.inst_id), "cu2501");
    EXPECT_EQ(inst.change_no, 20u);
    EXPECT_EQ(inst.bid_px[0], 69990.0);
    EXPECT_EQ(inst.bid_vol[0], 20);
    EXPECT_EQ(inst.ask_px[4], 70050.0);
    EXPECT_EQ(area->shfe_inst_cnt, 1);
    free_shm(reinterpret_cast<char*>(area));

    // Updates from frames cached before the replay are not announced.
    const std::vector<std::string> info = log_messages(m_out, "[I]", "quvo_recv");
    int cached = -1;
    for (const std::string& line : info) {
        sscanf(line.c_str(), "process decode buffer %d frames", &cached);
    }
    ASSERT_GE(cached, 0) << m_out;
    uint16_t* ring = Ring();
    const int announced = 10 - cached;
    for (int i = 0; i < announced; ++i) {
        EXPECT_EQ(ring[i], 0) << "entry " << i;
    }
    EXPECT_EQ(ring[announced], QUVO_UPDATE_RING_END);
    free_shm(reinterpret_cast<char*>(ring));
}

TEST_F(DriverTest, ChangeNumberGapRestartsFromTheConfiguration) {
    std::vector<std::vector<char>> records;
    records.push_back(CDecodedRecordBuilder(1000, 0, 11).Update(MD_ENTRY_BID, 1, -1, 3).Build());
    records.push_back(CDecodedRecordBuilder(1000, 0, 13).Update(MD_ENTRY_BID, 1, -1, 4).Build());
    const std::string config =
        WriteConfig("replay:raw=" + WriteSnapshot() + ",decoded=" + WriteRecords(records) + ",exit=1");
    EXPECT_EQ(Run(config), 0);
    int reads = 0;
    for (const LogLine& line : parse_log_lines(m_out)) {
        reads += line.function == "_LoadConfig" && line.message.rfind("read configure file: ", 0) == 0;
    }
    EXPECT_EQ(reads, 2);
    const std::vector<std::string> errors = log_messages(m_out, "[E]", "_ParseMirp");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("discontinuous changeNo: 13, expected changeNo: 12", 0), 0u);
}

TEST_F(DriverTest, LappedDecodedStreamIsFoundByTheChangeNumberRule) {
    // More records than the receive ring holds arrive at once, then one more
    // a little later: the first poll finds the reader lapped and every
    // waiting record lost, and the late record shows the gap.
    const std::string path = m_dir.Path() + "/decoded.pcap";
    {
        CPcapWriter writer(path, 1, true);
        uint32_t change = 11;
        for (uint32_t i = 0; i < kRxRingChunks + 100; ++i, ++change) {
            const std::vector<char> record =
                CDecodedRecordBuilder(1000, 0, change).Update(MD_ENTRY_BID, 1, -1, 1).Build();
            writer.Write(record.data(), static_cast<uint32_t>(record.size()), 3);
        }
        const std::vector<char> late =
            CDecodedRecordBuilder(1000, 0, change).Update(MD_ENTRY_BID, 1, -1, 1).Build();
        writer.Write(late.data(), static_cast<uint32_t>(late.size()), 200000000);
    }
    const std::string config =
        WriteConfig("replay:raw=" + WriteSnapshot() + ",decoded=" + path + ",speed=1,exit=0.5",
                    "shfe2ps = enabled\n", 15);
    EXPECT_EQ(Run(config), 0);
    EXPECT_EQ(log_messages(m_out, "[D]", "CachePacket"),
              std::vector<std::string>{"receive abnormal decode length: 4294967040"});
    const std::vector<std::string> errors = log_messages(m_out, "[E]", "_ParseMirp");
    ASSERT_EQ(errors.size(), 1u) << m_out;
    EXPECT_EQ(errors[0].rfind("discontinuous changeNo: " + std::to_string(11 + kRxRingChunks + 100) +
                                  ", expected changeNo: 11",
                              0),
              0u);
}

}  // namespace
