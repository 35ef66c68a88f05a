// Decoding of one whole MDQP snapshot message into the instrument table,
// the price tables, the limit table and the card's subscription tables.
#include <cfloat>
#include <cstring>

#include "public/log/CommonLog.h"
#include "src/api/Health.h"
#include "src/tcp/ExanicTcpFunc.h"
#include "src/tcp/WireLoad.h"

namespace {

// The wire's "no value" is the largest finite double.
inline double OrZero(double v) {
    return v == DBL_MAX ? 0.0 : v;
}

inline bool IsShfe(EMdqpDataType type) {
    return type == SHFE_2PS || type == SHFE_4PS;
}

// strncpy of at most 15 characters: the rest of the 15 is zero-padded and the
// sixteenth byte is left as it was.
inline void CopyId(unsigned char* dst, const char* src) {
    size_t i = 0;
    for (; i < 15 && src[i] != '\0'; ++i) {
        dst[i] = static_cast<unsigned char>(src[i]);
    }
    for (; i < 15; ++i) {
        dst[i] = 0;
    }
}

inline bool IsEmptySnapLevel(double px, int32_t vol) {
    return px > -1e-5 && px < 1e-5 && vol < 1;
}

}  // namespace

bool CExanicTcpFunc::_IsSubscribed(int slot) {
    return (m_pShareMem->instmts[slot].inst_id[0] & 0xDF) != 0;
}

bool CExanicTcpFunc::_ProtectInstNo(const EMdqpDataType& type, int& inst_no) {
    if (IsShfe(type)) {
        if (inst_no < QUVO_SHFE_MAX_INST_CNT) {
            return true;
        }
        if (shfe_cnt_flag) {
            QUVO_LOG(LOG_WARNING, "instrument No [%d] exceed limit %d", inst_no, QUVO_SHFE_MAX_INST_CNT - 1);
            shfe_cnt_flag = false;
        }
        return false;
    }
    if (type == INE_2PS || type == INE_4PS) {
        if (inst_no <= QUVO_INE_MAX_INST_CNT - 1) {
            return true;
        }
        if (ine_cnt_flag) {
            QUVO_LOG(LOG_WARNING, "instrument No [%d] exceed limit %d", inst_no, QUVO_INE_MAX_INST_CNT - 1);
            ine_cnt_flag = false;
        }
        return false;
    }
    return false;
}

int CExanicTcpFunc::_ParseMdqp(MdqpHeader* msg, unsigned short port) {
    const EMdqpDataType type = m_sessions[port].em_dqp_data_type;
    char* base = reinterpret_cast<char*>(msg);
    MdqpHeader header;
    memcpy(&header, base, sizeof(header));
    QUVO_LOG(LOG_DEBUG_EX, "MDQP flag: 0x%x, type_id: 0x%x, length: %u, requset_id: %d", header.flag,
             static_cast<uint8_t>(header.type_id), header.length, header.request_id);

    const ExanicMdConfigData& cfg = m_refConfigData;
    share& area = *m_pShareMem;
    CCommonLog& log = CCommonLog::GetInstance();
    // The number check of the message's feed as one unsigned compare, which
    // also refuses the negative numbers that have no slot; a refused number
    // goes through _ProtectInstNo for its warning, and its field is skipped.
    const bool shfe = IsShfe(type);
    const uint32_t instLimit = shfe                                 ? QUVO_SHFE_MAX_INST_CNT
                               : type == INE_2PS || type == INE_4PS ? QUVO_INE_MAX_INST_CNT
                                                                    : 0;
    const auto accepted = [&](int32_t instNo, uint32_t& slot) {
        if (__builtin_expect(static_cast<uint32_t>(instNo) < instLimit, 1)) {
            slot = shfe ? quvo_shfe_slot(static_cast<uint32_t>(instNo))
                        : quvo_ine_slot(static_cast<uint32_t>(instNo));
            return true;
        }
        _ProtectInstNo(type, instNo);
        return false;
    };
    quvo_health_feed* feed = type >= 0 && type < QUVO_HEALTH_FEEDS ? &health().snapshot.feeds[type] : nullptr;
    if (feed != nullptr) {
        const uint64_t bytes = uint64_t{header.length} + sizeof(MdqpHeader);
        health_add(feed->messages);
        health_add(feed->messages_total);
        health_add(feed->bytes, bytes);
        health_add(feed->bytes_total, bytes);
    }
    if (header.length > 8) {
        // Bounded by length from the start of the header, so the last 8 body
        // bytes are never a field start; sizes are not checked against the end.
        int32_t pos = static_cast<int32_t>(sizeof(MdqpHeader));
        uint16_t previousId = 0;
        do {
            const FieldHeader field = WireLoad<FieldHeader>(base + pos);
            char* body = base + pos + sizeof(FieldHeader);
            QUVO_LOG_TO(log, LOG_DEBUG_EX, "field_id: 0x%x, field_size: %u", field.field_id,
                        field.field_size);
            switch (field.field_id) {
                case MDQP_FID_SKIP_0031:
                case MDQP_FID_SKIP_0032:
                case MDQP_FID_SNAP:
                case MDQP_FID_SKIP_1002:
                case MDQP_FID_SKIP_1003:
                    break;
                case MDQP_FID_INST_INFO: {
                    InstInfoField info = WireLoad<InstInfoField>(body);
                    QUVO_LOG(LOG_DEBUG_EX,
                             "inst_id: %.31s, inst_no: %d, vol_multi: %d, price_tick: %lf, codec_price: %lf",
                             info.inst_id, info.inst_no, info.volume_multiple, info.price_tick,
                             info.codec_price);
                    if (cfg.options == 0 && info.inst_id[6] != '\0') {
                        QUVO_LOG(LOG_DEBUG_EX, "do not subscribe options, instrumentID: %.31s", info.inst_id);
                        break;
                    }
                    uint32_t slot;
                    if (!accepted(info.inst_no, slot)) {
                        break;
                    }
                    uint32_t addrRegister;
                    if (shfe) {
                        if (info.inst_no >= area.shfe_inst_cnt) {
                            area.shfe_inst_cnt = info.inst_no + 1;
                            if (area.shfe_inst_cnt > 12800 && shfe_cnt_80_flag) {
                                QUVO_LOG(LOG_WARNING, "shfe_inst_cnt is [%d] more than 80%% max cnt[%d]",
                                         area.shfe_inst_cnt, 12800);
                                shfe_cnt_80_flag = false;
                            }
                        }
                        addrRegister = REG_SHFE_TABLE_ADDR;
                    } else {
                        if (info.inst_no >= area.ine_inst_cnt) {
                            area.ine_inst_cnt = info.inst_no + 1;
                            if (area.ine_inst_cnt > 3200 && ine_cnt_80_flag) {
                                QUVO_LOG(LOG_WARNING, "ine_inst_cnt is [%d] more than 80%% max cnt[%d]",
                                         area.ine_inst_cnt, 3200);
                                ine_cnt_80_flag = false;
                            }
                        }
                        addrRegister = REG_INE_TABLE_ADDR;
                    }
                    if (feed != nullptr) {
                        health_add(feed->instruments);
                    }
                    bool subscribe = cfg.recvall != 0;
                    if (!subscribe) {
                        const size_t idLen = strnlen(info.inst_id, sizeof(info.inst_id));
                        const size_t prefixLen = idLen < kListenEntryMaxLen ? idLen : kListenEntryMaxLen;
                        for (uint32_t i = 0; i < cfg.total_listen_cnt && i < cfg.listen_insts.size(); ++i) {
                            const std::string& entry = cfg.listen_insts[i];
                            if ((entry.size() == 2 && idLen >= 2 &&
                                 memcmp(entry.data(), info.inst_id, 2) == 0) ||
                                (entry.size() == prefixLen &&
                                 memcmp(entry.data(), info.inst_id, prefixLen) == 0)) {
                                subscribe = true;
                                break;
                            }
                        }
                    }
                    if (subscribe) {
                        reg_write(m_pRegisters, addrRegister, static_cast<uint32_t>(info.inst_no));
                        reg_write(m_pRegisters, addrRegister + 1, 1);
                        CopyId(area.instmts[slot].inst_id, info.inst_id);
                        QUVO_LOG(LOG_DEBUG, "instrument [%.31s] subscribed, inst_no [%d]", info.inst_id,
                                 info.inst_no);
                    }
                    m_refCalcInfo.priceTick[slot] = info.price_tick;
                    m_refCalcInfo.codecPrice[slot] = OrZero(info.codec_price);
                    m_refCalcInfo.volumeMulti[slot] = info.volume_multiple;
                    break;
                }
                case MDQP_FID_DEAL_INFO: {
                    const DealInfoField deal = WireLoad<DealInfoField>(body);
                    uint32_t slot;
                    if (!accepted(deal.inst_no, slot)) {
                        break;
                    }
                    if (!_IsSubscribed(static_cast<int>(slot))) {
                        break;
                    }
                    QUVO_LOG(LOG_DEBUG_EX,
                             "last_price: %lf, volume: %d, turnover: %lf, open_interest: %lf, change_no: %d, "
                             "update_time: %.9s, update_mill_sec: %d",
                             deal.last_price, deal.volume, deal.turnover, deal.open_interest, deal.change_no,
                             deal.update_time, deal.update_mill_sec);
                    instrument& inst = area.instmts[slot];
                    inst.last_px = OrZero(deal.last_price);
                    inst.turnover = OrZero(deal.turnover);
                    inst.change_no = static_cast<uint32_t>(deal.change_no);
                    inst.update_milli_sec = static_cast<uint16_t>(deal.update_mill_sec);
                    inst.open_interest = deal.open_interest;
                    inst.volume = static_cast<uint32_t>(deal.volume);
                    inst.highest_price = OrZero(deal.highest_price);
                    inst.lowest_price = OrZero(deal.lowest_price);
                    inter_infos[slot].upper_limit_price = OrZero(deal.upper_limit_price);
                    inter_infos[slot].lower_limit_price = OrZero(deal.lower_limit_price);
                    break;
                }
                case MDQP_FID_PRICE_DETAIL: {
                    const PriceDetailField level = WireLoad<PriceDetailField>(body);
                    uint32_t slot;
                    if (!accepted(level.inst_no, slot)) {
                        break;
                    }
                    if (!_IsSubscribed(static_cast<int>(slot))) {
                        QUVO_LOG(LOG_DEBUG_EX, "skip unsubscribed inst, instNo : %d", static_cast<int>(slot));
                        break;
                    }
                    const double price = OrZero(level.price);
                    memcpy(body + offsetof(PriceDetailField, price), &price, sizeof(price));
                    instrument& inst = area.instmts[slot];
                    // A run of levels rebuilds the published five levels once.
                    if (previousId != MDQP_FID_PRICE_DETAIL) {
                        memset(inst.bid_px, 0, 5 * sizeof(double));
                        memset(inst.ask_px, 0, 5 * sizeof(double));
                        memset(inst.bid_vol, 0, 5 * sizeof(int32_t));
                        memset(inst.ask_vol, 0, 5 * sizeof(int32_t));
                    }
                    int k = 0;
                    if (level.direction == '0') {
                        while (k < 5 && !IsEmptySnapLevel(inst.bid_px[k], inst.bid_vol[k]) &&
                               !(price + 1e-5 >= inst.bid_px[k])) {
                            ++k;
                        }
                        // Worse than five occupied levels: the sixth slot, deliberately.
                        inst.bid_px[k] = price;
                        inst.bid_vol[k] = level.volume;
                    } else if (level.direction == '1') {
                        while (k < 5 && !IsEmptySnapLevel(inst.ask_px[k], inst.ask_vol[k]) &&
                               !(inst.ask_px[k] >= price - 1e-5)) {
                            ++k;
                        }
                        inst.ask_px[k] = price;
                        inst.ask_vol[k] = level.volume;
                    }
                    break;
                }
                case MDQP_FID_ORDER_STATIS: {
                    const OrderStatisField stats = WireLoad<OrderStatisField>(body);
                    uint32_t slot;
                    if (!accepted(stats.inst_no, slot)) {
                        break;
                    }
                    if (!_IsSubscribed(static_cast<int>(slot))) {
                        break;
                    }
                    instrument& inst = area.instmts[slot];
                    inst.bid_totvol = stats.bid_totvol;
                    inst.ask_totvol = stats.ask_totvol;
                    inst.bid_totamount = stats.bid_totamount;
                    inst.ask_totamount = stats.ask_totamount;
                    break;
                }
                case MDQP_FID_PACKET_NO: {
                    const PacketNoField packet = WireLoad<PacketNoField>(body);
                    if (shfe) {
                        area.shfe_pktno = packet.packet_no;
                    } else {
                        area.ine_pktno = packet.packet_no;
                    }
                    QUVO_LOG(LOG_DEBUG_EX, "packet_no: %d", packet.packet_no);
                    break;
                }
                default:
                    QUVO_LOG(LOG_ERROR, "unknown fieldID: %02x", field.field_id);
                    break;
            }
            pos += field.field_size + static_cast<int32_t>(sizeof(FieldHeader));
            previousId = field.field_id;
        } while (pos < static_cast<int32_t>(header.length));
    }

    if (header.flag == kMdqpFlagLast) {
        if (feed != nullptr) {
            health_set(feed->completed_ns, health_wall_ns());
            health_add(feed->completed);
        }
        switch (type) {
            case SHFE_2PS:
                QUVO_LOG(LOG_INFO, "shfe2ps init finished, total instruments:%d", area.shfe_inst_cnt);
                mask_set(m_refFinishedMask, ENABLE_SHFE2PS);
                break;
            case SHFE_4PS:
                QUVO_LOG(LOG_INFO, "shfe4ps init finished, total instruments:%d", area.shfe_inst_cnt);
                mask_set(m_refFinishedMask, ENABLE_SHFE4PS);
                break;
            case INE_2PS:
                QUVO_LOG(LOG_INFO, "ine2ps init finished, total instruments:%d", area.ine_inst_cnt);
                mask_set(m_refFinishedMask, ENABLE_INE2PS);
                break;
            case INE_4PS:
                QUVO_LOG(LOG_INFO, "ine4ps init finished, total instruments:%d", area.ine_inst_cnt);
                mask_set(m_refFinishedMask, ENABLE_INE4PS);
                break;
            default:
                break;
        }
        m_sessions[port].init = 0;
    }
    return 0;
}
