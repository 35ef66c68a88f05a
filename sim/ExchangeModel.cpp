#include "sim/ExchangeModel.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>

#include "interface/commonheader.h"
#include "sim/DecodedRecordBuilder.h"
#include "sim/MdqpBuilder.h"

namespace {

constexpr int kBid = 0;
constexpr int kAsk = 1;
constexpr size_t kMaxLevels = 10;         // the model keeps five more than it publishes
constexpr size_t kMaxMessageBody = 4000;  // MDQP message body, whole instruments only
constexpr size_t kMss = 1448;
constexpr int64_t kStartOfDayNs = 9LL * 3600 * 1000000000;

struct Product {
    const char* prefix;
    double tick;
    int32_t multiple;
    double price;
    double optionTick;
};

const Product kShfeProducts[] = {
    {"cu", 10, 5, 72000, 2},       {"al", 5, 5, 19000, 1},   {"zn", 5, 5, 23000, 1},
    {"pb", 5, 5, 16500, 1},        {"ni", 10, 1, 130000, 2}, {"sn", 10, 1, 250000, 2},
    {"au", 0.02, 1000, 560, 0.02}, {"ag", 1, 15, 7500, 0.5}, {"rb", 1, 10, 3500, 0.5},
    {"hc", 1, 10, 3600, 0.5},      {"ss", 5, 5, 13500, 1},   {"bu", 1, 10, 3500, 0.5},
    {"ru", 5, 10, 15000, 1},       {"fu", 1, 10, 3000, 0.5}, {"sp", 2, 10, 5800, 0.5},
    {"ao", 1, 20, 4000, 0.5},      {"br", 5, 5, 12000, 1},   {"wr", 1, 10, 3800, 0.5},
};
const Product kIneProducts[] = {
    {"sc", 0.1, 1000, 550, 0.05}, {"lu", 1, 10, 4000, 0.5},   {"nr", 5, 10, 12500, 1},
    {"bc", 10, 5, 65000, 2},      {"ec", 0.1, 50, 1500, 0.1},
};

template <size_t N>
constexpr size_t Count(const Product (&)[N]) {
    return N;
}

// A whole number of ticks, so prices stay exact multiples.
double RoundToTick(double price, double tick) {
    return std::round(price / tick) * tick;
}

std::string Month(int index) {
    char text[16];
    snprintf(text, sizeof(text), "%02d%02d", 25 + index / 12, index % 12 + 1);
    return text;
}

}  // namespace

CExchangeModel::CExchangeModel(const SimOptions& options)
    : m_options(options),
      m_market(options.seed),
      m_faults(options.seed ^ 0x9E3779B97F4A7C15ULL),
      m_timeNs(kStartOfDayNs) {
    m_exchangeBegin[0] = m_instruments.size();
    _BuildInstruments(ESimExchange::SHFE, options.shfe);
    m_exchangeEnd[0] = m_instruments.size();
    m_exchangeBegin[1] = m_instruments.size();
    _BuildInstruments(ESimExchange::INE, options.ine);
    m_exchangeEnd[1] = m_instruments.size();
    m_packetNo[0] = static_cast<int32_t>(m_market.Between(1000, 100000));
    m_packetNo[1] = static_cast<int32_t>(m_market.Between(1000, 100000));
}

bool CExchangeModel::HasExchange(ESimExchange exchange) const {
    const int e = exchange == ESimExchange::SHFE ? 0 : 1;
    return m_exchangeEnd[e] > m_exchangeBegin[e];
}

void CExchangeModel::_BuildInstruments(ESimExchange exchange, int count) {
    if (count <= 0) {
        return;
    }
    const bool shfe = exchange == ESimExchange::SHFE;
    const Product* products = shfe ? kShfeProducts : kIneProducts;
    const size_t productCount = shfe ? Count(kShfeProducts) : Count(kIneProducts);
    const int limit = shfe ? QUVO_SHFE_MAX_INST_CNT : QUVO_INE_MAX_INST_CNT;

    // Futures, TAS, spreads, then options fill what is left, in the order an
    // exchange lists them.
    struct Candidate {
        std::string id;
        ESimKind kind;
        const Product* product;
        int month;
        double strike;
    };
    std::vector<Candidate> list;
    std::set<std::string> ids;
    const auto add = [&](Candidate c) {
        if (static_cast<int>(list.size()) < count && ids.insert(c.id).second) {
            list.push_back(std::move(c));
        }
    };
    const int futures = std::max(1, count / 2);
    for (int i = 0; static_cast<int>(list.size()) < futures && i < 24 * static_cast<int>(productCount); ++i) {
        const Product& p = products[i % productCount];
        add({std::string(p.prefix) + Month(i / static_cast<int>(productCount)), ESimKind::FUTURE, &p,
             i / static_cast<int>(productCount), 0});
    }
    const size_t futureCount = list.size();
    const int tas = count / 20;
    for (int i = 0; i < tas && static_cast<size_t>(i) < futureCount; ++i) {
        const Candidate& f = list[static_cast<size_t>(i)];
        add({f.id + "TAS", ESimKind::TAS, f.product, f.month, 0});
    }
    const int spreads = count / 10;
    for (int i = 0; i < spreads && static_cast<size_t>(i) + productCount < futureCount; ++i) {
        const Candidate& near = list[static_cast<size_t>(i)];
        const Candidate& far = list[static_cast<size_t>(i) + productCount];
        add({near.id + "-" + far.id, ESimKind::SPREAD, near.product, near.month, 0});
    }
    for (int k = 1; static_cast<int>(list.size()) < count; ++k) {
        for (size_t f = 0; f < futureCount && static_cast<int>(list.size()) < count; ++f) {
            const Candidate future = list[f];  // a copy: adding may move the list
            const Product& p = *future.product;
            const double step =
                RoundToTick(p.price * 0.01, p.tick) > 0 ? RoundToTick(p.price * 0.01, p.tick) : p.tick;
            const int index = (k + 1) / 2 * ((k % 2) ? 1 : -1);
            const double strike = RoundToTick(p.price, step) + index * step;
            for (const char type : {'C', 'P'}) {
                char text[32];
                snprintf(text, sizeof(text), "%s%c%g", future.id.c_str(), type, strike);
                add({text, ESimKind::OPTION, &p, future.month, strike});
            }
        }
    }

    // Instrument numbers rise with occasional gaps, inside the exchange's range.
    int gapBudget = limit - count;
    int32_t instNo = 0;
    for (Candidate& c : list) {
        if (gapBudget > 0 && m_market.Chance(0.1)) {
            const int gap = static_cast<int>(std::min<int64_t>(gapBudget, m_market.Between(1, 3)));
            instNo += gap;
            gapBudget -= gap;
        }
        Instrument inst;
        SimInstrumentState& s = inst.state;
        s.exchange = exchange;
        s.instNo = instNo;
        s.slot = shfe ? instNo : QUVO_INST_SLOTS - 1 - instNo;
        s.id = c.id;
        s.kind = c.kind;
        const Product& p = *c.product;
        s.volumeMultiple = p.multiple;
        const double drift =
            1 + 0.002 * static_cast<double>(c.month) + 0.01 * static_cast<double>(m_market.Between(-5, 5));
        switch (c.kind) {
            case ESimKind::FUTURE:
            case ESimKind::TAS: {
                s.priceTick = p.tick;
                s.codecPrice = RoundToTick(p.price * drift, p.tick);
                const int32_t band =
                    c.kind == ESimKind::TAS
                        ? 10
                        : std::max(10, static_cast<int32_t>(std::lround(s.codecPrice * 0.07 / p.tick)));
                inst.lowOffset = -band;
                inst.highOffset = band;
                break;
            }
            case ESimKind::SPREAD:
                s.priceTick = p.tick;
                s.codecPrice = 0;
                inst.lowOffset = -200;
                inst.highOffset = 200;
                break;
            case ESimKind::OPTION: {
                s.priceTick = p.optionTick;
                const double intrinsic =
                    std::max(0.0, (c.id.find('C', 6) != std::string::npos ? 1 : -1) * (p.price - c.strike));
                s.codecPrice = RoundToTick(intrinsic + p.price * 0.02, p.optionTick);
                const int32_t ticks = static_cast<int32_t>(std::lround(s.codecPrice / p.optionTick));
                inst.highOffset = std::max(20, ticks);
                inst.lowOffset = -std::min(inst.highOffset, ticks - 1);
                break;
            }
        }
        s.lowerLimit = _Price(inst, inst.lowOffset);
        s.upperLimit = _Price(inst, inst.highOffset);
        s.changeNo = static_cast<uint32_t>(m_market.Between(1, 5000));
        _BuildBook(inst);
        m_instruments.push_back(std::move(inst));
        ++instNo;
    }
}

double CExchangeModel::_Price(const Instrument& inst, int32_t offset) const {
    // The feed's own arithmetic, so its values equal these bit for bit.
    return static_cast<double>(offset) * inst.state.priceTick + inst.state.codecPrice;
}

void CExchangeModel::_BuildBook(Instrument& inst) {
    SimInstrumentState& s = inst.state;
    const int32_t span = inst.highOffset - inst.lowOffset;
    const bool liquid = s.kind == ESimKind::FUTURE;
    const int32_t mid =
        inst.lowOffset + span / 4 + static_cast<int32_t>(m_market.Between(0, std::max(1, span / 2)));
    const int32_t spread = static_cast<int32_t>(m_market.Between(1, 3));
    const int32_t maxVolume = liquid ? 200 : 30;
    for (int side : {kBid, kAsk}) {
        const int levels = static_cast<int>(m_market.Between(liquid ? 3 : 0, liquid ? 10 : 7));
        int32_t offset = side == kBid ? mid : mid + spread;
        for (int i = 0; i < levels; ++i) {
            if (offset < inst.lowOffset || offset > inst.highOffset) {
                break;
            }
            inst.side[side].push_back({offset, static_cast<int32_t>(m_market.Between(1, maxVolume))});
            offset += (side == kBid ? -1 : 1) * static_cast<int32_t>(m_market.Between(1, 3));
        }
    }
    const int32_t extra = static_cast<int32_t>(m_market.Between(0, 5000));
    for (int side : {kBid, kAsk}) {
        int32_t volume = extra;
        double amount = static_cast<double>(extra) *
                        _Price(inst, side == kBid ? inst.lowOffset : inst.highOffset) * s.volumeMultiple;
        for (const Level& level : inst.side[side]) {
            volume += level.volume;
            amount += _Price(inst, level.offset) * level.volume * s.volumeMultiple;
        }
        (side == kBid ? s.bidTotVol : s.askTotVol) = volume;
        (side == kBid ? s.bidTotAmount : s.askTotAmount) = amount;
    }
    inst.traded = m_market.Chance(liquid ? 0.9 : 0.5);
    if (inst.traded) {
        inst.lastOffset =
            std::clamp(mid + static_cast<int32_t>(m_market.Between(-2, 2)), inst.lowOffset, inst.highOffset);
        inst.highestOffset =
            std::min(inst.highOffset, inst.lastOffset + static_cast<int32_t>(m_market.Between(0, 8)));
        inst.lowestOffset =
            std::max(inst.lowOffset, inst.lastOffset - static_cast<int32_t>(m_market.Between(0, 8)));
        s.volume = static_cast<uint32_t>(m_market.Between(1, liquid ? 200000 : 2000));
        s.turnover = static_cast<double>(s.volume) * _Price(inst, inst.lastOffset) * s.volumeMultiple;
        s.lastPx = _Price(inst, inst.lastOffset);
        s.highestPrice = _Price(inst, inst.highestOffset);
        s.lowestPrice = _Price(inst, inst.lowestOffset);
    }
    s.openInterest = static_cast<double>(m_market.Between(0, liquid ? 400000 : 5000));
    inst.updateMillisec = static_cast<uint16_t>(m_market.Between(0, 999));
}

size_t CExchangeModel::_PickInstrument(unsigned exchanges) {
    size_t total = 0;
    for (int e = 0; e < 2; ++e) {
        if (exchanges & (1u << e)) {
            total += m_exchangeEnd[e] - m_exchangeBegin[e];
        }
    }
    size_t pick = static_cast<size_t>(m_market.Between(0, static_cast<int64_t>(total) - 1));
    for (int e = 0; e < 2; ++e) {
        if (exchanges & (1u << e)) {
            const size_t size = m_exchangeEnd[e] - m_exchangeBegin[e];
            if (pick < size) {
                return m_exchangeBegin[e] + pick;
            }
            pick -= size;
        }
    }
    return 0;
}

bool CExchangeModel::Step(unsigned exchanges, SimFrames& out) {
    m_lastLost = false;
    if (m_options.records != 0 && m_records >= m_options.records) {
        return false;
    }
    bool any = false;
    for (int e = 0; e < 2; ++e) {
        any = any || ((exchanges & (1u << e)) && m_exchangeEnd[e] > m_exchangeBegin[e]);
    }
    if (!any) {
        return false;
    }
    const double meanGapNs = m_options.rate > 0 ? 1e9 / m_options.rate : 1000;
    m_timeNs += static_cast<int64_t>(meanGapNs * static_cast<double>(m_market.Between(0, 200)) / 100.0);

    size_t index;
    const bool revealing = m_forced >= 0;
    if (revealing) {
        index = static_cast<size_t>(m_forced);
        m_forced = -1;
        // A snapshot taken after the loss already holds the lost change.
        if (m_snapshots == m_snapshotsAtLoss && !m_gapSinceSnapshot) {
            ++m_gaps;
            m_gapSinceSnapshot = true;
        }
    } else {
        index = _PickInstrument(exchanges);
    }
    Instrument& inst = m_instruments[index];
    const int e = inst.state.exchange == ESimExchange::SHFE ? 0 : 1;
    const size_t framesBefore = out.Count();

    if (m_faults.Chance(m_options.shortRecord)) {
        std::vector<char> junk(static_cast<size_t>(m_faults.Between(1, kDecodedRecordMinLen - 1)));
        for (char& c : junk) {
            c = static_cast<char>(m_faults.Next());
        }
        out.Add(junk);
        ++m_faultCounts.shortRecord;
    }
    if (m_faults.Chance(m_options.badLength)) {
        std::vector<char> big(
            static_cast<size_t>(m_faults.Between(kDecodedFrameMaxLen + 1, kDecodedFrameMaxLen + 64)), 0);
        out.Add(big);
        ++m_faultCounts.badLength;
    }
    const bool canCross =
        inst.state.kind != ESimKind::TAS && !inst.side[kBid].empty() && !inst.side[kAsk].empty();
    if (canCross && m_faults.Chance(m_options.crossed)) {
        Change crossing;
        crossing.levels.push_back(
            {kBid, 1, PRICE_EVENT_UPDATE, inst.side[kAsk].front().offset, inst.side[kBid].front().volume});
        out.Add(_Encode(inst, inst.state.changeNo + 1, crossing));
        ++m_faultCounts.crossed;
    }

    Change change;
    int64_t volumeBefore[2], amountBefore[2];
    for (int side : {kBid, kAsk}) {
        volumeBefore[side] = 0;
        amountBefore[side] = 0;
        for (const Level& level : inst.side[side]) {
            volumeBefore[side] += level.volume;
            amountBefore[side] += int64_t{level.offset} * level.volume;
        }
    }
    _Act(inst, change);
    SimInstrumentState& s = inst.state;
    for (int side : {kBid, kAsk}) {
        int64_t volume = 0, amount = 0;
        for (const Level& level : inst.side[side]) {
            volume += level.volume;
            amount += int64_t{level.offset} * level.volume;
        }
        if (volume != volumeBefore[side] || amount != amountBefore[side]) {
            const int32_t dv = static_cast<int32_t>(volume - volumeBefore[side]);
            const int64_t da = amount - amountBefore[side];
            change.statistics[side] = true;
            change.statisticsVolume[side] = dv;
            change.statisticsAmount[side] = da;
            int32_t& total = side == kBid ? s.bidTotVol : s.askTotVol;
            double& sum = side == kBid ? s.bidTotAmount : s.askTotAmount;
            total += dv;
            sum += (static_cast<double>(dv) * s.codecPrice + static_cast<double>(da) * s.priceTick) *
                   static_cast<double>(s.volumeMultiple);
        }
    }
    ++s.changeNo;
    inst.updateMillisec = _Millisec();
    std::vector<char> record = _Encode(inst, s.changeNo, change);
    const bool unknownField = m_faults.Chance(m_options.unknownField);
    if (unknownField) {
        const uint16_t unknown[4] = {0x1FFF, 0, 0, 0};
        record.insert(record.end(), reinterpret_cast<const char*>(unknown),
                      reinterpret_cast<const char*>(unknown) + sizeof(unknown));
    }
    ++m_packetNo[e];
    ++m_records;

    // A lost record needs a later one of the same instrument to be noticed.
    const bool roomForNext = m_options.records == 0 || m_records < m_options.records;
    if (roomForNext && !revealing && m_faults.Chance(m_options.gap)) {
        m_forced = static_cast<int64_t>(index);
        m_snapshotsAtLoss = m_snapshots;
        m_lastLost = true;
        // Frames a fault slipped in before the lost record still go out.
        m_faultCounts.decodedFrames += out.Count() - framesBefore;
        return true;
    }
    out.Add(record);
    m_faultCounts.unknownField += unknownField ? 1 : 0;
    if (m_history.size() < 64) {
        m_history.push_back(record);
    } else {
        m_history[m_historyNext++ % m_history.size()] = record;
    }
    if (m_history.size() > 1 && m_faults.Chance(m_options.stale)) {
        out.Add(
            m_history[static_cast<size_t>(m_faults.Between(0, static_cast<int64_t>(m_history.size()) - 2))]);
        ++m_faultCounts.stale;
    }
    m_faultCounts.decodedFrames += out.Count() - framesBefore;
    return true;
}

void CExchangeModel::_Act(Instrument& inst, Change& change) {
    std::vector<Event>& events = change.levels;
    auto& bids = inst.side[kBid];
    auto& asks = inst.side[kAsk];
    const int64_t roll = m_market.Between(0, 99);
    if (roll < 30 && (!bids.empty() || !asks.empty())) {
        // A market order takes from the side that has orders.
        int aggressor = m_market.Chance(0.5) ? kBid : kAsk;
        if (inst.side[1 - aggressor].empty()) {
            aggressor = 1 - aggressor;
        }
        _Trade(inst, aggressor, change);
        return;
    }
    int side = m_market.Chance(0.5) ? kBid : kAsk;
    const bool thin = inst.side[side].size() < 3;
    const bool full = inst.side[side].size() >= kMaxLevels;
    if ((roll < 65 || thin) && !full) {
        _Add(inst, side, events);
    } else if (!inst.side[side].empty()) {
        _Cancel(inst, side, events);
    } else {
        _Add(inst, side, events);
    }
}

void CExchangeModel::_Trade(Instrument& inst, int aggressor, Change& change) {
    SimInstrumentState& s = inst.state;
    const int resting = 1 - aggressor;
    Level& best = inst.side[resting].front();
    const int32_t volume = static_cast<int32_t>(m_market.Between(1, std::min(best.volume, 20)));
    const int32_t offset = best.offset;
    if (volume == best.volume) {
        _RemoveLevel(inst, resting, 0, change.levels);
    } else {
        _SetVolume(inst, resting, 0, best.volume - volume, change.levels);
    }
    const int64_t interest = m_market.Between(-volume, volume);
    s.lastPx = _Price(inst, offset);
    s.volume += static_cast<uint32_t>(volume);
    s.turnover += (static_cast<double>(volume) * s.codecPrice +
                   static_cast<double>(int64_t{offset} * volume) * s.priceTick) *
                  static_cast<double>(s.volumeMultiple);
    s.openInterest += static_cast<double>(interest);
    change.deal = true;
    change.dealOffset = offset;
    change.dealVolume = volume;
    change.interest = interest;
    if (!inst.traded || offset > inst.highestOffset) {
        inst.highestOffset = offset;
        s.highestPrice = _Price(inst, offset);
        change.high = true;
    }
    if (!inst.traded || offset < inst.lowestOffset) {
        inst.lowestOffset = offset;
        s.lowestPrice = _Price(inst, offset);
        change.low = true;
    }
    inst.traded = true;
    inst.lastOffset = offset;
}

void CExchangeModel::_Add(Instrument& inst, int side, std::vector<Event>& events) {
    auto& own = inst.side[side];
    const auto& other = inst.side[1 - side];
    const int sign = side == kBid ? 1 : -1;  // toward the other side
    int32_t offset;
    if (!own.empty()) {
        offset = own.front().offset + sign * static_cast<int32_t>(m_market.Between(-6, 1));
    } else if (!other.empty()) {
        offset = other.front().offset - sign * static_cast<int32_t>(m_market.Between(1, 6));
    } else {
        offset = inst.lowOffset + static_cast<int32_t>(m_market.Between(0, inst.highOffset - inst.lowOffset));
    }
    if (!other.empty()) {
        // Never reach the other side's best price: that would trade.
        offset = side == kBid ? std::min(offset, other.front().offset - 1)
                              : std::max(offset, other.front().offset + 1);
    }
    if (offset < inst.lowOffset || offset > inst.highOffset) {
        return;  // nothing inside the limits; the record carries no change
    }
    const int32_t volume =
        static_cast<int32_t>(m_market.Between(1, inst.state.kind == ESimKind::FUTURE ? 100 : 20));
    for (size_t i = 0; i < own.size(); ++i) {
        if (own[i].offset == offset) {
            _SetVolume(inst, side, i, own[i].volume + volume, events);
            return;
        }
    }
    _AddLevel(inst, side, {offset, volume}, events);
}

void CExchangeModel::_Cancel(Instrument& inst, int side, std::vector<Event>& events) {
    auto& own = inst.side[side];
    const size_t index =
        static_cast<size_t>(m_market.Between(0, std::min<int64_t>(static_cast<int64_t>(own.size()), 7) - 1));
    const int32_t volume = static_cast<int32_t>(m_market.Between(1, own[index].volume));
    if (volume == own[index].volume) {
        _RemoveLevel(inst, side, index, events);
    } else {
        _SetVolume(inst, side, index, own[index].volume - volume, events);
    }
}

void CExchangeModel::_AddLevel(Instrument& inst, int side, Level level, std::vector<Event>& events) {
    auto& own = inst.side[side];
    size_t index = 0;
    while (index < own.size() &&
           (side == kBid ? own[index].offset > level.offset : own[index].offset < level.offset)) {
        ++index;
    }
    own.insert(own.begin() + static_cast<std::ptrdiff_t>(index), level);
    if (index < kSimPublishedLevels) {
        // The fifth level, if any, drops out of view; the feed shifts it itself.
        events.push_back({static_cast<uint8_t>(side), static_cast<uint8_t>(index + 1), PRICE_EVENT_INSERT,
                          level.offset, level.volume});
    }
    if (own.size() > kMaxLevels) {
        own.pop_back();
    }
}

void CExchangeModel::_RemoveLevel(Instrument& inst, int side, size_t index, std::vector<Event>& events) {
    auto& own = inst.side[side];
    own.erase(own.begin() + static_cast<std::ptrdiff_t>(index));
    if (index < kSimPublishedLevels) {
        events.push_back(
            {static_cast<uint8_t>(side), static_cast<uint8_t>(index + 1), PRICE_EVENT_DELETE, 0, 0});
        if (own.size() >= kSimPublishedLevels) {
            // A deeper price comes into view at the fifth level.
            const Level& shown = own[kSimPublishedLevels - 1];
            events.push_back({static_cast<uint8_t>(side), kSimPublishedLevels, PRICE_EVENT_INSERT,
                              shown.offset, shown.volume});
        }
    }
}

void CExchangeModel::_SetVolume(Instrument& inst, int side, size_t index, int32_t volume,
                                std::vector<Event>& events) {
    Level& level = inst.side[side][index];
    level.volume = volume;
    if (index < kSimPublishedLevels) {
        events.push_back({static_cast<uint8_t>(side), static_cast<uint8_t>(index + 1), PRICE_EVENT_UPDATE,
                          level.offset, volume});
    }
}

std::vector<char> CExchangeModel::_Encode(const Instrument& inst, uint32_t changeNo, const Change& change) {
    const SimInstrumentState& s = inst.state;
    const int e = s.exchange == ESimExchange::SHFE ? 0 : 1;
    CDecodedRecordBuilder record(static_cast<uint16_t>(e == 0 ? m_options.shfeTopic : m_options.ineTopic),
                                 static_cast<uint32_t>(s.instNo), changeNo, _SnapTime(), _Millisec(),
                                 m_packetNo[e]);
    for (const Event& ev : change.levels) {
        record.PriceChange(ev.side, ev.level, ev.offset, static_cast<uint32_t>(ev.volume), ev.type);
    }
    if (change.deal) {
        record.Deal(change.dealOffset, change.dealVolume, int64_t{change.dealOffset} * change.dealVolume,
                    change.interest);
    }
    if (change.statistics[kBid]) {
        record.BuyStatics(change.statisticsVolume[kBid], change.statisticsAmount[kBid]);
    }
    if (change.statistics[kAsk]) {
        record.SellStatics(change.statisticsVolume[kAsk], change.statisticsAmount[kAsk]);
    }
    if (change.high) {
        record.High(inst.highestOffset);
    }
    if (change.low) {
        record.Low(inst.lowestOffset);
    }
    return record.Build();
}

uint32_t CExchangeModel::_SnapTime() const {
    const int64_t seconds = m_timeNs / 1000000000 % 86400;
    return static_cast<uint32_t>(seconds / 3600 * 10000 + seconds / 60 % 60 * 100 + seconds % 60);
}

uint16_t CExchangeModel::_Millisec() const {
    return static_cast<uint16_t>(m_timeNs / 1000000 % 1000);
}

SimState CExchangeModel::GetState() const {
    SimState state;
    state.seed = m_options.seed;
    state.records = m_records;
    state.snapshots = m_snapshots;
    state.gaps = m_gaps;
    state.faults = m_faultCounts;
    state.instruments.reserve(m_instruments.size());
    for (const Instrument& inst : m_instruments) {
        SimInstrumentState s = inst.state;
        for (int side : {kBid, kAsk}) {
            double* px = side == kBid ? s.bidPx : s.askPx;
            int32_t* vol = side == kBid ? s.bidVol : s.askVol;
            for (size_t i = 0; i < kSimPublishedLevels; ++i) {
                const bool present = i < inst.side[side].size();
                px[i] = present ? _Price(inst, inst.side[side][i].offset) : 0;
                vol[i] = present ? inst.side[side][i].volume : 0;
            }
        }
        state.instruments.push_back(std::move(s));
    }
    return state;
}

std::vector<std::vector<char>> CExchangeModel::BuildSnapshotMessages(ESimExchange exchange) {
    const int e = exchange == ESimExchange::SHFE ? 0 : 1;
    const int16_t topic = e == 0 ? m_options.shfeTopic : m_options.ineTopic;
    const double empty = DBL_MAX;
    const int64_t seconds = m_timeNs / 1000000000 % 86400;
    char clock[32];
    snprintf(clock, sizeof(clock), "%02d:%02d:%02d", static_cast<int>(seconds / 3600),
             static_cast<int>(seconds / 60 % 60), static_cast<int>(seconds % 60));

    std::vector<std::vector<char>> messages;
    CMdqpMessageBuilder message(kMdqpFlagMore, ++m_snapNo);
    message.Snap(topic, m_snapNo).PacketNo(m_packetNo[e]);
    size_t bodySize = message.Build().size() - sizeof(MdqpHeader);
    for (size_t i = m_exchangeBegin[e]; i < m_exchangeEnd[e]; ++i) {
        const Instrument& inst = m_instruments[i];
        const SimInstrumentState& s = inst.state;
        // All fields of one instrument travel in one message: a price-level
        // run split over two messages would be cleared twice.
        CMdqpMessageBuilder group;
        InstInfoField info{};
        memcpy(info.inst_id, s.id.data(), std::min(s.id.size(), sizeof(info.inst_id) - 1));
        const std::string underlying = s.id.substr(0, 6);
        memcpy(info.underlying_inst_id, underlying.data(), underlying.size());
        info.product_class = s.kind == ESimKind::OPTION ? '2' : s.kind == ESimKind::SPREAD ? '3' : '1';
        info.strike_price = empty;
        info.options_type = s.kind == ESimKind::OPTION ? s.id[6] : '0';
        info.volume_multiple = s.volumeMultiple;
        info.underlying_multiple = 1;
        info.is_trading = 1;
        memcpy(info.currency_id, "CNY", 3);
        info.price_tick = s.priceTick;
        info.codec_price = s.codecPrice;
        info.inst_no = s.instNo;
        group.Field(MDQP_FID_INST_INFO, info);

        DealInfoField deal{};
        deal.inst_no = s.instNo;
        deal.last_price = inst.traded ? s.lastPx : empty;
        deal.volume = static_cast<int32_t>(s.volume);
        deal.turnover = s.turnover;
        deal.open_interest = s.openInterest;
        deal.highest_price = inst.traded ? s.highestPrice : empty;
        deal.lowest_price = inst.traded ? s.lowestPrice : empty;
        deal.open_price = inst.traded ? s.lastPx : empty;
        deal.close_price = empty;
        deal.settlement_price = empty;
        deal.upper_limit_price = s.upperLimit;
        deal.lower_limit_price = s.lowerLimit;
        deal.pre_settlement_price = s.codecPrice;
        deal.pre_close_price = s.codecPrice;
        deal.pre_open_interest = s.openInterest;
        deal.pre_delta = empty;
        deal.curr_delta = empty;
        memcpy(deal.action_day, "20261120", 8);
        memcpy(deal.update_time, clock, 8);
        deal.update_mill_sec = inst.updateMillisec;
        deal.change_no = static_cast<int32_t>(s.changeNo);
        group.Deal(deal);
        for (int side : {kBid, kAsk}) {
            for (size_t k = 0; k < std::min(inst.side[side].size(), size_t{kSimPublishedLevels}); ++k) {
                group.Level(s.instNo, side == kBid ? '0' : '1', _Price(inst, inst.side[side][k].offset),
                            inst.side[side][k].volume);
            }
        }
        group.Stats(s.instNo, s.bidTotVol, s.bidTotAmount, s.askTotVol, s.askTotAmount);
        const std::vector<char> fields = group.Build();
        const size_t size = fields.size() - sizeof(MdqpHeader);
        if (bodySize + size > kMaxMessageBody) {
            messages.push_back(message.Build());
            message = CMdqpMessageBuilder(kMdqpFlagMore, m_snapNo);
            bodySize = 0;
        }
        message.Raw(fields.data() + sizeof(MdqpHeader), size);
        bodySize += size;
    }
    messages.push_back(message.Build());
    // The last message closes the snapshot; a lone first message must keep
    // its start flag, so an empty closing message follows it.
    if (messages.size() == 1) {
        messages.push_back(CMdqpMessageBuilder(kMdqpFlagLast, m_snapNo).Build());
    } else {
        messages.back()[0] = static_cast<char>(kMdqpFlagLast);
    }
    return messages;
}

namespace {

// Cuts one connection's byte stream into segments and sends them with the
// faults asked for. Returns false when it stopped at an injected reset.
bool SendConnection(const std::vector<char>& stream, TcpSegmentFields connection, const SimOptions& options,
                    CSimRandom& random, bool reset, SimFrames& out, SimFaultCounts& counts) {
    std::vector<std::pair<size_t, size_t>> segments;  // offset, length
    for (size_t at = 0; at < stream.size(); at += kMss) {
        segments.push_back({at, std::min(kMss, stream.size() - at)});
    }
    const uint32_t isn = connection.seq;
    const size_t resetAt =
        reset && segments.size() > 2
            ? static_cast<size_t>(random.Between(1, static_cast<int64_t>(segments.size()) - 2))
            : segments.size();
    const auto send = [&](size_t index, bool mayFault) {
        TcpSegmentFields s = connection;
        s.seq = isn + static_cast<uint32_t>(segments[index].first);
        const char* data = stream.data() + segments[index].first;
        const size_t size = segments[index].second;
        if (mayFault && random.Chance(options.tcpOther)) {
            TcpSegmentFields other = s;
            const int64_t kind = random.Between(0, 2);
            other.protocol = kind == 0 ? 17 : kind == 1 ? 1 : 6;
            other.dstPort =
                kind == 2 ? static_cast<uint16_t>(connection.dstPort ^ 0x4000) : connection.dstPort;
            out.Add(build_tcp_frame(other, data, std::min<size_t>(size, 64)));
            ++(kind == 2 ? counts.tcpOtherPort : counts.tcpOtherProtocol);
        }
        if (mayFault && random.Chance(options.tcpBadChecksum)) {
            TcpSegmentFields bad = s;
            bad.badChecksum = true;
            out.Add(build_tcp_frame(bad, data, size));
            ++counts.tcpBadChecksum;
        }
        if (mayFault && random.Chance(options.tcpPadding)) {
            s.padding = static_cast<size_t>(random.Between(1, 18));
            ++counts.tcpPadding;
        }
        out.Add(build_tcp_frame(s, data, size));
    };

    // Held-back segments wait for the index at which they are sent again. A
    // segment is held at most once, as lost or as a duplicate.
    std::vector<std::pair<size_t, size_t>> later;  // due index, segment
    std::vector<bool> lost(segments.size(), false);
    const auto release = [&](size_t now, bool all) {
        std::stable_sort(later.begin(), later.end());
        while (!later.empty() && (all || later.front().first <= now)) {
            const size_t index = later.front().second;
            send(index, false);
            ++(lost[index] ? counts.tcpLoss : counts.tcpDuplicate);
            later.erase(later.begin());
        }
    };
    for (size_t i = 0; i < segments.size(); ++i) {
        const bool last = i + 1 == segments.size();
        release(i, last || i == resetAt);
        if (i == resetAt) {
            // A reset that carries data, so the feed does not drop it as empty.
            TcpSegmentFields rst = connection;
            rst.seq = isn + static_cast<uint32_t>(segments[i].first);
            rst.flags = 0x14;
            static const char kReason[] = "connection reset";
            out.Add(build_tcp_frame(rst, kReason, sizeof(kReason) - 1));
            ++counts.tcpReset;
            return false;
        }
        // The first segment opens the session and the last closes it: both
        // arrive as sent.
        const bool middle = i > 0 && !last;
        if (middle && random.Chance(options.tcpLoss)) {
            later.push_back({i + static_cast<size_t>(random.Between(2, 5)), i});
            lost[i] = true;
            continue;
        }
        if (middle && i + 2 < segments.size() && random.Chance(options.tcpReorder)) {
            send(i + 1, true);
            send(i, true);
            ++counts.tcpReorder;
            ++i;
            continue;
        }
        send(i, middle);
        if (middle && random.Chance(options.tcpDuplicate)) {
            later.push_back({i + static_cast<size_t>(random.Between(1, 3)), i});
        }
    }
    return true;
}

}  // namespace

void CExchangeModel::BuildSnapshotFrames(unsigned exchanges, SimFrames& out) {
    ++m_snapshots;
    m_gapSinceSnapshot = false;
    std::vector<std::vector<char>> streams[2];
    for (int e = 0; e < 2; ++e) {
        if ((exchanges & (1u << e)) && m_exchangeEnd[e] > m_exchangeBegin[e]) {
            for (const std::vector<char>& message :
                 BuildSnapshotMessages(e == 0 ? ESimExchange::SHFE : ESimExchange::INE)) {
                streams[e].push_back(message);
            }
        }
    }
    // A reset clears everything the feed holds, so every exchange is sent
    // again, with no further reset.
    const size_t framesBefore = out.Count();
    bool reset = m_faults.Chance(m_options.tcpReset);
    const int resetExchange = static_cast<int>(m_faults.Between(0, 1));
    for (bool done = false; !done;) {
        done = true;
        for (int e = 0; e < 2 && done; ++e) {
            if (streams[e].empty()) {
                continue;
            }
            std::vector<char> stream;
            for (const std::vector<char>& message : streams[e]) {
                stream.insert(stream.end(), message.begin(), message.end());
            }
            TcpSegmentFields connection;
            connection.srcHost = e == 0 ? kShfeServer : kIneServer;
            connection.dstHost = kHost;
            connection.srcPort = m_nextSourcePort++;
            if (m_nextSourcePort < 40000) {
                m_nextSourcePort = 40000;
            }
            connection.dstPort = m_options.snapPort;
            // Far from wrapping: the feed does not handle sequence wrap-around.
            connection.seq = static_cast<uint32_t>(m_faults.Between(0, 0x7FFFFFFF));
            const bool resetHere = reset && (e == resetExchange || streams[resetExchange].empty());
            if (!SendConnection(stream, connection, m_options, m_faults, resetHere, out, m_faultCounts)) {
                reset = false;
                done = false;
            }
        }
    }
    m_faultCounts.rawFrames += out.Count() - framesBefore;
}
