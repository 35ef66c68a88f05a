#include "tests/support/ViewScreen.h"

#include <cstring>
#include <regex>

#include "tests/support/TextUtil.h"

list_row parse_row(const std::string& line, const std::string& heading) {
    static const char* const kLabels[] = {"ID",  "EXCH",   "LAST", "CHANGE", "CHG%", "VOLUME",
                                          "BID", "BIDVOL", "ASK",  "ASKVOL", "UPD/S"};
    // A narrow window cuts the heading: only the columns it shows are read.
    std::vector<size_t> ends;
    size_t from = 0;
    for (const char* label : kLabels) {
        const size_t at = heading.find(std::string(" ") + label, from);
        if (at == std::string::npos) {
            break;
        }
        ends.push_back(at + 1 + strlen(label));
        from = ends.back();
    }
    if (ends.size() < kExch + 1) {
        return {};
    }
    const std::string padded = line + std::string(200, ' ');
    list_row row;
    row.selected = !line.empty() && line[0] == '>';
    const size_t exchStart = ends[kExch] - 4;
    row.cells.push_back(trim(padded.substr(1, exchStart - 1)));
    row.cells.push_back(trim(padded.substr(exchStart, 4)));
    for (size_t i = kLast; i < ends.size(); ++i) {
        row.cells.push_back(trim(padded.substr(ends[i - 1], ends[i] - ends[i - 1])));
    }
    return row;
}

std::vector<list_row> list_rows(const std::vector<std::string>& screen) {
    std::vector<list_row> rows;
    if (screen.size() < 3 || screen[1].find("  ID ") != 0) {
        return rows;
    }
    for (size_t y = 2; y + 1 < screen.size() && !trim(screen[y]).empty(); ++y) {
        rows.push_back(parse_row(screen[y], screen[1]));
    }
    return rows;
}

std::string list_cell(const std::vector<std::string>& screen, const std::string& id, int column) {
    for (const list_row& row : list_rows(screen)) {
        if (!row.cells.empty() && row.cells[kId] == id) {
            return static_cast<size_t>(column) < row.cells.size() ? row.cells[static_cast<size_t>(column)]
                                                                  : "?";
        }
    }
    return "?";
}

std::string status_has(const std::vector<std::string>& screen, const std::string& text) {
    return !screen.empty() && contains(screen[0], text) ? "" : "the status line lacks '" + text + "'";
}

bool status_counts_updates(const std::vector<std::string>& screen) {
    return !screen.empty() && std::regex_search(screen[0], std::regex(" [1-9][0-9]* updates/s"));
}
