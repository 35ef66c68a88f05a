#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "public/log/CommonLog.h"
#include "src/dev/ExanicDevFunc.h"
#include "tests/support/DevAccess.h"
#include "tests/support/LogLines.h"
#include "tests/support/StdoutCapture.h"

namespace {

using Access = CExanicDevFuncTestAccess;

RegisterAccess Read(uint32_t index, uint32_t value) {
    return {false, index, value};
}
RegisterAccess Write(uint32_t index, uint32_t value) {
    return {true, index, value};
}

// _InitReg on a plain block of words, with every access recorded.
class RegisterInitTest : public ::testing::Test {
protected:
    RegisterInitTest() : m_window(8192, 0), m_recorder(m_window.data()), m_dev(m_config, m_mask) {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
        m_mask.mask = 0xFF;
    }

    std::vector<RegisterAccess> RunInitReg() {
        m_recorder.Start();
        CStdoutCapture capture;
        Access::InitReg(m_dev, m_window.data());
        m_out = capture.Stop();
        m_recorder.Stop();
        return m_recorder.GetAccesses();
    }

    // Stores after the reset pulse that load feed addresses (16..23).
    static std::vector<RegisterAccess> AddressStores(const std::vector<RegisterAccess>& accesses) {
        std::vector<RegisterAccess> stores;
        for (const RegisterAccess& access : accesses) {
            if (access.write && access.index >= 16 && access.index <= 23) {
                stores.push_back(access);
            }
        }
        return stores;
    }

    std::vector<uint32_t> m_window;
    CRegisterRecorder m_recorder;
    ExanicMdConfigData m_config;
    UEnableMask m_mask;
    CExanicDevFunc m_dev;
    std::string m_out;
};

TEST_F(RegisterInitTest, StoresEveryRegisterInTheSpecifiedOrder) {
    m_window[1] = 0x20260301;
    m_window[2] = 0x1234abcd;
    m_config.shfe2ps = true;
    m_config.shfe2ps_ip_a = "239.4.42.72:21000";
    m_config.shfe2ps_ip_b = "239.3.42.71:21001";
    m_config.ine2ps = true;
    m_config.ine2ps_ip_a = "239.3.52.71:25000";
    m_config.ine2ps_ip_b = "239.4.52.72:25001";
    m_config.split_all_field = 3;

    std::vector<RegisterAccess> expected = {
        Read(1, 0x20260301),   Read(2, 0x1234abcd), Write(5, 1),           Write(5, 0),
        Write(16, 0xEF042A48), Write(18, 21000),    Write(20, 0xEF032A47), Write(22, 21001),
        Write(17, 0xEF033447), Write(19, 25000),    Write(21, 0xEF043448), Write(23, 25001),
        Write(514, 0),         Write(515, 0),       Write(528, 0),         Write(1398, 3),
    };
    for (uint32_t address = 0; address < 4096; ++address) {
        expected.push_back(Write(1796, address));
        expected.push_back(Write(1797, 0));
    }
    for (uint32_t address = 0; address < 16384; ++address) {
        expected.push_back(Write(1792, address));
        expected.push_back(Write(1793, 0));
    }
    const std::vector<RegisterAccess> actual = RunInitReg();
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(actual[i], expected[i]) << "access " << i << ": index " << actual[i].index;
    }
    EXPECT_EQ(m_mask.mask, ENABLE_SHFE2PS | ENABLE_INE2PS);
    EXPECT_EQ(log_messages(m_out, "[I]", "_InitReg"),
              std::vector<std::string>{"FPGA version: 20260301, update data: 1234abcd"});
}

TEST_F(RegisterInitTest, FourPsWinsWhenBothShfeKindsAreEnabled) {
    m_config.shfe2ps = true;
    m_config.shfe4ps = true;
    m_config.shfe2ps_ip_a = "1.1.1.1:1";
    m_config.shfe2ps_ip_b = "2.2.2.2:2";
    m_config.shfe4ps_ip_a = "3.3.3.3:3";
    m_config.shfe4ps_ip_b = "4.4.4.4:4";
    EXPECT_EQ(AddressStores(RunInitReg()),
              (std::vector<RegisterAccess>{Write(16, 0x03030303), Write(18, 3), Write(20, 0x04040404),
                                           Write(22, 4)}));
    EXPECT_EQ(m_mask.mask, ENABLE_SHFE4PS);
}

TEST_F(RegisterInitTest, FourPsWinsWhenBothIneKindsAreEnabled) {
    m_config.ine2ps = true;
    m_config.ine4ps = true;
    m_config.ine2ps_ip_a = "1.1.1.1:1";
    m_config.ine2ps_ip_b = "2.2.2.2:2";
    m_config.ine4ps_ip_a = "3.3.3.3:3";
    m_config.ine4ps_ip_b = "4.4.4.4:4";
    EXPECT_EQ(AddressStores(RunInitReg()),
              (std::vector<RegisterAccess>{Write(17, 0x03030303), Write(19, 3), Write(21, 0x04040404),
                                           Write(23, 4)}));
    EXPECT_EQ(m_mask.mask, ENABLE_INE4PS);
}

TEST_F(RegisterInitTest, NoFeedEnabledLeavesTheMaskZeroAndLoadsNoAddress) {
    EXPECT_TRUE(AddressStores(RunInitReg()).empty());
    EXPECT_EQ(m_mask.mask, 0);
}

TEST_F(RegisterInitTest, SplitAllFieldIsSignExtended) {
    m_config.split_all_field = -2;
    const std::vector<RegisterAccess> accesses = RunInitReg();
    EXPECT_NE(std::find(accesses.begin(), accesses.end(), Write(1398, 0xFFFFFFFE)), accesses.end());
}

TEST_F(RegisterInitTest, ValidAddressIsStoredInHostOrderAndPortInDecimal) {
    m_recorder.Start();
    Access::SetIpAndPort(m_dev, m_window.data(), 16, 18, "224.0.0.1:21000");
    EXPECT_EQ(m_recorder.GetAccesses(),
              (std::vector<RegisterAccess>{Write(16, 0xE0000001), Write(18, 21000)}));
}

TEST_F(RegisterInitTest, AddressWithoutColonLoadsZeroIntoBothRegisters) {
    m_window[17] = 7;
    m_window[19] = 7;
    m_recorder.Start();
    Access::SetIpAndPort(m_dev, m_window.data(), 17, 19, "239.3.52.71");
    EXPECT_EQ(m_recorder.GetAccesses(), (std::vector<RegisterAccess>{Write(17, 0), Write(19, 0)}));
}

TEST_F(RegisterInitTest, MalformedAddressLoadsAllOnes) {
    m_recorder.Start();
    Access::SetIpAndPort(m_dev, m_window.data(), 20, 22, "not.an.address:100");
    EXPECT_EQ(m_recorder.GetAccesses(), (std::vector<RegisterAccess>{Write(20, 0xFFFFFFFF), Write(22, 100)}));
}

TEST_F(RegisterInitTest, MalformedPortLoadsWhatStrtolReads) {
    m_recorder.Start();
    Access::SetIpAndPort(m_dev, m_window.data(), 21, 23, "1.2.3.4:12ab");
    Access::SetIpAndPort(m_dev, m_window.data(), 21, 23, "1.2.3.4:port");
    Access::SetIpAndPort(m_dev, m_window.data(), 21, 23, "1.2.3.4:-1");
    EXPECT_EQ(m_recorder.GetAccesses(),
              (std::vector<RegisterAccess>{Write(21, 0x01020304), Write(23, 12), Write(21, 0x01020304),
                                           Write(23, 0), Write(21, 0x01020304), Write(23, 0xFFFFFFFF)}));
}

TEST_F(RegisterInitTest, StreamSwitchesAreSingleStores) {
    Access::InitReg(m_dev, m_window.data());
    m_recorder.Start();
    m_dev.StartDecodeData();
    m_dev.StartOrigData();
    m_dev.StartAllIne();
    m_dev.StartAllShfe();
    m_dev.StopAllIne();
    m_dev.StopAllShfe();
    m_dev.StopOrigData();
    m_dev.StopDecodeData();
    EXPECT_EQ(m_recorder.GetAccesses(),
              (std::vector<RegisterAccess>{Write(513, 1), Write(512, 1), Write(514, 1), Write(515, 1),
                                           Write(514, 0), Write(515, 0), Write(512, 0), Write(513, 0)}));
}

TEST(EnableMaskTest, BitsFollowTheFeedOrder) {
    UEnableMask mask{};
    mask.shfe2ps = 1;
    EXPECT_EQ(mask.mask, 1);
    mask.mask = 0;
    mask.shfe4ps = 1;
    EXPECT_EQ(mask.mask, 2);
    mask.mask = 0;
    mask.ine2ps = 1;
    EXPECT_EQ(mask.mask, 4);
    mask.mask = 0;
    mask.ine4ps = 1;
    EXPECT_EQ(mask.mask, 8);
    EXPECT_EQ(sizeof(UEnableMask), 1u);
}

}  // namespace
