// Builds decoded incremental records field by field, for the simulator,
// the tests, the fuzzer's seeds and the benchmarks.
#pragma once

#include <cstring>
#include <vector>

#include "src/udp/DecodedRecord.h"

class CDecodedRecordBuilder {
public:
    CDecodedRecordBuilder(uint16_t topicID, uint32_t instrumentNo, uint32_t changeNo,
                          uint32_t snapTime = 93000, uint16_t snapMillisec = 500, int32_t packetNo = 1,
                          uint16_t fieldID = FID_MARKET_DATA_INCRE) {
        DecodeHeader header{topicID, snapMillisec, snapTime, packetNo};
        MarketDataIncreField incre{fieldID, instrumentNo, changeNo, 0};
        Append(header);
        Append(incre);
    }

    CDecodedRecordBuilder& PriceChange(uint8_t entryType, uint8_t level, int32_t priceOffset, uint32_t volume,
                                       uint8_t eventType) {
        return Append(
            PriceChangeField{FID_PRICE_CHANGE, entryType, level, priceOffset, volume, eventType, 0, 0});
    }
    CDecodedRecordBuilder& Insert(uint8_t entryType, uint8_t level, int32_t priceOffset, uint32_t volume) {
        return PriceChange(entryType, level, priceOffset, volume, PRICE_EVENT_INSERT);
    }
    CDecodedRecordBuilder& Update(uint8_t entryType, uint8_t level, int32_t priceOffset, uint32_t volume) {
        return PriceChange(entryType, level, priceOffset, volume, PRICE_EVENT_UPDATE);
    }
    CDecodedRecordBuilder& Delete(uint8_t entryType, uint8_t level) {
        return PriceChange(entryType, level, 0, 0, PRICE_EVENT_DELETE);
    }
    CDecodedRecordBuilder& Deal(int32_t lastPriceOffset, int32_t volumeChange, int64_t turnoverOffset,
                                int64_t openInterestChange) {
        return Append(DealSummaryField{FID_DEAL_SUMMARY, lastPriceOffset, volumeChange, turnoverOffset,
                                       openInterestChange, 0, 0});
    }
    CDecodedRecordBuilder& BuyStatics(int32_t volumeChange, int64_t amountOffset) {
        return Append(BuyStaticsField{FID_BUY_STATICS, volumeChange, amountOffset, 0});
    }
    CDecodedRecordBuilder& SellStatics(int32_t volumeChange, int64_t amountOffset) {
        return Append(SellStaticsField{FID_SELL_STATICS, volumeChange, amountOffset, 0});
    }
    CDecodedRecordBuilder& High(int32_t priceOffset) {
        return Append(HighestPriceField{FID_HIGHEST_PRICE, priceOffset, 0});
    }
    CDecodedRecordBuilder& Low(int32_t priceOffset) {
        return Append(LowestPriceField{FID_LOWEST_PRICE, priceOffset, 0});
    }
    CDecodedRecordBuilder& Bytes(const void* data, size_t size) {
        const char* bytes = static_cast<const char*>(data);
        m_bytes.insert(m_bytes.end(), bytes, bytes + size);
        return *this;
    }

    template <typename Field>
    CDecodedRecordBuilder& Append(const Field& field) {
        return Bytes(&field, sizeof(field));
    }

    std::vector<char>& Build() { return m_bytes; }
    uint32_t Size() const { return static_cast<uint32_t>(m_bytes.size()); }

private:
    std::vector<char> m_bytes;
};
