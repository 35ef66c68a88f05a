// The simulator's interrupt=EVENT:N key: SIGINT is raised once, exactly at
// the Nth event asked for, with a line on standard error saying where.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "sim/SimDevice.h"
#include "sim/SimOptions.h"
#include "src/dev/Registers.h"
#include "tests/support/TempDir.h"

namespace {

volatile sig_atomic_t g_interrupts = 0;

// A market of 30 SHFE and 5 INE instruments, records as fast as they are read.
SimOptions Market() {
    SimOptions options;
    options.shfe = 30;
    options.ine = 5;
    options.rate = 0;
    return options;
}

void CountInterrupt(int) {
    g_interrupts = g_interrupts + 1;
}

class SimInterruptTest : public ::testing::Test {
protected:
    SimInterruptTest() : m_registers(4096, 0) {
        struct sigaction action {};
        action.sa_handler = CountInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &m_savedAction);
        g_interrupts = 0;
        // Standard error into a file, to read the simulator's line.
        fflush(stderr);
        m_savedStderr = dup(STDERR_FILENO);
        const int fd = open(ErrorPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~SimInterruptTest() override {
        RestoreStderr();
        sigaction(SIGINT, &m_savedAction, nullptr);
    }

    void RestoreStderr() {
        if (m_savedStderr >= 0) {
            fflush(stderr);
            dup2(m_savedStderr, STDERR_FILENO);
            close(m_savedStderr);
            m_savedStderr = -1;
        }
    }
    std::string ErrorPath() const { return m_dir.Path() + "/stderr"; }
    std::string Errors() {
        fflush(stderr);
        return read_file(ErrorPath());
    }

    std::unique_ptr<CSimDevice> Device(const std::string& interrupt) {
        SimOptions options = Market();
        std::string error;
        EXPECT_TRUE(sim_set_option(options, "interrupt", interrupt, true, error)) << error;
        return std::make_unique<CSimDevice>(options, m_registers.data());
    }

    // The feed's set-up as the card sees it: both exchanges' addresses, the
    // decoded stream on, then the raw stream and both exchanges' feeds.
    void Join() {
        m_registers[REG_SHFE_A_ADDR] = 1;
        m_registers[REG_INE_A_ADDR] = 1;
        m_registers[REG_DECODE_DATA] = 1;
    }
    void RequestSnapshot() {
        m_registers[REG_ORIG_DATA] = 1;
        m_registers[REG_ALL_SHFE] = 1;
        m_registers[REG_ALL_INE] = 1;
    }
    void EndSnapshot() {
        m_registers[REG_ALL_SHFE] = 0;
        m_registers[REG_ALL_INE] = 0;
        m_registers[REG_ORIG_DATA] = 0;
    }

    // Reads `n` frames of `port`, each of which must arrive.
    void Read(CSimDevice& device, int port, int n) {
        SoftFrameRef frame{};
        for (int i = 0; i < n; ++i) {
            ASSERT_EQ(device.Next(port, frame), SOFT_NEXT_FRAME) << "port " << port << ", frame " << i;
        }
    }

    // Reads `before` frames of `port` that raise nothing, the frame that
    // raises the interrupt, then `after` frames that raise it no more.
    void ReadThroughInterrupt(CSimDevice& device, int port, int before, int after) {
        Read(device, port, before);
        EXPECT_EQ(g_interrupts, 0);
        Read(device, port, 1);
        EXPECT_EQ(g_interrupts, 1);
        Read(device, port, after);
        EXPECT_EQ(g_interrupts, 1);
    }

    std::vector<uint32_t> m_registers;
    CTempDir m_dir;
    struct sigaction m_savedAction {};
    int m_savedStderr = -1;
};

TEST_F(SimInterruptTest, RaisesAtTheNthDecodedFrameOnly) {
    auto device = Device("decoded:5");
    Join();
    ReadThroughInterrupt(*device, 0, 4, 20);
    EXPECT_EQ(Errors(),
              "simulator: interrupt at decoded 5: 0 register writes, 0 snapshots, 0 raw frames, 5 decoded "
              "frames\n");
}

TEST_F(SimInterruptTest, RaisesWhenTheSnapshotIsTakenBeforeAnyOfItsFrames) {
    auto device = Device("snapshot:2");
    Join();
    RequestSnapshot();
    Read(*device, 0, 3);
    SoftFrameRef frame{};
    int raw = 0;
    while (device->Next(1, frame) == SOFT_NEXT_FRAME) {
        ++raw;
    }
    ASSERT_GT(raw, 1);
    EXPECT_EQ(g_interrupts, 0);
    EndSnapshot();
    Read(*device, 0, 2);
    RequestSnapshot();
    // The poll that takes the snapshot also brings a decoded frame.
    Read(*device, 0, 1);
    EXPECT_EQ(g_interrupts, 1);
    EXPECT_EQ(Errors(), "simulator: interrupt at snapshot 2: 0 register writes, 2 snapshots, " +
                            std::to_string(raw) + " raw frames, 5 decoded frames\n");
    // Its frames come after the interrupt.
    EXPECT_EQ(device->Next(1, frame), SOFT_NEXT_FRAME);
}

TEST_F(SimInterruptTest, RaisesAtTheNthRawFrameAcrossSnapshots) {
    auto device = Device("raw:3");
    Join();
    RequestSnapshot();
    Read(*device, 0, 1);
    ReadThroughInterrupt(*device, 1, 2, 1);
    EXPECT_EQ(
        Errors(),
        "simulator: interrupt at raw 3: 0 register writes, 1 snapshots, 3 raw frames, 1 decoded frames\n");
}

TEST_F(SimInterruptTest, CountsOnlyTheWritesToItsOwnRegisters) {
    auto device = Device("write:3");
    std::vector<uint32_t> other(16, 0);
    reg_write(m_registers.data(), REG_RESET, 1);
    reg_write(other.data(), 1, 1);
    reg_write(m_registers.data(), REG_RESET, 0);
    reg_read(m_registers.data(), REG_FPGA_VERSION);
    EXPECT_EQ(g_interrupts, 0);
    reg_write(m_registers.data(), REG_DECODE_DATA, 1);
    EXPECT_EQ(g_interrupts, 1);
    reg_write(m_registers.data(), REG_DECODE_DATA, 0);
    EXPECT_EQ(g_interrupts, 1);
    EXPECT_EQ(m_registers[REG_DECODE_DATA], 0u);
    EXPECT_EQ(
        Errors(),
        "simulator: interrupt at write 3: 3 register writes, 0 snapshots, 0 raw frames, 0 decoded frames\n");
}

TEST_F(SimInterruptTest, WritesGoUncountedOnceTheDeviceIsGone) {
    Device("write:1").reset();
    reg_write(m_registers.data(), REG_RESET, 1);
    EXPECT_EQ(g_interrupts, 0);
    EXPECT_EQ(Errors(), "");
}

TEST_F(SimInterruptTest, CountsDecodedFramesFromTheLastTimeTheRawStreamWentOff) {
    auto device = Device("after_snapshot:3");
    Join();
    Read(*device, 0, 5);
    RequestSnapshot();
    Read(*device, 0, 5);
    EndSnapshot();
    Read(*device, 0, 2);
    // A new snapshot before the third: counting starts again when it ends.
    RequestSnapshot();
    Read(*device, 0, 4);
    EXPECT_EQ(g_interrupts, 0);
    EndSnapshot();
    ReadThroughInterrupt(*device, 0, 2, 10);
    EXPECT_EQ(
        Errors(),
        "simulator: interrupt at after_snapshot 3: 0 register writes, 2 snapshots, 0 raw frames, 19 decoded "
        "frames\n");
}

TEST_F(SimInterruptTest, WithoutTheKeyNothingIsRaised) {
    CSimDevice device(Market(), m_registers.data());
    reg_write(m_registers.data(), REG_RESET, 1);
    Join();
    RequestSnapshot();
    Read(device, 0, 50);
    Read(device, 1, 2);
    EndSnapshot();
    Read(device, 0, 50);
    EXPECT_EQ(g_interrupts, 0);
    EXPECT_EQ(Errors(), "");
}

TEST_F(SimInterruptTest, WarmUpRecordsComeBetweenEachRequestAndItsSnapshot) {
    SimOptions options = Market();
    options.warmup = 3;
    CSimDevice device(options, m_registers.data());
    Join();
    SoftFrameRef frame{};
    for (int request = 1; request <= 2; ++request) {
        SCOPED_TRACE("request " + std::to_string(request));
        RequestSnapshot();
        Read(device, 0, 3);
        EXPECT_EQ(device.Next(1, frame), SOFT_NEXT_NONE);
        // The next poll takes the snapshot; the records after it are not warm-up.
        Read(device, 0, 1);
        EXPECT_EQ(device.Next(1, frame), SOFT_NEXT_FRAME);
        EndSnapshot();
        // What is left of the snapshot is dropped with the raw stream off.
        EXPECT_EQ(device.Next(1, frame), SOFT_NEXT_NONE);
        Read(device, 0, 5);
    }
    EXPECT_EQ(g_interrupts, 0);
}

TEST(SimInterruptOption, FormsAndTheirErrors) {
    SimOptions options;
    std::string error;
    ASSERT_TRUE(sim_parse_device_options("interrupt=after_snapshot:120", options, error)) << error;
    EXPECT_EQ(options.interruptAt, SIM_INTERRUPT_AFTER_SNAPSHOT);
    EXPECT_EQ(options.interruptCount, 120u);
    const std::vector<std::pair<std::string, ESimInterrupt>> events = {{"write", SIM_INTERRUPT_WRITE},
                                                                       {"snapshot", SIM_INTERRUPT_SNAPSHOT},
                                                                       {"raw", SIM_INTERRUPT_RAW},
                                                                       {"decoded", SIM_INTERRUPT_DECODED}};
    for (const auto& [name, at] : events) {
        SimOptions one;
        ASSERT_TRUE(sim_set_option(one, "interrupt", name + ":1", true, error)) << error;
        EXPECT_EQ(one.interruptAt, at);
        EXPECT_EQ(one.interruptCount, 1u);
        EXPECT_EQ(sim_interrupt_name(at), name);
    }
    for (const std::string bad :
         {"decoded", "decoded:", "decoded:0", "decoded:-1", "decoded:1x", "frames:3", ":3", "none:1"}) {
        SimOptions one;
        EXPECT_FALSE(sim_set_option(one, "interrupt", bad, true, error)) << bad;
        EXPECT_EQ(error,
                  "bad value '" + bad +
                      "' for simulator option interrupt: expected EVENT:N, EVENT one of write, snapshot, "
                      "raw, decoded, after_snapshot")
            << bad;
        EXPECT_EQ(one.interruptAt, SIM_INTERRUPT_NONE) << bad;
    }
    // quvo-sim writes captures: there is no feed to interrupt.
    EXPECT_FALSE(sim_set_option(options, "interrupt", "raw:1", false, error));
    EXPECT_EQ(sim_options_help(false).find("interrupt"), std::string::npos);
    EXPECT_NE(sim_options_help(true).find("  interrupt         raise SIGINT once at EVENT:N"),
              std::string::npos);
}

}  // namespace
