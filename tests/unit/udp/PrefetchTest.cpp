#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "tests/support/UdpHarness.h"

namespace {

class PrefetchTest : public ::testing::Test {
protected:
    std::vector<const char*> Lines() {
        std::vector<const char*> lines;
        visit_calc_info_lines(*h.area, *h.calc, [&](const char* line) { lines.push_back(line); });
        return lines;
    }
    const char* At(const void* p, long bytes) { return static_cast<const char*>(p) + bytes; }

    CUdpHarness h;
};

TEST_F(PrefetchTest, NineShfeInstrumentsWarmOneLinePerTableAtTheirStarts) {
    h.area->shfe_inst_cnt = 9;
    EXPECT_EQ(Lines(), (std::vector<const char*>{At(h.calc->priceTick, 0), At(h.calc->codecPrice, 0),
                                                 At(h.calc->volumeMulti, 0)}));
}

TEST_F(PrefetchTest, EightShfeInstrumentsWarmNothing) {
    h.area->shfe_inst_cnt = 8;
    EXPECT_TRUE(Lines().empty());
}

TEST_F(PrefetchTest, NoIneInstrumentsWarmNothingForIne) {
    h.area->shfe_inst_cnt = 0;
    h.area->ine_inst_cnt = 0;
    EXPECT_TRUE(Lines().empty());
}

TEST_F(PrefetchTest, IneLinesStartAtTheTopSlotsWithTheSameByteStride) {
    h.area->ine_inst_cnt = 17;  // two lines from slot 20463
    EXPECT_EQ(Lines(), (std::vector<const char*>{
                           At(&h.calc->priceTick[20463], 0), At(&h.calc->codecPrice[20463], 0),
                           At(&h.calc->volumeMulti[20463], 0), At(&h.calc->priceTick[20463], 64),
                           At(&h.calc->codecPrice[20463], 64), At(&h.calc->volumeMulti[20463], 64)}));
}

TEST_F(PrefetchTest, ShfeLinesStepSixtyFourBytes) {
    h.area->shfe_inst_cnt = 100;  // (100 - 1) / 8 = 12 lines
    const std::vector<const char*> lines = Lines();
    ASSERT_EQ(lines.size(), 36u);
    EXPECT_EQ(lines[33], At(h.calc->priceTick, 11 * 64));
    EXPECT_EQ(lines[35], At(h.calc->volumeMulti, 11 * 64));
}

TEST_F(PrefetchTest, PrefetchChangesNoData) {
    h.area->shfe_inst_cnt = 16384;
    h.area->ine_inst_cnt = 4096;
    h.calc->priceTick[5] = 0.2;
    const auto before = std::make_unique<share>(*h.area);
    h.udp.PrefetchCalcInfo();
    EXPECT_EQ(memcmp(before.get(), h.area.get(), sizeof(share)), 0);
    EXPECT_EQ(h.calc->priceTick[5], 0.2);
}

}  // namespace
