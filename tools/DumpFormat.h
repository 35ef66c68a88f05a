// Text and JSON renderings of shared-memory records for quvo-dump.
#pragma once

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

// Header, statistics and the ten-level ladder, ending in a newline.
std::string format_table(const instrument& inst, uint32_t slot);
// One JSON object on one line, with its newline.
std::string format_json(const instrument& inst, uint32_t slot);

std::string format_counts_table(const share& area);
std::string format_counts_json(const share& area);
