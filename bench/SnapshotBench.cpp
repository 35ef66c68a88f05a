// Snapshot decoding throughput: a full table of 20480 instruments with five
// levels per side, as TCP frames through the packet handler into the area.
// Built six times into one program, as UdpBench is (see there).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <cstring>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "src/tcp/TcpChecksum.h"
#include "src/tcp/WireLoad.h"
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

// The closing check alone, over the full table the snapshot leaves behind.
void BM_PriceCheckFullTable(benchmark::State& state) {
    CCommonLog::GetInstance().SetLogLevel(LOG_ERROR);
    CTcpHarness h;
    Snapshot snap;
    AddFeed(snap, 1000, CTcpHarness::kPort2ps, QUVO_SHFE_MAX_INST_CNT, 'c');
    AddFeed(snap, 5000, CTcpHarness::kPort4ps, QUVO_INE_MAX_INST_CNT, 's');
    for (size_t i = 0; i < snap.frames.size(); ++i) {
        CExanicTcpFuncTestAccess::PacketHandler(*h.tcp, snap.frames[i].data(), snap.lengths[i]);
    }
    for (auto _ : state) {
        if (h.tcp->ShfePriceCheck() != 0) {
            state.SkipWithError("the table fails the check");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * QUVO_INST_SLOTS);
}
QUVO_BENCHMARK(BM_PriceCheckFullTable)->Unit(benchmark::kMicrosecond);

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

#ifndef QUVO_BENCHMARK_SUFFIX

// The floor for the same frames: what no decoder of this stream can skip.
// Unavoidable: each segment's checksum, one copy of its payload to join the
// messages that span segments, and one store of every field's values into
// its slot (record, limits, price tables); no header checks, sessions, field
// checks, subscription, book search or closing check.
void BM_SnapshotBare(benchmark::State& state) {
    CTcpHarness h;
    Snapshot snap;
    AddFeed(snap, 1000, CTcpHarness::kPort2ps, QUVO_SHFE_MAX_INST_CNT, 'c');
    AddFeed(snap, 5000, CTcpHarness::kPort4ps, QUVO_INE_MAX_INST_CNT, 's');
    share& area = *h.area;
    PriceCalcInfo& calc = *h.calc;
    std::vector<inter_info> limits(QUVO_INST_SLOTS);
    std::vector<char> joined(CExanicTcpFunc::kFragBufSize + kMdqpReadSlack, 0);
    uint32_t checksums = 0;
    for (auto _ : state) {
        state.PauseTiming();
        memset(static_cast<void*>(&area), 0, sizeof(area));
        memset(static_cast<void*>(&calc), 0, sizeof(calc));
        memset(static_cast<void*>(limits.data()), 0, limits.size() * sizeof(inter_info));
        state.ResumeTiming();
        size_t held = 0;
        for (size_t i = 0; i < snap.frames.size(); ++i) {
            const char* ip = snap.frames[i].data() + 14;
            const char* tcp = ip + 20;
            const size_t seglen = snap.lengths[i] - 34;
            checksums += tcp_segment_checksum(ip, tcp, seglen);
            const bool ine = Load16(tcp + 2) == htons(CTcpHarness::kPort4ps);
            memcpy(joined.data() + held, tcp + 20, seglen - 20);
            held += seglen - 20;
            size_t at = 0;
            while (held - at >= sizeof(MdqpHeader)) {
                const MdqpHeader header = WireLoad<MdqpHeader>(joined.data() + at);
                const size_t size = header.length + sizeof(MdqpHeader);
                if (size > held - at) {
                    break;
                }
                int bids = 0;
                int asks = 0;
                for (size_t pos = at + sizeof(MdqpHeader); pos < at + size;) {
                    const FieldHeader field = WireLoad<FieldHeader>(joined.data() + pos);
                    const char* body = joined.data() + pos + sizeof(FieldHeader);
                    pos += sizeof(FieldHeader) + field.field_size;
                    const int32_t instNo = WireLoad<int32_t>(body);
                    const uint32_t slot = ine ? quvo_ine_slot(static_cast<uint32_t>(instNo))
                                              : quvo_shfe_slot(static_cast<uint32_t>(instNo));
                    if (field.field_id != MDQP_FID_PRICE_DETAIL) {
                        bids = asks = 0;
                    }
                    switch (field.field_id) {
                        case MDQP_FID_INST_INFO: {
                            const InstInfoField info = WireLoad<InstInfoField>(body);
                            const uint32_t infoSlot =
                                ine ? quvo_ine_slot(static_cast<uint32_t>(info.inst_no))
                                    : quvo_shfe_slot(static_cast<uint32_t>(info.inst_no));
                            memcpy(area.instmts[infoSlot].inst_id, info.inst_id, 15);
                            calc.priceTick[infoSlot] = info.price_tick;
                            calc.codecPrice[infoSlot] = info.codec_price;
                            calc.volumeMulti[infoSlot] = info.volume_multiple;
                            break;
                        }
                        case MDQP_FID_DEAL_INFO: {
                            const DealInfoField deal = WireLoad<DealInfoField>(body);
                            instrument& inst = area.instmts[slot];
                            inst.last_px = deal.last_price;
                            inst.turnover = deal.turnover;
                            inst.change_no = static_cast<uint32_t>(deal.change_no);
                            inst.update_milli_sec = static_cast<uint16_t>(deal.update_mill_sec);
                            inst.open_interest = deal.open_interest;
                            inst.volume = static_cast<uint32_t>(deal.volume);
                            inst.highest_price = deal.highest_price;
                            inst.lowest_price = deal.lowest_price;
                            limits[slot] = inter_info{deal.upper_limit_price, deal.lower_limit_price};
                            break;
                        }
                        case MDQP_FID_PRICE_DETAIL: {
                            const PriceDetailField level = WireLoad<PriceDetailField>(body);
                            instrument& inst = area.instmts[slot];
                            if (level.direction == '0') {
                                inst.bid_px[bids] = level.price;
                                inst.bid_vol[bids++] = level.volume;
                            } else {
                                inst.ask_px[asks] = level.price;
                                inst.ask_vol[asks++] = level.volume;
                            }
                            break;
                        }
                        case MDQP_FID_ORDER_STATIS: {
                            const OrderStatisField stats = WireLoad<OrderStatisField>(body);
                            instrument& inst = area.instmts[slot];
                            inst.bid_totvol = stats.bid_totvol;
                            inst.ask_totvol = stats.ask_totvol;
                            inst.bid_totamount = stats.bid_totamount;
                            inst.ask_totamount = stats.ask_totamount;
                            break;
                        }
                        default:
                            break;
                    }
                }
                at += size;
            }
            memmove(joined.data(), joined.data() + at, held - at);
            held -= at;
        }
        if (area.instmts[QUVO_INST_SLOTS - 1].ask_vol[4] != 14 || limits[0].upper_limit_price != 6000.0) {
            state.SkipWithError("snapshot did not complete");
            break;
        }
    }
    benchmark::DoNotOptimize(checksums);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * snap.payloadBytes));
    state.counters["frames"] = static_cast<double>(snap.frames.size());
}
BENCHMARK(BM_SnapshotBare)->Unit(benchmark::kMillisecond);

#endif

// The checksum unit itself is the same code in every copy, so it is measured
// once, on a 1460-byte segment, beside a plain read of the same bytes.
#ifndef QUVO_BENCHMARK_SUFFIX

constexpr size_t kChecksumSegment = 1460;

struct ChecksumInput {
    std::vector<char> frame =
        build_tcp_frame(TcpSegmentFields{}, std::vector<char>(kChecksumSegment - 20, 'x'));
    const char* ip = frame.data() + 14;
    const char* tcp = ip + 20;
};

template <uint16_t (*Checksum)(const char*, const char*, size_t)>
void RunChecksum(benchmark::State& state) {
    const ChecksumInput in;
    const char* ip = in.ip;
    const char* tcp = in.tcp;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ip);
        benchmark::DoNotOptimize(tcp);
        benchmark::DoNotOptimize(Checksum(ip, tcp, kChecksumSegment));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kChecksumSegment));
}

void BM_TcpChecksumUnitScalar(benchmark::State& state) {
    RunChecksum<tcp_segment_checksum_scalar>(state);
}
BENCHMARK(BM_TcpChecksumUnitScalar);

void BM_TcpChecksumUnitSimd(benchmark::State& state) {
    if (!tcp_segment_checksum_simd_supported()) {
        state.SkipWithError("this CPU has no AVX2");
        return;
    }
    RunChecksum<tcp_segment_checksum_simd>(state);
}
BENCHMARK(BM_TcpChecksumUnitSimd);

void BM_TcpChecksumUnitChosen(benchmark::State& state) {
    RunChecksum<tcp_segment_checksum>(state);
    state.SetLabel(tcp_segment_checksum_uses_simd() ? "simd" : "scalar");
}
BENCHMARK(BM_TcpChecksumUnitChosen);

// The floors: the same bytes read and added as 64-bit words, nothing folded,
// through general-purpose registers and through AVX2 registers.
void BM_TcpChecksumBaselineRead64(benchmark::State& state) {
    const ChecksumInput in;
    const char* tcp = in.tcp;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tcp);
        uint64_t sum = 0;
        for (size_t i = 0; i + 8 <= kChecksumSegment; i += 8) {
            uint64_t word;
            memcpy(&word, tcp + i, sizeof(word));
            sum += word;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kChecksumSegment));
}
BENCHMARK(BM_TcpChecksumBaselineRead64);

__attribute__((target("avx2"))) uint64_t ReadAvx2(const char* p) {
    __m256i a = _mm256_setzero_si256();
    __m256i b = _mm256_setzero_si256();
    size_t i = 0;
    for (; i + 64 <= kChecksumSegment; i += 64) {
        a = _mm256_add_epi64(a, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i)));
        b = _mm256_add_epi64(b, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i + 32)));
    }
    for (; i + 32 <= kChecksumSegment; i += 32) {
        a = _mm256_add_epi64(a, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + i)));
    }
    a = _mm256_add_epi64(a, b);
    const __m128i s = _mm_add_epi64(_mm256_castsi256_si128(a), _mm256_extracti128_si256(a, 1));
    return static_cast<uint64_t>(_mm_cvtsi128_si64(s)) + static_cast<uint64_t>(_mm_extract_epi64(s, 1));
}

void BM_TcpChecksumBaselineReadAvx2(benchmark::State& state) {
    if (!tcp_segment_checksum_simd_supported()) {
        state.SkipWithError("this CPU has no AVX2");
        return;
    }
    const ChecksumInput in;
    const char* tcp = in.tcp;
    for (auto _ : state) {
        benchmark::DoNotOptimize(tcp);
        benchmark::DoNotOptimize(ReadAvx2(tcp));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kChecksumSegment));
}
BENCHMARK(BM_TcpChecksumBaselineReadAvx2);

#endif

}  // namespace

#ifndef QUVO_BENCHMARK_SUFFIX
BENCHMARK_MAIN();
#endif
