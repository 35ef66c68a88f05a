#include <gtest/gtest.h>

#include "public/log/CommonLog.h"
#include "src/config/ConfigParse.h"
#include "tests/support/ConfigParseAccess.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

using Access = CConfigParseTestAccess;
using Table = std::map<std::string, std::string>;

class IniReaderTest : public ::testing::Test {
protected:
    IniReaderTest() : m_parse(m_config) { CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(15)); }

    // Loads `text` and returns the section table (empty if absent).
    Table Load(const std::string& text, const std::string& section = "config") {
        const std::string path = m_dir.WriteFile("feed.ini", text);
        EXPECT_EQ(Access::LoadConfig(m_parse, path), 0);
        const auto& sections = Access::Sections(m_parse);
        const auto it = sections.find(section);
        return it == sections.end() ? Table() : it->second;
    }

    CTempDir m_dir;
    ExanicMdConfigData m_config;
    CConfigParse m_parse;
};

TEST_F(IniReaderTest, SemicolonStartsACommentInsideAValue) {
    EXPECT_EQ(Load("[config]\nkey = a;b\n"), (Table{{"key", "a"}}));
}

TEST_F(IniReaderTest, HashStartsACommentSoTheValueIsEmpty) {
    EXPECT_EQ(Load("[config]\nkey = #1\n"), (Table{{"key", ""}}));
}

TEST_F(IniReaderTest, WholeLineCommentsAndBlankLinesAreSkipped) {
    EXPECT_EQ(Load("; comment\n# another\n\n   \n[config] ; heading comment\na = 1 # trailing\n"),
              (Table{{"a", "1"}}));
}

TEST_F(IniReaderTest, HeadingIsRecognisedAfterTrimmingTheLine) {
    EXPECT_EQ(Load("  [config]  \ndevice = exanic0\n"), (Table{{"device", "exanic0"}}));
}

TEST_F(IniReaderTest, BlanksInsideBracketsBelongToTheSectionName) {
    Load("[ config ]\ndevice = exanic0\n");
    const auto& sections = Access::Sections(m_parse);
    EXPECT_EQ(sections.count("config"), 0u);
    ASSERT_EQ(sections.count(" config "), 1u);
    EXPECT_EQ(sections.at(" config "), (Table{{"device", "exanic0"}}));
}

TEST_F(IniReaderTest, TextAfterTheClosingBracketIsIgnored) {
    EXPECT_EQ(Load("[config]extra]\na = 1\n"), (Table{{"a", "1"}}));
}

TEST_F(IniReaderTest, UnclosedHeadingIsIgnoredAndKeysStayInTheCurrentSection) {
    Load("[other]\n[config\na = 1\n");
    const auto& sections = Access::Sections(m_parse);
    EXPECT_EQ(sections.count("config"), 0u);
    EXPECT_EQ(sections.at("other"), (Table{{"a", "1"}}));
}

TEST_F(IniReaderTest, KeysBeforeTheFirstHeadingAreDropped) {
    Load("device=exanic0\n");
    EXPECT_TRUE(Access::Sections(m_parse).empty());
    EXPECT_EQ(Access::GetConfigData(m_parse, "config", "device", "dflt"), "dflt");
}

TEST_F(IniReaderTest, EmptyHeadingDropsTheKeysThatFollow) {
    Load("[config]\na = 1\n[]\nb = 2\n");
    const auto& sections = Access::Sections(m_parse);
    EXPECT_EQ(sections.at("config"), (Table{{"a", "1"}}));
    EXPECT_TRUE(sections.at("").empty());
}

TEST_F(IniReaderTest, RepeatedHeadingDiscardsEarlierKeys) {
    EXPECT_EQ(Load("[config]\na=1\n[other]\n[config]\nb=2\n"), (Table{{"b", "2"}}));
}

TEST_F(IniReaderTest, RepeatedKeyKeepsTheLastValue) {
    EXPECT_EQ(Load("[config]\na=1\na=2\n"), (Table{{"a", "2"}}));
}

TEST_F(IniReaderTest, FurtherEqualSignsBelongToTheValue) {
    EXPECT_EQ(Load("[config]\na==b\n"), (Table{{"a", "=b"}}));
}

TEST_F(IniReaderTest, EmptyKeyIsStored) {
    EXPECT_EQ(Load("[config]\n=x\n"), (Table{{"", "x"}}));
}

TEST_F(IniReaderTest, LineWithoutEqualSignIsIgnored) {
    EXPECT_EQ(Load("[config]\njust words\na = 1\n"), (Table{{"a", "1"}}));
}

TEST_F(IniReaderTest, CarriageReturnLineEndsReadLikeLineFeeds) {
    const Table lf = Load("[config]\ndevice = exanic0\ninsts = cu2501,al2502\nempty =\n");
    const Table crlf = Load("[config]\r\ndevice = exanic0\r\ninsts = cu2501,al2502\r\nempty =\r\n");
    EXPECT_EQ(crlf, lf);
    EXPECT_EQ(crlf.at("device"), "exanic0");
}

TEST_F(IniReaderTest, LastLineWithoutLineFeedIsRead) {
    EXPECT_EQ(Load("[config]\na = 1"), (Table{{"a", "1"}}));
}

TEST_F(IniReaderTest, QuotesAreOrdinaryCharacters) {
    EXPECT_EQ(Load("[config]\ndevice = \"exanic0\"\n"), (Table{{"device", "\"exanic0\""}}));
}

TEST_F(IniReaderTest, NamesAreCaseSensitive) {
    Load("[Config]\nDevice = exanic0\n");
    EXPECT_EQ(Access::GetConfigData(m_parse, "config", "device", "none"), "none");
    EXPECT_EQ(Access::GetConfigData(m_parse, "Config", "device", "none"), "none");
    EXPECT_EQ(Access::GetConfigData(m_parse, "Config", "Device", "none"), "exanic0");
}

TEST_F(IniReaderTest, PresentEmptyValueIsReturnedInsteadOfTheDefault) {
    Load("[config]\ndevice =\n");
    EXPECT_EQ(Access::GetConfigData(m_parse, "config", "device", "dflt"), "");
    EXPECT_EQ(Access::GetConfigData(m_parse, "config", "absent", "dflt"), "dflt");
    EXPECT_EQ(Access::GetConfigData(m_parse, "nosuch", "device", "dflt"), "dflt");
}

TEST_F(IniReaderTest, ReadingIsLoggedWithThePath) {
    const std::string path = m_dir.WriteFile("feed.ini", "[config]\n");
    CStdoutCapture capture;
    EXPECT_EQ(Access::LoadConfig(m_parse, path), 0);
    const std::string out = capture.Stop();
    EXPECT_NE(out.find("\x1b[32;1m [I] "), std::string::npos);
    EXPECT_NE(out.find("[src/config/ConfigParse.cpp:"), std::string::npos);
    EXPECT_NE(out.find("][_LoadConfig]read configure file: " + path + "\x1b[0m \n"), std::string::npos);
}

TEST_F(IniReaderTest, UnopenableFileIsAnErrorAndLeavesTheRecordUntouched) {
    m_config.device = "untouched";
    const std::string path = m_dir.Path() + "/missing.ini";
    CStdoutCapture capture;
    EXPECT_EQ(m_parse.InitConfig(path), -1);
    const std::string out = capture.Stop();
    EXPECT_NE(out.find("\x1b[31;1m [E] "), std::string::npos);
    EXPECT_NE(out.find("][_LoadConfig]unable to open config file: " + path + "\x1b[0m \n"),
              std::string::npos);
    EXPECT_EQ(m_config.device, "untouched");
    EXPECT_EQ(m_config.shfe2ps_topic_id, 0);
}

TEST(IniTrimTest, RemovesOnlySpaceTabCarriageReturnAndLineFeed) {
    EXPECT_EQ(Access::Trim(" \t\r\n value \t\r\n"), "value");
    EXPECT_EQ(Access::Trim("a b"), "a b");
    EXPECT_EQ(Access::Trim("\v x \f"), "\v x \f");
    EXPECT_EQ(Access::Trim(" \t "), "");
    EXPECT_EQ(Access::Trim(""), "");
}

TEST(IniSplitTest, DropsEmptyPiecesAndTrimsTheRest) {
    EXPECT_EQ(Access::SplitByChar(" cu2501 ,, al2502, ", ','),
              (std::vector<std::string>{"cu2501", "al2502"}));
}

TEST(IniSplitTest, AlwaysSplitsOnTheComma) {
    EXPECT_EQ(Access::SplitByChar("a;b,c", ';'), (std::vector<std::string>{"a;b", "c"}));
}

TEST(IniSplitTest, KeepsDuplicatesAndOrder) {
    EXPECT_EQ(Access::SplitByChar("b,a,b", ','), (std::vector<std::string>{"b", "a", "b"}));
    EXPECT_TRUE(Access::SplitByChar("", ',').empty());
    EXPECT_TRUE(Access::SplitByChar(" , ,", ',').empty());
}

}  // namespace
