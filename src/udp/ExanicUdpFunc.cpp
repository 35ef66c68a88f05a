#include "src/udp/ExanicUdpFunc.h"

#include <cstring>

#include "public/log/CommonLog.h"
#include "src/api/Health.h"
#include "src/udp/BookCheck.h"

namespace {

// The book is written through byte offsets of the shared record: an insert at
// depth 10 moves one element past a side's tenth level into whatever follows
// it in the layout (the next array, or the next slot's record), as designed.
struct BookSide {
    size_t pxOffset;
    size_t volOffset;
};
constexpr BookSide kBid{offsetof(instrument, bid_px), offsetof(instrument, bid_vol)};
constexpr BookSide kAsk{offsetof(instrument, ask_px), offsetof(instrument, ask_vol)};

template <typename T>
inline T LoadAt(const char* base, size_t offset) {
    T value;
    memcpy(&value, base + offset, sizeof(value));
    return value;
}

template <typename T>
inline void StoreAt(char* base, size_t offset, T value) {
    memcpy(base + offset, &value, sizeof(value));
}

inline double Px(const char* rec, const BookSide& side, int level) {
    return LoadAt<double>(rec, side.pxOffset + 8 * static_cast<size_t>(level));
}
inline int32_t Vol(const char* rec, const BookSide& side, int level) {
    return LoadAt<int32_t>(rec, side.volOffset + 4 * static_cast<size_t>(level));
}
inline void SetLevel(char* rec, const BookSide& side, int level, double px, int32_t vol) {
    StoreAt(rec, side.pxOffset + 8 * static_cast<size_t>(level), px);
    StoreAt(rec, side.volOffset + 4 * static_cast<size_t>(level), vol);
}

// The part of a record from turnover to its end, copied in 16-byte moves and
// one 8-byte move: a string move costs more than the copy itself here.
constexpr size_t kBodyAt = offsetof(instrument, turnover);
constexpr size_t kBodySize = sizeof(instrument) - kBodyAt;
static_assert(kBodySize % 16 == 8, "16-byte moves and one 8-byte move");
static_assert(offsetof(instrument, change_no) + sizeof(instrument::change_no) == kBodyAt,
              "the stamps end the head");

inline void CopyBody(char* dst, const char* src) {
#pragma GCC unroll 18
    for (size_t i = 0; i + 16 <= kBodySize; i += 16) {
        char chunk[16];
        memcpy(chunk, src + i, sizeof(chunk));
        memcpy(dst + i, chunk, sizeof(chunk));
    }
    StoreAt(dst, kBodySize - 8, LoadAt<uint64_t>(src, kBodySize - 8));
}

// What a record changed, to put its instrument back when the book fails the
// checks: the stamps always; the old level of each level update while there
// are few; otherwise the whole record, taken before its first other change.
// Put back in the reverse order of keeping, the stamps last. Each field is
// read at the width it is written, so that the read is served from the store
// buffer.
class CRecordUndo {
public:
    explicit CRecordUndo(const instrument& inst)
        : m_updateTime(inst.update_time),
          m_updateMilliSec(inst.update_milli_sec),
          m_changeNo(inst.change_no) {}
    bool CanKeepLevel() const { return m_levels < m_levelRoom; }
    void KeepLevel(const char* rec, size_t pxAt, size_t volAt) {
        LevelImage& level = m_level[m_levels++];
        level.px = LoadAt<double>(rec, pxAt);
        level.vol = LoadAt<int32_t>(rec, volAt);
        level.pxAt = static_cast<uint16_t>(pxAt);
        level.volAt = static_cast<uint16_t>(volAt);
    }
    // What the rest of the record can change: last_px and volume, and all
    // from turnover on. The identifier is never written, the stamps are kept
    // apart, and the type was written before any of this is kept.
    void KeepRecord(const char* rec) {
        if (m_levelRoom != 0) {
            m_lastPx = LoadAt<double>(rec, offsetof(instrument, last_px));
            m_volume = LoadAt<uint32_t>(rec, offsetof(instrument, volume));
            CopyBody(m_body, rec + kBodyAt);
            m_levelRoom = 0;
        }
    }
    void Restore(char* rec) const {
        if (m_levelRoom == 0) {
            StoreAt(rec, offsetof(instrument, last_px), m_lastPx);
            StoreAt(rec, offsetof(instrument, volume), m_volume);
            CopyBody(rec + kBodyAt, m_body);
        }
        for (uint32_t k = m_levels; k-- > 0;) {
            StoreAt(rec, m_level[k].pxAt, m_level[k].px);
            StoreAt(rec, m_level[k].volAt, m_level[k].vol);
        }
        instrument& inst = *reinterpret_cast<instrument*>(rec);
        inst.update_time = m_updateTime;
        inst.update_milli_sec = m_updateMilliSec;
        inst.change_no = m_changeNo;
    }

private:
    static constexpr uint32_t kLevelRoom = 8;
    struct LevelImage {
        double px;
        int32_t vol;
        uint16_t pxAt;
        uint16_t volAt;
    };

    double m_lastPx;
    uint32_t m_volume;
    char m_body[kBodySize];
    uint32_t m_updateTime;
    uint16_t m_updateMilliSec;
    uint32_t m_changeNo;
    LevelImage m_level[kLevelRoom];
    uint32_t m_levels = 0;
    uint32_t m_levelRoom = kLevelRoom;
};

inline int32_t WrappingAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// The price-level helper reports as part of the record it applies.
constexpr const char* kParseMirp = "_ParseMirp";

// Identifiers are printed bounded: a slot's 16 bytes need not end in a NUL.
#define QUVO_ID(inst) static_cast<int>(sizeof((inst).inst_id)), reinterpret_cast<const char*>((inst).inst_id)

[[gnu::cold, gnu::noinline]] void ReportBookFault(const instrument& inst) {
    const book_fault fault = find_book_fault(inst);
    const int i = fault.level;
    if (fault.kind == BOOK_FAULT_BID) {
        QUVO_LOG_AS(kParseMirp, LOG_DEBUG_EX,
                    "bad mirp bid: bid[%d]=%.2f <= bid[%d]=%.2f, inst=%.*s, restore", i, inst.bid_px[i],
                    i + 1, inst.bid_px[i + 1], QUVO_ID(inst));
    } else if (fault.kind == BOOK_FAULT_ASK) {
        QUVO_LOG_AS(kParseMirp, LOG_DEBUG_EX,
                    "bad mirp ask: ask[%d]=%.2f >= ask[%d]=%.2f, inst=%.*s, restore", i, inst.ask_px[i],
                    i + 1, inst.ask_px[i + 1], QUVO_ID(inst));
    } else {
        QUVO_LOG_AS(kParseMirp, LOG_DEBUG_EX, "bad mirp crossed: bid1=%.2f >= ask1=%.2f, inst=%.*s, restore",
                    inst.bid_px[0], inst.ask_px[0], QUVO_ID(inst));
    }
}

}  // namespace

CExanicUdpFunc::CExanicUdpFunc(const ExanicMdConfigData& configData, share* shareMem, CacheBufInfo& cache,
                               const PriceCalcInfo& calcInfo, uint32_t& instNo)
    : m_refConfigData(configData),
      m_pRegisters(nullptr),
      m_pRxBuffer(nullptr),
      m_pShareMem(shareMem),
      m_cachedDecode(cache),
      m_refCalcInfo(calcInfo),
      m_recvBuf(),
      m_refInstNo(instNo),
      shfelogflag(true),
      inelogflag(true),
      m_pLastCached(nullptr),
      m_fatalReason(QUVO_RESTART_GAP) {}

int CExanicUdpFunc::InitUdp(volatile uint32_t* registers, CardRx* rx) {
    m_pRegisters = registers;
    m_pRxBuffer = rx;
    return 0;
}

uint32_t CExanicUdpFunc::_ReceiveFrame(const char* caller) {
    // An error result is taken as a huge length and dropped with the rest.
    const uint32_t n = static_cast<uint32_t>(card_receive_frame(m_pRxBuffer, m_recvBuf, sizeof(m_recvBuf)));
    if (n == 0) {
        return 0;
    }
    if (n < kDecodedRecordMinLen || n > kDecodedFrameMaxLen) {
        QUVO_LOG_AS(caller, LOG_DEBUG, "receive abnormal decode length: %u", n);
        health_note(&quvo_health_records::abnormal_length);
        return 0;
    }
    QUVO_LOG_AS(caller, LOG_DEBUG_EX, "receive decode length: %u", n);
    return n;
}

int CExanicUdpFunc::UdpRecv() {
    const uint32_t n = _ReceiveFrame(__func__);
    if (n == 0) {
        health_add(health().latency.polls_empty);
        return 0;
    }
    return _ParseMirp(m_recvBuf, n);
}

void CExanicUdpFunc::CachePacket() {
    const uint32_t n = _ReceiveFrame(__func__);
    if (n == 0) {
        return;
    }
    health_add(health().records.received);
    CacheBufInfo& cache = m_cachedDecode;
    if (cache.piOffset + static_cast<int32_t>(sizeof(CachedDecodeHdr) + kDecodedFrameMaxLen) > kCacheSize) {
        QUVO_LOG(LOG_WARNING, "too many packet to cache, clear %d", cache.cachedCount);
        cache.piOffset = 0;
        cache.ciOffset = 0;
        cache.cachedCount = 0;
        health_add(health().cache.overflows);
    }
    QUVO_LOG(LOG_DEBUG_EX, "cache decode buffer offset: %d, count: %d", cache.piOffset, cache.cachedCount);
    memcpy(cache.pCacheBuf + cache.piOffset, &n, sizeof(n));
    cache.piOffset += static_cast<int32_t>(sizeof(CachedDecodeHdr));
    memcpy(cache.pCacheBuf + cache.piOffset, m_recvBuf, n);
    cache.piOffset += static_cast<int32_t>(n);
    ++cache.cachedCount;
    quvo_health_cache& figures = health().cache;
    health_add(figures.cached);
    health_raise(figures.peak, static_cast<uint64_t>(cache.cachedCount));
}

int CExanicUdpFunc::ProcessCached() {
    CacheBufInfo& cache = m_cachedDecode;
    if (cache.cachedCount < 1) {
        QUVO_LOG(LOG_WARNING, "no cached packet to process");
        return 0;
    }
    const int32_t offset = cache.ciOffset;
    if (static_cast<int64_t>(offset) + 8 > kCacheSize || offset < 0) {
        QUVO_LOG(LOG_ERROR, "ciOffset out of range: %d", offset);
        ClearCache();
        health_add(health().cache.corrupt);
        m_fatalReason = QUVO_RESTART_CACHE;
        return -1;
    }
    uint32_t size;
    memcpy(&size, cache.pCacheBuf + offset, sizeof(size));
    QUVO_LOG(LOG_DEBUG_EX, "process decode buffer offset: %d, size: %u", offset, size);
    if (static_cast<int64_t>(offset) + size + 8 > kCacheSize) {
        QUVO_LOG(LOG_ERROR, "cached packet size out of range, offset: %d, size: %u", offset, size);
        ClearCache();
        health_add(health().cache.corrupt);
        m_fatalReason = QUVO_RESTART_CACHE;
        return -1;
    }
    cache.ciOffset = offset + 8;
    health_add(health().cache.replayed);
    m_pLastCached = cache.pCacheBuf + offset + 8;
    const int result = _ParseMirp(cache.pCacheBuf + offset + 8, size);
    if (result == 1) {
        health_add(health().records.applied);
    }
    --cache.cachedCount;
    cache.ciOffset += static_cast<int32_t>(size);
    return result;
}

void CExanicUdpFunc::ClearCache() {
    m_cachedDecode.piOffset = 0;
    m_cachedDecode.ciOffset = 0;
    m_cachedDecode.cachedCount = 0;
    memset(m_cachedDecode.pCacheBuf, 0, kCacheSize);
    QUVO_LOG(LOG_INFO, "decode buffer cleared");
    health_add(health().cache.cleared);
}

void CExanicUdpFunc::AccountAnnounced(uint32_t writeCount, bool live) const {
    quvo_health_ring& ring = health().ring;
    health_set(ring.write_count, writeCount);
    DecodeHeader header;
    memcpy(&header, live ? m_recvBuf : m_pLastCached, sizeof(header));
    health_set(ring.exchange_time, header.snapTime);
    health_set(ring.exchange_millis, header.snapMillisec);
    health_set(quvo_slot_is_ine(m_refInstNo) ? ring.ine_packet_no : ring.shfe_packet_no,
               static_cast<uint32_t>(header.packetNo));
}

void CExanicUdpFunc::PrefetchCalcInfo() {
    visit_calc_info_lines(*m_pShareMem, m_refCalcInfo,
                          [](const char* line) { __builtin_prefetch(line, 0, 1); });
}

int CExanicUdpFunc::_ParseMirp(char* buf, uint32_t len) {
    if (len < kDecodedRecordMinLen) {
        QUVO_LOG(LOG_ERROR, "packet length too small: %u", len);
        health_note(&quvo_health_records::short_record);
        m_fatalReason = QUVO_RESTART_SHORT;
        return -1;
    }
    DecodeHeader header;
    MarketDataIncreField incre;
    memcpy(&header, buf, sizeof(header));
    memcpy(&incre, buf + sizeof(header), sizeof(incre));
    // The level cannot change within a record: its per-record lines are
    // tested once.
    const bool verbose = (CCommonLog::GetInstance().GetLogLevel() & LOG_DEBUG_EX) != 0;
    if (__builtin_expect(verbose, 0)) {
        QUVO_LOG(LOG_DEBUG_EX, "topicID: 0x%x, snapMillisec: %u, snapTime: %u, packetNo: %u", header.topicID,
                 header.snapMillisec, header.snapTime, static_cast<uint32_t>(header.packetNo));
        QUVO_LOG(LOG_DEBUG_EX, "fieldID: 0x%x, instrumentNo: %u, changeNo: %u", incre.fieldID,
                 incre.instrumentNo, incre.changeNo);
    }

    // Book writes go through char pointers, which may alias the members:
    // what the rest needs is read first.
    share* const area = m_pShareMem;
    const PriceCalcInfo& calc = m_refCalcInfo;

    // Configured ids are signed 16-bit: one above 0x7FFF never matches.
    const int topic = header.topicID;
    const ExanicMdConfigData& cfg = m_refConfigData;
    uint32_t slot;
    uint16_t exchangeType;
    if (topic == cfg.shfe2ps_topic_id || topic == cfg.shfe4ps_topic_id) {
        if (incre.instrumentNo > QUVO_SHFE_MAX_INST_CNT - 1) {
            if (shfelogflag) {
                QUVO_LOG(LOG_WARNING, "shfe InstNo [%d] is out of range [%d]",
                         static_cast<int>(incre.instrumentNo), QUVO_SHFE_MAX_INST_CNT - 1);
                shfelogflag = false;
            }
            health_note(&quvo_health_records::out_of_range);
            return 0;
        }
        slot = quvo_shfe_slot(incre.instrumentNo);
        m_refInstNo = slot;
        area->shfe_pktno = header.packetNo;
        exchangeType = 0;
    } else if (topic == cfg.ine2ps_topic_id || topic == cfg.ine4ps_topic_id) {
        if (incre.instrumentNo > QUVO_INE_MAX_INST_CNT - 1) {
            if (inelogflag) {
                QUVO_LOG(LOG_WARNING, "ine InstNo [%d] is out of range [%d]",
                         static_cast<int>(incre.instrumentNo), QUVO_INE_MAX_INST_CNT - 1);
                inelogflag = false;
            }
            health_note(&quvo_health_records::out_of_range);
            return 0;
        }
        slot = quvo_ine_slot(incre.instrumentNo);
        m_refInstNo = slot;
        area->ine_pktno = header.packetNo;
        exchangeType = 1;
    } else {
        QUVO_LOG(LOG_ERROR, "unsupported topicID: 0x%x", header.topicID);
        health_note(&quvo_health_records::unsupported_topic);
        m_fatalReason = QUVO_RESTART_TOPIC;
        return -1;
    }

    // Book writes address the whole shared area, so a move past a slot's last
    // array stays inside it (for slot 20479, in the counters after the table).
    char* rec = reinterpret_cast<char*>(area) + slot * sizeof(instrument);
    instrument& inst = *reinterpret_cast<instrument*>(rec);
    if (__builtin_expect(verbose, 0)) {
        QUVO_LOG(LOG_DEBUG_EX, "snap instrumentID: %.*s, changeNo: %d", QUVO_ID(inst),
                 static_cast<int>(inst.change_no));
    }

    // Option instruments are recognised by an id longer than six characters.
    if (inst.inst_id[0] == 0) {
        QUVO_LOG(LOG_DEBUG_EX, "unsubscribed instrument");
        if (inst.inst_id[6] != 0) {
            QUVO_LOG(LOG_DEBUG_EX, "do not handle options, instrumentID: %.*s", QUVO_ID(inst));
        }
        health_note(&quvo_health_records::unsubscribed);
        return 0;
    }
    if (cfg.options == 0 && inst.inst_id[6] != 0) {
        QUVO_LOG(LOG_DEBUG_EX, "do not handle options, instrumentID: %.*s", QUVO_ID(inst));
        health_note(&quvo_health_records::options);
        return 0;
    }

    inst.type = exchangeType;
    reg_write(m_pRegisters, REG_HOST_TIMESTAMP, header.snapTime);
    if (incre.fieldID != FID_MARKET_DATA_INCRE) {
        health_note(&quvo_health_records::other_field_id);
        return 1;
    }

    const uint32_t stored = inst.change_no;
    if (incre.changeNo != stored + 1) {
        if (incre.changeNo <= stored) {
            health_note(&quvo_health_records::stale);
            return 0;  // already in the book
        }
        // Gap: the book can no longer be trusted, restart from a snapshot.
        QUVO_LOG(LOG_ERROR,
                 "discontinuous changeNo: %u, expected changeNo: %d, instrumentID: %.*s, instrumentNo: %d, "
                 "instrumentNo: %d",
                 incre.changeNo, static_cast<int>(stored + 1), QUVO_ID(inst),
                 static_cast<int>(incre.instrumentNo), static_cast<int>(slot));
        health_note(&quvo_health_records::gaps);
        m_fatalReason = QUVO_RESTART_GAP;
        return -1;
    }

    // What is needed to put the instrument back should its book fail the checks.
    CRecordUndo undo(inst);

    inst.update_time = header.snapTime;
    inst.update_milli_sec = header.snapMillisec;
    inst.change_no = incre.changeNo;

    const double tick = calc.priceTick[slot];
    const double codec = calc.codecPrice[slot];
    uint8_t bidDepth = 5;
    uint8_t askDepth = 5;

    char* cursor = buf + kDecodedRecordMinLen;
    uint32_t remaining = len - kDecodedRecordMinLen;
    while (remaining > 2) {
        const uint16_t fieldId = LoadAt<uint16_t>(cursor, 0);
        if (__builtin_expect(verbose, 0)) {
            QUVO_LOG(LOG_DEBUG_EX, "fieldID: 0x%x", fieldId);
        }
        uint32_t size;
        if (__builtin_expect(fieldId == FID_PRICE_CHANGE, 1)) {
            size = sizeof(PriceChangeField);
            if (remaining >= size) {
                // The common level update is applied here, reading only the
                // bytes it needs; the rest goes through _ApplyPriceChange.
                const uint8_t event = LoadAt<uint8_t>(cursor, offsetof(PriceChangeField, eventType));
                const uint8_t entry = LoadAt<uint8_t>(cursor, offsetof(PriceChangeField, mdEntryType));
                const uint32_t i =
                    static_cast<uint8_t>(LoadAt<uint8_t>(cursor, offsetof(PriceChangeField, priceLevel)) - 1);
                if (event == PRICE_EVENT_UPDATE && i <= 9 && entry <= MD_ENTRY_ASK && undo.CanKeepLevel()) {
                    const BookSide& side = entry == MD_ENTRY_BID ? kBid : kAsk;
                    const size_t pxAt = side.pxOffset + 8 * i;
                    const size_t volAt = side.volOffset + 4 * i;
                    undo.KeepLevel(rec, pxAt, volAt);
                    const int32_t offset = LoadAt<int32_t>(cursor, offsetof(PriceChangeField, priceOffset));
                    StoreAt(rec, pxAt, static_cast<double>(offset) * tick + codec);
                    StoreAt(rec, volAt, LoadAt<int32_t>(cursor, offsetof(PriceChangeField, volume)));
                } else {
                    PriceChangeField field;
                    memcpy(&field, cursor, size);
                    undo.KeepRecord(rec);
                    _ApplyPriceChange(rec, field, tick, codec, bidDepth, askDepth);
                }
            }
        } else {
            switch (fieldId) {
                case FID_DEAL_SUMMARY:
                    size = sizeof(DealSummaryField);
                    if (remaining >= size) {
                        DealSummaryField field;
                        memcpy(&field, cursor, size);
                        undo.KeepRecord(rec);
                        const double multi = static_cast<double>(calc.volumeMulti[slot]);
                        inst.last_px = static_cast<double>(field.lastPriceOffset) * tick + codec;
                        inst.volume += static_cast<uint32_t>(field.volumeChange);
                        inst.open_interest += static_cast<double>(field.openInterestChange);
                        inst.turnover += (static_cast<double>(field.volumeChange) * codec +
                                          static_cast<double>(field.turnoverOffset) * tick) *
                                         multi;
                    }
                    break;
                case FID_BUY_STATICS:
                    size = sizeof(BuyStaticsField);
                    if (remaining >= size) {
                        BuyStaticsField field;
                        memcpy(&field, cursor, size);
                        undo.KeepRecord(rec);
                        const double multi = static_cast<double>(calc.volumeMulti[slot]);
                        inst.bid_totvol = WrappingAdd(inst.bid_totvol, field.bidVolumeChange);
                        inst.bid_totamount += (static_cast<double>(field.bidVolumeChange) * codec +
                                               static_cast<double>(field.bidAmountOffset) * tick) *
                                              multi;
                    }
                    break;
                case FID_SELL_STATICS:
                    size = sizeof(SellStaticsField);
                    if (remaining >= size) {
                        SellStaticsField field;
                        memcpy(&field, cursor, size);
                        undo.KeepRecord(rec);
                        const double multi = static_cast<double>(calc.volumeMulti[slot]);
                        inst.ask_totvol = WrappingAdd(inst.ask_totvol, field.askVolumeChange);
                        inst.ask_totamount += (static_cast<double>(field.askVolumeChange) * codec +
                                               static_cast<double>(field.askAmountOffset) * tick) *
                                              multi;
                    }
                    break;
                case FID_HIGHEST_PRICE:
                    size = sizeof(HighestPriceField);
                    if (remaining >= size) {
                        HighestPriceField field;
                        memcpy(&field, cursor, size);
                        undo.KeepRecord(rec);
                        inst.highest_price = static_cast<double>(field.highPriceOffset) * tick + codec;
                    }
                    break;
                case FID_LOWEST_PRICE:
                    size = sizeof(LowestPriceField);
                    if (remaining >= size) {
                        LowestPriceField field;
                        memcpy(&field, cursor, size);
                        undo.KeepRecord(rec);
                        inst.lowest_price = static_cast<double>(field.lowPriceOffset) * tick + codec;
                    }
                    break;
                default:
                    size = UINT32_MAX;
                    break;
            }
        }
        if (size > remaining) {
            // Not a rejection: what was applied stays and the checks still run.
            QUVO_LOG(LOG_ERROR, "abnormal process fieldID: 0x%x length: %u", fieldId, remaining);
            health_note(&quvo_health_records::unknown_fields);
            break;
        }
        cursor += size;
        remaining -= size;
    }

    // Only the exchange's five published levels are checked; the report is
    // deliberately at the most verbose level, and TAS instruments are exempt.
    const EBookVerdict verdict = quick_book_verdict(inst);
    if (__builtin_expect(verdict == BOOK_SOUND, 1)) {
        return 1;
    }
    if (verdict == BOOK_UNDECIDED && find_book_fault(inst).kind == BOOK_FAULT_NONE) {
        return 1;
    }
    if (inst_id_has_tas(inst)) {
        return 1;
    }
    if (__builtin_expect(verbose, 0)) {
        ReportBookFault(inst);
    }
    undo.Restore(rec);
    health_note(&quvo_health_records::restored);
    return 0;
}

void CExanicUdpFunc::_ApplyPriceChange(char* rec, const PriceChangeField& field, double tick, double codec,
                                       uint8_t& bidDepth, uint8_t& askDepth) {
    const instrument& inst = *reinterpret_cast<const instrument*>(rec);
    const uint8_t level = field.priceLevel;
    if (static_cast<uint8_t>(level - 1) > 9) {
        QUVO_LOG_AS(kParseMirp, LOG_ERROR, "invalid priceLevel: %u, instrumentID: %.*s", level,
                    QUVO_ID(inst));
        health_note(&quvo_health_records::bad_level);
        return;
    }
    if (field.eventType < PRICE_EVENT_INSERT || field.eventType > PRICE_EVENT_DELETE) {
        QUVO_LOG_AS(kParseMirp, LOG_ERROR, "unkonwn event type: %u", field.eventType);
        health_note(&quvo_health_records::bad_event);
        return;
    }
    if (field.mdEntryType > MD_ENTRY_ASK) {
        QUVO_LOG_AS(kParseMirp, LOG_ERROR, "unkonwn md entry type: %u", field.mdEntryType);
        health_note(&quvo_health_records::bad_entry);
        return;
    }
    const BookSide& side = field.mdEntryType == MD_ENTRY_BID ? kBid : kAsk;
    uint8_t& depth = field.mdEntryType == MD_ENTRY_BID ? bidDepth : askDepth;
    const double price = static_cast<double>(field.priceOffset) * tick + codec;
    const int32_t vol = static_cast<int32_t>(field.volume);
    const int i = level - 1;

    switch (field.eventType) {
        case PRICE_EVENT_INSERT: {
            if (!book_level_empty(Px(rec, side, i), Vol(rec, side, i)) && level <= depth) {
                // The first move lands at index depth: past the tenth level at depth 10.
                for (int j = depth; j >= level; --j) {
                    SetLevel(rec, side, j, Px(rec, side, j - 1), Vol(rec, side, j - 1));
                }
            }
            // An insert into an empty fifth level fills the published view
            // without growing it.
            const bool fillsEmptyFifth = level == 5 && book_level_empty(Px(rec, side, 4), Vol(rec, side, 4));
            SetLevel(rec, side, i, price, vol);
            if (!fillsEmptyFifth && depth < 10) {
                ++depth;
            }
            break;
        }
        case PRICE_EVENT_UPDATE:
            SetLevel(rec, side, i, price, vol);
            break;
        case PRICE_EVENT_DELETE:
            if (level < depth) {
                for (int j = level; j <= depth - 1; ++j) {
                    SetLevel(rec, side, j - 1, Px(rec, side, j), Vol(rec, side, j));
                }
            }
            // The deepest level in use is cleared even when nothing moved.
            if (depth > 0) {
                --depth;
                SetLevel(rec, side, depth, 0.0, 0);
            }
            break;
    }
}
