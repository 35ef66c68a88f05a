#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <optional>

#include "public/log/CommonLog.h"
#include "sim/DecodedRecordBuilder.h"
#include "sim/PcapWriter.h"
#include "tests/support/AllocationCounter.h"
#include "tests/support/LogLines.h"
#include "tests/support/ReplayCard.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"
#include "tests/support/UdpHarness.h"

namespace {

constexpr int32_t kCacheSize = CExanicUdpFunc::kCacheSize;

// The incremental path reading decoded frames from a replayed capture.
class DecodedCacheTest : public ::testing::Test {
protected:
    DecodedCacheTest() {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
        h.cache.pCacheBuf = static_cast<char*>(calloc(1, kCacheSize));
        h.AddInstrument(7, "cu2501", 0.5, 1000.0, 10, 0);
    }

    ~DecodedCacheTest() override { free(h.cache.pCacheBuf); }

    void Replay(const std::vector<std::vector<char>>& frames, const std::string& options = "") {
        m_card.emplace(m_dir.Path(), 0, frames, options);
        h.udp.InitUdp(h.registers.data(), m_card->Rx());
    }

    static std::vector<char> Record(uint32_t changeNo) {
        return CDecodedRecordBuilder(CUdpHarness::kShfeTopic, 7, changeNo).Build();
    }

    template <typename Call>
    std::string Capture(Call call) {
        CStdoutCapture capture;
        call();
        return capture.Stop();
    }

    uint32_t EntrySize(int32_t offset) const {
        uint32_t size;
        memcpy(&size, h.cache.pCacheBuf + offset, sizeof(size));
        return size;
    }

    CUdpHarness h;
    CTempDir m_dir;
    std::optional<CReplayCard> m_card;
};

TEST_F(DecodedCacheTest, TwentyFourByteFrameIsCachedAsAThirtyTwoByteEntry) {
    const std::vector<char> frame = Record(1);
    ASSERT_EQ(frame.size(), 24u);
    Replay({frame});
    memset(h.cache.pCacheBuf, 0x5A, 64);  // what the entry's reserved word held before
    h.udp.CachePacket();
    EXPECT_EQ(h.cache.piOffset, 32);
    EXPECT_EQ(h.cache.cachedCount, 1);
    EXPECT_EQ(h.cache.ciOffset, 0);
    EXPECT_EQ(EntrySize(0), 24u);
    uint32_t packetNo;
    memcpy(&packetNo, h.cache.pCacheBuf + 4, sizeof(packetNo));
    EXPECT_EQ(packetNo, 0x5A5A5A5Au);
    EXPECT_EQ(memcmp(h.cache.pCacheBuf + 8, frame.data(), frame.size()), 0);
}

TEST_F(DecodedCacheTest, FrameIsStillAppendedWhenAMaximalEntryJustFits) {
    Replay({Record(1)});
    h.cache.piOffset = kCacheSize - 2056;
    h.cache.cachedCount = 3;
    h.udp.CachePacket();
    EXPECT_EQ(h.cache.piOffset, kCacheSize - 2056 + 32);
    EXPECT_EQ(h.cache.cachedCount, 4);
    EXPECT_EQ(EntrySize(kCacheSize - 2056), 24u);
}

TEST_F(DecodedCacheTest, OneByteLessRoomAbandonsTheCacheFirst) {
    Replay({Record(1)});
    h.cache.piOffset = kCacheSize - 2055;
    h.cache.ciOffset = 4000;
    h.cache.cachedCount = 3;
    const std::string out = Capture([&] { h.udp.CachePacket(); });
    EXPECT_EQ(log_messages(out, "[W]", "CachePacket"),
              std::vector<std::string>{"too many packet to cache, clear 3"});
    EXPECT_EQ(h.cache.piOffset, 32);
    EXPECT_EQ(h.cache.ciOffset, 0);
    EXPECT_EQ(h.cache.cachedCount, 1);
    EXPECT_EQ(EntrySize(0), 24u);
}

TEST_F(DecodedCacheTest, CachedFramesReplayInArrivalOrder) {
    Replay({Record(1), Record(2), Record(3)});
    for (int i = 0; i < 3; ++i) {
        h.udp.CachePacket();
    }
    ASSERT_EQ(h.cache.cachedCount, 3);
    // Out of order, the second replayed record would be a gap (-1).
    for (uint32_t changeNo = 1; changeNo <= 3; ++changeNo) {
        EXPECT_EQ(h.udp.ProcessCached(), 1);
        EXPECT_EQ(h.area->instmts[7].change_no, changeNo);
    }
    EXPECT_EQ(h.cache.cachedCount, 0);
    EXPECT_EQ(h.cache.ciOffset, 96);
    EXPECT_EQ(h.cache.piOffset, 96);
}

TEST_F(DecodedCacheTest, ReplayingAnEmptyCacheWarnsAndReturnsZero) {
    const std::string out = Capture([&] { EXPECT_EQ(h.udp.ProcessCached(), 0); });
    EXPECT_EQ(log_messages(out, "[W]", "ProcessCached"),
              std::vector<std::string>{"no cached packet to process"});
}

TEST_F(DecodedCacheTest, EntryRunningPastTheAreaClearsItAll) {
    h.cache.ciOffset = kCacheSize - 100;
    h.cache.cachedCount = 1;
    const uint32_t size = 93;  // 100 - 8 would fit; 93 runs one byte over
    memcpy(h.cache.pCacheBuf + h.cache.ciOffset, &size, sizeof(size));
    h.cache.pCacheBuf[12345] = 7;
    int result = 0;
    const std::string out = Capture([&] { result = h.udp.ProcessCached(); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log_messages(out, "[E]", "ProcessCached"),
              std::vector<std::string>{"cached packet size out of range, offset: " +
                                       std::to_string(kCacheSize - 100) + ", size: 93"});
    EXPECT_EQ(log_messages(out, "[I]", "ClearCache"), std::vector<std::string>{"decode buffer cleared"});
    EXPECT_EQ(h.cache.cachedCount, 0);
    EXPECT_EQ(h.cache.ciOffset, 0);
    EXPECT_EQ(h.cache.piOffset, 0);
    EXPECT_EQ(h.cache.pCacheBuf[12345], 0);
    EXPECT_EQ(EntrySize(kCacheSize - 100), 0u);
}

TEST_F(DecodedCacheTest, ConsumeOffsetPastTheAreaClearsItAll) {
    h.cache.ciOffset = kCacheSize - 7;
    h.cache.cachedCount = 2;
    int result = 0;
    const std::string out = Capture([&] { result = h.udp.ProcessCached(); });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(log_messages(out, "[E]", "ProcessCached"),
              std::vector<std::string>{"ciOffset out of range: " + std::to_string(kCacheSize - 7)});
    EXPECT_EQ(h.cache.cachedCount, 0);
}

TEST_F(DecodedCacheTest, ClearCacheEmptiesTheDescriptorAndTheArea) {
    Replay({Record(1)});
    h.udp.CachePacket();
    const std::string out = Capture([&] { h.udp.ClearCache(); });
    EXPECT_EQ(log_messages(out, "[I]", "ClearCache"), std::vector<std::string>{"decode buffer cleared"});
    EXPECT_EQ(h.cache.piOffset, 0);
    EXPECT_EQ(h.cache.cachedCount, 0);
    EXPECT_EQ(EntrySize(0), 0u);
}

TEST_F(DecodedCacheTest, ReceiveErrorIsLoggedAsAHugeLengthAndIgnored) {
    Replay({std::vector<char>(3000, 'x')});  // longer than the 2048-byte buffer
    int result = 1;
    const std::string out = Capture([&] { result = h.udp.UdpRecv(); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(log_messages(out, "[D]", "UdpRecv"),
              std::vector<std::string>{"receive abnormal decode length: " +
                                       std::to_string(static_cast<uint32_t>(CARD_RX_FRAME_TRUNCATED))});
}

// The card library's negative results, read as unsigned lengths, are pinned
// here: a log line reads the same on the card and on the software card.
TEST_F(DecodedCacheTest, EachHardwareStatusAndTruncationIsLoggedAsAnAbnormalLength) {
    Replay({Record(1), Record(2), Record(3), std::vector<char>(2049, 'x'), Record(4)});
    CSoftPort* port = m_card->Card()->GetPort(0);
    ASSERT_TRUE(port->MarkFrame(0, RX_FRAME_ABORTED));
    ASSERT_TRUE(port->MarkFrame(1, RX_FRAME_CORRUPT));
    ASSERT_TRUE(port->MarkFrame(2, RX_FRAME_HWOVFL));
    ASSERT_TRUE(port->MarkFrame(4, 0xF0));  // filter-region bits only: a good frame
    const std::string out = Capture([&] {
        for (int i = 0; i < 5; ++i) {
            h.udp.CachePacket();
        }
    });
    EXPECT_EQ(
        log_messages(out, "[D]", "CachePacket"),
        (std::vector<std::string>{
            "receive abnormal decode length: 4294967295", "receive abnormal decode length: 4294967294",
            "receive abnormal decode length: 4294967293", "receive abnormal decode length: 4294967039"}));
    EXPECT_EQ(h.cache.cachedCount, 1);
}

TEST_F(DecodedCacheTest, LappedReaderLosesEveryWaitingFrameAndLogsTheOverflow) {
    // 1000 frames of 18 chunks each, all due at once: more than the ring holds.
    Replay(std::vector<std::vector<char>>(1000, std::vector<char>(2048, 'x')), ",speed=1");
    int first = 1;
    int second = 1;
    const std::string out = Capture([&] {
        first = h.udp.UdpRecv();
        second = h.udp.UdpRecv();
    });
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 0);
    EXPECT_EQ(log_messages(out, "[D]", "UdpRecv"),
              std::vector<std::string>{"receive abnormal decode length: 4294967040"});
    const SoftRxFigures figures = m_card->Card()->GetFigures(0);
    EXPECT_EQ(figures.frames, 1000u);
    EXPECT_EQ(figures.overruns, 1u);
}

TEST_F(DecodedCacheTest, ShortFramesAreDroppedAndNotCached) {
    Replay({std::vector<char>(23, 'x')});
    const std::string out = Capture([&] { h.udp.CachePacket(); });
    EXPECT_EQ(h.cache.cachedCount, 0);
    EXPECT_EQ(log_messages(out, "[D]", "CachePacket"),
              std::vector<std::string>{"receive abnormal decode length: 23"});
}

TEST_F(DecodedCacheTest, NoFrameIsNotAnEvent) {
    Replay({});
    const std::string out = Capture([&] {
        EXPECT_EQ(h.udp.UdpRecv(), 0);
        h.udp.CachePacket();
    });
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(h.cache.cachedCount, 0);
}

TEST_F(DecodedCacheTest, LiveFrameIsParsed) {
    Replay({Record(1)});
    const std::string out = Capture([&] { EXPECT_EQ(h.udp.UdpRecv(), 1); });
    EXPECT_EQ(h.area->instmts[7].change_no, 1u);
    EXPECT_EQ(log_messages(out, "[X]", "UdpRecv").front(), "receive decode length: 24");
}

TEST_F(DecodedCacheTest, ReceiveCacheReplayAndParseAllocateAndPrintNothing) {
    std::vector<std::vector<char>> frames;
    for (uint32_t changeNo = 1; changeNo <= 200; ++changeNo) {
        CDecodedRecordBuilder record(CUdpHarness::kShfeTopic, 7, changeNo);
        record.Update(MD_ENTRY_BID, 1, 0, changeNo).Deal(1, 1, 1, 1).BuyStatics(1, 1);
        frames.push_back(record.Build());
    }
    Replay(frames);
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(LOG_ERROR | LOG_WARNING | LOG_INFO));
    CStdoutCapture capture;
    const long before = allocation_count();
    for (int i = 0; i < 100; ++i) {
        h.udp.CachePacket();
    }
    int applied = 0;
    while (h.cache.cachedCount > 0) {
        applied += h.udp.ProcessCached();
    }
    for (int i = 0; i < 100; ++i) {
        applied += h.udp.UdpRecv();
    }
    const long after = allocation_count();
    EXPECT_EQ(capture.Stop(), "");
    EXPECT_EQ(after - before, 0);
    EXPECT_EQ(applied, 200);
    EXPECT_EQ(h.area->instmts[7].change_no, 200u);
}

}  // namespace
