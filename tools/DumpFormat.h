// Text and JSON renderings of shared-memory records for quvo-dump.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "interface/commonheader.h"

// Levels a side the exchange publishes; the feed keeps the rest locally.
constexpr int kExchangeLevels = 5;

// printf into a string, cut at 511 bytes.
std::string printf_string(const char* format, ...) __attribute__((format(printf, 1, 2)));

// "SHFE" or "INE", from the slot.
const char* exchange_name(uint32_t slot);
// The exchange's instrument number held in `slot`.
uint32_t inst_no_of(uint32_t slot);
// 93015 and 500 give "09:30:15.500".
std::string format_update_time(uint32_t updateTime, uint16_t milliSec);
// The identifier up to its first NUL, at most 16 bytes; other bytes outside
// printable ASCII appear as \xNN.
std::string inst_id_text(const instrument& inst);

// The shared record carries no tick size, so the precision a tick gives is
// recovered from the prices themselves: the fewest decimals (at most
// kMaxPriceDecimals) that reproduce every nonzero finite value to within
// rounding error, or -1 when no such count exists.
constexpr int kMaxPriceDecimals = 8;
int price_decimals(const double* values, size_t count);
// Over last, high, low and every level's price of the record.
int instrument_price_decimals(const instrument& inst);
// `value` at `decimals` places ("576.2", not "576.20000000000005"); -1 gives
// the shortest text that reads back as the same double.
std::string format_price(double value, int decimals);
// `value` rounded to `decimals` places: the double nearest that decimal, so
// that its shortest rendering is the decimal itself. -1 leaves it as it is.
double round_price(double value, int decimals);
// A single amount (turnover, totals) at its own precision.
std::string format_amount(double value);

// A level with neither price nor volume, shown blank.
bool level_empty(double px, int32_t vol);
// One ladder row: level number, bid volume and price | ask price and volume,
// then `source`; an empty side blank, no blanks at the end, no newline.
std::string format_level_row(int level, double bidPx, int32_t bidVol, double askPx, int32_t askVol,
                             int decimals, const char* source);
// Cuts the blanks at the end of `text`.
void trim_right(std::string& text);

// Header, statistics and the ten-level ladder, ending in a newline. Prices
// are written at the precision of the record's prices, amounts each at its own.
std::string format_table(const instrument& inst, uint32_t slot);
// One JSON object on one line, with its newline, under the expected state's
// names (id, exchange, slot, inst_no, type, change_no, ..., bid_px, bid_vol,
// ask_px, ask_vol; ten levels a side). Prices are rounded as format_table
// writes them, so each reads as its decimal; values that are not finite are
// null. The identifier's bytes are taken as Latin-1.
std::string format_json(const instrument& inst, uint32_t slot);

std::string format_counts_table(const share& area);
std::string format_counts_json(const share& area);
