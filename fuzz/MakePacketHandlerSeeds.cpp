// Writes the seed corpus of both packet-handler fuzzers: one file per frame
// sequence (PacketHandlerInput.h), the frames built with sim/MdqpBuilder.h.
// Usage: packet_handler_seeds DIR   (fuzz/corpus/packet_handler holds its output)
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "fuzz/PacketHandlerInput.h"
#include "sim/MdqpBuilder.h"

using namespace packet_handler_fuzz;

namespace {

using Bytes = std::vector<char>;

constexpr uint32_t kSeq = 1000;

class CSeedBuilder {
public:
    explicit CSeedBuilder(uint8_t control = kFreshSessions) { m_bytes.push_back(control); }

    CSeedBuilder& Frame(const Bytes& frame) {
        AppendFrame(m_bytes, frame);
        return *this;
    }
    CSeedBuilder& Segment(uint32_t seq, const Bytes& payload, uint16_t port = kPort2ps) {
        TcpSegmentFields segment;
        segment.seq = seq;
        segment.dstPort = port;
        return Frame(build_tcp_frame(segment, payload));
    }
    std::vector<uint8_t> Build() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
};

DealInfoField Deal(int32_t instNo, double last) {
    DealInfoField deal{};
    deal.inst_no = instNo;
    deal.last_price = last;
    deal.volume = 7;
    deal.upper_limit_price = last + 100;
    deal.lower_limit_price = last - 100;
    return deal;
}

Bytes Start(uint16_t topic) {
    return CMdqpMessageBuilder(kMdqpFlagMore, 1)
        .Snap(topic, 1)
        .Inst("cu2409", 0, 10.0, 70000.0, 5)
        .Inst("cu2410", 1, 10.0, 70000.0, 5)
        .Build();
}

Bytes Book(int32_t instNo, double mid) {
    return CMdqpMessageBuilder(kMdqpFlagMore, 2)
        .Deal(Deal(instNo, mid))
        .Level(instNo, '0', mid - 10, 3)
        .Level(instNo, '0', mid - 20, 4)
        .Level(instNo, '1', mid + 10, 5)
        .Stats(instNo, 1, 2.0, 3, 4.0)
        .Build();
}

Bytes Last() {
    return CMdqpMessageBuilder(kMdqpFlagLast, 3).PacketNo(9).Build();
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes Part(const Bytes& b, size_t from, size_t to) {
    return Bytes(b.begin() + static_cast<long>(from), b.begin() + static_cast<long>(to));
}

std::vector<Seed> Seeds() {
    std::vector<Seed> s;
    const Bytes start = Start(kShfeTopic2);
    const uint32_t next = kSeq + static_cast<uint32_t>(start.size());
    const Bytes book = Book(0, 70000.0);
    const Bytes body = Cat({book, Book(1, 70100.0), Last()});

    s.push_back({"shfe2ps_in_order",
                 CSeedBuilder()
                     .Segment(kSeq, start)
                     .Segment(next, book)
                     .Segment(next + static_cast<uint32_t>(book.size()), Cat({Book(1, 70100.0), Last()}))
                     .Build()});
    {
        CSeedBuilder b;
        b.Segment(kSeq, start);
        for (size_t at = 240; at > 0; at -= 80) {
            b.Segment(next + static_cast<uint32_t>(at - 80), Part(body, at - 80, std::min(at, body.size())));
        }
        b.Segment(next + 240, Part(body, 240, body.size()));
        s.push_back({"shfe2ps_reversed", b.Build()});
    }
    s.push_back({"message_in_three_pieces", CSeedBuilder()
                                                .Segment(kSeq, start)
                                                .Segment(next, Part(book, 0, 5))
                                                .Segment(next + 5, Part(book, 5, 100))
                                                .Segment(next + 100, Part(book, 100, book.size()))
                                                .Build()});
    s.push_back({"ine2ps_on_4ps_port", CSeedBuilder()
                                           .Segment(kSeq, Start(kIneTopic2), kPort4ps)
                                           .Segment(next, Cat({Book(0, 500.0), Last()}), kPort4ps)
                                           .Build()});
    s.push_back({"shfe4ps_start", CSeedBuilder().Segment(kSeq, Start(kShfeTopic4), kPort4ps).Build()});
    {
        TcpSegmentFields rst;
        rst.seq = 1;
        rst.flags = 0x14;
        s.push_back(
            {"rst_ack", CSeedBuilder().Segment(kSeq, start).Frame(build_tcp_frame(rst, Bytes{'x'})).Build()});
    }
    {
        TcpSegmentFields padded;
        padded.seq = next;
        padded.padding = 20;
        s.push_back(
            {"padded", CSeedBuilder().Segment(kSeq, start).Frame(build_tcp_frame(padded, book)).Build()});
    }
    {
        TcpSegmentFields bad;
        bad.seq = next;
        bad.badChecksum = true;
        TcpSegmentFields udp = bad;
        udp.badChecksum = false;
        udp.protocol = 17;
        TcpSegmentFields other = udp;
        other.protocol = 6;
        other.dstPort = 12345;
        const Bytes shortFrame(40, 0);
        s.push_back({"noise", CSeedBuilder()
                                  .Segment(kSeq, start)
                                  .Frame(build_tcp_frame(bad, book))
                                  .Frame(build_tcp_frame(udp, book))
                                  .Frame(build_tcp_frame(other, book))
                                  .Frame(shortFrame)
                                  .Segment(next, book)
                                  .Build()});
    }
    {
        const Bytes a = Book(0, 1.0), b = Book(1, 2.0), c = Last();
        const uint32_t sb = next + static_cast<uint32_t>(a.size());
        const uint32_t sc = sb + static_cast<uint32_t>(b.size());
        s.push_back({"held_duplicates", CSeedBuilder()
                                            .Segment(kSeq, start)
                                            .Segment(sc, c)
                                            .Segment(sb, b)
                                            .Segment(sb, b)
                                            .Segment(sc, c)
                                            .Segment(next, a)
                                            .Build()});
    }
    {
        const Bytes zeros(30, 0);
        const Bytes bad = CMdqpMessageBuilder(kMdqpFlagMore, 1)
                              .RawField(MDQP_FID_SKIP_0031, zeros.data(), 30)
                              .RawField(MDQP_FID_SKIP_0032, zeros.data(), 0)
                              .Snap(kShfeTopic2)
                              .Build();
        s.push_back({"zero_sized_field", CSeedBuilder().Segment(kSeq, Cat({bad, book})).Build()});
    }
    {
        TcpSegmentFields segment;
        segment.seq = kSeq;
        const Bytes frame = build_tcp_frame(segment, start);
        std::vector<uint8_t> whole{kWholeInput | kFreshSessions};
        whole.insert(whole.end(), frame.begin(), frame.end());
        s.push_back({"whole_input_start", whole});
    }
    s.push_back(
        {"held_not_a_message", CSeedBuilder()
                                   .Segment(kSeq, start)
                                   .Segment(next + 16, Bytes(40, 0x5A))
                                   .Segment(next, CMdqpMessageBuilder(kMdqpFlagMore, 4).PacketNo(1).Build())
                                   .Build()});
    {
        // A message of 9000 bytes in 1500-byte pieces.
        const Bytes filler(9000 - 12, 0);
        const Bytes big = CMdqpMessageBuilder(kMdqpFlagMore, 5)
                              .RawField(MDQP_FID_SKIP_0031, filler.data(), filler.size())
                              .Build();
        CSeedBuilder b;
        b.Segment(kSeq, start);
        for (size_t at = 0; at < big.size(); at += 1500) {
            b.Segment(next + static_cast<uint32_t>(at), Part(big, at, std::min(big.size(), at + 1500)));
        }
        s.push_back({"large_fragment", b.Build()});
    }
    // Carries on from whatever the sessions hold.
    s.push_back({"carry_on", CSeedBuilder(0).Segment(next, book).Build()});
    return s;
}

}  // namespace

int main(int argc, char** argv) {
    return seed_main(argc, argv, Seeds());
}
