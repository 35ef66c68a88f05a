// quvo-view in a tmux pane against quvo-md on the simulator: what the screen
// shows is checked against the books as quvo-dump reads them.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "src/api/SharedSegments.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Poll.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"
#include "tests/support/TmuxPane.h"
#include "tests/support/ViewScreen.h"
#include "tools/DumpFormat.h"

namespace {

// Generous: under the sanitizers every process here runs several times slower.
constexpr double kTimeoutSeconds = 60;
constexpr int kWidth = 160;
constexpr int kHeight = 50;

// A price as the exchange wrote it: fifteen significant digits drop the
// binary noise of tick arithmetic.
std::string shortest(double value) {
    char text[64];
    snprintf(text, sizeof(text), "%.15g", value);
    return text;
}

std::string fixed(double value, int decimals) {
    char text[64];
    snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

int decimals_in(const std::string& text) {
    const size_t point = text.find('.');
    return point == std::string::npos ? 0 : static_cast<int>(text.size() - point - 1);
}

bool is_spread(const std::string& id) {
    return id.find('-') != std::string::npos;
}

// One line of quvo-dump --json.
struct dump_record {
    std::string line;
    std::string id;
    std::string exchange;
    nlohmann::json object;

    // A string as it is, a number as quvo-dump wrote it.
    std::string Raw(const std::string& key) const {
        const auto found = object.find(key);
        if (found == object.end()) {
            ADD_FAILURE() << "no " << key << " in " << line;
            return "";
        }
        return found->is_string() ? found->get<std::string>() : found->dump();
    }
    double Number(const std::string& key) const {
        const auto found = object.find(key);
        return found != object.end() && found->is_number() ? found->get<double>() : 0.0;
    }
    std::vector<double> Array(const std::string& key) const {
        std::vector<double> values;
        const auto found = object.find(key);
        if (found != object.end() && found->is_array()) {
            for (const nlohmann::json& item : *found) {
                values.push_back(item.is_number() ? item.get<double>() : 0.0);
            }
        }
        EXPECT_EQ(values.size(), 10u) << key;
        values.resize(10);
        return values;
    }
    bool HasLast() const { return Number("last_px") != 0 || Number("volume") != 0; }
    // Price at `decimals` places and volume of a level, blank when empty.
    std::pair<std::string, std::string> Level(const char* side, int k, int decimals) const {
        const double px = Array(std::string(side) + "_px")[static_cast<size_t>(k)];
        const double vol = Array(std::string(side) + "_vol")[static_cast<size_t>(k)];
        if (px == 0 && vol == 0) {
            return {"", ""};
        }
        return {fixed(px, decimals), shortest(vol)};
    }
    // The decimals the tick of the instrument needs, as far as its prices show.
    int Decimals() const {
        std::vector<double> prices = {Number("last_px"), Number("highest_price"), Number("lowest_price")};
        for (const char* side : {"bid_px", "ask_px"}) {
            const std::vector<double> levels = Array(side);
            prices.insert(prices.end(), levels.begin(), levels.end());
        }
        int most = 0;
        for (double price : prices) {
            most = std::max(most, decimals_in(shortest(price)));
        }
        return most;
    }
    // Per level of one side, whether it is shown with the local levels out of
    // order hidden: a local level needs a price strictly worse than the
    // nearest level shown above it, and neither may be empty.
    std::vector<bool> InOrder(const char* side) const {
        const bool bid = std::string(side) == "bid";
        const std::vector<double> px = Array(std::string(side) + "_px");
        const std::vector<double> vol = Array(std::string(side) + "_vol");
        std::vector<bool> shown(10, true);
        size_t above = 4;
        for (size_t k = 5; k < 10; ++k) {
            const bool empty = px[k] == 0 && vol[k] == 0;
            const bool aboveEmpty = px[above] == 0 && vol[above] == 0;
            shown[k] = !empty && !aboveEmpty && (bid ? px[k] < px[above] : px[k] > px[above]);
            above = shown[k] ? k : above;
        }
        return shown;
    }
    // Local levels holding a price that InOrder() hides.
    int HiddenLevels(const char* side) const {
        const std::vector<bool> shown = InOrder(side);
        int hidden = 0;
        for (int k = 5; k < 10; ++k) {
            hidden += !shown[static_cast<size_t>(k)] && !Level(side, k, 0).first.empty() ? 1 : 0;
        }
        return hidden;
    }
};

// What the list row of `record` must show, change columns and rate aside.
// Its prices share one count of decimals: the one the book needs, or with
// `atLeast`, one the viewer kept from earlier books of the instrument.
std::string book_mismatch(const list_row& row, const dump_record& record, bool atLeast) {
    const int needed = record.Decimals();
    int decimals = needed;
    for (int column : {kLast, kBid, kAsk}) {
        if (static_cast<size_t>(column) < row.cells.size() &&
            !row.cells[static_cast<size_t>(column)].empty()) {
            decimals = decimals_in(row.cells[static_cast<size_t>(column)]);
            break;
        }
    }
    if (decimals != needed && !(atLeast && decimals > needed && decimals <= kMaxPriceDecimals)) {
        return record.id + ": prices at " + std::to_string(decimals) + " decimals, the book needs " +
               std::to_string(needed);
    }
    const auto [bid, bidVol] = record.Level("bid", 0, decimals);
    const auto [ask, askVol] = record.Level("ask", 0, decimals);
    const std::vector<std::pair<int, std::string>> expected = {
        {kId, record.id},
        {kExch, record.exchange},
        {kLast, record.HasLast() ? fixed(record.Number("last_px"), decimals) : ""},
        {kVolume, record.Raw("volume")},
        {kBid, bid},
        {kBidVol, bidVol},
        {kAsk, ask},
        {kAskVol, askVol}};
    for (const auto& [column, text] : expected) {
        if (static_cast<size_t>(column) >= row.cells.size()) {
            continue;
        }
        if (row.cells[static_cast<size_t>(column)] != text) {
            return record.id + ": column " + std::to_string(column) + " shows '" +
                   row.cells[static_cast<size_t>(column)] + "', the book has '" + text + "'";
        }
    }
    return "";
}

class ViewE2E : public ::testing::Test {
protected:
    ~ViewE2E() override {
        m_view.reset();
        StopFeed();
    }

    void StartFeed(int seed, const std::string& market = "rate=20000,records=4000") {
        const std::string config = m_dir.WriteFile(
            "feed.ini", "[config]\ndevice = sim:shfe=300,ine=60,seed=" + std::to_string(seed) + "," + market +
                            "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        m_feed = std::make_unique<CChildProcess>(std::vector<std::string>{QUVO_MD_PATH, config}, m_dir.Path(),
                                                 m_dir.Path() + "/feed-" + std::to_string(seed) + ".out");
    }

    void StopFeed() {
        if (m_feed) {
            m_feed->Signal(SIGINT);
            int status = -1;
            EXPECT_TRUE(m_feed->Wait(kTimeoutSeconds, status));
            m_feed.reset();
        }
    }

    // The feed gone and its segments removed, as an operator cleaning up would.
    void RemoveSegments() {
        for (const std::string& path : {m_shm.RingKeyPath(), m_shm.AreaKeyPath()}) {
            const int id = CShmSandbox::SegmentId(path);
            ASSERT_GE(id, 0) << path;
            ASSERT_EQ(shmctl(id, IPC_RMID, nullptr), 0);
        }
    }

    std::vector<dump_record> Dump(const std::vector<std::string>& ids = {}) {
        std::vector<std::string> argv = {QUVO_DUMP_PATH, "--json"};
        argv.insert(argv.end(), ids.begin(), ids.end());
        const std::string output = m_dir.Path() + "/dump.out";
        std::vector<dump_record> records;
        if (run_program(argv, m_dir.Path(), output, kTimeoutSeconds) != 0) {
            return records;
        }
        for (const std::string& line : split_lines(read_file(output))) {
            dump_record record{line, "", "", nlohmann::json::parse(line, nullptr, false)};
            if (!record.object.is_object()) {
                ADD_FAILURE() << "not a JSON object: " << line;
                continue;
            }
            record.id = record.Raw("id");
            record.exchange = record.Raw("exchange");
            records.push_back(record);
        }
        return records;
    }

    void WaitForSegments() {
        poll_until(
            [&] {
                return CShmSandbox::SegmentId(m_shm.RingKeyPath()) >= 0 &&
                       CShmSandbox::SegmentId(m_shm.AreaKeyPath()) >= 0;
            },
            kTimeoutSeconds, 20);
        ASSERT_GE(CShmSandbox::SegmentId(m_shm.AreaKeyPath()), 0) << "quvo-md made no segments";
    }

    // Books once the simulated market has stopped: two dumps that agree.
    std::vector<dump_record> SettledBooks() {
        std::vector<dump_record> records;
        std::string text;
        const bool settled = wait_settled(
            [&] {
                records = Dump();
                std::string lines;
                for (const dump_record& record : records) {
                    lines += record.line + "\n";
                }
                return lines;
            },
            kTimeoutSeconds, 300, text);
        if (!settled) {
            ADD_FAILURE() << "the books did not settle";
            return {};
        }
        return records;
    }

    // With `statusPath`, a shell runs the viewer and writes its exit status
    // there: under the sanitizers tmux may not learn it for a long time.
    void StartView(const std::string& args = "", const std::string& statusPath = "") {
        const std::string view =
            "env " QUVO_KEY_DIR_ENV "=" + m_shm.Dir() + " " + QUVO_VIEW_PATH + " " + args;
        const std::string command = statusPath.empty() ? "exec " + view : view + "; echo $? > " + statusPath;
        m_view = std::make_unique<CTmuxPane>(QUVO_TMUX_PATH, m_dir.Path(), command, kWidth, kHeight);
        ASSERT_TRUE(m_view->Started());
        // Keeps the pane after the viewer exits, so its exit status can be read.
        ASSERT_TRUE(m_view->KeepAfterExit());
    }

    // "" when the list shows `books` from `first` on, as many as fit.
    static std::string ListMismatch(const std::vector<std::string>& screen,
                                    const std::vector<dump_record>& books, size_t first = 0,
                                    size_t columns = kRate + 1, bool seenEarlierBooks = false) {
        const std::vector<list_row> rows = list_rows(screen);
        const size_t expected = std::min(books.size() - first, screen.size() - 3);
        if (rows.size() != expected) {
            return "the list shows " + std::to_string(rows.size()) + " rows, expected " +
                   std::to_string(expected);
        }
        for (size_t i = 0; i < rows.size(); ++i) {
            if (rows[i].cells.size() != columns) {
                return "the list shows " + std::to_string(rows[i].cells.size()) + " columns, expected " +
                       std::to_string(columns);
            }
            const std::string mismatch = book_mismatch(rows[i], books[first + i], seenEarlierBooks);
            if (!mismatch.empty()) {
                return mismatch;
            }
        }
        return "";
    }

    // The value after `label` among the ladder's statistics, "" when absent.
    static std::string Statistic(const std::vector<std::string>& ladder, const std::string& label) {
        const std::regex pattern("(^|  )" + label + " +([^ ]+)");
        for (const std::string& line : ladder) {
            std::smatch match;
            if (std::regex_search(line, match, pattern)) {
                return match[2];
            }
        }
        return "";
    }

    // "" when the ladder on `screen` shows the ten levels of `book`, with the
    // local levels out of order left blank when `hidden`.
    static std::string LadderMismatch(const std::vector<std::string>& screen, const dump_record& book,
                                      bool hidden) {
        size_t levelsAt = 0;
        for (size_t y = 0; y < screen.size(); ++y) {
            if (!words(screen[y]).empty() && words(screen[y])[0] == "level") {
                levelsAt = y + 1;
            }
        }
        if (levelsAt == 0 || levelsAt + 10 > screen.size()) {
            return "no ten levels on screen";
        }
        const int decimals = book.Decimals();
        const std::vector<bool> bidShown = hidden ? book.InOrder("bid") : std::vector<bool>(10, true);
        const std::vector<bool> askShown = hidden ? book.InOrder("ask") : std::vector<bool>(10, true);
        for (int k = 0; k < 10; ++k) {
            const std::string& line = screen[levelsAt + static_cast<size_t>(k)];
            // The terminal drops the blanks that end a line.
            const size_t bar = line.find(" |");
            if (bar == std::string::npos) {
                return "no bar in " + line;
            }
            const std::vector<std::string> left = words(line.substr(0, bar));
            const std::vector<std::string> right = words(line.substr(bar + 2));
            const auto [bidPx, bidVol] = bidShown[static_cast<size_t>(k)]
                                             ? book.Level("bid", k, decimals)
                                             : std::pair<std::string, std::string>();
            const auto [askPx, askVol] = askShown[static_cast<size_t>(k)]
                                             ? book.Level("ask", k, decimals)
                                             : std::pair<std::string, std::string>();
            std::vector<std::string> expectLeft = {std::to_string(k + 1)};
            if (!bidPx.empty()) {
                expectLeft.insert(expectLeft.end(), {bidVol, bidPx});
            }
            std::vector<std::string> expectRight;
            if (!askPx.empty()) {
                expectRight = {askPx, askVol};
            }
            if (k < 5) {
                expectRight.push_back("exchange");
            } else if (!hidden || !bidPx.empty() || !askPx.empty()) {
                expectRight.push_back("local");
            }
            if (left != expectLeft || right != expectRight) {
                return "level " + std::to_string(k + 1) + " reads '" + line + "'";
            }
        }
        return "";
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
    std::unique_ptr<CChildProcess> m_feed;
    std::unique_ptr<CTmuxPane> m_view;
};

TEST_F(ViewE2E, ListShowsEveryInstrumentInUseWithItsBook) {
    StartFeed(1);
    const std::vector<dump_record> books = SettledBooks();
    ASSERT_GT(books.size(), static_cast<size_t>(kHeight));
    StartView();
    std::vector<std::string> screen = m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            std::string mismatch = ListMismatch(s, books);
            return mismatch.empty() ? status_has(s, std::to_string(books.size()) + " instruments") : mismatch;
        },
        kTimeoutSeconds);
    ASSERT_EQ(screen.size(), static_cast<size_t>(kHeight));
    EXPECT_NE(screen.back().find("q quit"), std::string::npos) << screen.back();
    EXPECT_NE(screen.back().find("/ search"), std::string::npos) << screen.back();
    // The viewer started after the market stopped: no change, no updates.
    const std::vector<list_row> rows = list_rows(screen);
    ASSERT_FALSE(rows.empty());
    EXPECT_TRUE(rows[0].selected);
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].selected, i == 0);
        EXPECT_EQ(rows[i].cells[kChange], books[i].HasLast() ? "0" : "") << books[i].id;
        EXPECT_EQ(rows[i].cells[kChangePct], books[i].HasLast() && !is_spread(books[i].id) ? "+0.00%" : "")
            << books[i].id;
        EXPECT_EQ(rows[i].cells[kRate], "0") << books[i].id;
    }

    // End shows the last page with the last instrument selected.
    m_view->Keys({"End"});
    const size_t pageRows = kHeight - 3;
    screen = m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> r = list_rows(s);
            if (r.empty() || !r.back().selected) {
                return std::string("the last row is not selected");
            }
            return ListMismatch(s, books, books.size() - pageRows);
        },
        kTimeoutSeconds);
    m_view->Keys({"PPage"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> r = list_rows(s);
            if (r.empty() || !r.front().selected ||
                r.front().cells[kId] != books[books.size() - 1 - pageRows].id) {
                return std::string("PgUp did not select the row a page up at the top");
            }
            return std::string();
        },
        kTimeoutSeconds);
    m_view->Keys({"Home", "Down", "Down"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> r = list_rows(s);
            if (r.size() < 3 || !r[2].selected || r[0].cells[kId] != books[0].id) {
                return std::string("Home, Down, Down did not select the third row of the first page");
            }
            return std::string();
        },
        kTimeoutSeconds);

    // A spread that traded, in the first row a search shows: its change, but
    // no percent of a price that may be 0 or negative.
    const dump_record* spread = nullptr;
    for (const dump_record& record : books) {
        if (is_spread(record.id) && record.HasLast()) {
            spread = &record;
            break;
        }
    }
    ASSERT_NE(spread, nullptr) << "no spread traded";
    m_view->Keys({"/"});
    m_view->Type(spread->id);
    m_view->Keys({"Enter"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> r = list_rows(s);
            if (r.empty() || r[0].cells[kId] != spread->id) {
                return "the search does not show " + spread->id + " first";
            }
            if (r[0].cells[kChange] != "0" || !r[0].cells[kChangePct].empty()) {
                return spread->id + " shows change '" + r[0].cells[kChange] + "' and '" +
                       r[0].cells[kChangePct] + "'";
            }
            return book_mismatch(r[0], *spread, false);
        },
        kTimeoutSeconds);
}

TEST_F(ViewE2E, SearchFindsAnInstrumentWhoseLadderShowsItsBook) {
    StartFeed(2);
    std::vector<dump_record> books = SettledBooks();
    // An instrument whose book reaches past the exchange's five levels.
    const dump_record* target = nullptr;
    for (const dump_record& record : books) {
        if (record.exchange == "INE" &&
            (record.Level("ask", 5, 0).first != "" || record.Level("bid", 5, 0).first != "")) {
            target = &record;
            break;
        }
    }
    ASSERT_NE(target, nullptr) << "no INE book with a local level";
    const std::string id = target->id;
    size_t sharingPrefix = 0;
    for (const dump_record& record : books) {
        sharingPrefix += record.id.rfind(id.substr(0, 2), 0) == 0 ? 1 : 0;
    }
    StartView();
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return ListMismatch(s, books); },
                       kTimeoutSeconds);

    // A two-letter prefix, typed in upper case, keeps the instruments it starts.
    std::string upper = id.substr(0, 2);
    for (char& c : upper) {
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    }
    m_view->Keys({"/"});
    m_view->Type(upper);
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> rows = list_rows(s);
            if (rows.size() != std::min(sharingPrefix, s.size() - 3)) {
                return "the filter shows " + std::to_string(rows.size()) + " rows, expected " +
                       std::to_string(sharingPrefix);
            }
            for (const list_row& row : rows) {
                if (row.cells[kId].rfind(id.substr(0, 2), 0) != 0) {
                    return "the filter shows " + row.cells[kId];
                }
            }
            if (s.back().find("search: " + upper + "_") == std::string::npos) {
                return std::string("the footer does not show the search");
            }
            return status_has(s, std::to_string(sharingPrefix) + " shown");
        },
        kTimeoutSeconds);
    m_view->Type(id.substr(2));
    m_view->Keys({"Enter"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> rows = list_rows(s);
            if (rows.empty() || rows[0].cells[kId] != id || !rows[0].selected) {
                return "the search did not select " + id;
            }
            return s.back().find("filter: " + upper + id.substr(2)) == std::string::npos
                       ? std::string("the footer does not show the filter")
                       : std::string();
        },
        kTimeoutSeconds);

    m_view->Keys({"Enter"});
    books = Dump({id});
    ASSERT_EQ(books.size(), 1u);
    const dump_record& book = books[0];
    const std::vector<std::string> ladder = m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            return s.size() > 1 && s[1].find(" " + id + "  ") == 0 ? "" : "no ladder of " + id;
        },
        kTimeoutSeconds);
    char heading[128];
    const unsigned time = static_cast<unsigned>(book.Number("update_time"));
    snprintf(heading, sizeof(heading), " %s  %s  slot %s  inst_no %s  updated %02u:%02u:%02u.%03u",
             id.c_str(), book.exchange.c_str(), book.Raw("slot").c_str(), book.Raw("inst_no").c_str(),
             time / 10000, time / 100 % 100, time % 100,
             static_cast<unsigned>(book.Number("update_milli_sec")));
    EXPECT_EQ(ladder[1], heading);
    std::string all;
    for (const std::string& line : ladder) {
        all += line + "\n";
    }
    const int decimals = book.Decimals();
    const std::vector<std::pair<std::string, std::string>> stats = {
        {"last", fixed(book.Number("last_px"), decimals)},
        {"volume", book.Raw("volume")},
        {"highest", fixed(book.Number("highest_price"), decimals)},
        {"lowest", fixed(book.Number("lowest_price"), decimals)},
        {"change_no", book.Raw("change_no")},
        {"type", book.Raw("type")},
        {"bid total volume", book.Raw("bid_totvol")},
        {"ask total volume", book.Raw("ask_totvol")}};
    for (const auto& [label, value] : stats) {
        EXPECT_EQ(Statistic(ladder, label), value) << label << "\n" << all;
    }
    // Amounts at their own precision: the text reads back as the amount.
    for (const char* key : {"open_interest", "turnover", "bid_totamount", "ask_totamount"}) {
        const std::string label = key == std::string("open_interest")   ? "open interest"
                                  : key == std::string("turnover")      ? "turnover"
                                  : key == std::string("bid_totamount") ? "bid total amount"
                                                                        : "ask total amount";
        const std::string text = Statistic(ladder, label);
        const double value = book.Number(key);
        EXPECT_EQ(text.find_first_of("eE"), std::string::npos) << label << " " << text;
        EXPECT_NEAR(strtod(text.c_str(), nullptr), value, 1e-9 * std::max(1.0, std::fabs(value)))
            << label << " " << text;
    }
    EXPECT_EQ(LadderMismatch(ladder, book, false), "") << all;
    EXPECT_NE(ladder.back().find("Esc back to list"), std::string::npos) << ladder.back();
    EXPECT_NE(ladder.back().find("l local levels: all"), std::string::npos) << ladder.back();

    // Esc goes back to the filtered list; Esc again clears the filter.
    size_t sharingId = 0;
    for (const dump_record& record : SettledBooks()) {
        sharingId += record.id.rfind(id, 0) == 0 ? 1 : 0;
    }
    m_view->Keys({"Escape"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> rows = list_rows(s);
            if (rows.size() != sharingId || !rows[0].selected || rows[0].cells[kId] != id) {
                return "the list does not show the " + std::to_string(sharingId) + " instruments starting " +
                       id + " with " + id + " selected";
            }
            return std::string();
        },
        kTimeoutSeconds);
    m_view->Keys({"Escape"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            return list_rows(s).size() == s.size() - 3 && s[0].find(" shown") == std::string::npos
                       ? ""
                       : "the filter was not cleared";
        },
        kTimeoutSeconds);
}

TEST_F(ViewE2E, LadderKeyHidesTheLocalLevelsOutOfOrder) {
    StartFeed(2);
    const std::vector<dump_record> books = SettledBooks();
    // A future (first in a search for its identifier) with a local level out of order.
    const dump_record* target = nullptr;
    for (const dump_record& record : books) {
        if (record.id.size() == 6 && record.HiddenLevels("bid") + record.HiddenLevels("ask") > 0) {
            target = &record;
            break;
        }
    }
    ASSERT_NE(target, nullptr) << "no book with a local level out of order";
    const dump_record book = *target;
    StartView();
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return ListMismatch(s, books); },
                       kTimeoutSeconds);
    m_view->Keys({"/"});
    m_view->Type(book.id);
    m_view->Keys({"Enter"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::vector<list_row> rows = list_rows(s);
            return !rows.empty() && rows[0].cells[kId] == book.id && rows[0].selected
                       ? ""
                       : "the search did not select " + book.id;
        },
        kTimeoutSeconds);
    m_view->Keys({"Enter"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            if (s.size() < 2 || s[1].find(" " + book.id + "  ") != 0) {
                return "no ladder of " + book.id;
            }
            return LadderMismatch(s, book, false);
        },
        kTimeoutSeconds);

    m_view->Keys({"l"});
    const std::string count =
        "local levels out of order hidden: " + std::to_string(book.HiddenLevels("bid")) + " bid, " +
        std::to_string(book.HiddenLevels("ask")) + " ask";
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            if (s.back().find("l local levels: in order") == std::string::npos) {
                return std::string("the footer does not say the local levels are in order");
            }
            bool counted = false;
            for (const std::string& line : s) {
                counted = counted || trim(line) == count;
            }
            return counted ? LadderMismatch(s, book, true) : "no line '" + count + "'";
        },
        kTimeoutSeconds);

    m_view->Keys({"l"});
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            if (s.back().find("l local levels: all") == std::string::npos) {
                return std::string("the footer does not say every local level is shown");
            }
            for (const std::string& line : s) {
                if (line.find("out of order hidden") != std::string::npos) {
                    return "still '" + line + "'";
                }
            }
            return LadderMismatch(s, book, false);
        },
        kTimeoutSeconds);
}

TEST_F(ViewE2E, RedrawsToTheNewSizeOfTheWindow) {
    StartFeed(3);
    const std::vector<dump_record> books = SettledBooks();
    StartView();
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return ListMismatch(s, books); },
                       kTimeoutSeconds);
    ASSERT_TRUE(m_view->Resize(100, 20));
    std::vector<std::string> screen = m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            if (s.size() != 20) {
                return "the pane has " + std::to_string(s.size()) + " lines";
            }
            if (s.back().find(" Up/Down") != 0) {
                return std::string("no footer on the last line");
            }
            // ID to BIDVOL fit in 100 columns.
            return ListMismatch(s, books, 0, kBidVol + 1);
        },
        kTimeoutSeconds);
    for (const std::string& line : screen) {
        EXPECT_LE(line.size(), 100u) << line;
    }
    EXPECT_EQ(list_rows(screen).size(), 17u);
    ASSERT_TRUE(m_view->Resize(160, 40));
    screen = m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            return s.size() == 40 && s.back().find(" Up/Down") == 0 ? ListMismatch(s, books)
                                                                    : std::string("not redrawn at 160x40");
        },
        kTimeoutSeconds);
    EXPECT_EQ(list_rows(screen).size(), 37u);
    EXPECT_NE(screen[1].find("UPD/S"), std::string::npos) << screen[1];
}

TEST_F(ViewE2E, FollowsTheFeedThroughStopsAndRestarts) {
    // Far enough into the ring that the next run would take a while to reach
    // the viewer's position.
    StartFeed(4, "rate=50000,records=30000");
    const std::vector<dump_record> first = SettledBooks();
    StartView();
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return ListMismatch(s, first); },
                       kTimeoutSeconds);

    StopFeed();
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::string waiting = status_has(s, "waiting for quvo-md");
            // The health figures the feed left, from its health segment.
            return waiting.empty() ? status_has(s, "|  stopped  restarts 0") : waiting;
        },
        kTimeoutSeconds);

    // Restarted on the same segments, with a market that keeps moving a while.
    StartFeed(5, "rate=3000,records=9000");
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::string live = status_has(s, "quvo-md live");
            if (!live.empty()) {
                return live;
            }
            return status_counts_updates(s) ? "" : std::string("no updates counted");
        },
        kTimeoutSeconds);
    // The new feed's phase, and records a second from two reads of its health figures.
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            return !s.empty() &&
                           std::regex_search(s[0], std::regex("\\|  live  [0-9,]+ rec/s  restarts 0  p99 "))
                       ? ""
                       : "the status line lacks the live feed's health summary";
        },
        kTimeoutSeconds);
    const std::vector<dump_record> second = SettledBooks();
    ASSERT_NE(first[0].line, second[0].line);
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) { return ListMismatch(s, second, 0, kRate + 1, true); },
        kTimeoutSeconds);

    // Stopped, segments removed, and a new run that creates them anew.
    StopFeed();
    RemoveSegments();
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return status_has(s, "is quvo-md running"); },
                       kTimeoutSeconds);
    StartFeed(6);
    const std::vector<dump_record> third = SettledBooks();
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) {
            const std::string mismatch = ListMismatch(s, third, 0, kRate + 1, true);
            return mismatch.empty() ? status_has(s, "quvo-md") : mismatch;
        },
        kTimeoutSeconds);
}

TEST_F(ViewE2E, WaitsForTheFeedWhenAskedTo) {
    StartView("--wait");
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) { return status_has(s, "waiting for quvo-md"); },
        kTimeoutSeconds);
    StartFeed(7);
    const std::vector<dump_record> books = SettledBooks();
    m_view->WaitScreen(
        [&](const std::vector<std::string>& s) { return ListMismatch(s, books, 0, kRate + 1, true); },
        kTimeoutSeconds);
}

TEST_F(ViewE2E, SleepsWhileThereIsNothingToDo) {
    StartFeed(8, "rate=2000");
    WaitForSegments();
    StartView();
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return status_has(s, "quvo-md live"); },
                       kTimeoutSeconds);
    const pid_t viewPid = m_view->ProgramPid();
    ASSERT_GT(viewPid, 0);
    const std::string pid = std::to_string(viewPid);
    ASSERT_EQ(read_file("/proc/" + pid + "/comm"), "quvo-view\n");
    auto cpu_seconds = [&]() {
        const std::string stat = read_file("/proc/" + pid + "/stat");
        const std::vector<std::string> fields = words(stat.substr(stat.rfind(')') + 2));
        return static_cast<double>(std::stoll(fields.at(11)) + std::stoll(fields.at(12))) /
               static_cast<double>(sysconf(_SC_CLK_TCK));
    };
    // Following a live market, then with the feed gone.
    for (int phase = 0; phase < 2; ++phase) {
        const double cpuBefore = cpu_seconds();
        const double wallBefore = seconds_now();
        usleep(2 * 1000 * 1000);
        const double share = (cpu_seconds() - cpuBefore) / (seconds_now() - wallBefore);
        EXPECT_LT(share, 0.25) << (phase == 0 ? "live" : "feed stopped");
        StopFeed();
    }
}

TEST_F(ViewE2E, QuitsOnQ) {
    StartFeed(9);
    SettledBooks();
    const std::string statusPath = m_dir.Path() + "/view.status";
    StartView("", statusPath);
    m_view->WaitScreen([&](const std::vector<std::string>& s) { return status_has(s, "instruments"); },
                       kTimeoutSeconds);
    m_view->Keys({"q"});
    poll_until([&] { return !read_file(statusPath).empty(); }, kTimeoutSeconds, 50);
    EXPECT_EQ(read_file(statusPath), "0\n");
}

TEST(ViewUsage, HelpNamesTheKeysAndTheWaitingBehaviour) {
    CTempDir dir;
    const std::string output = dir.Path() + "/out";
    EXPECT_EQ(run_program({QUVO_VIEW_PATH, "--help"}, dir.Path(), output, kTimeoutSeconds), 0);
    const std::string help = read_file(output);
    EXPECT_EQ(help.rfind("Usage: quvo-view", 0), 0u) << help;
    for (const char* text : {"--wait", "QUVO_KEY_DIR", "Enter", "Esc", "PgUp/PgDn", "waiting for quvo-md",
                             "l     local levels"}) {
        EXPECT_NE(help.find(text), std::string::npos) << text;
    }
    EXPECT_EQ(run_program({QUVO_VIEW_PATH, "--colour"}, dir.Path(), output, kTimeoutSeconds), 2);
    EXPECT_EQ(read_file(output).rfind("quvo-view: unknown argument --colour\n", 0), 0u) << read_file(output);
}

TEST(ViewUsage, ExitsWithStatusTwoWhenItCannotAttach) {
    CShmSandbox shm;
    CTempDir dir;
    const std::string output = dir.Path() + "/out";
    EXPECT_EQ(run_program({QUVO_VIEW_PATH}, dir.Path(), output, kTimeoutSeconds), 2);
    EXPECT_EQ(read_file(output), "quvo-view: no market-data segment for key file " + shm.RingKeyPath() +
                                     ": is quvo-md running on this host?\n");
}

TEST(ViewUsage, NeedsATerminal) {
    CShmSandbox shm;
    const SharedSegments segments = attach_shared_segments();
    CTempDir dir;
    const std::string output = dir.Path() + "/out";
    EXPECT_EQ(run_program({QUVO_VIEW_PATH}, dir.Path(), output, kTimeoutSeconds), 2);
    EXPECT_EQ(read_file(output), "quvo-view: standard input and output must be a terminal\n");
    detach_shared_segments(segments);
}

}  // namespace
