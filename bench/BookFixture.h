// The books the benchmarks apply decoded records to: a parser on a heap
// market-data area whose instruments hold a five-level book.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"
#include "src/dev/soft/SoftCard.h"
#include "src/udp/ExanicUdpFunc.h"

constexpr uint16_t kShfeTopic = 1000;
constexpr uint32_t kInstrumentNo = 7;
constexpr double kTick = 10.0;
constexpr double kCodec = 70000.0;

// A parser on a heap market-data area whose instruments hold a five-level
// book: bids one to five ticks under the codec price, asks over it.
struct CBookFixture {
    explicit CBookFixture(uint32_t instruments = 1)
        : area(new share()), calc(new PriceCalcInfo()), registers(CSoftCard::kRegisterWords, 0), cache{} {
        CCommonLog::GetInstance().SetLogLevel(LOG_ERROR);
        config.shfe2ps_topic_id = kShfeTopic;
        config.shfe4ps_topic_id = 1101;
        config.ine2ps_topic_id = 5000;
        config.ine4ps_topic_id = 5101;
        config.options = 1;
        udp = std::make_unique<CExanicUdpFunc>(config, area.get(), cache, *calc, instNo);
        udp->InitUdp(registers.data(), nullptr);
        for (uint32_t n = 0; n < instruments; ++n) {
            const uint32_t slot = kInstrumentNo + n;
            instrument& inst = area->instmts[slot];
            memcpy(inst.inst_id, "cu2501", 6);
            for (int i = 0; i < 5; ++i) {
                inst.bid_px[i] = kCodec - (i + 1) * kTick;
                inst.bid_vol[i] = 10 * (i + 1);
                inst.ask_px[i] = kCodec + (i + 1) * kTick;
                inst.ask_vol[i] = 10 * (i + 1);
            }
            calc->priceTick[slot] = kTick;
            calc->codecPrice[slot] = kCodec;
            calc->volumeMulti[slot] = 5;
        }
        area->shfe_inst_cnt = static_cast<int32_t>(kInstrumentNo + instruments);
        initial.assign(reinterpret_cast<const char*>(&area->instmts[kInstrumentNo]),
                       reinterpret_cast<const char*>(&area->instmts[kInstrumentNo + instruments]));
    }

    // Puts the instruments back as built, with `changeNo` stored.
    void Reset(uint32_t changeNo) {
        memcpy(&area->instmts[kInstrumentNo], initial.data(), initial.size());
        const uint32_t instruments = static_cast<uint32_t>(initial.size() / sizeof(instrument));
        for (uint32_t n = 0; n < instruments; ++n) {
            area->instmts[kInstrumentNo + n].change_no = changeNo;
        }
    }

    ExanicMdConfigData config;
    std::unique_ptr<share> area;
    std::unique_ptr<PriceCalcInfo> calc;
    std::vector<uint32_t> registers;
    CacheBufInfo cache;
    uint32_t instNo = 0;
    std::unique_ptr<CExanicUdpFunc> udp;
    std::string initial;
};
