#include "tools/DumpFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <type_traits>

namespace {

// Fifteen significant digits print every price and amount the exchanges send
// as written, without the binary noise of a seventeen-digit rendering.
std::string table_number(double value) {
    return printf_string("%.15g", value);
}

std::string json_number(double value) {
    return std::isfinite(value) ? printf_string("%.17g", value) : "null";
}

size_t id_length(const instrument& inst) {
    return strnlen(reinterpret_cast<const char*>(inst.inst_id), sizeof(inst.inst_id));
}

std::string json_id(const instrument& inst) {
    std::string text;
    for (size_t i = 0; i < id_length(inst); ++i) {
        const unsigned char c = inst.inst_id[i];
        if (c == '"' || c == '\\') {
            text += '\\';
            text += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7f) {
            text += printf_string("\\u%04x", c);
        } else {
            text += static_cast<char>(c);
        }
    }
    return text;
}

template <typename T>
std::string json_array(const T (&values)[QUVO_BOOK_LEVELS]) {
    std::string text = "[";
    for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
        if (k > 0) {
            text += ',';
        }
        if constexpr (std::is_floating_point_v<T>) {
            text += json_number(values[k]);
        } else {
            text += std::to_string(values[k]);
        }
    }
    return text + "]";
}

void trim_line_end(std::string& text) {
    const size_t last = text.find_last_not_of(' ');
    text.erase(last == std::string::npos ? 0 : last + 1);
}

// Accepts a value as a whole number of units of the last decimal when it lies
// within a few units in the last place of one: the error that tick
// arithmetic in doubles leaves behind.
bool fits_decimals(double value, int decimals) {
    const double scaled = value * std::pow(10.0, decimals);
    return std::fabs(scaled - std::nearbyint(scaled)) <= 1e-9 * std::max(1.0, std::fabs(scaled));
}

}  // namespace

int price_decimals(const double* values, size_t count) {
    for (int decimals = 0; decimals <= kMaxPriceDecimals; ++decimals) {
        bool fits = true;
        for (size_t i = 0; i < count && fits; ++i) {
            fits = values[i] == 0.0 || !std::isfinite(values[i]) || fits_decimals(values[i], decimals);
        }
        if (fits) {
            return decimals;
        }
    }
    return -1;
}

int instrument_price_decimals(const instrument& inst) {
    double prices[3 + 2 * QUVO_BOOK_LEVELS] = {inst.last_px, inst.highest_price, inst.lowest_price};
    std::copy(std::begin(inst.bid_px), std::end(inst.bid_px), prices + 3);
    std::copy(std::begin(inst.ask_px), std::end(inst.ask_px), prices + 3 + QUVO_BOOK_LEVELS);
    return price_decimals(prices, std::size(prices));
}

std::string format_price(double value, int decimals) {
    if (decimals < 0 || !std::isfinite(value)) {
        char buffer[64];
        const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
        return std::string(buffer, result.ptr);
    }
    std::string text = printf_string("%.*f", decimals, value);
    return text == printf_string("%.*f", decimals, -0.0) ? text.substr(1) : text;
}

double round_price(double value, int decimals) {
    if (decimals < 0 || !std::isfinite(value)) {
        return value;
    }
    return std::strtod(printf_string("%.*f", decimals, value).c_str(), nullptr);
}

std::string format_amount(double value) {
    return format_price(value, price_decimals(&value, 1));
}

const char* exchange_name(uint32_t slot) {
    return quvo_slot_is_ine(slot) ? "INE" : "SHFE";
}

uint32_t inst_no_of(uint32_t slot) {
    return quvo_slot_is_ine(slot) ? QUVO_INST_SLOTS - 1 - slot : slot;
}

std::string format_update_time(uint32_t updateTime, uint16_t milliSec) {
    return printf_string("%02u:%02u:%02u.%03u", updateTime / 10000, updateTime / 100 % 100, updateTime % 100,
                         static_cast<unsigned>(milliSec));
}

std::string inst_id_text(const instrument& inst) {
    std::string text;
    for (size_t i = 0; i < id_length(inst); ++i) {
        const unsigned char c = inst.inst_id[i];
        text += (c >= 0x20 && c < 0x7f) ? std::string(1, static_cast<char>(c)) : printf_string("\\x%02x", c);
    }
    return text;
}

std::string format_table(const instrument& inst, uint32_t slot) {
    std::string text = inst_id_text(inst) + "  " + exchange_name(slot) +
                       printf_string("  slot %u  inst_no %u  type %u  change_no %u  time ", slot,
                                     inst_no_of(slot), static_cast<unsigned>(inst.type), inst.change_no) +
                       format_update_time(inst.update_time, inst.update_milli_sec) + "\n";
    text += "  last " + table_number(inst.last_px) + printf_string("  volume %u", inst.volume) +
            "  turnover " + table_number(inst.turnover) + "  open_interest " +
            table_number(inst.open_interest) + "\n";
    text += "  high " + table_number(inst.highest_price) + "  low " + table_number(inst.lowest_price) +
            printf_string("  bid_totvol %d  ask_totvol %d", inst.bid_totvol, inst.ask_totvol) +
            "  bid_totamount " + table_number(inst.bid_totamount) + "  ask_totamount " +
            table_number(inst.ask_totamount) + "\n";
    text += printf_string("%7s%11s%15s | %-15s%11s\n", "level", "bid vol", "bid px", "ask px", "ask vol");
    for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
        const bool bidEmpty = inst.bid_px[k] == 0.0 && inst.bid_vol[k] == 0;
        const bool askEmpty = inst.ask_px[k] == 0.0 && inst.ask_vol[k] == 0;
        std::string line = printf_string(
            "%7d%11s%15s | %-15s%11s%s", k + 1, bidEmpty ? "" : std::to_string(inst.bid_vol[k]).c_str(),
            bidEmpty ? "" : table_number(inst.bid_px[k]).c_str(),
            askEmpty ? "" : table_number(inst.ask_px[k]).c_str(),
            askEmpty ? "" : std::to_string(inst.ask_vol[k]).c_str(), k >= kExchangeLevels ? "  local" : "");
        trim_line_end(line);
        text += line + "\n";
    }
    return text;
}

std::string format_json(const instrument& inst, uint32_t slot) {
    std::string text = "{\"id\":\"" + json_id(inst) + "\",\"exchange\":\"" + exchange_name(slot) + "\"";
    text += printf_string(",\"slot\":%u,\"inst_no\":%u,\"type\":%u,\"change_no\":%u", slot, inst_no_of(slot),
                          static_cast<unsigned>(inst.type), inst.change_no);
    text += printf_string(",\"update_time\":%u,\"update_milli_sec\":%u", inst.update_time,
                          static_cast<unsigned>(inst.update_milli_sec));
    text += ",\"last_px\":" + json_number(inst.last_px) + printf_string(",\"volume\":%u", inst.volume) +
            ",\"turnover\":" + json_number(inst.turnover) +
            ",\"open_interest\":" + json_number(inst.open_interest);
    text += printf_string(",\"bid_totvol\":%d,\"ask_totvol\":%d", inst.bid_totvol, inst.ask_totvol);
    text += ",\"bid_totamount\":" + json_number(inst.bid_totamount) +
            ",\"ask_totamount\":" + json_number(inst.ask_totamount) +
            ",\"highest_price\":" + json_number(inst.highest_price) +
            ",\"lowest_price\":" + json_number(inst.lowest_price);
    text += ",\"bid_px\":" + json_array(inst.bid_px) + ",\"bid_vol\":" + json_array(inst.bid_vol) +
            ",\"ask_px\":" + json_array(inst.ask_px) + ",\"ask_vol\":" + json_array(inst.ask_vol) + "}\n";
    return text;
}

std::string format_counts_table(const share& area) {
    return printf_string("shfe_inst_cnt %d\nine_inst_cnt %d\nshfe_pktno %d\nine_pktno %d\n",
                         area.shfe_inst_cnt, area.ine_inst_cnt, area.shfe_pktno, area.ine_pktno);
}

std::string format_counts_json(const share& area) {
    return printf_string("{\"shfe_inst_cnt\":%d,\"ine_inst_cnt\":%d,\"shfe_pktno\":%d,\"ine_pktno\":%d}\n",
                         area.shfe_inst_cnt, area.ine_inst_cnt, area.shfe_pktno, area.ine_pktno);
}

std::string printf_string(const char* format, ...) {
    char buffer[512];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    return std::string(buffer,
                       length < 0 ? 0 : std::min<size_t>(static_cast<size_t>(length), sizeof(buffer) - 1));
}
