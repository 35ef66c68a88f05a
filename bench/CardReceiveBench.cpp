// Cost of the card facade's receive call over calling the backend directly,
// and of a register store with no recorder installed.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sim/PcapWriter.h"
#include "src/dev/Card.h"

namespace {

constexpr int kFrames = 4096;

// A replayed decoded stream of 64-byte records on port 0, stream on.
struct ReplayFixture {
    ReplayFixture() {
        char dir[] = "/tmp/quvo-bench-XXXXXX";
        path = std::string(mkdtemp(dir)) + "/decoded.pcap";
        {
            CPcapWriter writer(path, 1, true);
            std::vector<char> record(64, 'r');
            for (int i = 0; i < kFrames; ++i) {
                writer.Write(record.data(), static_cast<uint32_t>(record.size()), i);
            }
        }
        device = "replay:decoded=" + path;
        handle = card_acquire_handle(device.c_str());
        registers = card_get_devkit_registers(handle);
        rx = card_acquire_rx_buffer(handle, 0, 0);
        reg_write(registers, REG_DECODE_DATA, 1);
        card = card_get_soft_card(handle);
        port = card->GetPort(0);
    }
    ~ReplayFixture() {
        card_release_rx_buffer(rx);
        card_release_handle(handle);
        unlink(path.c_str());
    }
    std::string path;
    std::string device;
    CardHandle* handle;
    volatile uint32_t* registers;
    CardRx* rx;
    CSoftCard* card;
    CSoftPort* port;
};

void BM_SoftCardReceiveDirect(benchmark::State& state) {
    ReplayFixture f;
    char buf[2048];
    for (auto _ : state) {
        ssize_t n = f.card->ReceiveDirect(0, buf, sizeof(buf));
        if (__builtin_expect(n == 0, 0)) {
            f.port->Rewind();
            n = f.card->ReceiveDirect(0, buf, sizeof(buf));
        }
        benchmark::DoNotOptimize(n);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SoftCardReceiveDirect);

void BM_CardFacadeReceive(benchmark::State& state) {
    ReplayFixture f;
    char buf[2048];
    for (auto _ : state) {
        ssize_t n = card_receive_frame(f.rx, buf, sizeof(buf));
        if (__builtin_expect(n == 0, 0)) {
            f.port->Rewind();
            n = card_receive_frame(f.rx, buf, sizeof(buf));
        }
        benchmark::DoNotOptimize(n);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CardFacadeReceive);

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

}  // namespace

BENCHMARK_MAIN();
