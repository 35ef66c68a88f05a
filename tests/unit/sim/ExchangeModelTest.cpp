#include "sim/ExchangeModel.h"

#include <gtest/gtest.h>

#include <set>

#include "interface/commonheader.h"
#include "sim/SimDevice.h"
#include "sim/SimOptions.h"
#include "src/dev/Registers.h"

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
    EXPECT_EQ(Simulate(Market(80, 20), 4000, &clean), Simulate(faulty, 4000, &noisy));
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
