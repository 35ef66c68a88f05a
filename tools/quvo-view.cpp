// quvo-view: a live terminal view of the books in quvo-md's shared memory, a
// market-watch list and the ten-level ladder of one instrument.
#include <curses.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "tools/StopSignal.h"
#include "tools/ViewModel.h"

namespace {

constexpr const char* kUsage =
    "Usage: quvo-view [options]\n"
    "Shows the books in the shared memory of the quvo-md feed on this host, live, in the\n"
    "terminal: a list of the instruments in use, and the ladder of one of them.\n"
    "\n"
    "  --wait      if the shared memory cannot be attached at start, wait for quvo-md\n"
    "              instead of exiting\n"
    "  -h, --help  print this text and exit\n"
    "\n"
    "The list shows, per instrument: last price, its change since the viewer first saw\n"
    "a price (absolute and in percent; no percent for spreads, whose price may be zero or\n"
    "negative), volume, best bid and ask with their volumes, and how many updates the\n"
    "update ring announced in the last second. Prices have the decimals their tick\n"
    "needs, as far as the prices seen show it.\n"
    "The ladder shows ten levels a side: the exchange publishes five, levels 6 to 10\n"
    "(marked local) are kept by the feed and may be stale. Empty levels are left blank.\n"
    "\n"
    "Keys, list:   Up/Down, PgUp/PgDn, Home/End  move\n"
    "              /     search: type an identifier prefix (any case) to show only the\n"
    "                    instruments it starts; Enter keeps it, Esc clears it\n"
    "              Esc   clear the search\n"
    "              Enter open the ladder of the selected instrument\n"
    "              q     quit\n"
    "Keys, ladder: Up/Down  previous or next instrument\n"
    "              l     local levels: all, or in order only, hiding a bid level not\n"
    "                    strictly below the level shown above it, an ask level not\n"
    "                    strictly above it, and empty ones (the bottom line shows which)\n"
    "              Esc, Backspace or Left  back to the list;  q  quit\n"
    "\n"
    "The status line shows the feed's state, the instruments in use, the updates the ring\n"
    "announced in the last second, and from the feed's health segment (see quvo-stat):\n"
    "its phase (or stopped, failed, gone), records received a second, restarts since it\n"
    "started and the 99th percentile of its latency from frame to announcement; \"no\n"
    "health figures\" when that segment cannot be read.\n"
    "\n"
    "Once attached, quvo-view does not exit when the feed stops: the status line then\n"
    "reads \"waiting for quvo-md\" and the last books stay on screen. The feed counts as\n"
    "stopped when its segments are gone or no other process is attached to them. When it\n"
    "restarts on the same segments, or the segments are removed and created anew,\n"
    "quvo-view follows the new run by itself. The screen is redrawn at most 20 times a\n"
    "second; between updates quvo-view sleeps a few milliseconds, never spinning a CPU.\n"
    "\n"
    "Shared memory: the update ring is keyed by ftok on the file key_f, the market-data\n"
    "area by key_e, both in the directory named by the environment variable\n"
    "QUVO_KEY_DIR, or in /etc when it is unset or empty. Both are attached read-only.\n"
    "\n"
    "Exit status: 0 quit; 2 bad options, no terminal, or (without --wait) the shared\n"
    "memory cannot be attached at start.\n";

constexpr int64_t kDrawMs = 50;
constexpr int64_t kIdleDrawMs = 500;
constexpr int kIdleSleepMs = 5;
constexpr int kEscape = 27;

bool is_back_key(int key) {
    return key == KEY_BACKSPACE || key == 127 || key == 8;
}

bool is_enter_key(int key) {
    return key == '\n' || key == '\r' || key == KEY_ENTER;
}

class CViewScreen {
public:
    CViewScreen(CViewModel& model, CViewFeed& feed) : m_model(model), m_feed(feed) {}

    void Run() {
        int64_t lastDraw = INT64_MIN / 2;
        bool changed = true;
        while (!g_stop && !m_quit) {
            const size_t read = m_feed.Poll(now_ms());
            changed = changed || read > 0;
            bool pressed = false;
            for (int key = getch(); key != ERR && !m_quit; key = getch()) {
                _HandleKey(key);
                pressed = true;
            }
            changed = changed || pressed;
            // At most one redraw every kDrawMs, and one every kIdleDrawMs for
            // the rates and the status line.
            const int64_t now = now_ms();
            if ((changed && now - lastDraw >= kDrawMs) || now - lastDraw >= kIdleDrawMs) {
                lastDraw = now;
                _Draw(now);
                changed = false;
            }
            if (read < QUVO_UPDATE_RING_ENTRIES) {
                pollfd input{STDIN_FILENO, POLLIN, 0};
                poll(&input, 1, kIdleSleepMs);
            }
        }
    }

private:
    void _HandleKey(int key) {
        if (key == KEY_RESIZE) {
            return;
        }
        if (m_searching) {
            _HandleSearchKey(key);
            return;
        }
        if (key == 'q' || key == 'Q') {
            m_quit = true;
            return;
        }
        if (key == KEY_UP) {
            m_model.MoveBy(-1);
        } else if (key == KEY_DOWN) {
            m_model.MoveBy(1);
        } else if (m_model.InLadder()) {
            if (key == kEscape || key == KEY_LEFT || is_back_key(key)) {
                m_model.CloseLadder();
            } else if (key == 'l' || key == 'L') {
                m_model.SetHideOutOfOrder(!m_model.HidesOutOfOrder());
            }
        } else if (key == KEY_PPAGE) {
            m_model.PageUp();
        } else if (key == KEY_NPAGE) {
            m_model.PageDown();
        } else if (key == KEY_HOME) {
            m_model.MoveHome();
        } else if (key == KEY_END) {
            m_model.MoveEnd();
        } else if (key == '/') {
            m_searching = true;
        } else if (key == kEscape) {
            m_model.SetFilter("");
        } else if (is_enter_key(key)) {
            m_model.OpenLadder();
        }
    }

    void _HandleSearchKey(int key) {
        std::string filter = m_model.Filter();
        if (key == kEscape) {
            m_searching = false;
            filter.clear();
        } else if (is_enter_key(key)) {
            m_searching = false;
        } else if (is_back_key(key)) {
            if (!filter.empty()) {
                filter.pop_back();
            }
        } else if (key == KEY_UP) {
            m_model.MoveBy(-1);
        } else if (key == KEY_DOWN) {
            m_model.MoveBy(1);
        } else if (key >= 0x20 && key < 0x7f && filter.size() < sizeof(instrument::inst_id)) {
            filter += static_cast<char>(key);
        }
        if (filter != m_model.Filter()) {
            m_model.SetFilter(filter);
        }
    }

    void _Line(int y, const std::string& text, attr_t attributes, bool fill) {
        if (y < 0 || y >= LINES) {
            return;
        }
        std::string shown = text.substr(0, static_cast<size_t>(COLS));
        if (fill) {
            shown.resize(static_cast<size_t>(COLS), ' ');
        }
        attrset(attributes);
        mvaddnstr(y, 0, shown.c_str(), COLS);
        attrset(A_NORMAL);
    }

    static attr_t _Attributes(EViewStyle style) {
        switch (style) {
            case EViewStyle::Heading:
                return A_BOLD;
            case EViewStyle::Selected:
                return A_REVERSE;
            case EViewStyle::Local:
                return A_DIM;
            case EViewStyle::Normal:
                break;
        }
        return A_NORMAL;
    }

    void _Draw(int64_t now) {
        erase();
        // Status line, body, footer: the body gets what is left.
        const int bodyRows = LINES - 3;
        m_model.SetPageRows(bodyRows);
        std::string status = " quvo-view  " + m_feed.Status(now) + "  |  " +
                             std::to_string(m_model.RowCount()) + " instruments";
        if (!m_model.Filter().empty()) {
            status += ", " + std::to_string(m_model.VisibleCount()) + " shown";
        }
        status += "  |  " + std::to_string(m_model.TotalPerSecond(now)) + " updates/s";
        m_health.Poll(now);
        status += "  |  " + m_health.Summary();
        _Line(0, status, A_REVERSE, true);
        int y = 1;
        if (m_model.InLadder()) {
            for (const view_line& line : m_model.LadderLines(now, COLS - 1)) {
                if (y > bodyRows + 1) {
                    break;
                }
                _Line(y++, " " + line.text, _Attributes(line.style), false);
            }
        } else {
            _Line(y++, CViewModel::ListHeading(), A_BOLD, false);
            for (const view_line& line : m_model.ListLines(now)) {
                _Line(y++, line.text, _Attributes(line.style), line.style == EViewStyle::Selected);
            }
            if (m_model.VisibleCount() == 0) {
                _Line(y,
                      m_model.Filter().empty() ? "  no instrument in use"
                                               : "  no identifier starts with \"" + m_model.Filter() + "\"",
                      A_NORMAL, false);
            }
        }
        _Line(LINES - 1, _Footer(), A_REVERSE, true);
        refresh();
    }

    std::string _Footer() const {
        if (m_searching) {
            return " search: " + m_model.Filter() + "_   Enter keep  Esc clear  Backspace delete";
        }
        if (m_model.InLadder()) {
            return std::string(" Esc back to list  Up/Down previous/next  l local levels: ") +
                   (m_model.HidesOutOfOrder() ? "in order" : "all") + "  q quit";
        }
        const std::string keys =
            " Up/Down PgUp/PgDn Home/End move  / search  Enter ladder  Esc clear search  q quit";
        return m_model.Filter().empty() ? keys : " filter: " + m_model.Filter() + "  |" + keys;
    }

    CViewModel& m_model;
    CViewFeed& m_feed;
    CViewHealth m_health;
    bool m_searching = false;
    bool m_quit = false;
};

}  // namespace

int main(int argc, char** argv) {
    bool wait = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--wait") {
            wait = true;
        } else {
            fprintf(stderr, "quvo-view: unknown argument %s\n\n%s", arg.c_str(), kUsage);
            return 2;
        }
    }
    CViewModel model;
    CViewFeed feed(model);
    std::string error;
    if (!feed.Attach(now_ms(), error) && !wait) {
        fprintf(stderr, "quvo-view: %s\n", error.c_str());
        return 2;
    }
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        fputs("quvo-view: standard input and output must be a terminal\n", stderr);
        return 2;
    }
    SCREEN* screen = newterm(nullptr, stdout, stdin);
    if (screen == nullptr) {
        fputs("quvo-view: cannot use this terminal (is TERM right?)\n", stderr);
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    curs_set(0);
    set_escdelay(25);
    CViewScreen(model, feed).Run();
    endwin();
    delscreen(screen);
    return 0;
}
