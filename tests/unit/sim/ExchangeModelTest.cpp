#include "sim/ExchangeModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "interface/commonheader.h"
#include "sim/MdqpBuilder.h"
#include "sim/SimDevice.h"
#include "sim/SimOptions.h"
#include "src/dev/Registers.h"
#include "src/udp/DecodedRecord.h"

namespace {

int64_t g_nowNs = 0;

int64_t FakeClock() {
    return g_nowNs;
}

SimOptions Market(int shfe, int ine, uint64_t seed = 1) {
    SimOptions options;
    options.shfe = shfe;
    options.ine = ine;
    options.seed = seed;
    return options;
}

SimState Simulate(const SimOptions& options, int steps, SimFrames* all = nullptr) {
    CExchangeModel model(options);
    SimFrames frames;
    for (int i = 0; i < steps; ++i) {
        frames.Clear();
        model.Step(3, frames);
        if (all != nullptr) {
            all->bytes.insert(all->bytes.end(), frames.bytes.begin(), frames.bytes.end());
            all->lengths.insert(all->lengths.end(), frames.lengths.begin(), frames.lengths.end());
        }
    }
    return model.GetState();
}

TEST(ExchangeModel, TheSameSeedGivesTheSameMarketAndBytes) {
    SimFrames first, second;
    EXPECT_EQ(Simulate(Market(100, 30), 5000, &first), Simulate(Market(100, 30), 5000, &second));
    EXPECT_EQ(first.bytes, second.bytes);
    EXPECT_NE(Simulate(Market(100, 30, 2), 5000), Simulate(Market(100, 30), 5000));
}

TEST(ExchangeModel, InstrumentsOfEveryKindWithNumbersInRange) {
    for (const auto& [shfe, ine] : {std::pair{1, 1}, std::pair{10, 5}, std::pair{500, 200},
                                    std::pair{QUVO_SHFE_MAX_INST_CNT, QUVO_INE_MAX_INST_CNT}}) {
        const SimState state = CExchangeModel(Market(shfe, ine)).GetState();
        ASSERT_EQ(state.instruments.size(), static_cast<size_t>(shfe + ine));
        std::set<std::string> ids;
        std::set<ESimKind> kinds;
        int32_t previous[2] = {-1, -1};
        for (const SimInstrumentState& inst : state.instruments) {
            EXPECT_TRUE(ids.insert(inst.id).second) << inst.id;
            EXPECT_LE(inst.id.size(), 15u) << inst.id;
            kinds.insert(inst.kind);
            const int e = inst.exchange == ESimExchange::SHFE ? 0 : 1;
            EXPECT_GT(inst.instNo, previous[e]);
            previous[e] = inst.instNo;
            EXPECT_LT(inst.instNo, e == 0 ? QUVO_SHFE_MAX_INST_CNT : QUVO_INE_MAX_INST_CNT);
            EXPECT_EQ(inst.slot, e == 0 ? inst.instNo : QUVO_INST_SLOTS - 1 - inst.instNo);
            EXPECT_EQ(inst.id.size() == 6, inst.kind == ESimKind::FUTURE) << inst.id;
            EXPECT_EQ(inst.id.find("TAS") != std::string::npos, inst.kind == ESimKind::TAS) << inst.id;
            EXPECT_EQ(inst.id.find('-') != std::string::npos, inst.kind == ESimKind::SPREAD) << inst.id;
        }
        if (shfe >= 500) {
            EXPECT_EQ(kinds.size(), 4u);
        }
    }
}

TEST(ExchangeModel, BooksStayOrderedAndInsideTheLimits) {
    CExchangeModel model(Market(150, 50, 9));
    SimFrames frames;
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 2000; ++i) {
            frames.Clear();
            ASSERT_TRUE(model.Step(3, frames));
        }
        for (const SimInstrumentState& inst : model.GetState().instruments) {
            for (int k = 0; k < kSimPublishedLevels; ++k) {
                for (const auto& [px, vol] :
                     {std::pair{inst.bidPx[k], inst.bidVol[k]}, std::pair{inst.askPx[k], inst.askVol[k]}}) {
                    if (vol == 0) {
                        EXPECT_EQ(px, 0) << inst.id;
                        continue;
                    }
                    EXPECT_GT(vol, 0) << inst.id;
                    if (inst.kind != ESimKind::SPREAD) {
                        EXPECT_GE(px, inst.lowerLimit) << inst.id;
                        EXPECT_LE(px, inst.upperLimit) << inst.id;
                    }
                }
                if (k > 0 && inst.bidVol[k] > 0) {
                    EXPECT_LT(inst.bidPx[k], inst.bidPx[k - 1]) << inst.id;
                }
                if (k > 0 && inst.askVol[k] > 0) {
                    EXPECT_GT(inst.askPx[k], inst.askPx[k - 1]) << inst.id;
                }
            }
            if (inst.bidVol[0] > 0 && inst.askVol[0] > 0) {
                EXPECT_LT(inst.bidPx[0], inst.askPx[0]) << inst.id;
            }
        }
    }
}

TEST(ExchangeModel, RecordFaultsAddFramesButNeverChangeTheMarket) {
    SimOptions faulty = Market(80, 20);
    faulty.stale = 0.1;
    faulty.crossed = 0.1;
    faulty.unknownField = 0.1;
    faulty.shortRecord = 0.1;
    faulty.badLength = 0.1;
    SimFrames clean, noisy;
    SimState cleanState = Simulate(Market(80, 20), 4000, &clean);
    SimState noisyState = Simulate(faulty, 4000, &noisy);
    cleanState.faults = noisyState.faults = {};
    EXPECT_EQ(cleanState, noisyState);
    EXPECT_GT(noisy.Count(), clean.Count() + 1000);
}

TEST(ExchangeModel, ALostRecordIsFollowedByOneOfTheSameInstrument) {
    SimOptions options = Market(50, 10);
    options.gap = 0.05;
    CExchangeModel model(options);
    SimFrames frames;
    int lost = 0;
    for (int i = 0; i < 4000; ++i) {
        frames.Clear();
        ASSERT_TRUE(model.Step(3, frames));
        if (!model.LastStepLost()) {
            continue;
        }
        ++lost;
        EXPECT_EQ(frames.Count(), 0u);
        const SimState before = model.GetState();
        frames.Clear();
        ASSERT_TRUE(model.Step(3, frames));
        ASSERT_GE(frames.Count(), 1u);
        // The next record carries the instrument's number and skips a change number.
        uint32_t instNo = 0, changeNo = 0;
        memcpy(&instNo, frames.bytes.data() + 14, 4);
        memcpy(&changeNo, frames.bytes.data() + 18, 4);
        bool found = false;
        for (const SimInstrumentState& inst : before.instruments) {
            if (static_cast<uint32_t>(inst.instNo) == instNo && changeNo == inst.changeNo + 1) {
                found = true;
            }
        }
        EXPECT_TRUE(found);
    }
    EXPECT_GT(lost, 50);
}

TEST(ExchangeModel, CountsTheGapsTheFeedSees) {
    SimOptions options = Market(20, 5);
    options.gap = 1;  // every record but a revealing one is lost
    CExchangeModel model(options);
    SimFrames frames;
    const auto step = [&](bool lost) {
        frames.Clear();
        ASSERT_TRUE(model.Step(3, frames));
        EXPECT_EQ(model.LastStepLost(), lost);
        EXPECT_EQ(model.HasUnrevealedLoss(), lost);
    };
    step(true);
    EXPECT_EQ(model.GetState().gaps, 0u);
    step(false);
    EXPECT_EQ(model.GetState().gaps, 1u);
    // The feed restarts at the first gap and drops what follows until its
    // fresh snapshot, so a second loss before that snapshot is never seen.
    step(true);
    step(false);
    EXPECT_EQ(model.GetState().gaps, 1u);
    model.BuildSnapshotFrames(3, frames);
    step(true);
    step(false);
    EXPECT_EQ(model.GetState().gaps, 2u);
    // A snapshot between a loss and its reveal already holds the lost change.
    step(true);
    model.BuildSnapshotFrames(3, frames);
    step(false);
    EXPECT_EQ(model.GetState().gaps, 2u);
    step(true);
    step(false);
    EXPECT_EQ(model.GetState().gaps, 3u);
    EXPECT_EQ(model.GetState().records, 10u);
    EXPECT_EQ(model.GetState().snapshots, 2u);
}

TEST(ExchangeModel, StopsAtTheRecordLimit) {
    SimOptions options = Market(10, 0);
    options.records = 25;
    CExchangeModel model(options);
    SimFrames frames;
    int steps = 0;
    while (model.Step(3, frames)) {
        ++steps;
    }
    EXPECT_EQ(steps, 25);
    EXPECT_EQ(model.GetState().records, 25u);
    EXPECT_FALSE(model.Step(1, frames));
    EXPECT_FALSE(CExchangeModel(Market(10, 0)).Step(2, frames));  // no INE instruments
}

TEST(ExchangeModel, SnapshotMessagesOpenAndCloseTheSnapshot) {
    CExchangeModel model(Market(300, 0));
    const std::vector<std::vector<char>> messages = model.BuildSnapshotMessages(ESimExchange::SHFE);
    ASSERT_GE(messages.size(), 2u);
    for (size_t i = 0; i < messages.size(); ++i) {
        EXPECT_EQ(static_cast<uint8_t>(messages[i][0]), i + 1 == messages.size() ? 0x01 : 0x11);
        EXPECT_EQ(messages[i][1], '2');
        uint16_t length = 0;
        memcpy(&length, messages[i].data() + 2, 2);
        EXPECT_EQ(length + 8u, messages[i].size());
    }
    uint16_t firstField = 0;
    memcpy(&firstField, messages[0].data() + 8, 2);
    EXPECT_EQ(firstField, 0x1001);  // the SnapField comes first
}

// What the frames show of each fault, read apart from the model's counts.
struct SeenFaults {
    uint64_t tcpReorder = 0;  // segments below one sent before them, on their connection
    uint64_t tcpDuplicate = 0;
    uint64_t tcpBadChecksum = 0;
    uint64_t tcpPadding = 0;
    uint64_t tcpOtherProtocol = 0;
    uint64_t tcpOtherPort = 0;
    uint64_t tcpReset = 0;
    uint64_t stale = 0;
    uint64_t crossed = 0;
    uint64_t unknownField = 0;
    uint64_t shortRecord = 0;
    uint64_t badLength = 0;
};

template <typename Visit>
void ForEachFrame(const SimFrames& frames, Visit visit) {
    size_t offset = 0;
    for (const uint32_t length : frames.lengths) {
        visit(reinterpret_cast<const unsigned char*>(frames.bytes.data() + offset), size_t{length});
        offset += length;
    }
}

uint16_t Big16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

uint32_t Big32(const unsigned char* p) {
    return uint32_t{Big16(p)} << 16 | Big16(p + 2);
}

void SeeRawFrames(const SimFrames& frames, uint16_t snapPort, SeenFaults& seen) {
    std::set<std::pair<uint16_t, uint32_t>> sent;  // source port, sequence number
    std::map<uint16_t, uint32_t> highest;          // per connection
    ForEachFrame(frames, [&](const unsigned char* frame, size_t length) {
        ASSERT_GE(length, 54u);
        const unsigned char* ip = frame + 14;
        const unsigned char* tcp = ip + 20;
        const size_t ipLength = Big16(ip + 2);
        ASSERT_LE(14 + ipLength, length);
        seen.tcpPadding += length > 14 + ipLength ? 1 : 0;
        if (ip[9] != 6) {
            seen.tcpOtherProtocol += ip[9] == 17 || ip[9] == 1 ? 1 : 0;
            return;
        }
        const bool goodChecksum = Big16(tcp + 16) == tcp_checksum(ip, tcp, ipLength - 20);
        seen.tcpBadChecksum += goodChecksum ? 0 : 1;
        const uint16_t srcPort = Big16(tcp);
        if (Big16(tcp + 2) != snapPort) {
            ++seen.tcpOtherPort;
            return;
        }
        if (tcp[13] == 0x14) {
            ++seen.tcpReset;
            return;
        }
        if (!goodChecksum) {
            return;
        }
        const uint32_t seq = Big32(tcp + 4);
        seen.tcpDuplicate += sent.insert({srcPort, seq}).second ? 0 : 1;
        const auto [at, first] = highest.insert({srcPort, seq});
        if (!first && seq < at->second) {
            ++seen.tcpReorder;
        }
        at->second = std::max(at->second, seq);
    });
}

// Field sizes of a decoded record, by field id.
size_t FieldSize(uint16_t id) {
    switch (id) {
        case FID_PRICE_CHANGE:
        case FID_BUY_STATICS:
        case FID_SELL_STATICS:
            return 16;
        case FID_DEAL_SUMMARY:
            return 32;
        case FID_HIGHEST_PRICE:
        case FID_LOWEST_PRICE:
            return 8;
        default:
            return 0;
    }
}

void SeeDecodedFrames(const SimFrames& frames, SeenFaults& seen) {
    std::set<std::string> records;
    std::set<std::tuple<uint16_t, uint32_t, uint32_t>> changes;  // topic, instrument number, change number
    ForEachFrame(frames, [&](const unsigned char* frame, size_t length) {
        if (length < kDecodedRecordMinLen) {
            ++seen.shortRecord;
            return;
        }
        if (length > kDecodedFrameMaxLen) {
            ++seen.badLength;
            return;
        }
        if (!records.insert(std::string(reinterpret_cast<const char*>(frame), length)).second) {
            ++seen.stale;
            return;
        }
        uint16_t topic = 0;
        uint32_t instNo = 0, changeNo = 0;
        memcpy(&topic, frame, 2);
        memcpy(&instNo, frame + 14, 4);
        memcpy(&changeNo, frame + 18, 4);
        seen.crossed += changes.insert({topic, instNo, changeNo}).second ? 0 : 1;
        for (size_t at = kDecodedRecordMinLen; at + 2 <= length;) {
            uint16_t id = 0;
            memcpy(&id, frame + at, 2);
            if (FieldSize(id) == 0) {
                seen.unknownField += id == 0x1FFF ? 1 : 0;
                break;
            }
            at += FieldSize(id);
        }
    });
}

struct FaultRun {
    SimFrames raw;
    SimFrames decoded;
    uint64_t records = 0;
    uint64_t lost = 0;
    SimState state;
    SimFaultCounts counts;
    SeenFaults seen;
};

// Snapshots of both exchanges with records between them, every frame kept.
FaultRun RunFaults(const SimOptions& options, int snapshots = 6, int records = 3000) {
    CExchangeModel model(options);
    FaultRun run;
    for (int snapshot = 0; snapshot < snapshots; ++snapshot) {
        model.BuildSnapshotFrames(3, run.raw);
        for (int i = 0; i < records; ++i) {
            EXPECT_TRUE(model.Step(3, run.decoded));
            run.lost += model.LastStepLost() ? 1 : 0;
        }
    }
    run.records = model.GetRecords();
    run.state = model.GetState();
    run.counts = run.state.faults;
    SeeRawFrames(run.raw, options.snapPort, run.seen);
    SeeDecodedFrames(run.decoded, run.seen);
    return run;
}

struct FaultCase {
    const char* name;
    double SimOptions::*rate;
    double value;
    uint64_t SimFaultCounts::*count;
    uint64_t SeenFaults::*seen;  // null: the frames cannot show it exactly
};

const FaultCase kFaultCases[] = {
    {"tcp_reorder", &SimOptions::tcpReorder, 0.2, &SimFaultCounts::tcpReorder, &SeenFaults::tcpReorder},
    {"tcp_duplicate", &SimOptions::tcpDuplicate, 0.2, &SimFaultCounts::tcpDuplicate,
     &SeenFaults::tcpDuplicate},
    {"tcp_loss", &SimOptions::tcpLoss, 0.2, &SimFaultCounts::tcpLoss, nullptr},
    {"tcp_bad_checksum", &SimOptions::tcpBadChecksum, 0.2, &SimFaultCounts::tcpBadChecksum,
     &SeenFaults::tcpBadChecksum},
    {"tcp_padding", &SimOptions::tcpPadding, 0.2, &SimFaultCounts::tcpPadding, &SeenFaults::tcpPadding},
    {"tcp_other (protocol)", &SimOptions::tcpOther, 0.2, &SimFaultCounts::tcpOtherProtocol,
     &SeenFaults::tcpOtherProtocol},
    {"tcp_other (port)", &SimOptions::tcpOther, 0.2, &SimFaultCounts::tcpOtherPort,
     &SeenFaults::tcpOtherPort},
    {"tcp_reset", &SimOptions::tcpReset, 0.5, &SimFaultCounts::tcpReset, &SeenFaults::tcpReset},
    {"stale", &SimOptions::stale, 0.2, &SimFaultCounts::stale, &SeenFaults::stale},
    {"crossed", &SimOptions::crossed, 0.2, &SimFaultCounts::crossed, &SeenFaults::crossed},
    {"unknown_field", &SimOptions::unknownField, 0.2, &SimFaultCounts::unknownField,
     &SeenFaults::unknownField},
    {"short_record", &SimOptions::shortRecord, 0.2, &SimFaultCounts::shortRecord, &SeenFaults::shortRecord},
    {"bad_length", &SimOptions::badLength, 0.2, &SimFaultCounts::badLength, &SeenFaults::badLength},
};

// Every fault count, the frame totals left out.
std::vector<uint64_t> FaultsOnly(const SimFaultCounts& counts) {
    return {counts.tcpReorder, counts.tcpDuplicate,     counts.tcpLoss,      counts.tcpBadChecksum,
            counts.tcpPadding, counts.tcpOtherProtocol, counts.tcpOtherPort, counts.tcpReset,
            counts.stale,      counts.crossed,          counts.unknownField, counts.shortRecord,
            counts.badLength};
}

TEST(ExchangeModelFaults, WithoutFaultsOnlyTheFramesAreCounted) {
    const FaultRun run = RunFaults(Market(300, 60, 2));
    SimFaultCounts expected;
    expected.rawFrames = run.raw.Count();
    expected.decodedFrames = run.decoded.Count();
    EXPECT_EQ(run.counts, expected);
    EXPECT_EQ(FaultsOnly(run.counts), std::vector<uint64_t>(13, 0));
    EXPECT_EQ(run.counts.decodedFrames, run.records);
}

TEST(ExchangeModelFaults, EachFaultAloneIsCountedAsItsFramesShowIt) {
    const FaultRun clean = RunFaults(Market(300, 60, 2));
    for (const FaultCase& fault : kFaultCases) {
        SimOptions options = Market(300, 60, 2);
        options.*fault.rate = fault.value;
        const FaultRun run = RunFaults(options);
        const uint64_t count = run.counts.*fault.count;
        EXPECT_GT(count, 0u) << fault.name;
        if (fault.seen != nullptr) {
            EXPECT_EQ(count, run.seen.*fault.seen) << fault.name;
        }
        SimFaultCounts only;
        only.*fault.count = count;
        if (fault.rate == &SimOptions::tcpOther) {
            only.tcpOtherProtocol = run.counts.tcpOtherProtocol;
            only.tcpOtherPort = run.counts.tcpOtherPort;
        }
        EXPECT_EQ(FaultsOnly(run.counts), FaultsOnly(only)) << fault.name << ": another fault was counted";
        EXPECT_EQ(run.counts.rawFrames, run.raw.Count()) << fault.name;
        EXPECT_EQ(run.counts.decodedFrames, run.decoded.Count()) << fault.name;
        // Faults never change the market, so a fault's frames are all extra.
        EXPECT_EQ(run.state.instruments, clean.state.instruments) << fault.name;
        const bool raw = fault.rate == &SimOptions::tcpOther || fault.rate == &SimOptions::tcpBadChecksum ||
                         fault.rate == &SimOptions::tcpDuplicate;
        if (raw) {
            const uint64_t added = fault.rate == &SimOptions::tcpOther
                                       ? run.counts.tcpOtherProtocol + run.counts.tcpOtherPort
                                       : count;
            EXPECT_EQ(run.raw.Count(), clean.raw.Count() + added) << fault.name;
        }
        const bool decoded = fault.rate == &SimOptions::stale || fault.rate == &SimOptions::crossed ||
                             fault.rate == &SimOptions::shortRecord || fault.rate == &SimOptions::badLength;
        if (decoded) {
            EXPECT_EQ(run.decoded.Count(), clean.decoded.Count() + count) << fault.name;
        }
    }
}

// A held-back segment is sent once, late; the frames show it late only when
// no segment after it was lost too.
TEST(ExchangeModelFaults, EveryLostSegmentIsSentOnceLater) {
    SimOptions options = Market(300, 60, 2);
    options.tcpLoss = 0.2;
    const FaultRun run = RunFaults(options);
    const FaultRun clean = RunFaults(Market(300, 60, 2));
    EXPECT_EQ(run.raw.Count(), clean.raw.Count());
    EXPECT_EQ(run.seen.tcpDuplicate, 0u);
    EXPECT_GT(run.seen.tcpReorder, 0u);
    EXPECT_LE(run.seen.tcpReorder, run.counts.tcpLoss);
}

// A reset stops its connection, so faults drawn for the segments it cut off
// are never built and never counted.
TEST(ExchangeModelFaults, AllSnapshotFaultsTogetherStayCountedAsSent) {
    SimOptions options = Market(300, 60, 7);
    options.tcpReorder = 0.1;
    options.tcpDuplicate = 0.1;
    options.tcpLoss = 0.1;
    options.tcpBadChecksum = 0.1;
    options.tcpPadding = 0.1;
    options.tcpOther = 0.1;
    options.tcpReset = 1;
    const FaultRun run = RunFaults(options, 8, 10);
    EXPECT_GT(run.counts.tcpReset, 0u);
    EXPECT_EQ(run.counts.tcpReset, run.seen.tcpReset);
    EXPECT_EQ(run.counts.tcpDuplicate, run.seen.tcpDuplicate);
    EXPECT_EQ(run.counts.tcpBadChecksum, run.seen.tcpBadChecksum);
    EXPECT_EQ(run.counts.tcpPadding, run.seen.tcpPadding);
    EXPECT_EQ(run.counts.tcpOtherProtocol, run.seen.tcpOtherProtocol);
    EXPECT_EQ(run.counts.tcpOtherPort, run.seen.tcpOtherPort);
    EXPECT_EQ(run.counts.rawFrames, run.raw.Count());
}

// A lost record is no frame: neither it nor the unknown field it carried is counted.
TEST(ExchangeModelFaults, ALostRecordIsNeitherAFrameNorAFault) {
    SimOptions options = Market(100, 20, 3);
    options.gap = 0.2;
    options.unknownField = 0.5;
    options.shortRecord = 0.2;
    const FaultRun run = RunFaults(options, 1, 5000);
    EXPECT_GT(run.lost, 500u);
    EXPECT_EQ(run.counts.unknownField, run.seen.unknownField);
    EXPECT_EQ(run.counts.shortRecord, run.seen.shortRecord);
    EXPECT_EQ(run.counts.decodedFrames, run.decoded.Count());
    EXPECT_EQ(run.counts.decodedFrames, run.records - run.lost + run.counts.shortRecord);
}

TEST(SimDevice, StopsMakingRecordsAfterTheSecondsOnceALossIsRevealed) {
    SimOptions options = Market(20, 5);
    options.rate = 0;
    options.seconds = 2;
    options.gap = 1;  // lost, revealed, lost, revealed...
    std::vector<uint32_t> registers(2048, 0);
    registers[REG_SHFE_A_ADDR] = 1;
    registers[REG_INE_A_ADDR] = 1;
    registers[REG_DECODE_DATA] = 1;
    g_nowNs = 1000;
    CSimDevice device(options, registers.data(), FakeClock);
    SoftFrameRef frame{};
    int frames = 0;
    for (int i = 0; i < 100; ++i) {
        frames += device.Next(0, frame) == SOFT_NEXT_FRAME ? 1 : 0;
    }
    EXPECT_EQ(frames, 50);
    g_nowNs += 1999999999;
    EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_NONE);  // lost
    EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_FRAME);
    EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_NONE);  // lost
    EXPECT_FALSE(device.IsIdle());
    g_nowNs += 1;
    // time is up: held: one lost record; its reveal still comes, then nothing
    EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_FRAME);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_NONE);
    }
    EXPECT_TRUE(device.IsIdle());
}

TEST(SimDevice, WithoutSecondsRecordsNeverStop) {
    SimOptions options = Market(20, 5);
    options.rate = 0;
    std::vector<uint32_t> registers(2048, 0);
    registers[REG_SHFE_A_ADDR] = 1;
    registers[REG_DECODE_DATA] = 1;
    g_nowNs = 0;
    CSimDevice device(options, registers.data(), FakeClock);
    SoftFrameRef frame{};
    EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_FRAME);
    g_nowNs = int64_t{1} << 60;
    EXPECT_EQ(device.Next(0, frame), SOFT_NEXT_FRAME);
    EXPECT_FALSE(device.IsIdle());
}

TEST(SimOptions, DeviceStringsAndTheirErrors) {
    SimOptions options;
    std::string error;
    ASSERT_TRUE(sim_parse_device_options("shfe=10,ine=0,seed=42,rate=0,gap=0.5,expect=/tmp/x.json,exit=1",
                                         options, error))
        << error;
    EXPECT_EQ(options.shfe, 10);
    EXPECT_EQ(options.ine, 0);
    EXPECT_EQ(options.seed, 42u);
    EXPECT_EQ(options.gap, 0.5);
    EXPECT_EQ(options.expectPath, "/tmp/x.json");
    EXPECT_FALSE(sim_parse_device_options("shfe=16385", options, error));
    EXPECT_EQ(error, "bad value '16385' for simulator option shfe: expected a count from 0 to 16384");
    EXPECT_FALSE(sim_parse_device_options("gap=2", options, error));
    EXPECT_EQ(error, "bad value '2' for simulator option gap: expected a probability from 0 to 1");
    EXPECT_FALSE(sim_parse_device_options("seed=1,seed=2", options, error));
    EXPECT_EQ(error, "simulator option seed is given twice");
    EXPECT_FALSE(sim_parse_device_options("speed", options, error));
    EXPECT_EQ(error, "simulator option 'speed' has no value (expected key=value)");
    EXPECT_FALSE(sim_parse_device_options("colour=red", options, error));
    EXPECT_EQ(error.rfind("unknown simulator option 'colour' (known: shfe, ine, seed,", 0), 0u) << error;
    ASSERT_TRUE(sim_parse_device_options("seconds=90.5", options, error)) << error;
    EXPECT_EQ(options.seconds, 90.5);
    EXPECT_FALSE(sim_parse_device_options("seconds=-1", options, error));
    EXPECT_EQ(error, "bad value '-1' for simulator option seconds: expected a number of seconds >= 0");
    // The card's own keys mean nothing to quvo-sim.
    EXPECT_FALSE(sim_set_option(options, "expect", "x", false, error));
    EXPECT_FALSE(sim_set_option(options, "seconds", "1", false, error));
}

}  // namespace
