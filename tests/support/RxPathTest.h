// What the tests of the two receive paths share (the direct buffer, and the
// card library reading the software card's ring): frames whose bytes depend
// on their place in the test, so that a frame read out of order or from the
// wrong place does not compare equal, a read buffer poisoned past every
// frame, and the tests that hold on either path.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "src/dev/Card.h"
#include "src/dev/RxFrame.h"

struct RxTestFrame {
    std::string bytes;
    uint32_t timestamp;
};

class CRxPathFixture : public ::testing::Test {
protected:
    static constexpr size_t kBufferSize = 4096;
    static constexpr char kPoison = '\xA5';

    // `timestamped`: the path's reads give each frame's timestamp.
    explicit CRxPathFixture(bool timestamped) : m_timestamped(timestamped) {}

    // A frame of `length` bytes with `status` reaches the path; it is kept
    // in m_frames for the rest of the test.
    const RxTestFrame& Write(uint32_t length, uint8_t status = RX_FRAME_OK) {
        RxTestFrame frame{std::string(length, '\0'), ++m_made * 1000 + 7};
        const uint32_t seed = m_made * 2654435761u;
        for (uint32_t i = 0; i < length; ++i) {
            frame.bytes[i] = static_cast<char>((seed >> (i % 24)) + i * 7);
        }
        m_frames.push_back(std::move(frame));
        Deliver(m_frames.back(), status);
        return m_frames.back();
    }

    // One read of at most `size` bytes into the poisoned buffer.
    ssize_t Read(size_t size = kBufferSize) {
        std::fill(m_buffer.begin(), m_buffer.end(), kPoison);
        m_timestamp = 0;
        return Receive(m_buffer.data(), size, &m_timestamp);
    }

    // Reads one frame and expects it to be `frame`, with nothing written past
    // it, and its timestamp where the path gives one.
    void ExpectFrame(const RxTestFrame& frame, size_t size = kBufferSize) {
        ASSERT_EQ(Read(size), static_cast<ssize_t>(frame.bytes.size()));
        EXPECT_EQ(std::string(m_buffer.data(), frame.bytes.size()), frame.bytes);
        EXPECT_EQ(m_buffer[frame.bytes.size()], kPoison);
        if (m_timestamped) {
            EXPECT_EQ(m_timestamp, frame.timestamp);
        }
    }

    // The path under test: hands it `frame`, and makes one read, as the
    // card library's receive call.
    virtual void Deliver(const RxTestFrame& frame, uint8_t status) = 0;
    virtual ssize_t Receive(char* buffer, size_t size, uint32_t* timestamp) = 0;

    std::deque<RxTestFrame> m_frames;  // stable: the direct path keeps pointers to them
    std::vector<char> m_buffer = std::vector<char>(kBufferSize + 1, kPoison);
    uint32_t m_timestamp = 0;

private:
    const bool m_timestamped;
    uint32_t m_made = 0;
};

// The tests that hold on either path, instantiated by each path's test with
// its fixture (a CRxPathFixture).
template <typename Path>
class RxPathTest : public Path {};

TYPED_TEST_SUITE_P(RxPathTest);

TYPED_TEST_P(RxPathTest, ErrorStatusOfAFrameTooLongIsTruncation) {
    this->Write(500, RX_FRAME_CORRUPT);
    EXPECT_EQ(this->Read(499), CARD_RX_FRAME_TRUNCATED);
    EXPECT_EQ(this->Read(), 0);
}

REGISTER_TYPED_TEST_SUITE_P(RxPathTest, ErrorStatusOfAFrameTooLongIsTruncation);
