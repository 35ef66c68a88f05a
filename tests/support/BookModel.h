// A plain, independent model of how one decoded incremental record changes the
// market-data area, used to shadow CExanicUdpFunc::_ParseMirp record by record.
// It keeps only the slots a test names, with each side's arrays one element
// longer than the shared layout: an element written at index 10 is also copied
// into whatever follows that array in the shared record (or past the record).
#pragma once

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "src/config/ConfigParse.h"
#include "src/dev/ExanicDevFunc.h"
#include "src/udp/DecodedRecord.h"

struct ModelInstrument {
    static constexpr int kLevels = QUVO_BOOK_LEVELS + 1;

    unsigned char instId[16];
    double lastPx;
    uint32_t volume;
    uint32_t updateTime;
    uint16_t updateMilliSec;
    uint16_t type;
    uint32_t changeNo;
    double turnover;
    double openInterest;
    int32_t bidTotVol;
    int32_t askTotVol;
    double bidTotAmount;
    double askTotAmount;
    double highestPrice;
    double lowestPrice;
    double bidPx[kLevels];
    int32_t bidVol[kLevels];
    int32_t askVol[kLevels];
    double askPx[kLevels];

    static ModelInstrument From(const instrument& inst) {
        ModelInstrument m{};
        memcpy(m.instId, inst.inst_id, sizeof(m.instId));
        m.lastPx = inst.last_px;
        m.volume = inst.volume;
        m.updateTime = inst.update_time;
        m.updateMilliSec = inst.update_milli_sec;
        m.type = inst.type;
        m.changeNo = inst.change_no;
        m.turnover = inst.turnover;
        m.openInterest = inst.open_interest;
        m.bidTotVol = inst.bid_totvol;
        m.askTotVol = inst.ask_totvol;
        m.bidTotAmount = inst.bid_totamount;
        m.askTotAmount = inst.ask_totamount;
        m.highestPrice = inst.highest_price;
        m.lowestPrice = inst.lowest_price;
        for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
            m.bidPx[k] = inst.bid_px[k];
            m.bidVol[k] = inst.bid_vol[k];
            m.askVol[k] = inst.ask_vol[k];
            m.askPx[k] = inst.ask_px[k];
        }
        return m;
    }

    instrument ToInstrument() const {
        instrument inst;
        memset(&inst, 0, sizeof(inst));
        memcpy(inst.inst_id, instId, sizeof(instId));
        inst.last_px = lastPx;
        inst.volume = volume;
        inst.update_time = updateTime;
        inst.update_milli_sec = updateMilliSec;
        inst.type = type;
        inst.change_no = changeNo;
        inst.turnover = turnover;
        inst.open_interest = openInterest;
        inst.bid_totvol = bidTotVol;
        inst.ask_totvol = askTotVol;
        inst.bid_totamount = bidTotAmount;
        inst.ask_totamount = askTotAmount;
        inst.highest_price = highestPrice;
        inst.lowest_price = lowestPrice;
        for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
            inst.bid_px[k] = bidPx[k];
            inst.bid_vol[k] = bidVol[k];
            inst.ask_vol[k] = askVol[k];
            inst.ask_px[k] = askPx[k];
        }
        return inst;
    }

    std::string Id() const {
        char id[sizeof(instId) + 1] = {};
        memcpy(id, instId, sizeof(instId));
        return id;
    }
};

// How often the model went down each path, so a test can show that its
// record stream reached every rule.
struct BookModelCoverage {
    // [side][event 1..3][level 1..10]
    long events[2][4][11] = {};
    long invalidLevel = 0;
    long unknownEvent = 0;
    long unknownEntry = 0;
    long bidPxPastEnd = 0;
    long bidVolPastEnd = 0;
    long askVolPastEnd = 0;
    long askPxPastEndIntoNextSlot = 0;
    long askPxPastEndIntoCounters = 0;
    long depthReachedTen = 0;
    long fifthLevelInsertKeptDepth = 0;
    long fifthLevelInsertRaisedDepth = 0;
    long deletesClearingDeepest = 0;
    long deals = 0;
    long buyStatics = 0;
    long sellStatics = 0;
    long highs = 0;
    long lows = 0;
    long abnormalField = 0;
    long silentTail[3] = {};  // remainder of 0, 1 or 2 bytes after the last field
    long applied = 0;
    long restoredBidOrder = 0;
    long restoredAskOrder = 0;
    long restoredCrossed = 0;
    long tasKeptBadBook = 0;
    long stale = 0;
    long otherIncreField = 0;
    long gaps = 0;
    long tooShort = 0;
    long badTopic = 0;
    long outOfRange = 0;
    long unsubscribed = 0;
};

class CBookModel {
public:
    enum ESide { kBid = 0, kAsk = 1 };

    // Copies `slots` of `area` (every slot a record may touch, including the
    // slot after each instrument) and the four counters.
    CBookModel(const ExanicMdConfigData& config, const PriceCalcInfo& calc, const share& area,
               const std::vector<uint32_t>& slots)
        : m_config(config), m_calc(calc) {
        for (uint32_t slot : slots) {
            instruments[slot] = ModelInstrument::From(area.instmts[slot]);
        }
        shfeInstCnt = area.shfe_inst_cnt;
        ineInstCnt = area.ine_inst_cnt;
        shfePktno = area.shfe_pktno;
        inePktno = area.ine_pktno;
    }

    static bool IsEmptyLevel(double px, int32_t vol) { return px > -1e-5 && px < 1e-5 && vol <= 0; }

    // The snapshot's book check on levels 1..5: 0 when they pass; 1 bid
    // order, 2 ask order, 3 crossed.
    static int FirstBookFailure(const double* bidPx, const int32_t* bidVol, const double* askPx,
                                const int32_t* askVol) {
        for (int k = 0; k < 4; ++k) {
            if (!IsEmptyLevel(bidPx[k], bidVol[k]) && !IsEmptyLevel(bidPx[k + 1], bidVol[k + 1]) &&
                bidPx[k + 1] >= bidPx[k]) {
                return 1;
            }
        }
        for (int k = 0; k < 4; ++k) {
            if (!IsEmptyLevel(askPx[k], askVol[k]) && !IsEmptyLevel(askPx[k + 1], askVol[k + 1]) &&
                askPx[k] >= askPx[k + 1]) {
                return 2;
            }
        }
        if (!IsEmptyLevel(bidPx[0], bidVol[0]) && !IsEmptyLevel(askPx[0], askVol[0]) &&
            bidPx[0] >= askPx[0]) {
            return 3;
        }
        return 0;
    }

    ModelInstrument& At(uint32_t slot) {
        auto it = instruments.find(slot);
        if (it == instruments.end()) {
            throw std::logic_error("record touches slot " + std::to_string(slot) + " outside the model");
        }
        return it->second;
    }

    int Apply(const char* buf, uint32_t len) {
        if (len < kDecodedRecordMinLen) {
            Error("packet length too small: %u", len);
            ++coverage.tooShort;
            return -1;
        }
        DecodeHeader header;
        MarketDataIncreField incre;
        memcpy(&header, buf, sizeof(header));
        memcpy(&incre, buf + sizeof(header), sizeof(incre));

        const int topic = header.topicID;
        uint16_t exchange;
        if (topic == m_config.shfe2ps_topic_id || topic == m_config.shfe4ps_topic_id) {
            exchange = 0;
        } else if (topic == m_config.ine2ps_topic_id || topic == m_config.ine4ps_topic_id) {
            exchange = 1;
        } else {
            Error("unsupported topicID: 0x%x", static_cast<unsigned>(topic));
            ++coverage.badTopic;
            return -1;
        }

        uint32_t slot;
        if (exchange == 0) {
            if (incre.instrumentNo > 16383) {
                ++coverage.outOfRange;
                return 0;
            }
            slot = incre.instrumentNo;
            shfePktno = header.packetNo;
        } else {
            if (incre.instrumentNo > 4095) {
                ++coverage.outOfRange;
                return 0;
            }
            slot = QUVO_INST_SLOTS - 1 - incre.instrumentNo;
            inePktno = header.packetNo;
        }
        instNo = slot;

        ModelInstrument& inst = At(slot);
        if (inst.instId[0] == 0 || (m_config.options == 0 && inst.instId[6] != 0)) {
            ++coverage.unsubscribed;
            return 0;
        }
        inst.type = exchange;
        timeRegister = header.snapTime;
        if (incre.fieldID != FID_MARKET_DATA_INCRE) {
            ++coverage.otherIncreField;
            return 1;
        }

        const ModelInstrument before = inst;
        if (incre.changeNo != inst.changeNo + 1) {
            if (incre.changeNo <= inst.changeNo) {
                ++coverage.stale;
                return 0;
            }
            Error(
                "discontinuous changeNo: %u, expected changeNo: %d, instrumentID: %s, instrumentNo: %d, "
                "instrumentNo: %d",
                incre.changeNo, static_cast<int>(inst.changeNo + 1), inst.Id().c_str(),
                static_cast<int>(incre.instrumentNo), static_cast<int>(slot));
            ++coverage.gaps;
            return -1;
        }
        inst.updateTime = header.snapTime;
        inst.updateMilliSec = header.snapMillisec;
        inst.changeNo = incre.changeNo;

        uint8_t depth[2] = {5, 5};
        uint32_t at = kDecodedRecordMinLen;
        uint32_t remaining = len - kDecodedRecordMinLen;
        while (remaining > 2) {
            uint16_t fieldID;
            memcpy(&fieldID, buf + at, sizeof(fieldID));
            const uint32_t size = FieldSize(fieldID);
            if (size == 0 || remaining < size) {
                Error("abnormal process fieldID: 0x%x length: %u", fieldID, remaining);
                ++coverage.abnormalField;
                break;
            }
            ApplyField(slot, buf + at, fieldID, depth);
            at += size;
            remaining -= size;
        }
        if (remaining <= 2) {
            ++coverage.silentTail[remaining];
        }

        const int failure = FirstBookFailure(inst);
        if (inst.Id().find("TAS") != std::string::npos) {
            coverage.tasKeptBadBook += failure != 0;
            ++coverage.applied;
            return 1;
        }
        if (failure != 0) {
            inst = before;
            ++(failure == 1   ? coverage.restoredBidOrder
               : failure == 2 ? coverage.restoredAskOrder
                              : coverage.restoredCrossed);
            return 0;
        }
        ++coverage.applied;
        return 1;
    }

    std::map<uint32_t, ModelInstrument> instruments;
    int32_t shfeInstCnt = 0;
    int32_t ineInstCnt = 0;
    int32_t shfePktno = 0;
    int32_t inePktno = 0;
    uint32_t instNo = 0;
    uint32_t timeRegister = 0;
    std::vector<std::string> errors;  // LOG_ERROR texts, in order
    BookModelCoverage coverage;

private:
    static uint32_t FieldSize(uint16_t fieldID) {
        switch (fieldID) {
            case FID_PRICE_CHANGE:
                return sizeof(PriceChangeField);
            case FID_DEAL_SUMMARY:
                return sizeof(DealSummaryField);
            case FID_HIGHEST_PRICE:
                return sizeof(HighestPriceField);
            case FID_LOWEST_PRICE:
                return sizeof(LowestPriceField);
            case FID_BUY_STATICS:
                return sizeof(BuyStaticsField);
            case FID_SELL_STATICS:
                return sizeof(SellStaticsField);
            default:
                return 0;
        }
    }

    // Amounts wrap like the 32-bit counters they land in.
    static int32_t AddWrapping(int32_t a, int32_t b) {
        return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
    }

    void ApplyField(uint32_t slot, const char* at, uint16_t fieldID, uint8_t depth[2]) {
        ModelInstrument& inst = At(slot);
        const double tick = m_calc.priceTick[slot];
        const double codec = m_calc.codecPrice[slot];
        const double multi = static_cast<double>(m_calc.volumeMulti[slot]);
        switch (fieldID) {
            case FID_DEAL_SUMMARY: {
                DealSummaryField f;
                memcpy(&f, at, sizeof(f));
                inst.lastPx = static_cast<double>(f.lastPriceOffset) * tick + codec;
                inst.volume = inst.volume + static_cast<uint32_t>(f.volumeChange);
                inst.openInterest += static_cast<double>(f.openInterestChange);
                inst.turnover += (static_cast<double>(f.volumeChange) * codec +
                                  static_cast<double>(f.turnoverOffset) * tick) *
                                 multi;
                ++coverage.deals;
                break;
            }
            case FID_BUY_STATICS: {
                BuyStaticsField f;
                memcpy(&f, at, sizeof(f));
                inst.bidTotVol = AddWrapping(inst.bidTotVol, f.bidVolumeChange);
                inst.bidTotAmount += (static_cast<double>(f.bidVolumeChange) * codec +
                                      static_cast<double>(f.bidAmountOffset) * tick) *
                                     multi;
                ++coverage.buyStatics;
                break;
            }
            case FID_SELL_STATICS: {
                SellStaticsField f;
                memcpy(&f, at, sizeof(f));
                inst.askTotVol = AddWrapping(inst.askTotVol, f.askVolumeChange);
                inst.askTotAmount += (static_cast<double>(f.askVolumeChange) * codec +
                                      static_cast<double>(f.askAmountOffset) * tick) *
                                     multi;
                ++coverage.sellStatics;
                break;
            }
            case FID_HIGHEST_PRICE: {
                HighestPriceField f;
                memcpy(&f, at, sizeof(f));
                inst.highestPrice = static_cast<double>(f.highPriceOffset) * tick + codec;
                ++coverage.highs;
                break;
            }
            case FID_LOWEST_PRICE: {
                LowestPriceField f;
                memcpy(&f, at, sizeof(f));
                inst.lowestPrice = static_cast<double>(f.lowPriceOffset) * tick + codec;
                ++coverage.lows;
                break;
            }
            case FID_PRICE_CHANGE: {
                PriceChangeField f;
                memcpy(&f, at, sizeof(f));
                ApplyPriceLevel(slot, f, tick, codec, depth);
                break;
            }
            default:
                throw std::logic_error("unknown field reached ApplyField");
        }
    }

    double Px(uint32_t slot, int side, int k) {
        const ModelInstrument& inst = At(slot);
        return side == kBid ? inst.bidPx[k] : inst.askPx[k];
    }
    int32_t Vol(uint32_t slot, int side, int k) {
        const ModelInstrument& inst = At(slot);
        return side == kBid ? inst.bidVol[k] : inst.askVol[k];
    }
    bool Empty(uint32_t slot, int side, int k) { return IsEmptyLevel(Px(slot, side, k), Vol(slot, side, k)); }

    // An index-10 write lands on the field after the array: bid prices on the
    // first two bid volumes, bid volumes on the first ask volume, ask volumes
    // on the low half of the first ask price, ask prices on the next slot's
    // first eight bytes, or after the last slot on the two instrument counters.
    void SetPx(uint32_t slot, int side, int k, double value) {
        ModelInstrument& inst = At(slot);
        if (side == kBid) {
            inst.bidPx[k] = value;
            if (k == QUVO_BOOK_LEVELS) {
                memcpy(&inst.bidVol[0], &value, sizeof(value));
                ++coverage.bidPxPastEnd;
            }
            return;
        }
        inst.askPx[k] = value;
        if (k != QUVO_BOOK_LEVELS) {
            return;
        }
        if (slot + 1 == QUVO_INST_SLOTS) {
            int32_t halves[2];
            memcpy(halves, &value, sizeof(value));
            shfeInstCnt = halves[0];
            ineInstCnt = halves[1];
            ++coverage.askPxPastEndIntoCounters;
        } else {
            memcpy(At(slot + 1).instId, &value, sizeof(value));
            ++coverage.askPxPastEndIntoNextSlot;
        }
    }
    void SetVol(uint32_t slot, int side, int k, int32_t value) {
        ModelInstrument& inst = At(slot);
        if (side == kBid) {
            inst.bidVol[k] = value;
            if (k == QUVO_BOOK_LEVELS) {
                inst.askVol[0] = value;
                ++coverage.bidVolPastEnd;
            }
            return;
        }
        inst.askVol[k] = value;
        if (k == QUVO_BOOK_LEVELS) {
            memcpy(&inst.askPx[0], &value, sizeof(value));  // little-endian: the low half
            ++coverage.askVolPastEnd;
        }
    }

    void ApplyPriceLevel(uint32_t slot, const PriceChangeField& f, double tick, double codec,
                         uint8_t depth[2]) {
        const unsigned level = f.priceLevel;
        if (level < 1 || level > QUVO_BOOK_LEVELS) {
            Error("invalid priceLevel: %u, instrumentID: %s", level, At(slot).Id().c_str());
            ++coverage.invalidLevel;
            return;
        }
        if (f.eventType < PRICE_EVENT_INSERT || f.eventType > PRICE_EVENT_DELETE) {
            Error("unkonwn event type: %u", static_cast<unsigned>(f.eventType));
            ++coverage.unknownEvent;
            return;
        }
        if (f.mdEntryType != MD_ENTRY_BID && f.mdEntryType != MD_ENTRY_ASK) {
            Error("unkonwn md entry type: %u", static_cast<unsigned>(f.mdEntryType));
            ++coverage.unknownEntry;
            return;
        }
        const int side = f.mdEntryType == MD_ENTRY_BID ? kBid : kAsk;
        const int L = static_cast<int>(level);
        const int i = L - 1;
        const double price = static_cast<double>(f.priceOffset) * tick + codec;
        const int32_t vol = static_cast<int32_t>(f.volume);
        int d = depth[side];
        ++coverage.events[side][f.eventType][L];

        if (f.eventType == PRICE_EVENT_INSERT) {
            const bool fifthWasEmpty = Empty(slot, side, 4);
            if (!Empty(slot, side, i) && L <= d) {
                for (int j = d; j >= L; --j) {
                    SetPx(slot, side, j, Px(slot, side, j - 1));
                    SetVol(slot, side, j, Vol(slot, side, j - 1));
                }
            }
            SetPx(slot, side, i, price);
            SetVol(slot, side, i, vol);
            if (L == 5 && fifthWasEmpty) {
                ++coverage.fifthLevelInsertKeptDepth;
            } else {
                coverage.fifthLevelInsertRaisedDepth += L == 5;
                d = std::min(d + 1, QUVO_BOOK_LEVELS);
                coverage.depthReachedTen += d == QUVO_BOOK_LEVELS;
            }
        } else if (f.eventType == PRICE_EVENT_UPDATE) {
            SetPx(slot, side, i, price);
            SetVol(slot, side, i, vol);
        } else {
            if (L < d) {
                for (int j = L; j <= d - 1; ++j) {
                    SetPx(slot, side, j - 1, Px(slot, side, j));
                    SetVol(slot, side, j - 1, Vol(slot, side, j));
                }
            }
            if (d > 0) {
                coverage.deletesClearingDeepest += L >= d;
                --d;
                SetPx(slot, side, d, 0.0);
                SetVol(slot, side, d, 0);
            }
        }
        depth[side] = static_cast<uint8_t>(d);
    }

    static int FirstBookFailure(const ModelInstrument& inst) {
        return FirstBookFailure(inst.bidPx, inst.bidVol, inst.askPx, inst.askVol);
    }

    __attribute__((format(printf, 2, 3))) void Error(const char* format, ...) {
        char text[4096];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof(text), format, args);
        va_end(args);
        errors.emplace_back(text);
    }

    const ExanicMdConfigData& m_config;
    const PriceCalcInfo& m_calc;
};
