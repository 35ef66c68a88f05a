#include "tools/ViewModel.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "src/api/InstrumentId.h"
#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "tests/support/FeedSegments.h"
#include "tests/support/Records.h"
#include "tests/support/ShmSandbox.h"

namespace {

constexpr int64_t kStart = 1000000;

instrument named(const char* id, double last = 0.0) {
    instrument inst{};
    set_id(inst, id);
    inst.last_px = last;
    inst.volume = last != 0.0 ? 1 : 0;
    return inst;
}

// The identifier column of each list line.
std::vector<std::string> listed_ids(const CViewModel& model) {
    std::vector<std::string> ids;
    for (const view_line& line : model.ListLines(kStart)) {
        ids.push_back(words(line.text.substr(1))[0]);
    }
    return ids;
}

TEST(ViewFormatTest, ChangeHasTheDecimalsGiven) {
    EXPECT_EQ(view_change(69040, 69020, 0), "+20");
    EXPECT_EQ(view_change(576.3, 576.1, 1), "+0.2");
    EXPECT_EQ(view_change(576.1, 576.3, 1), "-0.2");
    EXPECT_EQ(view_change(586.7, 586.74, 2), "-0.04");
    EXPECT_EQ(view_change(586.7, 586.74, 3), "-0.040");
    EXPECT_EQ(view_change(100, 100, 0), "0");
    EXPECT_EQ(view_change(576.2, 576.2 - 1e-12, 1), "0");
    EXPECT_EQ(view_change(-8.8, -9, 1), "+0.2");
    EXPECT_EQ(view_change(5, 0, 0), "+5");  // a spread's first price may be 0
    EXPECT_EQ(view_change(0.3, 0.1, -1), "+0.19999999999999998");
    EXPECT_EQ(view_change_percent(101, 100), "+1.00%");
    EXPECT_EQ(view_change_percent(-8.8, -9), "+2.22%");
    EXPECT_EQ(view_change_percent(5, 0), "");
}

TEST(ViewFormatTest, SpreadsAreNamedAfterTheirLegs) {
    EXPECT_TRUE(is_spread_instrument(named("cu2501-cu2601")));
    EXPECT_TRUE(is_spread_instrument(named("sc2501-sc2503")));
    EXPECT_FALSE(is_spread_instrument(named("cu2501")));
    EXPECT_FALSE(is_spread_instrument(named("cu2501C72000")));
    EXPECT_FALSE(is_spread_instrument(named("cu2501TAS")));
    instrument full{};
    memcpy(full.inst_id, "abcdefghijklmno-", 16);  // no terminating NUL
    EXPECT_TRUE(is_spread_instrument(full));
    memcpy(full.inst_id, "abcdefghijklmnop", 16);
    EXPECT_FALSE(is_spread_instrument(full));
}

// Levels 1 to 10 of one side; a price of 0 with volume 0 is an empty level.
void set_side(instrument& inst, bool bid, const std::vector<double>& prices,
              const std::vector<int32_t>& volumes) {
    for (size_t k = 0; k < prices.size(); ++k) {
        (bid ? inst.bid_px : inst.ask_px)[k] = prices[k];
        (bid ? inst.bid_vol : inst.ask_vol)[k] = volumes[k];
    }
}

// "11111 01010": levels 1 to 10, shown or not.
std::array<bool, QUVO_BOOK_LEVELS> flags(const std::string& pattern) {
    std::array<bool, QUVO_BOOK_LEVELS> shown{};
    size_t k = 0;
    for (char c : pattern) {
        if (c != ' ' && k < shown.size()) {
            shown[k++] = c == '1';
        }
    }
    return shown;
}

TEST(ViewFormatTest, LocalLevelsInOrderAreStrictlyWorseThanTheLevelShownAboveThem) {
    instrument inst{};
    // bids: 6 equals 5; 7 below 5; 8 above 7; 9 below 7; 10 empty
    set_side(inst, true, {100, 99, 98, 97, 96, 96, 95, 95.5, 94, 0}, {1, 1, 1, 1, 1, 1, 1, 1, 1, 0});
    EXPECT_EQ(view_levels_in_order(inst, true), flags("11111 01010"));
    // asks: 6 better than 5; 7 above 5; 8 empty; 9 and 10 above 7
    set_side(inst, false, {101, 102, 103, 104, 105, 104, 106, 0, 107, 108}, {1, 1, 1, 1, 1, 1, 1, 0, 1, 1});
    EXPECT_EQ(view_levels_in_order(inst, false), flags("11111 01011"));
    // Exchange levels are shown as published, even out of order or empty.
    set_side(inst, false, {101, 101, 0, 0, 0, 102, 103, 0, 0, 0}, {1, 1, 0, 0, 0, 1, 1, 0, 0, 0});
    EXPECT_EQ(view_levels_in_order(inst, false), flags("11111 00000"));
    // Nothing is strictly worse than an empty level 5.
    set_side(inst, true, {100, 99, 98, 97, 0, 96, 95, 94, 93, 92}, {1, 1, 1, 1, 0, 1, 1, 1, 1, 1});
    EXPECT_EQ(view_levels_in_order(inst, true), flags("11111 00000"));
    // Spreads: a price of 0 with volume is a level, prices may be negative.
    set_side(inst, false, {-5, -4, -3, -2, -1, 0, 0, 1, 1, 0.5}, {1, 1, 1, 1, 1, 2, 0, 1, 1, 1});
    EXPECT_EQ(view_levels_in_order(inst, false), flags("11111 10100"));
    set_side(inst, true, {2, 1, 0, -1, -2, -3, -3, -4, -2, -5}, {1, 1, 5, 1, 1, 1, 1, 1, 1, 1});
    EXPECT_EQ(view_levels_in_order(inst, true), flags("11111 10101"));
}

TEST(ViewFormatTest, LastPriceNeedsATradeOrAPrice) {
    instrument inst{};
    EXPECT_FALSE(view_has_last(inst));
    inst.volume = 3;  // a spread trading at 0
    EXPECT_TRUE(view_has_last(inst));
    inst.volume = 0;
    inst.last_px = 1.5;
    EXPECT_TRUE(view_has_last(inst));
}

TEST(UpdateRateTest, CountsTheTenFullBucketsBeforeTheCurrentOne) {
    CUpdateRate rate;
    for (int i = 0; i < 3; ++i) {
        rate.Add(5, 1000 + 30 * i);  // bucket 10
    }
    rate.Add(6, 1010);
    EXPECT_EQ(rate.PerSecond(5, 1099), 0u);  // still the current bucket
    EXPECT_EQ(rate.PerSecond(5, 1100), 3u);
    EXPECT_EQ(rate.PerSecond(5, 2099), 3u);
    EXPECT_EQ(rate.PerSecond(5, 2100), 0u);  // slid out
    EXPECT_EQ(rate.PerSecond(6, 1100), 1u);
    EXPECT_EQ(rate.TotalPerSecond(1100), 4u);
    EXPECT_EQ(rate.PerSecond(7, 1100), 0u);
    EXPECT_EQ(rate.PerSecond(QUVO_INST_SLOTS, 1100), 0u);
}

TEST(UpdateRateTest, CurrentBucketDoesNotEraseTheOldestCounted) {
    CUpdateRate rate;
    // buckets 0..10, one announcement each
    for (int64_t t = 0; t <= 1000; t += 100) {
        rate.Add(1, t);
    }
    EXPECT_EQ(rate.PerSecond(1, 1050), 10u);  // buckets 0..9
    EXPECT_EQ(rate.PerSecond(1, 1100), 10u);  // buckets 1..10
    rate.Add(1, 1100);
    EXPECT_EQ(rate.PerSecond(1, 1150), 10u);
    rate.Clear();
    EXPECT_EQ(rate.PerSecond(1, 1150), 0u);
}

TEST(ViewModelTest, RowsGoShfeThenIneEachByInstrumentNumber) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(quvo_ine_slot(0), named("sc2501"));
    model.Update(quvo_shfe_slot(3), named("al2501"));
    model.Update(quvo_shfe_slot(1), named("cu2501"));
    model.Update(quvo_ine_slot(2), named("nr2501"));
    model.Update(quvo_shfe_slot(1), named("cu2501", 5));
    EXPECT_EQ(model.RowCount(), 4u);
    EXPECT_EQ(listed_ids(model), (std::vector<std::string>{"cu2501", "al2501", "sc2501", "nr2501"}));
    // Nothing picked yet: the first row, whatever came first.
    EXPECT_FALSE(model.Chosen());
    EXPECT_EQ(model.SelectedSlot(), static_cast<int>(quvo_shfe_slot(1)));
    // Once picked, the selection stays on its instrument as rows arrive.
    model.MoveBy(1);
    EXPECT_TRUE(model.Chosen());
    model.Update(quvo_shfe_slot(0), named("zn2501"));
    EXPECT_EQ(model.SelectedSlot(), static_cast<int>(quvo_shfe_slot(3)));
    ASSERT_NE(model.Find(quvo_shfe_slot(1)), nullptr);
    EXPECT_EQ(model.Find(quvo_shfe_slot(1))->last_px, 5);
    EXPECT_EQ(model.Find(quvo_shfe_slot(2)), nullptr);
}

TEST(ViewModelTest, ListRowShowsBestLevelsRateAndChangeSinceTheFirstPriceSeen) {
    CViewModel model;
    model.SetPageRows(10);
    instrument inst = copper_record();
    model.Update(0, inst);
    inst.last_px = 72030.0;
    model.Update(0, inst);
    model.Announce(0, kStart - 500);
    model.Announce(0, kStart - 400);
    const std::vector<view_line> lines = model.ListLines(kStart);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].style, EViewStyle::Selected);
    EXPECT_EQ(words(lines[0].text), (std::vector<std::string>{">", "cu2501", "SHFE", "72030", "+20", "+0.03%",
                                                              "1234", "72000", "10", "72010", "5", "2"}));
    EXPECT_EQ(words(CViewModel::ListHeading()),
              (std::vector<std::string>{"ID", "EXCH", "LAST", "CHANGE", "CHG%", "VOLUME", "BID", "BIDVOL",
                                        "ASK", "ASKVOL", "UPD/S"}));
}

TEST(ViewModelTest, NoTradeAndEmptyBestLevelsAreBlank) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(quvo_ine_slot(1), named("sc2501"));
    EXPECT_EQ(words(model.ListLines(kStart)[0].text),
              (std::vector<std::string>{">", "sc2501", "INE", "0", "0"}));  // volume and rate
}

TEST(ViewModelTest, BaselineBelongsToTheIdentifier) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(0, named("cu2501", 100));
    model.Update(1, named("al2501", 50));
    model.ClearRows();
    EXPECT_EQ(model.RowCount(), 0u);
    EXPECT_EQ(model.SelectedSlot(), -1);
    // A new run puts the instruments in other slots.
    model.Update(0, named("al2501", 55));
    model.Update(1, named("cu2501", 90));
    std::vector<view_line> lines = model.ListLines(kStart);
    EXPECT_EQ(words(lines[0].text)[4], "+5");
    EXPECT_EQ(words(lines[1].text)[3], "-10");
    // A slot taken over by another instrument without clearing the rows.
    model.Update(0, named("zn2501", 7));
    model.Update(0, named("zn2501", 8));
    lines = model.ListLines(kStart);
    EXPECT_EQ(words(lines[0].text)[1], "zn2501");
    EXPECT_EQ(words(lines[0].text)[4], "+1");
}

TEST(ViewModelTest, KeepDropsTheRowsOfOtherSlots) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(0, named("al2501"));
    model.Update(1, named("cu2501"));
    model.Update(2, named("zn2501"));
    model.Update(quvo_ine_slot(0), named("sc2501"));
    model.MoveBy(2);
    model.Keep({0, 2});
    EXPECT_EQ(listed_ids(model), (std::vector<std::string>{"al2501", "zn2501"}));
    EXPECT_EQ(model.SelectedSlot(), 2);
    EXPECT_EQ(model.Find(1), nullptr);
    model.Update(1, named("cu2501"));
    EXPECT_EQ(listed_ids(model), (std::vector<std::string>{"al2501", "cu2501", "zn2501"}));
    model.Keep({0, 1});
    EXPECT_EQ(model.SelectedSlot(), 0);  // its row went: back to the first
}

TEST(ViewModelTest, FilterKeepsIdentifiersStartingWithThePrefixIgnoringCase) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(0, named("al2501"));
    model.Update(1, named("cu2501"));
    model.Update(2, named("CU2503"));
    model.Update(3, named("zn2501"));
    model.Update(quvo_ine_slot(0), named("bc2501-cu2501"));
    model.MoveBy(3);
    EXPECT_EQ(model.SelectedSlot(), 3);

    model.SetFilter("cU");
    EXPECT_EQ(model.VisibleCount(), 2u);
    EXPECT_EQ(listed_ids(model), (std::vector<std::string>{"cu2501", "CU2503"}));
    EXPECT_EQ(model.SelectedSlot(), 1);  // zn2501 hidden: the first shown
    model.MoveBy(1);
    EXPECT_EQ(model.SelectedSlot(), 2);

    model.Update(4, named("cu2505"));  // a new instrument that matches
    EXPECT_EQ(model.VisibleCount(), 3u);

    model.SetFilter("x");
    EXPECT_EQ(model.VisibleCount(), 0u);
    EXPECT_EQ(model.SelectedSlot(), -1);
    EXPECT_FALSE(model.OpenLadder());

    model.SetFilter("");
    EXPECT_EQ(model.VisibleCount(), 6u);
    EXPECT_EQ(model.Filter(), "");
}

TEST(ViewModelTest, SelectionStaysOnItsInstrumentWhenTheFilterLetsItThrough) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(0, named("al2501"));
    model.Update(1, named("cu2501"));
    model.Update(2, named("cu2502"));
    model.MoveBy(2);
    model.SetFilter("cu");
    EXPECT_EQ(model.SelectedSlot(), 2);
    model.SetFilter("");
    EXPECT_EQ(model.SelectedSlot(), 2);
}

TEST(ViewModelTest, SelectsByIdentifierAmongTheRowsShown) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(0, named("al2501"));
    model.Update(1, named("cu2501"));
    EXPECT_EQ(model.SelectedId(), "al2501");
    EXPECT_TRUE(model.SelectId("cu2501"));
    EXPECT_EQ(model.SelectedSlot(), 1);
    EXPECT_FALSE(model.SelectId("cu"));
    model.SetFilter("al");
    EXPECT_FALSE(model.SelectId("cu2501"));
    EXPECT_EQ(model.SelectedId(), "al2501");
    model.SetFilter("x");
    EXPECT_EQ(model.SelectedId(), "");
}

TEST(ViewModelTest, PagingKeepsTheSelectionOnScreen) {
    CViewModel model;
    model.SetPageRows(10);
    for (uint32_t n = 0; n < 30; ++n) {
        model.Update(n, named(("x" + std::to_string(100 + n)).c_str()));
    }
    auto first_and_selected = [&]() {
        const std::vector<view_line> lines = model.ListLines(kStart);
        std::string selected;
        for (const view_line& line : lines) {
            if (line.style == EViewStyle::Selected) {
                selected = words(line.text)[1];
            }
        }
        return std::make_pair(words(lines.front().text.substr(1))[0], selected);
    };
    EXPECT_EQ(model.ListLines(kStart).size(), 10u);
    model.MoveEnd();
    EXPECT_EQ(first_and_selected(), std::make_pair(std::string("x120"), std::string("x129")));
    model.PageUp();  // index 19: scrolls up by one
    EXPECT_EQ(first_and_selected(), std::make_pair(std::string("x119"), std::string("x119")));
    model.MoveHome();
    EXPECT_EQ(first_and_selected(), std::make_pair(std::string("x100"), std::string("x100")));
    model.PageDown();  // index 10: the page ends at it
    EXPECT_EQ(first_and_selected(), std::make_pair(std::string("x101"), std::string("x110")));
    model.MoveBy(-100);
    EXPECT_EQ(model.SelectedSlot(), 0);
    model.MoveBy(100);
    EXPECT_EQ(model.SelectedSlot(), 29);
    model.SetPageRows(4);  // a smaller window still shows the selection
    EXPECT_EQ(first_and_selected(), std::make_pair(std::string("x126"), std::string("x129")));
}

TEST(ViewModelTest, LadderShowsStatisticsAndTenLevelsMarkingTheLocalOnes) {
    CViewModel model;
    model.SetPageRows(10);
    model.Update(quvo_shfe_slot(0), copper_record());
    model.Announce(0, kStart - 200);
    ASSERT_TRUE(model.OpenLadder());
    EXPECT_TRUE(model.InLadder());
    const std::vector<view_line> lines = model.LadderLines(kStart);
    ASSERT_GE(lines.size(), 11u);
    EXPECT_EQ(lines[0].text, "cu2501  SHFE  slot 0  inst_no 0  updated 09:30:15.500");
    std::string all;
    for (const view_line& line : lines) {
        all += line.text + "\n";
    }
    for (const char* stat :
         {"open interest  *5678", "turnover  *444370000.5", "highest  *72100", "lowest  *71900",
          "bid total volume  *100", "ask total volume  *200", "bid total amount  *7200000",
          "ask total amount  *14400000.25", "change_no  *10", "type  *1", "volume  *1234", "updates/s  *1"}) {
        EXPECT_TRUE(std::regex_search(all, std::regex(stat))) << stat << "\n" << all;
    }
    const size_t first = lines.size() - 10;
    EXPECT_EQ(words(lines[first - 1].text), (std::vector<std::string>{"level", "bid", "vol", "bid", "px", "|",
                                                                      "ask", "px", "ask", "vol", "source"}));
    for (int k = 0; k < 10; ++k) {
        const view_line& line = lines[first + static_cast<size_t>(k)];
        const std::vector<std::string> w = words(line.text);
        EXPECT_EQ(w.front(), std::to_string(k + 1));
        EXPECT_EQ(w.back(), k < 5 ? "exchange" : "local");
        EXPECT_EQ(line.style, k < 5 ? EViewStyle::Normal : EViewStyle::Local);
    }
    EXPECT_EQ(words(lines[first].text),
              (std::vector<std::string>{"1", "10", "72000", "|", "72010", "5", "exchange"}));
    EXPECT_EQ(words(lines[first + 4].text),
              (std::vector<std::string>{"5", "14", "71960", "|", "72050", "9", "exchange"}));
    EXPECT_EQ(words(lines[first + 5].text), (std::vector<std::string>{"6", "2", "71950", "|", "local"}));
    EXPECT_EQ(words(lines[first + 9].text), (std::vector<std::string>{"10", "|", "local"}));
    // Statistics in three columns, or as many as the width has room for.
    EXPECT_EQ(words(lines[2].text),
              (std::vector<std::string>{"last", "72010", "change", "0", "(+0.00%)", "volume", "1234"}));
    EXPECT_EQ(model.LadderLines(kStart, 200).size(), lines.size());
    const std::vector<view_line> narrow = model.LadderLines(kStart, 80);
    EXPECT_EQ(narrow.size(), lines.size() + 2);  // 14 cells: 7 lines of two, not 5 of three
    EXPECT_EQ(words(narrow[2].text), (std::vector<std::string>{"last", "72010", "change", "0", "(+0.00%)"}));
    for (const view_line& line : narrow) {
        EXPECT_LE(line.text.size(), 80u) << line.text;
    }
    EXPECT_EQ(model.LadderLines(kStart, 30).size(), lines.size() + 9);  // one a line
    model.CloseLadder();
    EXPECT_FALSE(model.InLadder());
}

// The text of a list line under the right-aligned column `label`.
std::string list_cell(const std::string& line, const std::string& label, size_t width) {
    const size_t end = CViewModel::ListHeading().find(" " + label) + 1 + label.size();
    const std::string cell = line.substr(end - width, width);
    const std::vector<std::string> w = words(cell);
    return w.empty() ? "" : w[0];
}

TEST(ViewModelTest, SpreadsShowTheirChangeButNoPercent) {
    CViewModel model;
    model.SetPageRows(10);
    instrument future = named("cu2502", 10);
    instrument spread = named("cu2501-cu2601", -10);
    instrument atZero = named("al2501-al2502");
    atZero.volume = 3;  // traded at 0
    model.Update(0, future);
    model.Update(1, spread);
    model.Update(2, atZero);
    future.last_px = 20;
    spread.last_px = -20;
    atZero.last_px = 5;
    model.Update(0, future);
    model.Update(1, spread);
    model.Update(2, atZero);
    const std::vector<view_line> lines = model.ListLines(kStart);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(list_cell(lines[0].text, "CHANGE", 10), "+10");
    EXPECT_EQ(list_cell(lines[0].text, "CHG%", 8), "+100.00%");
    EXPECT_EQ(list_cell(lines[1].text, "LAST", 12), "-20");
    EXPECT_EQ(list_cell(lines[1].text, "CHANGE", 10), "-10");
    EXPECT_EQ(list_cell(lines[1].text, "CHG%", 8), "");
    EXPECT_EQ(list_cell(lines[2].text, "CHANGE", 10), "+5");
    EXPECT_EQ(list_cell(lines[2].text, "CHG%", 8), "");

    ASSERT_TRUE(model.SelectId("cu2501-cu2601"));
    ASSERT_TRUE(model.OpenLadder());
    EXPECT_EQ(words(model.LadderLines(kStart)[2].text),
              (std::vector<std::string>{"last", "-20", "change", "-10", "volume", "1"}));
    ASSERT_TRUE(model.SelectId("cu2502"));
    EXPECT_EQ(words(model.LadderLines(kStart)[2].text),
              (std::vector<std::string>{"last", "20", "change", "+10", "(+100.00%)", "volume", "1"}));
}

// sc2501 at a tick of 0.1: a few of its prices are whole.
instrument crude_record() {
    instrument inst{};
    set_id(inst, "sc2501");
    inst.last_px = 576.2;
    inst.volume = 30;
    inst.turnover = 17286000.5;
    inst.open_interest = 120;
    inst.bid_totamount = 57600.25;
    inst.ask_totamount = 1000;
    inst.highest_price = 580.5;
    inst.lowest_price = 570.0;
    for (int k = 0; k < 5; ++k) {
        inst.bid_px[k] = 576.0 - 0.1 * k;
        inst.bid_vol[k] = 10 + k;
        inst.ask_px[k] = 576.2 + 0.1 * k;
        inst.ask_vol[k] = 5 + k;
    }
    return inst;
}

// The level lines of a ladder: the ten after the heading that starts "level".
std::vector<std::string> level_lines(const std::vector<view_line>& lines) {
    std::vector<std::string> levels;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (!words(lines[i].text).empty() && words(lines[i].text)[0] == "level") {
            for (size_t k = i + 1; k < lines.size() && k <= i + QUVO_BOOK_LEVELS; ++k) {
                levels.push_back(lines[k].text);
            }
        }
    }
    return levels;
}

TEST(ViewModelTest, PricesHaveTheDecimalsOfTheInstrumentsTick) {
    CViewModel model;
    model.SetPageRows(10);
    instrument inst = crude_record();
    model.Update(quvo_ine_slot(0), inst);
    EXPECT_EQ(words(model.ListLines(kStart)[0].text),
              (std::vector<std::string>{">", "sc2501", "INE", "576.2", "0", "+0.00%", "30", "576.0", "10",
                                        "576.2", "5", "0"}));
    ASSERT_TRUE(model.OpenLadder());
    std::vector<view_line> lines = model.LadderLines(kStart);
    std::string all;
    for (const view_line& line : lines) {
        all += line.text + "\n";
    }
    for (const char* stat :
         {"last  *576.2 ", "highest  *580.5 ", "lowest  *570.0 ", "turnover  *17286000.5 ",
          "open interest  *120 ", "bid total amount  *57600.25 ", "ask total amount  *1000\n"}) {
        EXPECT_TRUE(std::regex_search(all, std::regex(stat))) << stat << "\n" << all;
    }
    std::vector<std::string> levels = level_lines(lines);
    ASSERT_EQ(levels.size(), 10u);
    EXPECT_EQ(words(levels[0]),
              (std::vector<std::string>{"1", "10", "576.0", "|", "576.2", "5", "exchange"}));
    EXPECT_EQ(words(levels[4]),
              (std::vector<std::string>{"5", "14", "575.6", "|", "576.6", "9", "exchange"}));
    // One count of decimals: the points of a column line up.
    for (size_t k = 1; k < 5; ++k) {
        EXPECT_EQ(levels[k].find('.'), levels[0].find('.')) << levels[k];
        EXPECT_EQ(levels[k].rfind('.'), levels[0].rfind('.')) << levels[k];
    }

    inst.last_px = 576.4;
    model.Update(quvo_ine_slot(0), inst);
    EXPECT_EQ(list_cell(model.ListLines(kStart)[0].text, "CHANGE", 10), "+0.2");

    // Whole prices for a while: the columns keep their decimals.
    inst.last_px = 577;
    inst.highest_price = 580;
    inst.lowest_price = 570;
    for (int k = 0; k < 5; ++k) {
        inst.bid_px[k] = 576 - k;
        inst.ask_px[k] = 577 + k;
    }
    model.Update(quvo_ine_slot(0), inst);
    EXPECT_EQ(words(model.ListLines(kStart)[0].text),
              (std::vector<std::string>{">", "sc2501", "INE", "577.0", "+0.8", "+0.14%", "30", "576.0", "10",
                                        "577.0", "5", "0"}));
    levels = level_lines(model.LadderLines(kStart));
    ASSERT_EQ(levels.size(), 10u);
    EXPECT_EQ(words(levels[4]),
              (std::vector<std::string>{"5", "14", "572.0", "|", "581.0", "9", "exchange"}));

    // Another instrument in the slot starts afresh.
    model.Update(quvo_ine_slot(0), copper_record());
    EXPECT_EQ(list_cell(model.ListLines(kStart)[0].text, "LAST", 12), "72010");
}

TEST(ViewModelTest, LadderCanHideTheLocalLevelsOutOfOrder) {
    CViewModel model;
    model.SetPageRows(10);
    instrument inst = copper_record();
    // bid 6 below 5, 7 equal to 5, 8 below 6; ask 6 better than 5, 7 above 5
    inst.bid_px[6] = 71960.0;
    inst.bid_vol[6] = 3;
    inst.bid_px[7] = 71940.0;
    inst.bid_vol[7] = 1;
    inst.ask_px[5] = 72040.0;
    inst.ask_vol[5] = 4;
    inst.ask_px[6] = 72060.0;
    inst.ask_vol[6] = 1;
    model.Update(0, inst);
    ASSERT_TRUE(model.OpenLadder());
    EXPECT_FALSE(model.HidesOutOfOrder());
    const std::vector<view_line> every = model.LadderLines(kStart);
    std::vector<std::string> levels = level_lines(every);
    ASSERT_EQ(levels.size(), 10u);
    EXPECT_EQ(words(levels[5]), (std::vector<std::string>{"6", "2", "71950", "|", "72040", "4", "local"}));
    EXPECT_EQ(words(levels[6]), (std::vector<std::string>{"7", "3", "71960", "|", "72060", "1", "local"}));
    EXPECT_EQ(words(levels[8]), (std::vector<std::string>{"9", "|", "local"}));

    model.SetHideOutOfOrder(true);
    EXPECT_TRUE(model.HidesOutOfOrder());
    const std::vector<view_line> lines = model.LadderLines(kStart);
    levels = level_lines(lines);
    ASSERT_EQ(levels.size(), 10u);
    EXPECT_EQ(words(levels[4]),
              (std::vector<std::string>{"5", "14", "71960", "|", "72050", "9", "exchange"}));
    EXPECT_EQ(words(levels[5]), (std::vector<std::string>{"6", "2", "71950", "|", "local"}));
    EXPECT_EQ(words(levels[6]), (std::vector<std::string>{"7", "|", "72060", "1", "local"}));
    EXPECT_EQ(words(levels[7]), (std::vector<std::string>{"8", "1", "71940", "|", "local"}));
    EXPECT_EQ(words(levels[8]), (std::vector<std::string>{"9", "|"}));
    EXPECT_EQ(words(levels[9]), (std::vector<std::string>{"10", "|"}));
    // The hidden cells stay blank in their columns.
    EXPECT_EQ(levels[6].find(" | "), levels[5].find(" | "));
    EXPECT_EQ(levels[6].find("72060"), every[every.size() - 10 + 6].text.find("72060"));
    EXPECT_EQ(lines.back().text, "  local levels out of order hidden: 1 bid, 1 ask");
    const size_t first = lines.size() - 12;
    for (size_t k = 5; k < 10; ++k) {
        EXPECT_EQ(lines[first + k].style, EViewStyle::Local) << lines[first + k].text;
    }

    model.SetHideOutOfOrder(false);
    EXPECT_EQ(level_lines(model.LadderLines(kStart)), level_lines(every));
    EXPECT_EQ(model.LadderLines(kStart).size(), every.size());
}

// Segments made as the feed makes them; the test plays the feed.
class ViewFeedTest : public ::testing::Test, protected CFeedSegments {
protected:
    ViewFeedTest() {
        m_segments.pMdArea->shfe_inst_cnt = 2;
        m_segments.pMdArea->ine_inst_cnt = 1;
        Write(0, named("cu2501", 100));
        Write(1, named("al2501", 50));
        Write(quvo_ine_slot(0), named("sc2501", 500.5));
    }
    ~ViewFeedTest() override { StopFeed(); }

    void Write(uint32_t slot, const instrument& inst) { m_segments.pMdArea->instmts[slot] = inst; }
    void StopFeed() {
        if (m_segments.pMdArea != nullptr) {
            detach_shared_segments(m_segments);
            m_segments = SharedSegments{};
        }
    }
    // The feed gone, its segments removed, and a new run that made new ones.
    void ReplaceSegments() {
        StopFeed();
        for (const std::string& path : {m_sandbox.RingKeyPath(), m_sandbox.AreaKeyPath()}) {
            ASSERT_EQ(shmctl(CShmSandbox::SegmentId(path), IPC_RMID, nullptr), 0);
        }
        m_segments = attach_shared_segments();
        m_ring = CUpdateRing(m_segments.pUpdateRing);
        m_segments.pMdArea->ine_inst_cnt = 4;
        Write(quvo_ine_slot(2), named("nr2501", 13000));
        Write(quvo_ine_slot(3), named("sc2501", 501));
    }
    double Last(uint32_t slot) const {
        const instrument* inst = m_model.Find(slot);
        return inst == nullptr ? -1.0 : inst->last_px;
    }

    CViewModel m_model;
    CViewFeed m_feed{m_model};
};

TEST(ViewFeedAttach, FailsAndSaysWhyWithoutSegments) {
    CShmSandbox sandbox;
    CViewModel model;
    CViewFeed feed(model);
    std::string error;
    EXPECT_FALSE(feed.Attach(kStart, error));
    EXPECT_NE(error.find("is quvo-md running"), std::string::npos) << error;
    EXPECT_EQ(feed.State(), EFeedState::Waiting);
    EXPECT_EQ(feed.Status(kStart), "waiting for quvo-md: " + error);
    EXPECT_EQ(feed.Poll(kStart + 1000), 0u);
    EXPECT_EQ(model.RowCount(), 0u);
}

TEST_F(ViewFeedTest, LoadsEveryInstrumentInUseOnAttach) {
    std::string error;
    ASSERT_TRUE(m_feed.Attach(kStart, error)) << error;
    EXPECT_EQ(m_model.RowCount(), 3u);
    EXPECT_EQ(Last(quvo_ine_slot(0)), 500.5);
    EXPECT_EQ(m_feed.State(), EFeedState::Live);
    EXPECT_EQ(m_feed.Status(kStart), "quvo-md attached, no updates yet");
}

TEST_F(ViewFeedTest, CopiesAnnouncedRecordsAndCountsThem) {
    std::string error;
    ASSERT_TRUE(m_feed.Attach(kStart, error)) << error;
    Write(1, named("al2501", 51));
    m_ring.Publish(1);
    m_ring.Publish(1);
    m_segments.pMdArea->shfe_inst_cnt = 3;
    Write(2, named("zn2501", 20));
    m_ring.Publish(2);
    EXPECT_EQ(m_feed.Poll(kStart + 10), 3u);
    EXPECT_EQ(Last(1), 51);
    EXPECT_EQ(Last(2), 20);
    EXPECT_EQ(m_model.RowCount(), 4u);
    EXPECT_EQ(m_feed.Poll(kStart + 20), 0u);
    EXPECT_EQ(m_model.TotalPerSecond(kStart + 1000), 3u);
    EXPECT_EQ(m_feed.Status(kStart + 20), "quvo-md live");
    EXPECT_EQ(m_feed.Status(kStart + 2010), "quvo-md attached, no updates for 2 s");
}

TEST_F(ViewFeedTest, FollowsTheRingAfterTheFeedRestartsOnTheSameSegments) {
    for (int i = 0; i < 50; ++i) {
        m_ring.Publish(0);
    }
    std::string error;
    ASSERT_TRUE(m_feed.Attach(kStart, error)) << error;
    m_ring.Publish(0);
    EXPECT_EQ(m_feed.Poll(kStart + 10), 1u);
    // A new run: the ring refilled with end markers, announcements from entry 0.
    m_ring = CUpdateRing(m_segments.pUpdateRing);
    m_ring.Reset();
    m_ring.Publish(0);
    EXPECT_EQ(m_feed.Poll(kStart + 20), 0u);
    m_feed.Poll(kStart + CViewFeed::kCheckMs + 20);  // notices the reset
    Write(1, named("al2501", 52));
    m_ring.Publish(1);
    // Both announcements of the new run; before the next full copy, so only
    // the announcement brings the change.
    EXPECT_EQ(m_feed.Poll(kStart + CViewFeed::kCheckMs + 30), 2u);
    EXPECT_EQ(Last(1), 52);
}

TEST_F(ViewFeedTest, CopiesEveryInstrumentPeriodicallyWithoutAnnouncements) {
    std::string error;
    ASSERT_TRUE(m_feed.Attach(kStart, error)) << error;
    Write(0, named("cu2501", 101));
    m_segments.pMdArea->shfe_inst_cnt = 1;  // al2501 no longer listed
    m_feed.Poll(kStart + CViewFeed::kFullCopyMs - 1);
    EXPECT_EQ(Last(0), 100);
    EXPECT_EQ(m_model.RowCount(), 3u);
    m_feed.Poll(kStart + CViewFeed::kFullCopyMs);
    EXPECT_EQ(Last(0), 101);
    EXPECT_EQ(m_model.RowCount(), 2u);
    EXPECT_EQ(m_model.Find(1), nullptr);
}

TEST_F(ViewFeedTest, WaitsWhileNothingElseHoldsTheSegments) {
    std::string error;
    ASSERT_TRUE(m_feed.Attach(kStart, error)) << error;
    StopFeed();
    m_feed.Poll(kStart + CViewFeed::kCheckMs);
    EXPECT_EQ(m_feed.State(), EFeedState::Stopped);
    EXPECT_EQ(m_feed.Status(kStart + CViewFeed::kCheckMs).rfind("waiting for quvo-md", 0), 0u);
    EXPECT_EQ(m_model.RowCount(), 3u);  // the books it left
    m_segments = attach_shared_segments();
    m_feed.Poll(kStart + 2 * CViewFeed::kCheckMs);
    EXPECT_EQ(m_feed.State(), EFeedState::Live);
}

TEST_F(ViewFeedTest, AttachesAnewWhenTheSegmentsAreReplaced) {
    std::string error;
    ASSERT_TRUE(m_feed.Attach(kStart, error)) << error;
    m_model.SetPageRows(10);
    ASSERT_TRUE(m_model.SelectId("sc2501"));
    ReplaceSegments();
    int64_t now = kStart + CViewFeed::kCheckMs;
    m_feed.Poll(now);
    EXPECT_EQ(m_feed.State(), EFeedState::Waiting);
    EXPECT_EQ(m_feed.Status(now), "waiting for quvo-md: its segments were removed");
    EXPECT_EQ(m_model.RowCount(), 3u);  // the books it left
    m_feed.Poll(now + 1);
    EXPECT_EQ(m_feed.State(), EFeedState::Live);
    EXPECT_EQ(m_model.RowCount(), 2u);
    EXPECT_EQ(Last(quvo_ine_slot(2)), 13000);
    // The selected instrument stays selected in its new slot.
    EXPECT_EQ(m_model.SelectedSlot(), static_cast<int>(quvo_ine_slot(3)));

    // Removed with no new run: retried every kRetryMs until one comes.
    StopFeed();
    for (const std::string& path : {m_sandbox.RingKeyPath(), m_sandbox.AreaKeyPath()}) {
        ASSERT_EQ(shmctl(CShmSandbox::SegmentId(path), IPC_RMID, nullptr), 0);
    }
    now += CViewFeed::kCheckMs + 1;
    m_feed.Poll(now);
    m_feed.Poll(now + 1);
    EXPECT_EQ(m_feed.State(), EFeedState::Waiting);
    EXPECT_NE(m_feed.Status(now + 1).find("is quvo-md running"), std::string::npos) << m_feed.Status(now + 1);
    m_segments = attach_shared_segments();
    m_segments.pMdArea->shfe_inst_cnt = 1;
    Write(0, named("cu2501", 99));
    m_feed.Poll(now + 2);
    EXPECT_EQ(m_feed.State(), EFeedState::Waiting);  // not yet due
    m_feed.Poll(now + 1 + CViewFeed::kRetryMs);
    EXPECT_EQ(m_feed.State(), EFeedState::Live);
    EXPECT_EQ(Last(0), 99);
}

// A health segment made as the feed makes it; the test plays a live feed.
class ViewHealthTest : public ::testing::Test {
protected:
    ~ViewHealthTest() override { Remove(); }

    quvo_health& Create() {
        const key_t key = ftok(m_sandbox.AreaKeyPath().c_str(), QUVO_HEALTH_PROJ_ID);
        m_id = shmget(key, sizeof(quvo_health), IPC_CREAT | 0644);
        EXPECT_GE(m_id, 0);
        m_pHealth = static_cast<quvo_health*>(shmat(m_id, nullptr, 0));
        memset(m_pHealth, 0, sizeof(quvo_health));
        m_pHealth->version = QUVO_HEALTH_VERSION;
        m_pHealth->size = sizeof(quvo_health);
        m_pHealth->process.pid = static_cast<uint64_t>(getpid());
        m_pHealth->process.start_ns = 1;
        m_pHealth->process.start_ticks = quvo_process_start_ticks(getpid());
        m_pHealth->process.phase = QUVO_PHASE_LIVE;
        m_pHealth->magic = QUVO_HEALTH_MAGIC;
        return *m_pHealth;
    }
    void Remove() {
        if (m_pHealth != nullptr) {
            shmdt(m_pHealth);
            shmctl(m_id, IPC_RMID, nullptr);
            m_pHealth = nullptr;
        }
    }

    CShmSandbox m_sandbox;
    quvo_health* m_pHealth = nullptr;
    int m_id = -1;
};

TEST_F(ViewHealthTest, SaysSoWithoutASegment) {
    CViewHealth health;
    health.Poll(kStart);
    EXPECT_EQ(health.Summary(), "no health figures");
}

TEST_F(ViewHealthTest, RecordsASecondFromTwoReads) {
    quvo_health& figures = Create();
    figures.records.received = 1000;
    figures.restarts.by_reason[QUVO_RESTART_GAP] = 2;
    CViewHealth health;
    health.Poll(kStart);
    EXPECT_EQ(health.Summary(), "live  restarts 2  p99 -");
    figures.records.received += 600;
    figures.latency.samples = 1;
    figures.latency.max_ns = 1500;
    figures.latency.buckets[quvo_health_bucket(1500)] = 1;
    health.Poll(kStart + CViewHealth::kReadMs - 1);  // not due: the copy stays
    EXPECT_EQ(health.Summary(), "live  restarts 2  p99 -");
    health.Poll(kStart + CViewHealth::kReadMs);
    EXPECT_EQ(health.Summary(), "live  1,200 rec/s  restarts 2  p99 1.5us");

    figures.process.phase = QUVO_PHASE_STOPPED;
    health.Poll(kStart + 2 * CViewHealth::kReadMs);
    EXPECT_EQ(health.Summary(), "stopped  restarts 2  p99 1.5us");

    // A segment whose layout is unknown gives no figures.
    figures.version = QUVO_HEALTH_VERSION + 1;
    health.Poll(kStart + 3 * CViewHealth::kReadMs);
    EXPECT_EQ(health.Summary(), "no health figures");

    // Removed, then made anew by another feed: attached again.
    Remove();
    health.Poll(kStart + 4 * CViewHealth::kReadMs);
    EXPECT_EQ(health.Summary(), "no health figures");
    Create().process.phase = QUVO_PHASE_SNAPSHOT;
    health.Poll(kStart + 5 * CViewHealth::kReadMs);
    EXPECT_EQ(health.Summary(), "snapshot  restarts 0  p99 -");
}

}  // namespace
