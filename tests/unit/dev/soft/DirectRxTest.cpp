#include "src/dev/soft/DirectRx.h"

#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "src/dev/Card.h"
#include "src/dev/RxFrame.h"

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

class DirectRxTest : public ::testing::Test {
protected:
    static constexpr size_t kBufferSize = 4096;
    static constexpr char kPoison = '\xA5';

    DirectRxTest() : m_buffer(kBufferSize + 1, kPoison) {}

    // Content unique to the frame's position in the test, so a frame read
    // out of order or from the wrong place does not compare equal.
    std::string MakeFrame(uint32_t length) {
        std::string frame(length, '\0');
        const uint32_t seed = ++m_made * 2654435761u;
        for (uint32_t i = 0; i < length; ++i) {
            frame[i] = static_cast<char>((seed >> (i % 24)) + i * 7);
        }
        return frame;
    }

    const std::string& Write(uint32_t length, uint8_t status = RX_FRAME_OK) {
        m_frames.push_back(MakeFrame(length));
        const std::string& frame = m_frames.back();
        m_rx.Write({frame.data(), length, status, m_made});
        return frame;
    }

    ssize_t Read(size_t size = kBufferSize) {
        std::fill(m_buffer.begin(), m_buffer.end(), kPoison);
        return m_rx.Read(m_buffer.data(), size);
    }

    // Reads one frame and expects it to be `frame`, with nothing written past it.
    void ExpectFrame(const std::string& frame, size_t size = kBufferSize) {
        ASSERT_EQ(Read(size), static_cast<ssize_t>(frame.size()));
        EXPECT_EQ(std::string(m_buffer.data(), frame.size()), frame);
        EXPECT_EQ(m_buffer[frame.size()], kPoison);
    }

    // Writes single-chunk frames until `chunks` chunks wait.
    void WriteUntilPending(uint64_t chunks) {
        while (m_rx.GetPending() < chunks) {
            Write(kRxChunkPayload);
        }
    }

    CSoftDirectRx m_rx;
    std::deque<std::string> m_frames;  // stable: the buffer keeps pointers to them
    std::vector<char> m_buffer;
    uint32_t m_made = 0;
};

TEST_F(DirectRxTest, GivesNothingWhenNoFrameWaits) {
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(m_rx.GetPending(), 0u);
    const std::string& frame = Write(60);
    EXPECT_FALSE(m_rx.IsDrained());
    ExpectFrame(frame);
    EXPECT_EQ(Read(), 0);
    EXPECT_EQ(Read(), 0);
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, EveryLengthComesBackByteForByte) {
    for (uint32_t length = 1; length <= kBufferSize; ++length) {
        const std::string& frame = Write(length);
        ASSERT_EQ(m_rx.GetPending(), rx_frame_chunks(length)) << length;
        ExpectFrame(frame);
        ASSERT_TRUE(m_rx.IsDrained()) << length;
    }
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, FramesWaitingTogetherComeBackInOrder) {
    std::vector<const std::string*> written;
    for (uint32_t length : {1u, 119u, 120u, 121u, 1514u, 60u}) {
        written.push_back(&Write(length));
    }
    EXPECT_EQ(m_rx.GetPending(), 1u + 1 + 1 + 2 + 13 + 1);
    for (const std::string* frame : written) {
        ExpectFrame(*frame);
    }
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, FrameLongerThanTheBufferIsConsumedAndTheNextFollows) {
    for (uint32_t length = 1; length <= 2100; ++length) {
        Write(length);
        const std::string& next = Write(length % 97 + 1);
        ASSERT_EQ(Read(length - 1), CARD_RX_FRAME_TRUNCATED) << length;
        ExpectFrame(next);
        ASSERT_TRUE(m_rx.IsDrained()) << length;
    }
    EXPECT_EQ(m_rx.GetLost(), 0u);
}

TEST_F(DirectRxTest, FrameOfExactlyTheBufferSizeFits) {
    for (uint32_t length = 1; length <= 2100; ++length) {
        const std::string& frame = Write(length);
        ExpectFrame(frame, length);
    }
}

TEST_F(DirectRxTest, HardwareErrorStatusIsReturnedNegated) {
    const std::string& aborted = Write(100, RX_FRAME_ABORTED);
    const std::string& corrupt = Write(300, RX_FRAME_CORRUPT);
    const std::string& overflow = Write(64, RX_FRAME_HWOVFL);
    const std::string& good = Write(64);
    EXPECT_EQ(Read(), -1);
    EXPECT_EQ(std::string(m_buffer.data(), aborted.size()), aborted);
    EXPECT_EQ(Read(), -2);
    EXPECT_EQ(std::string(m_buffer.data(), corrupt.size()), corrupt);
    EXPECT_EQ(Read(), -3);
    EXPECT_EQ(std::string(m_buffer.data(), overflow.size()), overflow);
    ExpectFrame(good);
}

TEST_F(DirectRxTest, OnlyTheLowFourStatusBitsAreAnError) {
    // The high bits name a filter region; a frame with only those set is good.
    for (int status = 0; status < 256; ++status) {
        const std::string& frame = Write(150, static_cast<uint8_t>(status));
        const int error = status & 0x0F;
        if (error == 0) {
            ExpectFrame(frame);
        } else {
            ASSERT_EQ(Read(), -error) << status;
        }
    }
    const std::string& filtered = Write(200, 0xF0);
    ExpectFrame(filtered);
}

TEST_F(DirectRxTest, ErrorStatusOfAFrameTooLongIsTruncation) {
    Write(500, RX_FRAME_CORRUPT);
    EXPECT_EQ(Read(499), CARD_RX_FRAME_TRUNCATED);
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, RingsWorthWaitingLosesEveryFrameOnce) {
    // written: chunks [0, 16384)  reader: 0, last end read: -1 (overwritten)
    WriteUntilPending(kRxRingChunks);
    ASSERT_EQ(m_rx.GetPending(), kRxRingChunks);
    EXPECT_EQ(Read(), CARD_RX_FRAME_SWOVFL);
    EXPECT_EQ(m_rx.GetLost(), kRxRingChunks);
    EXPECT_TRUE(m_rx.IsDrained());
    EXPECT_EQ(Read(), 0);
    const std::string& next = Write(1000);
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
        const std::string& next = Write(1500);
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
    const std::string& next = Write(60);
    ExpectFrame(next);
}

TEST_F(DirectRxTest, TruncatedFramesLeaveTheLapCheckOnTheLastFrameRead) {
    // A truncated frame does not move the check point, so it stays on the
    // end of the last frame returned whole:
    // read: A (ends chunk 0)  truncated: B [1,3)  waiting: C [3,4) ...
    // writing until chunk 0 is overwritten laps the reader although C's
    // own chunk is intact.
    const std::string& first = Write(100);
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
    const std::string& next = Write(77);
    ExpectFrame(next);
    EXPECT_EQ(Read(), 0);
}

TEST_F(DirectRxTest, AttachAfterALapStartsClean) {
    WriteUntilPending(kRxRingChunks + 10);
    m_rx.Attach();
    EXPECT_EQ(Read(), 0);
    const std::string& next = Write(77);
    ExpectFrame(next);
}

}  // namespace
