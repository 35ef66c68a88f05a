// libFuzzer target: one decoded record through CExanicUdpFunc::_ParseMirp.
// Input: one control byte (see ParseMirpArea.h), then the record's bytes.
//
// Beyond what the sanitizers see, it checks what they cannot inside the one
// large shared area: a record writes only its own slot (plus the eight bytes
// that a tenth-level ask insert moves into the next one), and a record that is
// not applied leaves its slot as it was, but for the exchange type.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/DecodedRecordHead.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/ParseMirpArea.h"
#include "public/log/CommonLog.h"
#include "src/udp/ExanicUdpFunc.h"

using namespace parse_mirp_fuzz;

namespace {

void FillBook(instrument& inst, double tick, double codec, int levels) {
    for (int i = 0; i < QUVO_BOOK_LEVELS; ++i) {
        const bool used = i < levels;
        inst.bid_px[i] = used ? codec - (i + 1) * tick : 0.0;
        inst.bid_vol[i] = used ? 10 * (i + 1) : 0;
        inst.ask_px[i] = used ? codec + (i + 1) * tick : 0.0;
        inst.ask_vol[i] = used ? 10 * (i + 1) : 0;
    }
}

struct Area {
    Area()
        : area(new share()),
          pristine(new share()),
          calc(new PriceCalcInfo()),
          registers(CSoftCard::kRegisterWords, 0),
          cache{},
          optionsOn(Config(1)),
          optionsOff(Config(0)),
          udpOptionsOn(optionsOn, area.get(), cache, *calc, instNo),
          udpOptionsOff(optionsOff, area.get(), cache, *calc, instNo) {
        udpOptionsOn.InitUdp(registers.data(), nullptr);
        udpOptionsOff.InitUdp(registers.data(), nullptr);
        for (const NamedInstrument& named : kInstruments) {
            const uint32_t slot = SlotOf(named);
            instrument& inst = pristine->instmts[slot];
            memcpy(inst.inst_id, named.id, sizeof(inst.inst_id));
            inst.change_no = kPreparedChangeNo;
            FillBook(inst, named.tick, named.codec, 5);
            calc->priceTick[slot] = named.tick;
            calc->codecPrice[slot] = named.codec;
            calc->volumeMulti[slot] = named.multi;
        }
        pristine->shfe_inst_cnt = 16384;
        pristine->ine_inst_cnt = 4096;
        memcpy(area.get(), pristine.get(), sizeof(share));
    }

    static ExanicMdConfigData Config(int8_t options) {
        ExanicMdConfigData c;
        c.shfe2ps_topic_id = kShfeTopic2;
        c.shfe4ps_topic_id = kShfeTopic4;
        c.ine2ps_topic_id = kIneTopic2;
        c.ine4ps_topic_id = kIneTopic4;
        c.options = options;
        return c;
    }

    std::unique_ptr<share> area;
    std::unique_ptr<share> pristine;
    std::unique_ptr<PriceCalcInfo> calc;
    std::vector<uint32_t> registers;
    CacheBufInfo cache;
    uint32_t instNo = 0;
    ExanicMdConfigData optionsOn;
    ExanicMdConfigData optionsOff;
    CExanicUdpFunc udpOptionsOn;
    CExanicUdpFunc udpOptionsOff;
};

Area& TheArea() {
    static Area* area = new Area();
    return *area;
}

[[noreturn]] void Fail(const char* what, uint32_t slot) {
    fprintf(stderr, "parse_mirp_fuzz: %s (slot %u)\n", what, slot);
    abort();
}

void PrepareBook(instrument& inst, uint32_t slot, uint8_t book, const PriceCalcInfo& calc) {
    const double tick = calc.priceTick[slot];
    const double codec = calc.codecPrice[slot];
    switch (book) {
        case kBookFive:
            break;
        case kBookTen:
            FillBook(inst, tick, codec, 10);
            break;
        case kBookEmpty:
            FillBook(inst, tick, codec, 0);
            break;
        case kBookIrregular:
            FillBook(inst, tick, codec, 10);
            inst.bid_px[1] = 0.0;
            inst.bid_vol[1] = 0;
            inst.bid_px[3] = codec;
            inst.ask_px[0] = codec - 3 * tick;
            inst.ask_vol[6] = 0;
            inst.ask_px[6] = 0.0;
            break;
    }
}

bool SameBytes(const void* a, const void* b, size_t n) {
    return memcmp(a, b, n) == 0;
}

// Checks one parse of a record addressed to `slot`, whose record was `before`.
void CheckParse(const Area& a, uint32_t slot, const instrument& before, int result, bool incremental,
                uint32_t changeNo, const DecodeHeader& header) {
    if (result < -1 || result > 1) {
        Fail("result outside -1..1", slot);
    }
    const char* now = reinterpret_cast<const char*>(a.area.get());
    const char* was = reinterpret_cast<const char*>(a.pristine.get());
    const size_t rec = sizeof(instrument);
    if (slot > 0 && !SameBytes(now + (slot - 1) * rec, was + (slot - 1) * rec, rec)) {
        Fail("previous slot written", slot);
    }
    // A tenth-level ask insert moves eight bytes past the slot by design: into
    // the next slot's first eight, or after slot 20479 into the two counts.
    if (slot + 1 < QUVO_INST_SLOTS) {
        if (!SameBytes(now + (slot + 1) * rec + 8, was + (slot + 1) * rec + 8, rec - 8)) {
            Fail("next slot written past its first eight bytes", slot);
        }
        if (a.area->shfe_inst_cnt != a.pristine->shfe_inst_cnt ||
            a.area->ine_inst_cnt != a.pristine->ine_inst_cnt) {
            Fail("instrument counts written", slot);
        }
    }
    if (quvo_slot_is_ine(slot) ? a.area->shfe_pktno != a.pristine->shfe_pktno
                               : a.area->ine_pktno != a.pristine->ine_pktno) {
        Fail("the other exchange's packet number written", slot);
    }
    const instrument& inst = a.area->instmts[slot];
    if (result != 1) {
        instrument expected = before;
        expected.type = inst.type;
        if (!SameBytes(&expected, &inst, sizeof(instrument))) {
            Fail("record not applied but its slot changed", slot);
        }
        return;
    }
    if (a.instNo != slot) {
        Fail("applied record announced another slot", slot);
    }
    if (incremental && (inst.change_no != changeNo || inst.update_time != header.snapTime ||
                        inst.update_milli_sec != header.snapMillisec)) {
        Fail("applied record left the slot's change number or time behind", slot);
    }
}

void Restore(Area& a, uint32_t slot) {
    const uint32_t first = slot > 0 ? slot - 1 : 0;
    const uint32_t last = slot + 1 < QUVO_INST_SLOTS ? slot + 1 : slot;
    memcpy(&a.area->instmts[first], &a.pristine->instmts[first], (last - first + 1) * sizeof(instrument));
    a.area->shfe_inst_cnt = a.pristine->shfe_inst_cnt;
    a.area->ine_inst_cnt = a.pristine->ine_inst_cnt;
    a.area->shfe_pktno = a.pristine->shfe_pktno;
    a.area->ine_pktno = a.pristine->ine_pktno;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_initialize(TheArea);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1 || size - 1 > UINT32_MAX) {
        return 0;
    }
    Area& a = TheArea();
    const uint8_t control = data[0];
    const size_t len = size - 1;
    // An exactly sized copy: the parser may write to it, and any read past
    // `len` is a heap overflow the sanitizer reports.
    std::unique_ptr<char[]> record(new char[len]);
    memcpy(record.get(), data + 1, len);

    CExanicUdpFunc& udp = (control & kOptionsOff) != 0 ? a.udpOptionsOff : a.udpOptionsOn;
    const DecodedRecordHead head = read_decoded_record_head(record.get(), len);
    const uint32_t slot = head.slot;
    if (slot == kNoSlot) {
        const int result = udp._ParseMirp(record.get(), static_cast<uint32_t>(len));
        if (result < -1 || result > 1) {
            Fail("result outside -1..1", slot);
        }
        return 0;
    }

    const DecodeHeader& header = head.header;
    const MarketDataIncreField& incre = head.incre;
    instrument& inst = a.area->instmts[slot];
    PrepareBook(inst, slot, control & kBookMask, *a.calc);
    switch (control & kChangeMask) {
        case kChangeFollows:
        case kChangeFollowsToo:
            inst.change_no = incre.changeNo - 1;
            break;
        case kChangeStale:
            inst.change_no = incre.changeNo;
            break;
        case kChangeAsPrepared:
            break;
    }
    const bool incremental = incre.fieldID == FID_MARKET_DATA_INCRE;
    const int passes = (control & kTwice) != 0 ? 2 : 1;
    for (int pass = 0; pass < passes; ++pass) {
        if (pass > 0) {
            inst.change_no = incre.changeNo - 1;
        }
        const instrument before = inst;
        const int result = udp._ParseMirp(record.get(), static_cast<uint32_t>(len));
        CheckParse(a, slot, before, result, incremental, incre.changeNo, header);
    }
    Restore(a, slot);
    return 0;
}
