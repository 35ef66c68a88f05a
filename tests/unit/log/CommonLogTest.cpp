#include "public/log/CommonLog.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr const char* kFileName = "Quvo_Exanic_20260304_050607.log";

time_t FixedTime(time_t*) {
    return 1000;
}

struct tm* FixedLocalTime(const time_t*, struct tm* out) {
    *out = {};
    out->tm_year = 2026 - 1900;
    out->tm_mon = 2;
    out->tm_mday = 4;
    out->tm_hour = 5;
    out->tm_min = 6;
    out->tm_sec = 7;
    return out;
}

std::atomic<int> g_localTimeFailures{0};

struct tm* FailingLocalTime(const time_t* t, struct tm* out) {
    if (g_localTimeFailures.load() > 0) {
        g_localTimeFailures.fetch_sub(1);
        return nullptr;
    }
    return FixedLocalTime(t, out);
}

std::string ThreadId() {
    return std::to_string(static_cast<unsigned long>(pthread_self()));
}

std::string ExpectedLine(const std::string& colourAndLabel, const std::string& text) {
    return "\x1b[" + colourAndLabel + " [20260304][05:06:07][" + ThreadId() + "] " + text + "\x1b[0m \n";
}

class CommonLogTest : public ::testing::Test {
protected:
    CommonLogTest() : m_log(FixedTime, FixedLocalTime) {
        std::string path = m_dir.Path();
        m_log.SetLogPath(path);
    }

    std::string LogFile() const { return read_file(m_dir.Path() + "/" + kFileName); }

    CTempDir m_dir;
    CCommonLog m_log;
};

TEST_F(CommonLogTest, WritesTheSameColouredLineToStdoutAndFile) {
    CStdoutCapture capture;
    const int line = __LINE__ + 1;
    QUVO_LOG_TO(m_log, LOG_INFO, "snapshot %s loaded in %d ms", "shfe", 42);
    const std::string out = capture.Stop();

    const std::string expected =
        ExpectedLine("32;1m [I]", "[tests/unit/log/CommonLogTest.cpp:" + std::to_string(line) +
                                      "][TestBody]snapshot shfe loaded in 42 ms");
    EXPECT_EQ(out, expected);
    EXPECT_EQ(LogFile(), expected);
}

TEST_F(CommonLogTest, EachLevelHasItsColourAndLabel) {
    m_log.SetLogLevel(static_cast<ELOGLEVEL>(~0));
    const std::vector<std::pair<int, std::string>> levels = {
        {LOG_ERROR, "31;1m [E]"},
        {LOG_WARNING, "33;1m [W]"},
        {LOG_INFO, "32;1m [I]"},
        {LOG_DEBUG, "37;1m [D]"},
        {LOG_DEBUG_EX, "34;1m [X]"},
        {32, "34;1m [N]"},
        {LOG_ERROR | LOG_INFO, "34;1m [N]"},
    };
    for (const auto& [level, prefix] : levels) {
        CStdoutCapture capture;
        m_log.WriteLog(static_cast<ELOGLEVEL>(level), "%s", "m");
        EXPECT_EQ(capture.Stop(), ExpectedLine(prefix, "m")) << "level " << level;
    }
}

TEST_F(CommonLogTest, StartsWithAllLevelsButDebugExEnabled) {
    EXPECT_EQ(m_log.GetLogLevel(), 15);
}

TEST_F(CommonLogTest, DebugExIsDroppedAtMask15AndWrittenAt31) {
    CStdoutCapture capture;
    m_log.SetLogLevel(static_cast<ELOGLEVEL>(15));
    m_log.WriteLog(LOG_DEBUG_EX, "%s", "hidden");
    EXPECT_EQ(capture.Stop(), "");

    CStdoutCapture again;
    m_log.SetLogLevel(static_cast<ELOGLEVEL>(31));
    m_log.WriteLog(LOG_DEBUG_EX, "%s", "shown");
    EXPECT_EQ(again.Stop(), ExpectedLine("34;1m [X]", "shown"));
}

TEST_F(CommonLogTest, DisabledLevelCreatesNoFile) {
    m_log.SetLogLevel(LOG_ERROR);
    CStdoutCapture capture;
    m_log.WriteLog(LOG_INFO, "%s", "dropped");
    EXPECT_EQ(capture.Stop(), "");
    EXPECT_TRUE(m_dir.List().empty());

    m_log.WriteLog(LOG_ERROR, "%s", "kept");
    EXPECT_EQ(m_dir.List(), std::vector<std::string>{kFileName});
}

TEST_F(CommonLogTest, MessageWithoutArgumentsIsPrintedExactly) {
    CStdoutCapture capture;
    const int line = __LINE__ + 1;
    QUVO_LOG_TO(m_log, LOG_WARNING, "null device name");
    EXPECT_EQ(capture.Stop(),
              ExpectedLine("33;1m [W]", "[tests/unit/log/CommonLogTest.cpp:" + std::to_string(line) +
                                            "][TestBody]null device name"));
}

TEST_F(CommonLogTest, MessageTextIsNotExpandedTwice) {
    CStdoutCapture capture;
    QUVO_LOG_TO(m_log, LOG_INFO, "%s", "100%d %s");
    EXPECT_NE(capture.Stop().find("[TestBody]100%d %s\x1b[0m \n"), std::string::npos);
}

TEST_F(CommonLogTest, DisabledLevelDoesNotEvaluateOrFormatTheMessage) {
    m_log.SetLogLevel(LOG_ERROR);
    int evaluated = 0;
    CStdoutCapture capture;
    QUVO_LOG_TO(m_log, LOG_DEBUG, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    QUVO_LOG_TO(m_log, LOG_ERROR, "%d", ++evaluated);
    EXPECT_EQ(evaluated, 1);
    EXPECT_NE(capture.Stop().find("[TestBody]1\x1b[0m"), std::string::npos);
}

TEST_F(CommonLogTest, FileIsOpenedOnceAndKeptOpen) {
    CStdoutCapture capture;
    m_log.WriteLog(LOG_INFO, "%s", "one");
    m_log.WriteLog(LOG_INFO, "%s", "two");
    const std::string out = capture.Stop();
    EXPECT_EQ(LogFile(), out);
    EXPECT_EQ(out, ExpectedLine("32;1m [I]", "one") + ExpectedLine("32;1m [I]", "two"));
}

TEST(CommonLogFileTest, FirstLogPathWins) {
    CTempDir first;
    CTempDir second;
    CCommonLog log(FixedTime, FixedLocalTime);
    std::string firstPath = first.Path();
    std::string secondPath = second.Path();
    log.SetLogPath(firstPath);
    log.SetLogPath(secondPath);
    CStdoutCapture capture;
    log.WriteLog(LOG_ERROR, "%s", "x");
    capture.Stop();
    EXPECT_EQ(first.List(), std::vector<std::string>{kFileName});
    EXPECT_TRUE(second.List().empty());
}

TEST(CommonLogFileTest, WithoutPathTheFileIsInTheWorkingDirectory) {
    CTempDir dir;
    char saved[4096];
    ASSERT_NE(getcwd(saved, sizeof(saved)), nullptr);
    ASSERT_EQ(chdir(dir.Path().c_str()), 0);
    {
        CCommonLog log(FixedTime, FixedLocalTime);
        CStdoutCapture capture;
        log.WriteLog(LOG_ERROR, "%s", "here");
        capture.Stop();
    }
    ASSERT_EQ(chdir(saved), 0);
    EXPECT_EQ(dir.List(), std::vector<std::string>{kFileName});
}

TEST(CommonLogFileTest, ExistingFileOfTheSameNameIsTruncated) {
    CTempDir dir;
    dir.WriteFile(kFileName, "old contents that must go\n");
    CCommonLog log(FixedTime, FixedLocalTime);
    std::string path = dir.Path();
    log.SetLogPath(path);
    CStdoutCapture capture;
    log.WriteLog(LOG_ERROR, "%s", "new");
    const std::string out = capture.Stop();
    EXPECT_EQ(read_file(dir.Path() + "/" + kFileName), out);
}

TEST(CommonLogFileTest, UnopenableFileIsReportedAndRetriedOnTheNextLine) {
    CTempDir dir;
    std::string missing = dir.Path() + "/not-yet";
    CCommonLog log(FixedTime, FixedLocalTime);
    log.SetLogPath(missing);

    CStdoutCapture capture;
    log.WriteLog(LOG_ERROR, "%s", "lost");
    EXPECT_EQ(capture.Stop(), "fopen: " + missing + "/" + kFileName + " failed\n");

    ASSERT_EQ(mkdir(missing.c_str(), 0755), 0);
    CStdoutCapture retry;
    log.WriteLog(LOG_ERROR, "%s", "kept");
    const std::string out = retry.Stop();
    EXPECT_EQ(out, ExpectedLine("31;1m [E]", "kept"));
    EXPECT_EQ(read_file(missing + "/" + kFileName), out);
}

TEST(CommonLogTimeTest, LocaltimeFailureIsReportedWithoutDeadlock) {
    CTempDir dir;
    CCommonLog log(FixedTime, FailingLocalTime);
    std::string path = dir.Path();
    log.SetLogPath(path);

    g_localTimeFailures = 1;
    CStdoutCapture capture;
    log.WriteLog(LOG_INFO, "%s", "this line is lost");
    const std::string out = capture.Stop();
    EXPECT_EQ(out, ExpectedLine("31;1m [E]", "[public/log/CommonLog.cpp:52][WriteLog]localtime_r failed"));
    EXPECT_EQ(g_localTimeFailures.load(), 0);

    // The log still works afterwards, so the mutex was released.
    CStdoutCapture after;
    log.WriteLog(LOG_INFO, "%s", "next");
    EXPECT_EQ(after.Stop(), ExpectedLine("32;1m [I]", "next"));
}

TEST(CommonLogTimeTest, PersistentLocaltimeFailureNeitherRecursesNorDeadlocks) {
    CTempDir dir;
    CCommonLog log(FixedTime, FailingLocalTime);
    std::string path = dir.Path();
    log.SetLogPath(path);

    g_localTimeFailures = 1000;
    CStdoutCapture capture;
    log.WriteLog(LOG_INFO, "%s", "a");
    log.WriteLog(LOG_ERROR, "%s", "b");
    EXPECT_EQ(capture.Stop(), "");
    // Each call costs one failed conversion for the line and one for its report.
    EXPECT_EQ(g_localTimeFailures.load(), 996);
    g_localTimeFailures = 0;
}

TEST(CommonLogTimeTest, LocaltimeReportHonoursTheMask) {
    CTempDir dir;
    CCommonLog log(FixedTime, FailingLocalTime);
    std::string path = dir.Path();
    log.SetLogPath(path);
    log.SetLogLevel(LOG_INFO);

    g_localTimeFailures = 1;
    CStdoutCapture capture;
    log.WriteLog(LOG_INFO, "%s", "lost");
    EXPECT_EQ(capture.Stop(), "");
    g_localTimeFailures = 0;
}

TEST(CommonLogThreadTest, EightThreadsLeaveEveryLineWhole) {
    constexpr int kThreads = 8;
    constexpr int kLines = 3000;
    CTempDir dir;
    CCommonLog log(FixedTime, FixedLocalTime);
    std::string path = dir.Path();
    log.SetLogPath(path);

    CStdoutCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&log, t] {
            for (int n = 0; n < kLines; ++n) {
                QUVO_LOG_TO(log, LOG_INFO, "thread %d line %d %s", t, n, "padding-padding-padding-padding");
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::string out = capture.Stop();
    EXPECT_EQ(read_file(dir.Path() + "/" + kFileName), out);

    const std::regex whole(
        "\x1b\\[32;1m \\[I\\] \\[20260304\\]\\[05:06:07\\]\\[[0-9]+\\] "
        "\\[tests/unit/log/CommonLogTest.cpp:[0-9]+\\]\\[operator\\(\\)\\]thread ([0-9]+) line ([0-9]+) "
        "padding-padding-padding-padding\x1b\\[0m ");
    std::map<int, int> nextLine;
    std::istringstream lines(out);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, whole)) << "broken line: " << line;
        const int t = std::stoi(match[1]);
        const int n = std::stoi(match[2]);
        ASSERT_EQ(n, nextLine[t]) << "thread " << t << " lines out of order";
        nextLine[t] = n + 1;
        ++count;
    }
    EXPECT_EQ(count, kThreads * kLines);
    for (int t = 0; t < kThreads; ++t) {
        EXPECT_EQ(nextLine[t], kLines);
    }
}

TEST(CommonLogSingletonTest, GetInstanceReturnsOneInstance) {
    EXPECT_EQ(&CCommonLog::GetInstance(), &CCommonLog::GetInstance());
}

}  // namespace
