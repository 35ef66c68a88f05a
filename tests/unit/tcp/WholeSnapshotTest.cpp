// Whole SHFE and INE 2ps snapshots, thousands of instruments each, cut into
// TCP frames and delivered through the packet handler; the decoded state is
// compared with an independent model of the same fields.
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "src/dev/soft/SoftCard.h"
#include "tests/support/LogLines.h"
#include "tests/support/SnapshotModel.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TcpHarness.h"

namespace {

using Messages = std::vector<std::string>;
using Unit = std::vector<SnapshotField>;

// Same sequence on every platform, unlike the standard distributions.
class CRandom {
public:
    explicit CRandom(uint64_t seed) : m_state(seed * 2654435761u + 1) {}
    uint32_t Next() {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 7;
        m_state ^= m_state << 17;
        return static_cast<uint32_t>(m_state >> 11);
    }
    int Below(int n) { return static_cast<int>(Next() % static_cast<uint32_t>(n)); }
    bool Percent(int p) { return Below(100) < p; }
    template <typename T>
    void Shuffle(std::vector<T>& v) {
        for (size_t i = v.size(); i > 1; --i) {
            std::swap(v[i - 1], v[static_cast<size_t>(Below(static_cast<int>(i)))]);
        }
    }

private:
    uint64_t m_state;
};

struct Product {
    const char* code;
    double price;
    double tick;
    int32_t multiple;
    bool options;
};

const Product kShfeProducts[] = {
    {"cu", 70000, 10, 5, true},    {"al", 19000, 5, 5, true},    {"zn", 23000, 5, 5, true},
    {"pb", 16500, 5, 5, false},    {"ni", 130000, 10, 1, false}, {"sn", 250000, 10, 1, false},
    {"au", 560, 0.02, 1000, true}, {"ag", 7000, 1, 15, true},    {"rb", 3500, 1, 10, false},
    {"wr", 3800, 1, 10, false},    {"hc", 3600, 1, 10, false},   {"ss", 13500, 5, 5, false},
    {"fu", 3000, 1, 10, false},    {"bu", 3500, 2, 10, false},   {"ru", 15000, 5, 10, true},
    {"sp", 5800, 2, 10, false},    {"ao", 4000, 1, 20, false},   {"br", 13000, 5, 5, false},
};

const Product kIneProducts[] = {
    {"sc", 550, 0.1, 1000, true}, {"lu", 4000, 1, 10, false},   {"nr", 12000, 5, 10, true},
    {"bc", 62000, 10, 5, true},   {"ec", 2000, 0.1, 50, false},
};

enum class EKind { Future, Option, Spread, Tas };

struct Planned {
    std::string id;
    EKind kind;
    double tick;
    double ref;  // the price the book is built around
    int32_t multiple;
    int32_t instNo;
};

double OnTick(double price, double tick) {
    return std::round(price / tick) * tick;
}

std::string Month(int m) {
    char b[8];
    snprintf(b, sizeof(b), "25%02d", m);
    return b;
}

// Futures, options, calendar spreads, a few 20-character spreads and TAS
// contracts of each product, numbered upward with gaps, then the named
// instruments at fixed numbers.
template <size_t N>
std::vector<Planned> PlanExchange(const Product (&products)[N], int strikes, CRandom& rnd,
                                  const std::vector<std::pair<std::string, int32_t>>& fixed) {
    std::vector<Planned> out;
    for (const Product& p : products) {
        const std::string code = p.code;
        for (int m = 1; m <= 12; ++m) {
            const double ref = OnTick(p.price * (1 + (m - 6) * 0.002), p.tick);
            out.push_back({code + Month(m), EKind::Future, p.tick, ref, p.multiple, 0});
            for (int s = 0; p.options && s < strikes; ++s) {
                const long strike = std::lround(p.price * (0.8 + 0.4 * s / strikes));
                for (const char* side : {"C", "P"}) {
                    out.push_back({code + Month(m) + side + std::to_string(strike), EKind::Option, p.tick,
                                   p.tick * (30 + rnd.Below(400)), p.multiple, 0});
                }
            }
            if (m < 12) {
                out.push_back({code + Month(m) + "-" + code + Month(m + 1), EKind::Spread, p.tick,
                               p.tick * (rnd.Below(40) - 20), p.multiple, 0});
            }
        }
        out.push_back({code + "2501-" + code + "2502-" + code + "2503", EKind::Spread, p.tick,
                       p.tick * (rnd.Below(20) - 10), p.multiple, 0});
        if (p.options) {
            out.push_back({code + "2502TAS", EKind::Tas, p.tick, p.price, p.multiple, 0});
        }
    }
    int32_t next = 0;
    for (Planned& inst : out) {
        next += rnd.Percent(15) ? 1 + rnd.Below(4) : 0;
        inst.instNo = next++;
    }
    for (const auto& [id, no] : fixed) {
        out.push_back({id, EKind::Future, 10, 50000, 5, no});
    }
    return out;
}

Unit InfoUnit(const Planned& p, CRandom& rnd) {
    InstInfoField info{};
    memcpy(info.inst_id, p.id.data(), std::min<size_t>(p.id.size(), 30));
    memcpy(info.underlying_inst_id, p.id.data(), std::min<size_t>(p.id.size(), 6));
    info.product_class = p.kind == EKind::Option ? '2' : p.kind == EKind::Spread ? '3' : '1';
    info.strike_price = p.kind == EKind::Option ? 1000.0 : DBL_MAX;
    info.options_type = p.kind == EKind::Option ? '1' : '0';
    info.volume_multiple = p.multiple;
    info.underlying_multiple = 1;
    info.is_trading = 1;
    memcpy(info.currency_id, "CNY", 4);
    info.price_tick = rnd.Percent(1) ? DBL_MAX : p.tick;
    info.codec_price = rnd.Percent(10) ? DBL_MAX : p.ref;
    info.inst_no = p.instNo;
    return {SnapshotField::Of(MDQP_FID_INST_INFO, info)};
}

PriceDetailField LevelOf(const Planned& p, char direction, double price, int32_t volume) {
    return PriceDetailField{p.instNo, direction, price, volume};
}

// Trade statistics, the book and the order totals of one instrument. Books
// are sound for the check unless `locked`; TAS contracts always get a locked
// book, which the check skips.
Unit GroupUnit(const Planned& p, CRandom& rnd, bool locked) {
    Unit unit;
    if (!locked && rnd.Percent(4)) {
        return unit;
    }
    const double t = p.tick;
    const bool emptyBook = !locked && p.kind != EKind::Tas && rnd.Percent(8);
    double upper = 0, lower = 0;
    switch (p.kind) {
        case EKind::Future:
            upper = OnTick(p.ref * 1.1, t);
            lower = OnTick(p.ref * 0.9, t);
            break;
        case EKind::Option:
            upper = p.ref + 2000 * t;
            lower = t;
            break;
        case EKind::Spread:
            upper = lower = rnd.Percent(50) ? DBL_MAX : 0.0;
            break;
        case EKind::Tas:
            break;
    }
    if (emptyBook && rnd.Percent(40)) {
        upper = lower = DBL_MAX;
    }
    const bool hasDeal = !(emptyBook || p.kind == EKind::Spread || p.kind == EKind::Tas) || rnd.Percent(70);

    DealInfoField d{};
    d.inst_no = p.instNo;
    const bool traded = rnd.Percent(80);
    d.last_price = traded ? p.ref + t * (rnd.Below(5) - 2) : DBL_MAX;
    d.volume = traded ? 1 + rnd.Below(100000) : 0;
    d.turnover = traded ? d.volume * p.ref * p.multiple : DBL_MAX;
    d.open_interest = rnd.Percent(5) ? DBL_MAX : 1000.0 + rnd.Below(100000);
    d.highest_price = traded ? p.ref + t * rnd.Below(20) : DBL_MAX;
    d.lowest_price = traded ? p.ref - t * rnd.Below(20) : DBL_MAX;
    d.open_price = p.ref;
    d.close_price = DBL_MAX;
    d.settlement_price = DBL_MAX;
    d.upper_limit_price = upper;
    d.lower_limit_price = lower;
    d.pre_settlement_price = p.ref;
    d.pre_close_price = p.ref;
    d.pre_open_interest = 1000;
    d.pre_delta = DBL_MAX;
    d.curr_delta = DBL_MAX;
    memcpy(d.action_day, "20250102", 9);
    memcpy(d.update_time, "14:59:59", 9);
    d.update_mill_sec = rnd.Percent(5) ? 65536 + 500 : 500 * rnd.Below(2);
    d.change_no = rnd.Below(1000000);

    std::vector<PriceDetailField> bids, asks;
    if (locked || p.kind == EKind::Tas) {
        asks.push_back(LevelOf(p, '1', p.ref, 1));
        bids.push_back(LevelOf(p, '0', p.ref, 1));
    } else if (!emptyBook) {
        int bidDepth = rnd.Below(6), askDepth = rnd.Below(6);
        if (bidDepth + askDepth == 0) {
            bidDepth = 1;
        }
        const double bid1 = p.ref - t * rnd.Below(3);
        const double ask1 = bid1 + t * (1 + rnd.Below(3));
        for (int k = 0; k < bidDepth; ++k) {
            const double px = k == 0 ? bid1 : bids.back().price - t * (1 + rnd.Below(2));
            bids.push_back(LevelOf(p, '0', px, 1 + rnd.Below(50)));
        }
        for (int k = 0; k < askDepth; ++k) {
            const double px = k == 0 ? ask1 : asks.back().price + t * (1 + rnd.Below(2));
            asks.push_back(LevelOf(p, '1', px, 1 + rnd.Below(50)));
        }
        if (p.kind == EKind::Spread && bidDepth >= 2 && rnd.Percent(20)) {
            bids[1].volume = 0;  // a real level for a spread
        }
        if (bidDepth == 5 && rnd.Percent(15)) {
            for (int k = 0, extra = 1 + rnd.Below(2); k < extra; ++k) {
                bids.push_back(LevelOf(p, '0', bids.back().price - t, 1 + rnd.Below(50)));
            }
        }
        if (bidDepth > 0 && rnd.Percent(10)) {
            PriceDetailField again = bids[static_cast<size_t>(rnd.Below(bidDepth))];
            again.volume = 1 + rnd.Below(50);
            bids.push_back(again);
        }
    }

    std::vector<PriceDetailField> levels;
    const bool interleave = rnd.Percent(50);
    if (interleave) {
        for (size_t i = 0; i < std::max(bids.size(), asks.size()); ++i) {
            if (i < bids.size()) {
                levels.push_back(bids[i]);
            }
            if (i < asks.size()) {
                levels.push_back(asks[i]);
            }
        }
    } else {
        levels = bids;
        levels.insert(levels.end(), asks.begin(), asks.end());
    }
    // Now and then the trade statistics split the levels into two runs.
    const size_t split = !bids.empty() && !asks.empty() && !interleave && rnd.Percent(3) ? bids.size() : 0;

    OrderStatisField stats{p.instNo, rnd.Below(100000), rnd.Percent(10) ? DBL_MAX : 1.5e9, rnd.Below(100000),
                           rnd.Percent(10) ? DBL_MAX : 2.5e9};
    const bool hasStats = rnd.Percent(80);
    const bool statsFirst = hasStats && rnd.Percent(10);
    if (statsFirst) {
        unit.push_back(SnapshotField::Of(MDQP_FID_ORDER_STATIS, stats));
    }
    if (hasDeal && split == 0) {
        unit.push_back(SnapshotField::Of(MDQP_FID_DEAL_INFO, d));
    }
    for (size_t i = 0; i < levels.size(); ++i) {
        if (hasDeal && split != 0 && i == split) {
            unit.push_back(SnapshotField::Of(MDQP_FID_DEAL_INFO, d));
        }
        unit.push_back(SnapshotField::Of(MDQP_FID_PRICE_DETAIL, levels[i]));
    }
    if (hasStats && !statsFirst) {
        unit.push_back(SnapshotField::Of(MDQP_FID_ORDER_STATIS, stats));
    }
    return unit;
}

SnapshotField PacketNo(int32_t n) {
    return SnapshotField::Of(MDQP_FID_PACKET_NO, PacketNoField{n});
}

// Messages of one feed: the SnapField first, packet numbers at the start of
// each message (and sometimes in the unread last 8 bytes), the units packed
// into messages of 1000..6000 body bytes, the last one flagged 0x01.
std::vector<SnapshotMessage> Compose(int16_t topic, const std::vector<Unit>& units, CRandom& rnd) {
    int32_t packetNo = 1;
    int32_t request = 100;
    std::vector<SnapshotMessage> messages;
    messages.push_back({kMdqpFlagMore,
                        request++,
                        {SnapshotField::Of(MDQP_FID_SNAP, SnapField{topic, 7}), PacketNo(packetNo++)}});
    SnapshotMessage current{kMdqpFlagMore, request++, {PacketNo(packetNo++)}};
    size_t target = 1000 + static_cast<size_t>(rnd.Below(5000));
    for (size_t u = 0; u < units.size(); ++u) {
        if (rnd.Percent(5)) {
            static const uint16_t kSkipped[] = {MDQP_FID_SKIP_0031, MDQP_FID_SKIP_0032, MDQP_FID_SKIP_1002,
                                                MDQP_FID_SKIP_1003};
            current.fields.push_back(
                {kSkipped[rnd.Below(4)], std::vector<char>(static_cast<size_t>(rnd.Below(13)), '\x5a')});
        }
        current.fields.insert(current.fields.end(), units[u].begin(), units[u].end());
        if (current.Length() >= target && u + 1 < units.size()) {
            if (rnd.Percent(30)) {
                current.fields.push_back(PacketNo(packetNo++));
            }
            messages.push_back(current);
            current = SnapshotMessage{kMdqpFlagMore, request++, {PacketNo(packetNo++)}};
            target = 1000 + static_cast<size_t>(rnd.Below(5000));
        }
    }
    current.flag = kMdqpFlagLast;
    messages.push_back(current);
    return messages;
}

struct Feed {
    EMdqpDataType type;
    TcpSegmentFields segment;
    std::vector<SnapshotMessage> messages;
    std::vector<size_t> messageEnds;  // stream offset just past each message
    std::vector<std::vector<char>> frames;
    std::vector<size_t> frameEnds;
};

struct Snapshot {
    Feed feeds[2];  // SHFE, INE
    std::vector<std::vector<char>> delivery;
    std::vector<std::pair<int, size_t>> completion;  // (feed, message) in the order they complete
    std::vector<Planned> instruments[2];
};

void CutIntoFrames(Feed& feed, CRandom& rnd) {
    std::vector<char> stream;
    for (const SnapshotMessage& m : feed.messages) {
        const std::vector<char> bytes = m.Encode();
        stream.insert(stream.end(), bytes.begin(), bytes.end());
        feed.messageEnds.push_back(stream.size());
    }
    size_t pos = 0;
    while (pos < stream.size()) {
        const size_t n = std::min(stream.size() - pos, static_cast<size_t>(300 + rnd.Below(1101)));
        feed.frames.push_back(build_tcp_frame(feed.segment, stream.data() + pos, n));
        feed.segment.seq += static_cast<uint32_t>(n);
        pos += n;
        feed.frameEnds.push_back(pos);
    }
}

// `lockedId` names one instrument given a locked book.
Snapshot MakeSnapshot(uint64_t seed, const std::string& lockedId) {
    CRandom rnd(seed);
    Snapshot s;
    s.instruments[0] = PlanExchange(kShfeProducts, 12, rnd, {{"al2612", 12900}, {"cu2612", 16383}});
    s.instruments[1] = PlanExchange(kIneProducts, 10, rnd, {{"nr2612", 3300}, {"sc2612", 4095}});

    // SHFE: every definition first in a scrambled order, then the books by number.
    std::vector<Unit> shfeUnits;
    std::vector<size_t> order(s.instruments[0].size());
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    rnd.Shuffle(order);
    for (size_t i : order) {
        shfeUnits.push_back(InfoUnit(s.instruments[0][i], rnd));
    }
    for (const Planned& p : s.instruments[0]) {
        shfeUnits.push_back(GroupUnit(p, rnd, p.id == lockedId));
    }
    // INE: each instrument's definition and book together, scrambled.
    std::vector<Unit> ineUnits;
    order.resize(s.instruments[1].size());
    for (size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
    }
    rnd.Shuffle(order);
    for (size_t i : order) {
        const Planned& p = s.instruments[1][i];
        Unit unit = InfoUnit(p, rnd);
        const Unit group = GroupUnit(p, rnd, p.id == lockedId);
        unit.insert(unit.end(), group.begin(), group.end());
        ineUnits.push_back(unit);
    }

    s.feeds[0].type = SHFE_2PS;
    s.feeds[0].segment.srcHost = 0x0A000101;
    s.feeds[0].segment.srcPort = 40001;
    s.feeds[0].segment.dstPort = CTcpHarness::kPort2ps;
    s.feeds[0].segment.seq = 1000000;
    s.feeds[0].messages = Compose(1000, shfeUnits, rnd);
    s.feeds[1].type = INE_2PS;
    s.feeds[1].segment.srcHost = 0x0A000201;
    s.feeds[1].segment.srcPort = 40002;
    s.feeds[1].segment.dstPort = CTcpHarness::kPort4ps;
    s.feeds[1].segment.seq = 7000000;
    s.feeds[1].messages = Compose(5000, ineUnits, rnd);
    for (Feed& f : s.feeds) {
        CutIntoFrames(f, rnd);
    }

    // The two feeds' frames interleaved; a message completes with the frame
    // holding its last byte.
    size_t next[2] = {0, 0};
    size_t completed[2] = {0, 0};
    while (next[0] < s.feeds[0].frames.size() || next[1] < s.feeds[1].frames.size()) {
        int f = rnd.Below(2);
        if (next[f] == s.feeds[f].frames.size()) {
            f = 1 - f;
        }
        const Feed& feed = s.feeds[f];
        s.delivery.push_back(feed.frames[next[f]]);
        const size_t end = feed.frameEnds[next[f]++];
        while (completed[f] < feed.messages.size() && feed.messageEnds[completed[f]] <= end) {
            s.completion.push_back({f, completed[f]++});
        }
    }
    return s;
}

struct SnapshotSetup {
    const char* name;
    int8_t recvall;
    int8_t options;
    std::vector<std::string> listen;
    uint32_t listenCount;
};

void PrintTo(const SnapshotSetup& setup, std::ostream* os) {
    *os << setup.name;
}

constexpr uint64_t kSeed = 20250102;

class WholeSnapshotBase : public ::testing::Test {
protected:
    WholeSnapshotBase() {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(LOG_ERROR | LOG_WARNING | LOG_INFO));
    }

    void Configure(const SnapshotSetup& setup) {
        h.config.recvall = setup.recvall;
        h.config.options = setup.options;
        h.config.listen_insts = setup.listen;
        h.config.total_listen_cnt = setup.listenCount;
    }

    // Delivers every frame; returns the log and leaves the register stores in m_stores.
    std::string Deliver(const Snapshot& snap) {
        CRegisterRecorder recorder(h.registers.data());
        recorder.Start();
        CStdoutCapture capture;
        for (const std::vector<char>& frame : snap.delivery) {
            h.Handle(frame);
        }
        const std::string out = capture.Stop();
        recorder.Stop();
        m_stores = recorder.GetAccesses();
        return out;
    }

    void ApplyAll(const Snapshot& snap, CSnapshotModel& model) {
        for (const auto& [f, m] : snap.completion) {
            model.Apply(snap.feeds[f].type, snap.feeds[f].messages[m]);
        }
    }

    void ExpectDecodedState(const CSnapshotModel& model) {
        int differing = 0;
        for (int slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
            const instrument& want = model.area->instmts[slot];
            const instrument& got = h.area->instmts[slot];
            if (memcmp(&want, &got, sizeof(instrument)) != 0 && ++differing <= 5) {
                ADD_FAILURE() << "slot " << slot << ": " << instrument_diff(want, got);
            }
        }
        EXPECT_EQ(differing, 0);
        EXPECT_EQ(h.area->shfe_inst_cnt, model.area->shfe_inst_cnt);
        EXPECT_EQ(h.area->ine_inst_cnt, model.area->ine_inst_cnt);
        EXPECT_EQ(h.area->shfe_pktno, model.area->shfe_pktno);
        EXPECT_EQ(h.area->ine_pktno, model.area->ine_pktno);

        int calcDiffering = 0, interDiffering = 0;
        for (int slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
            const bool calcSame =
                memcmp(&h.calc->priceTick[slot], &model.calc->priceTick[slot], sizeof(double)) == 0 &&
                memcmp(&h.calc->codecPrice[slot], &model.calc->codecPrice[slot], sizeof(double)) == 0 &&
                h.calc->volumeMulti[slot] == model.calc->volumeMulti[slot];
            if (!calcSame && ++calcDiffering <= 5) {
                ADD_FAILURE() << "price tables of slot " << slot << ": tick " << h.calc->priceTick[slot]
                              << " want " << model.calc->priceTick[slot] << ", codec "
                              << h.calc->codecPrice[slot] << " want " << model.calc->codecPrice[slot]
                              << ", multiple " << h.calc->volumeMulti[slot] << " want "
                              << model.calc->volumeMulti[slot];
            }
            const inter_info& got = h.tcp->GetInterInfo(static_cast<uint32_t>(slot));
            if (memcmp(&got, &model.inter[static_cast<size_t>(slot)], sizeof(inter_info)) != 0 &&
                ++interDiffering <= 5) {
                ADD_FAILURE() << "limits of slot " << slot << ": " << got.upper_limit_price << "/"
                              << got.lower_limit_price << " want "
                              << model.inter[static_cast<size_t>(slot)].upper_limit_price << "/"
                              << model.inter[static_cast<size_t>(slot)].lower_limit_price;
            }
        }
        EXPECT_EQ(calcDiffering, 0);
        EXPECT_EQ(interDiffering, 0);
        EXPECT_EQ(m_stores, model.registers);
        EXPECT_EQ(h.finished.mask, model.finished);
    }

    static std::string IdAt(const share& area, int slot) {
        const char* p = reinterpret_cast<const char*>(area.instmts[slot].inst_id);
        return std::string(p, strnlen(p, 16));
    }

    CTcpHarness h;
    std::vector<RegisterAccess> m_stores;
};

class WholeSnapshotTest : public WholeSnapshotBase, public ::testing::WithParamInterface<SnapshotSetup> {};

TEST_P(WholeSnapshotTest, DecodesToExactlyTheModelledState) {
    Configure(GetParam());
    const Snapshot snap = MakeSnapshot(kSeed, "");
    const std::string out = Deliver(snap);
    CSnapshotModel model(h.config);
    ApplyAll(snap, model);

    ExpectDecodedState(model);
    EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS | ENABLE_INE2PS);
    EXPECT_EQ(h.area->shfe_inst_cnt, 16384);
    EXPECT_EQ(h.area->ine_inst_cnt, 4096);
    EXPECT_EQ(log_messages(out, "[I]", "_ParseMdqp"), model.infos);
    EXPECT_EQ(model.infos.size(), 2u);
    EXPECT_EQ(log_messages(out, "[W]", "_ParseMdqp"), model.warnings);
    EXPECT_EQ(model.warnings.size(), 2u);
    EXPECT_TRUE(log_messages(out, "[W]", "_PacketHandler").empty());
    EXPECT_TRUE(log_messages(out, "[W]", "CheckPrice").empty());
    EXPECT_TRUE(log_messages(out, "[E]", "_ParseMdqp").empty());
    EXPECT_EQ(CExanicTcpFuncTestAccess::Session(*h.tcp, CTcpHarness::kPort2ps).init, 0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::Session(*h.tcp, CTcpHarness::kPort4ps).init, 0);

    // The snapshot really covers what it claims to.
    EXPECT_GT(snap.instruments[0].size() + snap.instruments[1].size(), 2500u);
    EXPECT_GT(snap.feeds[0].messages.size(), 100u);
    EXPECT_GT(snap.delivery.size(), 1000u);

    // Each decoded subscription follows the configuration on its own terms.
    const SnapshotSetup& setup = GetParam();
    int subscribed[2] = {0, 0}, longIds = 0, sixthSlots = 0, spreads = 0, booked = 0;
    for (int slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        if ((h.area->instmts[slot].inst_id[0] & 0xDF) == 0) {
            continue;
        }
        const std::string id = IdAt(*h.area, slot);
        ++subscribed[slot < QUVO_SHFE_MAX_INST_CNT ? 0 : 1];
        longIds += id.size() > 6 ? 1 : 0;
        spreads += id.find('-') != std::string::npos ? 1 : 0;
        sixthSlots += h.area->instmts[slot].bid_px[5] != 0.0 ? 1 : 0;
        booked += h.area->instmts[slot].bid_vol[0] > 0 ? 1 : 0;
        if (setup.options == 0) {
            EXPECT_LE(id.size(), 6u) << id;
        }
        if (setup.recvall == 0) {
            bool listed = false;
            for (uint32_t i = 0; i < setup.listenCount; ++i) {
                const std::string& e = setup.listen[i];
                listed = listed || (e.size() == 2 && id.compare(0, 2, e) == 0) || id.substr(0, 6) == e;
            }
            EXPECT_TRUE(listed) << id;
        }
    }
    EXPECT_GT(subscribed[0], 0);
    EXPECT_GT(subscribed[1], 0);
    EXPECT_GT(booked, 0);
    if (setup.recvall == 0) {
        EXPECT_LT(subscribed[0] + subscribed[1], 1000);
    }
    if (setup.options != 0) {
        EXPECT_GT(longIds, 0);
        EXPECT_GT(spreads, 0);
    } else {
        EXPECT_EQ(longIds, 0);
    }
    if (setup.recvall != 0) {
        EXPECT_GT(sixthSlots, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Subscriptions, WholeSnapshotTest,
                         ::testing::Values(SnapshotSetup{"Recvall", 1, 1, {}, 0},
                                           SnapshotSetup{"ProductPrefixes", 0, 1, {"cu", "sc"}, 2},
                                           SnapshotSetup{"SixCharacterIds",
                                                         0,
                                                         1,
                                                         {"cu2503", "al2507", "sc2506", "nr2501", "cu2612",
                                                          "cu2", "sc250", "zn2501"},
                                                         7},
                                           SnapshotSetup{"NoOptions", 1, 0, {}, 0}),
                         [](const ::testing::TestParamInfo<SnapshotSetup>& info) {
                             return std::string(info.param.name);
                         });

class WholeSnapshotCheckTest : public WholeSnapshotBase {};

TEST_F(WholeSnapshotCheckTest, OneBadBookAnywhereStartsTheWholeSnapshotOver) {
    Configure(SnapshotSetup{"Recvall", 1, 1, {}, 0});
    const Snapshot snap = MakeSnapshot(kSeed, "lu2503");
    const std::string out = Deliver(snap);
    CSnapshotModel model(h.config);
    ApplyAll(snap, model);

    EXPECT_EQ(log_messages(out, "[W]", "_PacketHandler"), Messages{"price check is error"});
    EXPECT_EQ(log_messages(out, "[W]", "CheckPrice"), Messages{"The price is abnormal, price index is :5 "});
    const Messages dump = log_messages(out, "[E]", "ShfeInstPriceCheck");
    ASSERT_EQ(dump.size(), 11u);
    EXPECT_EQ(dump[0].rfind("inst_id [lu2503]upper[", 0), 0u) << dump[0];
    EXPECT_EQ(log_messages(out, "[I]", "_ParseMdqp"), model.infos);

    EXPECT_TRUE(all_zero(h.area.get(), sizeof(share)));
    EXPECT_TRUE(all_zero(h.calc.get(), sizeof(PriceCalcInfo)));
    int limitsLeft = 0;
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        const inter_info& info = h.tcp->GetInterInfo(slot);
        limitsLeft += info.upper_limit_price != 0.0 || info.lower_limit_price != 0.0 ? 1 : 0;
    }
    EXPECT_EQ(limitsLeft, 0);
    EXPECT_EQ(h.finished.mask, 0);
    // The card's subscription tables are not undone.
    EXPECT_EQ(m_stores, model.registers);
    EXPECT_FALSE(model.registers.empty());
}

}  // namespace
