// quvo-view's screen as a tmux pane shows it: the status line first, the
// list's heading on line 1, its rows below, the footer on the last line.
#pragma once

#include <string>
#include <vector>

// A list row cut at the columns of the heading: ID and EXCH are left-aligned,
// the others right-aligned under the end of their label.
struct list_row {
    bool selected = false;
    std::vector<std::string> cells;  // ID, EXCH, LAST, CHANGE, CHG%, VOLUME, BID, BIDVOL, ASK, ASKVOL, UPD/S
};

constexpr int kId = 0, kExch = 1, kLast = 2, kChange = 3, kChangePct = 4, kVolume = 5, kBid = 6, kBidVol = 7,
              kAsk = 8, kAskVol = 9, kRate = 10;

// `line` cut at the columns `heading` shows; no cells when it shows no EXCH.
list_row parse_row(const std::string& line, const std::string& heading);

// The list's rows on `screen`, up to the first blank line or the footer; none
// when line 1 is not the list's heading.
std::vector<list_row> list_rows(const std::vector<std::string>& screen);

// The cell in `column` of the row of instrument `id`; "?" when no row or no
// such column is shown.
std::string list_cell(const std::vector<std::string>& screen, const std::string& id, int column);

// "" when the status line holds `text`, else a complaint naming it.
std::string status_has(const std::vector<std::string>& screen, const std::string& text);

// Whether the status line counts more than zero updates a second.
bool status_counts_updates(const std::vector<std::string>& screen);
