// Drives _ParseMirp with a long seeded stream of decoded records over a few
// SHFE and INE instruments and checks, after every record, that the market-data
// area, the slot variable, the packet counters and the time register match a
// plain model of the book rules (tests/support/BookModel.h).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "src/dev/Registers.h"
#include "tests/support/BookModel.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/UdpHarness.h"

namespace {

constexpr int kRecords = 40000;
constexpr uint32_t kSeed = 20240611;

struct Listed {
    bool ine;
    uint32_t number;
    const char* id;
    double tick;
    double codec;
    int multi;
    uint32_t changeNo;
    int bidLevels;
    int askLevels;

    uint32_t Slot() const { return ine ? quvo_ine_slot(number) : quvo_shfe_slot(number); }
};

// No two are neighbours, so the ask-price write past the tenth level only
// ever reaches slots no record is sent to (or the counters after slot 20479).
// Ticks and codec prices are mixed: some exact in binary, some not.
const Listed kListed[] = {
    {false, 3, "cu2501", 10.0, 70000.0, 5, 100, 5, 5},
    {false, 7, "al2502", 5.0, 19000.0, 5, 0, 3, 5},
    {false, 120, "au2506", 0.02, 560.34, 1000, 5000, 5, 4},
    {false, 16383, "rb2510TAS", 1.0, 3500.0, 10, 77, 5, 5},
    {true, 0, "sc2501", 0.1, 550.7, 1000, 1, 5, 5},
    {true, 7, "lu2503", 1.0, 3500.0, 10, 2000, 5, 5},
    {true, 12, "nr2505TAS", 5.0, 12000.0, 10, 40, 4, 5},
    {true, 30, "bc2505", 10.0, 72000.5, 5, 900, 8, 7},
};
constexpr uint32_t kUnsubscribedShfe = 500;
constexpr uint32_t kUnsubscribedIne = 100;

// ---------------------------------------------------------------------------
// Record stream

class CRecordStream {
public:
    explicit CRecordStream(const CBookModel& model) : m_rng(kSeed), m_model(model) {}

    std::vector<char> Next() {
        const Listed& inst = kListed[Uniform(0, std::size(kListed) - 1)];
        m_time += static_cast<uint32_t>(Uniform(0, 3));
        const uint32_t snapTime = Chance(10) ? static_cast<uint32_t>(Uniform(0, UINT32_MAX)) : m_time;
        const uint16_t millis = static_cast<uint16_t>(Chance(10) ? Uniform(0, 65535) : Uniform(0, 999));
        m_packet = static_cast<int32_t>(static_cast<uint32_t>(m_packet) + 1);
        const int32_t packetNo = Chance(10) ? static_cast<int32_t>(Uniform(INT32_MIN, INT32_MAX)) : m_packet;
        uint16_t topic = inst.ine ? (Chance(500) ? 5000 : 5101) : (Chance(500) ? 1000 : 1101);
        uint32_t number = inst.number;
        const uint32_t stored = m_model.instruments.at(inst.Slot()).changeNo;
        uint32_t changeNo = stored + 1;
        uint16_t increId = FID_MARKET_DATA_INCRE;
        bool tooShort = false;

        const int kind = static_cast<int>(Uniform(0, 999));
        if (kind < 3) {
            tooShort = true;
        } else if (kind < 6) {
            static const uint16_t kForeign[] = {0, 999, 1001, 1100, 4999, 5100, 0x8000, 0xFFFF};
            topic = kForeign[Uniform(0, std::size(kForeign) - 1)];
        } else if (kind < 12) {
            number = inst.ine ? static_cast<uint32_t>(Uniform(4096, 70000))
                              : static_cast<uint32_t>(Uniform(16384, UINT32_MAX));
        } else if (kind < 20) {
            number = inst.ine ? kUnsubscribedIne : kUnsubscribedShfe;
        } else if (kind < 50) {
            changeNo = stored - static_cast<uint32_t>(Uniform(0, std::min<uint32_t>(stored, 6)));
        } else if (kind < 70) {
            static const uint16_t kOtherIds[] = {0x0000, 0x0001, 0x0002, 0x0004, 0x1001, 0xFFFF};
            increId = kOtherIds[Uniform(0, std::size(kOtherIds) - 1)];
            changeNo = static_cast<uint32_t>(Uniform(0, UINT32_MAX));
        }

        CDecodedRecordBuilder record(topic, number, changeNo, snapTime, millis, packetNo, increId);
        LoadView(inst);
        if (Chance(60)) {
            AddGrowth(record, inst);
        } else {
            const int fields = static_cast<int>(Chance(150) ? Uniform(0, 1) : Uniform(1, 8));
            for (int k = 0; k < fields; ++k) {
                AddField(record, inst);
            }
        }
        AddTail(record);

        std::vector<char> bytes = record.Build();
        if (tooShort) {
            bytes.resize(static_cast<size_t>(Uniform(0, kDecodedRecordMinLen - 1)));
        }
        return bytes;
    }

private:
    struct SideView {
        bool has[QUVO_BOOK_LEVELS];
        int64_t off[QUVO_BOOK_LEVELS];
        int Count() const {
            int n = 0;
            for (bool h : has) {
                n += h;
            }
            return n;
        }
        int First() const {
            for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
                if (has[k]) {
                    return k;
                }
            }
            return -1;
        }
    };

    int64_t Uniform(int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(m_rng); }
    bool Chance(int perThousand) { return Uniform(0, 999) < perThousand; }

    // The book as the stream believes it to be while it writes a record: the
    // model's levels in ticks, then moved by the stream's own events as if
    // every level shifted. It only steers prices towards sane books; it is
    // not a second model.
    void LoadView(const Listed& inst) {
        const ModelInstrument& m = m_model.instruments.at(inst.Slot());
        for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
            Load(m_view[0], k, m.bidPx[k], m.bidVol[k], inst);
            Load(m_view[1], k, m.askPx[k], m.askVol[k], inst);
        }
    }
    static void Load(SideView& view, int k, double px, int32_t vol, const Listed& inst) {
        const double ticks = (px - inst.codec) / inst.tick;
        view.has[k] = !CBookModel::IsEmptyLevel(px, vol) && std::fabs(ticks) < 1e7;
        view.off[k] = view.has[k] ? std::llround(ticks) : 0;
    }

    int64_t Mid() const {
        const int b = m_view[0].First();
        const int a = m_view[1].First();
        if (b >= 0 && a >= 0) {
            return (m_view[0].off[b] + m_view[1].off[a]) / 2;
        }
        return b >= 0 ? m_view[0].off[b] + 1 : (a >= 0 ? m_view[1].off[a] - 1 : 0);
    }

    // A price for level index i that keeps the side ordered and uncrossed
    // where there is room; `replacing` is false when the level is inserted.
    int64_t SanePrice(int side, int i, bool replacing) {
        const SideView& v = m_view[side];
        const SideView& other = m_view[1 - side];
        const int sign = side == 0 ? 1 : -1;  // towards the inside of the book
        int64_t inner;
        int above = -1;
        for (int k = i - 1; k >= 0; --k) {
            if (v.has[k]) {
                above = k;
                break;
            }
        }
        if (above >= 0) {
            inner = v.off[above] - sign;
        } else if (other.First() >= 0) {
            inner = other.off[other.First()] - sign;
        } else {
            inner = -sign;
        }
        int64_t outer = inner - sign * 15;
        for (int k = replacing ? i + 1 : i; k < QUVO_BOOK_LEVELS; ++k) {
            if (v.has[k]) {
                outer = v.off[k] + sign;
                break;
            }
        }
        if ((inner - outer) * sign < 0) {
            return inner;
        }
        const int64_t width = std::min<int64_t>((inner - outer) * sign, 30);
        return inner - sign * Uniform(0, width);
    }

    void ViewInsert(int side, int i, bool has, int64_t off) {
        SideView& v = m_view[side];
        for (int k = QUVO_BOOK_LEVELS - 1; k > i; --k) {
            v.has[k] = v.has[k - 1];
            v.off[k] = v.off[k - 1];
        }
        v.has[i] = has;
        v.off[i] = off;
    }
    void ViewDelete(int side, int i) {
        SideView& v = m_view[side];
        for (int k = i; k < QUVO_BOOK_LEVELS - 1; ++k) {
            v.has[k] = v.has[k + 1];
            v.off[k] = v.off[k + 1];
        }
        v.has[QUVO_BOOK_LEVELS - 1] = false;
    }

    uint32_t Volume() {
        if (Chance(30)) {
            return 0;
        }
        if (Chance(30)) {
            return static_cast<uint32_t>(Uniform(0x80000000LL, UINT32_MAX));  // negative once stored
        }
        return static_cast<uint32_t>(Uniform(1, 500));
    }

    int64_t Amount() { return Chance(20) ? Uniform(-(1LL << 50), 1LL << 50) : Uniform(-10000000, 10000000); }

    // Six to eight inserts on one side, each onto a filled level so the
    // deeper levels move: the sixth starts its move at index 10.
    void AddGrowth(CDecodedRecordBuilder& record, const Listed& inst) {
        const int side = static_cast<int>(Uniform(0, 1));
        const int inserts = static_cast<int>(Uniform(6, 8));
        for (int n = 0; n < inserts; ++n) {
            const SideView& v = m_view[side];
            std::vector<int> roomy;
            std::vector<int> filled;
            for (int k = 0; k < 5; ++k) {
                if (v.has[k]) {
                    filled.push_back(k);
                    const int64_t p = SanePrice(side, k, false);
                    if (p != v.off[k] && (k == 0 || !v.has[k - 1] || p != v.off[k - 1])) {
                        roomy.push_back(k);
                    }
                }
            }
            int i = 0;
            if (!roomy.empty()) {
                i = roomy[Uniform(0, roomy.size() - 1)];
            } else if (!filled.empty()) {
                i = filled[Uniform(0, filled.size() - 1)];
            }
            const int64_t price = SanePrice(side, i, false);
            record.Insert(static_cast<uint8_t>(side), static_cast<uint8_t>(i + 1),
                          static_cast<int32_t>(price), static_cast<uint32_t>(Uniform(1, 500)));
            ViewInsert(side, i, true, price);
        }
        if (Chance(300)) {
            AddField(record, inst);
        }
    }

    void AddField(CDecodedRecordBuilder& record, const Listed& inst) {
        const int what = static_cast<int>(Uniform(0, 99));
        const int64_t mid = Mid();
        if (what < 65) {
            AddPriceChange(record, inst);
        } else if (what < 75) {
            const int32_t volumeChange =
                static_cast<int32_t>(Chance(30) ? Uniform(INT32_MIN, INT32_MAX) : Uniform(0, 100));
            const int64_t openInterest = Chance(20) ? Uniform(-(1LL << 45), 1LL << 45) : Uniform(-5000, 5000);
            record.Deal(static_cast<int32_t>(mid + Uniform(-20, 20)), volumeChange, Amount(), openInterest);
        } else if (what < 82) {
            record.BuyStatics(static_cast<int32_t>(Uniform(-300, 300)), Amount());
        } else if (what < 89) {
            record.SellStatics(static_cast<int32_t>(Uniform(-300, 300)), Amount());
        } else if (what < 94) {
            record.High(static_cast<int32_t>(mid + Uniform(-100, 100)));
        } else if (what < 99) {
            record.Low(static_cast<int32_t>(mid + Uniform(-100, 100)));
        } else {
            static const uint16_t kUnknown[] = {0x0003, 0x1000, 0x1003, 0x1010,
                                                0x1013, 0x1018, 0x101B, 0xFFFF};
            const uint16_t id = kUnknown[Uniform(0, std::size(kUnknown) - 1)];
            record.Append(id);
            const int filler = static_cast<int>(Uniform(0, 14));
            for (int k = 0; k < filler; ++k) {
                record.Append(static_cast<uint8_t>(Uniform(0, 255)));
            }
        }
    }

    void AddPriceChange(CDecodedRecordBuilder& record, const Listed& inst) {
        const int side = static_cast<int>(Uniform(0, 1));
        const uint8_t event = static_cast<uint8_t>(Uniform(PRICE_EVENT_INSERT, PRICE_EVENT_DELETE));
        const int count = m_view[side].Count();
        int level;
        if (Chance(250)) {
            level = static_cast<int>(Uniform(1, QUVO_BOOK_LEVELS));
        } else if (event == PRICE_EVENT_INSERT) {
            level = static_cast<int>(Uniform(1, std::min(count + 1, QUVO_BOOK_LEVELS)));
        } else {
            level = static_cast<int>(Uniform(1, std::max(count, 1)));
        }
        const int i = level - 1;

        int64_t price = 0;
        uint32_t volume = Volume();
        bool emptyLevel = false;
        if (event != PRICE_EVENT_DELETE) {
            if (Chance(30)) {
                price = std::llround(-inst.codec / inst.tick);  // a price of (nearly) zero
                volume = Chance(600) ? 0 : Volume();
                emptyLevel = static_cast<int32_t>(volume) <= 0;
            } else if (Chance(30)) {
                price = Mid() + Uniform(-40, 40);
            } else {
                price = SanePrice(side, i, event == PRICE_EVENT_UPDATE);
            }
        } else if (Chance(100)) {
            price = Uniform(INT32_MIN, INT32_MAX);  // ignored by a delete
            volume = static_cast<uint32_t>(Uniform(0, UINT32_MAX));
        }

        uint8_t entry = static_cast<uint8_t>(side);
        uint8_t wireLevel = static_cast<uint8_t>(level);
        uint8_t wireEvent = event;
        if (Chance(15)) {
            static const uint8_t kBadLevels[] = {0, 11, 12, 128, 255};
            wireLevel = kBadLevels[Uniform(0, std::size(kBadLevels) - 1)];
        } else if (Chance(10)) {
            wireEvent = Chance(300) ? 0 : static_cast<uint8_t>(Uniform(4, 255));
        } else if (Chance(10)) {
            entry = static_cast<uint8_t>(Uniform(2, 255));
        }
        PriceChangeField field{FID_PRICE_CHANGE,
                               entry,
                               wireLevel,
                               static_cast<int32_t>(price),
                               volume,
                               wireEvent,
                               static_cast<uint8_t>(Uniform(0, 255)),
                               static_cast<uint16_t>(Uniform(0, 65535))};
        record.Append(field);

        if (wireLevel == level && wireEvent == event && entry == side) {
            if (event == PRICE_EVENT_INSERT) {
                ViewInsert(side, i, !emptyLevel, price);
            } else if (event == PRICE_EVENT_UPDATE) {
                m_view[side].has[i] = !emptyLevel;
                m_view[side].off[i] = price;
            } else {
                ViewDelete(side, i);
            }
        }
    }

    // Occasionally 1..3 junk bytes or the head of a field cut short.
    void AddTail(CDecodedRecordBuilder& record) {
        if (Chance(40)) {
            const int junk = static_cast<int>(Uniform(1, 3));
            for (int k = 0; k < junk; ++k) {
                record.Append(static_cast<uint8_t>(Uniform(0, 255)));
            }
        } else if (Chance(20)) {
            DealSummaryField deal{FID_DEAL_SUMMARY, 1, 2, 3, 4, 0, 0};
            PriceChangeField change{FID_PRICE_CHANGE, 0, 1, 5, 6, PRICE_EVENT_INSERT, 0, 0};
            const bool useDeal = Chance(500);
            const size_t full = useDeal ? sizeof(deal) : sizeof(change);
            record.Bytes(useDeal ? static_cast<const void*>(&deal) : static_cast<const void*>(&change),
                         static_cast<size_t>(Uniform(1, static_cast<int64_t>(full) - 1)));
        }
    }

    std::mt19937 m_rng;
    const CBookModel& m_model;
    SideView m_view[2] = {};
    uint32_t m_time = 90000000;
    int32_t m_packet = 1;
};

// ---------------------------------------------------------------------------
// Comparison

struct FieldInfo {
    const char* name;
    size_t offset;
    size_t elementSize;
    int count;
    char kind;  // 's' id bytes, 'd' double, 'u' unsigned, 'i' signed
};

#define QUVO_SHADOW_SCALAR(member, kind) \
    { #member, offsetof(instrument, member), sizeof(instrument::member), 1, kind }
#define QUVO_SHADOW_ARRAY(member, kind) \
    { #member, offsetof(instrument, member), sizeof(instrument::member[0]), QUVO_BOOK_LEVELS, kind }

const FieldInfo kFields[] = {
    QUVO_SHADOW_SCALAR(inst_id, 's'),
    QUVO_SHADOW_SCALAR(last_px, 'd'),
    QUVO_SHADOW_SCALAR(volume, 'u'),
    QUVO_SHADOW_SCALAR(update_time, 'u'),
    QUVO_SHADOW_SCALAR(update_milli_sec, 'u'),
    QUVO_SHADOW_SCALAR(type, 'u'),
    QUVO_SHADOW_SCALAR(change_no, 'u'),
    QUVO_SHADOW_SCALAR(turnover, 'd'),
    QUVO_SHADOW_SCALAR(open_interest, 'd'),
    QUVO_SHADOW_SCALAR(bid_totvol, 'i'),
    QUVO_SHADOW_SCALAR(ask_totvol, 'i'),
    QUVO_SHADOW_SCALAR(bid_totamount, 'd'),
    QUVO_SHADOW_SCALAR(ask_totamount, 'd'),
    QUVO_SHADOW_SCALAR(highest_price, 'd'),
    QUVO_SHADOW_SCALAR(lowest_price, 'd'),
    QUVO_SHADOW_ARRAY(bid_px, 'd'),
    QUVO_SHADOW_ARRAY(bid_vol, 'i'),
    QUVO_SHADOW_ARRAY(ask_vol, 'i'),
    QUVO_SHADOW_ARRAY(ask_px, 'd'),
};

#undef QUVO_SHADOW_SCALAR
#undef QUVO_SHADOW_ARRAY

std::string Render(const unsigned char* at, size_t size, char kind) {
    char text[96];
    if (kind == 'd') {
        double v;
        memcpy(&v, at, sizeof(v));
        uint64_t bits;
        memcpy(&bits, at, sizeof(bits));
        snprintf(text, sizeof(text), "%.17g (0x%016llx)", v, static_cast<unsigned long long>(bits));
        return text;
    }
    if (kind == 's') {
        std::string hex;
        for (size_t k = 0; k < size; ++k) {
            snprintf(text, sizeof(text), "%02x", at[k]);
            hex += text;
        }
        return hex;
    }
    int64_t v = 0;
    if (size == 2) {
        uint16_t u;
        memcpy(&u, at, 2);
        v = u;
    } else if (kind == 'u') {
        uint32_t u;
        memcpy(&u, at, 4);
        v = u;
    } else {
        int32_t s;
        memcpy(&s, at, 4);
        v = s;
    }
    return std::to_string(v);
}

// Names every field of `actual` that differs from `expected`.
std::string DescribeRecordDiff(uint32_t slot, const instrument& expected, const instrument& actual) {
    std::ostringstream out;
    const auto* e = reinterpret_cast<const unsigned char*>(&expected);
    const auto* a = reinterpret_cast<const unsigned char*>(&actual);
    for (const FieldInfo& f : kFields) {
        for (int k = 0; k < f.count; ++k) {
            const size_t at = f.offset + static_cast<size_t>(k) * f.elementSize;
            if (memcmp(e + at, a + at, f.elementSize) != 0) {
                out << "  slot " << slot << " " << f.name;
                if (f.count > 1) {
                    out << "[" << k << "]";
                }
                out << ": expected " << Render(e + at, f.elementSize, f.kind) << ", actual "
                    << Render(a + at, f.elementSize, f.kind) << "\n";
            }
        }
    }
    return out.str();
}

template <typename T>
void Check(std::ostringstream& out, const char* what, T expected, T actual) {
    if (expected != actual) {
        out << "  " << what << ": expected " << expected << ", actual " << actual << "\n";
    }
}

std::string CompareWithModel(const CUdpHarness& h, const CBookModel& model) {
    std::ostringstream out;
    Check(out, "last-updated instrument", model.instNo, h.instNo);
    Check(out, "time register", model.timeRegister, h.registers[REG_HOST_TIMESTAMP]);
    Check(out, "shfe_pktno", model.shfePktno, h.area->shfe_pktno);
    Check(out, "ine_pktno", model.inePktno, h.area->ine_pktno);
    Check(out, "shfe_inst_cnt", model.shfeInstCnt, h.area->shfe_inst_cnt);
    Check(out, "ine_inst_cnt", model.ineInstCnt, h.area->ine_inst_cnt);
    for (const auto& [slot, m] : model.instruments) {
        const instrument expected = m.ToInstrument();
        if (memcmp(&expected, &h.area->instmts[slot], sizeof(instrument)) != 0) {
            out << DescribeRecordDiff(slot, expected, h.area->instmts[slot]);
        }
    }
    return out.str();
}

// Everything outside the modelled slots must still be as it was at the start.
std::string CompareWholeArea(const share& actual, const share& baseline, const CBookModel& model,
                             share& scratch) {
    memcpy(&scratch, &baseline, sizeof(share));
    for (const auto& [slot, m] : model.instruments) {
        scratch.instmts[slot] = m.ToInstrument();
    }
    scratch.shfe_inst_cnt = model.shfeInstCnt;
    scratch.ine_inst_cnt = model.ineInstCnt;
    scratch.shfe_pktno = model.shfePktno;
    scratch.ine_pktno = model.inePktno;
    if (memcmp(&scratch, &actual, sizeof(share)) == 0) {
        return {};
    }
    const auto* e = reinterpret_cast<const unsigned char*>(&scratch);
    const auto* a = reinterpret_cast<const unsigned char*>(&actual);
    size_t at = 0;
    while (e[at] == a[at]) {
        ++at;
    }
    std::ostringstream out;
    out << "  area byte " << at << " (slot " << at / sizeof(instrument) << ", offset "
        << at % sizeof(instrument) << ") changed outside the model\n";
    return out.str();
}

std::string Hex(const std::vector<char>& bytes) {
    std::string hex;
    char text[4];
    for (size_t k = 0; k < bytes.size(); ++k) {
        snprintf(text, sizeof(text), "%02x", static_cast<unsigned char>(bytes[k]));
        hex += text;
        if (k == 11 || k == 23 || (k > 23 && (k - 23) % 16 == 0)) {
            hex += ' ';
        }
    }
    return hex;
}

// Messages of the "[E]" lines _ParseMirp printed, in order.
std::vector<std::string> ParseMirpErrors(const std::string& out) {
    std::vector<std::string> messages;
    const std::string tag = "][_ParseMirp]";
    const std::string lineEnd = "\x1b[0m \n";
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find(lineEnd, start);
        if (end == std::string::npos) {
            end = out.size();
        }
        const size_t at = out.find(tag, start);
        if (at != std::string::npos && at < end) {
            const size_t label = out.find(" [E] ", start);
            messages.push_back((label != std::string::npos && label < at ? "" : "(not an error line) ") +
                               out.substr(at + tag.size(), end - at - tag.size()));
        }
        start = end + lineEnd.size();
    }
    return messages;
}

// ---------------------------------------------------------------------------

class ShadowModelTest : public ::testing::Test {
protected:
    ShadowModelTest() {
        CCommonLog::GetInstance().SetLogLevel(LOG_ERROR);
        for (const Listed& l : kListed) {
            instrument& inst = h.AddInstrument(l.Slot(), l.id, l.tick, l.codec, l.multi, l.changeNo);
            inst.type = 9;
            inst.last_px = l.codec;
            inst.volume = 4000000000u;
            inst.update_time = 85959;
            inst.update_milli_sec = 999;
            inst.turnover = 1.25e9;
            inst.open_interest = 52341.0;
            inst.bid_totvol = 7000;
            inst.ask_totvol = 6500;
            inst.bid_totamount = 3.0e8;
            inst.ask_totamount = 2.9e8;
            inst.highest_price = l.codec + 50 * l.tick;
            inst.lowest_price = l.codec - 50 * l.tick;
            for (int k = 0; k < l.bidLevels; ++k) {
                inst.bid_px[k] = static_cast<double>(-2 - 4 * k) * l.tick + l.codec;
                inst.bid_vol[k] = 10 + k;
            }
            for (int k = 0; k < l.askLevels; ++k) {
                inst.ask_px[k] = static_cast<double>(2 + 4 * k) * l.tick + l.codec;
                inst.ask_vol[k] = 20 + k;
            }
            slots.push_back(l.Slot());
            // Neighbours carry a byte pattern so that any stray write shows.
            for (uint32_t n : {l.Slot() - 1, l.Slot() + 1}) {
                if (n >= QUVO_INST_SLOTS) {
                    continue;
                }
                auto* bytes = reinterpret_cast<unsigned char*>(&h.area->instmts[n]);
                for (size_t k = 0; k < sizeof(instrument); ++k) {
                    bytes[k] = static_cast<unsigned char>(n * 31 + k * 7 + 1);
                }
                slots.push_back(n);
            }
        }
        slots.push_back(quvo_shfe_slot(kUnsubscribedShfe));
        slots.push_back(quvo_ine_slot(kUnsubscribedIne));
        h.area->shfe_inst_cnt = 16384;
        h.area->ine_inst_cnt = 31;
        h.area->shfe_pktno = -5;
        h.area->ine_pktno = -6;
        h.registers[REG_HOST_TIMESTAMP] = 0xDEADBEEF;
    }

    CUdpHarness h;
    std::vector<uint32_t> slots;
};

TEST_F(ShadowModelTest, SeededRecordStreamMatchesThePlainBookModelAfterEveryRecord) {
    const auto started = std::chrono::steady_clock::now();
    const std::unique_ptr<share> baseline(new share(*h.area));
    const std::unique_ptr<share> scratch(new share());
    const std::vector<uint32_t> registersBefore = h.registers;
    CBookModel model(h.config, *h.calc, *h.area, slots);
    model.instNo = h.instNo;
    model.timeRegister = h.registers[REG_HOST_TIMESTAMP];
    ASSERT_EQ(CompareWithModel(h, model), "");

    CRecordStream stream(model);
    long results[3] = {};
    std::string failure;
    CStdoutCapture capture;
    for (int n = 0; n < kRecords && failure.empty(); ++n) {
        std::vector<char> record = stream.Next();
        const int expected = model.Apply(record.data(), static_cast<uint32_t>(record.size()));
        const int actual = h.Parse(record);
        ++results[expected + 1];
        std::string diff = CompareWithModel(h, model);
        if (expected != actual) {
            diff = "  result: expected " + std::to_string(expected) + ", actual " + std::to_string(actual) +
                   "\n" + diff;
        }
        if (diff.empty() && n % 2000 == 1999) {
            diff = CompareWholeArea(*h.area, *baseline, model, *scratch);
        }
        if (!diff.empty()) {
            failure = "record " + std::to_string(n) + " (" + std::to_string(record.size()) +
                      " bytes): " + Hex(record) + "\n" + diff;
        }
    }

    // A gap ends the stream: the book is left alone and the caller restarts.
    if (failure.empty()) {
        const Listed& l = kListed[0];
        const uint32_t stored = model.instruments.at(l.Slot()).changeNo;
        CDecodedRecordBuilder gap(CUdpHarness::kShfeTopic, l.number, stored + 2, 123456, 7, 99);
        gap.Insert(MD_ENTRY_BID, 1, 0, 1);
        std::vector<char>& record = gap.Build();
        const int expected = model.Apply(record.data(), static_cast<uint32_t>(record.size()));
        const int actual = h.Parse(record);
        std::string diff = CompareWithModel(h, model) + CompareWholeArea(*h.area, *baseline, model, *scratch);
        if (expected != -1 || actual != -1) {
            diff += "  gap result: model " + std::to_string(expected) + ", actual " + std::to_string(actual);
        }
        if (!diff.empty()) {
            failure = "gap record: " + Hex(record) + "\n" + diff;
        }
    }
    const std::string out = capture.Stop();
    ASSERT_TRUE(failure.empty()) << failure;

    for (size_t k = 0; k < registersBefore.size(); ++k) {
        if (k != REG_HOST_TIMESTAMP) {
            ASSERT_EQ(h.registers[k], registersBefore[k]) << "register " << k;
        }
    }

    const std::vector<std::string> logged = ParseMirpErrors(out);
    ASSERT_EQ(logged.size(), model.errors.size());
    for (size_t k = 0; k < logged.size(); ++k) {
        ASSERT_EQ(logged[k], model.errors[k]) << "error line " << k;
    }

    // The stream must have reached every rule, or the comparison proves little.
    const BookModelCoverage& c = model.coverage;
    for (int side = 0; side < 2; ++side) {
        for (int event = PRICE_EVENT_INSERT; event <= PRICE_EVENT_DELETE; ++event) {
            for (int level = 1; level <= QUVO_BOOK_LEVELS; ++level) {
                EXPECT_GT(c.events[side][event][level], 0)
                    << "side " << side << " event " << event << " level " << level;
            }
        }
    }
    EXPECT_GT(c.invalidLevel, 0);
    EXPECT_GT(c.unknownEvent, 0);
    EXPECT_GT(c.unknownEntry, 0);
    EXPECT_GT(c.bidPxPastEnd, 0);
    EXPECT_GT(c.bidVolPastEnd, 0);
    EXPECT_GT(c.askVolPastEnd, 0);
    EXPECT_GT(c.askPxPastEndIntoNextSlot, 0);
    EXPECT_GT(c.askPxPastEndIntoCounters, 0);
    EXPECT_GT(c.depthReachedTen, 0);
    EXPECT_GT(c.fifthLevelInsertKeptDepth, 0);
    EXPECT_GT(c.fifthLevelInsertRaisedDepth, 0);
    EXPECT_GT(c.deletesClearingDeepest, 0);
    EXPECT_GT(c.deals, 0);
    EXPECT_GT(c.buyStatics, 0);
    EXPECT_GT(c.sellStatics, 0);
    EXPECT_GT(c.highs, 0);
    EXPECT_GT(c.lows, 0);
    EXPECT_GT(c.abnormalField, 0);
    EXPECT_GT(c.silentTail[1], 0);
    EXPECT_GT(c.silentTail[2], 0);
    EXPECT_GT(c.restoredBidOrder, 0);
    EXPECT_GT(c.restoredAskOrder, 0);
    EXPECT_GT(c.restoredCrossed, 0);
    EXPECT_GT(c.tasKeptBadBook, 0);
    EXPECT_GT(c.stale, 0);
    EXPECT_GT(c.otherIncreField, 0);
    EXPECT_EQ(c.gaps, 1);
    EXPECT_GT(c.tooShort, 0);
    EXPECT_GT(c.badTopic, 0);
    EXPECT_GT(c.outOfRange, 0);
    EXPECT_GT(c.unsubscribed, 0);
    // Most records should land, yet enough are undone to exercise the restore.
    EXPECT_GT(c.applied, kRecords / 2);
    EXPECT_GT(c.restoredBidOrder + c.restoredAskOrder + c.restoredCrossed, kRecords / 50);

    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    printf(
        "%d records in %.2f s: results -1:%ld 0:%ld 1:%ld; %ld bid-order, %ld ask-order, %ld crossed "
        "restores; %ld stale; past-end writes bid_px %ld, bid_vol %ld, ask_vol %ld, ask_px %ld+%ld; "
        "%zu error lines\n",
        kRecords, seconds, results[0], results[1], results[2], c.restoredBidOrder, c.restoredAskOrder,
        c.restoredCrossed, c.stale, c.bidPxPastEnd, c.bidVolPastEnd, c.askVolPastEnd,
        c.askPxPastEndIntoNextSlot, c.askPxPastEndIntoCounters, logged.size());
}

}  // namespace
