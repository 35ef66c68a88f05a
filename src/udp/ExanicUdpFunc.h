// The incremental path: decoded records from the card's port 0, cached while
// the snapshot loads, then applied one by one to the books.
#pragma once

#include <cstdint>
#include <cstring>

#include "interface/commonheader.h"
#include "interface/quvohealth.h"
#include "src/api/Health.h"
#include "src/config/ConfigParse.h"
#include "src/dev/Card.h"
#include "src/dev/ExanicDevFunc.h"
#include "src/udp/DecodedRecord.h"

// The decoded-frame cache: one linear area of kCacheSize bytes holding
// entries (CachedDecodeHdr + frame) back to back, unaligned.
struct CacheBufInfo {
    char* pCacheBuf;
    int32_t piOffset;     // where the next frame is stored
    int32_t ciOffset;     // where the next frame to replay starts
    int32_t cachedCount;  // frames stored and not yet replayed
};

class CExanicUdpFunc {
public:
    static constexpr int32_t kCacheSize = 0xC800000;

    // Binds the configuration, the market-data area, the driver's cache, price
    // tables and last-updated-instrument variable (written by _ParseMirp).
    CExanicUdpFunc(const ExanicMdConfigData& configData, share* shareMem, CacheBufInfo& cache,
                   const PriceCalcInfo& calcInfo, uint32_t& instNo);

    // Stores the register window and the decoded-record rx buffer; returns 0.
    int InitUdp(volatile uint32_t* registers, CardRx* rx);

    // Reads at most one frame and applies it: _ParseMirp's result, or 0 when
    // no usable frame was read.
    int UdpRecv();
    // Reads at most one frame and appends it to the cache. When a maximum-size
    // entry might no longer fit, every cached frame is abandoned first.
    void CachePacket();
    // Applies the oldest cached frame: _ParseMirp's result, 0 when the cache
    // is empty, -1 (cache cleared) when the entry is corrupt.
    int ProcessCached();
    // Empties the cache and zeroes its area.
    void ClearCache();
    // Warms the used part of the price tables into the outer caches.
    void PrefetchCalcInfo();

    // Applies one decoded record of `len` bytes at `buf` to its instrument.
    // 1: applied, announce the slot in the last-updated variable; 0: ignored
    // or undone; -1: the stream can no longer be trusted (restart).
    int _ParseMirp(char* buf, uint32_t len);

    // Stores the ring's write counter and the exchange time and packet number
    // of the record just announced: the one UdpRecv read when `live`, else
    // the one ProcessCached replayed. Called for replayed announcements and
    // for live ones picked for a latency sample.
    void AccountAnnounced(uint32_t writeCount, bool live) const;
    // What made the last -1 fatal.
    quvo_health_restart GetFatalReason() const { return m_fatalReason; }

private:
    // Reads one frame into m_recvBuf: its length if well sized, else 0.
    // Logs under the caller's name.
    uint32_t _ReceiveFrame(const char* caller);
    void _ApplyPriceChange(char* record, const PriceChangeField& field, double tick, double codec,
                           uint8_t& bidDepth, uint8_t& askDepth);

    const ExanicMdConfigData& m_refConfigData;
    volatile uint32_t* m_pRegisters;
    CardRx* m_pRxBuffer;
    share* m_pShareMem;
    CacheBufInfo& m_cachedDecode;
    const PriceCalcInfo& m_refCalcInfo;
    char m_recvBuf[kDecodedFrameMaxLen];
    uint32_t& m_refInstNo;
    bool shfelogflag;
    bool inelogflag;
    const char* m_pLastCached;
    quvo_health_restart m_fatalReason;
};

// Calls visit(address) for each 64-byte line of the price tables that
// PrefetchCalcInfo warms: (count - 1) / 8 lines per exchange, tick, codec and
// multiplier in turn, the same byte stride for all three tables. Lines outside
// a table (the int table with many instruments, or corrupt counts) are skipped.
template <typename Visit>
void visit_calc_info_lines(const share& area, const PriceCalcInfo& calcInfo, Visit&& visit) {
    const char* tick = reinterpret_cast<const char*>(calcInfo.priceTick);
    const char* codec = reinterpret_cast<const char*>(calcInfo.codecPrice);
    const char* multi = reinterpret_cast<const char*>(calcInfo.volumeMulti);
    const auto lines = [&](long base, int count) {
        const long n = (count - 1) / 8;
        for (long k = 0; k < n; ++k) {
            const long doubleAt = base * 8 + 64 * k;
            const long intAt = base * 4 + 64 * k;
            if (doubleAt >= static_cast<long>(sizeof(calcInfo.priceTick))) {
                return;
            }
            visit(tick + doubleAt);
            visit(codec + doubleAt);
            if (intAt < static_cast<long>(sizeof(calcInfo.volumeMulti))) {
                visit(multi + intAt);
            }
        }
    };
    lines(0, area.shfe_inst_cnt);
    const int ineCount = area.ine_inst_cnt < QUVO_INST_SLOTS ? area.ine_inst_cnt : QUVO_INST_SLOTS;
    if (ineCount > 0) {
        lines(QUVO_INST_SLOTS - ineCount, ineCount);
    }
}
