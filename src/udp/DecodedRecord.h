// The card's decoded incremental records: one per frame, packed little-endian.
// A record is a DecodeHeader, a MarketDataIncreField, then typed fields, each
// starting with its u16 fieldID. Encoders in sim/ use these same declarations.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)

struct DecodeHeader {
    uint16_t topicID;
    uint16_t snapMillisec;
    uint32_t snapTime;
    int32_t packetNo;
};

struct MarketDataIncreField {
    uint16_t fieldID;
    uint32_t instrumentNo;
    uint32_t changeNo;
    uint16_t reserved;
};

struct PriceChangeField {
    uint16_t fieldID;
    uint8_t mdEntryType;  // 0 bid, 1 ask
    uint8_t priceLevel;   // 1..10
    int32_t priceOffset;
    uint32_t volume;
    uint8_t eventType;  // 1 insert, 2 update, 3 delete
    uint8_t reserved1;
    uint16_t reserved2;
};

struct DealSummaryField {
    uint16_t fieldID;
    int32_t lastPriceOffset;
    int32_t volumeChange;
    int64_t turnoverOffset;
    int64_t openInterestChange;
    uint16_t reserved1;
    uint32_t reserved2;
};

struct BuyStaticsField {
    uint16_t fieldID;
    int32_t bidVolumeChange;
    int64_t bidAmountOffset;
    uint16_t reserved;
};

struct SellStaticsField {
    uint16_t fieldID;
    int32_t askVolumeChange;
    int64_t askAmountOffset;
    uint16_t reserved;
};

struct HighestPriceField {
    uint16_t fieldID;
    int32_t highPriceOffset;
    uint16_t reserved;
};

struct LowestPriceField {
    uint16_t fieldID;
    int32_t lowPriceOffset;
    uint16_t reserved;
};

// Header of one entry in the decoded-frame cache; the frame follows.
struct CachedDecodeHdr {
    uint32_t size;
    uint32_t packetNo;  // never written
};

#pragma pack(pop)

enum EDecodedFieldId : uint16_t {
    FID_MARKET_DATA_INCRE = 0x0003,
    FID_PRICE_CHANGE = 0x1001,
    FID_DEAL_SUMMARY = 0x1002,
    FID_HIGHEST_PRICE = 0x1011,
    FID_LOWEST_PRICE = 0x1012,
    FID_BUY_STATICS = 0x1019,
    FID_SELL_STATICS = 0x101A,
};

enum EMdEntryType : uint8_t { MD_ENTRY_BID = 0, MD_ENTRY_ASK = 1 };
enum EPriceEvent : uint8_t { PRICE_EVENT_INSERT = 1, PRICE_EVENT_UPDATE = 2, PRICE_EVENT_DELETE = 3 };

constexpr uint32_t kDecodedRecordMinLen = sizeof(DecodeHeader) + sizeof(MarketDataIncreField);
constexpr uint32_t kDecodedFrameMaxLen = 2048;

static_assert(offsetof(DecodeHeader, topicID) == 0 && offsetof(DecodeHeader, snapMillisec) == 2 &&
              offsetof(DecodeHeader, snapTime) == 4 && offsetof(DecodeHeader, packetNo) == 8 &&
              sizeof(DecodeHeader) == 12);
static_assert(offsetof(MarketDataIncreField, fieldID) == 0 &&
              offsetof(MarketDataIncreField, instrumentNo) == 2 &&
              offsetof(MarketDataIncreField, changeNo) == 6 &&
              offsetof(MarketDataIncreField, reserved) == 10 && sizeof(MarketDataIncreField) == 12);
static_assert(kDecodedRecordMinLen == 24);
static_assert(offsetof(PriceChangeField, mdEntryType) == 2 && offsetof(PriceChangeField, priceLevel) == 3 &&
              offsetof(PriceChangeField, priceOffset) == 4 && offsetof(PriceChangeField, volume) == 8 &&
              offsetof(PriceChangeField, eventType) == 12 && offsetof(PriceChangeField, reserved1) == 13 &&
              offsetof(PriceChangeField, reserved2) == 14 && sizeof(PriceChangeField) == 16);
static_assert(offsetof(DealSummaryField, lastPriceOffset) == 2 &&
              offsetof(DealSummaryField, volumeChange) == 6 &&
              offsetof(DealSummaryField, turnoverOffset) == 10 &&
              offsetof(DealSummaryField, openInterestChange) == 18 &&
              offsetof(DealSummaryField, reserved1) == 26 && offsetof(DealSummaryField, reserved2) == 28 &&
              sizeof(DealSummaryField) == 32);
static_assert(offsetof(BuyStaticsField, bidVolumeChange) == 2 &&
              offsetof(BuyStaticsField, bidAmountOffset) == 6 && offsetof(BuyStaticsField, reserved) == 14 &&
              sizeof(BuyStaticsField) == 16);
static_assert(offsetof(SellStaticsField, askVolumeChange) == 2 &&
              offsetof(SellStaticsField, askAmountOffset) == 6 &&
              offsetof(SellStaticsField, reserved) == 14 && sizeof(SellStaticsField) == 16);
static_assert(offsetof(HighestPriceField, highPriceOffset) == 2 &&
              offsetof(HighestPriceField, reserved) == 6 && sizeof(HighestPriceField) == 8);
static_assert(offsetof(LowestPriceField, lowPriceOffset) == 2 && offsetof(LowestPriceField, reserved) == 6 &&
              sizeof(LowestPriceField) == 8);
static_assert(offsetof(CachedDecodeHdr, size) == 0 && offsetof(CachedDecodeHdr, packetNo) == 4 &&
              sizeof(CachedDecodeHdr) == 8);
