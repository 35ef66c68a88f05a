#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sim/SimState.h"
#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "tests/support/BookCheck.h"
#include "tests/support/FeedSegments.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/Records.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"
#include "tools/DumpFormat.h"

namespace {

// sc2501, INE instrument 2, on a 0.1 tick that binary doubles cannot hold.
void fill_crude(instrument& inst) {
    inst = instrument{};
    set_id(inst, "sc2501");
    inst.change_no = 3;
    inst.update_time = 210000;
    inst.update_milli_sec = 5;
    inst.last_px = 512.1;
    inst.volume = 7;
    inst.turnover = 3584.7;
    inst.open_interest = 100.0;
    inst.bid_px[0] = 512.0;
    inst.bid_vol[0] = 1;
    inst.ask_px[0] = 512.5;
    inst.ask_vol[0] = 2;
}

constexpr uint32_t kCrudeSlot = 20477;

TEST(DumpFormatTest, SlotsNameTheirExchangeAndInstrumentNumber) {
    EXPECT_STREQ(exchange_name(0), "SHFE");
    EXPECT_STREQ(exchange_name(16383), "SHFE");
    EXPECT_STREQ(exchange_name(16384), "INE");
    EXPECT_STREQ(exchange_name(20479), "INE");
    EXPECT_EQ(inst_no_of(16383), 16383u);
    EXPECT_EQ(inst_no_of(16384), 4095u);
    EXPECT_EQ(inst_no_of(20479), 0u);
    EXPECT_EQ(inst_no_of(quvo_ine_slot(2)), 2u);
}

TEST(DumpFormatTest, UpdateTimeReadsAsClockTime) {
    EXPECT_EQ(format_update_time(93015, 500), "09:30:15.500");
    EXPECT_EQ(format_update_time(0, 0), "00:00:00.000");
    EXPECT_EQ(format_update_time(235959, 999), "23:59:59.999");
    EXPECT_EQ(format_update_time(210000, 5), "21:00:00.005");
}

TEST(DumpFormatTest, IdentifierStopsAtNulOrSixteenBytesAndShowsOddBytes) {
    instrument inst{};
    memcpy(inst.inst_id, "ABCDEFGHIJKLMNOP", 16);
    EXPECT_EQ(inst_id_text(inst), "ABCDEFGHIJKLMNOP");
    set_id(inst, "a\tb\"c\\");
    inst.inst_id[6] = 0xE9;
    EXPECT_EQ(inst_id_text(inst), "a\\x09b\"c\\\\xe9");
    EXPECT_EQ(format_json(inst, 0).rfind("{\"id\":\"a\\tb\\\"c\\\\\\u00e9\",", 0), 0u)
        << format_json(inst, 0);
    EXPECT_EQ(nlohmann::json::parse(format_json(inst, 0))["id"], "a\tb\"c\\\u00e9");
}

TEST(DumpFormatTest, TableShowsHeaderStatisticsAndTheLadder) {
    instrument inst;
    inst = copper_record();
    EXPECT_EQ(format_table(inst, 0),
              "cu2501  SHFE  slot 0  inst_no 0  type 1  change_no 10  time 09:30:15.500\n"
              "  last 72010  volume 1234  turnover 444370000.5  open_interest 5678\n"
              "  high 72100  low 71900  bid_totvol 100  ask_totvol 200  bid_totamount 7200000"
              "  ask_totamount 14400000.25\n"
              "  level    bid vol         bid px | ask px             ask vol\n"
              "      1         10          72000 | 72010                    5\n"
              "      2         11          71990 | 72020                    6\n"
              "      3         12          71980 | 72030                    7\n"
              "      4         13          71970 | 72040                    8\n"
              "      5         14          71960 | 72050                    9\n"
              "      6          2          71950 |                             local\n"
              "      7                           |                             local\n"
              "      8                           |                             local\n"
              "      9                           |                             local\n"
              "     10                           |                             local\n");
}

TEST(DumpFormatTest, TablePrintsTicksAsWritten) {
    instrument inst;
    fill_crude(inst);
    const std::string table = format_table(inst, kCrudeSlot);
    EXPECT_EQ(table.substr(0, table.find("  level")),
              "sc2501  INE  slot 20477  inst_no 2  type 0  change_no 3  time 21:00:00.005\n"
              "  last 512.1  volume 7  turnover 3584.7  open_interest 100\n"
              "  high 0.0  low 0.0  bid_totvol 0  ask_totvol 0  bid_totamount 0  ask_totamount 0\n");
    EXPECT_NE(table.find("\n      1          1          512.0 | 512.5                    2\n"
                         "      2                           |\n"),
              std::string::npos)
        << table;
}

TEST(DumpFormatTest, JsonHoldsEveryFieldAndAllTenLevels) {
    instrument inst;
    inst = copper_record();
    EXPECT_EQ(format_json(inst, 0),
              "{\"id\":\"cu2501\",\"exchange\":\"SHFE\",\"slot\":0,\"inst_no\":0,\"type\":1,\"change_no\":10,"
              "\"update_time\":93015,\"update_milli_sec\":500,\"last_px\":72010.0,\"volume\":1234,"
              "\"turnover\":444370000.5,\"open_interest\":5678.0,\"bid_totvol\":100,\"ask_totvol\":200,"
              "\"bid_totamount\":7200000.0,\"ask_totamount\":14400000.25,\"highest_price\":72100.0,"
              "\"lowest_price\":71900.0,"
              "\"bid_px\":[72000.0,71990.0,71980.0,71970.0,71960.0,71950.0,0.0,0.0,0.0,0.0],"
              "\"bid_vol\":[10,11,12,13,14,2,0,0,0,0],"
              "\"ask_px\":[72010.0,72020.0,72030.0,72040.0,72050.0,0.0,0.0,0.0,0.0,0.0],"
              "\"ask_vol\":[5,6,7,8,9,0,0,0,0,0]}\n");
}

TEST(DumpFormatTest, JsonPricesReadAsTheirDecimalsAndNonNumbersAsNull) {
    instrument inst;
    fill_crude(inst);
    volatile double tenth = 0.1;
    inst.bid_px[1] = 512.0 - tenth - tenth - tenth;        // 511.69999999999993
    inst.turnover = 3584.7 + tenth + tenth + tenth - 0.3;  // 3584.6999999999994
    inst.highest_price = NAN;
    inst.lowest_price = INFINITY;
    const std::string json = format_json(inst, kCrudeSlot);
    EXPECT_NE(json.find("\"exchange\":\"INE\",\"slot\":20477,\"inst_no\":2,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"last_px\":512.1,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"turnover\":3584.7,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"highest_price\":null,\"lowest_price\":null,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"bid_px\":[512.0,511.7,0.0,"), std::string::npos) << json;
    EXPECT_NE(json.find("\"ask_px\":[512.5,0.0,"), std::string::npos) << json;
    EXPECT_EQ(json.find("99999"), std::string::npos) << json;
    const nlohmann::json parsed = nlohmann::json::parse(json);
    EXPECT_EQ(parsed["bid_px"][1].get<double>(), 511.7);
    EXPECT_TRUE(parsed["highest_price"].is_null());
    EXPECT_EQ(parsed["ask_vol"].size(), 10u);
}

// The names and their order are the expected-state file's, then the record's own.
TEST(DumpFormatTest, JsonNamesAreTheExpectedStateNames) {
    const nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(format_json(copper_record(), 0));
    std::vector<std::string> names;
    for (auto member = parsed.begin(); member != parsed.end(); ++member) {
        names.push_back(member.key());
    }
    const std::vector<std::string> expected = {
        "id",          "exchange",         "slot",          "inst_no",       "type",          "change_no",
        "update_time", "update_milli_sec", "last_px",       "volume",        "turnover",      "open_interest",
        "bid_totvol",  "ask_totvol",       "bid_totamount", "ask_totamount", "highest_price", "lowest_price",
        "bid_px",      "bid_vol",          "ask_px",        "ask_vol"};
    EXPECT_EQ(names, expected);
}

TEST(DumpFormatTest, TableWritesPricesAtTheirTickAndAmountsAtTheirOwn) {
    instrument inst = copper_record();
    volatile double fifth = 0.2;
    inst.last_px = 576.2;
    inst.bid_px[0] = 576.0 + fifth + fifth + fifth;
    inst.ask_px[0] = 576.8;
    inst.highest_price = 577.0;
    inst.lowest_price = 575.4;
    for (int k = 1; k < QUVO_BOOK_LEVELS; ++k) {
        inst.bid_px[k] = inst.ask_px[k] = 0;
        inst.bid_vol[k] = inst.ask_vol[k] = 0;
    }
    inst.turnover = 0.1 + 0.2;
    const std::string table = format_table(inst, 0);
    EXPECT_NE(table.find("  last 576.2  volume 1234  turnover 0.3  open_interest 5678\n"), std::string::npos)
        << table;
    EXPECT_NE(table.find("  high 577.0  low 575.4  "), std::string::npos) << table;
    EXPECT_NE(table.find("      1         10          576.6 | 576.8                    5\n"),
              std::string::npos)
        << table;
}

TEST(PriceTextTest, DecimalsAreTheFewestThatReproduceEveryPrice) {
    volatile double fifth = 0.2;
    const double noisy[] = {72000 + fifth + fifth + fifth, 72000.2, 0.0};
    EXPECT_EQ(price_decimals(noisy, 3), 1);
    const double whole[] = {72010, 72000, 0, -5};
    EXPECT_EQ(price_decimals(whole, 4), 0);
    const double quarter[] = {576.25, 576.2};
    EXPECT_EQ(price_decimals(quarter, 2), 2);
    const double third[] = {1.0 / 3};
    EXPECT_EQ(price_decimals(third, 1), -1);
    const double nine[] = {0.123456789};
    EXPECT_EQ(price_decimals(nine, 1), -1);
    const double eight[] = {0.12345678};
    EXPECT_EQ(price_decimals(eight, 1), kMaxPriceDecimals);
    const double empty[] = {0.0, NAN, INFINITY};
    EXPECT_EQ(price_decimals(empty, 3), 0);
    EXPECT_EQ(price_decimals(nullptr, 0), 0);
    // Real digits are never taken for noise, in large values or tiny ones.
    const double many[] = {12345.678901};
    EXPECT_EQ(price_decimals(many, 1), 6);
    const double tiny[] = {1e-9};
    EXPECT_EQ(price_decimals(tiny, 1), -1);
    EXPECT_EQ(format_amount(1e-9), "1e-09");
    EXPECT_EQ(format_amount(4320600.000000001), "4320600");
}

TEST(PriceTextTest, InstrumentDecimalsCoverLastHighLowAndEveryLevel) {
    instrument inst = copper_record();
    EXPECT_EQ(instrument_price_decimals(inst), 0);
    inst.ask_px[9] = 72000.5;
    EXPECT_EQ(instrument_price_decimals(inst), 1);
    inst.lowest_price = 71999.25;
    EXPECT_EQ(instrument_price_decimals(inst), 2);
    // Amounts have a precision of their own.
    inst = copper_record();
    inst.turnover = 0.125;
    inst.bid_totamount = 1.5;
    EXPECT_EQ(instrument_price_decimals(inst), 0);
}

TEST(PriceTextTest, FormatPriceWritesTheDecimalNotTheBinaryNoise) {
    EXPECT_EQ(format_price(576.20000000000005, 1), "576.2");
    volatile double fifth = 0.2;
    const double noisy = 72000 + fifth + fifth + fifth;  // 72000.59999999999
    ASSERT_NE(noisy, 72000.6);
    EXPECT_EQ(format_price(noisy, 1), "72000.6");
    EXPECT_EQ(format_price(72010, 0), "72010");
    EXPECT_EQ(format_price(576.25, 2), "576.25");
    EXPECT_EQ(format_price(576.2, 2), "576.20");
    EXPECT_EQ(format_price(-0.0, 0), "0");
    EXPECT_EQ(format_price(-0.0, 2), "0.00");
    EXPECT_EQ(format_price(-0.001, 1), "0.0");
    EXPECT_EQ(format_price(-5.5, 1), "-5.5");
    // Past kMaxPriceDecimals: the shortest text that reads back the same double.
    EXPECT_EQ(format_price(1.0 / 3, -1), "0.3333333333333333");
    const double nine = 0.123456789;
    EXPECT_EQ(format_price(nine, price_decimals(&nine, 1)), "0.123456789");
    EXPECT_EQ(format_price(noisy, -1), "72000.59999999999");
    EXPECT_EQ(format_price(NAN, 2), "nan");
}

TEST(PriceTextTest, RoundPriceGivesTheDoubleNearestTheDecimal) {
    volatile double fifth = 0.2;
    const double noisy = 72000 + fifth + fifth + fifth;  // 72000.59999999999
    EXPECT_EQ(round_price(noisy, 1), 72000.6);
    EXPECT_EQ(round_price(576.20000000000005, 1), 576.2);
    EXPECT_EQ(round_price(576.25, 2), 576.25);
    EXPECT_EQ(round_price(72010, 0), 72010.0);
    EXPECT_EQ(round_price(noisy, -1), noisy);
    EXPECT_EQ(round_price(1.0 / 3, -1), 1.0 / 3);
    EXPECT_TRUE(std::isinf(round_price(INFINITY, 2)));
    EXPECT_EQ(nlohmann::json(round_price(noisy, 1)).dump(), "72000.6");
    EXPECT_EQ(nlohmann::json(noisy).dump(), "72000.59999999999");
}

TEST(PriceTextTest, AmountsAreWrittenAtTheirOwnPrecision) {
    EXPECT_EQ(format_amount(444370000.5), "444370000.5");
    EXPECT_EQ(format_amount(0.1 + 0.2), "0.3");
    EXPECT_EQ(format_amount(14400000.25), "14400000.25");
    EXPECT_EQ(format_amount(7200000), "7200000");
    EXPECT_EQ(format_amount(0), "0");
    EXPECT_EQ(format_amount(0.123456789), "0.123456789");
}

TEST(DumpFormatTest, CountsAsTextAndJson) {
    auto area = std::make_unique<share>();
    area->shfe_inst_cnt = 2;
    area->ine_inst_cnt = 3;
    area->shfe_pktno = 41;
    area->ine_pktno = -1;
    EXPECT_EQ(format_counts_table(*area), "shfe_inst_cnt 2\nine_inst_cnt 3\nshfe_pktno 41\nine_pktno -1\n");
    EXPECT_EQ(format_counts_json(*area),
              "{\"shfe_inst_cnt\":2,\"ine_inst_cnt\":3,\"shfe_pktno\":41,\"ine_pktno\":-1}\n");
}

RunResult run_dump(const std::vector<std::string>& args) {
    return run_piped(QUVO_DUMP_PATH, args);
}

class DumpToolTest : public ::testing::Test, protected CFeedSegments {
protected:
    DumpToolTest() {
        share& area = *m_segments.pMdArea;
        area.instmts[0] = copper_record();
        set_id(area.instmts[1], "al2501");
        area.instmts[1].last_px = 20000.0;
        fill_crude(area.instmts[kCrudeSlot]);
        area.shfe_inst_cnt = 2;
        area.ine_inst_cnt = 3;
        area.shfe_pktno = 41;
        area.ine_pktno = 17;
    }
};

TEST_F(DumpToolTest, JsonForTheGivenIdsInTheirOrder) {
    const RunResult result = run_dump({"--json", "sc2501", "cu2501"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, format_json(Slot(kCrudeSlot), kCrudeSlot) + format_json(Slot(0), 0));
    EXPECT_EQ(result.err, "");
}

TEST_F(DumpToolTest, TablesForEveryInstrumentInUseByDefault) {
    const std::string expected = format_table(Slot(0), 0) + "\n" + format_table(Slot(1), 1) + "\n" +
                                 format_table(Slot(kCrudeSlot), kCrudeSlot);
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{}, std::vector<std::string>{"--all"}}) {
        const RunResult result = run_dump(args);
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, expected);
    }
}

TEST_F(DumpToolTest, CountsAloneOrBeforeTheInstruments) {
    RunResult result = run_dump({"--counts"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "shfe_inst_cnt 2\nine_inst_cnt 3\nshfe_pktno 41\nine_pktno 17\n");
    result = run_dump({"--counts", "--json"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "{\"shfe_inst_cnt\":2,\"ine_inst_cnt\":3,\"shfe_pktno\":41,\"ine_pktno\":17}\n");
    result = run_dump({"--counts", "--json", "al2501"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, format_counts_json(*m_segments.pMdArea) + format_json(Slot(1), 1));
}

TEST_F(DumpToolTest, UnknownIdsAreNamedWithStatusOne) {
    const RunResult result = run_dump({"xx9999", "cu2501", "cu250"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, format_table(Slot(0), 0));
    EXPECT_EQ(result.err, "quvo-dump: no instrument in use with the identifier: xx9999, cu250\n");
}

TEST_F(DumpToolTest, BadOptionsPrintTheUsageWithStatusTwo) {
    const std::vector<std::vector<std::string>> cases = {
        {"--bogus"},
        {"--count", "3"},
        {"--watch", "--count", "0"},
        {"--watch", "--count"},
        {"--all", "cu2501"},
        {"--interval=x"},
        {"--watch", "--json", "--interval", "5"},
        {"--watch", "--counts"},
        {"--json=1"},
        {"--check"},
        {"--check="},
        {"--check", "expect.json", "--json"},
        {"--check=expect.json", "cu2501"},
        {"--check", "expect.json", "--watch"},
        {"--check", "expect.json", "--counts"},
        {"--all", "--check", "expect.json"},
        {"--health", "cu2501"},
        {"--health", "--counts"},
        {"--health", "--watch"},
        {"--health=1"},
    };
    for (const std::vector<std::string>& args : cases) {
        const RunResult result = run_dump(args);
        EXPECT_EQ(result.status, 2) << args[0];
        EXPECT_EQ(result.out, "") << args[0];
        EXPECT_EQ(result.err.rfind("quvo-dump: ", 0), 0u) << result.err;
        EXPECT_NE(result.err.find("\nUsage: quvo-dump [options] [ID ...]\n"), std::string::npos)
            << result.err;
    }
    EXPECT_EQ(run_dump({"--bogus"}).err.rfind("quvo-dump: unknown option --bogus\n", 0), 0u);
}

TEST_F(DumpToolTest, HelpDocumentsEveryOptionAndTheKeyDirectory) {
    const RunResult result = run_dump({"--help"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    for (const char* word :
         {"--all", "--json", "--counts", "--watch", "--interval MS", "--count N", "--check FILE", "--health",
          "--help", "QUVO_KEY_DIR", "/etc", "key_f", "key_e", "SIGINT", "SIGTERM"}) {
        EXPECT_NE(result.out.find(word), std::string::npos) << word;
    }
}

TEST_F(DumpToolTest, WatchReprintsAnnouncedInstrumentsUntilTheCount) {
    CPipedProcess dump(QUVO_DUMP_PATH, {"--watch", "--json", "--count", "3"}, true);
    std::string line;
    for (uint32_t slot : {0u, 1u, kCrudeSlot}) {
        ASSERT_TRUE(dump.ReadLine(line));
        EXPECT_EQ(line + "\n", format_json(Slot(slot), slot));
    }
    // Slot 5 is not in use, so its announcement is not one of the three.
    m_ring.Publish(5);
    for (uint32_t slot : {1u, kCrudeSlot, 0u}) {
        Slot(slot).change_no += 100;
        m_ring.Publish(slot);
    }
    const RunResult result = dump.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              format_json(Slot(1), 1) + format_json(Slot(kCrudeSlot), kCrudeSlot) + format_json(Slot(0), 0));
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(Slot(0).change_no, 110u);
}

TEST_F(DumpToolTest, WatchWaitsForIdsNotInUseYetAndWarnsOnce) {
    CPipedProcess dump(QUVO_DUMP_PATH, {"--watch", "--json", "--count", "2", "cu2501", "zn2501"}, true);
    std::string line;
    ASSERT_TRUE(dump.ReadLine(line));
    EXPECT_EQ(line + "\n", format_json(Slot(0), 0));
    set_id(Slot(2), "zn2501");
    Slot(2).last_px = 24000.0;
    m_segments.pMdArea->shfe_inst_cnt = 3;
    m_ring.Publish(1);  // al2501 was not asked for
    m_ring.Publish(2);
    m_ring.Publish(kCrudeSlot);
    m_ring.Publish(0);
    const RunResult result = dump.Wait();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, format_json(Slot(2), 2) + format_json(Slot(0), 0));
    EXPECT_EQ(result.err, "quvo-dump: not in use yet, waiting for: zn2501\n");
}

TEST_F(DumpToolTest, WatchStopsCleanlyOnSigintAndSigterm) {
    for (int stopSignal : {SIGINT, SIGTERM}) {
        CPipedProcess dump(QUVO_DUMP_PATH, {"--watch", "cu2501"}, true);
        std::string line;
        ASSERT_TRUE(dump.ReadLine(line));
        EXPECT_EQ(line, "cu2501  SHFE  slot 0  inst_no 0  type 1  change_no 10  time 09:30:15.500");
        ASSERT_EQ(kill(dump.Pid(), stopSignal), 0);
        const RunResult result = dump.Wait();
        EXPECT_EQ(result.status, 0) << strsignal(stopSignal);
        EXPECT_EQ(result.err, "");
    }
}

class DumpCheckTest : public DumpToolTest {
protected:
    DumpCheckTest() {
        SimState state;
        for (uint32_t slot : {0u, 1u, kCrudeSlot}) {
            state.instruments.push_back(expected_of_record(Slot(slot), slot));
        }
        std::string error;
        EXPECT_TRUE(write_sim_state(m_path, state, error)) << error;
    }

    CTempDir m_dir;
    const std::string m_path = m_dir.Path() + "/expect.json";
};

TEST_F(DumpCheckTest, EqualBooksExitZero) {
    const RunResult result = run_dump({"--check", m_path});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "3 instruments checked against " + m_path + ": all equal\n");
    EXPECT_EQ(result.err, "");
    // Fields the file does not give are not compared.
    Slot(0).update_time = 100000;
    Slot(0).bid_px[7] = 1;
    EXPECT_EQ(run_dump({"--check=" + m_path}).status, 0);
}

TEST_F(DumpCheckTest, OneChangedFieldIsNamedWithBothValues) {
    Slot(kCrudeSlot).bid_px[0] = std::nextafter(512.0, 0.0);
    RunResult result = run_dump({"--check", m_path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "sc2501 INE slot 20477 bid_px[0]: 511.99999999999994 in shared memory, 512 expected\n"
              "3 instruments checked against " +
                  m_path + ": 1 difference in 1 instrument\n");
    EXPECT_EQ(result.err, "");

    Slot(kCrudeSlot).bid_px[0] = 512.0;
    Slot(0).volume = 1235;
    set_id(Slot(1), "al2502");
    result = run_dump({"--check", m_path});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out,
              "cu2501 SHFE slot 0 volume: 1235 in shared memory, 1234 expected\n"
              "al2501 SHFE slot 1 id: \"al2502\" in shared memory, \"al2501\" expected\n"
              "3 instruments checked against " +
                  m_path + ": 2 differences in 2 instruments\n");
}

TEST_F(DumpCheckTest, FirstTwentyDifferencesThenTheCountOfTheRest) {
    for (int k = 0; k < kExchangeLevels; ++k) {
        Slot(0).bid_px[k] += 1;
        Slot(0).ask_px[k] += 1;
        Slot(0).bid_vol[k] += 1;
        Slot(0).ask_vol[k] += 1;
        Slot(kCrudeSlot).ask_vol[k] += 1;
    }
    Slot(kCrudeSlot).change_no += 1;
    const RunResult result = run_dump({"--check", m_path});
    EXPECT_EQ(result.status, 1);
    const std::vector<std::string> lines = split_lines(result.out);
    ASSERT_EQ(lines.size(), 22u) << result.out;
    for (size_t i = 0; i < 20; ++i) {
        EXPECT_EQ(lines[i].rfind("cu2501 SHFE slot 0 ", 0), 0u) << lines[i];
    }
    EXPECT_EQ(lines[0], "cu2501 SHFE slot 0 bid_px[0]: 72001 in shared memory, 72000 expected");
    EXPECT_EQ(lines[20], "... and 6 more differences");
    EXPECT_EQ(lines[21], "3 instruments checked against " + m_path + ": 26 differences in 2 instruments");
}

TEST_F(DumpCheckTest, UnusableFilesExitTwoNamingTheFile) {
    const std::string missing = m_dir.Path() + "/absent.json";
    RunResult result = run_dump({"--check", missing});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quvo-dump: cannot read " + missing + ": " + strerror(ENOENT) + "\n");

    const std::string text = read_file(m_path);
    const std::string bad = m_dir.WriteFile(
        "bad.json", text.substr(0, text.find("\"volume\"", text.find("sc2501"))) + "\"volume\": x}]}");
    result = run_dump({"--check", bad});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind("quvo-dump: " + bad + ":5: ", 0), 0u) << result.err;

    std::string moved = text;
    moved.replace(moved.find("\"slot\": 1,"), 11, "\"slot\": 2,");
    const std::string misplaced = m_dir.WriteFile("misplaced.json", moved);
    result = run_dump({"--check", misplaced});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "quvo-dump: " + misplaced +
                              ": instrument 1 (al2501): slot 2 is not where SHFE instrument 1 goes\n");
}

class DumpWithoutSegmentsTest : public ::testing::Test {
protected:
    CShmSandbox m_sandbox;
};

TEST_F(DumpWithoutSegmentsTest, AttachErrorIsPrintedAsTheReaderGivesIt) {
    RunResult result = run_dump({"--json", "cu2501"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "no market-data segment for key file " + m_sandbox.RingKeyPath() +
                              ": is quvo-md running on this host?\n");
    setenv(QUVO_KEY_DIR_ENV, (m_sandbox.Dir() + "/absent").c_str(), 1);
    result = run_dump({"--watch"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err,
              "key file " + m_sandbox.Dir() + "/absent/key_f does not exist: is QUVO_KEY_DIR right?\n");
}

TEST_F(DumpWithoutSegmentsTest, CheckWithoutSegmentsExitsTwo) {
    CTempDir dir;
    SimState state;
    state.instruments.push_back(expected_of_record(copper_record(), 0));
    std::string error;
    ASSERT_TRUE(write_sim_state(dir.Path() + "/expect.json", state, error)) << error;
    const RunResult result = run_dump({"--check", dir.Path() + "/expect.json"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "no market-data segment for key file " + m_sandbox.RingKeyPath() +
                              ": is quvo-md running on this host?\n");
}

}  // namespace
