// The driver's step per decoded record, side by side in one run: read the
// frame, apply it to the book (_ParseMirp), announce the slot on the update
// ring. The frame is read by the card library from a receive ring laid out as
// the card's DMA buffer (card build only), by the software card's direct
// path, or, for the baseline, copied from a buffer with only the instrument's
// record touched. Figures are per record; at the end each median is also
// given as a ratio to the baseline of the same batch size.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "bench/BookFixture.h"
#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "src/api/UpdateRing.h"
#include "src/dev/Card.h"
#include "src/dev/soft/DirectRx.h"
#include "src/udp/ExanicUdpFunc.h"

#if QUVO_HAVE_EXANIC
#include "src/dev/soft/RxRing.h"
#endif

namespace {

const char* const kBaseline = "BM_RecordBaseline";

// One instrument with a five-level book, its parser, the update ring, and a
// batch of the typical record (one level's volume, bid and ask in turn) with
// consecutive change numbers, so every record of a batch applies once the
// book is put back.
struct CFeedFixture {
    explicit CFeedFixture(uint32_t records)
        : entries(QUVO_UPDATE_RING_ENTRIES), ring(entries.data()), count(records) {
        ring.Reset();
        for (uint32_t k = 0; k < records; ++k) {
            const uint8_t side = k % 2 == 0 ? MD_ENTRY_BID : MD_ENTRY_ASK;
            const std::vector<char> record = CDecodedRecordBuilder(kShfeTopic, kInstrumentNo, k + 1)
                                                 .Update(side, 1, side == MD_ENTRY_BID ? -1 : 1, 10 + k % 7)
                                                 .Build();
            length = static_cast<uint32_t>(record.size());
            bytes.insert(bytes.end(), record.begin(), record.end());
        }
    }

    const char* At(uint32_t k) const { return bytes.data() + static_cast<size_t>(k) * length; }
    void Reset() { book.Reset(0); }

    // The driver's handling of a read: a frame of a usable length is applied,
    // and announced when it applied.
    int Apply(ssize_t n) {
        const uint32_t size = static_cast<uint32_t>(n);
        if (size < kDecodedRecordMinLen || size > kDecodedFrameMaxLen) {
            return 0;
        }
        const int result = book.udp->_ParseMirp(buf, size);
        if (result == 1) {
            ring.Publish(book.instNo);
        }
        return result;
    }

    CBookFixture book;
    std::vector<uint16_t> entries;
    CUpdateRing ring;
    std::vector<char> bytes;
    uint32_t length = 0;
    uint32_t count;
    char buf[kDecodedFrameMaxLen];
};

// Each iteration is one batch: `arrive` puts the batch where the reader finds
// it and the book is put back, both untimed, then `step` handles the records
// one by one under a clock read only at the batch's two ends. On the card the
// DMA engine fills the ring, not the reading core, so the fill must stay out
// of the figure; pausing the timer per batch would also do, but each pause
// reads the process CPU clock, and manual time costs two clock reads per
// thousands of records. A batch stays under a ring's worth of chunks, so the
// reader is never lapped. One untimed batch first must apply every record.
template <typename Arrive, typename Step>
void RunBatches(benchmark::State& state, CFeedFixture& f, Arrive arrive, Step step) {
    const uint32_t batch = f.count;
    arrive();
    f.Reset();
    int64_t first = 0;
    for (uint32_t k = 0; k < batch; ++k) {
        first += step(k);
    }
    if (first != static_cast<int64_t>(batch)) {
        state.SkipWithError("a record of the batch did not apply");
        return;
    }
    int64_t sum = 0;
    for (auto _ : state) {
        arrive();
        f.Reset();
        const auto start = std::chrono::steady_clock::now();
        for (uint32_t k = 0; k < batch; ++k) {
            sum += step(k);
        }
        const auto stop = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    }
    const double records = static_cast<double>(state.iterations()) * batch;
    state.SetItemsProcessed(static_cast<int64_t>(records));
    state.counters["result"] = static_cast<double>(sum) / records;
    state.counters["per_record"] =
        benchmark::Counter(records, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    benchmark::DoNotOptimize(f.entries.data());
}

void Batches(benchmark::internal::Benchmark* b) {
    b->Arg(256)->Arg(4096)->UseManualTime();
}

// The bare step: copy the frame, store its change number in the instrument's
// record, announce the slot.
void BM_RecordBaseline(benchmark::State& state) {
    CFeedFixture f(static_cast<uint32_t>(state.range(0)));
    RunBatches(
        state, f, [] {},
        [&f](uint32_t k) {
            memcpy(f.buf, f.At(k), f.length);
            MarketDataIncreField incre;
            memcpy(&incre, f.buf + sizeof(DecodeHeader), sizeof(incre));
            const uint32_t slot = quvo_shfe_slot(incre.instrumentNo);
            f.book.area->instmts[slot].change_no = incre.changeNo;
            f.ring.Publish(slot);
            return 1;
        });
}
BENCHMARK(BM_RecordBaseline)->Apply(Batches);

// The software card's direct path: the frames are handed over by its read.
void BM_RecordDirect(benchmark::State& state) {
    CFeedFixture f(static_cast<uint32_t>(state.range(0)));
    CSoftDirectRx direct;
    direct.Attach();
    RunBatches(
        state, f,
        [&] {
            for (uint32_t k = 0; k < f.count; ++k) {
                direct.Write(SoftFrameRef{f.At(k), f.length, 0, k});
            }
        },
        [&](uint32_t) { return f.Apply(direct.Read(f.buf, sizeof(f.buf))); });
}
BENCHMARK(BM_RecordDirect)->Apply(Batches);

#if QUVO_HAVE_EXANIC
// The card's path: the library's exanic_receive_frame reads the receive ring.
void BM_RecordCardRing(benchmark::State& state) {
    CFeedFixture f(static_cast<uint32_t>(state.range(0)));
    std::unique_ptr<CSoftRxRing> chunks = CSoftRxRing::Create();
    exanic_rx_t reader;
    chunks->Attach(reader);
    RunBatches(
        state, f,
        [&] {
            for (uint32_t k = 0; k < f.count; ++k) {
                chunks->Write(f.At(k), f.length, 0, k);
            }
        },
        [&](uint32_t) { return f.Apply(exanic_receive_frame(&reader, f.buf, sizeof(f.buf), nullptr)); });
}
BENCHMARK(BM_RecordCardRing)->Apply(Batches);

// The same through the facade as the driver runs it on a card (UdpRecv, its
// receive call and length check); against the one above, the facade's cost.
void BM_RecordCardRingUdpRecv(benchmark::State& state) {
    CFeedFixture f(static_cast<uint32_t>(state.range(0)));
    std::unique_ptr<CSoftRxRing> chunks = CSoftRxRing::Create();
    CardRx rx{};
    chunks->Attach(rx.softReader);
    rx.pExanicRx = &rx.softReader;
    f.book.udp->InitUdp(f.book.registers.data(), &rx);
    RunBatches(
        state, f,
        [&] {
            for (uint32_t k = 0; k < f.count; ++k) {
                chunks->Write(f.At(k), f.length, 0, k);
            }
        },
        [&](uint32_t) {
            const int result = f.book.udp->UdpRecv();
            if (result == 1) {
                f.ring.Publish(f.book.instNo);
            }
            return result;
        });
}
BENCHMARK(BM_RecordCardRingUdpRecv)->Apply(Batches);
#endif

// A register store with no recorder installed, plain and through reg_write.
void BM_RegisterStorePlainVolatile(benchmark::State& state) {
    std::vector<uint32_t> window(8192);
    volatile uint32_t* registers = window.data();
    uint32_t value = 0;
    for (auto _ : state) {
        registers[REG_HOST_TIMESTAMP] = ++value;
    }
}
BENCHMARK(BM_RegisterStorePlainVolatile);

void BM_RegisterStoreRegWrite(benchmark::State& state) {
    std::vector<uint32_t> window(8192);
    volatile uint32_t* registers = window.data();
    uint32_t value = 0;
    for (auto _ : state) {
        reg_write(registers, REG_HOST_TIMESTAMP, ++value);
    }
}
BENCHMARK(BM_RegisterStoreRegWrite);

// The console table, then each per-record median set against the baseline's
// of the same batch size: the machines are shared, so only figures of one
// run are compared.
class CRatioReporter : public benchmark::ConsoleReporter {
public:
    CRatioReporter() : ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const auto found = run.counters.find("per_record");
            if (run.error_occurred || found == run.counters.end()) {
                continue;
            }
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) {
                continue;
            }
            // Without repetitions the single run stands for the median.
            Figure& figure = m_figures[run.run_name.args][run.run_name.function_name];
            if (median || !figure.median) {
                figure = Figure{found->second.value * 1e9, median};
            }
        }
    }

    void Finalize() override {
        std::ostream& out = GetOutputStream();
        for (const auto& [batch, figures] : m_figures) {
            const auto baseline = figures.find(kBaseline);
            if (baseline == figures.end()) {
                continue;
            }
            const double base = baseline->second.ns;
            out << "\nns per record (median), batch of " << batch << ", against " << kBaseline << ":\n";
            for (const auto& [name, figure] : figures) {
                char line[160];
                snprintf(line, sizeof(line), "  %-28s %8.2f ns  x%5.2f  %+7.2f ns\n", name.c_str(), figure.ns,
                         figure.ns / base, figure.ns - base);
                out << line;
            }
            const auto ring = figures.find("BM_RecordCardRing");
            const auto direct = figures.find("BM_RecordDirect");
            if (ring != figures.end() && direct != figures.end()) {
                char line[120];
                snprintf(line, sizeof(line), "  ring - direct: %+.2f ns\n",
                         ring->second.ns - direct->second.ns);
                out << line;
            }
        }
        ConsoleReporter::Finalize();
    }

private:
    struct Figure {
        double ns = 0;
        bool median = false;
    };
    std::map<std::string, std::map<std::string, Figure>> m_figures;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    CRatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
