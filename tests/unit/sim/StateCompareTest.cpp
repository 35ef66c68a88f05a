#include "sim/StateCompare.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/BookCheck.h"
#include "tests/support/Records.h"

namespace {

// What the simulator expects of cu2501 as copper_record() holds it.
SimInstrumentState copper_state() {
    SimInstrumentState inst = expected_of_record(copper_record(), 0);
    inst.priceTick = 10;
    return inst;
}

std::vector<std::string> fields_of(const std::vector<SimFieldDifference>& differences) {
    std::vector<std::string> fields;
    for (const SimFieldDifference& difference : differences) {
        fields.push_back(difference.field);
    }
    return fields;
}

TEST(StateCompareTest, EqualRecordHasNoDifferences) {
    EXPECT_TRUE(compare_instrument(copper_record(), copper_state()).empty());
}

// Each field the expected state gives, changed alone in the record, is the one difference.
TEST(StateCompareTest, EveryComparedFieldIsNamedAlone) {
    struct Change {
        std::string field;
        std::function<void(instrument&)> apply;
    };
    std::vector<Change> changes = {
        {"id", [](instrument& r) { r.inst_id[0] = 'C'; }},
        {"change_no", [](instrument& r) { ++r.change_no; }},
        {"last_px", [](instrument& r) { r.last_px += 10; }},
        {"volume", [](instrument& r) { ++r.volume; }},
        {"turnover", [](instrument& r) { r.turnover += 0.5; }},
        {"open_interest", [](instrument& r) { r.open_interest -= 1; }},
        {"bid_totvol", [](instrument& r) { ++r.bid_totvol; }},
        {"ask_totvol", [](instrument& r) { ++r.ask_totvol; }},
        {"bid_totamount", [](instrument& r) { r.bid_totamount *= 2; }},
        {"ask_totamount", [](instrument& r) { r.ask_totamount = 0; }},
        {"highest_price", [](instrument& r) { r.highest_price += 10; }},
        {"lowest_price", [](instrument& r) { r.lowest_price -= 10; }},
    };
    for (int k = 0; k < kSimPublishedLevels; ++k) {
        const std::string level = "[" + std::to_string(k) + "]";
        changes.push_back({"bid_px" + level, [k](instrument& r) { r.bid_px[k] -= 5; }});
        changes.push_back({"bid_vol" + level, [k](instrument& r) { r.bid_vol[k] += 1; }});
        changes.push_back({"ask_px" + level, [k](instrument& r) { r.ask_px[k] += 5; }});
        changes.push_back({"ask_vol" + level, [k](instrument& r) { r.ask_vol[k] = 0; }});
    }
    for (const Change& change : changes) {
        instrument record = copper_record();
        change.apply(record);
        EXPECT_EQ(fields_of(compare_instrument(record, copper_state())),
                  std::vector<std::string>{change.field});
    }
}

// Fields the expected state does not give, and the levels the feed keeps locally, are not compared.
TEST(StateCompareTest, FieldsTheStateDoesNotGiveAreLeftAlone) {
    instrument record = copper_record();
    record.type = 7;
    record.update_time = 101010;
    record.update_milli_sec = 999;
    for (int k = kSimPublishedLevels; k < QUVO_BOOK_LEVELS; ++k) {
        record.bid_px[k] = 1;
        record.ask_vol[k] = 1;
    }
    EXPECT_TRUE(compare_instrument(record, copper_state()).empty());
}

TEST(StateCompareTest, DoublesOneUnitInTheLastPlaceApartDifferAndPrintApart) {
    SimInstrumentState want = copper_state();
    volatile double fifth = 0.2;
    want.bidPx[2] = 72000.6;
    instrument record = copper_record();
    record.bid_px[2] = 72000 + fifth + fifth + fifth;
    std::vector<SimFieldDifference> found = compare_instrument(record, want);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].field, "bid_px[2]");
    EXPECT_EQ(found[0].got, "72000.59999999999");
    EXPECT_EQ(found[0].want, "72000.6");

    record.bid_px[2] = std::nextafter(72000.6, 1e9);
    found = compare_instrument(record, want);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_NE(found[0].got, found[0].want);
    EXPECT_EQ(std::stod(found[0].got), record.bid_px[2]);
}

TEST(StateCompareTest, DoublesCompareByValue) {
    SimInstrumentState want = copper_state();
    want.lastPx = 0.0;
    instrument record = copper_record();
    record.last_px = -0.0;
    EXPECT_TRUE(compare_instrument(record, want).empty());
    record.last_px = std::numeric_limits<double>::quiet_NaN();
    const std::vector<SimFieldDifference> found = compare_instrument(record, want);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].got, "nan");
    EXPECT_EQ(found[0].want, "0");
}

TEST(StateCompareTest, IdentifierIsComparedAsFarAsTheRecordKeepsIt) {
    SimInstrumentState want = copper_state();
    want.id = "cu2501-C-72000-long";
    instrument record = copper_record();
    set_id(record, "cu2501-C-72000-");
    EXPECT_TRUE(compare_instrument(record, want).empty());

    want.id = "cu2501";
    set_id(record, "cu2502\x01");
    const std::vector<SimFieldDifference> found = compare_instrument(record, want);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].field, "id");
    EXPECT_EQ(found[0].got, "\"cu2502\\x01\"");
    EXPECT_EQ(found[0].want, "\"cu2501\"");

    record = instrument{};
    EXPECT_EQ(compare_instrument(record, want).at(0).got, "\"\"");
}

TEST(StateCompareTest, DescriptionNamesInstrumentExchangeSlotFieldAndBothValues) {
    SimInstrumentState want = copper_state();
    want.exchange = ESimExchange::INE;
    want.id = "sc2502";
    want.instNo = 12;
    want.slot = 20467;
    EXPECT_EQ(describe_difference(want, {"volume", "13", "12"}),
              "sc2502 INE slot 20467 volume: 13 in shared memory, 12 expected");
}

TEST(StateCompareTest, SlotFollowsExchangeAndInstrumentNumber) {
    SimInstrumentState inst;
    inst.instNo = 3;
    EXPECT_EQ(sim_slot_of(inst), 3);
    inst.instNo = QUVO_SHFE_MAX_INST_CNT - 1;
    EXPECT_EQ(sim_slot_of(inst), QUVO_SHFE_MAX_INST_CNT - 1);
    inst.instNo = QUVO_SHFE_MAX_INST_CNT;
    EXPECT_EQ(sim_slot_of(inst), -1);
    inst.exchange = ESimExchange::INE;
    inst.instNo = 12;
    EXPECT_EQ(sim_slot_of(inst), 20467);
    inst.instNo = 0;
    EXPECT_EQ(sim_slot_of(inst), QUVO_INST_SLOTS - 1);
    inst.instNo = QUVO_INE_MAX_INST_CNT;
    EXPECT_EQ(sim_slot_of(inst), -1);
    inst.instNo = -1;
    EXPECT_EQ(sim_slot_of(inst), -1);
}

}  // namespace
