#include "src/api/ZeroedBuffer.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr size_t kSize = 64u << 20;

// The first byte in [begin, end) that is not `value`, or `end`.
size_t FirstOther(const char* data, size_t begin, size_t end, char value) {
    for (size_t i = begin; i < end; ++i) {
        if (data[i] != value) {
            return i;
        }
    }
    return end;
}

// Pages of the buffer not resident in memory.
size_t PagesNotMapped(const CZeroedBuffer& buffer) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = (reinterpret_cast<uintptr_t>(buffer.data()) + page - 1) & ~(page - 1);
    const uintptr_t end = (reinterpret_cast<uintptr_t>(buffer.data()) + buffer.size()) & ~(page - 1);
    std::vector<unsigned char> resident((end - begin) / page);
    EXPECT_EQ(mincore(reinterpret_cast<void*>(begin), end - begin, resident.data()), 0);
    size_t missing = 0;
    for (unsigned char flag : resident) {
        missing += (flag & 1) == 0 ? 1 : 0;
    }
    return missing;
}

TEST(ZeroedBufferTest, ThisKernelMapsPagesWithoutWritingThem) {
    // Linux 5.14 and later; the feed relies on it for its speed only.
    EXPECT_TRUE(CZeroedBuffer::CanMapInBackground());
}

TEST(ZeroedBufferTest, EveryByteReadsZeroAndEveryPageIsMapped) {
    CZeroedBuffer buffer(kSize);
    ASSERT_NE(buffer.data(), nullptr);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_GT(PagesNotMapped(buffer), 0u);  // the heap's own calloc maps nothing
#endif
    buffer.MapInBackground();
    buffer.WaitAllMapped();
    EXPECT_EQ(FirstOther(buffer.data(), 0, kSize, 0), kSize);
    EXPECT_EQ(PagesNotMapped(buffer), 0u);
}

// What is written while the mapping goes on, paused or not, stays.
TEST(ZeroedBufferTest, WritesMadeWhileMappingAreKept) {
    CZeroedBuffer buffer(kSize);
    ASSERT_NE(buffer.data(), nullptr);
    const std::vector<size_t> offsets = {0, 1, 4095, 4096, kSize / 2, kSize - 4097, kSize - 1};
    for (size_t offset : offsets) {
        buffer.data()[offset] = 'x';
    }
    buffer.MapInBackground();
    const size_t runBegin = 8192;
    const size_t runEnd = runBegin + (8u << 20);
    memset(buffer.data() + runBegin, 'y', runEnd - runBegin);
    buffer.PauseMapping();
    buffer.data()[kSize - 2] = 'z';
    buffer.MapInBackground();
    buffer.WaitAllMapped();
    for (size_t offset : offsets) {
        EXPECT_EQ(buffer.data()[offset], 'x') << offset;
    }
    EXPECT_EQ(buffer.data()[kSize - 2], 'z');
    EXPECT_EQ(FirstOther(buffer.data(), runBegin, runEnd, 'y'), runEnd);
    EXPECT_EQ(FirstOther(buffer.data(), runEnd, kSize / 2, 0), kSize / 2);
}

// Paused, the mapping thread maps nothing more until let go on.
TEST(ZeroedBufferTest, PausedMappingStandsStillUntilLetGoOn) {
    CZeroedBuffer buffer(kSize);
    buffer.MapInBackground();
    buffer.PauseMapping();
    const size_t missing = PagesNotMapped(buffer);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(PagesNotMapped(buffer), missing);
    buffer.MapInBackground();
    buffer.WaitAllMapped();
    EXPECT_EQ(PagesNotMapped(buffer), 0u);
}

TEST(ZeroedBufferTest, PauseBeforeAnyMappingReturns) {
    CZeroedBuffer buffer(kSize);
    buffer.PauseMapping();
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_GT(PagesNotMapped(buffer), 0u);
#endif
}

TEST(ZeroedBufferTest, DestroyedWhileMappingOrPausedReturns) {
    for (int i = 0; i < 3; ++i) {
        CZeroedBuffer mapping(kSize);
        mapping.MapInBackground();
        CZeroedBuffer paused(kSize);
        paused.MapInBackground();
        paused.PauseMapping();
    }
}

}  // namespace
