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

// Faults the model put into the frames it built, and the frames themselves.
// A fault that was drawn but whose frame was never built (a record lost to a
// gap, segments after an injected reset) is not counted.
struct SimFaultCounts {
    // Snapshot frames, port 1.
    uint64_t tcpReorder = 0;        // segment pairs sent swapped
    uint64_t tcpDuplicate = 0;      // segments sent a second time
    uint64_t tcpLoss = 0;           // segments held back and sent later
    uint64_t tcpBadChecksum = 0;    // corrupted copies sent before the real segment
    uint64_t tcpPadding = 0;        // segments sent with Ethernet padding
    uint64_t tcpOtherProtocol = 0;  // UDP (17) or ICMP (1) frames slipped in
    uint64_t tcpOtherPort = 0;      // TCP frames to another port slipped in
    uint64_t tcpReset = 0;          // RST+ACK frames sent
    uint64_t rawFrames = 0;         // every frame built for port 1, faults included
    // Decoded frames, port 0.
    uint64_t stale = 0;          // old records sent again
    uint64_t crossed = 0;        // book-crossing records sent before the real one
    uint64_t unknownField = 0;   // records sent with an unknown field appended
    uint64_t shortRecord = 0;    // frames shorter than a record header
    uint64_t badLength = 0;      // frames longer than the card hands over
    uint64_t decodedFrames = 0;  // every frame a Step built for port 0, faults included

    bool operator==(const SimFaultCounts&) const = default;
};

struct SimState {
    uint64_t seed = 0;
    uint64_t records = 0;    // decoded records made, the lost ones included
    uint64_t snapshots = 0;  // snapshots sent
    uint64_t gaps = 0;       // lost records the feed sees, each a restart
    SimFaultCounts faults;   // "faults" in JSON; all 0 when a file has none
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
