// A seeded model of the two exchanges as the card sees them: instruments,
// five-level books, trades and order statistics, the MDQP snapshot carried
// over TCP, and the card's decoded incremental records, with faults on
// demand. The same seed and options always give the same market and bytes.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "sim/SimOptions.h"
#include "sim/SimState.h"

// Frames in delivery order, back to back in one buffer.
struct SimFrames {
    std::vector<char> bytes;
    std::vector<uint32_t> lengths;

    void Clear() {
        bytes.clear();
        lengths.clear();
    }
    void Add(const char* data, size_t size) {
        bytes.insert(bytes.end(), data, data + size);
        lengths.push_back(static_cast<uint32_t>(size));
    }
    void Add(const std::vector<char>& frame) { Add(frame.data(), frame.size()); }
    size_t Count() const { return lengths.size(); }
};

class CSimRandom {
public:
    explicit CSimRandom(uint64_t seed) : m_engine(seed) {}
    uint64_t Next() { return m_engine(); }
    // Uniform in [low, high].
    int64_t Between(int64_t low, int64_t high) {
        return low + static_cast<int64_t>(m_engine() % static_cast<uint64_t>(high - low + 1));
    }
    bool Chance(double probability) {
        return probability > 0 && static_cast<double>(m_engine() >> 11) * 0x1.0p-53 < probability;
    }

private:
    std::mt19937_64 m_engine;
};

class CExchangeModel {
public:
    // Raw-frame (Ethernet) addresses of the snapshot connections.
    static constexpr uint32_t kShfeServer = 0x0A0A0101;  // 10.10.1.1
    static constexpr uint32_t kIneServer = 0x0A0A0201;   // 10.10.2.1
    static constexpr uint32_t kHost = 0x0A0A6401;        // 10.10.100.1

    explicit CExchangeModel(const SimOptions& options);

    // Advances the market by one record of an instrument of an exchange in
    // `exchanges` (bit 0 SHFE, bit 1 INE) and appends what the card hands the
    // host for it, faults included. Returns false when no exchange is usable
    // or the record limit is reached.
    bool Step(unsigned exchanges, SimFrames& out);

    // The snapshot of the exchanges in `exchanges` as taken now, as Ethernet
    // frames of one TCP connection per exchange, in sequence on the snapshot port.
    void BuildSnapshotFrames(unsigned exchanges, SimFrames& out);
    // The MDQP messages of one exchange's snapshot as taken now.
    std::vector<std::vector<char>> BuildSnapshotMessages(ESimExchange exchange);

    // Whether the last Step lost its record on purpose (a gap fault).
    bool LastStepLost() const { return m_lastLost; }
    // Whether a lost record still waits for the record that reveals it.
    bool HasUnrevealedLoss() const { return m_forced >= 0; }

    SimState GetState() const;
    const SimOptions& GetOptions() const { return m_options; }
    uint64_t GetRecords() const { return m_records; }
    // Exchange time of the last record, in nanoseconds since midnight.
    int64_t GetTimeNs() const { return m_timeNs; }
    bool HasExchange(ESimExchange exchange) const;

private:
    struct Level {
        int32_t offset;  // ticks from the codec price
        int32_t volume;
    };
    struct Instrument {
        SimInstrumentState state;
        int32_t lowOffset;
        int32_t highOffset;
        std::vector<Level> side[2];  // bids, asks; best first; the first five are published
        bool traded = false;
        int32_t lastOffset = 0;
        int32_t highestOffset = 0;
        int32_t lowestOffset = 0;
        uint16_t updateMillisec = 0;
    };
    struct Event {
        uint8_t side;
        uint8_t level;  // 1..5
        uint8_t type;   // PRICE_EVENT_*
        int32_t offset;
        int32_t volume;
    };
    // What one record tells the feed.
    struct Change {
        std::vector<Event> levels;
        bool deal = false;
        int32_t dealOffset = 0;
        int32_t dealVolume = 0;
        int64_t interest = 0;
        bool high = false;
        bool low = false;
        bool statistics[2] = {};
        int32_t statisticsVolume[2] = {};
        int64_t statisticsAmount[2] = {};  // ticks times volume
    };

    void _BuildInstruments(ESimExchange exchange, int count);
    void _BuildBook(Instrument& inst);
    size_t _PickInstrument(unsigned exchanges);
    void _Act(Instrument& inst, Change& change);
    void _Trade(Instrument& inst, int aggressorSide, Change& change);
    void _Add(Instrument& inst, int side, std::vector<Event>& events);
    void _Cancel(Instrument& inst, int side, std::vector<Event>& events);
    void _AddLevel(Instrument& inst, int side, Level level, std::vector<Event>& events);
    void _RemoveLevel(Instrument& inst, int side, size_t index, std::vector<Event>& events);
    void _SetVolume(Instrument& inst, int side, size_t index, int32_t volume, std::vector<Event>& events);
    std::vector<char> _Encode(const Instrument& inst, uint32_t changeNo, const Change& change);
    double _Price(const Instrument& inst, int32_t offset) const;
    uint32_t _SnapTime() const;
    uint16_t _Millisec() const;

    SimOptions m_options;
    CSimRandom m_market;  // the market's own choices
    CSimRandom m_faults;  // fault choices, so faults never change the market
    std::vector<Instrument> m_instruments;
    size_t m_exchangeBegin[2] = {};
    size_t m_exchangeEnd[2] = {};
    int32_t m_packetNo[2] = {1, 1};
    int64_t m_timeNs;
    uint64_t m_records = 0;
    uint64_t m_snapshots = 0;
    SimFaultCounts m_faultCounts;
    int32_t m_snapNo = 0;
    uint16_t m_nextSourcePort = 40000;
    // The instrument whose next record reveals a lost one, or -1.
    int64_t m_forced = -1;
    uint64_t m_snapshotsAtLoss = 0;
    // Losses the feed sees; it drops every record after the first until its
    // fresh snapshot, so only that one counts.
    uint64_t m_gaps = 0;
    bool m_gapSinceSnapshot = false;
    bool m_lastLost = false;
    std::vector<std::vector<char>> m_history;  // recent records, for stale repeats
    size_t m_historyNext = 0;
};
