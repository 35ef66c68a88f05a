#include "src/dev/soft/DirectRx.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "src/dev/Card.h"
#include "src/dev/RxFrame.h"
#include "tests/support/RxPathTest.h"

// Outside the anonymous namespace, which would show in the shared tests' names.
class DirectRxTest : public CRxPathFixture {
protected:
    DirectRxTest() : CRxPathFixture(false) {}

    void Deliver(const RxTestFrame& frame, uint8_t status) override {
        m_rx.Write({frame.bytes.data(), static_cast<uint32_t>(frame.bytes.size()), status, frame.timestamp});
    }
    ssize_t Receive(char* buffer, size_t size, uint32_t*) override { return m_rx.Read(buffer, size); }

    // Writes single-chunk frames until `chunks` chunks wait.
    void WriteUntilPending(uint64_t chunks) {
        while (m_rx.GetPending() < chunks) {
            Write(kRxChunkPayload);
        }
    }

    CSoftDirectRx m_rx;
};

INSTANTIATE_TYPED_TEST_SUITE_P(DirectRx, RxPathTest, DirectRxTest);

namespace {

// Log lines, the software card and the feed compare against these numbers,
// so they must not drift in a build without the card library's headers.
TEST(RxFrameConstantsTest, ValuesAreTheCardLibrarysInEveryBuild) {
    EXPECT_EQ(int{RX_FRAME_SWOVFL}, 256);
    EXPECT_EQ(int{RX_FRAME_TRUNCATED}, 257);
    EXPECT_EQ(int{RX_FRAME_OK}, 0);
    EXPECT_EQ(int{RX_FRAME_ABORTED}, 1);
    EXPECT_EQ(int{RX_FRAME_CORRUPT}, 2);
    EXPECT_EQ(int{RX_FRAME_HWOVFL}, 3);
    EXPECT_EQ(int{RX_FRAME_ERROR_MASK}, 0x0F);
    EXPECT_EQ(kRxChunkSize, 128u);
    EXPECT_EQ(kRxChunkPayload, 120u);
    EXPECT_EQ(kRxRingChunks, 16384u);
    EXPECT_EQ(CARD_RX_FRAME_TRUNCATED, -257);
    EXPECT_EQ(CARD_RX_FRAME_SWOVFL, -256);
}

TEST(RxFrameConstantsTest, FrameChunksCoverEveryLengthWithNoSpareChunk) {
    EXPECT_EQ(rx_frame_chunks(0), 1u);
    EXPECT_EQ(rx_frame_chunks(1), 1u);
    EXPECT_EQ(rx_frame_chunks(120), 1u);
    EXPECT_EQ(rx_frame_chunks(121), 2u);
    EXPECT_EQ(rx_frame_chunks(240), 2u);
    EXPECT_EQ(rx_frame_chunks(241), 3u);
    for (uint32_t length = 1; length <= 10000; ++length) {
        const uint32_t chunks = rx_frame_chunks(length);
        ASSERT_GE(chunks * kRxChunkPayload, length) << length;
        ASSERT_LT((chunks - 1) * kRxChunkPayload, length) << length;
    }
}

TEST_F(DirectRxTest, GivesNothingWhenNoFrameWaits) {
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(m_rx.GetPending(), 0u);
    const RxTestFrame& frame = Write(60);
    EXPECT_FALSE(m_rx.IsDrained());
    ExpectFrame(frame);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, EveryLengthComesBackByteForByte) {
    for (uint32_t length = 1; length <= kBufferSize; ++length) {
        const RxTestFrame& frame = Write(length);
        ASSERT_EQ(m_rx.GetPending(), rx_frame_chunks(length)) << length;
        ExpectFrame(frame);
        ASSERT_TRUE(m_rx.IsDrained()) << length;
    }
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, FramesWaitingTogetherComeBackInOrder) {
    std::vector<const RxTestFrame*> written;
    for (uint32_t length : {1u, 119u, 120u, 121u, 1514u, 60u}) {
        written.push_back(&Write(length));
    }
    EXPECT_EQ(m_rx.GetPending(), 1u + 1 + 1 + 2 + 13 + 1);
    for (const RxTestFrame* frame : written) {
        ExpectFrame(*frame);
    }
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, FrameLongerThanTheBufferIsConsumedAndTheNextFollows) {
    for (uint32_t length = 1; length <= 2100; ++length) {
        Write(length);
        const RxTestFrame& next = Write(length % 97 + 1);
        ASSERT_EQ(Read(length - 1), CARD_RX_FRAME_TRUNCATED) << length;
        ExpectFrame(next);
        ASSERT_TRUE(m_rx.IsDrained()) << length;
    }
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, FrameOfExactlyTheBufferSizeFits) {
    for (uint32_t length = 1; length <= 2100; ++length) {
        const RxTestFrame& frame = Write(length);
        ExpectFrame(frame, length);
    }
}

TEST_F(DirectRxTest, HardwareErrorStatusIsReturnedNegated) {
    const RxTestFrame& aborted = Write(100, RX_FRAME_ABORTED);
    const RxTestFrame& corrupt = Write(300, RX_FRAME_CORRUPT);
    const RxTestFrame& overflow = Write(64, RX_FRAME_HWOVFL);
    const RxTestFrame& good = Write(64);
    EXPECT_EQ(Read(), -1);
    EXPECT_EQ(std::string(m_buffer.data(), aborted.bytes.size()), aborted.bytes);
    EXPECT_EQ(Read(), -2);
    EXPECT_EQ(std::string(m_buffer.data(), corrupt.bytes.size()), corrupt.bytes);
    EXPECT_EQ(Read(), -3);
    EXPECT_EQ(std::string(m_buffer.data(), overflow.bytes.size()), overflow.bytes);
    ExpectFrame(good);
}

TEST_F(DirectRxTest, OnlyTheLowFourStatusBitsAreAnError) {
    // The high bits name a filter region; a frame with only those set is good.
    for (int status = 0; status < 256; ++status) {
        const RxTestFrame& frame = Write(150, static_cast<uint8_t>(status));
        const int error = status & 0x0F;
        if (error == 0) {
            ExpectFrame(frame);
        } else {
            ASSERT_EQ(Read(), -error) << status;
        }
    }
    const RxTestFrame& filtered = Write(200, 0xF0);
    ExpectFrame(filtered);
}

TEST_F(DirectRxTest, RingsWorthWaitingLosesEveryFrameOnce) {
    // written: chunks [0, 16384)  reader: 0, last end read: -1 (overwritten)
    WriteUntilPending(kRxRingChunks);
    ASSERT_EQ(m_rx.GetPending(), kRxRingChunks);
    EXPECT_EQ(Read(), CARD_RX_FRAME_SWOVFL);
    EXPECT_EQ(m_rx.GetLost(), kRxRingChunks);
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(Read(), 0);
    const RxTestFrame& next = Write(1000);
    ExpectFrame(next);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_rx.GetLost(), kRxRingChunks);
}

TEST_F(DirectRxTest, OneChunkShortOfARingLosesNothing) {
    WriteUntilPending(kRxRingChunks - 1);
    for (size_t i = 0; i < m_frames.size(); ++i) {
        ExpectFrame(m_frames[i]);
    }
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, LapOfMultiChunkFramesLosesThemAll) {
    // Every overshoot past one ring: the first frame's own chunks intact
    // (sentinel lapped) up to several chunks of it overwritten.
    for (uint32_t over = 0; over <= 20; ++over) {
        ASSERT_EQ(Read(), 0);
        const uint64_t lostBefore = m_rx.GetLost();
        uint64_t frames = 0;
        while (m_rx.GetPending() + 17 <= kRxRingChunks + over) {
            Write(2040);
            ++frames;
        }
        while (m_rx.GetPending() < kRxRingChunks + over) {
            Write(kRxChunkPayload);
            ++frames;
        }
        ASSERT_EQ(m_rx.GetPending(), kRxRingChunks + over);
        ASSERT_EQ(Read(), CARD_RX_FRAME_SWOVFL) << over;
        EXPECT_EQ(m_rx.GetLost() - lostBefore, frames) << over;
        EXPECT_EQ(Read(), 0);
        const RxTestFrame& next = Write(1500);
        ExpectFrame(next);
    }
}

TEST_F(DirectRxTest, OverwrittenFrameIsALapEvenWhenTooLongForTheBuffer) {
    // waiting: F [0,17), then to chunk 16385: F's first chunk overwritten
    Write(2040);
    WriteUntilPending(kRxRingChunks + 1);
    const uint64_t frames = m_frames.size();
    EXPECT_EQ(Read(100), CARD_RX_FRAME_SWOVFL);
    EXPECT_EQ(m_rx.GetLost(), frames);
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, IntactFrameTooLongForTheBufferIsTruncatedBeforeTheLapShows) {
    // waiting: F [0,17), then to chunk 16384: F intact, chunk -1 (the last
    // end read) overwritten. Truncation is decided before the lap check, so
    // F is consumed first and the next read reports the lap.
    Write(2040);
    WriteUntilPending(kRxRingChunks);
    const uint64_t frames = m_frames.size();
    EXPECT_EQ(Read(100), CARD_RX_FRAME_TRUNCATED);
    EXPECT_EQ(m_rx.GetLost(), 0u);
    EXPECT_EQ(Read(), CARD_RX_FRAME_SWOVFL);
    EXPECT_EQ(m_rx.GetLost(), frames - 1);
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, MoreFramesThanTheRingHoldsAreAllCountedLost) {
    const uint64_t frames = 3 * kRxRingChunks + 5;
    for (uint64_t i = 0; i < frames; ++i) {
        Write(i % 2 == 0 ? 60 : 700);
    }
    EXPECT_EQ(Read(), CARD_RX_FRAME_SWOVFL);
    EXPECT_EQ(m_rx.GetLost(), frames);
    EXPECT_EQ(Read(), 0);
    const RxTestFrame& next = Write(60);
    ExpectFrame(next);
}

TEST_F(DirectRxTest, TruncatedFramesLeaveTheLapCheckOnTheLastFrameRead) {
    // A truncated frame does not move the check point, so it stays on the
    // end of the last frame returned whole:
    // read: A (ends chunk 0)  truncated: B [1,3)  waiting: C [3,4) ...
    // writing until chunk 0 is overwritten laps the reader although C's
    // own chunk is intact.
    const RxTestFrame& first = Write(100);
    ExpectFrame(first);
    Write(200);
    ASSERT_EQ(Read(100), CARD_RX_FRAME_TRUNCATED);
    const uint64_t lostBefore = m_rx.GetLost();
    // reader at chunk 3; 16382 waiting leaves chunk 3 intact, chunk 0 overwritten
    WriteUntilPending(kRxRingChunks - 2);
    ASSERT_EQ(m_rx.GetPending(), kRxRingChunks - 2);
    EXPECT_EQ(Read(), CARD_RX_FRAME_SWOVFL);
    EXPECT_EQ(m_rx.GetLost() - lostBefore, kRxRingChunks - 2);
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, AttachSkipsWhatWasWrittenBefore) {
    Write(100);
    Write(3000);
    Write(1);
    ASSERT_GT(m_rx.GetPending(), 0u);
    m_rx.Attach();
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(m_rx.GetPending(), 0u);
    EXPECT_EQ(Read(), 0);
    const RxTestFrame& next = Write(77);
    ExpectFrame(next);
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, AttachAfterALapStartsClean) {
    WriteUntilPending(kRxRingChunks + 10);
    m_rx.Attach();
    EXPECT_EQ(Read(), 0);
    const RxTestFrame& next = Write(77);
    ExpectFrame(next);
}

}  // namespace

namespace {

// A frame handed over and read at once gives what a write then a read give,
// and leaves the buffer in the same state, across truncations, hardware
// errors, laps from frames left waiting, and attaches.
TEST(DirectRxPassTest, MatchesAWriteThenARead) {
    CSoftDirectRx apart;
    CSoftDirectRx passed;
    std::vector<char> bytes(70000);
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i * 7 + 3);
    }
    uint64_t state = 42;
    const auto next = [&state](uint64_t bound) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        return (state >> 33) % bound;
    };
    std::vector<char> outApart(70000);
    std::vector<char> outPassed(70000);
    for (int step = 0; step < 200000; ++step) {
        const uint64_t kind = next(1000);
        if (kind == 0) {
            apart.Attach();
            passed.Attach();
            continue;
        }
        if (kind < 20) {
            // Frames left waiting, up to more than a ring's worth.
            const uint64_t count = next(3000);
            for (uint64_t i = 0; i < count; ++i) {
                const SoftFrameRef frame{bytes.data(), static_cast<uint32_t>(1 + next(3000)), 0, 0};
                apart.Write(frame);
                passed.Write(frame);
            }
        }
        // A long run of frames too long for the reader's buffer: the lap
        // check stays on the last frame read whole.
        const bool truncating = kind >= 30 && kind < 36;
        for (uint64_t i = 0, count = truncating ? next(20000) : 0; i < count; ++i) {
            const SoftFrameRef frame{bytes.data(), static_cast<uint32_t>(1 + next(300)), 0, 0};
            apart.Write(frame);
            const ssize_t a = apart.Read(outApart.data(), 0);
            const ssize_t p = passed.IsDrained() ? passed.Pass(frame, outPassed.data(), 0)
                                                 : (passed.Write(frame), passed.Read(outPassed.data(), 0));
            ASSERT_EQ(a, p) << "step " << step;
        }
        const uint32_t length = static_cast<uint32_t>(kind < 30 ? 1 + next(65000) : 1 + next(200));
        const uint8_t status = static_cast<uint8_t>(next(50) == 0 ? next(256) : 0);
        const size_t size = next(20) == 0 ? next(length + 1) : 2048 + next(70000 - 2048);
        const SoftFrameRef frame{bytes.data() + next(4000), length, status, 0};
        apart.Write(frame);
        const ssize_t a = apart.Read(outApart.data(), size);
        const ssize_t p = passed.IsDrained() ? passed.Pass(frame, outPassed.data(), size)
                                             : (passed.Write(frame), passed.Read(outPassed.data(), size));
        ASSERT_EQ(a, p) << "step " << step;
        if (a > 0) {
            ASSERT_EQ(memcmp(outApart.data(), outPassed.data(), static_cast<size_t>(a)), 0)
                << "step " << step;
        }
        ASSERT_EQ(apart.GetLost(), passed.GetLost()) << "step " << step;
        ASSERT_EQ(apart.GetPending(), passed.GetPending()) << "step " << step;
        ASSERT_EQ(apart.GetChunksWritten(), passed.GetChunksWritten()) << "step " << step;
        // What waits comes out the same.
        if (next(4) == 0) {
            while (!apart.IsDrained()) {
                const ssize_t x = apart.Read(outApart.data(), outApart.size());
                const ssize_t y = passed.Read(outPassed.data(), outPassed.size());
                ASSERT_EQ(x, y) << "step " << step;
            }
            ASSERT_TRUE(passed.IsDrained());
        }
    }
}

}  // namespace
