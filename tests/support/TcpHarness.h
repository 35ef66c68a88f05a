// A CExanicTcpFunc on a heap market-data area, price tables, masks and a
// plain block of registers, with the configuration's default ports
// (2ps 33022, 4ps 22000) and topic ids (SHFE 1000/1101, INE 5000/5101),
// recvall on and the SHFE 2ps and INE 2ps feeds enabled.
#pragma once

#include <memory>
#include <vector>

#include "src/tcp/ExanicTcpFunc.h"
#include "src/tcp/MdqpRecord.h"

// Deal information of instrument `instNo` with its limits; the statistics
// differ per instrument so that a value landing in the wrong slot shows.
inline DealInfoField MakeDeal(int32_t instNo, double last, double upper, double lower) {
    DealInfoField deal{};
    deal.inst_no = instNo;
    deal.last_price = last;
    deal.volume = 10 + instNo;
    deal.turnover = last * 100;
    deal.open_interest = 1000;
    deal.highest_price = last + 5;
    deal.lowest_price = last - 5;
    deal.upper_limit_price = upper;
    deal.lower_limit_price = lower;
    deal.update_mill_sec = 500;
    deal.change_no = instNo + 1;
    return deal;
}

// Reaches CExanicTcpFunc's private steps, which the tests drive directly.
class CExanicTcpFuncTestAccess {
public:
    static void PacketHandler(CExanicTcpFunc& t, char* frame, unsigned int len) {
        t._PacketHandler(frame, len);
    }
    static void Cleandata(CExanicTcpFunc& t) { t._Cleandata(); }
    static int ParseMdqp(CExanicTcpFunc& t, MdqpHeader* msg, unsigned short port) {
        return t._ParseMdqp(msg, port);
    }
    static bool ProtectInstNo(CExanicTcpFunc& t, EMdqpDataType type, int instNo) {
        return t._ProtectInstNo(type, instNo);
    }
    static bool IsSubscribed(CExanicTcpFunc& t, int slot) { return t._IsSubscribed(slot); }
    static bool ChecksumOk(CExanicTcpFunc& t, const char* ip, int hl, int seglen) {
        return t._ChecksumOk(ip, hl, seglen);
    }
    static TcpSession& Session(CExanicTcpFunc& t, uint16_t port) { return t.m_sessions[port]; }
    static inter_info& InterInfo(CExanicTcpFunc& t, uint32_t slot) { return t.inter_infos[slot]; }
    static void SetLatches(CExanicTcpFunc& t, bool value) {
        t.shfe_cnt_80_flag = t.ine_cnt_80_flag = t.shfe_cnt_flag = t.ine_cnt_flag = value;
    }
    static bool Latch(CExanicTcpFunc& t, int which) {
        const bool latches[] = {t.shfe_cnt_80_flag, t.ine_cnt_80_flag, t.shfe_cnt_flag, t.ine_cnt_flag};
        return latches[which];
    }
};

struct CTcpHarness {
    static constexpr uint16_t kPort2ps = 33022;
    static constexpr uint16_t kPort4ps = 22000;

    explicit CTcpHarness(CExanicTcpFunc::ClockFunc clock = CExanicTcpFunc::RealtimeSeconds)
        : area(new share()), calc(new PriceCalcInfo()), registers(8192, 0) {
        enabled.mask = ENABLE_SHFE2PS | ENABLE_INE2PS;
        finished.mask = 0;
        tcp = std::make_unique<CExanicTcpFunc>(config, area.get(), enabled, finished, *calc, clock);
        tcp->InitTcp(registers.data(), nullptr);
    }

    void Handle(std::vector<char> frame) {
        const unsigned int len = static_cast<unsigned int>(frame.size());
        frame.resize(frame.size() + kMdqpReadSlack, 0);
        CExanicTcpFuncTestAccess::PacketHandler(*tcp, frame.data(), len);
    }

    ExanicMdConfigData config = DefaultConfig();
    std::unique_ptr<share> area;
    std::unique_ptr<PriceCalcInfo> calc;
    std::vector<uint32_t> registers;
    UEnableMask enabled;
    UEnableMask finished;
    std::unique_ptr<CExanicTcpFunc> tcp;

    static ExanicMdConfigData DefaultConfig() {
        ExanicMdConfigData c;
        c.device = "replay:test";
        c.shfe2ps_topic_id = 1000;
        c.shfe4ps_topic_id = 1101;
        c.ine2ps_topic_id = 5000;
        c.ine4ps_topic_id = 5101;
        c.md2ps_snap_port = kPort2ps;
        c.md4ps_snap_port = kPort4ps;
        c.recvall = 1;
        c.options = 1;
        c.timeout_cnt = 10;
        c.shfe2ps = true;
        c.ine2ps = true;
        return c;
    }
};
