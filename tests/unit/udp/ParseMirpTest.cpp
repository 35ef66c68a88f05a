#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <string>

#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "src/api/InstrumentId.h"
#include "src/udp/BookCheck.h"
#include "tests/support/LogLines.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/UdpHarness.h"

namespace {

constexpr uint8_t kBid = MD_ENTRY_BID;
constexpr uint8_t kAsk = MD_ENTRY_ASK;

class ParseMirpTest : public ::testing::Test {
protected:
    ParseMirpTest() { CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31)); }

    // cu2501 in SHFE slot 7: tick 0.5 from 1000, bids 1000.0 .. 998.0 (vols 1..5), asks 1001.0 .. 1003.0.
    instrument& AddBookedInstrument(uint32_t slot = 7, const std::string& id = "cu2501") {
        instrument& inst = h.AddInstrument(slot, id, 0.5, 1000.0, 10, 100);
        for (int i = 0; i < 5; ++i) {
            inst.bid_px[i] = 1000.0 - 0.5 * i;
            inst.bid_vol[i] = i + 1;
            inst.ask_px[i] = 1001.0 + 0.5 * i;
            inst.ask_vol[i] = 10 + i;
        }
        return inst;
    }

    int Parse(CDecodedRecordBuilder& record) {
        CStdoutCapture capture;
        const int result = h.Parse(record.Build());
        m_out = capture.Stop();
        return result;
    }

    std::vector<std::string> Logged(const std::string& label) const {
        return log_messages(m_out, label, "_ParseMirp");
    }

    CUdpHarness h;
    std::string m_out;
};

TEST_F(ParseMirpTest, TwentyFourByteRecordStampsTheInstrumentAndIsAnnounced) {
    instrument& inst = AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101, 93001, 250, 42);
    ASSERT_EQ(record.Size(), 24u);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.change_no, 101u);
    EXPECT_EQ(inst.update_time, 93001u);
    EXPECT_EQ(inst.update_milli_sec, 250);
    EXPECT_EQ(inst.type, 0);
    EXPECT_EQ(h.instNo, 7u);
    EXPECT_EQ(h.area->shfe_pktno, 42);
    EXPECT_EQ(h.registers[REG_HOST_TIMESTAMP], 93001u);
}

TEST_F(ParseMirpTest, TwentyThreeByteRecordIsFatal) {
    AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Build().pop_back();
    EXPECT_EQ(Parse(record), -1);
    EXPECT_EQ(Logged("[E]"), std::vector<std::string>{"packet length too small: 23"});
    EXPECT_EQ(h.area->instmts[7].change_no, 100u);
}

TEST_F(ParseMirpTest, StaleChangeNumberChangesOnlyTypePacketNumberAndTimeRegister) {
    instrument& inst = AddBookedInstrument();
    inst.type = 9;
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 100, 94000, 1, 55);
    record.Insert(kBid, 1, 10, 1);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_TRUE(Logged("[E]").empty());
    EXPECT_TRUE(Logged("[W]").empty());
    EXPECT_EQ(inst.type, 0);
    EXPECT_EQ(h.area->shfe_pktno, 55);
    EXPECT_EQ(h.registers[REG_HOST_TIMESTAMP], 94000u);
    instrument expected = before;
    expected.type = 0;
    EXPECT_EQ(memcmp(&inst, &expected, sizeof(instrument)), 0);
}

TEST_F(ParseMirpTest, ChangeNumberGapIsFatal) {
    instrument& inst = AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 102);
    EXPECT_EQ(Parse(record), -1);
    EXPECT_EQ(Logged("[E]"),
              std::vector<std::string>{"discontinuous changeNo: 102, expected changeNo: 101, "
                                       "instrumentID: cu2501, instrumentNo: 7, instrumentNo: 7"});
    EXPECT_EQ(inst.change_no, 100u);
}

TEST_F(ParseMirpTest, IneInstrumentZeroUpdatesTheLastSlot) {
    h.AddInstrument(20479, "sc2503", 0.1, 500.0, 1000, 0);
    CDecodedRecordBuilder record(CUdpHarness::kIneTopic, 0, 1, 93000, 0, 77);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(h.instNo, 20479u);
    EXPECT_EQ(h.area->instmts[20479].change_no, 1u);
    EXPECT_EQ(h.area->instmts[20479].type, 1);
    EXPECT_EQ(h.area->ine_pktno, 77);
    EXPECT_EQ(h.area->shfe_pktno, 0);
}

TEST_F(ParseMirpTest, IneInstrument4095UpdatesSlot16384) {
    h.AddInstrument(16384, "lu2505");
    CDecodedRecordBuilder record(5101, 4095, 1);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(h.instNo, 16384u);
    EXPECT_EQ(h.area->instmts[16384].change_no, 1u);
}

TEST_F(ParseMirpTest, ShfeInstrument16383UpdatesSlot16383) {
    h.AddInstrument(16383, "zn2502");
    CDecodedRecordBuilder record(1101, 16383, 1);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(h.instNo, 16383u);
    EXPECT_EQ(h.area->instmts[16383].change_no, 1u);
}

TEST_F(ParseMirpTest, OutOfRangeShfeInstrumentIsReportedOnce) {
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 16384, 1, 93000, 0, 9);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(Logged("[W]"), std::vector<std::string>{"shfe InstNo [16384] is out of range [16383]"});
    EXPECT_EQ(h.area->shfe_pktno, 0);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_TRUE(Logged("[W]").empty());
}

TEST_F(ParseMirpTest, OutOfRangeIneInstrumentIsReportedOnce) {
    CDecodedRecordBuilder record(CUdpHarness::kIneTopic, 4096, 1);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(Logged("[W]"), std::vector<std::string>{"ine InstNo [4096] is out of range [4095]"});
    EXPECT_EQ(Parse(record), 0);
    EXPECT_TRUE(Logged("[W]").empty());
}

TEST_F(ParseMirpTest, UnknownTopicIsFatal) {
    CDecodedRecordBuilder record(0x4242, 7, 1);
    EXPECT_EQ(Parse(record), -1);
    EXPECT_EQ(Logged("[E]"), std::vector<std::string>{"unsupported topicID: 0x4242"});
}

TEST_F(ParseMirpTest, ConfiguredTopicAbove0x7FFFNeverMatches) {
    h.config.shfe2ps_topic_id = static_cast<int16_t>(0x8001);
    h.AddInstrument(7, "cu2501");
    CDecodedRecordBuilder record(0x8001, 7, 1);
    EXPECT_EQ(Parse(record), -1);
    EXPECT_EQ(Logged("[E]"), std::vector<std::string>{"unsupported topicID: 0x8001"});
}

TEST_F(ParseMirpTest, UnsubscribedSlotIsIgnoredAfterRecordingThePacket) {
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 12, 1, 93000, 0, 31);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(h.instNo, 12u);
    EXPECT_EQ(h.area->shfe_pktno, 31);
    EXPECT_EQ(h.area->instmts[12].change_no, 0u);
    EXPECT_EQ(h.registers[REG_HOST_TIMESTAMP], 0u);
    EXPECT_EQ(Logged("[X]").back(), "unsubscribed instrument");
}

TEST_F(ParseMirpTest, OptionsAreDroppedWhenConfiguredOff) {
    h.config.options = 0;
    h.AddInstrument(9, "cu2501C70000");
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 9, 1);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(Logged("[X]").back(), "do not handle options, instrumentID: cu2501C70000");
    EXPECT_EQ(h.area->instmts[9].change_no, 0u);

    h.config.options = 1;
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(h.area->instmts[9].change_no, 1u);
}

TEST_F(ParseMirpTest, RecordOfAnotherKindIsAnnouncedWithoutBookChange) {
    instrument& inst = AddBookedInstrument();
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101, 95000, 0, 1, 0x0004);
    record.Insert(kBid, 1, 10, 1);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.change_no, before.change_no);
    EXPECT_EQ(h.registers[REG_HOST_TIMESTAMP], 95000u);
    EXPECT_EQ(memcmp(inst.bid_px, before.bid_px, sizeof(inst.bid_px)), 0);
}

TEST_F(ParseMirpTest, InsertAtLevelThreeShiftsLevelsThreeToFiveDown) {
    instrument& inst = AddBookedInstrument();
    h.calc->priceTick[7] = 0.25;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Insert(kBid, 3, -3, 7);  // 999.25
    ASSERT_EQ(Parse(record), 1);
    const double bids[] = {1000.0, 999.5, 999.25, 999.0, 998.5, 998.0};
    const int vols[] = {1, 2, 7, 3, 4, 5};
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(inst.bid_px[i], bids[i]) << i;
        EXPECT_EQ(inst.bid_vol[i], vols[i]) << i;
    }
}

TEST_F(ParseMirpTest, InsertAtLevelThreeRaisesTheDepthToSix) {
    instrument& inst = AddBookedInstrument();
    h.calc->priceTick[7] = 0.25;
    // Deleting level 8 clears the deepest level in use, which shows the depth.
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Insert(kBid, 3, -3, 7).Delete(kBid, 8);
    ASSERT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.bid_px[4], 998.5);
    EXPECT_EQ(inst.bid_px[5], 0.0);
    EXPECT_EQ(inst.bid_vol[5], 0);
}

TEST_F(ParseMirpTest, InsertIntoAnEmptyFifthLevelKeepsTheDepth) {
    instrument& inst = AddBookedInstrument();
    inst.bid_px[4] = 0.0;
    inst.bid_vol[4] = 0;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Insert(kBid, 5, -5, 9).Delete(kBid, 8);
    ASSERT_EQ(Parse(record), 1);
    // depth stayed 5, so the delete cleared level 5 again
    EXPECT_EQ(inst.bid_px[4], 0.0);
    EXPECT_EQ(inst.bid_vol[4], 0);
}

TEST_F(ParseMirpTest, InsertIntoAnEmptyFourthLevelGrowsTheDepth) {
    instrument& inst = AddBookedInstrument();
    inst.bid_px[3] = 0.0;
    inst.bid_vol[3] = 0;
    inst.bid_px[4] = 0.0;
    inst.bid_vol[4] = 0;
    inst.bid_px[5] = 997.0;
    inst.bid_vol[5] = 6;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Insert(kBid, 4, -3, 9).Delete(kBid, 8);
    ASSERT_EQ(Parse(record), 1);
    // nothing shifted; depth 6, so the delete cleared level 6
    EXPECT_EQ(inst.bid_px[3], 998.5);
    EXPECT_EQ(inst.bid_vol[3], 9);
    EXPECT_EQ(inst.bid_px[5], 0.0);
    EXPECT_EQ(inst.bid_vol[5], 0);
}

TEST_F(ParseMirpTest, DeleteBelowTheDepthShiftsNothingAndClearsTheFifthLevel) {
    instrument& inst = AddBookedInstrument();
    inst.bid_px[7] = 990.0;
    inst.bid_vol[7] = 8;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Delete(kBid, 8);
    ASSERT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.bid_px[4], 0.0);
    EXPECT_EQ(inst.bid_vol[4], 0);
    EXPECT_EQ(inst.bid_px[3], 998.5);
    EXPECT_EQ(inst.bid_px[7], 990.0);
}

TEST_F(ParseMirpTest, DeleteAtTheTopMovesLevelsUp) {
    instrument& inst = AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Delete(kAsk, 1);
    ASSERT_EQ(Parse(record), 1);
    const double asks[] = {1001.5, 1002.0, 1002.5, 1003.0, 0.0};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(inst.ask_px[i], asks[i]) << i;
    }
    EXPECT_EQ(inst.ask_vol[0], 11);
    EXPECT_EQ(inst.ask_vol[4], 0);
}

TEST_F(ParseMirpTest, SixthBidInsertWritesPastTheTenthLevel) {
    instrument& inst = AddBookedInstrument();
    // Six inserts at the top: depth 5 grows to 10, the sixth moves from index 10.
    for (int i = 0; i < 5; ++i) {
        inst.ask_px[i] += 10.0;  // room above the new bids
    }
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    for (int k = 1; k <= 6; ++k) {
        record.Insert(kBid, 1, 1 + k, 20 + k);  // 1001.0 .. 1003.5, each a new best bid
    }
    ASSERT_EQ(Parse(record), 1);
    double oldTenthPx = 998.0;  // the first fifth bid has reached level 10 before the sixth insert
    uint32_t halves[2];
    memcpy(halves, &oldTenthPx, sizeof(halves));
    // bid_px[10] lands on bid_vol[0..1]; the shift then carries those bytes to bid_vol[1..2].
    EXPECT_EQ(static_cast<uint32_t>(inst.bid_vol[1]), halves[0]);
    EXPECT_EQ(static_cast<uint32_t>(inst.bid_vol[2]), halves[1]);
    // bid_vol[10] lands on ask_vol[0]: the volume that was at level 10.
    EXPECT_EQ(inst.ask_vol[0], 5);
    EXPECT_EQ(inst.bid_px[0], 1003.5);
    EXPECT_EQ(inst.bid_vol[0], 26);
    EXPECT_EQ(inst.bid_px[9], 998.5);
}

TEST_F(ParseMirpTest, SixthAskInsertInTheLastSlotWritesIntoTheCountersAfterTheTable) {
    h.AddInstrument(20479, "sc2503", 1.0, 500.0, 1000, 0);
    instrument& inst = h.area->instmts[20479];
    for (int i = 0; i < 5; ++i) {
        inst.ask_px[i] = 600.0 + i;
        inst.ask_vol[i] = 1;
    }
    h.area->shfe_inst_cnt = 1111;
    h.area->ine_inst_cnt = 2222;
    CDecodedRecordBuilder record(CUdpHarness::kIneTopic, 0, 1);
    for (int k = 1; k <= 6; ++k) {
        record.Insert(kAsk, 1, 100 - k, 1);  // 599, 598 ... each below the best ask
    }
    Parse(record);
    // ask_px[10] is the 8 bytes after the table: the two instrument counts.
    double spilled;
    memcpy(&spilled, &h.area->shfe_inst_cnt, sizeof(spilled));
    EXPECT_EQ(spilled, 604.0);
}

TEST_F(ParseMirpTest, SixthAskInsertWritesIntoTheNextSlot) {
    h.AddInstrument(7, "cu2501", 1.0, 500.0, 1, 0);
    instrument& next = h.AddInstrument(8, "cu2502");
    instrument& inst = h.area->instmts[7];
    for (int i = 0; i < 5; ++i) {
        inst.ask_px[i] = 600.0 + i;
        inst.ask_vol[i] = 1;
    }
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 1);
    for (int k = 1; k <= 6; ++k) {
        record.Insert(kAsk, 1, 100 - k, 1);
    }
    EXPECT_EQ(Parse(record), 1);
    double spilled;
    memcpy(&spilled, next.inst_id, sizeof(spilled));
    EXPECT_EQ(spilled, 604.0);
    // ask_vol[10] lands on the low half of ask_px[0], which the shift then
    // carries to level 2: 595.0 with its low word replaced by level 10's volume.
    uint32_t words[2];
    memcpy(words, &inst.ask_px[1], sizeof(words));
    const double expectedPrice = 595.0;
    uint32_t expectedWords[2];
    memcpy(expectedWords, &expectedPrice, sizeof(expectedWords));
    EXPECT_EQ(words[0], 1u);
    EXPECT_EQ(words[1], expectedWords[1]);
    EXPECT_EQ(inst.ask_px[0], 594.0);
}

TEST_F(ParseMirpTest, TrailingOneOrTwoBytesAreIgnoredSilently) {
    AddBookedInstrument();
    for (int extra = 1; extra <= 2; ++extra) {
        CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 100 + extra);
        record.High(4);
        record.Build().insert(record.Build().end(), extra, '\x11');
        EXPECT_EQ(Parse(record), 1);
        EXPECT_TRUE(Logged("[E]").empty()) << extra;
    }
    EXPECT_EQ(h.area->instmts[7].highest_price, 1002.0);
}

TEST_F(ParseMirpTest, ThreeTrailingBytesAreReported) {
    AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Low(-4);
    const char tail[] = {0x12, 0x10, 0x00};
    record.Bytes(tail, 3);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(Logged("[E]"), std::vector<std::string>{"abnormal process fieldID: 0x1012 length: 3"});
    EXPECT_EQ(h.area->instmts[7].lowest_price, 998.0);
}

TEST_F(ParseMirpTest, UnknownFieldEndsTheLoopButKeepsWhatWasApplied) {
    AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.High(2);
    const char unknown[] = {0x77, 0x77, 0, 0, 0, 0, 0, 0};
    record.Bytes(unknown, sizeof(unknown)).Low(-2);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(Logged("[E]"), std::vector<std::string>{"abnormal process fieldID: 0x7777 length: 16"});
    EXPECT_EQ(h.area->instmts[7].highest_price, 1001.0);
    EXPECT_EQ(h.area->instmts[7].lowest_price, 0.0);
}

TEST_F(ParseMirpTest, TasInstrumentIsNeverRestored) {
    instrument& inst = AddBookedInstrument(7, "cu2501TAS");
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kBid, 1, 20, 1);  // 1010.0 crosses the 1001.0 ask
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.bid_px[0], 1010.0);
    EXPECT_EQ(inst.change_no, 101u);
}

TEST_F(ParseMirpTest, CrossedBookIsRestoredWhole) {
    instrument& inst = AddBookedInstrument();
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101, 99999, 9);
    record.Deal(3, 10, 50, 7).Update(kBid, 1, 20, 1);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(memcmp(&inst, &before, sizeof(instrument)), 0);
    EXPECT_EQ(Logged("[X]").back(), "bad mirp crossed: bid1=1010.00 >= ask1=1001.00, inst=cu2501, restore");
}

TEST_F(ParseMirpTest, CrossedBookWithAnEmptyFirstAskPasses) {
    instrument& inst = AddBookedInstrument();
    inst.ask_px[0] = 0.0;
    inst.ask_vol[0] = 0;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kBid, 1, 20, 1);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.bid_px[0], 1010.0);
}

TEST_F(ParseMirpTest, MisorderedBidsAreRestored) {
    instrument& inst = AddBookedInstrument();
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kBid, 3, 1, 1);  // 1000.5 at level 3 above level 2's 999.5
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(memcmp(&inst, &before, sizeof(instrument)), 0);
    EXPECT_EQ(Logged("[X]").back(), "bad mirp bid: bid[1]=999.50 <= bid[2]=1000.50, inst=cu2501, restore");
}

TEST_F(ParseMirpTest, MisorderedAsksAreRestored) {
    instrument& inst = AddBookedInstrument();
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kAsk, 5, 2, 1);  // 1001.0 at level 5 below level 4's 1002.5
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(memcmp(&inst, &before, sizeof(instrument)), 0);
    EXPECT_EQ(Logged("[X]").back(), "bad mirp ask: ask[3]=1002.50 >= ask[4]=1001.00, inst=cu2501, restore");
}

TEST_F(ParseMirpTest, RestoreUndoesManyUpdatesToOneLevelInOrder) {
    instrument& inst = AddBookedInstrument();
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101, 99999, 9);
    for (int k = 0; k < 12; ++k) {
        record.Update(kBid, 1, -k, 7 + k).Update(kAsk, 10, 30 + k, 9 + k);
    }
    record.Update(kBid, 1, 20, 1);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(memcmp(&inst, &before, sizeof(instrument)), 0);
}

TEST_F(ParseMirpTest, RestoreUndoesUpdatesThenStatisticsThenShiftsThenUpdates) {
    instrument& inst = AddBookedInstrument();
    inst.volume = 5;
    inst.bid_totvol = 100;
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101, 99999, 9);
    record.Update(kBid, 2, -1, 3).Update(kAsk, 2, 3, 4).Deal(1, 10, 50, 7).BuyStatics(4, 2);
    record.Insert(kBid, 1, 1, 2).Delete(kAsk, 3).Update(kBid, 4, -6, 8).High(9).Low(-9);
    record.Update(kAsk, 1, -1, 1);  // 999.5 under the best bid
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(memcmp(&inst, &before, sizeof(instrument)), 0);
}

TEST_F(ParseMirpTest, RestoreUndoesATenthLevelBidInsertReachingTheAskVolumes) {
    instrument& inst = AddBookedInstrument();
    for (int i = 5; i < 10; ++i) {
        inst.bid_px[i] = 1000.0 - 0.5 * i;
        inst.bid_vol[i] = i + 1;
    }
    const instrument before = inst;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    for (int k = 0; k < 6; ++k) {
        record.Insert(kBid, 10, -30, 1);
    }
    record.Update(kBid, 1, 20, 1);
    EXPECT_EQ(Parse(record), 0);
    EXPECT_EQ(memcmp(&inst, &before, sizeof(instrument)), 0);
}

TEST_F(ParseMirpTest, QuickBookVerdictAgreesWithTheLevelByLevelChecks) {
    // Prices around the empty band and its edges, volumes either side of zero.
    const double prices[] = {0.0,
                             -0.0,
                             1e-6,
                             -1e-6,
                             1e-5,
                             -1e-5,
                             999.5,
                             1000.0,
                             1000.5,
                             1001.0,
                             std::numeric_limits<double>::quiet_NaN()};
    const int32_t volumes[] = {-1, 0, 1, 7};
    uint64_t state = 12345;
    const auto next = [&state](uint32_t bound) {
        state = state * 6364136223846793005ull + 1442695040888963407ull;
        return static_cast<uint32_t>(state >> 33) % bound;
    };
    instrument inst{};
    int decided = 0;
    for (int n = 0; n < 200000; ++n) {
        for (int i = 0; i < 5; ++i) {
            inst.bid_px[i] = prices[next(std::size(prices))];
            inst.ask_px[i] = prices[next(std::size(prices))];
            // Mostly positive volumes, so that the quick verdict often decides.
            inst.bid_vol[i] = next(8) != 0 ? volumes[2 + next(2)] : volumes[next(2)];
            inst.ask_vol[i] = next(8) != 0 ? volumes[2 + next(2)] : volumes[next(2)];
        }
        const bool faulty = find_book_fault(inst).kind != BOOK_FAULT_NONE;
        const EBookVerdict verdict = quick_book_verdict(inst);
        bool allPositive = true;
        for (int i = 0; i < 5; ++i) {
            allPositive = allPositive && inst.bid_vol[i] > 0 && inst.ask_vol[i] > 0;
        }
        if (allPositive) {
            ASSERT_EQ(verdict, faulty ? BOOK_FAULTY : BOOK_SOUND) << "book " << n;
            ++decided;
        } else {
            ASSERT_TRUE(verdict == BOOK_UNDECIDED || (verdict == BOOK_SOUND && !faulty)) << "book " << n;
        }
    }
    EXPECT_GT(decided, 10000);
}

TEST_F(ParseMirpTest, TasTestAgreesWithTheInstrumentIdHelper) {
    // "TAS", a part of it, or nothing, at every position, cut by a NUL at
    // every position (or none) in an id of every filler.
    const std::string pieces[] = {"TAS", "TA", "AS", "T", "TTAS", "TAAS", ""};
    for (const char filler : {'x', 'T', 'A', 'S'}) {
        for (const std::string& piece : pieces) {
            for (size_t at = 0; at <= 16; ++at) {
                for (size_t nul = 0; nul <= 16; ++nul) {
                    instrument inst{};
                    memset(inst.inst_id, filler, sizeof(inst.inst_id));
                    memcpy(inst.inst_id + at, piece.data(), std::min(piece.size(), 16 - at));
                    if (nul < 16) {
                        inst.inst_id[nul] = 0;
                    }
                    ASSERT_EQ(inst_id_has_tas(inst), is_tas_instrument(inst))
                        << "filler " << filler << " piece " << piece << " at " << at << " nul " << nul;
                }
            }
        }
    }
}

TEST_F(ParseMirpTest, LevelsBelowTheFifthAreNotChecked) {
    instrument& inst = AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kBid, 7, 40, 1).Update(kBid, 8, 50, 1);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.bid_px[7], 1025.0);
}

TEST_F(ParseMirpTest, InvalidLevelEventAndEntryTypesAreSkipped) {
    instrument& inst = AddBookedInstrument();
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kBid, 0, 1, 1)
        .Update(kBid, 11, 1, 1)
        .PriceChange(kBid, 1, 1, 1, 4)
        .PriceChange(2, 1, 1, 1, PRICE_EVENT_UPDATE)
        .Update(kAsk, 1, 1, 99);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_EQ(Logged("[E]"), (std::vector<std::string>{"invalid priceLevel: 0, instrumentID: cu2501",
                                                       "invalid priceLevel: 11, instrumentID: cu2501",
                                                       "unkonwn event type: 4", "unkonwn md entry type: 2"}));
    EXPECT_EQ(inst.bid_px[0], 1000.0);
    EXPECT_EQ(inst.ask_px[0], 1000.5);
    EXPECT_EQ(inst.ask_vol[0], 99);
}

TEST_F(ParseMirpTest, TradeStatisticsHighAndLowFollowTheirFormulas) {
    instrument& inst = AddBookedInstrument();
    inst.volume = 0xFFFFFFF0u;
    inst.turnover = 1.0;
    inst.open_interest = 10.0;
    inst.bid_totvol = 2147483647;
    inst.ask_totvol = 5;
    inst.bid_totamount = 100.0;
    inst.ask_totamount = 200.0;
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Deal(3, 32, 7, -4).BuyStatics(1, 11).SellStatics(-2, -3).High(9).Low(-9);
    ASSERT_EQ(Parse(record), 1);
    EXPECT_EQ(inst.last_px, 3.0 * 0.5 + 1000.0);
    EXPECT_EQ(inst.volume, 0x10u);  // 32-bit wrap
    EXPECT_EQ(inst.open_interest, 6.0);
    EXPECT_EQ(inst.turnover, 1.0 + (32.0 * 1000.0 + 7.0 * 0.5) * 10.0);
    EXPECT_EQ(inst.bid_totvol, static_cast<int32_t>(0x80000000u));
    EXPECT_EQ(inst.bid_totamount, 100.0 + (1.0 * 1000.0 + 11.0 * 0.5) * 10.0);
    EXPECT_EQ(inst.ask_totvol, 3);
    EXPECT_EQ(inst.ask_totamount, 200.0 + (-2.0 * 1000.0 + -3.0 * 0.5) * 10.0);
    EXPECT_EQ(inst.highest_price, 1004.5);
    EXPECT_EQ(inst.lowest_price, 995.5);
}

TEST_F(ParseMirpTest, NothingIsFormattedWhenDebugLevelsAreOff) {
    AddBookedInstrument();
    CCommonLog::GetInstance().SetLogLevel(LOG_ERROR);
    CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, 101);
    record.Update(kBid, 1, 0, 3);
    EXPECT_EQ(Parse(record), 1);
    EXPECT_TRUE(m_out.empty());
}

// Every length from 0 to the full record, for a record with one field of each
// type, read from a buffer of exactly that length.
struct FieldCase {
    const char* name;
    void (*add)(CDecodedRecordBuilder&);
    bool (*applied)(const instrument&);
};

const FieldCase kFieldCases[] = {
    {"PriceChange", [](CDecodedRecordBuilder& r) { r.Update(MD_ENTRY_BID, 1, 1, 9); },
     [](const instrument& i) { return i.bid_vol[0] == 9; }},
    {"DealSummary", [](CDecodedRecordBuilder& r) { r.Deal(1, 2, 3, 4); },
     [](const instrument& i) { return i.volume == 2; }},
    {"BuyStatics", [](CDecodedRecordBuilder& r) { r.BuyStatics(5, 1); },
     [](const instrument& i) { return i.bid_totvol == 5; }},
    {"SellStatics", [](CDecodedRecordBuilder& r) { r.SellStatics(6, 1); },
     [](const instrument& i) { return i.ask_totvol == 6; }},
    {"Highest", [](CDecodedRecordBuilder& r) { r.High(2); },
     [](const instrument& i) { return i.highest_price == 1001.0; }},
    {"Lowest", [](CDecodedRecordBuilder& r) { r.Low(-2); },
     [](const instrument& i) { return i.lowest_price == 999.0; }},
};

TEST_F(ParseMirpTest, EveryTruncationOfEachFieldTypeGivesTheRuledResult) {
    CCommonLog::GetInstance().SetLogLevel(LOG_ERROR);
    for (const FieldCase& field : kFieldCases) {
        CDecodedRecordBuilder full(CUdpHarness::kShfeTopic, 7, 101);
        field.add(full);
        const std::vector<char> bytes = full.Build();
        for (uint32_t len = 0; len <= bytes.size(); ++len) {
            CUdpHarness fresh;
            fresh.AddInstrument(7, "cu2501", 0.5, 1000.0, 10, 100);
            std::vector<char> exact(bytes.begin(), bytes.begin() + len);
            CStdoutCapture capture;
            const int result = fresh.udp._ParseMirp(exact.data(), len);
            const std::vector<std::string> errors = log_messages(capture.Stop(), "[E]", "_ParseMirp");
            const instrument& inst = fresh.area->instmts[7];
            SCOPED_TRACE(std::string(field.name) + " length " + std::to_string(len));
            if (len < 24) {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(inst.change_no, 100u);
            } else {
                EXPECT_EQ(result, 1);
                EXPECT_EQ(inst.change_no, 101u);
                EXPECT_EQ(field.applied(inst), len == bytes.size());
                const bool reported = len >= 27 && len < bytes.size();
                EXPECT_EQ(errors.size(), reported ? 1u : 0u);
            }
        }
    }
}

}  // namespace
