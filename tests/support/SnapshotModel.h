// A plain, independent model of what decoding MDQP snapshot messages leaves
// behind: the instrument table, the price tables, the limit table, the
// card's subscription stores, the finished mask and the warnings. It works
// from the fields a test sent (id and body), not from the framed bytes, and
// writes each step out anew instead of sharing code with the decoder.
#pragma once

#include <cfloat>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "src/config/ConfigParse.h"
#include "src/dev/ExanicDevFunc.h"
#include "src/dev/soft/SoftCard.h"
#include "src/tcp/ExanicTcpFunc.h"
#include "src/tcp/MdqpRecord.h"

struct SnapshotField {
    uint16_t id;
    std::vector<char> body;

    template <typename Body>
    static SnapshotField Of(uint16_t id, const Body& body) {
        SnapshotField f{id, std::vector<char>(sizeof(body))};
        memcpy(f.body.data(), &body, sizeof(body));
        return f;
    }
};

struct SnapshotMessage {
    uint8_t flag;
    int32_t requestId;
    std::vector<SnapshotField> fields;

    // Body bytes after the 8-byte header.
    size_t Length() const {
        size_t n = 0;
        for (const SnapshotField& f : fields) {
            n += 4 + f.body.size();
        }
        return n;
    }

    std::vector<char> Encode() const {
        std::vector<char> bytes(8 + Length());
        const uint16_t length = static_cast<uint16_t>(Length());
        bytes[0] = static_cast<char>(flag);
        bytes[1] = 0x32;
        memcpy(&bytes[2], &length, 2);
        memcpy(&bytes[4], &requestId, 4);
        size_t pos = 8;
        for (const SnapshotField& f : fields) {
            const uint16_t size = static_cast<uint16_t>(f.body.size());
            memcpy(&bytes[pos], &f.id, 2);
            memcpy(&bytes[pos + 2], &size, 2);
            if (!f.body.empty()) {
                memcpy(&bytes[pos + 4], f.body.data(), f.body.size());
            }
            pos += 4 + f.body.size();
        }
        return bytes;
    }
};

class CSnapshotModel {
    const ExanicMdConfigData& m_config;

public:
    static constexpr int kSlots = 20480;

    explicit CSnapshotModel(const ExanicMdConfigData& config)
        : m_config(config),
          area(new share()),
          calc(new PriceCalcInfo()),
          inter(kSlots, inter_info{0.0, 0.0}) {}

    void Apply(EMdqpDataType type, const SnapshotMessage& msg) {
        const size_t length = msg.Length();
        size_t start = 8;
        uint16_t previous = 0;
        for (const SnapshotField& f : msg.fields) {
            // Fields are read while their start, counted from the header, is below length.
            if (start >= length) {
                break;
            }
            _ApplyField(type, f, previous);
            previous = f.id;
            start += 4 + f.body.size();
        }
        if (msg.flag == 1) {
            const bool shfe = type == SHFE_2PS || type == SHFE_4PS;
            static const char* const kNames[] = {"shfe2ps", "ine2ps", "shfe4ps", "ine4ps"};
            static const uint8_t kBits[] = {0x01, 0x04, 0x02, 0x08};
            if (type >= 0 && type <= 3) {
                finished = static_cast<uint8_t>(finished | kBits[type]);
                infos.push_back(std::string(kNames[type]) + " init finished, total instruments:" +
                                std::to_string(shfe ? area->shfe_inst_cnt : area->ine_inst_cnt));
            }
        }
    }

    static bool IsShfe(EMdqpDataType type) { return type == SHFE_2PS || type == SHFE_4PS; }

    static int SlotOf(EMdqpDataType type, int32_t instNo) {
        return IsShfe(type) ? instNo : kSlots - 1 - instNo;
    }

    static double OrZero(double v) {
        uint64_t bits;
        memcpy(&bits, &v, sizeof(bits));
        return bits == 0x7FEFFFFFFFFFFFFFull ? 0.0 : v;
    }

    bool Subscribes(const std::string& id) const {
        if (m_config.recvall != 0) {
            return true;
        }
        for (uint32_t i = 0; i < m_config.total_listen_cnt; ++i) {
            const std::string& entry = m_config.listen_insts[i];
            if (entry.size() == 2 && id.compare(0, 2, entry) == 0) {
                return true;
            }
            if (id.substr(0, 6) == entry) {
                return true;
            }
        }
        return false;
    }

    // One price level placed: the first of the five levels that
    // is empty or no better than the price, else the sixth slot.
    static void PlaceLevel(instrument& inst, char direction, double price, int32_t volume) {
        const auto empty = [](double px, int32_t vol) { return px > -1e-5 && px < 1e-5 && vol < 1; };
        double* px = direction == '0' ? inst.bid_px : inst.ask_px;
        int32_t* vol = direction == '0' ? inst.bid_vol : inst.ask_vol;
        int k = 0;
        for (; k < 5; ++k) {
            if (empty(px[k], vol[k])) {
                break;
            }
            if (direction == '0' ? price + 1e-5 >= px[k] : px[k] >= price - 1e-5) {
                break;
            }
        }
        px[k] = price;
        vol[k] = volume;
    }

    std::unique_ptr<share> area;
    std::unique_ptr<PriceCalcInfo> calc;
    std::vector<inter_info> inter;
    std::vector<RegisterAccess> registers;
    uint8_t finished = 0;
    std::vector<std::string> warnings;  // in the order they are due
    std::vector<std::string> infos;
    // As after construction: each warning may be given once.
    bool shfeCount80 = true;
    bool ineCount80 = true;

private:
    template <typename Body>
    static Body Read(const SnapshotField& f) {
        Body b;
        memcpy(&b, f.body.data(), sizeof(b));
        return b;
    }

    bool _Subscribed(int slot) const {
        const unsigned char c = area->instmts[slot].inst_id[0];
        return c != 0x00 && c != 0x20;
    }

    static bool _Acceptable(EMdqpDataType type, int32_t instNo) {
        if (instNo < 0) {
            return false;
        }
        return IsShfe(type) ? instNo < 16384 : instNo <= 4095;
    }

    void _ApplyField(EMdqpDataType type, const SnapshotField& f, uint16_t previous) {
        switch (f.id) {
            case 0x0101:
                _InstInfo(type, Read<InstInfoField>(f));
                break;
            case 0x0102: {
                const DealInfoField d = Read<DealInfoField>(f);
                if (!_Acceptable(type, d.inst_no) || !_Subscribed(SlotOf(type, d.inst_no))) {
                    break;
                }
                const int slot = SlotOf(type, d.inst_no);
                instrument& inst = area->instmts[slot];
                inst.last_px = OrZero(d.last_price);
                inst.turnover = OrZero(d.turnover);
                inst.change_no = static_cast<uint32_t>(d.change_no);
                inst.update_milli_sec =
                    static_cast<uint16_t>(static_cast<uint32_t>(d.update_mill_sec) & 0xFFFF);
                inst.open_interest = d.open_interest;
                inst.volume = static_cast<uint32_t>(d.volume);
                inst.highest_price = OrZero(d.highest_price);
                inst.lowest_price = OrZero(d.lowest_price);
                inter[slot] = inter_info{OrZero(d.upper_limit_price), OrZero(d.lower_limit_price)};
                break;
            }
            case 0x0103: {
                const PriceDetailField p = Read<PriceDetailField>(f);
                if (!_Acceptable(type, p.inst_no) || !_Subscribed(SlotOf(type, p.inst_no))) {
                    break;
                }
                instrument& inst = area->instmts[SlotOf(type, p.inst_no)];
                if (previous != 0x0103) {
                    for (int k = 0; k < 5; ++k) {
                        inst.bid_px[k] = inst.ask_px[k] = 0.0;
                        inst.bid_vol[k] = inst.ask_vol[k] = 0;
                    }
                }
                if (p.direction == '0' || p.direction == '1') {
                    PlaceLevel(inst, p.direction, OrZero(p.price), p.volume);
                }
                break;
            }
            case 0x0104: {
                const OrderStatisField s = Read<OrderStatisField>(f);
                if (!_Acceptable(type, s.inst_no) || !_Subscribed(SlotOf(type, s.inst_no))) {
                    break;
                }
                instrument& inst = area->instmts[SlotOf(type, s.inst_no)];
                inst.bid_totvol = s.bid_totvol;
                inst.ask_totvol = s.ask_totvol;
                inst.bid_totamount = s.bid_totamount;
                inst.ask_totamount = s.ask_totamount;
                break;
            }
            case 0x1004:
                (IsShfe(type) ? area->shfe_pktno : area->ine_pktno) = Read<PacketNoField>(f).packet_no;
                break;
            default:
                break;
        }
    }

    void _InstInfo(EMdqpDataType type, const InstInfoField& info) {
        char id[32] = {};
        memcpy(id, info.inst_id, sizeof(info.inst_id));
        if (m_config.options == 0 && info.inst_id[6] != '\0') {
            return;
        }
        if (!_Acceptable(type, info.inst_no)) {
            return;
        }
        const int slot = SlotOf(type, info.inst_no);
        char text[96];
        if (IsShfe(type)) {
            if (info.inst_no >= area->shfe_inst_cnt) {
                area->shfe_inst_cnt = info.inst_no + 1;
                if (area->shfe_inst_cnt > 12800 && shfeCount80) {
                    snprintf(text, sizeof(text), "shfe_inst_cnt is [%d] more than 80%% max cnt[12800]",
                             area->shfe_inst_cnt);
                    warnings.push_back(text);
                    shfeCount80 = false;
                }
            }
        } else if (info.inst_no >= area->ine_inst_cnt) {
            area->ine_inst_cnt = info.inst_no + 1;
            if (area->ine_inst_cnt > 3200 && ineCount80) {
                snprintf(text, sizeof(text), "ine_inst_cnt is [%d] more than 80%% max cnt[3200]",
                         area->ine_inst_cnt);
                warnings.push_back(text);
                ineCount80 = false;
            }
        }
        if (Subscribes(id)) {
            const uint32_t addr = IsShfe(type) ? 0x700 : 0x704;
            registers.push_back({true, addr, static_cast<uint32_t>(info.inst_no)});
            registers.push_back({true, addr + 1, 1});
            // strncpy of 15: the characters up to the terminator, zeros to 15, byte 16 untouched.
            unsigned char* dst = area->instmts[slot].inst_id;
            size_t i = 0;
            for (; i < 15 && id[i] != '\0'; ++i) {
                dst[i] = static_cast<unsigned char>(id[i]);
            }
            for (; i < 15; ++i) {
                dst[i] = 0;
            }
        }
        calc->priceTick[slot] = info.price_tick;
        calc->codecPrice[slot] = OrZero(info.codec_price);
        calc->volumeMulti[slot] = info.volume_multiple;
    }
};

// True when all `size` bytes at `p` are zero; compares against one small
// block instead of allocating a zeroed copy of the market-data area.
inline bool all_zero(const void* p, size_t size) {
    static const char kZeros[65536] = {};
    const char* bytes = static_cast<const char*>(p);
    for (size_t done = 0; done < size; done += sizeof(kZeros)) {
        const size_t n = size - done < sizeof(kZeros) ? size - done : sizeof(kZeros);
        if (memcmp(bytes + done, kZeros, n) != 0) {
            return false;
        }
    }
    return true;
}

// The members of two instrument records that differ, for failure messages.
inline std::string instrument_diff(const instrument& want, const instrument& got) {
    std::string out;
    const auto add = [&out](const char* name, const std::string& w, const std::string& g) {
        if (w != g) {
            out += std::string(name) + ": want " + w + " got " + g + "; ";
        }
    };
    const auto d = [](double v) {
        char b[40];
        snprintf(b, sizeof(b), "%.17g", v);
        return std::string(b);
    };
    const auto id = [](const unsigned char* p) {
        std::string s;
        for (int i = 0; i < 16; ++i) {
            char b[4];
            snprintf(b, sizeof(b), "%02x", p[i]);
            s += b;
        }
        return s;
    };
    add("inst_id", id(want.inst_id), id(got.inst_id));
    add("last_px", d(want.last_px), d(got.last_px));
    add("volume", std::to_string(want.volume), std::to_string(got.volume));
    add("update_time", std::to_string(want.update_time), std::to_string(got.update_time));
    add("update_milli_sec", std::to_string(want.update_milli_sec), std::to_string(got.update_milli_sec));
    add("type", std::to_string(want.type), std::to_string(got.type));
    add("change_no", std::to_string(want.change_no), std::to_string(got.change_no));
    add("turnover", d(want.turnover), d(got.turnover));
    add("open_interest", d(want.open_interest), d(got.open_interest));
    add("bid_totvol", std::to_string(want.bid_totvol), std::to_string(got.bid_totvol));
    add("ask_totvol", std::to_string(want.ask_totvol), std::to_string(got.ask_totvol));
    add("bid_totamount", d(want.bid_totamount), d(got.bid_totamount));
    add("ask_totamount", d(want.ask_totamount), d(got.ask_totamount));
    add("highest_price", d(want.highest_price), d(got.highest_price));
    add("lowest_price", d(want.lowest_price), d(got.lowest_price));
    for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
        const std::string n = std::to_string(k);
        add(("bid_px" + n).c_str(), d(want.bid_px[k]), d(got.bid_px[k]));
        add(("bid_vol" + n).c_str(), std::to_string(want.bid_vol[k]), std::to_string(got.bid_vol[k]));
        add(("ask_px" + n).c_str(), d(want.ask_px[k]), d(got.ask_px[k]));
        add(("ask_vol" + n).c_str(), std::to_string(want.ask_vol[k]), std::to_string(got.ask_vol[k]));
    }
    return out;
}
