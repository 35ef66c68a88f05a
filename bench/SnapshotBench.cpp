// Snapshot decoding throughput: a full table of 20480 instruments with five
// levels per side, as TCP frames through the packet handler into the area.
// Built six times into one program, as UdpBench is (see there).
#include <benchmark/benchmark.h>

#include <vector>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "tests/support/TcpHarness.h"

#ifdef QUVO_BENCHMARK_SUFFIX
#define QUVO_BENCHMARK(fn) BENCHMARK(fn)->Name(#fn QUVO_BENCHMARK_SUFFIX)
#else
#define QUVO_BENCHMARK(fn) BENCHMARK(fn)
#endif

namespace {

struct Snapshot {
    std::vector<std::vector<char>> frames;  // each with zeroed slack after it
    std::vector<unsigned int> lengths;
    size_t payloadBytes = 0;
};

void AddFeed(Snapshot& snap, int16_t topic, uint16_t port, int instruments, char product) {
    std::vector<char> stream;
    const auto flush = [&stream](CMdqpMessageBuilder& message) {
        const std::vector<char> bytes = message.Build();
        stream.insert(stream.end(), bytes.begin(), bytes.end());
    };
    CMdqpMessageBuilder first(kMdqpFlagMore);
    first.Snap(topic).PacketNo(1);
    flush(first);
    for (int base = 0; base < instruments; base += 40) {
        const bool last = base + 40 >= instruments;
        CMdqpMessageBuilder message(last ? kMdqpFlagLast : kMdqpFlagMore);
        for (int n = base; n < base + 40 && n < instruments; ++n) {
            char id[16];
            snprintf(id, sizeof(id), "%c%c%04d", product, 'a' + n % 26, n % 10000);
            message.Inst(id, n, 1.0, 5000.0, 10);
            DealInfoField deal{};
            deal.inst_no = n;
            deal.last_price = 5000.0;
            deal.upper_limit_price = 6000.0;
            deal.lower_limit_price = 4000.0;
            deal.change_no = 10;
            message.Deal(deal);
            for (int k = 0; k < 5; ++k) {
                message.Level(n, '0', 4999.0 - k, 10 + k);
            }
            for (int k = 0; k < 5; ++k) {
                message.Level(n, '1', 5001.0 + k, 10 + k);
            }
            message.Stats(n, 100, 5e5, 100, 5e5);
        }
        flush(message);
    }
    TcpSegmentFields fields;
    fields.dstPort = port;
    fields.seq = 100000;
    for (size_t at = 0; at < stream.size(); at += 1448) {
        const size_t size = std::min<size_t>(1448, stream.size() - at);
        std::vector<char> frame = build_tcp_frame(fields, stream.data() + at, size);
        snap.lengths.push_back(static_cast<unsigned int>(frame.size()));
        frame.resize(frame.size() + kMdqpReadSlack, 0);
        snap.frames.push_back(std::move(frame));
        snap.payloadBytes += size;
        fields.seq += static_cast<uint32_t>(size);
    }
}

void BM_FullSnapshotThroughPacketHandler(benchmark::State& state) {
    CCommonLog::GetInstance().SetLogLevel(LOG_ERROR);
    CTcpHarness h;
    Snapshot snap;
    AddFeed(snap, 1000, CTcpHarness::kPort2ps, QUVO_SHFE_MAX_INST_CNT, 'c');
    AddFeed(snap, 5000, CTcpHarness::kPort4ps, QUVO_INE_MAX_INST_CNT, 's');
    for (auto _ : state) {
        state.PauseTiming();
        CExanicTcpFuncTestAccess::Cleandata(*h.tcp);
        state.ResumeTiming();
        for (size_t i = 0; i < snap.frames.size(); ++i) {
            CExanicTcpFuncTestAccess::PacketHandler(*h.tcp, snap.frames[i].data(), snap.lengths[i]);
        }
        if (h.finished.mask != h.enabled.mask || h.area->shfe_inst_cnt != QUVO_SHFE_MAX_INST_CNT) {
            state.SkipWithError("snapshot did not complete");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * snap.payloadBytes));
    state.counters["frames"] = static_cast<double>(snap.frames.size());
}
QUVO_BENCHMARK(BM_FullSnapshotThroughPacketHandler)->Unit(benchmark::kMillisecond);

void BM_TcpChecksum(benchmark::State& state) {
    CTcpHarness h;
    const std::vector<char> payload(1448, 'x');
    std::vector<char> frame = build_tcp_frame(TcpSegmentFields{}, payload);
    const char* ip = frame.data() + 14;
    const int seglen = 20 + 1448;
    for (auto _ : state) {
        benchmark::DoNotOptimize(CExanicTcpFuncTestAccess::ChecksumOk(*h.tcp, ip, 20, seglen));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * seglen);
}
QUVO_BENCHMARK(BM_TcpChecksum);

}  // namespace

#ifndef QUVO_BENCHMARK_SUFFIX
BENCHMARK_MAIN();
#endif
