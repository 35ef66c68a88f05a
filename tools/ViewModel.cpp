#include "tools/ViewModel.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstring>

#include "src/api/InstrumentId.h"
#include "tools/DumpFormat.h"
#include "tools/HealthFormat.h"

namespace {

constexpr int64_t kQuietMs = 2000;

std::string level_px(double px, int32_t vol, int decimals) {
    return level_empty(px, vol) ? "" : format_price(px, decimals);
}

std::string level_vol(double px, int32_t vol) {
    return level_empty(px, vol) ? "" : std::to_string(vol);
}

std::string lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

constexpr size_t kStatColumns = 3;
constexpr size_t kStatWidth = 36;

std::string stat_cell(const char* label, const std::string& value) {
    return printf_string("%-17s%16s   ", label, value.c_str());
}

}  // namespace

std::string view_change(double last, double first, int decimals) {
    const double diff = round_price(last - first, decimals);
    if (diff == 0.0) {
        return "0";
    }
    return (diff > 0.0 ? "+" : "") + format_price(diff, decimals);
}

std::string view_change_percent(double last, double first) {
    if (first == 0.0) {
        return "";
    }
    return printf_string("%+.2f%%", (last - first) / std::fabs(first) * 100.0);
}

bool view_has_last(const instrument& inst) {
    return inst.last_px != 0.0 || inst.volume != 0;
}

std::array<bool, QUVO_BOOK_LEVELS> view_levels_in_order(const instrument& inst, bool bid) {
    const double* px = bid ? inst.bid_px : inst.ask_px;
    const int32_t* vol = bid ? inst.bid_vol : inst.ask_vol;
    std::array<bool, QUVO_BOOK_LEVELS> shown;
    shown.fill(true);
    int above = kExchangeLevels - 1;
    for (int k = kExchangeLevels; k < QUVO_BOOK_LEVELS; ++k) {
        const bool worse = bid ? px[k] < px[above] : px[k] > px[above];
        shown[k] = worse && !level_empty(px[k], vol[k]) && !level_empty(px[above], vol[above]);
        if (shown[k]) {
            above = k;
        }
    }
    return shown;
}

CUpdateRate::CUpdateRate() : m_slots(QUVO_INST_SLOTS) {
    Clear();
}

void CUpdateRate::Add(uint32_t slot, int64_t nowMs) {
    if (slot < m_slots.size()) {
        _Add(m_slots[slot], nowMs);
        _Add(m_total, nowMs);
    }
}

uint32_t CUpdateRate::PerSecond(uint32_t slot, int64_t nowMs) const {
    return slot < m_slots.size() ? _Sum(m_slots[slot], nowMs) : 0;
}

uint32_t CUpdateRate::TotalPerSecond(int64_t nowMs) const {
    return _Sum(m_total, nowMs);
}

void CUpdateRate::Clear() {
    rate_window empty;
    std::fill(std::begin(empty.bucket), std::end(empty.bucket), INT64_MIN);
    std::fill(std::begin(empty.count), std::end(empty.count), 0u);
    std::fill(m_slots.begin(), m_slots.end(), empty);
    m_total = empty;
}

void CUpdateRate::_Add(rate_window& window, int64_t nowMs) {
    const int64_t bucket = nowMs / kBucketMs;
    const size_t at = static_cast<size_t>(bucket % (kBuckets + 1));
    if (window.bucket[at] != bucket) {
        window.bucket[at] = bucket;
        window.count[at] = 0;
    }
    ++window.count[at];
}

uint32_t CUpdateRate::_Sum(const rate_window& window, int64_t nowMs) {
    const int64_t current = nowMs / kBucketMs;
    uint32_t sum = 0;
    for (int i = 0; i <= kBuckets; ++i) {
        if (window.bucket[i] >= current - kBuckets && window.bucket[i] < current) {
            sum += window.count[i];
        }
    }
    return sum;
}

CViewModel::CViewModel() : m_rowOfSlot(QUVO_INST_SLOTS, -1) {}

uint32_t CViewModel::_Order(uint32_t slot) {
    return quvo_slot_is_ine(slot) ? QUVO_SHFE_MAX_INST_CNT + inst_no_of(slot) : slot;
}

void CViewModel::Update(uint32_t slot, const instrument& inst) {
    if (slot >= QUVO_INST_SLOTS) {
        return;
    }
    int32_t index = m_rowOfSlot[slot];
    if (index < 0) {
        view_row row{slot, inst, false, 0.0, 0};
        const auto found = m_baselines.find(inst_id_text(inst));
        if (found != m_baselines.end()) {
            _SetBaseline(row, found->second);
        }
        if (m_rows.empty() || _Order(m_rows.back().slot) < _Order(slot)) {
            index = static_cast<int32_t>(m_rows.size());
            m_rows.push_back(row);
            m_rowOfSlot[slot] = index;
            if (_Matches(inst)) {
                m_visible.push_back(static_cast<size_t>(index));
                if (m_selectedSlot < 0) {
                    _SelectIndex(0);
                }
            }
        } else {
            const auto at = std::upper_bound(
                m_rows.begin(), m_rows.end(), _Order(slot),
                [](uint32_t order, const view_row& other) { return order < _Order(other.slot); });
            m_rows.insert(at, row);
            for (size_t i = 0; i < m_rows.size(); ++i) {
                m_rowOfSlot[m_rows[i].slot] = static_cast<int32_t>(i);
            }
            _Rebuild();
            index = m_rowOfSlot[slot];
        }
    }
    view_row& row = m_rows[static_cast<size_t>(index)];
    // A feed restarted on the same segments may give the slot to another instrument.
    const bool renamed = memcmp(row.inst.inst_id, inst.inst_id, sizeof(inst.inst_id)) != 0;
    row.inst = inst;
    if (renamed) {
        row.hasBaseline = false;
        row.baseline = 0.0;
        row.decimals = 0;
        const auto found = m_baselines.find(inst_id_text(inst));
        if (found != m_baselines.end()) {
            _SetBaseline(row, found->second);
        }
        _Rebuild();
    }
    row.decimals = std::max(row.decimals, instrument_price_decimals(inst));
    if (!row.hasBaseline && view_has_last(inst)) {
        _SetBaseline(row, inst.last_px);
        m_baselines.emplace(inst_id_text(inst), inst.last_px);
    }
}

void CViewModel::_SetBaseline(view_row& row, double baseline) {
    row.hasBaseline = true;
    row.baseline = baseline;
    row.decimals = std::max(row.decimals, price_decimals(&baseline, 1));
}

int CViewModel::_Decimals(const view_row& row) {
    const int decimals = instrument_price_decimals(row.inst);
    return decimals < 0 ? decimals : std::max(decimals, row.decimals);
}

std::string CViewModel::_Change(const view_row& row, int decimals) {
    if (!row.hasBaseline || !view_has_last(row.inst)) {
        return "";
    }
    return view_change(row.inst.last_px, row.baseline, decimals);
}

std::string CViewModel::_ChangePercent(const view_row& row) {
    if (!row.hasBaseline || !view_has_last(row.inst) || is_spread_instrument(row.inst)) {
        return "";
    }
    return view_change_percent(row.inst.last_px, row.baseline);
}

void CViewModel::Keep(const std::vector<uint32_t>& slots) {
    std::vector<char> kept(QUVO_INST_SLOTS, 0);
    for (uint32_t slot : slots) {
        if (slot < QUVO_INST_SLOTS) {
            kept[slot] = 1;
        }
    }
    const size_t before = m_rows.size();
    std::erase_if(m_rows, [&](const view_row& row) {
        if (kept[row.slot]) {
            return false;
        }
        m_rowOfSlot[row.slot] = -1;
        return true;
    });
    if (m_rows.size() == before) {
        return;
    }
    for (size_t i = 0; i < m_rows.size(); ++i) {
        m_rowOfSlot[m_rows[i].slot] = static_cast<int32_t>(i);
    }
    _Rebuild();
}

void CViewModel::ClearRows() {
    for (const view_row& row : m_rows) {
        m_rowOfSlot[row.slot] = -1;
    }
    m_rows.clear();
    m_visible.clear();
    m_rate.Clear();
    m_selectedSlot = -1;
    m_top = 0;
}

const instrument* CViewModel::Find(uint32_t slot) const {
    if (slot >= QUVO_INST_SLOTS || m_rowOfSlot[slot] < 0) {
        return nullptr;
    }
    return &m_rows[static_cast<size_t>(m_rowOfSlot[slot])].inst;
}

bool CViewModel::_Matches(const instrument& inst) const {
    return m_filter.empty() || lower(inst_id_text(inst)).rfind(lower(m_filter), 0) == 0;
}

void CViewModel::SetFilter(const std::string& prefix) {
    m_filter = prefix;
    _Rebuild();
}

void CViewModel::_Rebuild() {
    m_visible.clear();
    for (size_t i = 0; i < m_rows.size(); ++i) {
        if (_Matches(m_rows[i].inst)) {
            m_visible.push_back(i);
        }
    }
    // Rows arrive in any order while the feed loads: until the user picks
    // one, the selection stays on the first.
    const int index = m_chosen ? _SelectedIndex() : 0;
    _SelectIndex(index < 0 ? 0 : index);
}

int CViewModel::_SelectedIndex() const {
    if (m_selectedSlot < 0 || m_rowOfSlot[static_cast<size_t>(m_selectedSlot)] < 0) {
        return -1;
    }
    const size_t row = static_cast<size_t>(m_rowOfSlot[static_cast<size_t>(m_selectedSlot)]);
    const auto at = std::lower_bound(m_visible.begin(), m_visible.end(), row);
    return at != m_visible.end() && *at == row ? static_cast<int>(at - m_visible.begin()) : -1;
}

void CViewModel::_SelectIndex(int index) {
    const int count = static_cast<int>(m_visible.size());
    if (count == 0) {
        m_selectedSlot = -1;
        m_top = 0;
        return;
    }
    index = std::clamp(index, 0, count - 1);
    m_selectedSlot = static_cast<int>(m_rows[m_visible[static_cast<size_t>(index)]].slot);
    if (index < m_top) {
        m_top = index;
    } else if (index >= m_top + m_pageRows) {
        m_top = index - m_pageRows + 1;
    }
    m_top = std::clamp(m_top, 0, std::max(0, count - m_pageRows));
}

void CViewModel::SetPageRows(int rows) {
    m_pageRows = std::max(1, rows);
    _SelectIndex(std::max(0, _SelectedIndex()));
}

void CViewModel::MoveBy(int delta) {
    m_chosen = true;
    const int index = _SelectedIndex();
    _SelectIndex(index < 0 ? 0 : index + delta);
}

void CViewModel::MoveHome() {
    m_chosen = true;
    _SelectIndex(0);
}

void CViewModel::MoveEnd() {
    m_chosen = true;
    _SelectIndex(static_cast<int>(m_visible.size()) - 1);
}

int CViewModel::SelectedSlot() const {
    return _SelectedIndex() < 0 ? -1 : m_selectedSlot;
}

std::string CViewModel::SelectedId() const {
    const int slot = SelectedSlot();
    return slot < 0 ? ""
                    : inst_id_text(m_rows[static_cast<size_t>(m_rowOfSlot[static_cast<size_t>(slot)])].inst);
}

bool CViewModel::SelectId(const std::string& id) {
    for (size_t i = 0; i < m_visible.size(); ++i) {
        if (inst_id_text(m_rows[m_visible[i]].inst) == id) {
            m_chosen = true;
            _SelectIndex(static_cast<int>(i));
            return true;
        }
    }
    return false;
}

bool CViewModel::OpenLadder() {
    m_inLadder = SelectedSlot() >= 0;
    return m_inLadder;
}

std::string CViewModel::ListHeading() {
    std::string text =
        printf_string("  %-16s %-4s %12s %10s %8s %10s %12s %7s %12s %7s %6s", "ID", "EXCH", "LAST", "CHANGE",
                      "CHG%", "VOLUME", "BID", "BIDVOL", "ASK", "ASKVOL", "UPD/S");
    trim_right(text);
    return text;
}

std::vector<view_line> CViewModel::ListLines(int64_t nowMs) const {
    std::vector<view_line> lines;
    const size_t end = std::min(m_visible.size(), static_cast<size_t>(m_top + m_pageRows));
    for (size_t i = static_cast<size_t>(m_top); i < end; ++i) {
        const view_row& row = m_rows[m_visible[i]];
        const instrument& inst = row.inst;
        const int decimals = _Decimals(row);
        const bool selected = static_cast<int>(row.slot) == m_selectedSlot;
        view_line line;
        line.text = printf_string("%s %-16s %-4s %12s %10s %8s %10u %12s %7s %12s %7s %6u",
                                  selected ? ">" : " ", inst_id_text(inst).c_str(), exchange_name(row.slot),
                                  view_has_last(inst) ? format_price(inst.last_px, decimals).c_str() : "",
                                  _Change(row, decimals).c_str(), _ChangePercent(row).c_str(), inst.volume,
                                  level_px(inst.bid_px[0], inst.bid_vol[0], decimals).c_str(),
                                  level_vol(inst.bid_px[0], inst.bid_vol[0]).c_str(),
                                  level_px(inst.ask_px[0], inst.ask_vol[0], decimals).c_str(),
                                  level_vol(inst.ask_px[0], inst.ask_vol[0]).c_str(),
                                  m_rate.PerSecond(row.slot, nowMs));
        line.style = selected ? EViewStyle::Selected : EViewStyle::Normal;
        lines.push_back(line);
    }
    return lines;
}

std::vector<view_line> CViewModel::LadderLines(int64_t nowMs, int width) const {
    std::vector<view_line> lines;
    const int slot = SelectedSlot();
    if (slot < 0) {
        lines.push_back({"no instrument selected", EViewStyle::Normal});
        return lines;
    }
    const view_row& row = m_rows[static_cast<size_t>(m_rowOfSlot[static_cast<size_t>(slot)])];
    const instrument& inst = row.inst;
    const uint32_t uslot = static_cast<uint32_t>(slot);
    const int decimals = _Decimals(row);
    lines.push_back({printf_string("%s  %s  slot %u  inst_no %u  updated ", inst_id_text(inst).c_str(),
                                   exchange_name(uslot), uslot, inst_no_of(uslot)) +
                         format_update_time(inst.update_time, inst.update_milli_sec),
                     EViewStyle::Heading});
    lines.push_back({});
    std::string change = _Change(row, decimals);
    const std::string percent = _ChangePercent(row);
    if (!percent.empty()) {
        change += " (" + percent + ")";
    }
    const std::vector<std::string> cells = {
        stat_cell("last", view_has_last(inst) ? format_price(inst.last_px, decimals) : ""),
        stat_cell("change", change),
        stat_cell("volume", std::to_string(inst.volume)),
        stat_cell("open interest", format_amount(inst.open_interest)),
        stat_cell("turnover", format_amount(inst.turnover)),
        stat_cell("updates/s", std::to_string(m_rate.PerSecond(uslot, nowMs))),
        stat_cell("highest", format_price(inst.highest_price, decimals)),
        stat_cell("lowest", format_price(inst.lowest_price, decimals)),
        stat_cell("change_no", std::to_string(inst.change_no)),
        stat_cell("bid total volume", std::to_string(inst.bid_totvol)),
        stat_cell("bid total amount", format_amount(inst.bid_totamount)),
        stat_cell("type", std::to_string(inst.type)),
        stat_cell("ask total volume", std::to_string(inst.ask_totvol)),
        stat_cell("ask total amount", format_amount(inst.ask_totamount)),
    };
    const size_t perLine =
        width <= 0 ? kStatColumns
                   : std::clamp<size_t>(static_cast<size_t>(width - 2) / kStatWidth, 1, kStatColumns);
    for (size_t i = 0; i < cells.size(); i += perLine) {
        std::string text = "  ";
        for (size_t k = i; k < std::min(cells.size(), i + perLine); ++k) {
            text += cells[k];
        }
        trim_right(text);
        lines.push_back({text, EViewStyle::Normal});
    }
    lines.push_back({});
    lines.push_back({printf_string("%7s%11s%15s | %-15s%11s  %s", "level", "bid vol", "bid px", "ask px",
                                   "ask vol", "source"),
                     EViewStyle::Heading});
    std::array<bool, QUVO_BOOK_LEVELS> bidShown;
    std::array<bool, QUVO_BOOK_LEVELS> askShown;
    bidShown.fill(true);
    askShown.fill(true);
    if (m_hideOutOfOrder) {
        bidShown = view_levels_in_order(inst, true);
        askShown = view_levels_in_order(inst, false);
    }
    int bidHidden = 0;
    int askHidden = 0;
    for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
        const double bidPx = bidShown[k] ? inst.bid_px[k] : 0.0;
        const int32_t bidVol = bidShown[k] ? inst.bid_vol[k] : 0;
        const double askPx = askShown[k] ? inst.ask_px[k] : 0.0;
        const int32_t askVol = askShown[k] ? inst.ask_vol[k] : 0;
        bidHidden += level_empty(inst.bid_px[k], inst.bid_vol[k]) || bidShown[k] ? 0 : 1;
        askHidden += level_empty(inst.ask_px[k], inst.ask_vol[k]) || askShown[k] ? 0 : 1;
        const bool local = k >= kExchangeLevels;
        const char* source = !local ? "exchange"
                             : !m_hideOutOfOrder || !level_empty(bidPx, bidVol) || !level_empty(askPx, askVol)
                                 ? "local"
                                 : "";
        lines.push_back({format_level_row(k + 1, bidPx, bidVol, askPx, askVol, decimals, source),
                         local ? EViewStyle::Local : EViewStyle::Normal});
    }
    if (m_hideOutOfOrder) {
        lines.push_back({});
        lines.push_back(
            {printf_string("  local levels out of order hidden: %d bid, %d ask", bidHidden, askHidden),
             EViewStyle::Normal});
    }
    return lines;
}

bool CViewFeed::Attach(int64_t nowMs, std::string& error) {
    if (!m_reader.Attach(error)) {
        m_waitReason = error;
        return false;
    }
    m_follower.emplace(m_reader.Ring());
    m_pending.assign(QUVO_INST_SLOTS, 0);
    m_pendingSlots.clear();
    m_lastAnnounce = -1;
    // A new run may number the instruments differently: stay on the one the
    // user picked.
    const std::string selected = m_model.Chosen() ? m_model.SelectedId() : "";
    m_model.ClearRows();
    _Load();
    if (!selected.empty()) {
        m_model.SelectId(selected);
    }
    m_nextFullCopy = nowMs + kFullCopyMs;
    m_nextCheck = nowMs + kCheckMs;
    m_state = EFeedState::Live;
    _Check(nowMs);
    return true;
}

size_t CViewFeed::Poll(int64_t nowMs) {
    if (!m_reader.IsAttached()) {
        if (nowMs >= m_nextRetry) {
            m_nextRetry = nowMs + kRetryMs;
            std::string error;
            Attach(nowMs, error);
        }
        return 0;
    }
    size_t read = 0;
    uint16_t slot = 0;
    while (read < QUVO_UPDATE_RING_ENTRIES && m_follower->Next(slot)) {
        ++read;
        if (slot >= QUVO_INST_SLOTS) {
            continue;
        }
        m_model.Announce(slot, nowMs);
        if (!m_pending[slot]) {
            m_pending[slot] = 1;
            m_pendingSlots.push_back(slot);
        }
    }
    if (read > 0) {
        m_lastAnnounce = nowMs;
    }
    for (uint16_t pending : m_pendingSlots) {
        m_pending[pending] = 0;
        _Copy(pending);
    }
    m_pendingSlots.clear();
    if (nowMs >= m_nextFullCopy) {
        m_nextFullCopy = nowMs + kFullCopyMs;
        _Load();
    }
    if (nowMs >= m_nextCheck) {
        m_nextCheck = nowMs + kCheckMs;
        _Check(nowMs);
    }
    return read;
}

std::string CViewFeed::Status(int64_t nowMs) const {
    switch (m_state) {
        case EFeedState::Waiting:
            return "waiting for quvo-md: " + m_waitReason;
        case EFeedState::Stopped:
            return "waiting for quvo-md: nothing else holds its segments; showing the books it left";
        case EFeedState::Live:
            break;
    }
    if (m_lastAnnounce < 0) {
        return "quvo-md attached, no updates yet";
    }
    if (nowMs - m_lastAnnounce >= kQuietMs) {
        return printf_string("quvo-md attached, no updates for %lld s",
                             static_cast<long long>((nowMs - m_lastAnnounce) / 1000));
    }
    return "quvo-md live";
}

void CViewFeed::_Load() {
    const std::vector<uint32_t> slots = m_reader.ListSlots();
    m_model.Keep(slots);
    for (uint32_t slot : slots) {
        _Copy(slot);
    }
}

void CViewFeed::_Copy(uint32_t slot) {
    instrument copy;
    // A record still changing after all copies is shown as read; the next
    // announcement or full copy replaces it.
    quvo_copy_consistent(m_reader.Area()->instmts[slot], copy);
    if (quvo_slot_in_use(copy)) {
        m_model.Update(slot, copy);
    }
}

void CViewFeed::_Check(int64_t nowMs) {
    if (!m_reader.IsCurrent()) {
        // Removed or created anew: what stays attached is no longer written.
        m_reader.Detach();
        m_follower.reset();
        m_state = EFeedState::Waiting;
        m_waitReason = "its segments were removed";
        m_nextRetry = nowMs;
        return;
    }
    // The feed restarted on these segments and refilled the ring with end
    // markers: without this the follower would wait a whole lap.
    if (m_follower->CheckRestart()) {
        _Load();
    }
    m_state = m_reader.AttachCount() > 1 ? EFeedState::Live : EFeedState::Stopped;
}

void CViewHealth::Poll(int64_t nowMs) {
    if (nowMs < m_nextRead) {
        return;
    }
    m_nextRead = nowMs + kReadMs;
    std::string error;
    quvo_health copy;
    if ((!m_reader.IsCurrent() && !m_reader.Attach(error)) || !m_reader.Read(copy, error)) {
        m_hasLast = false;
        m_hasBefore = false;
        return;
    }
    m_before = m_last;
    m_beforeMs = m_lastMs;
    m_hasBefore = m_hasLast;
    m_last = copy;
    m_lastMs = nowMs;
    m_hasLast = true;
    m_writerAlive = quvo_health_writer_alive(copy);
}

std::string CViewHealth::Summary() const {
    if (!m_hasLast) {
        return "no health figures";
    }
    if (!m_hasBefore) {
        return health_summary(m_last, m_writerAlive, nullptr, true);
    }
    const health_rates rates =
        health_rates_between(m_before, m_last, static_cast<double>(m_lastMs - m_beforeMs) / 1000.0);
    return health_summary(m_last, m_writerAlive, &rates, true);
}
