#include "tests/support/BookCheck.h"

#include "sim/StateCompare.h"
#include "tests/support/Records.h"

bool expect_subscribed(const SimInstrumentState& inst, const SubscriptionRules& rules) {
    if (!(inst.exchange == ESimExchange::SHFE ? rules.shfe : rules.ine)) {
        return false;
    }
    if (!rules.options && inst.id.size() > 6) {
        return false;
    }
    if (rules.all) {
        return true;
    }
    for (const std::string& entry : rules.insts) {
        if ((entry.size() == 2 && inst.id.compare(0, 2, entry) == 0) || entry == inst.id.substr(0, 6)) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> compare_books(const share& area, const SimState& expected,
                                       const SubscriptionRules& rules) {
    std::vector<std::string> out;
    int32_t counts[2] = {0, 0};
    std::vector<bool> expectedSlot(QUVO_INST_SLOTS, false);
    for (const SimInstrumentState& inst : expected.instruments) {
        const int e = inst.exchange == ESimExchange::SHFE ? 0 : 1;
        const bool enabled = e == 0 ? rules.shfe : rules.ine;
        // Counted when the feed accepts the definition, subscribed or not.
        if (enabled && (rules.options || inst.id.size() <= 6) && inst.instNo + 1 > counts[e]) {
            counts[e] = inst.instNo + 1;
        }
        if (!expect_subscribed(inst, rules)) {
            continue;
        }
        expectedSlot[static_cast<size_t>(inst.slot)] = true;
        for (const SimFieldDifference& difference : compare_instrument(area.instmts[inst.slot], inst)) {
            out.push_back(describe_difference(inst, difference));
        }
    }
    if (area.shfe_inst_cnt != counts[0]) {
        out.push_back("shfe_inst_cnt is " + std::to_string(area.shfe_inst_cnt) + ", expected " +
                      std::to_string(counts[0]));
    }
    if (area.ine_inst_cnt != counts[1]) {
        out.push_back("ine_inst_cnt is " + std::to_string(area.ine_inst_cnt) + ", expected " +
                      std::to_string(counts[1]));
    }
    for (size_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        if (!expectedSlot[slot] && area.instmts[slot].inst_id[0] != 0) {
            out.push_back("slot " + std::to_string(slot) + " holds " + id_of(area.instmts[slot]) +
                          ", which should not be subscribed");
        }
    }
    return out;
}

std::vector<std::string> check_ring(const uint16_t* ring, const share& area, size_t& announced) {
    std::vector<std::string> out;
    size_t end = 0;
    while (end < QUVO_UPDATE_RING_ENTRIES && ring[end] != QUVO_UPDATE_RING_END) {
        const uint16_t slot = ring[end];
        if (slot >= QUVO_INST_SLOTS || area.instmts[slot].inst_id[0] == 0) {
            out.push_back("ring entry " + std::to_string(end) + " announces slot " + std::to_string(slot) +
                          ", which holds no instrument");
        }
        ++end;
    }
    announced = end;
    if (end == QUVO_UPDATE_RING_ENTRIES) {
        out.push_back("the ring has no end marker");
    }
    for (size_t i = end + 1; i < QUVO_UPDATE_RING_ENTRIES; ++i) {
        if (ring[i] != QUVO_UPDATE_RING_END) {
            out.push_back("ring entry " + std::to_string(i) + " after the end marker is " +
                          std::to_string(ring[i]));
            break;
        }
    }
    return out;
}

SimInstrumentState expected_of_record(const instrument& record, uint32_t slot) {
    SimInstrumentState inst;
    inst.exchange = quvo_slot_is_ine(slot) ? ESimExchange::INE : ESimExchange::SHFE;
    inst.instNo = static_cast<int32_t>(quvo_slot_inst_no(slot));
    inst.slot = static_cast<int32_t>(slot);
    inst.id = id_of(record);
    inst.changeNo = record.change_no;
    inst.lastPx = record.last_px;
    inst.volume = record.volume;
    inst.turnover = record.turnover;
    inst.openInterest = record.open_interest;
    inst.bidTotVol = record.bid_totvol;
    inst.askTotVol = record.ask_totvol;
    inst.bidTotAmount = record.bid_totamount;
    inst.askTotAmount = record.ask_totamount;
    inst.highestPrice = record.highest_price;
    inst.lowestPrice = record.lowest_price;
    for (int k = 0; k < kSimPublishedLevels; ++k) {
        inst.bidPx[k] = record.bid_px[k];
        inst.bidVol[k] = record.bid_vol[k];
        inst.askPx[k] = record.ask_px[k];
        inst.askVol[k] = record.ask_vol[k];
    }
    return inst;
}
