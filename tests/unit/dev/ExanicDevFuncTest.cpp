#include "src/dev/ExanicDevFunc.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include "public/log/CommonLog.h"
#include "sim/PcapWriter.h"
#include "tests/support/DevAccess.h"
#include "tests/support/LogLines.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TempDir.h"

namespace {

using Access = CExanicDevFuncTestAccess;

class DevFuncTest : public ::testing::Test {
protected:
    DevFuncTest() : m_dev(m_config, m_mask) {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
        CPcapWriter(m_dir.Path() + "/raw.pcap", 1, true).Close();
        CPcapWriter(m_dir.Path() + "/decoded.pcap", 1, true).Close();
        m_config.device =
            "replay:raw=" + m_dir.Path() + "/raw.pcap,decoded=" + m_dir.Path() + "/decoded.pcap";
        m_config.cpucore = -1;
        m_config.shfe2ps = true;
        sched_getaffinity(0, sizeof(m_savedAffinity), &m_savedAffinity);
    }

    ~DevFuncTest() override {
        m_dev.ReleaseDev();
        sched_setaffinity(0, sizeof(m_savedAffinity), &m_savedAffinity);
    }

    int InitDev() {
        CStdoutCapture capture;
        const int result = m_dev.InitDev();
        m_out = capture.Stop();
        return result;
    }

    std::vector<std::string> Errors() const { return log_messages(m_out, "[E]", "InitDev"); }

    CTempDir m_dir;
    ExanicMdConfigData m_config;
    UEnableMask m_mask{};
    CExanicDevFunc m_dev;
    std::string m_out;
    cpu_set_t m_savedAffinity;
};

TEST_F(DevFuncTest, BringsUpTheSoftwareCard) {
    ASSERT_EQ(InitDev(), 0);
    EXPECT_NE(m_dev.GetRegisters(), nullptr);
    EXPECT_NE(m_dev.GetTcpRxBuffer(), nullptr);
    EXPECT_NE(m_dev.GetUdpRxBuffer(), nullptr);
    EXPECT_EQ(m_dev.GetTcpRxBuffer()->pSoftCard, card_get_soft_card(m_dev.GetHandle()));
    EXPECT_EQ(m_dev.GetTcpRxBuffer()->softPort, 1);
    EXPECT_EQ(m_dev.GetUdpRxBuffer()->softPort, 0);
    EXPECT_EQ(m_mask.mask, ENABLE_SHFE2PS);
    EXPECT_TRUE(Errors().empty());
}

TEST_F(DevFuncTest, NegativeCpuWarnsAndTheCardIsStillBroughtUp) {
    cpu_set_t before;
    sched_getaffinity(0, sizeof(before), &before);
    ASSERT_EQ(InitDev(), 0);
    EXPECT_EQ(log_messages(m_out, "[W]", "_BindCpu"), std::vector<std::string>{"CPU[-1] exceed max procs"});
    cpu_set_t after;
    sched_getaffinity(0, sizeof(after), &after);
    EXPECT_TRUE(CPU_EQUAL(&before, &after));
}

TEST_F(DevFuncTest, CpuAboveTheProcessorCountExceeds) {
    m_config.cpucore = static_cast<int16_t>(get_nprocs() + 1);
    CStdoutCapture capture;
    EXPECT_EQ(Access::BindCpu(m_dev), -1);
    EXPECT_EQ(log_messages(capture.Stop(), "[W]", "_BindCpu"),
              std::vector<std::string>{"CPU[" + std::to_string(m_config.cpucore) + "] exceed max procs"});
}

TEST_F(DevFuncTest, CpuEqualToTheProcessorCountReachesTheAffinityCall) {
    m_config.cpucore = static_cast<int16_t>(get_nprocs());
    CStdoutCapture capture;
    EXPECT_EQ(Access::BindCpu(m_dev), -1);
    EXPECT_EQ(log_messages(capture.Stop(), "[W]", "_BindCpu"),
              std::vector<std::string>{"set CPU[" + std::to_string(m_config.cpucore) + "] affinity failed"});
}

TEST_F(DevFuncTest, ValidCpuPinsTheCallingThread) {
    int cpu = 0;
    while (!CPU_ISSET(cpu, &m_savedAffinity)) {
        ++cpu;
    }
    m_config.cpucore = static_cast<int16_t>(cpu);
    CStdoutCapture capture;
    EXPECT_EQ(Access::BindCpu(m_dev), 0);
    EXPECT_EQ(log_messages(capture.Stop(), "[I]", "_BindCpu"),
              std::vector<std::string>{"set CPU[" + std::to_string(cpu) + "] affinity successful"});
    cpu_set_t now;
    sched_getaffinity(0, sizeof(now), &now);
    EXPECT_EQ(CPU_COUNT(&now), 1);
    EXPECT_TRUE(CPU_ISSET(cpu, &now));
}

TEST_F(DevFuncTest, HandleFailureIsReported) {
    soft_card_fail_next(SOFT_STEP_HANDLE, "device busy");
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(), std::vector<std::string>{"get [" + m_config.device + "] handle failed, device busy"});
    EXPECT_EQ(m_dev.GetHandle(), nullptr);
}

TEST_F(DevFuncTest, RegisterFailureIsReported) {
    soft_card_fail_next(SOFT_STEP_REGISTERS, "no devkit");
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(),
              std::vector<std::string>{"get [" + m_config.device + "] registers failed, no devkit"});
}

TEST_F(DevFuncTest, TcpBufferFailureIsReported) {
    soft_card_fail_next(SOFT_STEP_RX_PORT1, "port 1 down");
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(),
              std::vector<std::string>{"get [" + m_config.device + "] tcp rx buffer failed, port 1 down"});
}

TEST_F(DevFuncTest, UdpBufferFailureIsReported) {
    soft_card_fail_next(SOFT_STEP_RX_PORT0, "port 0 down");
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(),
              std::vector<std::string>{"get [" + m_config.device + "] udp rx buffer failed, port 0 down"});
    EXPECT_EQ(m_dev.GetUdpRxBuffer(), nullptr);
}

TEST_F(DevFuncTest, FailedBringUpDoesNotProgramTheRegisters) {
    soft_card_fail_next(SOFT_STEP_RX_PORT0, "port 0 down");
    m_mask.mask = 0x40;
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(m_mask.mask, 0x40);
}

TEST_F(DevFuncTest, ReleaseAfterFailureReleasesExactlyWhatWasAcquired) {
    soft_card_fail_next(SOFT_STEP_RX_PORT0, "port 0 down");
    ASSERT_EQ(InitDev(), -1);
    // A second holder keeps the card alive so its history can be read.
    CardHandle* witness = card_acquire_handle(m_config.device.c_str());
    CSoftCard* card = card_get_soft_card(witness);
    m_dev.ReleaseDev();
    EXPECT_EQ(card->GetEvents(),
              (std::vector<std::string>{"handle acquired", "rx 1 acquired", "handle acquired",
                                        "rx 1 released", "handle released"}));
    EXPECT_EQ(m_dev.GetTcpRxBuffer(), nullptr);
    EXPECT_EQ(m_dev.GetHandle(), nullptr);
    card_release_handle(witness);
    EXPECT_EQ(card_get_ref_count(m_config.device.c_str()), 0);
}

TEST_F(DevFuncTest, ReleaseGoesDecodedBufferRawBufferHandle) {
    ASSERT_EQ(InitDev(), 0);
    CardHandle* witness = card_acquire_handle(m_config.device.c_str());
    CSoftCard* card = card_get_soft_card(witness);
    m_dev.ReleaseDev();
    EXPECT_EQ(card->GetEvents(), (std::vector<std::string>{
                                     "handle acquired", "rx 1 acquired", "rx 0 acquired", "handle acquired",
                                     "rx 0 released", "rx 1 released", "handle released"}));
    card_release_handle(witness);
    EXPECT_EQ(card_get_ref_count(m_config.device.c_str()), 0);
}

// A card name on a host without the card (or, without the card library, in
// a build without card support).
class CardlessDevFuncTest : public DevFuncTest {
protected:
    CardlessDevFuncTest() { m_config.device = "exanic0"; }

    static std::string Reason() {
#if QUVO_HAVE_EXANIC
        return exanic_get_last_error();
#else
        return "this build has no ExaNIC card support: install the card's software (libexanic) and rebuild "
               "with cmake -DQUVO_WITH_EXANIC=ON, or use device = replay:raw=FILE,decoded=FILE";
#endif
    }
};

TEST_F(CardlessDevFuncTest, UnknownCardFailsWithTheLibrarysReasonAndAcquiresNothing) {
    ASSERT_NE(access("/dev/exanic0", F_OK), 0) << "this host has a card";
    EXPECT_EQ(InitDev(), -1);
#if QUVO_HAVE_EXANIC
    // The library's own text for a device file that is not there.
    EXPECT_EQ(Reason(), "device open failed: No such file or directory");
#endif
    EXPECT_EQ(Errors(), std::vector<std::string>{"get [exanic0] handle failed, " + Reason()});
    EXPECT_EQ(m_dev.GetHandle(), nullptr);
    EXPECT_EQ(m_dev.GetRegisters(), nullptr);
    EXPECT_EQ(m_dev.GetTcpRxBuffer(), nullptr);
    EXPECT_EQ(m_dev.GetUdpRxBuffer(), nullptr);
    EXPECT_EQ(card_get_ref_count("exanic0"), 0);
}

TEST_F(CardlessDevFuncTest, RestartWithoutReleaseFailsTheSameWayAndReleaseIsHarmless) {
    ASSERT_NE(access("/dev/exanic0", F_OK), 0) << "this host has a card";
    EXPECT_EQ(InitDev(), -1);
    const std::vector<std::string> first = Errors();
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(), first);
    EXPECT_EQ(card_get_ref_count("exanic0"), 0);
    m_dev.ReleaseDev();
    EXPECT_EQ(m_dev.GetHandle(), nullptr);
    EXPECT_EQ(card_get_ref_count("exanic0"), 0);
}

TEST_F(DevFuncTest, ReleaseWithNothingAcquiredIsHarmless) {
    m_dev.ReleaseDev();
    m_dev.ReleaseDev();
    EXPECT_EQ(m_dev.GetHandle(), nullptr);
}

TEST_F(DevFuncTest, SecondInitDevWithoutReleaseReusesTheCard) {
    ASSERT_EQ(InitDev(), 0);
    volatile uint32_t* registers = m_dev.GetRegisters();
    CardRx* firstTcp = m_dev.GetTcpRxBuffer();
    CardRx* firstUdp = m_dev.GetUdpRxBuffer();
    ASSERT_EQ(InitDev(), 0);
    EXPECT_TRUE(Errors().empty());
    EXPECT_EQ(m_dev.GetRegisters(), registers);
    EXPECT_EQ(card_get_ref_count(m_config.device.c_str()), 2);
    EXPECT_NE(m_dev.GetTcpRxBuffer(), firstTcp);
    EXPECT_EQ(m_dev.GetTcpRxBuffer()->pSoftCard, firstTcp->pSoftCard);
    EXPECT_EQ(m_dev.GetTcpRxBuffer()->softPort, firstTcp->softPort);
    // The pipeline abandons the first buffers and one handle reference.
    card_release_rx_buffer(firstTcp);
    card_release_rx_buffer(firstUdp);
    card_release_handle(m_dev.GetHandle());
}

TEST_F(DevFuncTest, SimulatorWithABadOptionSaysWhichOne) {
    m_config.device = "sim:shfe=lots";
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(),
              std::vector<std::string>{"get [sim:shfe=lots] handle failed, bad value 'lots' for simulator "
                                       "option shfe: expected a count from 0 to 16384"});
}

TEST_F(DevFuncTest, SimulatorComesUpLikeACard) {
    m_config.device = "sim:shfe=10,ine=5";
    EXPECT_EQ(InitDev(), 0);
    EXPECT_TRUE(Errors().empty());
}

#if !QUVO_HAVE_EXANIC
TEST_F(DevFuncTest, CardNameWithoutCardSupportSaysHowToBuildIt) {
    m_config.device = "exanic0";
    EXPECT_EQ(InitDev(), -1);
    EXPECT_EQ(Errors(),
              std::vector<std::string>{
                  "get [exanic0] handle failed, this build has no ExaNIC card support: install the card's "
                  "software (libexanic) and rebuild with cmake -DQUVO_WITH_EXANIC=ON, or use device = "
                  "replay:raw=FILE,decoded=FILE"});
}
#endif

}  // namespace
