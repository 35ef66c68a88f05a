#include <gtest/gtest.h>

#include "public/log/CommonLog.h"
#include "src/config/ConfigParse.h"
#include "tests/support/LogLines.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

class FeedConfigTest : public ::testing::Test {
protected:
    FeedConfigTest() { CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(15)); }

    // Runs InitConfig on `text`, keeping what it printed in m_out.
    int Init(const std::string& text) {
        m_config = ExanicMdConfigData();
        const std::string path = m_dir.WriteFile("feed.ini", text);
        CConfigParse parse(m_config);
        CStdoutCapture capture;
        const int result = parse.InitConfig(path);
        m_out = capture.Stop();
        return result;
    }

    // Messages of the lines written at `label` ("[E]", "[X]" ...) by InitConfig.
    std::vector<std::string> Messages(const std::string& label) const {
        return log_messages(m_out, label, "InitConfig");
    }

    CTempDir m_dir;
    ExanicMdConfigData m_config;
    std::string m_out;
};

TEST_F(FeedConfigTest, DeviceAloneHasNoSubscribedInstrument) {
    EXPECT_EQ(Init("[config]\ndevice = eth3\n"), -1);
    EXPECT_EQ(Messages("[E]"), std::vector<std::string>{"no subscribed instrument"});
}

TEST_F(FeedConfigTest, DeviceAndAllGiveEveryDefault) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\n"), 0);
    EXPECT_EQ(m_config.device, "eth3");
    EXPECT_EQ(m_config.insts, "all");
    EXPECT_EQ(m_config.recvall, 1);
    EXPECT_EQ(m_config.listen_insts, std::vector<std::string>{"all"});
    EXPECT_EQ(m_config.total_listen_cnt, 1u);
    EXPECT_EQ(m_config.shfe2ps_ip_a, "239.4.42.72:21000");
    EXPECT_EQ(m_config.shfe2ps_ip_b, "239.3.42.71:21000");
    EXPECT_EQ(m_config.shfe4ps_ip_a, "239.3.2.3:21101");
    EXPECT_EQ(m_config.shfe4ps_ip_b, "239.4.2.4:21101");
    EXPECT_EQ(m_config.ine2ps_ip_a, "239.3.52.71:25000");
    EXPECT_EQ(m_config.ine2ps_ip_b, "239.4.52.72:25000");
    EXPECT_EQ(m_config.ine4ps_ip_a, "239.4.151.92:25101");
    EXPECT_EQ(m_config.ine4ps_ip_b, "239.3.151.91:25101");
    EXPECT_EQ(m_config.shfe2ps_topic_id, 1000);
    EXPECT_EQ(m_config.shfe4ps_topic_id, 1101);
    EXPECT_EQ(m_config.ine2ps_topic_id, 5000);
    EXPECT_EQ(m_config.ine4ps_topic_id, 5101);
    EXPECT_EQ(m_config.md2ps_snap_port, 33022);
    EXPECT_EQ(m_config.md4ps_snap_port, 22000);
    EXPECT_EQ(m_config.cpucore, 0);
    EXPECT_EQ(m_config.options, 1);
    EXPECT_EQ(m_config.split_all_field, 1);
    EXPECT_EQ(m_config.timeout_cnt, 10);
    EXPECT_FALSE(m_config.shield_price_check);
    EXPECT_EQ(CCommonLog::GetInstance().GetLogLevel(), 7);
    EXPECT_FALSE(m_config.shfe2ps);
    EXPECT_FALSE(m_config.shfe4ps);
    EXPECT_FALSE(m_config.ine2ps);
    EXPECT_FALSE(m_config.ine4ps);
}

TEST_F(FeedConfigTest, InstrumentListIsSplitTrimmedAndCounted) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = cu2501, al2502,,zn2503 ,\n"), 0);
    EXPECT_EQ(m_config.listen_insts, (std::vector<std::string>{"cu2501", "al2502", "zn2503"}));
    EXPECT_EQ(m_config.total_listen_cnt, 3u);
    EXPECT_EQ(m_config.recvall, 0);
    EXPECT_EQ(m_config.insts, "cu2501, al2502,,zn2503 ,");
}

TEST_F(FeedConfigTest, UpperCaseAllIsAnInstrumentList) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = ALL\n"), 0);
    EXPECT_EQ(m_config.recvall, 0);
    EXPECT_EQ(m_config.listen_insts, std::vector<std::string>{"ALL"});
    EXPECT_EQ(m_config.total_listen_cnt, 1u);
}

TEST_F(FeedConfigTest, ListOfOnlyCommasSubscribesNothing) {
    EXPECT_EQ(Init("[config]\ndevice = eth3\ninsts = , ,\n"), -1);
    EXPECT_EQ(Messages("[E]"), std::vector<std::string>{"no subscribed instrument"});
}

TEST_F(FeedConfigTest, OptionsNorecvDropsOptionsAndAnythingElseKeepsThem) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\noptions = norecv\n"), 0);
    EXPECT_EQ(m_config.options, 0);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\noptions = no\n"), 0);
    EXPECT_EQ(m_config.options, 1);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\noptions =\n"), 0);
    EXPECT_EQ(m_config.options, 1);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\noptions = NORECV\n"), 0);
    EXPECT_EQ(m_config.options, 1);
}

TEST_F(FeedConfigTest, FeedSwitchesNeedExactlyEnabled) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshfe2ps = Enabled\nine2ps = enabled\n"), 0);
    EXPECT_FALSE(m_config.shfe2ps);
    EXPECT_TRUE(m_config.ine2ps);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshfe2ps = enabled\n"), 0);
    EXPECT_TRUE(m_config.shfe2ps);
    EXPECT_FALSE(m_config.ine2ps);
}

TEST_F(FeedConfigTest, FourPsFeedsCannotBeEnabled) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshfe4ps = enabled\nine4ps = enabled\n"), 0);
    EXPECT_FALSE(m_config.shfe4ps);
    EXPECT_FALSE(m_config.ine4ps);
}

TEST_F(FeedConfigTest, ShieldPriceCheckIsTrueOnlyForTheValueOne) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshield_price_check = 2\n"), 0);
    EXPECT_FALSE(m_config.shield_price_check);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshield_price_check = 01\n"), 0);
    EXPECT_TRUE(m_config.shield_price_check);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshield_price_check = true\n"), 0);
    EXPECT_FALSE(m_config.shield_price_check);
}

TEST_F(FeedConfigTest, LogLevel31LogsEverySubscribedInstrument) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = cu2501,al2502,cu2501\nlog_level = 31\n"), 0);
    EXPECT_EQ(Messages("[X]"), (std::vector<std::string>{"inst: cu2501", "inst: al2502", "inst: cu2501"}));
    EXPECT_EQ(Messages("[D]").size(), 1u);
    EXPECT_EQ(CCommonLog::GetInstance().GetLogLevel(), 31);
}

TEST_F(FeedConfigTest, LogLevel7LogsNeitherInstrumentsNorSummary) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = cu2501,al2502\nlog_level = 7\n"), 0);
    EXPECT_TRUE(Messages("[X]").empty());
    EXPECT_TRUE(Messages("[D]").empty());
    EXPECT_EQ(m_out.find("inst: "), std::string::npos);
    EXPECT_EQ(m_out.find("configure param"), std::string::npos);
}

TEST_F(FeedConfigTest, InstrumentLinesNeedALevelAboveSeven) {
    // 15 enables the summary but not LOG_DEBUG_EX; 23 enables LOG_DEBUG_EX but not LOG_DEBUG.
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = cu2501\nlog_level = 15\n"), 0);
    EXPECT_TRUE(Messages("[X]").empty());
    EXPECT_EQ(Messages("[D]").size(), 1u);
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = cu2501\nlog_level = 23\n"), 0);
    EXPECT_EQ(Messages("[X]"), std::vector<std::string>{"inst: cu2501"});
    EXPECT_TRUE(Messages("[D]").empty());
}

TEST_F(FeedConfigTest, PortsAreCutToSixteenBits) {
    ASSERT_EQ(
        Init("[config]\ndevice = eth3\ninsts = all\nmd2ps_snap_port = 65536\nmd4ps_snap_port = 70000\n"), 0);
    EXPECT_EQ(m_config.md2ps_snap_port, 0);
    EXPECT_EQ(m_config.md4ps_snap_port, 4464);
}

TEST_F(FeedConfigTest, NumbersFollowDecimalStrtol) {
    ASSERT_EQ(Init("[config]\ndevice = eth3\ninsts = all\nshfe2ps_topic_id = 0x1000\n"
                   "shfe4ps_topic_id = -12abc\nine2ps_topic_id = abc\nine4ps_topic_id = 40000\n"
                   "cpucore = +3\ntimeout_cnt = 0010\nsplit_all_field = 300\n"),
              0);
    EXPECT_EQ(m_config.shfe2ps_topic_id, 0);
    EXPECT_EQ(m_config.shfe4ps_topic_id, -12);
    EXPECT_EQ(m_config.ine2ps_topic_id, 0);
    EXPECT_EQ(m_config.ine4ps_topic_id, -25536);
    EXPECT_EQ(m_config.cpucore, 3);
    EXPECT_EQ(m_config.timeout_cnt, 10);
    EXPECT_EQ(m_config.split_all_field, 44);
}

TEST_F(FeedConfigTest, EmptyDeviceFails) {
    EXPECT_EQ(Init("[config]\ndevice = \ninsts = all\n"), -1);
    EXPECT_EQ(Messages("[E]"), std::vector<std::string>{"null device name"});
}

TEST_F(FeedConfigTest, DeviceIsCheckedBeforeTheInstrumentList) {
    EXPECT_EQ(Init("[config]\n"), -1);
    EXPECT_EQ(Messages("[E]"), std::vector<std::string>{"null device name"});
}

TEST_F(FeedConfigTest, DeviceOutsideTheConfigSectionIsNotRead) {
    EXPECT_EQ(Init("device = eth3\n[other]\ndevice = eth4\ninsts = all\n[config]\ninsts = all\n"), -1);
    EXPECT_EQ(Messages("[E]"), std::vector<std::string>{"null device name"});
}

TEST_F(FeedConfigTest, SummaryLineIsWrittenWordForWord) {
    ASSERT_EQ(Init("[config]\n"
                   "device = exanic0\n"
                   "insts = cu2501,sc2503\n"
                   "shfe2ps_ip_a = 1.1.1.1:1\n"
                   "shfe2ps_ip_b = 2.2.2.2:2\n"
                   "shfe4ps_ip_a = 3.3.3.3:3\n"
                   "shfe4ps_ip_b = 4.4.4.4:4\n"
                   "ine2ps_ip_a = 5.5.5.5:5\n"
                   "ine2ps_ip_b = 6.6.6.6:6\n"
                   "ine4ps_ip_a = 7.7.7.7:7\n"
                   "ine4ps_ip_b = 8.8.8.8:8\n"
                   "shfe2ps_topic_id = 1001\n"
                   "shfe4ps_topic_id = 1102\n"
                   "ine2ps_topic_id = 5001\n"
                   "ine4ps_topic_id = -5\n"
                   "md2ps_snap_port = 40000\n"
                   "md4ps_snap_port = 22001\n"
                   "cpucore = 5\n"
                   "options = norecv\n"
                   "split_all_field = -2\n"
                   "shfe2ps = enabled\n"
                   "ine2ps = enabled\n"
                   "timeout_cnt = 12\n"
                   "log_level = 15\n"),
              0);
    const std::string expected =
        "configure param: device: exanic0, insts: cu2501,sc2503,\n"
        "shfe2ps_ip_a: 1.1.1.1:1, shfe2ps_ip_b: 2.2.2.2:2, shfe4ps_ip_a: 3.3.3.3:3, shfe4ps_ip_b: 4.4.4.4:4,"
        "ine2ps_ip_b: 6.6.6.6:6, ine2ps_ip_a: 5.5.5.5:5, ine4ps_ip_b: 8.8.8.8:8, ine4ps_ip_a: 7.7.7.7:7,\n"
        "hfe2ps_topic_id: 1001, hfe4ps_topic_id: 1102, ne2ps_topic_id: 5001, ne4ps_topic_id: -5,"
        "md2ps_snap_port: 40000, md4ps_snap_port: 22001, cpucore: 5, recvall: 0, options: 0, "
        "split_all_field: -2,\n"
        "shfe2ps: 1, shfe4ps: 0, ine2ps: 1, ine4ps: 0,timeout_cnt: 12, log_level: 15";
    EXPECT_EQ(Messages("[D]"), std::vector<std::string>{expected});
}

}  // namespace
