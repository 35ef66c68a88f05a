#include "sim/StateCompare.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace {

std::string text_of(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    return std::string(buffer, result.ptr);
}

template <typename T>
std::string text_of(T value) {
    return std::to_string(value);
}

// Quoted, with bytes outside printable ASCII as \xNN.
std::string quoted_id(const std::string& id) {
    std::string text = "\"";
    for (const char ch : id) {
        const auto byte = static_cast<unsigned char>(ch);
        if (byte < 0x20 || byte >= 0x7f || ch == '"' || ch == '\\') {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
            text += escaped;
        } else {
            text += ch;
        }
    }
    return text + "\"";
}

class CComparer {
public:
    explicit CComparer(std::vector<SimFieldDifference>& out) : m_out(out) {}

    template <typename T>
    void operator()(const std::string& field, T got, T want) {
        if (!(got == want)) {
            m_out.push_back({field, text_of(got), text_of(want)});
        }
    }

private:
    std::vector<SimFieldDifference>& m_out;
};

}  // namespace

int32_t sim_slot_of(const SimInstrumentState& inst) {
    const int32_t limit =
        inst.exchange == ESimExchange::SHFE ? QUVO_SHFE_MAX_INST_CNT : QUVO_INE_MAX_INST_CNT;
    if (inst.instNo < 0 || inst.instNo >= limit) {
        return -1;
    }
    const auto number = static_cast<uint32_t>(inst.instNo);
    return static_cast<int32_t>(inst.exchange == ESimExchange::SHFE ? quvo_shfe_slot(number)
                                                                    : quvo_ine_slot(number));
}

std::vector<SimFieldDifference> compare_instrument(const instrument& got, const SimInstrumentState& want) {
    std::vector<SimFieldDifference> out;
    const std::string gotId(reinterpret_cast<const char*>(got.inst_id),
                            strnlen(reinterpret_cast<const char*>(got.inst_id), sizeof(got.inst_id)));
    const std::string wantId = want.id.substr(0, sizeof(got.inst_id) - 1);
    if (gotId != wantId) {
        out.push_back({"id", quoted_id(gotId), quoted_id(wantId)});
    }
    CComparer compare(out);
    compare("change_no", got.change_no, want.changeNo);
    compare("last_px", got.last_px, want.lastPx);
    compare("volume", got.volume, want.volume);
    compare("turnover", got.turnover, want.turnover);
    compare("open_interest", got.open_interest, want.openInterest);
    compare("bid_totvol", got.bid_totvol, want.bidTotVol);
    compare("ask_totvol", got.ask_totvol, want.askTotVol);
    compare("bid_totamount", got.bid_totamount, want.bidTotAmount);
    compare("ask_totamount", got.ask_totamount, want.askTotAmount);
    compare("highest_price", got.highest_price, want.highestPrice);
    compare("lowest_price", got.lowest_price, want.lowestPrice);
    for (int level = 0; level < kSimPublishedLevels; ++level) {
        const std::string index = "[" + std::to_string(level) + "]";
        compare("bid_px" + index, got.bid_px[level], want.bidPx[level]);
        compare("bid_vol" + index, got.bid_vol[level], want.bidVol[level]);
        compare("ask_px" + index, got.ask_px[level], want.askPx[level]);
        compare("ask_vol" + index, got.ask_vol[level], want.askVol[level]);
    }
    return out;
}

std::string describe_difference(const SimInstrumentState& want, const SimFieldDifference& difference) {
    return want.id + " " + sim_exchange_name(want.exchange) + " slot " + std::to_string(want.slot) + " " +
           difference.field + ": " + difference.got + " in shared memory, " + difference.want + " expected";
}
