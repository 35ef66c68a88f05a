#include "src/dev/soft/RxRing.h"

#if QUVO_HAVE_EXANIC

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "src/dev/soft/DirectRx.h"
#include "tests/support/RxPathTest.h"

// Outside the anonymous namespace, which would show in the shared tests' names.
class RxRingTest : public CRxPathFixture {
protected:
    RxRingTest() : CRxPathFixture(true) {}

    void SetUp() override {
        m_ring = CSoftRxRing::Create();
        ASSERT_NE(m_ring, nullptr);
        m_ring->Attach(m_rx);
    }

    void Deliver(const RxTestFrame& frame, uint8_t status) override {
        m_ring->Write(frame.bytes.data(), static_cast<uint32_t>(frame.bytes.size()), status, frame.timestamp);
    }
    // One read by the card library's receive call.
    ssize_t Receive(char* buffer, size_t size, uint32_t* timestamp) override {
        return exanic_receive_frame(&m_rx, buffer, size, timestamp);
    }

    struct rx_chunk_info InfoAt(uint32_t chunk) const {
        const uint64_t word = m_ring->GetChunks()[chunk].u.data;
        struct rx_chunk_info info;
        memcpy(&info, &word, sizeof(info));
        return info;
    }

    std::string PayloadAt(uint32_t chunk, uint32_t bytes) const {
        const volatile char* payload = m_ring->GetChunks()[chunk].payload;
        std::string copy(bytes, '\0');
        for (uint32_t i = 0; i < bytes; ++i) {
            copy[i] = payload[i];
        }
        return copy;
    }

    // The raw ring holds `frame` from chunk `first` on, written in
    // generation `generation`: full chunks with length 0, then the last
    // with its byte count and the status.
    void ExpectChunks(uint32_t first, uint8_t generation, const RxTestFrame& frame, uint8_t status) {
        const uint32_t length = static_cast<uint32_t>(frame.bytes.size());
        const uint32_t chunks = rx_frame_chunks(length);
        for (uint32_t i = 0; i < chunks; ++i) {
            const uint32_t position = first + i;
            const uint32_t chunk = position % kRxRingChunks;
            const bool last = i + 1 == chunks;
            const uint32_t bytes = last ? length - i * kRxChunkPayload : kRxChunkPayload;
            const struct rx_chunk_info info = InfoAt(chunk);
            SCOPED_TRACE("chunk " + std::to_string(i) + " of a " + std::to_string(length) + "-byte frame");
            EXPECT_EQ(info.length, last ? bytes : 0u);
            EXPECT_EQ(info.generation, static_cast<uint8_t>(generation + position / kRxRingChunks));
            EXPECT_EQ(info.frame_status, last ? status : 0);
            EXPECT_EQ(info.timestamp, frame.timestamp);
            EXPECT_EQ(PayloadAt(chunk, bytes), frame.bytes.substr(i * kRxChunkPayload, bytes));
        }
    }

    // Writes and reads frames until the writer's next chunk is `chunk`.
    void AdvanceTo(uint32_t chunk) {
        while (m_ring->GetNextChunk() != chunk) {
            const uint32_t distance = (chunk + kRxRingChunks - m_ring->GetNextChunk()) % kRxRingChunks;
            const RxTestFrame& frame = Write(std::min(distance, 17u) * kRxChunkPayload);
            ExpectFrame(frame);
            ASSERT_FALSE(HasFatalFailure());
        }
    }

    // Writes whole-chunk frames until exactly `chunks` chunks wait for m_rx.
    void WriteUntilPending(uint64_t chunks) {
        while (m_ring->GetPending(m_rx) < chunks) {
            const uint64_t left = chunks - m_ring->GetPending(m_rx);
            Write(static_cast<uint32_t>(std::min<uint64_t>(left, 17)) * kRxChunkPayload);
        }
    }

    std::unique_ptr<CSoftRxRing> m_ring;
    exanic_rx_t m_rx{};
};

INSTANTIATE_TYPED_TEST_SUITE_P(RxRing, RxPathTest, RxRingTest);

namespace {

constexpr int kSwOverflow = -EXANIC_RX_FRAME_SWOVFL;
constexpr int kTruncated = -EXANIC_RX_FRAME_TRUNCATED;

// Random bytes that frames are cut from, so a frame needs no building.
std::vector<char> MakePool(size_t size, uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::vector<char> pool(size);
    for (char& byte : pool) {
        byte = static_cast<char>(rng());
    }
    return pool;
}

TEST_F(RxRingTest, FreshRingGivesNothing) {
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(m_ring->IsDrained(m_rx));
    EXPECT_EQ(m_ring->GetPending(m_rx), 0u);
    EXPECT_EQ(m_rx.next_chunk, 0u);
    EXPECT_EQ(m_rx.generation, m_ring->GetGeneration());
}

TEST_F(RxRingTest, EveryLengthReadsBackWholeOrTruncatedWithABufferOf2048) {
    constexpr size_t kSize = 2048;
    for (uint32_t length = 1; length <= 2100; ++length) {
        const RxTestFrame& frame = Write(length);
        const RxTestFrame& next = Write(length % 97 + 1);
        ASSERT_EQ(m_ring->GetPending(m_rx), rx_frame_chunks(length) + 1u) << length;
        if (length <= kSize) {
            ExpectFrame(frame, kSize);
        } else {
            ASSERT_EQ(Read(kSize), kTruncated) << length;
        }
        ExpectFrame(next, kSize);
        ASSERT_FALSE(HasFatalFailure()) << length;
        ASSERT_TRUE(m_ring->IsDrained(m_rx)) << length;
        ASSERT_EQ(Read(kSize), 0) << length;
    }
    // the sweep writes more than a ring, so it crossed the wrap
    EXPECT_GT(m_ring->GetChunksWritten(), kRxRingChunks);
}

TEST_F(RxRingTest, FramesEndingOnAndBesideChunkBoundariesLeaveTheExpectedInfoWords) {
    for (uint32_t chunks = 1; chunks <= 17; ++chunks) {
        for (uint32_t length :
             {chunks * kRxChunkPayload - 1, chunks * kRxChunkPayload, chunks * kRxChunkPayload + 1}) {
            SCOPED_TRACE(length);
            const uint32_t first = m_ring->GetNextChunk();
            const uint8_t generation = m_ring->GetGeneration();
            const RxTestFrame& frame = Write(length);
            ExpectChunks(first, generation, frame, EXANIC_RX_FRAME_OK);
            EXPECT_EQ(m_ring->GetNextChunk(), (first + rx_frame_chunks(length)) % kRxRingChunks);
            ExpectFrame(frame, length);
            EXPECT_EQ(m_rx.next_chunk, m_ring->GetNextChunk());

            Write(length);
            EXPECT_EQ(Read(length - 1), kTruncated);
            EXPECT_TRUE(m_ring->IsDrained(m_rx));
            EXPECT_EQ(Read(), 0);
        }
    }
}

TEST_F(RxRingTest, GenerationReturnsToItsStartAfter256Laps) {
    constexpr uint32_t kLength = 2048;  // 18 chunks, 8 bytes in the last
    const std::vector<char> pool = MakePool(1 << 20, 256);
    const uint8_t start = m_ring->GetGeneration();
    const uint64_t end = 257ull * kRxRingChunks;
    bool backAtStart = false;
    for (uint32_t frame = 0; m_ring->GetChunksWritten() < end; ++frame) {
        const uint64_t before = m_ring->GetChunksWritten();
        const char* data = pool.data() + (frame * 4099ull) % (pool.size() - kLength);
        m_ring->Write(data, kLength, EXANIC_RX_FRAME_OK, frame);
        const uint64_t written = m_ring->GetChunksWritten();
        ASSERT_EQ(m_ring->GetGeneration(), static_cast<uint8_t>(start + written / kRxRingChunks));
        ASSERT_EQ(InfoAt((written - 1) % kRxRingChunks).generation,
                  static_cast<uint8_t>(start + (written - 1) / kRxRingChunks));

        uint32_t timestamp = 0;
        ASSERT_EQ(exanic_receive_frame(&m_rx, m_buffer.data(), kBufferSize, &timestamp), kLength) << frame;
        ASSERT_EQ(memcmp(m_buffer.data(), data, kLength), 0) << frame;
        ASSERT_EQ(timestamp, frame);
        ASSERT_EQ(m_rx.next_chunk, m_ring->GetNextChunk());
        ASSERT_EQ(m_rx.generation, m_ring->GetGeneration());

        if (before < 256ull * kRxRingChunks && written >= 256ull * kRxRingChunks) {
            backAtStart = true;
            EXPECT_EQ(m_ring->GetGeneration(), start);
            EXPECT_EQ(m_rx.generation, start);
        }
    }
    EXPECT_TRUE(backAtStart);
    EXPECT_EQ(Read(), 0);
}

TEST_F(RxRingTest, FrameAcrossTheRingsEndReadsWhole) {
    // An 18-chunk frame with 0..18 of its chunks before the wrap.
    for (uint32_t before = 0; before <= 18; ++before) {
        SCOPED_TRACE(before);
        const uint32_t first = (kRxRingChunks - before) % kRxRingChunks;
        AdvanceTo(first);
        ASSERT_FALSE(HasFatalFailure());
        const uint8_t generation = m_ring->GetGeneration();
        const RxTestFrame& frame = Write(17 * kRxChunkPayload + 1);
        ExpectChunks(first, generation, frame, EXANIC_RX_FRAME_OK);
        EXPECT_EQ(m_ring->GetNextChunk(), (first + 18) % kRxRingChunks);
        if (before > 0) {
            EXPECT_EQ(m_ring->GetGeneration(), static_cast<uint8_t>(generation + 1));
        }
        ExpectFrame(frame);
        EXPECT_EQ(Read(), 0);
    }
}

TEST_F(RxRingTest, MoreThanARingBeforeAReadLapsTheReader) {
    const RxTestFrame& first = Write(300);
    ExpectFrame(first);
    for (uint32_t i = 0; m_ring->GetPending(m_rx) <= kRxRingChunks; ++i) {
        Write(i * 37 % 3000 + 1);
    }
    EXPECT_EQ(Read(), kSwOverflow);
    // the catch-up lands after the last frame written
    EXPECT_TRUE(m_ring->IsDrained(m_rx));
    EXPECT_EQ(Read(), 0);
    const RxTestFrame& a = Write(1000);
    const RxTestFrame& b = Write(50);
    ExpectFrame(a);
    ExpectFrame(b);
    EXPECT_EQ(Read(), 0);
}

TEST_F(RxRingTest, LapCuttingThroughAMultiChunkFrameResumesOnTheNextNewFrame) {
    // reader waits at F, 17 chunks [r, r+17); the writer runs on until
    // `cut` of F's chunks are overwritten. cut 0: F intact but the end of the
    // frame before it overwritten.
    for (uint32_t cut = 0; cut <= 17; ++cut) {
        SCOPED_TRACE(cut);
        ASSERT_EQ(Read(), 0);
        const uint32_t r = m_ring->GetNextChunk();
        const uint8_t generation = m_ring->GetGeneration();
        Write(17 * kRxChunkPayload);
        WriteUntilPending(kRxRingChunks + cut);
        ASSERT_EQ(m_ring->GetPending(m_rx), kRxRingChunks + cut);
        if (cut < 17) {
            const uint32_t kept = r + cut;  // F's first chunk still there
            EXPECT_EQ(InfoAt(kept % kRxRingChunks).generation,
                      static_cast<uint8_t>(generation + kept / kRxRingChunks));
        }
        if (cut > 0) {
            const uint32_t lost = r + cut - 1;
            EXPECT_EQ(InfoAt(lost % kRxRingChunks).generation,
                      static_cast<uint8_t>(generation + 1 + lost / kRxRingChunks));
        }
        EXPECT_EQ(Read(), kSwOverflow);
        EXPECT_TRUE(m_ring->IsDrained(m_rx));
        const RxTestFrame& next = Write(700);
        ExpectFrame(next);
    }
}

TEST_F(RxRingTest, LapEndingOnTheRingsLastChunkCatchesUpToChunkZero) {
    // No generation break is left in the ring: every chunk holds the same one.
    const RxTestFrame& first = Write(500);
    ExpectFrame(first);
    WriteUntilPending(kRxRingChunks + 1);
    while (m_ring->GetNextChunk() != 0) {
        const uint32_t left = kRxRingChunks - m_ring->GetNextChunk();
        Write(std::min(left, 17u) * kRxChunkPayload);
    }
    const uint8_t generation = InfoAt(0).generation;
    for (uint32_t chunk = 1; chunk < kRxRingChunks; ++chunk) {
        ASSERT_EQ(InfoAt(chunk).generation, generation) << chunk;
    }
    EXPECT_EQ(Read(), kSwOverflow);
    EXPECT_EQ(m_rx.next_chunk, 0u);
    EXPECT_EQ(m_rx.generation, m_ring->GetGeneration());
    EXPECT_EQ(Read(), 0);
    const RxTestFrame& next = Write(2500);
    ExpectFrame(next);
}

TEST_F(RxRingTest, OverwrittenFrameIsALapEvenWhenTooLongForTheBuffer) {
    // waiting: F [0,17), then to chunk 16385: F's first chunk overwritten
    Write(17 * kRxChunkPayload);
    WriteUntilPending(kRxRingChunks + 1);
    EXPECT_EQ(Read(100), kSwOverflow);
    EXPECT_TRUE(m_ring->IsDrained(m_rx));
}

TEST_F(RxRingTest, IntactFrameTooLongForTheBufferIsTruncatedBeforeTheLapShows) {
    // waiting: F [0,17), then to chunk 16384: F intact, chunk 16383 (the
    // end the reader was placed after) overwritten
    Write(17 * kRxChunkPayload);
    WriteUntilPending(kRxRingChunks);
    EXPECT_EQ(Read(100), kTruncated);
    EXPECT_EQ(Read(), kSwOverflow);
    EXPECT_TRUE(m_ring->IsDrained(m_rx));
    EXPECT_EQ(Read(), 0);
}

TEST_F(RxRingTest, HardwareErrorStatusIsReturnedNegated) {
    struct Case {
        uint8_t status;
        int result;  // 0: the frame's length
    };
    const Case cases[] = {
        {EXANIC_RX_FRAME_ABORTED, -1},
        {EXANIC_RX_FRAME_CORRUPT, -2},
        {EXANIC_RX_FRAME_HWOVFL, -3},
        {0xF0, 0},  // filter region bits only: a good frame
        {0x12, -2},
        {0x8F, -15},
    };
    for (const Case& c : cases) {
        for (uint32_t length : {60u, 1514u}) {
            SCOPED_TRACE(std::to_string(c.status) + " " + std::to_string(length));
            const uint32_t first = m_ring->GetNextChunk();
            const uint8_t generation = m_ring->GetGeneration();
            const RxTestFrame& frame = Write(length, c.status);
            ExpectChunks(first, generation, frame, c.status);
            const RxTestFrame& good = Write(64);
            if (c.result == 0) {
                ExpectFrame(frame);
            } else {
                EXPECT_EQ(Read(), c.result);
                EXPECT_EQ(std::string(m_buffer.data(), length), frame.bytes);
            }
            ExpectFrame(good);
        }
    }
}

TEST_F(RxRingTest, AttachStartsAfterTheFramesAlreadyInTheRing) {
    const RxTestFrame& a = Write(100);
    const RxTestFrame& b = Write(3000);
    exanic_rx_t late{};
    m_ring->Attach(late);
    EXPECT_TRUE(m_ring->IsDrained(late));
    char buffer[kBufferSize];
    EXPECT_EQ(exanic_receive_frame(&late, buffer, sizeof(buffer), nullptr), 0);
    const RxTestFrame& c = Write(77);
    ASSERT_EQ(exanic_receive_frame(&late, buffer, sizeof(buffer), nullptr), 77);
    EXPECT_EQ(std::string(buffer, 77), c.bytes);
    EXPECT_EQ(exanic_receive_frame(&late, buffer, sizeof(buffer), nullptr), 0);
    // the reader attached first still sees all three
    ExpectFrame(a);
    ExpectFrame(b);
    ExpectFrame(c);
}

TEST_F(RxRingTest, AttachAfterWrapsStartsAtTheWriter) {
    for (uint32_t chunk : {5000u, kRxRingChunks - 17, kRxRingChunks - 1, 0u, 1u, 17u, 5000u}) {
        SCOPED_TRACE(chunk);
        AdvanceTo(chunk);
        ASSERT_FALSE(HasFatalFailure());
        // 17 chunks: from 16367 it ends on the last chunk and leaves no generation break
        Write(2000);
        exanic_rx_t late{};
        m_ring->Attach(late);
        EXPECT_TRUE(m_ring->IsDrained(late));
        EXPECT_EQ(late.next_chunk, m_ring->GetNextChunk());
        char buffer[kBufferSize];
        EXPECT_EQ(exanic_receive_frame(&late, buffer, sizeof(buffer), nullptr), 0);
        const RxTestFrame& next = Write(1500);
        ASSERT_EQ(exanic_receive_frame(&late, buffer, sizeof(buffer), nullptr), 1500);
        EXPECT_EQ(std::string(buffer, 1500), next.bytes);
        m_ring->Attach(m_rx);
    }
}

// Both receive paths fed the same arrivals; every read is made on both and
// must give the same result and bytes. A shadow queue of the frames waiting
// checks the library's own answers: whole frames, in order, none skipped
// without a lap.
class CDifferentialRun {
public:
    static constexpr uint32_t kMaxLength = 3000;

    CDifferentialRun(CSoftRxRing& ring, exanic_rx_t& rx, uint64_t seed)
        : m_ring(ring),
          m_rx(rx),
          m_rng(seed),
          m_pool(MakePool(1 << 20, seed)),
          m_ringBuffer(kMaxLength + 1),
          m_directBuffer(kMaxLength + 1) {}

    uint64_t Pending() const { return m_ring.GetPending(m_rx); }
    uint64_t Random(uint64_t bound) { return m_rng() % bound; }
    bool IsWaiting() const { return !m_waiting.empty(); }
    uint32_t NextLength() const { return m_waiting.front().length; }

    uint32_t RandomLength() {
        static constexpr uint32_t kEdges[] = {1,   119,  120,  121,  239,  240,
                                              241, 1514, 2040, 2048, 2049, kMaxLength};
        if (Random(10) < 3) {
            return kEdges[Random(std::size(kEdges))];
        }
        return static_cast<uint32_t>(Random(kMaxLength)) + 1;
    }

    uint8_t RandomStatus() {
        static constexpr uint8_t kStatuses[] = {1, 2, 3, 0x10, 0x22, 0x81, 0x0F, 0xF0, 5};
        if (Random(4) != 0) {
            return 0;
        }
        return kStatuses[Random(std::size(kStatuses))];
    }

    void Write(uint32_t length, uint8_t status) {
        const char* data = m_pool.data() + Random(m_pool.size() - length);
        const uint32_t timestamp = static_cast<uint32_t>(++m_written);
        m_ring.Write(data, length, status, timestamp);
        m_direct.Write({data, length, status, timestamp});
        m_waiting.push_back({data, length, status});
        _Log("write " + std::to_string(length) + " status " + std::to_string(status));
    }

    // Frames whose chunks add up to exactly `chunks` more waiting.
    void WriteChunks(uint64_t chunks) {
        while (chunks > 0) {
            const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(chunks, Random(25) + 1));
            Write((n - 1) * kRxChunkPayload + static_cast<uint32_t>(Random(kRxChunkPayload)) + 1,
                  RandomStatus());
            chunks -= n;
        }
    }

    void Attach() {
        m_ring.Attach(m_rx);
        m_direct.Attach();
        m_waiting.clear();
        m_lost = m_direct.GetLost();
        _Log("attach");
        ASSERT_TRUE(m_ring.IsDrained(m_rx));
        ASSERT_TRUE(m_direct.IsDrained());
    }

    // Returns the common result.
    ssize_t Read(size_t size) {
        std::fill(m_ringBuffer.begin(), m_ringBuffer.end(), '\x5A');
        std::fill(m_directBuffer.begin(), m_directBuffer.end(), '\x5A');
        const uint64_t pending = Pending();
        const ssize_t expected = exanic_receive_frame(&m_rx, m_ringBuffer.data(), size, nullptr);
        const ssize_t got = m_direct.Read(m_directBuffer.data(), size);
        _Log("read " + std::to_string(size) + " with " + std::to_string(pending) +
             " chunks waiting: library " + std::to_string(expected) + ", direct " + std::to_string(got));
        ++m_reads;
        _Check(expected, got, size, pending);
        return expected;
    }

    std::string History() const {
        std::string text = "after " + std::to_string(m_reads) + " reads; last steps:\n";
        for (const std::string& line : m_history) {
            text += "  " + line + "\n";
        }
        return text;
    }

    uint64_t m_frames = 0;
    uint64_t m_errors = 0;
    uint64_t m_truncated = 0;
    uint64_t m_overwriteLaps = 0;  // the frame's first chunk was overwritten
    uint64_t m_checkLaps = 0;      // only the end of the last frame read was
    uint64_t m_empty = 0;

private:
    struct Waiting {
        const char* data;
        uint32_t length;
        uint8_t status;
    };

    void _Log(std::string line) {
        m_history.push_back(std::move(line));
        if (m_history.size() > 40) {
            m_history.pop_front();
        }
    }

    void _Check(ssize_t expected, ssize_t got, size_t size, uint64_t pending) {
        ASSERT_EQ(got, expected) << History();
        const bool copied = expected >= 0 || -expected <= EXANIC_RX_FRAME_ERROR_MASK;
        if (copied) {
            ASSERT_EQ(memcmp(m_ringBuffer.data(), m_directBuffer.data(), m_ringBuffer.size()), 0)
                << History();
        }
        ASSERT_EQ(m_direct.GetPending(), Pending()) << History();
        ASSERT_EQ(m_direct.IsDrained(), m_ring.IsDrained(m_rx)) << History();

        if (expected == kSwOverflow) {
            // frames beyond a ring's worth are counted when overwritten, the rest at the lap
            m_lost += m_waiting.size();
            ASSERT_EQ(m_direct.GetLost(), m_lost) << History();
            ASSERT_TRUE(m_ring.IsDrained(m_rx)) << History();
            m_waiting.clear();
            ++(pending > kRxRingChunks ? m_overwriteLaps : m_checkLaps);
            return;
        }
        ASSERT_EQ(m_direct.GetLost(), m_lost) << History();
        if (expected == 0) {
            ASSERT_TRUE(m_waiting.empty()) << History();
            ++m_empty;
            return;
        }
        ASSERT_FALSE(m_waiting.empty()) << History();
        const Waiting frame = m_waiting.front();
        m_waiting.pop_front();
        if (expected == kTruncated) {
            ASSERT_GT(frame.length, size) << History();
            ++m_truncated;
            return;
        }
        ASSERT_LE(frame.length, size) << History();
        ASSERT_EQ(memcmp(m_ringBuffer.data(), frame.data, frame.length), 0) << History();
        ASSERT_EQ(m_ringBuffer[frame.length], '\x5A') << History();
        const int error = frame.status & EXANIC_RX_FRAME_ERROR_MASK;
        if (error != 0) {
            ASSERT_EQ(expected, -error) << History();
            ++m_errors;
        } else {
            ASSERT_EQ(expected, static_cast<ssize_t>(frame.length)) << History();
            ++m_frames;
        }
    }

    CSoftRxRing& m_ring;
    exanic_rx_t& m_rx;
    CSoftDirectRx m_direct;
    std::mt19937_64 m_rng;
    std::vector<char> m_pool;
    std::vector<char> m_ringBuffer;
    std::vector<char> m_directBuffer;
    std::deque<Waiting> m_waiting;
    std::deque<std::string> m_history;
    uint64_t m_written = 0;
    uint64_t m_reads = 0;
    uint64_t m_lost = 0;
};

TEST_F(RxRingTest, DirectBufferGivesTheLibrarysResultOnASeededSequence) {
    CDifferentialRun run(*m_ring, m_rx, 20240917);
    for (int step = 0; step < 6000; ++step) {
        const uint64_t op = run.Random(100);
        if (op < 45) {
            run.Write(run.RandomLength(), run.RandomStatus());
        } else if (op < 85) {
            size_t size = CDifferentialRun::kMaxLength;
            const uint64_t kind = run.Random(10);
            if (kind < 2) {
                size = run.Random(CDifferentialRun::kMaxLength + 1);
            } else if (kind < 5 && run.IsWaiting()) {
                // just too small, exact, one spare
                size = run.NextLength() + run.Random(3) - 1;
            } else if (kind < 6) {
                size = 2048;
            }
            run.Read(size);
        } else if (op < 91) {
            for (int i = 0; i < 100000 && run.Read(CDifferentialRun::kMaxLength) != 0; ++i) {
                ASSERT_FALSE(HasFatalFailure());
            }
        } else if (op < 95) {
            // one ring's worth give or take a few chunks
            const uint64_t target = kRxRingChunks + run.Random(7) - 3;
            if (run.Pending() < target) {
                run.WriteChunks(target - run.Pending());
            }
        } else if (op < 98) {
            const uint64_t target = kRxRingChunks + run.Random(kRxRingChunks);
            while (run.Pending() <= target) {
                run.Write(run.RandomLength(), run.RandomStatus());
            }
        } else {
            run.Attach();
        }
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
    // the sequence reached every outcome
    EXPECT_GT(run.m_frames, 0u);
    EXPECT_GT(run.m_errors, 0u);
    EXPECT_GT(run.m_truncated, 0u);
    EXPECT_GT(run.m_overwriteLaps, 0u);
    EXPECT_GT(run.m_checkLaps, 0u);
    EXPECT_GT(run.m_empty, 0u);
    RecordProperty("frames", std::to_string(run.m_frames));
    RecordProperty("errors", std::to_string(run.m_errors));
    RecordProperty("truncated", std::to_string(run.m_truncated));
    RecordProperty("overwrite_laps", std::to_string(run.m_overwriteLaps));
    RecordProperty("check_laps", std::to_string(run.m_checkLaps));
    RecordProperty("empty", std::to_string(run.m_empty));
}

uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

// 121..3000 bytes: 2 to 25 chunks.
uint32_t ConcurrentLength(uint64_t seq) {
    return 121 + static_cast<uint32_t>(Mix(~seq) % 2880);
}

// Sequence number, length and first chunk's ring position, then words drawn
// from the sequence number.
constexpr uint32_t kConcurrentHeader = 20;

void FillConcurrentFrame(char* out, uint64_t seq, uint32_t length, uint64_t position) {
    memcpy(out, &seq, sizeof(seq));
    memcpy(out + 8, &length, sizeof(length));
    memcpy(out + 12, &position, sizeof(position));
    for (uint32_t i = kConcurrentHeader; i < length; i += 8) {
        const uint64_t word = Mix(seq * 4096 + i / 8);
        memcpy(out + i, &word, std::min<uint32_t>(8, length - i));
    }
}

TEST_F(RxRingTest, ConcurrentWriterNeverHandsTheReaderATornFrame) {
    // The writer may run `allowance` chunks past the chunk the reader is
    // known to have reached: less than a ring, so a plain read is never
    // lapped; for an edge read about one ring, so it may overwrite the frame
    // being copied; for a forced lap, more than one ring.
    constexpr uint64_t kSafe = kRxRingChunks - 64;
    constexpr uint64_t kEdge = kRxRingChunks + 45;
    constexpr uint64_t kMinFrames = 20000;
    constexpr int kForcedLaps = 20;

    std::atomic<uint64_t> written{0};
    std::atomic<uint64_t> readerLow{0};
    std::atomic<uint64_t> allowance{kSafe};
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        std::vector<char> frame(3000);
        uint64_t position = 0;
        for (uint64_t seq = 0; !stop.load(std::memory_order_relaxed); ++seq) {
            const uint32_t length = ConcurrentLength(seq);
            const uint32_t frameChunks = rx_frame_chunks(length);
            for (;;) {
                // the reader's position first: it only grows, and is raised after the allowance is lowered
                const uint64_t low = readerLow.load(std::memory_order_acquire);
                if (position + frameChunks <= low + allowance.load(std::memory_order_acquire)) {
                    break;
                }
                if (stop.load(std::memory_order_relaxed)) {
                    return;
                }
                std::this_thread::yield();
            }
            FillConcurrentFrame(frame.data(), seq, length, position);
            m_ring->Write(frame.data(), length, EXANIC_RX_FRAME_OK, static_cast<uint32_t>(seq));
            position += frameChunks;
            written.store(position, std::memory_order_release);
        }
    });
    struct Joiner {
        std::atomic<bool>& stop;
        std::thread& thread;
        ~Joiner() {
            stop.store(true);
            thread.join();
        }
    } joiner{stop, writer};

    std::mt19937 rng(7);
    std::vector<char> expected(3000);
    // Where the reader is: the next frame's sequence number and first chunk
    // when `known`; after a lap only a floor.
    uint64_t next = 0;
    uint64_t position = 0;
    bool known = true;
    uint64_t floor = 0;
    // The furthest any edge read or forced lap let the writer go.
    uint64_t edgeCap = 0;
    uint64_t whole = 0;
    uint64_t laps = 0;
    uint64_t edgeReads = 0;
    uint64_t edgeWhole = 0;
    int forcedLaps = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (uint64_t i = 1; forcedLaps < kForcedLaps || whole < kMinFrames; ++i) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << whole << " frames, " << laps << " laps";
        const bool force = known && i % 1000 == 0;
        const bool edge = known && !force && i % 40 == 0;
        const uint64_t low = known ? position : floor;
        // No overwrite can reach the reader: the end it last read stays intact.
        const bool safe = !force && !edge && edgeCap < low + kRxRingChunks;
        if (force || edge) {
            allowance.store(kEdge, std::memory_order_release);
            edgeCap = std::max(edgeCap, position + kEdge);
            const uint64_t target =
                force ? position + kRxRingChunks + 1 : position + kRxRingChunks - 40 + rng() % 60;
            while (written.load(std::memory_order_acquire) < target) {
                std::this_thread::yield();
            }
            edgeReads += edge ? 1 : 0;
        }
        const uint64_t before = written.load(std::memory_order_acquire);
        const ssize_t result = Read();
        allowance.store(kSafe, std::memory_order_release);
        if (force) {
            ASSERT_EQ(result, kSwOverflow) << "forced lap " << forcedLaps;
            ++forcedLaps;
        }
        if (result == kSwOverflow) {
            ASSERT_FALSE(safe) << "lapped although the writer was held back, read " << i;
            ++laps;
            known = false;
            floor = before;  // the catch-up lands at or after the writer's position then
        } else if (result == 0) {
            if (!known) {
                floor = std::max(floor, before);
            }
        } else {
            ASSERT_GE(result, static_cast<ssize_t>(kConcurrentHeader)) << "read " << i;
            uint64_t seq;
            uint32_t length;
            uint64_t first;
            memcpy(&seq, m_buffer.data(), sizeof(seq));
            memcpy(&length, m_buffer.data() + 8, sizeof(length));
            memcpy(&first, m_buffer.data() + 12, sizeof(first));
            if (known) {
                ASSERT_EQ(seq, next) << "a frame was skipped without a lap";
                ASSERT_EQ(first, position) << seq;
            } else {
                ASSERT_GE(first, floor) << "a frame from before the lap: " << seq;
            }
            ASSERT_EQ(length, ConcurrentLength(seq)) << seq;
            ASSERT_EQ(result, static_cast<ssize_t>(length)) << seq;
            FillConcurrentFrame(expected.data(), seq, length, first);
            ASSERT_EQ(memcmp(m_buffer.data(), expected.data(), length), 0) << "torn frame " << seq;
            ASSERT_EQ(m_timestamp, static_cast<uint32_t>(seq));
            next = seq + 1;
            position = first + rx_frame_chunks(length);
            known = true;
            ++whole;
            edgeWhole += edge ? 1 : 0;
        }
        readerLow.store(known ? position : floor, std::memory_order_release);
        for (uint32_t spin = rng() % 256; spin > 0; --spin) {
            __asm__ __volatile__("" ::: "memory");
        }
    }
    RecordProperty("frames_whole", std::to_string(whole));
    RecordProperty("laps", std::to_string(laps));
    RecordProperty("edge_reads", std::to_string(edgeReads));
    RecordProperty("edge_reads_whole", std::to_string(edgeWhole));
}

}  // namespace

#endif
