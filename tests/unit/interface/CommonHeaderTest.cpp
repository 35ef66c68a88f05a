// The reader header included first and alone: it must be self-contained.
#include "interface/commonheader.h"

#include <gtest/gtest.h>

#include "interface/quvohealth.h"

extern "C" {
size_t quvo_c_instrument_size(void);
size_t quvo_c_share_size(void);
size_t quvo_c_ask_px_offset(void);
size_t quvo_c_health_size(void);
size_t quvo_c_health_latency_offset(void);
}

namespace {

TEST(CommonHeaderTest, CAndCppAgreeOnTheLayout) {
    EXPECT_EQ(quvo_c_instrument_size(), sizeof(instrument));
    EXPECT_EQ(quvo_c_share_size(), sizeof(share_t));
    EXPECT_EQ(quvo_c_ask_px_offset(), offsetof(instrument, ask_px));
    EXPECT_EQ(quvo_c_health_size(), sizeof(quvo_health));
    EXPECT_EQ(quvo_c_health_latency_offset(), offsetof(quvo_health, latency));
}

TEST(CommonHeaderTest, SegmentSizesMatchTheRecords) {
    EXPECT_EQ(sizeof(share), 0x690010u);
    EXPECT_EQ(sizeof(instrument), 336u);
    EXPECT_EQ(QUVO_UPDATE_RING_SIZE, 0x20000u);
}

TEST(CommonHeaderTest, ShfeInstrumentZeroLandsInSlotZero) {
    EXPECT_EQ(quvo_shfe_slot(0), 0u);
}

TEST(CommonHeaderTest, IneInstrumentZeroLandsInTheLastSlot) {
    EXPECT_EQ(quvo_ine_slot(0), 20479u);
}

TEST(CommonHeaderTest, SlotsSplitBetweenExchangesAt16384) {
    EXPECT_EQ(quvo_shfe_slot(16383), 16383u);
    EXPECT_EQ(quvo_ine_slot(4095), 16384u);
    EXPECT_FALSE(quvo_slot_is_ine(quvo_shfe_slot(16383)));
    EXPECT_TRUE(quvo_slot_is_ine(quvo_ine_slot(4095)));
    EXPECT_TRUE(quvo_slot_is_ine(quvo_ine_slot(0)));
}

TEST(CommonHeaderTest, SlotGivesBackItsInstrumentNumber) {
    for (const uint32_t n : {0u, 1u, 4095u}) {
        EXPECT_EQ(quvo_slot_inst_no(quvo_ine_slot(n)), n);
    }
    for (const uint32_t n : {0u, 1u, 16383u}) {
        EXPECT_EQ(quvo_slot_inst_no(quvo_shfe_slot(n)), n);
    }
}

}  // namespace
