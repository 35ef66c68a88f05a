#include <gtest/gtest.h>

#include <cfloat>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "tests/support/LogLines.h"
#include "tests/support/SnapshotModel.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TcpHarness.h"

namespace {

using Messages = std::vector<std::string>;

struct Px {
    double px;
    int32_t vol;
};

// One record with `asks` from ask level 1 outwards and `bids` from bid level 1.
instrument Book(const char* id, const std::vector<Px>& asks, const std::vector<Px>& bids) {
    instrument inst{};
    memcpy(inst.inst_id, id, strnlen(id, sizeof(inst.inst_id)));
    for (size_t k = 0; k < asks.size(); ++k) {
        inst.ask_px[k] = asks[k].px;
        inst.ask_vol[k] = asks[k].vol;
    }
    for (size_t k = 0; k < bids.size(); ++k) {
        inst.bid_px[k] = bids[k].px;
        inst.bid_vol[k] = bids[k].vol;
    }
    return inst;
}

const Px kEmpty{0.0, 0};

class PriceCheckTest : public ::testing::Test {
protected:
    PriceCheckTest() {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(LOG_ERROR | LOG_WARNING | LOG_INFO));
    }

    int Check(const instrument& inst, double upper, double lower) {
        CStdoutCapture capture;
        const int result = h.tcp->ShfeInstPriceCheck(inst, inter_info{upper, lower});
        m_out = capture.Stop();
        return result;
    }

    int CheckAll() {
        CStdoutCapture capture;
        const int result = h.tcp->ShfePriceCheck();
        m_out = capture.Stop();
        return result;
    }

    Messages Warnings() const { return log_messages(m_out, "[W]", "CheckPrice"); }
    Messages Dump() const { return log_messages(m_out, "[E]", "ShfeInstPriceCheck"); }
    std::string DumpHead() const {
        const Messages dump = Dump();
        return dump.empty() ? std::string("(no dump)") : dump.front();
    }
    bool NothingLogged() const { return parse_log_lines(m_out).empty(); }

    void Put(uint32_t slot, const instrument& inst, double upper, double lower) {
        h.area->instmts[slot] = inst;
        CExanicTcpFuncTestAccess::InterInfo(*h.tcp, slot) = inter_info{upper, lower};
    }

    CTcpHarness h;
    std::string m_out;
};

// ---- CheckPrice on its own ----

TEST_F(PriceCheckTest, EmptyListPasses) {
    double up = 0, low = 0;
    EXPECT_EQ(h.tcp->CheckPrice({}, {}, up, low, false), 0);
}

TEST_F(PriceCheckTest, CheckPriceTakesTheListAndBoundsAsGiven) {
    double up = 110, low = 90;
    EXPECT_EQ(
        h.tcp->CheckPrice({0, 0, 0, 0, 101, 99, 0, 0, 0, 0}, {0, 0, 0, 0, 1, 1, 0, 0, 0, 0}, up, low, false),
        0);
    EXPECT_EQ(h.tcp->CheckPrice({101, 102}, {1, 1}, up, low, false), -2);
    EXPECT_EQ(h.tcp->CheckPrice({111}, {1}, up, low, false), -1);
    EXPECT_EQ(h.tcp->CheckPrice({100}, {0}, up, low, false), -3);
    EXPECT_EQ(h.tcp->CheckPrice({100}, {0}, up, low, true), 0);
}

// ---- ShfeInstPriceCheck: the listed cases ----

TEST_F(PriceCheckTest, AllZeroBookPasses) {
    EXPECT_EQ(Check(Book("cu2501", {}, {}), 0, 0), 0);
    EXPECT_TRUE(NothingLogged());
    EXPECT_EQ(Check(Book("cu2501", {}, {}), 110, 90), 0);
    EXPECT_TRUE(NothingLogged());
}

TEST_F(PriceCheckTest, LockedBookFailsWithOrderAtBid1) {
    EXPECT_EQ(Check(Book("cu2501", {{100, 1}}, {{100, 2}}), 110, 90), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :5 "});
    EXPECT_EQ(Dump(),
              (Messages{"inst_id [cu2501]upper[110.000000]lower[90.000000]", "ask5 px[0.000000]vol[0]",
                        "ask4 px[0.000000]vol[0]", "ask3 px[0.000000]vol[0]", "ask2 px[0.000000]vol[0]",
                        "ask1 px[100.000000]vol[1]", "bid1 px[100.000000]vol[2]", "bid2 px[0.000000]vol[0]",
                        "bid3 px[0.000000]vol[0]", "bid4 px[0.000000]vol[0]", "bid5 px[0.000000]vol[0]"}));
}

TEST_F(PriceCheckTest, CrossedBookFailsWithOrderAtBid1) {
    EXPECT_EQ(Check(Book("cu2501", {{100, 1}}, {{101, 2}}), 110, 90), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :5 "});
    EXPECT_EQ(Dump().size(), 11u);
}

TEST_F(PriceCheckTest, AskSideOutOfOrderFailsAtItsLevel) {
    // ask2 below ask1: index 3 then 4.
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}, {100, 1}}, {{99, 1}}), 110, 90), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :4 "});
}

TEST_F(PriceCheckTest, BidSideOutOfOrderFailsAtItsLevel) {
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{99, 1}, {98, 1}, {98.5, 1}}), 110, 90), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :7 "});
}

TEST_F(PriceCheckTest, SoundFiveLevelBookPasses) {
    const instrument inst = Book("cu2501", {{101, 1}, {102, 2}, {103, 3}, {104, 4}, {105, 5}},
                                 {{100, 6}, {99, 7}, {98, 8}, {97, 9}, {96, 10}});
    EXPECT_EQ(Check(inst, 110, 90), 0);
    EXPECT_TRUE(NothingLogged());
}

TEST_F(PriceCheckTest, EqualPricesFailWithoutTolerance) {
    EXPECT_EQ(Check(Book("cu2501", {{100, 1}, {100, 1}}, {{99, 1}}), 110, 90), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :4 "});
    EXPECT_EQ(Check(Book("cu2501", {{100, 1}, {100.000001, 1}}, {{99, 1}}), 110, 90), 0);
}

TEST_F(PriceCheckTest, MissingLimitsFailAnyNonZeroPrice) {
    EXPECT_EQ(Check(Book("cu2501", {}, {{100, 1}}), 0, 0), -1);
    EXPECT_EQ(Warnings(),
              Messages{"(price > up) or (price < lower), price is 100.000000, up is 0.000000, lower is "
                       "0.000000, index is :5"});
    EXPECT_EQ(DumpHead(), "inst_id [cu2501]upper[0.000000]lower[0.000000]");
}

TEST_F(PriceCheckTest, MissingLimitsDoNotMatterForASpread) {
    EXPECT_EQ(Check(Book("cu2501-cu2502", {{-5, 1}}, {{-10, 1}}), 0, 0), 0);
    EXPECT_TRUE(NothingLogged());
    EXPECT_EQ(Check(Book("cu2501-cu2502", {{1e12, 1}}, {{-1e12, 1}}), 110, 90), 0);
    EXPECT_TRUE(NothingLogged());
}

TEST_F(PriceCheckTest, Bid1WithoutVolumeFailsWithMismatchForAnOutright) {
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{100, 0}}), 110, 90), -3);
    EXPECT_EQ(Warnings(), Messages{"Price and Volume mismatch at index 5: price=100.000000, vol=0"});
    EXPECT_EQ(Dump().size(), 11u);
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{100, -1}}), 110, 90), -3);
    EXPECT_EQ(Warnings(), Messages{"Price and Volume mismatch at index 5: price=100.000000, vol=-1"});
}

TEST_F(PriceCheckTest, Bid1WithoutVolumeIsARealLevelInASpread) {
    EXPECT_EQ(Check(Book("cu2501-cu2502", {{101, 1}}, {{100, 0}}), 0, 0), 0);
    EXPECT_TRUE(NothingLogged());
    EXPECT_EQ(Check(Book("cu2501-cu2502", {{100, 1}}, {{100, 0}}), 0, 0), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :5 "});
}

TEST_F(PriceCheckTest, VolumeAtZeroPriceFailsWithMismatchForAnOutright) {
    EXPECT_EQ(Check(Book("cu2501", {{0, 5}}, {{99, 1}}), 110, 90), -3);
    EXPECT_EQ(Warnings(), Messages{"Price and Volume mismatch at index 4: price=0.000000, vol=5"});
}

TEST_F(PriceCheckTest, SpreadAskAtZeroPricePassesTheBoundsThenTheOrderDecides) {
    // Stored limits that would exclude 0 do not apply to a spread.
    EXPECT_EQ(Check(Book("al2501-al2502", {{0, 5}, {1, 1}}, {{-1, 2}}), 10, 5), 0);
    EXPECT_TRUE(NothingLogged());
    EXPECT_EQ(Check(Book("al2501-al2502", {{0, 5}}, {{0.5, 1}}), 10, 5), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :5 "});
    EXPECT_EQ(Check(Book("al2501-al2502", {{0, 5}, {0, 5}}, {}), 10, 5), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :4 "});
    // The dump shows the stored limits, not the spread's bounds.
    EXPECT_EQ(DumpHead(), "inst_id [al2501-al2502]upper[10.000000]lower[5.000000]");
}

TEST_F(PriceCheckTest, PriceJustAboveTheUpperLimitPassesWithinTolerance) {
    EXPECT_EQ(Check(Book("cu2501", {{110.000005, 1}}, {{100, 1}}), 110, 90), 0);
    EXPECT_TRUE(NothingLogged());
    EXPECT_EQ(Check(Book("cu2501", {{110, 1}}, {{90, 1}}), 110, 90), 0);
}

TEST_F(PriceCheckTest, PriceFurtherAboveTheUpperLimitFailsWithBounds) {
    EXPECT_EQ(Check(Book("cu2501", {{110.00002, 1}}, {{100, 1}}), 110, 90), -1);
    EXPECT_EQ(Warnings(),
              Messages{"(price > up) or (price < lower), price is 110.000020, up is 110.000000, lower is "
                       "90.000000, index is :4"});
}

TEST_F(PriceCheckTest, LowerLimitHasTheSameTolerance) {
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{89.999995, 1}}), 110, 90), 0);
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{100, 1}, {89.99998, 1}}), 110, 90), -1);
    EXPECT_EQ(Warnings(),
              Messages{"(price > up) or (price < lower), price is 89.999980, up is 110.000000, lower is "
                       "90.000000, index is :6"});
}

TEST_F(PriceCheckTest, TasInstrumentIsNeverChecked) {
    for (const char* id : {"cu2501TAS", "TAScu2501", "scTAS2502"}) {
        EXPECT_EQ(Check(Book(id, {{100, 1}}, {{101, 0}}), 0, 0), 0) << id;
        EXPECT_TRUE(NothingLogged()) << id;
    }
    EXPECT_EQ(Check(Book("cuTA2501", {{100, 1}}, {{101, 0}}), 0, 0), -1);
}

TEST_F(PriceCheckTest, ShieldedFailureIsLoggedAndPasses) {
    h.config.shield_price_check = true;
    EXPECT_EQ(Check(Book("cu2501", {{100, 1}}, {{100, 1}}), 110, 90), 0);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :5 "});
    EXPECT_EQ(Dump().size(), 11u);
}

TEST_F(PriceCheckTest, EmptyLevelsAnywhereAreSkippedButNeighboursStillCompared) {
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}, kEmpty, kEmpty, kEmpty, {105, 1}}, {kEmpty, {99, 1}}), 110, 90),
              0);
    EXPECT_TRUE(NothingLogged());
    EXPECT_EQ(Check(Book("cu2501", {{100, 1}}, {kEmpty, {100, 1}}), 110, 90), -2);
    EXPECT_EQ(Warnings(), Messages{"The price is abnormal, price index is :6 "});
}

TEST_F(PriceCheckTest, ZeroBandIsStrictOnBothSides) {
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{100, 1}, {0.000009, 0}, {-0.000009, 0}}), 110, 90), 0);
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}}, {{0.00001, 0}}), 110, 90), -3);
    EXPECT_EQ(Warnings(), Messages{"Price and Volume mismatch at index 5: price=0.000010, vol=0"});
}

TEST_F(PriceCheckTest, FirstFailingLevelDecides) {
    // ask5 out of bounds, bid1 without volume.
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}, kEmpty, kEmpty, kEmpty, {200, 1}}, {{100, 0}}), 110, 90), -1);
    ASSERT_EQ(Warnings().size(), 1u);
    EXPECT_NE(Warnings()[0].find("index is :0"), std::string::npos);
    // ask3 without volume, then a crossed book.
    EXPECT_EQ(Check(Book("cu2501", {{101, 1}, kEmpty, {103, 0}}, {{102, 1}}), 110, 90), -3);
    EXPECT_EQ(Warnings(), Messages{"Price and Volume mismatch at index 2: price=103.000000, vol=0"});
}

TEST_F(PriceCheckTest, DumpShowsEveryLevelFromTheFarAskToTheFarBid) {
    const instrument inst = Book("zn2502", {{1.5, 1}, {2.5, 2}, {3.5, 3}, {4.5, 4}, {5.5, 5}},
                                 {{1.5, 6}, {0.5, 7}, {0.25, 8}, {0.125, 9}, {0.0625, 10}});
    EXPECT_EQ(Check(inst, 12345.678, -1.25), -2);
    EXPECT_EQ(Dump(),
              (Messages{"inst_id [zn2502]upper[12345.678000]lower[-1.250000]", "ask5 px[5.500000]vol[5]",
                        "ask4 px[4.500000]vol[4]", "ask3 px[3.500000]vol[3]", "ask2 px[2.500000]vol[2]",
                        "ask1 px[1.500000]vol[1]", "bid1 px[1.500000]vol[6]", "bid2 px[0.500000]vol[7]",
                        "bid3 px[0.250000]vol[8]", "bid4 px[0.125000]vol[9]", "bid5 px[0.062500]vol[10]"}));
}

TEST_F(PriceCheckTest, LevelsBeyondFiveAreNotChecked) {
    instrument inst = Book("cu2501", {{101, 1}}, {{100, 1}});
    inst.bid_px[5] = 500;
    inst.bid_vol[5] = 0;
    inst.ask_px[7] = -3;
    EXPECT_EQ(Check(inst, 110, 90), 0);
}

TEST_F(PriceCheckTest, SixteenCharacterIdIsReadWithoutATerminator) {
    instrument inst = Book("abcdefghijklmnop", {{100, 1}}, {{100, 1}});
    EXPECT_EQ(Check(inst, 110, 90), -2);
    EXPECT_EQ(DumpHead(), "inst_id [abcdefghijklmnop]upper[110.000000]lower[90.000000]");
}

// ---- ShfePriceCheck: the walk over the table ----

TEST_F(PriceCheckTest, NoInstrumentsPassAndLogNothing) {
    Put(0, Book("cu2501", {{100, 1}}, {{100, 1}}), 110, 90);
    Put(QUVO_INST_SLOTS - 1, Book("sc2501", {{100, 1}}, {{100, 1}}), 110, 90);
    EXPECT_EQ(CheckAll(), 0);
    EXPECT_TRUE(NothingLogged());
}

TEST_F(PriceCheckTest, ShfeInstrumentsAreCheckedBeforeIne) {
    Put(2, Book("cu2503", {{100, 1}}, {{100, 1}}), 110, 90);
    Put(QUVO_INST_SLOTS - 1, Book("sc2501", {{101, 1}}, {{100, 0}}), 110, 90);
    h.area->shfe_inst_cnt = 3;
    h.area->ine_inst_cnt = 1;
    EXPECT_EQ(CheckAll(), -2);
    EXPECT_EQ(Dump().size(), 11u);
    EXPECT_EQ(DumpHead(), "inst_id [cu2503]upper[110.000000]lower[90.000000]");
    EXPECT_EQ(Warnings().size(), 1u);
}

TEST_F(PriceCheckTest, WalkStopsAtTheCounts) {
    Put(3, Book("cu2504", {{100, 1}}, {{100, 1}}), 110, 90);
    Put(QUVO_INST_SLOTS - 3, Book("sc2503", {{100, 1}}, {{100, 1}}), 110, 90);
    for (uint32_t i = 0; i < 3; ++i) {
        Put(i, Book("cu2501", {{101, 1}}, {{100, 1}}), 110, 90);
    }
    Put(QUVO_INST_SLOTS - 1, Book("sc2501", {{101, 1}}, {{100, 1}}), 110, 90);
    Put(QUVO_INST_SLOTS - 2, Book("sc2502", {{101, 1}}, {{100, 1}}), 110, 90);
    h.area->shfe_inst_cnt = 3;
    h.area->ine_inst_cnt = 2;
    EXPECT_EQ(CheckAll(), 0);
    EXPECT_TRUE(NothingLogged());

    // INE counts downward from the top slot.
    h.area->ine_inst_cnt = 3;
    EXPECT_EQ(CheckAll(), -2);
    EXPECT_EQ(DumpHead(), "inst_id [sc2503]upper[110.000000]lower[90.000000]");
}

TEST_F(PriceCheckTest, IneFailureIsReturnedWhenShfePasses) {
    Put(0, Book("cu2501", {{101, 1}}, {{100, 1}}), 110, 90);
    Put(QUVO_INST_SLOTS - 1, Book("sc2501", {{101, 1}}, {{100, 0}}), 110, 90);
    h.area->shfe_inst_cnt = 1;
    h.area->ine_inst_cnt = 1;
    EXPECT_EQ(CheckAll(), -3);
    EXPECT_EQ(DumpHead(), "inst_id [sc2501]upper[110.000000]lower[90.000000]");
}

// The walk screens instruments before the full check; both must agree on
// every identifier form, including text after the first NUL and at the
// sixteenth byte, and on every kind of book.
TEST_F(PriceCheckTest, WalkAgreesWithTheSingleInstrumentCheck) {
    const std::vector<std::string> ids = {
        std::string("cu2501"),
        std::string("cu2501TAS"),
        std::string("al2501-al2502"),
        std::string("cu\0TAS", 6),
        std::string("cu\0-2501", 7),
        std::string("abcdefghijklmTAS"),
        std::string("abcdefghijklmnTA"),
        std::string("abcdefghijklmno-"),
        std::string("TA\0S", 4),
        std::string(""),
        std::string("-"),
        std::string("TASTAS"),
    };
    const std::vector<std::pair<std::vector<Px>, std::vector<Px>>> books = {
        {{}, {}},
        {{{101, 1}, {102, 2}}, {{100, 1}, {99, 3}}},
        {{{100, 1}}, {{100, 1}}},
        {{{100, 1}}, {{101, 0}}},
        {{{0.0, 5}}, {{-1, 1}}},
        {{{120, 1}}, {{100, 1}}},
        {{kEmpty, {103, 1}}, {{100, 1}, kEmpty, {98, 2}}},
    };
    for (const std::string& id : ids) {
        for (const auto& [asks, bids] : books) {
            instrument inst = Book("", asks, bids);
            memcpy(inst.inst_id, id.data(), id.size());
            const int single = Check(inst, 110, 90);
            const std::string singleLog = m_out;
            Put(0, inst, 110, 90);
            h.area->shfe_inst_cnt = 1;
            EXPECT_EQ(CheckAll(), single) << id;
            EXPECT_EQ(log_messages(m_out, "[W]", "CheckPrice"), log_messages(singleLog, "[W]", "CheckPrice"));
            EXPECT_EQ(Dump(), log_messages(singleLog, "[E]", "ShfeInstPriceCheck"));
        }
    }
}

TEST_F(PriceCheckTest, ShieldedWalkContinuesPastEveryFailureAndReturnsZero) {
    Put(0, Book("cu2501", {{100, 1}}, {{100, 1}}), 110, 90);
    Put(1, Book("cu2502", {{101, 1}}, {{100, 1}}), 110, 90);
    Put(2, Book("cu2503", {{101, 1}}, {{100, 0}}), 110, 90);
    Put(QUVO_INST_SLOTS - 1, Book("sc2501", {{200, 1}}, {{100, 1}}), 110, 90);
    h.area->shfe_inst_cnt = 3;
    h.area->ine_inst_cnt = 1;
    h.config.shield_price_check = true;
    EXPECT_EQ(CheckAll(), 0);
    Messages heads;
    for (const std::string& line : Dump()) {
        if (line.rfind("inst_id", 0) == 0) {
            heads.push_back(line);
        }
    }
    EXPECT_EQ(heads, (Messages{"inst_id [cu2501]upper[110.000000]lower[90.000000]",
                               "inst_id [cu2503]upper[110.000000]lower[90.000000]",
                               "inst_id [sc2501]upper[110.000000]lower[90.000000]"}));
    EXPECT_EQ(Dump().size(), 33u);
    EXPECT_EQ(Warnings().size(), 3u);

    h.config.shield_price_check = false;
    EXPECT_EQ(CheckAll(), -2);
    EXPECT_EQ(Dump().size(), 11u);
}

TEST_F(PriceCheckTest, FailedWalkChangesNothing) {
    Put(0, Book("cu2501", {{101, 1}}, {{100, 1}}), 110, 90);
    Put(1, Book("cu2502", {{100, 1}}, {{100, 1}}), 110, 90);
    h.area->shfe_inst_cnt = 2;
    const std::unique_ptr<share> before(new share(*h.area));
    EXPECT_EQ(CheckAll(), -2);
    EXPECT_EQ(memcmp(before.get(), h.area.get(), sizeof(share)), 0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 1).upper_limit_price, 110.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 1).lower_limit_price, 90.0);
}

// ---- the check at the end of the snapshot, through the packet handler ----

class SnapshotCheckTest : public ::testing::Test {
protected:
    SnapshotCheckTest() {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(LOG_ERROR | LOG_WARNING | LOG_INFO));
        h.enabled.mask = ENABLE_SHFE2PS;
    }

    // One SHFE 2ps snapshot of one instrument whose book is sent last.
    std::string Deliver(double bid, double ask) {
        DealInfoField deal{};
        deal.inst_no = 0;
        deal.last_price = 70000;
        deal.upper_limit_price = 75000;
        deal.lower_limit_price = 65000;
        const std::vector<char> first = CMdqpMessageBuilder(kMdqpFlagMore)
                                            .Snap(1000)
                                            .PacketNo(1)
                                            .Inst("cu2501", 0, 10.0, 70000.0, 5)
                                            .Deal(deal)
                                            .Build();
        const std::vector<char> last =
            CMdqpMessageBuilder(kMdqpFlagLast).Level(0, '1', ask, 1).Level(0, '0', bid, 2).Build();
        TcpSegmentFields segment;
        segment.dstPort = CTcpHarness::kPort2ps;
        CStdoutCapture capture;
        h.Handle(build_tcp_frame(segment, first));
        EXPECT_EQ(h.finished.mask, 0);
        EXPECT_EQ(h.area->instmts[0].inst_id[0], 'c');
        segment.seq += static_cast<uint32_t>(first.size());
        h.Handle(build_tcp_frame(segment, last));
        return capture.Stop();
    }

    CTcpHarness h;
};

TEST_F(SnapshotCheckTest, FailedCheckAfterTheLastFeedFinishesStartsTheSnapshotOver) {
    const std::string out = Deliver(70000, 70000);
    EXPECT_EQ(log_messages(out, "[W]", "_PacketHandler"), Messages{"price check is error"});
    EXPECT_EQ(log_messages(out, "[W]", "CheckPrice"), Messages{"The price is abnormal, price index is :5 "});
    EXPECT_EQ(log_messages(out, "[I]", "_ParseMdqp"), Messages{"shfe2ps init finished, total instruments:1"});
    EXPECT_TRUE(all_zero(h.area.get(), sizeof(share)));
    EXPECT_EQ(h.finished.mask, 0);
    EXPECT_TRUE(all_zero(h.calc.get(), sizeof(PriceCalcInfo)));
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 0).upper_limit_price, 0.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 0).lower_limit_price, 0.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::Session(*h.tcp, CTcpHarness::kPort2ps).em_dqp_data_type,
              MDQP_DATA_TYPE_UNKNOW);
}

TEST_F(SnapshotCheckTest, PassedCheckKeepsTheSnapshot) {
    const std::string out = Deliver(70000, 70010);
    EXPECT_TRUE(log_messages(out, "[W]", "_PacketHandler").empty());
    EXPECT_TRUE(log_messages(out, "[W]", "CheckPrice").empty());
    EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    const instrument& inst = h.area->instmts[0];
    EXPECT_EQ(memcmp(inst.inst_id, "cu2501", 7), 0);
    EXPECT_EQ(inst.last_px, 70000.0);
    EXPECT_EQ(inst.bid_px[0], 70000.0);
    EXPECT_EQ(inst.bid_vol[0], 2);
    EXPECT_EQ(inst.ask_px[0], 70010.0);
    EXPECT_EQ(h.area->shfe_inst_cnt, 1);
    EXPECT_EQ(h.calc->priceTick[0], 10.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 0).upper_limit_price, 75000.0);
}

TEST_F(SnapshotCheckTest, NoCheckWhileAnEnabledFeedIsUnfinished) {
    h.enabled.mask = ENABLE_SHFE2PS | ENABLE_INE2PS;
    const std::string out = Deliver(70000, 70000);
    EXPECT_TRUE(log_messages(out, "[W]", "_PacketHandler").empty());
    EXPECT_TRUE(log_messages(out, "[W]", "CheckPrice").empty());
    EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    EXPECT_EQ(h.area->instmts[0].bid_px[0], 70000.0);
    EXPECT_EQ(h.area->instmts[0].ask_px[0], 70000.0);
}

TEST_F(SnapshotCheckTest, ShieldedCheckKeepsABadSnapshot) {
    h.config.shield_price_check = true;
    const std::string out = Deliver(70000, 70000);
    EXPECT_TRUE(log_messages(out, "[W]", "_PacketHandler").empty());
    EXPECT_EQ(log_messages(out, "[W]", "CheckPrice"), Messages{"The price is abnormal, price index is :5 "});
    EXPECT_EQ(log_messages(out, "[E]", "ShfeInstPriceCheck").size(), 11u);
    EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    EXPECT_EQ(h.area->instmts[0].ask_px[0], 70000.0);
}

}  // namespace
