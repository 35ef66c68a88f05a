// The snapshot's books checked against themselves and the day's limits
// before the table is trusted.
#include <cfloat>
#include <cstring>

#include "public/log/CommonLog.h"
#include "src/api/InstrumentId.h"
#include "src/tcp/ExanicTcpFunc.h"

int CExanicTcpFunc::ShfePriceCheck() {
    const share& area = *m_pShareMem;
    for (int i = 0; i < area.shfe_inst_cnt && i < QUVO_INST_SLOTS; ++i) {
        const int result = ShfeInstPriceCheck(area.instmts[i], inter_infos[i]);
        if (result != 0) {
            return result;
        }
    }
    for (int i = 0; i < area.ine_inst_cnt && i < QUVO_INST_SLOTS; ++i) {
        const int index = QUVO_INST_SLOTS - 1 - i;
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
    constexpr double eps = 0.00001;
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
