#include "src/dev/soft/SoftCard.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "sim/PcapWriter.h"
#include "src/dev/Card.h"
#include "src/dev/soft/ReplayClock.h"
#include "tests/support/TempDir.h"

namespace {

// A port fed from memory, with its own block of registers.
class SoftPortTest : public ::testing::Test {
protected:
    SoftPortTest() : m_registers(8192, 0), m_clock(0), m_port(m_registers.data(), REG_ORIG_DATA, m_clock) {}

    void LoadFrames(const std::vector<std::string>& frames) {
        std::vector<char> bytes;
        std::vector<SoftFrame> index;
        for (const std::string& frame : frames) {
            index.push_back({bytes.size(), static_cast<uint32_t>(frame.size()), 0});
            bytes.insert(bytes.end(), frame.begin(), frame.end());
        }
        m_port.Load(std::move(bytes), std::move(index));
    }

    // The next frame's bytes, "<none>", or "<dropped>", counting frames and drops.
    std::string Next() {
        SoftFrameRef frame{};
        switch (m_port.Next(frame)) {
            case SOFT_NEXT_FRAME:
                ++m_delivered;
                return std::string(frame.data, frame.length);
            case SOFT_NEXT_DROPPED:
                ++m_dropped;
                return "<dropped>";
            default:
                return "<none>";
        }
    }

    std::vector<uint32_t> m_registers;
    CReplayClock m_clock;
    CSoftPort m_port;
    uint64_t m_delivered = 0;
    uint64_t m_dropped = 0;
};

TEST_F(SoftPortTest, GivesNothingWhenNoFrameWaits) {
    m_registers[REG_ORIG_DATA] = 1;
    EXPECT_EQ(Next(), "<none>");
    LoadFrames({"ab"});
    EXPECT_EQ(Next(), "ab");
    EXPECT_EQ(Next(), "<none>");
}

TEST_F(SoftPortTest, CopiesWholeFramesInOrder) {
    m_registers[REG_ORIG_DATA] = 1;
    LoadFrames({"first", std::string("\0\x01\x02", 3), std::string(1514, 'x')});
    EXPECT_EQ(Next(), "first");
    EXPECT_EQ(Next(), std::string("\0\x01\x02", 3));
    EXPECT_EQ(Next(), std::string(1514, 'x'));
    EXPECT_EQ(m_delivered, 3u);
}

TEST_F(SoftPortTest, FramesArrivingWhileTheStreamIsOffAreDroppedAndCounted) {
    LoadFrames({"a", "b", "c", "d"});
    // stream off: each poll is one frame's turn
    EXPECT_EQ(Next(), "<dropped>");
    EXPECT_EQ(Next(), "<dropped>");
    EXPECT_EQ(m_dropped, 2u);
    m_registers[REG_ORIG_DATA] = 1;
    EXPECT_EQ(Next(), "c");
    m_registers[REG_ORIG_DATA] = 2;  // only 1 means on
    EXPECT_EQ(Next(), "<dropped>");
    EXPECT_EQ(m_dropped, 3u);
    EXPECT_EQ(m_delivered, 1u);
    EXPECT_TRUE(m_port.IsIdle());
}

TEST_F(SoftPortTest, PortFollowsOnlyItsOwnStreamRegister) {
    LoadFrames({"a"});
    m_registers[REG_DECODE_DATA] = 1;
    EXPECT_EQ(Next(), "<dropped>");
    EXPECT_EQ(m_dropped, 1u);
}

class SoftCardTest : public ::testing::Test {
protected:
    SoftCardTest() {
        CPcapWriter(m_dir.Path() + "/raw.pcap", 1, true).Close();
        m_device = "replay:raw=" + m_dir.Path() + "/raw.pcap";
    }

    CTempDir m_dir;
    std::string m_device;
};

TEST_F(SoftCardTest, SameNameGivesTheSameCountedHandle) {
    CardHandle* first = card_acquire_handle(m_device.c_str());
    ASSERT_NE(first, nullptr);
    CardHandle* second = card_acquire_handle(m_device.c_str());
    EXPECT_EQ(second, first);
    EXPECT_EQ(card_get_ref_count(m_device.c_str()), 2);
    card_release_handle(second);
    EXPECT_EQ(card_get_ref_count(m_device.c_str()), 1);
    card_release_handle(first);
    EXPECT_EQ(card_get_ref_count(m_device.c_str()), 0);
}

TEST_F(SoftCardTest, RegisterWindowStartsZeroAndIsFreshAfterTheLastRelease) {
    CardHandle* handle = card_acquire_handle(m_device.c_str());
    volatile uint32_t* registers = card_get_devkit_registers(handle);
    ASSERT_NE(registers, nullptr);
    static_assert(CSoftCard::kRegisterWords * 4 >= 8192, "at least 8 KiB");
    for (uint32_t i = 0; i < CSoftCard::kRegisterWords; ++i) {
        ASSERT_EQ(registers[i], 0u) << "register " << i;
    }
    registers[CSoftCard::kRegisterWords - 1] = 5;
    card_release_handle(handle);

    handle = card_acquire_handle(m_device.c_str());
    registers = card_get_devkit_registers(handle);
    EXPECT_EQ(registers[CSoftCard::kRegisterWords - 1], 0u);
    card_release_handle(handle);
}

TEST_F(SoftCardTest, OnlyPortsZeroAndOneWithBufferZeroExist) {
    CardHandle* handle = card_acquire_handle(m_device.c_str());
    EXPECT_EQ(card_acquire_rx_buffer(handle, 2, 0), nullptr);
    EXPECT_STREQ(card_get_last_error(),
                 "the software card has ports 0 and 1 with buffer 0 only, not port 2 buffer 0");
    EXPECT_EQ(card_acquire_rx_buffer(handle, 1, 1), nullptr);
    card_release_handle(handle);
}

TEST_F(SoftCardTest, RecordsTheRegisterStoresOfItsWindowOnly) {
    CardHandle* handle = card_acquire_handle(m_device.c_str());
    volatile uint32_t* registers = card_get_devkit_registers(handle);
    CRegisterRecorder& recorder = card_get_soft_card(handle)->GetRecorder();
    std::vector<uint32_t> other(16, 0);
    recorder.Start();
    reg_write(registers, REG_ORIG_DATA, 1);
    reg_write(other.data(), 3, 9);
    reg_write(registers, REG_HOST_TIMESTAMP, 77);
    EXPECT_EQ(reg_read(registers, REG_HOST_TIMESTAMP), 77u);
    recorder.Stop();
    reg_write(registers, REG_ORIG_DATA, 0);
    EXPECT_EQ(recorder.GetAccesses(), (std::vector<RegisterAccess>{{true, REG_ORIG_DATA, 1},
                                                                   {true, REG_HOST_TIMESTAMP, 77},
                                                                   {false, REG_HOST_TIMESTAMP, 77}}));
    card_release_handle(handle);
}

TEST(SoftCardDeviceTest, SoftwareDeviceNamesAreRecognised) {
    EXPECT_TRUE(card_is_software("replay:raw=a.pcap"));
    EXPECT_TRUE(card_is_software("sim"));
    EXPECT_TRUE(card_is_software("sim:seed=1"));
    EXPECT_FALSE(card_is_software("simulator"));
    EXPECT_FALSE(card_is_software("exanic0"));
    EXPECT_FALSE(card_is_software("replay"));
}

}  // namespace
