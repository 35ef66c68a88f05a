// A CExanicUdpFunc on a heap market-data area, price tables and a plain block
// of registers, with the configuration's default topic ids (SHFE 1000/1101,
// INE 5000/5101) and options on.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "src/udp/ExanicUdpFunc.h"

struct CUdpHarness {
    static constexpr uint16_t kShfeTopic = 1000;
    static constexpr uint16_t kIneTopic = 5000;

    CUdpHarness() : area(new share()), calc(new PriceCalcInfo()), registers(8192, 0), cache{}, udp(Make()) {
        udp.InitUdp(registers.data(), nullptr);
    }

    // Names the instrument in `slot` and sets its price conversion and the
    // change number the next record must follow.
    instrument& AddInstrument(uint32_t slot, const std::string& id, double tick = 0.5, double codec = 1000.0,
                              int multi = 10, uint32_t changeNo = 0) {
        instrument& inst = area->instmts[slot];
        memset(inst.inst_id, 0, sizeof(inst.inst_id));
        memcpy(inst.inst_id, id.data(), std::min(id.size(), sizeof(inst.inst_id) - 1));
        inst.change_no = changeNo;
        calc->priceTick[slot] = tick;
        calc->codecPrice[slot] = codec;
        calc->volumeMulti[slot] = multi;
        return inst;
    }

    int Parse(std::vector<char>& record) {
        return udp._ParseMirp(record.data(), static_cast<uint32_t>(record.size()));
    }

    ExanicMdConfigData config = DefaultConfig();
    std::unique_ptr<share> area;
    std::unique_ptr<PriceCalcInfo> calc;
    std::vector<uint32_t> registers;
    CacheBufInfo cache;
    uint32_t instNo = 0;
    CExanicUdpFunc udp;

private:
    static ExanicMdConfigData DefaultConfig() {
        ExanicMdConfigData c;
        c.shfe2ps_topic_id = 1000;
        c.shfe4ps_topic_id = 1101;
        c.ine2ps_topic_id = 5000;
        c.ine4ps_topic_id = 5101;
        c.options = 1;
        return c;
    }
    CExanicUdpFunc Make() { return CExanicUdpFunc(config, area.get(), cache, *calc, instNo); }
};
