// Writes the seed corpus of the soft_card_session fuzzer: one file per
// session (SoftCardSessionInput.h), snapshots built with sim/MdqpBuilder.h and
// records with sim/DecodedRecordBuilder.h.
// Usage: soft_card_session_seeds DIR   (fuzz/corpus/soft_card_session holds its output)
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "fuzz/SoftCardSessionInput.h"
#include "sim/DecodedRecordBuilder.h"
#include "sim/MdqpBuilder.h"

using namespace soft_card_session_fuzz;

namespace {

using Bytes = std::vector<char>;

class CSession {
public:
    explicit CSession(uint8_t control) { m_bytes.push_back(control); }

    CSession& Raw(const Bytes& frame) {
        AppendFrame(m_bytes, false, frame);
        return *this;
    }
    CSession& Segment(const Bytes& message, uint32_t seq, bool badChecksum = false) {
        TcpSegmentFields segment;
        segment.seq = seq;
        segment.badChecksum = badChecksum;
        return Raw(build_tcp_frame(segment, message));
    }
    // Each message in a segment of its own, from sequence number `seq` on.
    CSession& Segments(const std::vector<Bytes>& messages, uint32_t seq, bool badChecksum = false) {
        for (const Bytes& message : messages) {
            Segment(message, seq, badChecksum);
            seq += static_cast<uint32_t>(message.size());
        }
        return *this;
    }
    CSession& Record(const Bytes& record) {
        AppendFrame(m_bytes, true, record);
        return *this;
    }
    CSession& Records(const std::vector<Bytes>& records) {
        for (const Bytes& record : records) {
            Record(record);
        }
        return *this;
    }
    std::vector<uint8_t> Build() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
};

DealInfoField Deal(int32_t instNo, double last, int32_t changeNo) {
    DealInfoField deal{};
    deal.inst_no = instNo;
    deal.last_price = last;
    deal.volume = 100;
    deal.turnover = last * 100;
    deal.upper_limit_price = last * 1.1;
    deal.lower_limit_price = last * 0.9;
    deal.change_no = changeNo;
    return deal;
}

// Five levels a side around `mid`, `tick` apart.
CMdqpMessageBuilder& Book(CMdqpMessageBuilder& m, int32_t instNo, double mid, double tick) {
    for (int k = 1; k <= 5; ++k) {
        m.Level(instNo, '0', mid - k * tick, k);
    }
    for (int k = 1; k <= 5; ++k) {
        m.Level(instNo, '1', mid + k * tick, k);
    }
    return m;
}

// SHFE: cu2501 (0, change 10), al2501 (1, change 30), an option (3) and a
// TAS instrument (4), each with a full five-level book.
std::vector<Bytes> ShfeSnapshot(int32_t cuChangeNo = 10, double cuLower = 0) {
    CMdqpMessageBuilder first(kMdqpFlagMore, 1);
    first.Snap(kShfeTopic2)
        .PacketNo(1)
        .Inst("cu2501", 0, 10.0, 70000.0, 5)
        .Inst("al2501", 1, 5.0, 20000.0, 5);
    first.Inst("cu2501C70000", 3, 2.0, 1500.0, 5).Inst("auTAS6", 4, 0.02, 0.0, 1000);
    DealInfoField cu = Deal(0, 70000.0, cuChangeNo);
    if (cuLower != 0) {
        cu.lower_limit_price = cuLower;
    }
    CMdqpMessageBuilder books(kMdqpFlagMore, 1);
    books.Deal(cu).Deal(Deal(1, 20000.0, 30)).Deal(Deal(3, 1500.0, 5)).Deal(Deal(4, 2.0, 7));
    Book(books, 0, 70000.0, 10.0);
    Book(books, 1, 20000.0, 5.0);
    Book(books, 3, 1500.0, 2.0);
    Book(books, 4, 2.0, 0.02);
    CMdqpMessageBuilder last(kMdqpFlagLast, 1);
    last.PacketNo(2).Stats(0, 10, 700000.0, 12, 840000.0);
    return {first.Build(), books.Build(), last.Build()};
}

// INE: sc2501 (0, change 20) and scTAS2501 (2).
std::vector<Bytes> IneSnapshot() {
    CMdqpMessageBuilder first(kMdqpFlagMore, 2);
    first.Snap(kIneTopic2)
        .PacketNo(1)
        .Inst("sc2501", 0, 0.1, 550.0, 1000)
        .Inst("scTAS2501", 2, 0.1, 0.0, 1000);
    first.Deal(Deal(0, 550.0, 20)).Deal(Deal(2, 1.0, 3));
    CMdqpMessageBuilder last(kMdqpFlagLast, 2);
    Book(last, 0, 550.0, 0.1);
    return {first.Build(), last.Build()};
}

using Rec = CDecodedRecordBuilder;

// Five inserts take the ask side of `topic`'s instrument 0 to ten levels; a
// sixth goes in at `level`, `offset` ticks from the codec price.
Bytes TenAsksThenInsert(uint16_t topic, uint32_t changeNo, uint8_t level, int32_t offset) {
    Rec deep(topic, 0, changeNo);
    for (uint8_t inserted = 6; inserted <= 10; ++inserted) {
        deep.Insert(MD_ENTRY_ASK, inserted, inserted, 1);
    }
    deep.Insert(MD_ENTRY_ASK, level, offset, 1);
    return deep.Build();
}

// cu2501 from change 11 on: updates, inserts, deletes and statistics, each
// keeping the book in order.
//   bids 69990 69980 69970 69960 69950 (offsets -1..-5)   asks 70010..70050 (1..5)
std::vector<Bytes> CopperRecords(uint32_t from = 11) {
    return {
        Rec(kShfeTopic2, 0, from).Update(MD_ENTRY_BID, 1, -1, 9).Build(),
        Rec(kShfeTopic2, 0, from + 1).Insert(MD_ENTRY_ASK, 1, 0, 4).Deal(0, 3, 30, 1).Build(),
        Rec(kShfeTopic2, 0, from + 2).Delete(MD_ENTRY_BID, 2).BuyStatics(5, 50).SellStatics(-2, -20).Build(),
        Rec(kShfeTopic2, 0, from + 3).High(5).Low(-5).Update(MD_ENTRY_ASK, 1, 0, 1).Build(),
        Rec(kShfeTopic2, 0, from + 4).Insert(MD_ENTRY_BID, 2, -2, 2).Delete(MD_ENTRY_ASK, 5).Build(),
    };
}

std::vector<Seed> Seeds() {
    std::vector<Seed> seeds;
    const std::vector<Bytes> shfe = ShfeSnapshot();
    const std::vector<Bytes> ine = IneSnapshot();
    {
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000);
        s.Records(CopperRecords());
        s.Record(Rec(kShfeTopic2, 1, 31).Update(MD_ENTRY_ASK, 1, 1, 8).Build());
        s.Record(Rec(kShfeTopic2, 0, 5).Update(MD_ENTRY_ASK, 1, 1, 8).Build());  // already in the book
        seeds.push_back({"shfe_snapshot_then_records", s.Build()});
    }
    {
        CSession s(kFeedIne);
        s.Segments(ine, 5000);
        s.Record(Rec(kIneTopic2, 0, 21).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kIneTopic2, 0, 22).Insert(MD_ENTRY_ASK, 1, 0, 2).Build());
        s.Record(Rec(kIneTopic4, 0, 23).Delete(MD_ENTRY_ASK, 1).Build());
        seeds.push_back({"ine_snapshot_then_records", s.Build()});
    }
    {
        CSession s(kFeedBoth);
        s.Segments(shfe, 1000).Segments(ine, 90000);
        const std::vector<Bytes> cu = CopperRecords();
        for (size_t i = 0; i < cu.size(); ++i) {
            s.Record(cu[i]);
            s.Record(
                Rec(kIneTopic2, 0, 21 + static_cast<uint32_t>(i)).Update(MD_ENTRY_BID, 1, -1, 1 + i).Build());
        }
        seeds.push_back({"both_feeds", s.Build()});
    }
    {
        // The gap restarts the pipeline, which takes the second snapshot.
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000).Segments(ShfeSnapshot(40), 50000);
        s.Record(Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kShfeTopic2, 0, 13).Update(MD_ENTRY_BID, 1, -1, 4).Build());
        s.Records(CopperRecords(41));
        seeds.push_back({"change_gap_restarts", s.Build()});
    }
    {
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000);
        s.Record(Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(0x1234, 0, 12).Update(MD_ENTRY_BID, 1, -1, 4).Build());
        s.Record(Rec(kShfeTopic2, 0, 12).Update(MD_ENTRY_BID, 1, -1, 5).Build());
        seeds.push_back({"unsupported_topic_restarts", s.Build()});
    }
    {
        // bid 1 at ask 1, then bid 2 at bid 3: both restored; then records
        // that follow the kept change number.
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000);
        s.Record(Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 1, 1, 3).Build());
        s.Record(
            Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 2, -3, 3).Update(MD_ENTRY_BID, 1, -2, 3).Build());
        s.Record(Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 1, -1, 7).Build());
        s.Record(Rec(kShfeTopic2, 0, 12).Update(MD_ENTRY_ASK, 3, 3, 3).Build());
        seeds.push_back({"crossed_record_restored", s.Build()});
    }
    {
        // The sixth insert moves one level past the tenth, into the next
        // slot's first bytes.
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000);
        s.Record(TenAsksThenInsert(kShfeTopic2, 11, 10, 11));
        s.Record(Rec(kShfeTopic2, 1, 31).Update(MD_ENTRY_ASK, 1, 1, 8).Build());
        seeds.push_back({"ask_tenth_level_insert", s.Build()});
    }
    {
        // INE instrument 0 is the last slot: past its tenth ask level lie the counts.
        CSession s(kFeedIne);
        s.Segments(ine, 5000);
        s.Record(TenAsksThenInsert(kIneTopic2, 21, 9, 12));
        seeds.push_back({"ine_last_slot_tenth_level", s.Build()});
    }
    {
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000);
        s.Record(Rec(kShfeTopic2, 4, 8).Update(MD_ENTRY_BID, 1, 500, 3).Build());
        s.Record(Rec(kShfeTopic2, 3, 6).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        seeds.push_back({"tas_crossed_and_option", s.Build()});
    }
    {
        CSession s(kFeedShfe | kOptionsOff);
        s.Segments(shfe, 1000);
        s.Record(Rec(kShfeTopic2, 3, 6).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        seeds.push_back({"options_off", s.Build()});
    }
    {
        CSession s(kFeedBoth | kListed);
        s.Segments(shfe, 1000).Segments(ine, 90000);
        s.Records(CopperRecords());
        s.Record(Rec(kShfeTopic2, 4, 8).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kIneTopic2, 0, 21).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        seeds.push_back({"listed_instruments", s.Build()});
    }
    {
        CSession s(kFeedShfe);
        s.Records(CopperRecords());
        seeds.push_back({"records_without_snapshot", s.Build()});
    }
    seeds.push_back({"nothing", CSession(kFeedBoth).Build()});
    {
        CSession s(kFeedShfe | kCompleteRaw);
        s.Segments(shfe, 1000, true);
        s.Records(CopperRecords());
        seeds.push_back({"raw_completed", s.Build()});
    }
    {
        CSession s(kFeedShfe);
        s.Segments(shfe, 1000);
        s.Record(Bytes());
        s.Record(Bytes(10, 0x11));
        s.Record(Bytes(2100, 0));
        s.Record(Rec(kShfeTopic2, 16384, 1).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kIneTopic2, 4096, 1).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kShfeTopic2, 0, 11, 93000, 500, 1, 0x0004).Update(MD_ENTRY_BID, 1, 300, 3).Build());
        Bytes truncated = Rec(kShfeTopic2, 0, 11).Update(MD_ENTRY_BID, 1, -1, 3).Build();
        truncated.resize(truncated.size() - 3);
        s.Record(truncated);
        const uint16_t unknown = 0x7777;
        s.Record(Rec(kShfeTopic2, 0, 12).Bytes(&unknown, sizeof(unknown)).Bytes("xxxxxx", 6).Build());
        s.Record(Rec(kShfeTopic2, 0, 13).PriceChange(MD_ENTRY_BID, 11, 0, 1, PRICE_EVENT_INSERT).Build());
        s.Record(
            Rec(kShfeTopic2, 0, 14).PriceChange(MD_ENTRY_ASK, 1, 0, 1, 9).PriceChange(2, 1, 0, 1, 1).Build());
        seeds.push_back({"odd_records", s.Build()});
    }
    {
        CSession s(kFeedShfe);
        s.Segments(ShfeSnapshot(-1), 1000);
        s.Record(Rec(kShfeTopic2, 0, 0).Update(MD_ENTRY_BID, 1, -1, 3).Build());
        s.Record(Rec(kShfeTopic2, 0, 1).Update(MD_ENTRY_BID, 1, -1, 4).Build());
        seeds.push_back({"change_number_wraps", s.Build()});
    }
    {
        // cu2501's bids fall below its lower limit: the snapshot starts over.
        CSession s(kFeedShfe);
        s.Segments(ShfeSnapshot(10, 69975.0), 1000);
        s.Records(CopperRecords());
        seeds.push_back({"snapshot_fails_price_check", s.Build()});
    }
    {
        CSession s(kFeedShfe);
        s.Segments({shfe[0]}, 1000);
        TcpSegmentFields rst;
        rst.seq = 1;
        rst.flags = 0x14;
        s.Raw(build_tcp_frame(rst, Bytes{'x'}));
        s.Segments(shfe, 7000);
        s.Records(CopperRecords());
        seeds.push_back({"reset_mid_snapshot", s.Build()});
    }
    {
        // The snapshot's messages out of order and one repeated.
        CSession s(kFeedShfe);
        const uint32_t second = 1000 + static_cast<uint32_t>(shfe[0].size());
        const uint32_t third = second + static_cast<uint32_t>(shfe[1].size());
        s.Segment(shfe[0], 1000).Segment(shfe[2], third).Segment(shfe[1], second).Segment(shfe[1], second);
        s.Records(CopperRecords());
        seeds.push_back({"snapshot_out_of_order", s.Build()});
    }
    // The same sessions with the records arriving after the snapshot, so
    // that they are announced.
    const size_t unpaced = seeds.size();
    for (size_t i = 0; i < unpaced; ++i) {
        for (const char* name :
             {"shfe_snapshot_then_records", "both_feeds", "change_gap_restarts", "crossed_record_restored",
              "ask_tenth_level_insert", "ine_last_slot_tenth_level", "tas_crossed_and_option",
              "listed_instruments", "odd_records", "change_number_wraps"}) {
            if (seeds[i].name == name) {
                Seed paced = seeds[i];
                paced.name += "_paced";
                paced.bytes[0] |= kPaced;
                seeds.push_back(paced);
            }
        }
    }
    return seeds;
}

}  // namespace

int main(int argc, char** argv) {
    return seed_main(argc, argv, Seeds());
}
