// MDQP snapshot messages as they travel on the exchange's TCP snapshot
// stream: packed little-endian records. Encoders in sim/ use these same
// declarations.
#pragma once

#include <cstddef>
#include <cstdint>

enum EMdqpDataType : int32_t {
    MDQP_DATA_TYPE_UNKNOW = -1,
    SHFE_2PS = 0,
    INE_2PS = 1,
    SHFE_4PS = 2,
    INE_4PS = 3,
};

#pragma pack(push, 1)

struct MdqpHeader {
    uint8_t flag;     // 0x11: more messages follow; 0x01: last message of the snapshot
    int8_t type_id;   // 0x32 for a snapshot message
    uint16_t length;  // bytes of fields after this header
    int32_t request_id;
};

struct FieldHeader {
    uint16_t field_id;
    uint16_t field_size;  // body bytes after this header
};

struct SnapField {
    int16_t topic_id;
    int32_t snap_no;
};

struct PacketNoField {
    int32_t packet_no;
};

struct InstInfoField {
    char inst_id[31];
    char underlying_inst_id[31];
    char product_class;
    double strike_price;
    char options_type;
    int32_t volume_multiple;
    double underlying_multiple;
    int32_t is_trading;
    char currency_id[4];
    double price_tick;
    double codec_price;
    int32_t inst_no;
};

struct DealInfoField {
    int32_t inst_no;
    double last_price;
    int32_t volume;
    double turnover;
    double open_interest;
    double highest_price;
    double lowest_price;
    double open_price;
    double close_price;
    double settlement_price;
    double upper_limit_price;
    double lower_limit_price;
    double pre_settlement_price;
    double pre_close_price;
    double pre_open_interest;
    double pre_delta;
    double curr_delta;
    char action_day[9];
    char update_time[9];
    int32_t update_mill_sec;
    int32_t change_no;
};

struct PriceDetailField {
    int32_t inst_no;
    char direction;  // '0' bid, '1' ask
    double price;
    int32_t volume;
};

struct OrderStatisField {
    int32_t inst_no;
    int32_t bid_totvol;
    double bid_totamount;
    int32_t ask_totvol;
    double ask_totamount;
};

#pragma pack(pop)

enum EMdqpFieldId : uint16_t {
    MDQP_FID_SKIP_0031 = 0x0031,
    MDQP_FID_SKIP_0032 = 0x0032,
    MDQP_FID_INST_INFO = 0x0101,
    MDQP_FID_DEAL_INFO = 0x0102,
    MDQP_FID_PRICE_DETAIL = 0x0103,
    MDQP_FID_ORDER_STATIS = 0x0104,
    MDQP_FID_SNAP = 0x1001,
    MDQP_FID_SKIP_1002 = 0x1002,
    MDQP_FID_SKIP_1003 = 0x1003,
    MDQP_FID_PACKET_NO = 0x1004,
};

constexpr uint8_t kMdqpFlagMore = 0x11;
constexpr uint8_t kMdqpFlagLast = 0x01;
constexpr int8_t kMdqpSnapshotType = 0x32;

// Field bodies are read without checking them against the message end, so
// every buffer that holds messages keeps this many zeroed bytes after them.
constexpr size_t kMdqpReadSlack = 256;

static_assert(offsetof(MdqpHeader, flag) == 0 && offsetof(MdqpHeader, type_id) == 1 &&
              offsetof(MdqpHeader, length) == 2 && offsetof(MdqpHeader, request_id) == 4 &&
              sizeof(MdqpHeader) == 8);
static_assert(offsetof(FieldHeader, field_id) == 0 && offsetof(FieldHeader, field_size) == 2 &&
              sizeof(FieldHeader) == 4);
static_assert(offsetof(SnapField, topic_id) == 0 && offsetof(SnapField, snap_no) == 2 &&
              sizeof(SnapField) == 6);
static_assert(sizeof(PacketNoField) == 4);
static_assert(offsetof(InstInfoField, inst_id) == 0 && offsetof(InstInfoField, underlying_inst_id) == 31 &&
              offsetof(InstInfoField, product_class) == 62 && offsetof(InstInfoField, strike_price) == 63 &&
              offsetof(InstInfoField, options_type) == 71 && offsetof(InstInfoField, volume_multiple) == 72 &&
              offsetof(InstInfoField, underlying_multiple) == 76 &&
              offsetof(InstInfoField, is_trading) == 84 && offsetof(InstInfoField, currency_id) == 88 &&
              offsetof(InstInfoField, price_tick) == 92 && offsetof(InstInfoField, codec_price) == 100 &&
              offsetof(InstInfoField, inst_no) == 108 && sizeof(InstInfoField) == 112);
static_assert(offsetof(DealInfoField, inst_no) == 0 && offsetof(DealInfoField, last_price) == 4 &&
              offsetof(DealInfoField, volume) == 12 && offsetof(DealInfoField, turnover) == 16 &&
              offsetof(DealInfoField, open_interest) == 24 && offsetof(DealInfoField, highest_price) == 32 &&
              offsetof(DealInfoField, lowest_price) == 40 && offsetof(DealInfoField, open_price) == 48 &&
              offsetof(DealInfoField, close_price) == 56 && offsetof(DealInfoField, settlement_price) == 64 &&
              offsetof(DealInfoField, upper_limit_price) == 72 &&
              offsetof(DealInfoField, lower_limit_price) == 80 &&
              offsetof(DealInfoField, pre_settlement_price) == 88 &&
              offsetof(DealInfoField, pre_close_price) == 96 &&
              offsetof(DealInfoField, pre_open_interest) == 104 &&
              offsetof(DealInfoField, pre_delta) == 112 && offsetof(DealInfoField, curr_delta) == 120 &&
              offsetof(DealInfoField, action_day) == 128 && offsetof(DealInfoField, update_time) == 137 &&
              offsetof(DealInfoField, update_mill_sec) == 146 && offsetof(DealInfoField, change_no) == 150 &&
              sizeof(DealInfoField) == 154);
static_assert(offsetof(PriceDetailField, inst_no) == 0 && offsetof(PriceDetailField, direction) == 4 &&
              offsetof(PriceDetailField, price) == 5 && offsetof(PriceDetailField, volume) == 13 &&
              sizeof(PriceDetailField) == 17);
static_assert(offsetof(OrderStatisField, inst_no) == 0 && offsetof(OrderStatisField, bid_totvol) == 4 &&
              offsetof(OrderStatisField, bid_totamount) == 8 &&
              offsetof(OrderStatisField, ask_totvol) == 16 &&
              offsetof(OrderStatisField, ask_totamount) == 20 && sizeof(OrderStatisField) == 28);
static_assert(kMdqpReadSlack >= sizeof(FieldHeader) + sizeof(DealInfoField),
              "slack covers the largest field");
