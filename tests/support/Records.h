// Records shared by the reader and tool tests.
#pragma once

#include <cstring>
#include <string>

#include "interface/commonheader.h"
// Tests reading tool output take words() from here too.
#include "tests/support/TextUtil.h"

inline void set_id(instrument& inst, const char* id) {
    memset(inst.inst_id, 0, sizeof(inst.inst_id));
    memcpy(inst.inst_id, id, strnlen(id, sizeof(inst.inst_id)));
}

// The identifier of `inst`, up to its NUL or all sixteen bytes.
inline std::string id_of(const instrument& inst) {
    const char* id = reinterpret_cast<const char*>(inst.inst_id);
    return std::string(id, strnlen(id, sizeof(inst.inst_id)));
}

// cu2501: statistics, five exchange levels a side and one local bid level.
inline instrument copper_record() {
    instrument inst{};
    set_id(inst, "cu2501");
    inst.type = 1;
    inst.change_no = 10;
    inst.update_time = 93015;
    inst.update_milli_sec = 500;
    inst.last_px = 72010.0;
    inst.volume = 1234;
    inst.turnover = 444370000.5;
    inst.open_interest = 5678.0;
    inst.bid_totvol = 100;
    inst.ask_totvol = 200;
    inst.bid_totamount = 7200000.0;
    inst.ask_totamount = 14400000.25;
    inst.highest_price = 72100.0;
    inst.lowest_price = 71900.0;
    for (int k = 0; k < 5; ++k) {
        inst.bid_px[k] = 72000.0 - 10 * k;
        inst.bid_vol[k] = 10 + k;
        inst.ask_px[k] = 72010.0 + 10 * k;
        inst.ask_vol[k] = 5 + k;
    }
    inst.bid_px[5] = 71950.0;
    inst.bid_vol[5] = 2;
    return inst;
}
