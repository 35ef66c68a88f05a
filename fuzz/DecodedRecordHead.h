// The head of a decoded record and the slot the feed parses it into, for the
// targets that check what a record may change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/FuzzSupport.h"
#include "interface/commonheader.h"
#include "src/udp/DecodedRecord.h"

constexpr uint32_t kNoSlot = UINT32_MAX;

struct DecodedRecordHead {
    DecodeHeader header{};
    MarketDataIncreField incre{};
    uint32_t slot = kNoSlot;
};

// The head of the `len` bytes at `record`; its slot is kNoSlot when they are
// too short for a record, or the topic is none of the default ones, or the
// instrument number lies past its exchange's count.
inline DecodedRecordHead read_decoded_record_head(const void* record, size_t len) {
    DecodedRecordHead head;
    if (len < kDecodedRecordMinLen) {
        return head;
    }
    const char* bytes = static_cast<const char*>(record);
    memcpy(&head.header, bytes, sizeof(head.header));
    memcpy(&head.incre, bytes + sizeof(head.header), sizeof(head.incre));
    const uint16_t topic = head.header.topicID;
    const uint32_t instNo = head.incre.instrumentNo;
    if (topic == kShfeTopic2 || topic == kShfeTopic4) {
        head.slot = instNo < QUVO_SHFE_MAX_INST_CNT ? quvo_shfe_slot(instNo) : kNoSlot;
    } else if (topic == kIneTopic2 || topic == kIneTopic4) {
        head.slot = instNo < QUVO_INE_MAX_INST_CNT ? quvo_ine_slot(instNo) : kNoSlot;
    }
    return head;
}
