// Cost of applying one decoded record (_ParseMirp) by record shape, and of the
// driver's step: UdpRecv through the software card, then the ring publish.
// Every iteration is one record. Streams carry consecutive change numbers so
// that records keep applying; at each wrap the slot is put back as it was,
// which the "result" counter (mean return value) confirms: 1 applied, 0 not.
// Built six times into one program: three copies as the feed has it (the
// unsuffixed benchmarks, "/health2", "/health3") and three with the health
// accounting left out (QUVO_HEALTH_BARE: "/no_health", "/no_health2",
// "/no_health3"). Copies of one kind are the same code placed elsewhere, so
// their spread is what placement alone moves a figure, and the cost of the
// accounting is read between the two kinds across placements
// (scripts/bench-compare.py).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bench/BookFixture.h"
#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "sim/PcapWriter.h"
#include "src/api/UpdateRing.h"
#include "src/dev/Card.h"
#include "src/udp/ExanicUdpFunc.h"
#include "src/udp/LiveFigures.h"

#ifdef QUVO_BENCHMARK_SUFFIX
#define QUVO_BENCHMARK(fn) BENCHMARK(fn)->Name(#fn QUVO_BENCHMARK_SUFFIX)
#else
#define QUVO_BENCHMARK(fn) BENCHMARK(fn)
#endif

namespace {

// A stream short enough to stay in the first-level cache with the book.
constexpr uint32_t kStreamLength = 256;

constexpr uint8_t kBid = MD_ENTRY_BID;
constexpr uint8_t kAsk = MD_ENTRY_ASK;

// Records of one length back to back, applied in order after `storedChangeNo`.
struct CRecordStream {
    template <typename Make>
    CRecordStream(uint32_t records, uint32_t stored, Make make) : count(records), storedChangeNo(stored) {
        for (uint32_t k = 0; k < records; ++k) {
            const std::vector<char> record = make(k);
            length = static_cast<uint32_t>(record.size());
            bytes.insert(bytes.end(), record.begin(), record.end());
        }
    }
    char* At(uint32_t k) { return bytes.data() + static_cast<size_t>(k) * length; }

    std::vector<char> bytes;
    uint32_t length = 0;
    uint32_t count = 0;
    uint32_t storedChangeNo;
};

// Each record passes once untimed and must return `expected`; then the stream
// loops, the book put back at each wrap (outside the timing when the put-back
// is large enough to matter).
void RunStream(benchmark::State& state, CBookFixture& f, CRecordStream& s, int expected,
               bool untimedWrap = false) {
    f.Reset(s.storedChangeNo);
    for (uint32_t k = 0; k < s.count; ++k) {
        if (f.udp->_ParseMirp(s.At(k), s.length) != expected) {
            state.SkipWithError("a record did not give the expected result");
            return;
        }
    }
    f.Reset(s.storedChangeNo);
    int64_t sum = 0;
    uint32_t k = 0;
    for (auto _ : state) {
        sum += f.udp->_ParseMirp(s.At(k), s.length);
        if (__builtin_expect(++k == s.count, 0)) {
            k = 0;
            if (untimedWrap) {
                state.PauseTiming();
                f.Reset(s.storedChangeNo);
                state.ResumeTiming();
            } else {
                f.Reset(s.storedChangeNo);
            }
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["result"] = static_cast<double>(sum) / static_cast<double>(state.iterations());
}

CDecodedRecordBuilder Record(uint32_t changeNo, uint32_t instrumentNo = kInstrumentNo) {
    return CDecodedRecordBuilder(kShfeTopic, instrumentNo, changeNo);
}

// The typical record: one level's volume changes, bid and ask in turn.
std::vector<char> LevelUpdate(uint32_t k, uint32_t instrumentNo = kInstrumentNo, uint32_t changeNo = 0) {
    const uint8_t side = k % 2 == 0 ? kBid : kAsk;
    const int32_t offset = side == kBid ? -1 : 1;
    return Record(changeNo != 0 ? changeNo : k + 1, instrumentNo).Update(side, 1, offset, 10 + k % 7).Build();
}

void BM_ParseMirp_LevelUpdate(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 0, [](uint32_t k) { return LevelUpdate(k); });
    RunStream(state, f, s, 1);
}
QUVO_BENCHMARK(BM_ParseMirp_LevelUpdate);

// The bare baseline of a level update: the record's fields read, the level's
// price and volume and the change number written into the instrument's
// record, with none of the checks, the book's shift or the book check. It
// has no health figures to leave out, so only the first copy holds it.
#ifndef QUVO_BENCHMARK_SUFFIX
void BM_RecordBareApply(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 0, [](uint32_t k) { return LevelUpdate(k); });
    f.Reset(s.storedChangeNo);
    share& area = *f.area;
    const PriceCalcInfo& calc = *f.calc;
    uint32_t k = 0;
    for (auto _ : state) {
        const char* record = s.At(k);
        DecodeHeader header;
        MarketDataIncreField incre;
        PriceChangeField change;
        memcpy(&header, record, sizeof(header));
        memcpy(&incre, record + sizeof(header), sizeof(incre));
        memcpy(&change, record + sizeof(header) + sizeof(incre), sizeof(change));
        const uint32_t slot = incre.instrumentNo;
        instrument& inst = area.instmts[slot];
        const unsigned level = (change.priceLevel - 1u) % QUVO_BOOK_LEVELS;
        const double price = calc.codecPrice[slot] + change.priceOffset * calc.priceTick[slot];
        if (change.mdEntryType == kBid) {
            inst.bid_px[level] = price;
            inst.bid_vol[level] = static_cast<int32_t>(change.volume);
        } else {
            inst.ask_px[level] = price;
            inst.ask_vol[level] = static_cast<int32_t>(change.volume);
        }
        inst.change_no = incre.changeNo;
        inst.update_time = header.snapTime;
        inst.update_milli_sec = header.snapMillisec;
        benchmark::DoNotOptimize(inst);
        if (__builtin_expect(++k == s.count, 0)) {
            k = 0;
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RecordBareApply);
#endif

// A new best bid that is deleted again: both shift the side's levels.
void BM_ParseMirp_InsertDelete(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 0, [](uint32_t k) {
        return Record(k + 1).Insert(kBid, 1, 0, 3 + k % 5).Delete(kBid, 1).Build();
    });
    RunStream(state, f, s, 1);
}
QUVO_BENCHMARK(BM_ParseMirp_InsertDelete);

void BM_ParseMirp_TradeAndStatistics(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 0, [](uint32_t k) {
        const int32_t volume = 1 + static_cast<int32_t>(k % 4);
        return Record(k + 1).Deal(0, volume, 3, 1).BuyStatics(volume, 2).SellStatics(-volume, -2).Build();
    });
    RunStream(state, f, s, 1);
}
QUVO_BENCHMARK(BM_ParseMirp_TradeAndStatistics);

void BM_ParseMirp_SixFields(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 0, [](uint32_t k) {
        return Record(k + 1)
            .Update(kBid, 1, -1, 11 + k % 3)
            .Update(kAsk, 1, 1, 12 + k % 3)
            .Deal(1, 2, 5, 1)
            .BuyStatics(2, 1)
            .SellStatics(-2, -1)
            .High(20)
            .Build();
    });
    RunStream(state, f, s, 1);
}
QUVO_BENCHMARK(BM_ParseMirp_SixFields);

// The best bid moved over the best ask: applied, checked, undone. The undo
// restores the change number too, so the same record comes again.
void BM_ParseMirp_CrossedRestored(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 0, [](uint32_t) { return Record(1).Update(kBid, 1, 2, 5).Build(); });
    RunStream(state, f, s, 0);
}
QUVO_BENCHMARK(BM_ParseMirp_CrossedRestored);

void BM_ParseMirp_Stale(benchmark::State& state) {
    CBookFixture f;
    CRecordStream s(kStreamLength, 100, [](uint32_t k) { return LevelUpdate(k, kInstrumentNo, 50); });
    RunStream(state, f, s, 0);
}
QUVO_BENCHMARK(BM_ParseMirp_Stale);

// The typical record spread over 1024 instruments in turn: books, price
// tables and records no longer all sit in the first-level cache.
void BM_ParseMirp_LevelUpdate1024Instruments(benchmark::State& state) {
    constexpr uint32_t kInstruments = 1024;
    constexpr uint32_t kRounds = 16;
    CBookFixture f(kInstruments);
    CRecordStream s(kInstruments * kRounds, 0, [](uint32_t k) {
        return LevelUpdate(k / kInstruments, kInstrumentNo + k % kInstruments, k / kInstruments + 1);
    });
    RunStream(state, f, s, 1, true);
}
QUVO_BENCHMARK(BM_ParseMirp_LevelUpdate1024Instruments);

// The typical stream replayed by the software card on port 0, read through
// the card facade by UdpRecv.
struct CReplayFixture {
    CReplayFixture() {
        char dir[] = "/tmp/quvo-udp-bench-XXXXXX";
        directory = mkdtemp(dir);
        path = directory + "/decoded.pcap";
        {
            CPcapWriter writer(path, 1, true);
            for (uint32_t k = 0; k < kStreamLength; ++k) {
                const std::vector<char> record = LevelUpdate(k);
                writer.Write(record.data(), static_cast<uint32_t>(record.size()), k);
            }
        }
        const std::string device = "replay:decoded=" + path;
        handle = card_acquire_handle(device.c_str());
        if (handle == nullptr) {
            return;
        }
        reg_write(card_get_devkit_registers(handle), REG_DECODE_DATA, 1);
        rx = card_acquire_rx_buffer(handle, 0, 0);
        port = card_get_soft_card(handle)->GetPort(0);
        book.udp->InitUdp(card_get_devkit_registers(handle), rx);
        book.Reset(0);
    }
    ~CReplayFixture() {
        if (rx != nullptr) {
            card_release_rx_buffer(rx);
        }
        if (handle != nullptr) {
            card_release_handle(handle);
        }
        unlink(path.c_str());
        rmdir(directory.c_str());
    }
    bool Ready() const { return rx != nullptr; }
    void Wrap() {
        port->Rewind();
        book.Reset(0);
    }

    CBookFixture book;
    std::string directory;
    std::string path;
    CardHandle* handle = nullptr;
    CardRx* rx = nullptr;
    CSoftPort* port = nullptr;
};

void BM_UdpRecvPublish(benchmark::State& state) {
    CReplayFixture f;
    if (!f.Ready()) {
        state.SkipWithError(card_get_last_error());
        return;
    }
    std::vector<uint16_t> entries(QUVO_UPDATE_RING_ENTRIES);
    CUpdateRing ring(entries.data());
    ring.Reset();
    CLiveFigures live(*f.book.udp, ring.GetWriteCount());
    int64_t sum = 0;
    uint32_t k = 0;
    for (auto _ : state) {
        sum += live.Turn(ring, f.book.instNo);
        if (__builtin_expect(++k == kStreamLength, 0)) {
            k = 0;
            f.Wrap();
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["result"] = static_cast<double>(sum) / static_cast<double>(state.iterations());
    benchmark::DoNotOptimize(entries.data());
}
QUVO_BENCHMARK(BM_UdpRecvPublish);

// The two halves of the step above, to tell where its time goes.
void BM_UdpRecvOnly(benchmark::State& state) {
    CReplayFixture f;
    if (!f.Ready()) {
        state.SkipWithError(card_get_last_error());
        return;
    }
    CExanicUdpFunc& udp = *f.book.udp;
    int64_t sum = 0;
    uint32_t k = 0;
    for (auto _ : state) {
        sum += udp.UdpRecv();
        if (__builtin_expect(++k == kStreamLength, 0)) {
            k = 0;
            f.Wrap();
        }
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["result"] = static_cast<double>(sum) / static_cast<double>(state.iterations());
}
QUVO_BENCHMARK(BM_UdpRecvOnly);

void BM_UpdateRingPublish(benchmark::State& state) {
    std::vector<uint16_t> entries(QUVO_UPDATE_RING_ENTRIES);
    CUpdateRing ring(entries.data());
    ring.Reset();
    uint32_t slot = 0;
    for (auto _ : state) {
        ring.Publish(slot);
        slot = (slot + 1) & 1023;
    }
    state.SetItemsProcessed(state.iterations());
    benchmark::DoNotOptimize(entries.data());
}
QUVO_BENCHMARK(BM_UpdateRingPublish);

}  // namespace

#ifndef QUVO_BENCHMARK_SUFFIX
BENCHMARK_MAIN();
#endif
