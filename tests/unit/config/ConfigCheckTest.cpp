#include "src/config/ConfigCheck.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/PcapWriter.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

// A file the feed starts with and the check has nothing to say about.
constexpr const char* kClean = "[config]\ndevice = sim:shfe=10,ine=0\ninsts = all\nshfe2ps = enabled\n";

class ConfigCheckTest : public ::testing::Test {
protected:
    ConfigCheckResult Check(const std::string& text) {
        return CConfigCheck::Check(m_dir.WriteFile("feed.ini", text));
    }

    // Findings as "line: text" and "line: ERROR text".
    static std::vector<std::string> Findings(const ConfigCheckResult& result) {
        std::vector<std::string> lines;
        for (const ConfigFinding& finding : result.findings) {
            lines.push_back(std::to_string(finding.line) + ": " +
                            (finding.severity == ConfigFinding::ERROR ? "ERROR " : "") + finding.text);
        }
        return lines;
    }

    // The one finding of `text` added to the clean file, which must be a warning.
    std::string OnlyWarning(const std::string& extra) {
        const ConfigCheckResult result = Check(std::string(kClean) + extra);
        EXPECT_EQ(result.findings.size(), 1u) << ::testing::PrintToString(Findings(result));
        EXPECT_EQ(result.ExitStatus(), 1);
        return result.findings.empty() ? "" : Findings(result).front();
    }

    static bool Has(const ConfigCheckResult& result, const std::string& text) {
        const std::vector<std::string> lines = Findings(result);
        return std::any_of(lines.begin(), lines.end(),
                           [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }

    CTempDir m_dir;
};

TEST_F(ConfigCheckTest, CleanFileHasNoFindingsAndStatusZero) {
    const ConfigCheckResult result = Check(kClean);
    EXPECT_TRUE(result.findings.empty()) << ::testing::PrintToString(Findings(result));
    EXPECT_EQ(result.ExitStatus(), 0);
    EXPECT_EQ(result.config.device, "sim:shfe=10,ine=0");
    EXPECT_EQ(result.config.recvall, 1);
    EXPECT_TRUE(result.config.shfe2ps);
    EXPECT_EQ(result.logLevel, 7);
}

TEST_F(ConfigCheckTest, UnknownKeyNamesTheNearestKnownKey) {
    EXPECT_EQ(OnlyWarning("devcie = exanic0\n"), "5: devcie: unknown key, did you mean device?");
    EXPECT_EQ(OnlyWarning("log_levle = 31\n"), "5: log_levle: unknown key, did you mean log_level?");
    EXPECT_EQ(OnlyWarning("ine2pss = enabled\n"), "5: ine2pss: unknown key, did you mean ine2ps?");
    EXPECT_EQ(OnlyWarning("colour = red\n"), "5: colour: unknown key, ignored");
}

TEST_F(ConfigCheckTest, MisspeltDeviceIsAlsoARefusal) {
    const ConfigCheckResult result =
        Check("[config]\ndevcie = sim:shfe=10\ninsts = all\nshfe2ps = enabled\n");
    EXPECT_EQ(Findings(result),
              (std::vector<std::string>{"2: devcie: unknown key, did you mean device?",
                                        "0: ERROR null device name: device is missing or empty"}));
    EXPECT_EQ(result.ExitStatus(), 2);
}

TEST_F(ConfigCheckTest, FourPsSwitchesHaveNoKey) {
    EXPECT_EQ(OnlyWarning("shfe4ps = enabled\n"),
              "5: shfe4ps: unknown key; no key enables a 4ps feed in this version");
}

TEST_F(ConfigCheckTest, EveryKeyTheFeedReadsIsKnown) {
    // The known keys are asked of the reader: exactly the keys of [config].
    EXPECT_EQ(CConfigCheck::KnownKeys(), (std::vector<std::string>{"cpucore",          "device",
                                                                   "ine2ps",           "ine2ps_ip_a",
                                                                   "ine2ps_ip_b",      "ine2ps_topic_id",
                                                                   "ine4ps_ip_a",      "ine4ps_ip_b",
                                                                   "ine4ps_topic_id",  "insts",
                                                                   "log_level",        "md2ps_snap_port",
                                                                   "md4ps_snap_port",  "options",
                                                                   "shfe2ps",          "shfe2ps_ip_a",
                                                                   "shfe2ps_ip_b",     "shfe2ps_topic_id",
                                                                   "shfe4ps_ip_a",     "shfe4ps_ip_b",
                                                                   "shfe4ps_topic_id", "shield_price_check",
                                                                   "split_all_field",  "timeout_cnt"}));
    std::string text = kClean;
    for (const std::string& key : CConfigCheck::KnownKeys()) {
        if (key != "device" && key != "insts" && key != "shfe2ps") {
            text += key + " = " + (key.find("_ip_") != std::string::npos ? "239.1.1.1:2000" : "1") + "\n";
        }
    }
    const ConfigCheckResult result = Check(text);
    EXPECT_FALSE(Has(result, "unknown key")) << ::testing::PrintToString(Findings(result));
    // Each of them changed the record: the reader reads every one.
    EXPECT_EQ(result.config.md2ps_snap_port, 1);
    EXPECT_EQ(result.config.timeout_cnt, 1);
    EXPECT_EQ(result.config.split_all_field, 1);
    EXPECT_TRUE(result.config.shield_price_check);
    EXPECT_EQ(result.config.ine4ps_ip_b, "239.1.1.1:2000");
    EXPECT_EQ(result.logLevel, 1);
}

TEST_F(ConfigCheckTest, KeysOutsideAnySectionAreReported) {
    const ConfigCheckResult result = Check(std::string("device = exanic0\n") + kClean);
    EXPECT_EQ(
        Findings(result),
        (std::vector<std::string>{"1: device: outside any section, ignored (keys belong under [config])"}));
}

TEST_F(ConfigCheckTest, OtherSectionsAndBlankedConfigAreReported) {
    EXPECT_EQ(OnlyWarning("[feed]\nx = 1\n"), "5: section [feed] is not read: the keys after it are ignored");
    EXPECT_EQ(OnlyWarning("[ config ]\nlog_level = 31\n"),
              "5: [ config ] is not [config] (names are exact, blanks and case count): the keys after it are "
              "ignored");
    EXPECT_EQ(OnlyWarning("[Config]\n"),
              "5: [Config] is not [config] (names are exact, blanks and case count): the keys after it are "
              "ignored");
}

TEST_F(ConfigCheckTest, RepeatedConfigHeadingDiscardsEarlierKeys) {
    const ConfigCheckResult result = Check(std::string(kClean) + "[config]\nlog_level = 31\n");
    EXPECT_EQ(Findings(result)[0], "5: [config] again: the 3 key(s) set after line 1 are discarded");
    // The discarded keys are gone for the feed too.
    EXPECT_TRUE(Has(result, "ERROR null device name"));
    EXPECT_TRUE(Has(result, "ERROR no subscribed instrument"));
    EXPECT_TRUE(Has(result, "ERROR all SHFE and INE are disabled"));
    EXPECT_EQ(result.logLevel, 31);
    EXPECT_EQ(result.ExitStatus(), 2);
}

TEST_F(ConfigCheckTest, MalformedLinesAndRepeatedKeysAreReported) {
    EXPECT_EQ(OnlyWarning("[config\n"),
              "5: a heading without ']' is ignored; the lines after it stay in [config]");
    EXPECT_EQ(OnlyWarning("timeout\n"), "5: a line without '=' is ignored");
    EXPECT_EQ(OnlyWarning("= 3\n"), "5: a value without a key is ignored");
    EXPECT_EQ(OnlyWarning("shfe2ps = enabled\n"),
              "5: shfe2ps: given again; this value replaces the one at line 4");
    EXPECT_EQ(OnlyWarning("options = norecv;x\n"),
              "5: options: ';' starts a comment anywhere, so the value is \"norecv\"");
}

TEST_F(ConfigCheckTest, FeedSwitchMustBeExactlyEnabled) {
    EXPECT_EQ(OnlyWarning("ine2ps = enabeld\n"),
              "5: ine2ps = enabeld: only \"enabled\" enables the feed; it stays disabled");
    const ConfigCheckResult result = Check(std::string(kClean) + "ine2ps = Enabled\n");
    EXPECT_FALSE(result.config.ine2ps);
    EXPECT_EQ(OnlyWarning("ine2ps = Enabled\n"),
              "5: ine2ps = Enabled: only \"enabled\" enables the feed; it stays disabled");
}

TEST_F(ConfigCheckTest, NumbersThatDoNotFitTheirBits) {
    EXPECT_EQ(OnlyWarning("md2ps_snap_port = 70000\n"),
              "5: md2ps_snap_port = 70000: does not fit 16 bits, the feed uses 4464");
    EXPECT_EQ(OnlyWarning("md4ps_snap_port = 65536\n"),
              "5: md4ps_snap_port = 65536: does not fit 16 bits, the feed uses 0");
    EXPECT_EQ(OnlyWarning("shfe2ps_topic_id = 40000\n"),
              "5: shfe2ps_topic_id = 40000: does not fit 16 bits, the feed uses -25536");
    EXPECT_EQ(OnlyWarning("split_all_field = 200\n"),
              "5: split_all_field = 200: does not fit 8 bits, the feed uses -56");
    EXPECT_TRUE(Check(std::string(kClean) + "md2ps_snap_port = 65535\n").findings.empty());
}

TEST_F(ConfigCheckTest, TrailingJunkHexadecimalAndEmptyNumbers) {
    EXPECT_EQ(OnlyWarning("timeout_cnt = 10s\n"),
              "5: timeout_cnt = 10s: the text after the number is ignored, read as 10");
    EXPECT_EQ(OnlyWarning("shfe2ps_topic_id = 0x1000\n"),
              "5: shfe2ps_topic_id = 0x1000: hexadecimal is not read, read as 0");
    EXPECT_EQ(OnlyWarning("timeout_cnt = ten\n"), "5: timeout_cnt = ten: not a number, read as 0");
    EXPECT_EQ(OnlyWarning("timeout_cnt =\n"), "5: timeout_cnt is empty: read as 0, not the default 10");
    const ConfigCheckResult result = Check(std::string(kClean) + "timeout_cnt =\n");
    EXPECT_EQ(result.config.timeout_cnt, 0);
}

TEST_F(ConfigCheckTest, ShieldPriceCheckOtherThanZeroOrOne) {
    EXPECT_EQ(OnlyWarning("shield_price_check = 2\n"),
              "5: shield_price_check = 2: only 1 shields the price check; read as off");
    EXPECT_EQ(OnlyWarning("shield_price_check = 01\n"),
              "5: shield_price_check = 01: only 1 shields the price check; read as 1 (on)");
    EXPECT_TRUE(Check(std::string(kClean) + "shield_price_check = 1\n").findings.empty());
}

TEST_F(ConfigCheckTest, LogLevelOutsideItsMask) {
    EXPECT_EQ(
        OnlyWarning("log_level = 32\n"),
        "5: log_level = 32: outside 0..31 (error 1, warning 2, info 4, debug 8, debug_ex 16); the mask is "
        "used as it is");
    EXPECT_NE(OnlyWarning("log_level = -1\n").find("outside 0..31"), std::string::npos);
    EXPECT_TRUE(Check(std::string(kClean) + "log_level = 31\n").findings.empty());
    EXPECT_TRUE(Check(std::string(kClean) + "log_level = 0\n").findings.empty());
}

TEST_F(ConfigCheckTest, CpuCoreOutsideThisHost) {
    const int cpus = get_nprocs();
    EXPECT_EQ(OnlyWarning("cpucore = " + std::to_string(cpus) + "\n"),
              "5: cpucore = " + std::to_string(cpus) + ": not a CPU of this host (0 to " +
                  std::to_string(cpus - 1) + "); the feed runs unpinned");
    EXPECT_NE(OnlyWarning("cpucore = -2\n").find("not a CPU of this host"), std::string::npos);
    // -1 asks for no pinning.
    EXPECT_TRUE(Check(std::string(kClean) + "cpucore = -1\n").findings.empty());
    EXPECT_TRUE(Check(std::string(kClean) + "cpucore = " + std::to_string(cpus - 1) + "\n").findings.empty());
}

TEST_F(ConfigCheckTest, InstrumentEntriesThatCanNeverMatch) {
    const ConfigCheckResult result =
        Check("[config]\ndevice = sim:shfe=10\ninsts = cu, cu2501, cu2501C72000\nshfe2ps = enabled\n");
    EXPECT_EQ(
        Findings(result),
        (std::vector<std::string>{"3: insts entry cu2501C72000 is longer than six characters: no instrument "
                                  "can match it (entries are a product such as cu, or an identifier's "
                                  "first six characters)"}));
    const ConfigCheckResult all = Check("[config]\ndevice = sim:shfe=10\ninsts = ALL\nshfe2ps = enabled\n");
    EXPECT_EQ(all.config.recvall, 0);
    EXPECT_EQ(Findings(all),
              (std::vector<std::string>{"3: insts entry ALL: an instrument list, not all (only "
                                        "insts = all, alone and in lower case, subscribes every "
                                        "instrument)"}));
}

TEST_F(ConfigCheckTest, OptionsOtherThanNorecvKeepOptions) {
    EXPECT_EQ(OnlyWarning("options = no\n"),
              "5: options = no: only \"norecv\" drops option instruments; they are kept");
    EXPECT_TRUE(Check(std::string(kClean) + "options = norecv\n").findings.empty());
    EXPECT_TRUE(Check(std::string(kClean) + "options = recv\n").findings.empty());
}

TEST_F(ConfigCheckTest, FeedAddressesThatDoNotParse) {
    EXPECT_EQ(OnlyWarning("shfe2ps_ip_a = 239.4.42.72\n"),
              "5: shfe2ps_ip_a = 239.4.42.72: no ':port', the card gets address 0 and port 0");
    EXPECT_EQ(OnlyWarning("ine2ps_ip_b = 239.4.52:25000\n"),
              "5: ine2ps_ip_b = 239.4.52:25000: not a dotted IPv4 address");
    EXPECT_EQ(OnlyWarning("ine2ps_ip_b = 239.4.52.72:port\n"),
              "5: ine2ps_ip_b = 239.4.52.72:port: the port is not a number from 1 to 65535");
}

TEST_F(ConfigCheckTest, RefusalsUseTheFeedsOwnWords) {
    const ConfigCheckResult result = Check("[config]\n");
    EXPECT_EQ(Findings(result),
              (std::vector<std::string>{
                  "0: ERROR null device name: device is missing or empty",
                  "0: ERROR no subscribed instrument: insts is missing or empty",
                  "0: ERROR all SHFE and INE are disabled: set shfe2ps = enabled or ine2ps = "
                  "enabled",
              }));
    EXPECT_EQ(result.ExitStatus(), 2);
}

TEST_F(ConfigCheckTest, MissingFileIsARefusal) {
    const ConfigCheckResult result = CConfigCheck::Check(m_dir.Path() + "/absent.ini");
    EXPECT_FALSE(result.opened);
    EXPECT_EQ(result.ExitStatus(), 2);
    EXPECT_TRUE(Has(result, "unable to open config file: " + m_dir.Path() + "/absent.ini"));
}

TEST_F(ConfigCheckTest, SoftwareCardOptionsAreParsedAndCapturesOpened) {
    const ConfigCheckResult badOption =
        Check("[config]\ndevice = sim:shfe=10,speed=3\ninsts = all\nshfe2ps = enabled\n");
    EXPECT_EQ(badOption.ExitStatus(), 2);
    EXPECT_TRUE(Has(badOption, "ERROR device = sim:shfe=10,speed=3: software card:"))
        << ::testing::PrintToString(Findings(badOption));

    const std::string missing = m_dir.Path() + "/absent.pcap";
    const ConfigCheckResult noCapture =
        Check("[config]\ndevice = replay:raw=" + missing + "\ninsts = all\nshfe2ps = enabled\n");
    EXPECT_EQ(noCapture.ExitStatus(), 2);
    EXPECT_TRUE(Has(noCapture, missing)) << ::testing::PrintToString(Findings(noCapture));

    const std::string raw = m_dir.Path() + "/raw.pcap";
    const std::string decoded = m_dir.Path() + "/decoded.pcap";
    write_pcap(raw, {std::vector<char>(60, 'r'), std::vector<char>(60, 'r'), std::vector<char>(60, 'r')});
    write_pcap(decoded, {std::vector<char>(40, 'd')}, 147);
    const ConfigCheckResult replay = Check("[config]\ndevice = replay:raw=" + raw + ",decoded=" + decoded +
                                           "\ninsts = all\nshfe2ps = enabled\n");
    EXPECT_EQ(replay.ExitStatus(), 0) << ::testing::PrintToString(Findings(replay));
    EXPECT_EQ(replay.deviceDetail, "software card replaying 1 decoded and 3 raw frames");
}

TEST_F(ConfigCheckTest, CardNameNeedsCardSupportAndItsDevice) {
    const ConfigCheckResult result = Check("[config]\ndevice = exanic97\ninsts = all\nshfe2ps = enabled\n");
    EXPECT_EQ(result.ExitStatus(), 2);
#if QUVO_HAVE_EXANIC
    EXPECT_TRUE(Has(result, "/dev/exanic97")) << ::testing::PrintToString(Findings(result));
#else
    EXPECT_TRUE(Has(result, "this build has no card support")) << ::testing::PrintToString(Findings(result));
#endif
    EXPECT_TRUE(Has(result, "failed to initialize network device"));
}

TEST_F(ConfigCheckTest, WritesNoLogAndKeepsTheLogLevel) {
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
    CStdoutCapture capture;
    const ConfigCheckResult result = Check("[config]\nlog_level = 3\n");
    EXPECT_EQ(capture.Stop(), "");
    EXPECT_EQ(result.logLevel, 3);
    EXPECT_EQ(CCommonLog::GetInstance().GetLogLevel(), 31);
}

TEST_F(ConfigCheckTest, ReportListsFindingsValuesAndVerdict) {
    const std::string path = m_dir.WriteFile("feed.ini", std::string(kClean) + "devcie = x\n");
    const std::string report = CConfigCheck::Report(path, CConfigCheck::Check(path));
    EXPECT_NE(report.find(path + ":5: warning: devcie: unknown key, did you mean device?\n"),
              std::string::npos)
        << report;
    EXPECT_NE(report.find("  md2ps_snap_port     33022\n"), std::string::npos) << report;
    EXPECT_NE(report.find("  shfe2ps             enabled\n"), std::string::npos) << report;
    EXPECT_NE(
        report.find(path + ": 1 warning, 0 errors: the feed would start, but not as the file seems to say\n"),
        std::string::npos)
        << report;
}

}  // namespace
