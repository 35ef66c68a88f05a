// Writes the parse_mirp fuzzer's seed corpus: one file per record shape, each
// a control byte (ParseMirpArea.h) followed by a record built field by field.
// Usage: parse_mirp_seeds DIR   (fuzz/corpus/parse_mirp holds its output)
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "fuzz/ParseMirpArea.h"
#include "sim/DecodedRecordBuilder.h"

using namespace parse_mirp_fuzz;

namespace {

constexpr uint8_t kBid = MD_ENTRY_BID;
constexpr uint8_t kAsk = MD_ENTRY_ASK;
constexpr uint32_t kChangeNo = 11;

CDecodedRecordBuilder Shfe(uint32_t instrumentNo, uint32_t changeNo = kChangeNo) {
    return CDecodedRecordBuilder(kShfeTopic2, instrumentNo, changeNo);
}
CDecodedRecordBuilder Ine(uint32_t instrumentNo, uint32_t changeNo = kChangeNo) {
    return CDecodedRecordBuilder(kIneTopic2, instrumentNo, changeNo, 140000, 250, 7);
}
// Six new best asks: on a ten-level book the sixth moves past the tenth level.
CDecodedRecordBuilder SixBestAskInserts(CDecodedRecordBuilder record) {
    for (int32_t offset = 0; offset >= -5; --offset) {
        record.Insert(kAsk, 1, offset, 1);
    }
    return record;
}

Seed MakeSeed(const char* name, uint8_t control, const std::vector<char>& record) {
    Seed seed{name, {control}};
    seed.bytes.insert(seed.bytes.end(), record.begin(), record.end());
    return seed;
}

std::vector<Seed> Seeds() {
    std::vector<Seed> s;
    const auto add = [&](const char* name, uint8_t control, CDecodedRecordBuilder b) {
        s.push_back(MakeSeed(name, control, b.Build()));
    };
    add("shfe_bid1_update", kChangeFollows, Shfe(0).Update(kBid, 1, -1, 40));
    add("shfe_ask1_update_topic4", kChangeFollows,
        CDecodedRecordBuilder(kShfeTopic4, 1, kChangeNo).Update(kAsk, 1, 1, 7));
    add("shfe_insert_then_delete", kChangeFollows, Shfe(0).Insert(kBid, 1, 0, 3).Delete(kBid, 1));
    add("shfe_insert_all_levels_ten_book", kChangeFollows | kBookTen,
        Shfe(2)
            .Insert(kAsk, 1, 1, 5)
            .Insert(kAsk, 2, 2, 5)
            .Insert(kAsk, 3, 3, 5)
            .Insert(kAsk, 4, 4, 5)
            .Insert(kAsk, 5, 5, 5)
            .Insert(kAsk, 6, 6, 5)
            .Insert(kBid, 10, -20, 1));
    add("shfe_deletes_to_empty", kChangeFollows,
        Shfe(0).Delete(kBid, 1).Delete(kBid, 1).Delete(kBid, 1).Delete(kBid, 1).Delete(kBid, 1).Delete(kBid,
                                                                                                       1));
    add("shfe_fill_empty_fifth", kChangeFollows | kBookEmpty,
        Shfe(1).Insert(kBid, 5, -5, 2).Insert(kAsk, 5, 5, 2));
    add("shfe_deal_and_statics", kChangeFollows,
        Shfe(0).Deal(0, 12, 120, -3).BuyStatics(4, 40).SellStatics(-2, -20));
    add("shfe_high_low", kChangeFollows, Shfe(100).High(50).Low(-50));
    add("shfe_six_fields", kChangeFollows,
        Shfe(0)
            .Update(kBid, 1, -1, 9)
            .Update(kAsk, 1, 1, 9)
            .Deal(0, 1, 1, 0)
            .BuyStatics(1, 1)
            .High(3)
            .Low(-3));
    add("shfe_crossed_restored", kChangeFollows, Shfe(0).Update(kBid, 1, 2, 5));
    add("shfe_out_of_order_restored", kChangeFollows, Shfe(0).Update(kAsk, 3, 1, 5));
    add("shfe_stale", kChangeStale, Shfe(0).Update(kBid, 1, -1, 40));
    add("shfe_gap", kChangeAsPrepared, Shfe(0, 500).Update(kBid, 1, -1, 40));
    add("shfe_as_prepared_applies", kChangeAsPrepared, Shfe(1, 11).Update(kBid, 2, -2, 1));
    add("shfe_option_options_on", kChangeFollows, Shfe(3).Update(kBid, 1, -1, 2));
    add("shfe_option_options_off", kChangeFollows | kOptionsOff, Shfe(3).Update(kBid, 1, -1, 2));
    add("shfe_tas_crossed_kept", kChangeFollows, Shfe(4).Update(kBid, 1, 5, 1));
    add("shfe_unsubscribed_stray_byte", kChangeFollows, Shfe(5).Update(kBid, 1, 0, 1));
    add("shfe_unsubscribed", kChangeFollows, Shfe(77).Update(kBid, 1, 0, 1));
    add("shfe_last_slot_ask_spill", kChangeFollows | kBookTen, SixBestAskInserts(Shfe(16383)));
    add("shfe_instrument_out_of_range", kChangeFollows, Shfe(16384).Update(kBid, 1, 0, 1));
    add("shfe_not_incremental", kChangeFollows,
        CDecodedRecordBuilder(kShfeTopic2, 0, kChangeNo, 93000, 0, 1, 0x0004).Update(kBid, 1, 0, 1));
    add("shfe_bad_level_event_side", kChangeFollows,
        Shfe(0)
            .PriceChange(kBid, 0, 0, 1, 2)
            .PriceChange(kBid, 11, 0, 1, 2)
            .PriceChange(kBid, 1, 0, 1, 4)
            .PriceChange(2, 1, 0, 1, 2));
    add("shfe_unknown_field", kChangeFollows, Shfe(0).Update(kBid, 1, -1, 1).Append(uint16_t{0x2222}));
    add("shfe_truncated_field", kChangeFollows,
        Shfe(0).Update(kBid, 1, -1, 1).Bytes("\x02\x10\x01\x00\x00\x00", 6));
    add("shfe_irregular_book", kChangeFollows | kBookIrregular, Shfe(0).Update(kBid, 2, -2, 4));
    add("shfe_twice", kChangeFollows | kTwice, Shfe(0).Insert(kAsk, 1, 1, 2));
    add("ine_slot_20479_update", kChangeFollows, Ine(0).Update(kBid, 1, -1, 40).Update(kAsk, 1, 1, 40));
    add("ine_slot_20479_ask_spill", kChangeFollows | kBookTen, SixBestAskInserts(Ine(0)));
    add("ine_topic4_deal", kChangeFollows,
        CDecodedRecordBuilder(kIneTopic4, 1, kChangeNo).Deal(3, 2, 7, 1).SellStatics(1, 1));
    add("ine_tas", kChangeFollows, Ine(2).Update(kAsk, 1, -100, 1));
    add("ine_option", kChangeFollows, Ine(3).Insert(kBid, 1, 1, 1));
    add("ine_slot_16384", kChangeFollows | kBookTen, Ine(4095).Delete(kAsk, 10).Insert(kBid, 10, -11, 3));
    add("ine_instrument_out_of_range", kChangeFollows, Ine(4096).Update(kBid, 1, 0, 1));
    add("unknown_topic", kChangeFollows, CDecodedRecordBuilder(7, 0, kChangeNo).Update(kBid, 1, 0, 1));
    add("header_only", kChangeFollows, Shfe(0));
    std::vector<char> shortRecord = Shfe(0).Build();
    shortRecord.resize(kDecodedRecordMinLen - 1);
    s.push_back(MakeSeed("too_short", kChangeFollows, shortRecord));
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    return seed_main(argc, argv, Seeds());
}
