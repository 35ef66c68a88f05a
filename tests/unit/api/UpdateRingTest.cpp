#include "src/api/UpdateRing.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "src/api/SharedSegments.h"

namespace {

class UpdateRingTest : public ::testing::Test {
protected:
    UpdateRingTest() : m_entries(QUVO_UPDATE_RING_ENTRIES, 0x5555), m_ring(m_entries.data()) {}

    std::vector<uint16_t> m_entries;
    CUpdateRing m_ring;
};

TEST_F(UpdateRingTest, ResetMakesEveryEntryAnEndMarker) {
    m_ring.Reset();
    for (uint16_t entry : m_entries) {
        ASSERT_EQ(entry, QUVO_UPDATE_RING_END);
    }
}

TEST_F(UpdateRingTest, PublishWritesTheSlotAndAnEndMarkerAfterIt) {
    m_ring.Reset();
    m_ring.Publish(7);
    // entries: [7, END, END ...]  count 1
    EXPECT_EQ(m_entries[0], 7);
    EXPECT_EQ(m_entries[1], QUVO_UPDATE_RING_END);
    m_ring.Publish(20479);
    // entries: [7, 20479, END ...]  count 2
    EXPECT_EQ(m_entries[0], 7);
    EXPECT_EQ(m_entries[1], 20479);
    EXPECT_EQ(m_entries[2], QUVO_UPDATE_RING_END);
    EXPECT_EQ(m_ring.GetWriteCount(), 2u);
}

TEST_F(UpdateRingTest, SlotIsCutToSixteenBits) {
    m_ring.Publish(0x12345);
    EXPECT_EQ(m_entries[0], 0x2345);
}

TEST_F(UpdateRingTest, WrapsAfter65536Announcements) {
    m_ring.Reset();
    for (uint32_t n = 0; n < 65535; ++n) {
        m_ring.Publish(n % 20480);
    }
    // entries: [0, 1, ... 65534 % 20480, END]  count 65535
    EXPECT_EQ(m_entries[65535], QUVO_UPDATE_RING_END);
    EXPECT_EQ(m_entries[0], 0);

    m_ring.Publish(111);
    // index 65535: entry 0 becomes the end marker, entry 65535 the slot
    EXPECT_EQ(m_entries[0], QUVO_UPDATE_RING_END);
    EXPECT_EQ(m_entries[65535], 111);
    EXPECT_EQ(m_entries[1], 1);

    m_ring.Publish(222);
    // index 0 again: entry 1's marker, then entry 0
    EXPECT_EQ(m_entries[0], 222);
    EXPECT_EQ(m_entries[1], QUVO_UPDATE_RING_END);
    EXPECT_EQ(m_entries[2], 2);
    EXPECT_EQ(m_ring.GetWriteCount(), 65537u);
}

TEST_F(UpdateRingTest, EveryEntryHoldsItsAnnouncementAfterManyLaps) {
    m_ring.Reset();
    const uint32_t total = 3 * QUVO_UPDATE_RING_ENTRIES + 1000;
    for (uint32_t n = 0; n < total; ++n) {
        m_ring.Publish(n % 20480);
    }
    const uint32_t end = total % QUVO_UPDATE_RING_ENTRIES;
    EXPECT_EQ(m_entries[end], QUVO_UPDATE_RING_END);
    for (uint32_t back = 1; back < QUVO_UPDATE_RING_ENTRIES; ++back) {
        const uint32_t n = total - back;
        ASSERT_EQ(m_entries[n % QUVO_UPDATE_RING_ENTRIES], n % 20480) << "announcement " << n;
    }
}

// Store order is what readers rely on. With the ring write-protected, each
// first store to a page faults; the handler records the page and opens it.
// Entries on two pages therefore reveal the order in which they were stored.
struct WriteOrder {
    static inline char* base = nullptr;
    static inline long pageSize = 0;
    static inline int faults = 0;
    static inline long pages[8] = {};

    static void OnFault(int, siginfo_t* info, void*) {
        char* page = reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(info->si_addr) & ~(pageSize - 1));
        if (faults < 8) {
            pages[faults] = (page - base) / pageSize;
        }
        ++faults;
        mprotect(page, static_cast<size_t>(pageSize), PROT_READ | PROT_WRITE);
    }
};

class UpdateRingOrderTest : public ::testing::Test {
protected:
    void SetUp() override {
        WriteOrder::pageSize = sysconf(_SC_PAGESIZE);
        void* mem =
            mmap(nullptr, QUVO_UPDATE_RING_SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(mem, MAP_FAILED);
        WriteOrder::base = static_cast<char*>(mem);
        WriteOrder::faults = 0;
        struct sigaction action {};
        action.sa_sigaction = WriteOrder::OnFault;
        action.sa_flags = SA_SIGINFO;
        sigemptyset(&action.sa_mask);
        ASSERT_EQ(sigaction(SIGSEGV, &action, &m_saved), 0);
    }

    void TearDown() override {
        sigaction(SIGSEGV, &m_saved, nullptr);
        munmap(WriteOrder::base, QUVO_UPDATE_RING_SIZE);
    }

    // Publishes until the write counter is `index`, then write-protects the
    // ring and publishes once more.
    void PublishProtected(uint32_t index) {
        CUpdateRing ring(reinterpret_cast<uint16_t*>(WriteOrder::base));
        for (uint32_t n = 0; n < index; ++n) {
            ring.Publish(n);
        }
        ASSERT_EQ(mprotect(WriteOrder::base, QUVO_UPDATE_RING_SIZE, PROT_READ), 0);
        ring.Publish(4321);
    }

    struct sigaction m_saved {};
};

TEST_F(UpdateRingOrderTest, EndMarkerIsStoredBeforeTheEntryItFollows) {
    // entry i on the last half-word of one page, its marker on the next page
    const uint32_t index = static_cast<uint32_t>(WriteOrder::pageSize / 2 - 1);
    PublishProtected(index);
    ASSERT_EQ(WriteOrder::faults, 2);
    EXPECT_EQ(WriteOrder::pages[0], 1);  // marker at index + 1
    EXPECT_EQ(WriteOrder::pages[1], 0);  // then the slot at index
    const uint16_t* entries = reinterpret_cast<uint16_t*>(WriteOrder::base);
    EXPECT_EQ(entries[index], 4321);
    EXPECT_EQ(entries[index + 1], QUVO_UPDATE_RING_END);
}

TEST_F(UpdateRingOrderTest, AtIndex65535EntryZeroIsMarkedBeforeTheLastEntry) {
    PublishProtected(65535);
    const long lastPage = (QUVO_UPDATE_RING_SIZE - 1) / WriteOrder::pageSize;
    ASSERT_EQ(WriteOrder::faults, 2);
    EXPECT_EQ(WriteOrder::pages[0], 0);         // end marker into entry 0
    EXPECT_EQ(WriteOrder::pages[1], lastPage);  // then entry 65535
    const uint16_t* entries = reinterpret_cast<uint16_t*>(WriteOrder::base);
    EXPECT_EQ(entries[0], QUVO_UPDATE_RING_END);
    EXPECT_EQ(entries[65535], 4321);
}

// Field ranges zeroed by the per-run clearing, as byte offsets in a record.
struct ByteRange {
    size_t begin;
    size_t end;
};
constexpr ByteRange kClearedRanges[] = {
    {16, 28},   // last_px, volume
    {36, 56},   // change_no, turnover, open_interest
    {96, 336},  // bid_px, bid_vol, ask_vol, ask_px
};

bool IsCleared(size_t offsetInRecord) {
    for (const ByteRange& range : kClearedRanges) {
        if (offsetInRecord >= range.begin && offsetInRecord < range.end) {
            return true;
        }
    }
    return false;
}

TEST(ClearBooksTest, ZeroesOnlyBooksPricesVolumesAndChangeNumbers) {
    auto area = std::make_unique<share>();
    memset(area.get(), 0xAB, sizeof(share));
    clear_books(*area);

    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(area.get());
    for (size_t i = 0; i < sizeof(area->instmts); ++i) {
        const unsigned char expected = IsCleared(i % sizeof(instrument)) ? 0 : 0xAB;
        ASSERT_EQ(bytes[i], expected)
            << "slot " << i / sizeof(instrument) << " byte " << i % sizeof(instrument);
    }
    for (size_t i = sizeof(area->instmts); i < sizeof(share); ++i) {
        ASSERT_EQ(bytes[i], 0xAB) << "counter byte " << i;
    }
}

TEST(ClearBooksTest, CountersSurviveRepeatedRuns) {
    auto area = std::make_unique<share>();
    area->shfe_inst_cnt = 1200;
    area->ine_inst_cnt = 300;
    area->shfe_pktno = 99;
    area->ine_pktno = 98;
    clear_books(*area);
    clear_books(*area);
    EXPECT_EQ(area->shfe_inst_cnt, 1200);
    EXPECT_EQ(area->ine_inst_cnt, 300);
    EXPECT_EQ(area->shfe_pktno, 99);
    EXPECT_EQ(area->ine_pktno, 98);
}

}  // namespace
