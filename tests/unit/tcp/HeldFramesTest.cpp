// The held-frame list on its own: ordered insertion, the repeat rules, release
// from the head, freeing everything, and the bound on its length.
#include "src/tcp/HeldFrames.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "sim/MdqpBuilder.h"

namespace {

constexpr size_t kHeaders = 14 + 20 + 20;

// A held frame as the list sees it: its sequence number and a tag carried in
// its first payload byte, which tells two frames of one sequence number apart.
struct Held {
    uint32_t seq;
    char tag;
    bool operator==(const Held& o) const { return seq == o.seq && tag == o.tag; }
};

std::vector<char> Frame(uint32_t seq, char tag) {
    TcpSegmentFields fields;
    fields.seq = seq;
    const std::vector<char> payload{tag, 'h', 'e', 'l', 'd'};
    return build_tcp_frame(fields, payload);
}

class HeldFramesTest : public ::testing::Test {
protected:
    ~HeldFramesTest() override { held_frames_free_all(List()); }

    HeldFrames List() { return HeldFrames{head, size, flag}; }

    EHeldInsert Insert(uint32_t seq, char tag = 'a') {
        const std::vector<char> frame = Frame(seq, tag);
        TcpLostBuf* node = held_frame_new(frame.data(), static_cast<unsigned int>(frame.size()));
        EXPECT_NE(node, nullptr);
        return held_frames_insert(List(), node, seq);
    }

    // The list from the head, checking every back link.
    std::vector<Held> Contents() {
        std::vector<Held> seen;
        const TcpLostBuf* before = nullptr;
        for (const TcpLostBuf* node = head; node != nullptr; node = node->next) {
            EXPECT_EQ(node->before, before);
            seen.push_back({held_frame_seq(node), node->buf[kHeaders]});
            before = node;
        }
        return seen;
    }

    TcpLostBuf* head = nullptr;
    uint32_t size = 0;
    uint8_t flag = 0;
};

TEST_F(HeldFramesTest, FirstFrameBecomesTheHeadAndRaisesTheFlag) {
    EXPECT_EQ(Insert(5000), HELD_INSERTED);
    EXPECT_EQ(Contents(), (std::vector<Held>{{5000, 'a'}}));
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(head->next, nullptr);
}

TEST_F(HeldFramesTest, LowerFrameBecomesTheHeadAndHigherOneFollowsTheTail) {
    // held: [2000] -> [1000, 2000] -> [1000, 2000, 3000] -> [1000, 1500, 2000, 3000]
    Insert(2000);
    EXPECT_EQ(Insert(1000), HELD_INSERTED);
    EXPECT_EQ(Insert(3000), HELD_INSERTED);
    EXPECT_EQ(Insert(1500), HELD_INSERTED);
    EXPECT_EQ(Contents(), (std::vector<Held>{{1000, 'a'}, {1500, 'a'}, {2000, 'a'}, {3000, 'a'}}));
    EXPECT_EQ(size, 4u);
}

TEST_F(HeldFramesTest, RepeatOfTheHeadIsDropped) {
    // held: [1000, 2000, 3000]
    Insert(1000);
    Insert(2000);
    Insert(3000);
    EXPECT_EQ(Insert(1000, 'b'), HELD_DUPLICATE);
    EXPECT_EQ(Contents(), (std::vector<Held>{{1000, 'a'}, {2000, 'a'}, {3000, 'a'}}));
    EXPECT_EQ(size, 3u);
}

TEST_F(HeldFramesTest, RepeatOfALaterFrameIsKeptBeforeIt) {
    // held: [1000, 2000, 3000]; a frame equal to the next node's is linked in, not dropped
    Insert(1000);
    Insert(2000);
    Insert(3000);
    EXPECT_EQ(Insert(2000, 'b'), HELD_INSERTED);
    EXPECT_EQ(Insert(3000, 'c'), HELD_INSERTED);
    EXPECT_EQ(Insert(3000, 'd'), HELD_INSERTED);
    EXPECT_EQ(Contents(), (std::vector<Held>{
                              {1000, 'a'}, {2000, 'b'}, {2000, 'a'}, {3000, 'd'}, {3000, 'c'}, {3000, 'a'}}));
    EXPECT_EQ(size, 6u);
}

TEST_F(HeldFramesTest, MatchesASortedModelOverRandomArrivalOrders) {
    std::mt19937 rng(20240601);
    for (int round = 0; round < 200; ++round) {
        // Narrow ranges give repeats; wide ones give distinct frames only.
        const uint32_t range = round % 2 == 0 ? 40 : 1u << 30;
        const int count = 1 + static_cast<int>(rng() % 120);
        std::vector<Held> model;
        for (int i = 0; i < count; ++i) {
            const Held frame{1000 + static_cast<uint32_t>(rng() % range), static_cast<char>('a' + i % 26)};
            EHeldInsert expected = HELD_INSERTED;
            if (!model.empty() && model.front().seq == frame.seq) {
                expected = HELD_DUPLICATE;
            } else {
                const auto at = std::lower_bound(model.begin(), model.end(), frame.seq,
                                                 [](const Held& h, uint32_t seq) { return h.seq < seq; });
                model.insert(at, frame);
            }
            ASSERT_EQ(Insert(frame.seq, frame.tag), expected) << "round " << round << " frame " << i;
            ASSERT_EQ(Contents(), model) << "round " << round << " frame " << i;
            ASSERT_EQ(size, model.size());
            ASSERT_EQ(flag, 1);
        }
        held_frames_free_all(List());
    }
}

TEST_F(HeldFramesTest, ReleaseTakesTheHeadUntilTheListIsEmpty) {
    // held: [1000, 2000, 3000]
    Insert(3000);
    Insert(1000);
    Insert(2000);
    held_frames_release_head(List());
    EXPECT_EQ(Contents(), (std::vector<Held>{{2000, 'a'}, {3000, 'a'}}));
    EXPECT_EQ(head->before, nullptr);
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(flag, 1);
    held_frames_release_head(List());
    EXPECT_EQ(Contents(), (std::vector<Held>{{3000, 'a'}}));
    EXPECT_EQ(head->before, nullptr);
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(flag, 1);
    held_frames_release_head(List());
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(flag, 0);

    // The next frame starts a new list.
    EXPECT_EQ(Insert(500), HELD_INSERTED);
    EXPECT_EQ(Contents(), (std::vector<Held>{{500, 'a'}}));
    EXPECT_EQ(size, 1u);
}

TEST_F(HeldFramesTest, FreeAllEmptiesTheList) {
    for (uint32_t seq : {4000u, 1000u, 3000u, 2000u}) {
        Insert(seq);
    }
    held_frames_free_all(List());
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(flag, 0);
    held_frames_free_all(List());
    EXPECT_EQ(head, nullptr);

    EXPECT_EQ(Insert(7000), HELD_INSERTED);
    EXPECT_EQ(Contents(), (std::vector<Held>{{7000, 'a'}}));
}

TEST_F(HeldFramesTest, HoldsAtMost500Frames) {
    ASSERT_EQ(kHeldFramesLimit, 500u);
    // held: [2000, 2010, ..., 6990]
    for (uint32_t k = 0; k < 500; ++k) {
        ASSERT_EQ(Insert(2000 + 10 * k), HELD_INSERTED) << k;
    }
    ASSERT_EQ(size, 500u);
    const std::vector<Held> full = Contents();
    // Below the head, between two frames, equal to a later one, above the tail, equal to the head.
    for (uint32_t seq : {1000u, 2005u, 3000u, 9000u, 2000u}) {
        EXPECT_EQ(Insert(seq, 'z'), HELD_FULL) << seq;
    }
    EXPECT_EQ(Contents(), full);
    EXPECT_EQ(size, 500u);
    EXPECT_EQ(flag, 1);

    // One released, one more fits.
    held_frames_release_head(List());
    EXPECT_EQ(Insert(9000, 'z'), HELD_INSERTED);
    EXPECT_EQ(size, 500u);
    EXPECT_EQ(Contents().back(), (Held{9000, 'z'}));
}

TEST_F(HeldFramesTest, NewNodeKeepsAtMost2048BytesAndIsOtherwiseZero) {
    std::vector<char> frame = Frame(1234, 'q');
    const size_t frameSize = frame.size();
    TcpLostBuf* node = held_frame_new(frame.data(), static_cast<unsigned int>(frameSize));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->len, frameSize);
    EXPECT_EQ(memcmp(node->buf, frame.data(), frameSize), 0);
    EXPECT_TRUE(
        std::all_of(node->buf + frameSize, node->buf + sizeof(node->buf), [](char c) { return c == 0; }));
    EXPECT_TRUE(std::all_of(node->slack, node->slack + sizeof(node->slack), [](char c) { return c == 0; }));
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->before, nullptr);
    EXPECT_EQ(held_frame_seq(node), 1234u);
    free(node);

    frame.resize(3000, 'p');
    node = held_frame_new(frame.data(), 3000);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->len, 2048u);
    EXPECT_EQ(memcmp(node->buf, frame.data(), 2048), 0);
    EXPECT_TRUE(std::all_of(node->slack, node->slack + sizeof(node->slack), [](char c) { return c == 0; }));
    free(node);
}

TEST_F(HeldFramesTest, SequenceNumberIsReadPastIpOptions) {
    // A 24-byte IPv4 header: four option bytes before the TCP header.
    std::vector<char> frame = Frame(0x01020304, 'o');
    frame.insert(frame.begin() + 14 + 20, 4, 0);
    frame[14] = 0x46;
    TcpLostBuf* node = held_frame_new(frame.data(), static_cast<unsigned int>(frame.size()));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(held_frame_seq(node), 0x01020304u);
    free(node);
}

}  // namespace
