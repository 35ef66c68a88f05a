// The exchange model's view of every instrument: what a correct feed holds in
// shared memory once it has applied everything delivered to it. Written as
// JSON by quvo-sim and by the software card's expect= option, read back by
// tests and tools. The format is described in docs/simulator.md.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

constexpr int kSimPublishedLevels = 5;

enum class ESimExchange { SHFE, INE };
enum class ESimKind { FUTURE, OPTION, TAS, SPREAD };

const char* sim_exchange_name(ESimExchange exchange);  // "SHFE", "INE"
const char* sim_kind_name(ESimKind kind);              // "future", "option", "tas", "spread"
bool sim_parse_exchange(const std::string& text, ESimExchange& exchange);
bool sim_parse_kind(const std::string& text, ESimKind& kind);

struct SimInstrumentState {
    ESimExchange exchange = ESimExchange::SHFE;
    int32_t instNo = 0;
    int32_t slot = 0;  // instmts index: SHFE instNo, INE 20479 - instNo
    std::string id;
    ESimKind kind = ESimKind::FUTURE;
    double priceTick = 0;
    double codecPrice = 0;
    int32_t volumeMultiple = 0;
    double upperLimit = 0;
    double lowerLimit = 0;

    uint32_t changeNo = 0;
    double lastPx = 0;  // 0 until the first trade
    uint32_t volume = 0;
    double turnover = 0;
    double openInterest = 0;
    int32_t bidTotVol = 0;
    int32_t askTotVol = 0;
    double bidTotAmount = 0;
    double askTotAmount = 0;
    double highestPrice = 0;
    double lowestPrice = 0;
    // Published levels, best first; an absent level is price 0, volume 0.
    double bidPx[kSimPublishedLevels] = {};
    int32_t bidVol[kSimPublishedLevels] = {};
    double askPx[kSimPublishedLevels] = {};
    int32_t askVol[kSimPublishedLevels] = {};

    bool operator==(const SimInstrumentState&) const = default;
};

struct SimState {
    uint64_t seed = 0;
    uint64_t records = 0;    // decoded records made, the lost ones included
    uint64_t snapshots = 0;  // snapshots sent
    uint64_t gaps = 0;       // lost records the feed sees, each a restart
    std::vector<SimInstrumentState> instruments;

    bool operator==(const SimState&) const = default;
};

// Writes `state` as JSON to `path`. Doubles are written so that reading them
// back gives the same bits. Returns false with `error` naming the file.
bool write_sim_state(const std::string& path, const SimState& state, std::string& error);
// An infinite or NaN double comes out as null, which read_sim_state refuses,
// and bytes of an id that are not UTF-8 as U+FFFD; write_sim_state refuses
// such a state before writing anything.
std::string format_sim_state(const SimState& state);

// Reads a file written by write_sim_state. Returns false with `error` naming
// the file, and the line and what was expected, when it is not one.
bool read_sim_state(const std::string& path, SimState& state, std::string& error);
// parse_sim_state names its text "<input>" in errors. Both leave `state`
// untouched on failure.
bool parse_sim_state(const std::string& text, SimState& state, std::string& error);
