// quvo-dump --check against the books quvo-md leaves in shared memory after a
// run on the simulator, with the expected state the simulator wrote.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "interface/commonheader.h"
#include "sim/SimState.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PipedProcess.h"
#include "tests/support/ShmSandbox.h"
#include "tests/support/TempDir.h"

namespace {

constexpr double kRunSeconds = 120;

class CheckE2E : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string config = m_dir.WriteFile(
            "feed.ini",
            "[config]\ndevice = sim:shfe=200,ine=60,rate=50000,records=20000,seed=13,exit=0.3,expect=" +
                ExpectPath() + "\ncpucore = -1\ninsts = all\nshfe2ps = enabled\nine2ps = enabled\n");
        const std::string output = m_dir.Path() + "/feed.out";
        ASSERT_EQ(run_program({QUVO_MD_PATH, config}, m_dir.Path(), output, kRunSeconds), 0)
            << read_file(output);
        std::string error;
        ASSERT_TRUE(read_sim_state(ExpectPath(), m_expected, error)) << error;
        ASSERT_GT(m_expected.instruments.size(), 200u);
        // The test stands in for a faulty feed: the area attached writable.
        const int id = CShmSandbox::SegmentId(m_shm.AreaKeyPath());
        ASSERT_GE(id, 0);
        void* address = shmat(id, nullptr, 0);
        ASSERT_NE(address, reinterpret_cast<void*>(-1)) << strerror(errno);
        m_area = static_cast<share*>(address);
    }

    void TearDown() override {
        if (m_area != nullptr) {
            shmdt(m_area);
        }
    }

    std::string ExpectPath() const { return m_dir.Path() + "/expect.json"; }

    RunResult Check(const std::string& path) { return run_piped(QUVO_DUMP_PATH, {"--check", path}); }

    // An instrument whose best bid is set, with its record.
    const SimInstrumentState& Quoted(ESimExchange exchange) const {
        for (const SimInstrumentState& inst : m_expected.instruments) {
            if (inst.exchange == exchange && inst.bidVol[0] > 0) {
                return inst;
            }
        }
        ADD_FAILURE() << "no quoted instrument on " << sim_exchange_name(exchange);
        return m_expected.instruments.front();
    }

    CShmSandbox m_shm;
    CTempDir m_dir;
    SimState m_expected;
    share* m_area = nullptr;
};

TEST_F(CheckE2E, BooksEqualTheExpectedStateUntilOneFieldChanges) {
    RunResult result = Check(ExpectPath());
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.out, std::to_string(m_expected.instruments.size()) + " instruments checked against " +
                              ExpectPath() + ": all equal\n");
    EXPECT_EQ(result.err, "");

    const SimInstrumentState& ine = Quoted(ESimExchange::INE);
    instrument& record = m_area->instmts[ine.slot];
    const double bid = record.bid_px[0];
    ASSERT_EQ(bid, ine.bidPx[0]);
    record.bid_px[0] = bid - ine.priceTick;
    result = Check(ExpectPath());
    EXPECT_EQ(result.status, 1);
    const std::string prefix = ine.id + " INE slot " + std::to_string(ine.slot) + " bid_px[0]: ";
    EXPECT_EQ(result.out.rfind(prefix, 0), 0u) << result.out;
    EXPECT_NE(result.out.find(" in shared memory, "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(": 1 difference in 1 instrument\n"), std::string::npos) << result.out;
    record.bid_px[0] = bid;

    const SimInstrumentState& shfe = Quoted(ESimExchange::SHFE);
    m_area->instmts[shfe.slot].volume += 1;
    result = Check(ExpectPath());
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out.rfind(shfe.id + " SHFE slot " + std::to_string(shfe.slot) +
                                   " volume: " + std::to_string(shfe.volume + 1) + " in shared memory, " +
                                   std::to_string(shfe.volume) + " expected\n",
                               0),
              0u)
        << result.out;
    m_area->instmts[shfe.slot].volume -= 1;

    EXPECT_EQ(Check(ExpectPath()).status, 0);
}

TEST_F(CheckE2E, MalformedAndMissingFilesExitTwoNamingTheFile) {
    std::string text = read_file(ExpectPath());
    const size_t third = text.find("\n  {", text.find("\n  {", text.find("\n  {") + 1) + 1);
    text.replace(text.find("\"volume\": ", third), 10, "\"volume\": x");
    const std::string malformed = m_dir.WriteFile("malformed.json", text);
    RunResult result = Check(malformed);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.rfind("quvo-dump: " + malformed + ":5: ", 0), 0u) << result.err;
    EXPECT_NE(result.err.find("invalid literal"), std::string::npos) << result.err;

    const std::string missing = m_dir.Path() + "/missing.json";
    result = Check(missing);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "quvo-dump: cannot read " + missing + ": " + strerror(ENOENT) + "\n");
}

}  // namespace
