// What quvo-view shows, kept apart from the terminal: the instruments and
// their last copies, the selection, the search filter, update rates, the
// text of the list and ladder screens, and the attachment to quvo-md's shared
// memory that feeds them. Single-threaded; times are steady-clock
// milliseconds passed in by the caller.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "interface/quvohealthreader.h"
#include "interface/quvoreader.h"

// `last` minus `first` at `decimals` places ("+20", "-0.2", "0"); -1 gives
// the shortest text of the difference.
std::string view_change(double last, double first, int decimals);
// The change as a percentage of `first` ("+0.03%"); empty when `first` is 0.
std::string view_change_percent(double last, double first);
// Whether `inst` carries a last price: 0 until the first trade, but a spread
// may trade at 0 once volume exists.
bool view_has_last(const instrument& inst);
// Which levels of one side the ladder shows when it hides the local levels
// out of order: every exchange level, and a local level only when it and the
// level shown above it hold a price and its price is strictly worse (lower
// for bids, higher for asks).
std::array<bool, QUVO_BOOK_LEVELS> view_levels_in_order(const instrument& inst, bool bid);

// Announcements per slot over a sliding one-second window of ten buckets.
class CUpdateRate {
public:
    static constexpr int64_t kBucketMs = 100;
    static constexpr int kBuckets = 10;

    CUpdateRate();
    void Add(uint32_t slot, int64_t nowMs);
    // Announcements of `slot` in the ten full buckets before the one holding `nowMs`.
    uint32_t PerSecond(uint32_t slot, int64_t nowMs) const;
    // The same over every slot.
    uint32_t TotalPerSecond(int64_t nowMs) const;
    void Clear();

private:
    // One spare bucket: the current one must not overwrite the oldest counted.
    struct rate_window {
        int64_t bucket[kBuckets + 1];
        uint32_t count[kBuckets + 1];
    };
    static void _Add(rate_window& window, int64_t nowMs);
    static uint32_t _Sum(const rate_window& window, int64_t nowMs);

    std::vector<rate_window> m_slots;
    rate_window m_total;
};

enum class EViewStyle { Normal, Heading, Selected, Local };

struct view_line {
    std::string text;
    EViewStyle style = EViewStyle::Normal;
};

class CViewModel {
public:
    CViewModel();

    // Adds or replaces the row of `slot`. The first last price seen for an
    // identifier stays its baseline for the change column, across ClearRows.
    void Update(uint32_t slot, const instrument& inst);
    void Announce(uint32_t slot, int64_t nowMs) { m_rate.Add(slot, nowMs); }
    // Drops the rows of slots not in `slots`; the selection stays on its
    // instrument when it is kept.
    void Keep(const std::vector<uint32_t>& slots);
    // Drops every row and rate, keeping the baselines and the filter.
    void ClearRows();
    size_t RowCount() const { return m_rows.size(); }
    // The row of `slot`, or nullptr.
    const instrument* Find(uint32_t slot) const;
    uint32_t TotalPerSecond(int64_t nowMs) const { return m_rate.TotalPerSecond(nowMs); }

    // Rows whose identifier starts with `prefix`, ignoring case; "" shows all.
    // The selection stays on its instrument when it is still shown, else it
    // goes to the first row shown.
    void SetFilter(const std::string& prefix);
    const std::string& Filter() const { return m_filter; }
    size_t VisibleCount() const { return m_visible.size(); }

    // Rows the list screen has room for; at least 1.
    void SetPageRows(int rows);
    void MoveBy(int delta);
    void PageUp() { MoveBy(-m_pageRows); }
    void PageDown() { MoveBy(m_pageRows); }
    void MoveHome();
    void MoveEnd();
    // Slot of the selected row, or -1 when no row is shown. Until the user
    // moves the selection (or SelectId), it stays on the first row shown.
    int SelectedSlot() const;
    // Whether the user moved the selection (or SelectId chose it).
    bool Chosen() const { return m_chosen; }
    // Identifier of the selected row, "" when no row is shown.
    std::string SelectedId() const;
    // Selects the row shown with identifier `id`; false when there is none.
    bool SelectId(const std::string& id);

    // Whether the ladder leaves out the local levels out of order
    // (view_levels_in_order); off at start.
    void SetHideOutOfOrder(bool hide) { m_hideOutOfOrder = hide; }
    bool HidesOutOfOrder() const { return m_hideOutOfOrder; }

    // The ladder shows the selected instrument; false when there is none.
    bool OpenLadder();
    void CloseLadder() { m_inLadder = false; }
    bool InLadder() const { return m_inLadder; }

    static std::string ListHeading();
    // The rows of the current page, the selected one styled Selected.
    std::vector<view_line> ListLines(int64_t nowMs) const;
    // Header, statistics and ten levels a side of the selected instrument,
    // and a count of the levels hidden when HidesOutOfOrder(); the statistics
    // take three columns, fewer when `width` (0: any) is short. Prices of
    // one instrument share one count of decimals.
    std::vector<view_line> LadderLines(int64_t nowMs, int width = 0) const;

private:
    struct view_row {
        uint32_t slot;
        instrument inst;
        bool hasBaseline;
        double baseline;
        // The most decimals its prices have needed, so that a column keeps
        // its width while the prices shown happen to need fewer.
        int decimals;
    };

    // SHFE by instrument number, then INE by instrument number.
    static uint32_t _Order(uint32_t slot);
    static void _SetBaseline(view_row& row, double baseline);
    static int _Decimals(const view_row& row);
    static std::string _Change(const view_row& row, int decimals);
    static std::string _ChangePercent(const view_row& row);
    bool _Matches(const instrument& inst) const;
    void _Rebuild();
    int _SelectedIndex() const;
    void _SelectIndex(int index);

    std::vector<view_row> m_rows;
    std::vector<int32_t> m_rowOfSlot;
    std::vector<size_t> m_visible;  // indices into m_rows
    std::unordered_map<std::string, double> m_baselines;
    CUpdateRate m_rate;
    std::string m_filter;
    int m_selectedSlot = -1;
    int m_top = 0;
    int m_pageRows = 1;
    bool m_inLadder = false;
    bool m_chosen = false;
    bool m_hideOutOfOrder = false;
};

enum class EFeedState {
    Waiting,  // not attached: no segments, or they were removed
    Stopped,  // attached, but no other process holds the segments
    Live,     // attached, and another process (the feed) holds them
};

// Keeps a CViewModel in step with quvo-md's shared memory.
class CViewFeed {
public:
    static constexpr int64_t kCheckMs = 250;
    static constexpr int64_t kRetryMs = 500;
    static constexpr int64_t kFullCopyMs = 1000;

    explicit CViewFeed(CViewModel& model) : m_model(model) {}

    // Attaches and loads every instrument in use; false with `error` when the
    // segments cannot be attached (nothing changes then).
    bool Attach(int64_t nowMs, std::string& error);
    // Reads the ring's new announcements and copies the records they name.
    // Every kCheckMs it checks that the segments are still the ones keyed by
    // the key files, attaching anew (every kRetryMs while that fails) when
    // they were removed or replaced, and starts following the ring again when
    // the feed restarted on the same segments and cleared it. Every
    // kFullCopyMs every instrument in use is copied. Returns the number of
    // announcements read.
    size_t Poll(int64_t nowMs);

    EFeedState State() const { return m_state; }
    // One line for the status bar.
    std::string Status(int64_t nowMs) const;

private:
    void _Load();
    void _Check(int64_t nowMs);
    void _Copy(uint32_t slot);

    CViewModel& m_model;
    CQuvoReader m_reader;
    std::optional<CRingFollower> m_follower;
    EFeedState m_state = EFeedState::Waiting;
    std::string m_waitReason = "not attached yet";
    int64_t m_nextCheck = 0;
    int64_t m_nextRetry = 0;
    int64_t m_nextFullCopy = 0;
    int64_t m_lastAnnounce = -1;
    std::vector<char> m_pending;
    std::vector<uint16_t> m_pendingSlots;
};

// The feed's health figures for the status line, from its health segment.
class CViewHealth {
public:
    static constexpr int64_t kReadMs = 500;

    // Reads the segment when kReadMs have passed since the last read,
    // attaching first (anew when the key file names another segment).
    void Poll(int64_t nowMs);
    // The last copy's one-line summary (health_summary), records a second
    // from the copy a read before; "no health figures" when the last read
    // found no segment or no usable copy.
    std::string Summary() const;

private:
    CQuvoHealthReader m_reader;
    quvo_health m_last{};
    quvo_health m_before{};
    int64_t m_lastMs = 0;
    int64_t m_beforeMs = 0;
    bool m_hasLast = false;
    bool m_hasBefore = false;
    bool m_writerAlive = false;
    int64_t m_nextRead = INT64_MIN;
};
