// The snapshot's books checked against themselves and the day's limits
// before the table is trusted.
#include <emmintrin.h>

#include <cfloat>
#include <cstring>

#include "public/log/CommonLog.h"
#include "src/api/InstrumentId.h"
#include "src/tcp/ExanicTcpFunc.h"

namespace {

constexpr double kPriceEps = 0.00001;

// Whether the identifier up to its first NUL (at most 16 bytes) holds "TAS",
// and whether it holds "-": the tests of InstrumentId.h on one 16-byte load.
inline void ScanId(const unsigned char (&id)[sizeof(instrument::inst_id)], bool& tas, bool& spread) {
    static_assert(sizeof(id) == 16);
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(id));
    const auto match = [&v](char c) {
        return static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(c))));
    };
    // Bits of the bytes before the first NUL.
    const uint32_t nul = match('\0') | 0x10000u;
    const uint32_t before = (nul & (0u - nul)) - 1;
    spread = (match('-') & before) != 0;
    tas = (match('T') & (match('A') >> 1) & (match('S') >> 2) & before) != 0;
}

// One level of CheckPrice's walk: false where CheckPrice returns non-zero.
// Every test is evaluated, without short-circuits, so the walk has no
// branch per test.
inline bool LevelPasses(double p, int v, double upper, double lower, bool isSpread, double& previous) {
    const bool zero = (p > -kPriceEps) & (p < kPriceEps);
    const bool noVolume = v <= 0;
    const bool empty = zero & noVolume;
    const bool mismatch = (zero != noVolume) & !isSpread;
    const bool outside = (lower - kPriceEps > p) | (p > upper + kPriceEps);
    const bool disorder = !(previous > p);
    previous = empty ? previous : p;
    return empty | !(mismatch | outside | disorder);
}

// ShfeInstPriceCheck's verdict without its copies, lists and messages: true
// exactly when it would return 0 without logging.
inline bool InstrumentPasses(const instrument& inst, const inter_info& limits) {
    bool tas;
    bool isSpread;
    ScanId(inst.inst_id, tas, isSpread);
    if (tas) {
        return true;
    }
    const double upper = isSpread ? DBL_MAX : limits.upper_limit_price;
    const double lower = isSpread ? -DBL_MAX : limits.lower_limit_price;
    double previous = DBL_MAX;
    for (int i = 4; i >= 0; --i) {
        if (!LevelPasses(inst.ask_px[i], inst.ask_vol[i], upper, lower, isSpread, previous)) {
            return false;
        }
    }
    for (int i = 0; i < 5; ++i) {
        if (!LevelPasses(inst.bid_px[i], inst.bid_vol[i], upper, lower, isSpread, previous)) {
            return false;
        }
    }
    return true;
}

}  // namespace

int CExanicTcpFunc::ShfePriceCheck() {
    const share& area = *m_pShareMem;
    // A failing instrument goes through the full check again, which logs it
    // and decides its result.
    for (int i = 0; i < area.shfe_inst_cnt && i < QUVO_INST_SLOTS; ++i) {
        if (InstrumentPasses(area.instmts[i], inter_infos[i])) {
            continue;
        }
        const int result = ShfeInstPriceCheck(area.instmts[i], inter_infos[i]);
        if (result != 0) {
            return result;
        }
    }
    for (int i = 0; i < area.ine_inst_cnt && i < QUVO_INST_SLOTS; ++i) {
        const int index = QUVO_INST_SLOTS - 1 - i;
        if (InstrumentPasses(area.instmts[index], inter_infos[index])) {
            continue;
        }
        const int result = ShfeInstPriceCheck(area.instmts[index], inter_infos[index]);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

int CExanicTcpFunc::ShfeInstPriceCheck(instrument instmts, inter_info interInfo) {
    if (is_tas_instrument(instmts)) {
        return 0;
    }
    const bool isSpread = is_spread_instrument(instmts);

    // Asks from the far side inwards, then bids: one falling list.
    std::vector<double>& shfe_inst_2ps_price = m_checkPrices;
    std::vector<int>& shfe_inst_2ps_volume = m_checkVolumes;
    shfe_inst_2ps_price.clear();
    shfe_inst_2ps_volume.clear();
    for (int i = 4; i >= 0; --i) {
        shfe_inst_2ps_price.push_back(instmts.ask_px[i]);
        shfe_inst_2ps_volume.push_back(instmts.ask_vol[i]);
    }
    for (int i = 0; i < 5; ++i) {
        shfe_inst_2ps_price.push_back(instmts.bid_px[i]);
        shfe_inst_2ps_volume.push_back(instmts.bid_vol[i]);
    }
    double upper = isSpread ? DBL_MAX : interInfo.upper_limit_price;
    double lower = isSpread ? -DBL_MAX : interInfo.lower_limit_price;
    const int iRet = CheckPrice(shfe_inst_2ps_price, shfe_inst_2ps_volume, upper, lower, isSpread);
    if (iRet == 0) {
        return 0;
    }
    QUVO_LOG(LOG_ERROR, "inst_id [%.*s]upper[%8lf]lower[%8lf]", static_cast<int>(sizeof(instmts.inst_id)),
             reinterpret_cast<const char*>(instmts.inst_id), interInfo.upper_limit_price,
             interInfo.lower_limit_price);
    static const char* const kLevelFormats[] = {
        "ask5 px[%8lf]vol[%d]", "ask4 px[%8lf]vol[%d]", "ask3 px[%8lf]vol[%d]", "ask2 px[%8lf]vol[%d]",
        "ask1 px[%8lf]vol[%d]", "bid1 px[%8lf]vol[%d]", "bid2 px[%8lf]vol[%d]", "bid3 px[%8lf]vol[%d]",
        "bid4 px[%8lf]vol[%d]", "bid5 px[%8lf]vol[%d]",
    };
    for (size_t i = 0; i < shfe_inst_2ps_price.size(); ++i) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        QUVO_LOG(LOG_ERROR, kLevelFormats[i], shfe_inst_2ps_price[i], shfe_inst_2ps_volume[i]);
#pragma GCC diagnostic pop
    }
    return m_refConfigData.shield_price_check ? 0 : iRet;
}

int CExanicTcpFunc::CheckPrice(const std::vector<double>& _price, const std::vector<int>& _vol,
                               double& upper_limit_price, double& lower_limit_price, bool isSpread) {
    constexpr double eps = kPriceEps;
    double iPrePrice = DBL_MAX;
    for (size_t i = 0; i < _price.size(); ++i) {
        const double p = _price[i];
        const int v = _vol[i];
        const bool zero = p > -eps && p < eps;
        if (zero && v <= 0) {
            continue;
        }
        if ((zero && v > 0) || (!zero && v <= 0)) {
            if (!isSpread) {
                QUVO_LOG(LOG_WARNING, "Price and Volume mismatch at index %d: price=%lf, vol=%d",
                         static_cast<int>(i), p, v);
                return -3;
            }
        }
        if (lower_limit_price - eps > p || p > upper_limit_price + eps) {
            QUVO_LOG(LOG_WARNING,
                     "(price > up) or (price < lower), price is %lf, up is %lf, lower is %lf, index is :%d",
                     p, upper_limit_price, lower_limit_price, static_cast<int>(i));
            return -1;
        }
        if (!(iPrePrice > p)) {
            QUVO_LOG(LOG_WARNING, "The price is abnormal, price index is :%d ", static_cast<int>(i));
            return -2;
        }
        iPrePrice = p;
    }
    return 0;
}
