#include "tools/DumpFormat.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

namespace {

size_t id_length(const instrument& inst) {
    return strnlen(reinterpret_cast<const char*>(inst.inst_id), sizeof(inst.inst_id));
}

// JSON text is Unicode; an identifier byte is taken as the character of that
// number (Latin-1), as the Python reader decodes it.
std::string id_utf8(const instrument& inst) {
    std::string text;
    for (size_t i = 0; i < id_length(inst); ++i) {
        const unsigned char c = inst.inst_id[i];
        if (c < 0x80) {
            text += static_cast<char>(c);
        } else {
            text += static_cast<char>(0xC0 | (c >> 6));
            text += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return text;
}

template <typename T, typename Convert>
nlohmann::ordered_json json_levels(const T (&values)[QUVO_BOOK_LEVELS], Convert convert) {
    nlohmann::ordered_json levels = nlohmann::ordered_json::array();
    for (const T value : values) {
        levels.push_back(convert(value));
    }
    return levels;
}

double round_amount(double value) {
    return round_price(value, price_decimals(&value, 1));
}

std::string json_line(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', true) + "\n";
}

// Accepts a value as a whole number of units of the last decimal when it lies
// within 1e-11 of one, relatively: tens of thousands of units in the last
// place, more than tick arithmetic and long sums of amounts leave behind, yet
// far below any digit a price or amount really has.
bool fits_decimals(double value, int decimals) {
    const double scaled = value * std::pow(10.0, decimals);
    return std::fabs(scaled - std::nearbyint(scaled)) <= 1e-11 * std::max(1.0, std::fabs(scaled));
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
    return quvo_slot_inst_no(slot);
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
    const int decimals = instrument_price_decimals(inst);
    const auto price = [decimals](double value) { return format_price(value, decimals); };
    std::string text = inst_id_text(inst) + "  " + exchange_name(slot) +
                       printf_string("  slot %u  inst_no %u  type %u  change_no %u  time ", slot,
                                     inst_no_of(slot), static_cast<unsigned>(inst.type), inst.change_no) +
                       format_update_time(inst.update_time, inst.update_milli_sec) + "\n";
    text += "  last " + price(inst.last_px) + printf_string("  volume %u", inst.volume) + "  turnover " +
            format_amount(inst.turnover) + "  open_interest " + format_amount(inst.open_interest) + "\n";
    text += "  high " + price(inst.highest_price) + "  low " + price(inst.lowest_price) +
            printf_string("  bid_totvol %d  ask_totvol %d", inst.bid_totvol, inst.ask_totvol) +
            "  bid_totamount " + format_amount(inst.bid_totamount) + "  ask_totamount " +
            format_amount(inst.ask_totamount) + "\n";
    text += printf_string("%7s%11s%15s | %-15s%11s\n", "level", "bid vol", "bid px", "ask px", "ask vol");
    for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
        text += format_level_row(k + 1, inst.bid_px[k], inst.bid_vol[k], inst.ask_px[k], inst.ask_vol[k],
                                 decimals, k >= kExchangeLevels ? "local" : "") +
                "\n";
    }
    return text;
}

bool level_empty(double px, int32_t vol) {
    return px == 0.0 && vol == 0;
}

void trim_right(std::string& text) {
    const size_t last = text.find_last_not_of(' ');
    text.erase(last == std::string::npos ? 0 : last + 1);
}

std::string format_level_row(int level, double bidPx, int32_t bidVol, double askPx, int32_t askVol,
                             int decimals, const char* source) {
    const bool bidEmpty = level_empty(bidPx, bidVol);
    const bool askEmpty = level_empty(askPx, askVol);
    std::string text =
        printf_string("%7d%11s%15s | %-15s%11s  %s", level, bidEmpty ? "" : std::to_string(bidVol).c_str(),
                      bidEmpty ? "" : format_price(bidPx, decimals).c_str(),
                      askEmpty ? "" : format_price(askPx, decimals).c_str(),
                      askEmpty ? "" : std::to_string(askVol).c_str(), source);
    trim_right(text);
    return text;
}

std::string format_json(const instrument& inst, uint32_t slot) {
    const int decimals = instrument_price_decimals(inst);
    const auto price = [decimals](double value) { return round_price(value, decimals); };
    const auto volume = [](int32_t value) { return value; };
    const nlohmann::ordered_json record = {
        {"id", id_utf8(inst)},
        {"exchange", exchange_name(slot)},
        {"slot", slot},
        {"inst_no", inst_no_of(slot)},
        {"type", inst.type},
        {"change_no", inst.change_no},
        {"update_time", inst.update_time},
        {"update_milli_sec", inst.update_milli_sec},
        {"last_px", price(inst.last_px)},
        {"volume", inst.volume},
        {"turnover", round_amount(inst.turnover)},
        {"open_interest", round_amount(inst.open_interest)},
        {"bid_totvol", inst.bid_totvol},
        {"ask_totvol", inst.ask_totvol},
        {"bid_totamount", round_amount(inst.bid_totamount)},
        {"ask_totamount", round_amount(inst.ask_totamount)},
        {"highest_price", price(inst.highest_price)},
        {"lowest_price", price(inst.lowest_price)},
        {"bid_px", json_levels(inst.bid_px, price)},
        {"bid_vol", json_levels(inst.bid_vol, volume)},
        {"ask_px", json_levels(inst.ask_px, price)},
        {"ask_vol", json_levels(inst.ask_vol, volume)},
    };
    return json_line(record);
}

std::string format_counts_table(const share& area) {
    return printf_string("shfe_inst_cnt %d\nine_inst_cnt %d\nshfe_pktno %d\nine_pktno %d\n",
                         area.shfe_inst_cnt, area.ine_inst_cnt, area.shfe_pktno, area.ine_pktno);
}

std::string format_counts_json(const share& area) {
    const nlohmann::ordered_json counts = {{"shfe_inst_cnt", area.shfe_inst_cnt},
                                           {"ine_inst_cnt", area.ine_inst_cnt},
                                           {"shfe_pktno", area.shfe_pktno},
                                           {"ine_pktno", area.ine_pktno}};
    return json_line(counts);
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
