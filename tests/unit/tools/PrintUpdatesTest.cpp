// examples/print_updates against records written and announced as the feed
// writes and announces them.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>

#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "tests/support/FeedSegments.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/ShmSandbox.h"

namespace {

void set_book(instrument& inst, const char* id, double last, double bid, double ask) {
    inst = instrument{};
    memcpy(inst.inst_id, id, strlen(id));
    inst.update_time = 93015;
    inst.update_milli_sec = 7;
    inst.change_no = 10;
    inst.last_px = last;
    inst.volume = 1234;
    inst.bid_px[0] = bid;
    inst.bid_vol[0] = 10;
    inst.ask_px[0] = ask;
    inst.ask_vol[0] = 5;
}

constexpr uint32_t kCrudeSlot = 20477;

class PrintUpdatesTest : public ::testing::Test, protected CFeedSegments {
protected:
    PrintUpdatesTest() {
        set_book(Slot(0), "cu2501", 72010.0, 72000.0, 72010.0);
        set_book(Slot(1), "al2501", 20000.0, 19995.0, 20005.0);
        set_book(Slot(kCrudeSlot), "sc2501", 512.1, 512.0, 512.5);
        m_segments.pMdArea->shfe_inst_cnt = 2;
        m_segments.pMdArea->ine_inst_cnt = 3;
    }
};

TEST_F(PrintUpdatesTest, PrintsTheChosenBooksThenEveryUpdateOfThem) {
    CPipedProcess example(QUVO_PRINT_UPDATES_PATH, {"cu2501", "sc2501", "zn2501"}, true);
    std::string line;
    ASSERT_TRUE(example.ReadLine(line));
    EXPECT_EQ(line, "09:30:15.007 cu2501 change_no 10 last 72010 volume 1234 bid 72000 x 10 ask 72010 x 5");
    ASSERT_TRUE(example.ReadLine(line));
    EXPECT_EQ(line, "09:30:15.007 sc2501 change_no 10 last 512.1 volume 1234 bid 512 x 10 ask 512.5 x 5");

    Slot(1).change_no = 11;  // al2501 was not asked for
    m_ring.Publish(1);
    Slot(0).change_no = 11;
    Slot(0).last_px = 72020.0;
    Slot(0).bid_vol[0] = 3;
    m_ring.Publish(0);
    m_ring.Publish(0);
    // zn2501 comes into use after the start.
    set_book(Slot(2), "zn2501", 24000.0, 23995.0, 24005.0);
    m_segments.pMdArea->shfe_inst_cnt = 3;
    m_ring.Publish(2);
    Slot(kCrudeSlot).update_time = 210000;
    m_ring.Publish(kCrudeSlot);

    for (const char* expected :
         {"09:30:15.007 cu2501 change_no 11 last 72020 volume 1234 bid 72000 x 3 ask 72010 x 5",
          "09:30:15.007 cu2501 change_no 11 last 72020 volume 1234 bid 72000 x 3 ask 72010 x 5",
          "09:30:15.007 zn2501 change_no 10 last 24000 volume 1234 bid 23995 x 10 ask 24005 x 5",
          "21:00:00.007 sc2501 change_no 10 last 512.1 volume 1234 bid 512 x 10 ask 512.5 x 5"}) {
        ASSERT_TRUE(example.ReadLine(line));
        EXPECT_EQ(line, expected);
    }
    ASSERT_EQ(kill(example.Pid(), SIGINT), 0);
    const RunResult result = example.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "print_updates: zn2501 is not in use; waiting for it\n");
}

TEST_F(PrintUpdatesTest, SaysWhichIdentifiersAreNotInUseAndPrintsThemOnceTheyAre) {
    CPipedProcess example(QUVO_PRINT_UPDATES_PATH, {"cu2599", "cu2501", "cu2599x"}, true);
    std::string line;
    ASSERT_TRUE(example.ReadLine(line));  // following the ring from here
    EXPECT_EQ(line, "09:30:15.007 cu2501 change_no 10 last 72010 volume 1234 bid 72000 x 10 ask 72010 x 5");

    set_book(Slot(5), "cu2599", 73000.0, 72990.0, 73010.0);
    m_segments.pMdArea->shfe_inst_cnt = 6;
    m_ring.Publish(5);
    ASSERT_TRUE(example.ReadLine(line));
    EXPECT_EQ(line, "09:30:15.007 cu2599 change_no 10 last 73000 volume 1234 bid 72990 x 10 ask 73010 x 5");
    Slot(5).change_no = 12;
    m_ring.Publish(5);
    ASSERT_TRUE(example.ReadLine(line));
    EXPECT_EQ(line, "09:30:15.007 cu2599 change_no 12 last 73000 volume 1234 bid 72990 x 10 ask 73010 x 5");

    ASSERT_EQ(kill(example.Pid(), SIGINT), 0);
    const RunResult result = example.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err,
              "print_updates: cu2599 is not in use; waiting for it\n"
              "print_updates: cu2599x is not in use; waiting for it\n");
}

TEST_F(PrintUpdatesTest, WithoutIdentifiersPrintsItsUsage) {
    const RunResult result = run_piped(QUVO_PRINT_UPDATES_PATH, {});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind(std::string("Usage: ") + QUVO_PRINT_UPDATES_PATH + " ID [ID ...]\n", 0), 0u)
        << result.err;
}

TEST(PrintUpdatesUsageTest, HelpPrintsTheUsageAndExitsWithoutAttaching) {
    CShmSandbox sandbox;  // no segments: help must not need them
    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"--help"}, {"-h"}, {"cu2501", "--help"}}) {
        const RunResult result = run_piped(QUVO_PRINT_UPDATES_PATH, args);
        EXPECT_EQ(result.status, 0) << args.back();
        EXPECT_EQ(result.err, "") << args.back();
        EXPECT_EQ(result.out.rfind(std::string("Usage: ") + QUVO_PRINT_UPDATES_PATH + " ID [ID ...]\n", 0),
                  0u)
            << result.out;
        for (const char* text : {"--help", "waited for", "QUVO_KEY_DIR", "Ctrl+C"}) {
            EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
        }
    }
}

TEST(PrintUpdatesUsageTest, RefusesAnUnknownOption) {
    CShmSandbox sandbox;
    const RunResult result = run_piped(QUVO_PRINT_UPDATES_PATH, {"--colour", "cu2501"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind("print_updates: unknown option --colour\nUsage: ", 0), 0u) << result.err;
}

TEST(PrintUpdatesWithoutFeedTest, SaysWhyItCannotAttach) {
    CShmSandbox sandbox;
    const RunResult result = run_piped(QUVO_PRINT_UPDATES_PATH, {"cu2501"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "no market-data segment for key file " + sandbox.RingKeyPath() +
                              ": is quvo-md running on this host?\n");
}

}  // namespace
