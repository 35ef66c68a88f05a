// Frames of the snapshot TCP streams through CExanicTcpFunc::_PacketHandler:
// frame checks, sessions, feed identification, held out-of-order frames,
// joined fragments and the resets that start the snapshot over.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "src/api/Health.h"
#include "tests/support/LogLines.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TcpHarness.h"

namespace {

using Bytes = std::vector<char>;

constexpr uint16_t kPort = CTcpHarness::kPort2ps;
constexpr uint16_t kPort4 = CTcpHarness::kPort4ps;
constexpr uint16_t kNotSnapshotPort = 12345;
constexpr int16_t kShfeTopic = 1000;
constexpr int16_t kIneTopic = 5000;
constexpr uint32_t kStartSeq = 1000;
constexpr size_t kHeaders = 14 + 20 + 20;
constexpr ELOGLEVEL kQuiet = static_cast<ELOGLEVEL>(LOG_ERROR | LOG_WARNING);
constexpr ELOGLEVEL kAll = static_cast<ELOGLEVEL>(31);

Bytes Join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Bytes Slice(const Bytes& bytes, size_t from, size_t to) {
    return Bytes(bytes.begin() + static_cast<long>(from), bytes.begin() + static_cast<long>(to));
}

TcpSegmentFields At(uint32_t seq, uint16_t port = kPort) {
    TcpSegmentFields segment;
    segment.seq = seq;
    segment.dstPort = port;
    return segment;
}

// 134 bytes: header, SnapField, one InstInfoField.
Bytes StartMessage(int16_t topic = kShfeTopic, int32_t instNo = 0) {
    return CMdqpMessageBuilder(kMdqpFlagMore, 1)
        .Snap(topic, 7)
        .Inst("cu2409", instNo, 10.0, 70000.0, 5)
        .Build();
}

// 124 bytes.
// A start message of exactly `size` bytes: SnapField, then a skipped field.
Bytes StartMessageOfSize(size_t size) {
    const Bytes skipped(size - 8 - 10 - 4, 0);
    return CMdqpMessageBuilder(kMdqpFlagMore, 1)
        .Snap(kShfeTopic)
        .RawField(MDQP_FID_SKIP_0031, skipped.data(), skipped.size())
        .Build();
}

Bytes InstMessage(int32_t requestId, int32_t instNo, const char* id = "al2409") {
    return CMdqpMessageBuilder(kMdqpFlagMore, requestId).Inst(id, instNo, 5.0, 20000.0, 5).Build();
}

// 166 bytes.
Bytes DealMessage(int32_t requestId, int32_t instNo, double last) {
    return CMdqpMessageBuilder(kMdqpFlagMore, requestId)
        .Deal(MakeDeal(instNo, last, last + 100, last - 100))
        .Build();
}

// 16 bytes.
Bytes PacketMessage(int32_t requestId, uint8_t flag = kMdqpFlagMore) {
    return CMdqpMessageBuilder(flag, requestId).PacketNo(requestId).Build();
}

Bytes LastMessage(int32_t requestId = 99) {
    return PacketMessage(requestId, kMdqpFlagLast);
}

Bytes EmptySegment(const TcpSegmentFields& segment) {
    static const char kNothing = 0;
    return build_tcp_frame(segment, &kNothing, 0);
}

// Request ids of the messages decoded, in decoding order.
std::vector<int> DeliveredRequestIds(const std::string& out) {
    std::vector<int> ids;
    for (const std::string& message : log_messages(out, "[X]", "_ParseMdqp")) {
        unsigned flag, type, length;
        int id;
        if (sscanf(message.c_str(), "MDQP flag: 0x%x, type_id: 0x%x, length: %u, requset_id: %d", &flag,
                   &type, &length, &id) == 4) {
            ids.push_back(id);
        }
    }
    return ids;
}

// Sequence numbers of the held frames from the head, checking the back links.
std::vector<uint32_t> HeldSeqs(const TcpSession& s) {
    std::vector<uint32_t> seqs;
    const TcpLostBuf* before = nullptr;
    for (const TcpLostBuf* node = s.lost_buf_head; node != nullptr; node = node->next) {
        EXPECT_EQ(node->before, before);
        uint32_t seq;
        memcpy(&seq, node->buf + 14 + 20 + 4, sizeof(seq));
        seqs.push_back(ntohl(seq));
        before = node;
    }
    return seqs;
}

bool AllZero(const void* p, size_t n) {
    static const Bytes zeros(sizeof(share), 0);
    const char* bytes = static_cast<const char*>(p);
    for (size_t done = 0; done < n; done += zeros.size()) {
        const size_t chunk = n - done < zeros.size() ? n - done : zeros.size();
        if (memcmp(bytes + done, zeros.data(), chunk) != 0) {
            return false;
        }
    }
    return true;
}

bool InterInfosZero(const CTcpHarness& h) {
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        if (!AllZero(&h.tcp->GetInterInfo(slot), sizeof(inter_info))) {
            return false;
        }
    }
    return true;
}

class ReassemblyTest : public ::testing::Test {
protected:
    // Each test counts from zero in the process's own health record.
    ReassemblyTest() {
        CCommonLog::GetInstance().SetLogLevel(kQuiet);
        memset(static_cast<void*>(&health()), 0, sizeof(quvo_health));
    }

    void SendFrame(Bytes frame) { h.Handle(std::move(frame)); }
    // Through one reused buffer, which saves the sweeps' hundreds of
    // thousands of allocations; the other tests give each frame its own.
    void SendReused(const Bytes& frame) {
        m_buffer.assign(frame.begin(), frame.end());
        m_buffer.resize(frame.size() + kMdqpReadSlack, 0);
        CExanicTcpFuncTestAccess::PacketHandler(*h.tcp, m_buffer.data(),
                                                static_cast<unsigned int>(frame.size()));
    }
    void Send(const TcpSegmentFields& segment, const Bytes& payload) {
        h.Handle(build_tcp_frame(segment, payload));
    }
    void SendAt(uint32_t seq, const Bytes& payload, uint16_t port = kPort) { Send(At(seq, port), payload); }

    // The start of a snapshot (slot 0 of its exchange); returns the next
    // expected sequence number.
    uint32_t Start(uint16_t port = kPort, int16_t topic = kShfeTopic) {
        const Bytes start = StartMessage(topic);
        SendAt(kStartSeq, start, port);
        EXPECT_EQ(Session(port).init, 1);
        return kStartSeq + static_cast<uint32_t>(start.size());
    }

    // Runs `body` with every level on and returns what it logged.
    template <typename Body>
    std::string Logged(Body&& body) {
        CCommonLog::GetInstance().SetLogLevel(kAll);
        CStdoutCapture capture;
        body();
        std::string out = capture.Stop();
        CCommonLog::GetInstance().SetLogLevel(kQuiet);
        return out;
    }

    static std::vector<std::string> Handler(const std::string& out, const char* label) {
        return log_messages(out, label, "_PacketHandler");
    }

    TcpSession& Session(uint16_t port = kPort) { return CExanicTcpFuncTestAccess::Session(*h.tcp, port); }
    bool Subscribed(uint32_t slot) const { return h.area->instmts[slot].inst_id[0] != 0; }

    void ExpectSessionReset(uint16_t port) {
        const TcpSession& s = Session(port);
        EXPECT_EQ(s.init, 0);
        EXPECT_EQ(s.frag_flag, 0);
        EXPECT_EQ(s.lost_flag, 0);
        EXPECT_EQ(s.frag_buf_offset, 0);
        EXPECT_EQ(s.frag_buf, nullptr);
        EXPECT_EQ(s.lost_buf_head, nullptr);
        EXPECT_EQ(s.lost_buf_size, 0u);
        EXPECT_EQ(s.em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    }

    void ExpectEverythingCleared() {
        EXPECT_TRUE(AllZero(h.area.get(), sizeof(share)));
        EXPECT_TRUE(AllZero(h.calc.get(), sizeof(PriceCalcInfo)));
        EXPECT_TRUE(InterInfosZero(h));
        EXPECT_EQ(h.finished.mask, 0);
        ExpectSessionReset(kPort);
        ExpectSessionReset(kPort4);
    }

    void ExpectRstAckClearsEverythingAndRestartsEveryFeed(uint16_t rstPort);

    CTcpHarness h;
    Bytes m_buffer;
};

// ---- The edge cases of reassembly ----

TEST_F(ReassemblyTest, StartFlaggedAsLastMessageDoesNotStartASession) {
    // idle; segment: [flag 0x01 | Snap 1000 | Inst cu2409]
    const Bytes last =
        CMdqpMessageBuilder(kMdqpFlagLast, 1).Snap(kShfeTopic).Inst("cu2409", 0, 10.0, 70000.0, 5).Build();
    ASSERT_GE(last.size(), 45u);
    const std::string out = Logged([&] { SendAt(kStartSeq, last); });
    EXPECT_EQ(Session().init, 0);
    EXPECT_EQ(Session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    EXPECT_EQ(Session().current_seq, 0u);
    EXPECT_EQ(Session().next_expt_seq, 0u);
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_FALSE(Subscribed(0));
    EXPECT_EQ(h.finished.mask, 0);

    // The same fields flagged 0x11 start one.
    SendAt(kStartSeq, StartMessage());
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().em_dqp_data_type, SHFE_2PS);
    EXPECT_TRUE(Subscribed(0));
}

TEST_F(ReassemblyTest, StartOf44BytesDoesNotStartASessionButOf45Does) {
    const Bytes short44 = StartMessageOfSize(44);
    ASSERT_EQ(short44.size(), 44u);
    SendAt(kStartSeq, short44);
    EXPECT_EQ(Session().init, 0);
    EXPECT_EQ(Session().current_seq, 0u);

    const Bytes long45 = StartMessageOfSize(45);
    ASSERT_EQ(long45.size(), 45u);
    SendAt(kStartSeq, long45);
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().em_dqp_data_type, SHFE_2PS);
    EXPECT_EQ(Session().current_seq, kStartSeq);
    EXPECT_EQ(Session().next_expt_seq, kStartSeq + 45);
}

TEST_F(ReassemblyTest, SegmentBelowTheExpectedSequenceIsIgnoredSilently) {
    const uint32_t next = Start();
    // expected: next; segment at next - 10 carrying a whole message for slot 5
    const std::string out = Logged([&] { SendAt(next - 10, InstMessage(2, 5)); });
    EXPECT_TRUE(parse_log_lines(out).empty()) << out;
    EXPECT_FALSE(Subscribed(5));
    EXPECT_EQ(Session().next_expt_seq, next);
    EXPECT_EQ(Session().lost_flag, 0);
    EXPECT_EQ(Session().frag_flag, 0);

    // A repeat of the start is old data too.
    SendAt(kStartSeq, StartMessage());
    EXPECT_EQ(Session().next_expt_seq, next);

    SendAt(next, InstMessage(2, 5));
    EXPECT_TRUE(Subscribed(5));
}

TEST_F(ReassemblyTest, MessageSplitOverThreeSegmentsIsDeliveredOnceAfterTheThird) {
    const uint32_t next = Start();
    const Bytes message = CMdqpMessageBuilder(kMdqpFlagMore, 42)
                              .Inst("al2409", 3, 5.0, 20000.0, 5)
                              .Deal(MakeDeal(3, 20100.0, 22000.0, 18000.0))
                              .Build();
    ASSERT_EQ(message.size(), 282u);

    // pieces: [0,5) inside the header, [5,150), [150,282)
    std::string out = Logged([&] { SendAt(next, Slice(message, 0, 5)); });
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_EQ(Session().frag_flag, 1);
    EXPECT_EQ(Session().frag_buf_offset, 5);

    out = Logged([&] { SendAt(next + 5, Slice(message, 5, 150)); });
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_FALSE(Subscribed(3));
    EXPECT_EQ(Session().frag_buf_offset, 150);

    out = Logged([&] { SendAt(next + 150, Slice(message, 150, 282)); });
    EXPECT_EQ(DeliveredRequestIds(out), std::vector<int>{42});
    EXPECT_STREQ(reinterpret_cast<const char*>(h.area->instmts[3].inst_id), "al2409");
    EXPECT_EQ(h.area->instmts[3].last_px, 20100.0);
    EXPECT_EQ(Session().frag_flag, 0);
    EXPECT_EQ(Session().frag_buf_offset, 0);
    EXPECT_EQ(Session().next_expt_seq, next + 282);
}

TEST_F(ReassemblyTest, TwoSegmentsInReverseOrderAreDeliveredInOrderWhenTheFirstArrives) {
    const uint32_t next = Start();
    const Bytes first = InstMessage(11, 1);
    const Bytes second = DealMessage(12, 1, 20200.0);

    // held: []  expected: next; the second arrives first
    std::string out = Logged([&] { SendAt(next + static_cast<uint32_t>(first.size()), second); });
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_EQ(Session().lost_flag, 1);
    EXPECT_EQ(Session().lost_buf_size, 1u);
    EXPECT_EQ(Session().next_expt_seq, next);

    // held: [second]  expected: next; the first arrives
    out = Logged([&] { SendAt(next, first); });
    EXPECT_EQ(DeliveredRequestIds(out), (std::vector<int>{11, 12}));
    // The trade applies only to a subscribed slot: it came after the definition.
    EXPECT_EQ(h.area->instmts[1].last_px, 20200.0);
    EXPECT_EQ(Session().lost_flag, 0);
    EXPECT_EQ(Session().lost_buf_size, 0u);
    EXPECT_EQ(Session().lost_buf_head, nullptr);
    EXPECT_EQ(Session().next_expt_seq, next + first.size() + second.size());
}

TEST_F(ReassemblyTest, EthernetPaddingIsNeverTakenAsData) {
    // Padding that looks like the start of a message for slot 9.
    const Bytes decoy = InstMessage(50, 9);
    constexpr size_t kPadding = 30;
    const auto padded = [&](uint32_t seq, const Bytes& payload) {
        TcpSegmentFields segment = At(seq);
        segment.padding = kPadding;
        Bytes frame = build_tcp_frame(segment, payload);
        memcpy(frame.data() + frame.size() - kPadding, decoy.data(), kPadding);
        return frame;
    };
    const Bytes start = StartMessage();
    SendFrame(padded(kStartSeq, start));
    const uint32_t next = kStartSeq + static_cast<uint32_t>(start.size());
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().next_expt_seq, next);
    EXPECT_EQ(Session().frag_flag, 0);

    // held: [second, padded]  expected: next; then the first, padded
    const Bytes first = InstMessage(2, 1);
    const Bytes second = InstMessage(3, 2);
    SendFrame(padded(next + static_cast<uint32_t>(first.size()), second));
    SendFrame(padded(next, first));
    EXPECT_TRUE(Subscribed(1));
    EXPECT_TRUE(Subscribed(2));
    EXPECT_FALSE(Subscribed(9));
    EXPECT_EQ(Session().next_expt_seq, next + first.size() + second.size());
    EXPECT_EQ(Session().frag_flag, 0);
    EXPECT_EQ(Session().frag_buf_offset, 0);
    EXPECT_EQ(Session().lost_flag, 0);
}

void ReassemblyTest::ExpectRstAckClearsEverythingAndRestartsEveryFeed(uint16_t rstPort) {
    // 2ps port: SHFE 2ps finished; 4ps port: INE 2ps under way, one frame held
    uint32_t next = Start(kPort, kShfeTopic);
    const Bytes deal = DealMessage(2, 0, 70010.0);
    SendAt(next, deal);
    SendAt(next + static_cast<uint32_t>(deal.size()), LastMessage());
    ASSERT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    ASSERT_EQ(h.tcp->GetInterInfo(0).upper_limit_price, 70110.0);
    ASSERT_EQ(h.calc->priceTick[0], 10.0);
    next = Start(kPort4, kIneTopic);
    SendAt(next + 500, InstMessage(3, 1), kPort4);
    ASSERT_TRUE(Subscribed(20479));
    ASSERT_EQ(Session(kPort4).lost_buf_size, 1u);
    // A finished feed takes no new start.
    SendAt(kStartSeq, StartMessage(kShfeTopic));
    ASSERT_EQ(Session(kPort).init, 0);

    TcpSegmentFields rst = At(777, rstPort);
    rst.flags = 0x14;
    Send(rst, Bytes{'x'});
    ExpectEverythingCleared();

    // Every feed starts again from its next start segment.
    SendAt(kStartSeq, StartMessage(kShfeTopic));
    EXPECT_EQ(Session(kPort).init, 1);
    EXPECT_EQ(Session(kPort).em_dqp_data_type, SHFE_2PS);
    SendAt(kStartSeq, StartMessage(kIneTopic), kPort4);
    EXPECT_EQ(Session(kPort4).init, 1);
    EXPECT_EQ(Session(kPort4).em_dqp_data_type, INE_2PS);
    EXPECT_TRUE(Subscribed(0));
    EXPECT_TRUE(Subscribed(20479));
}

TEST_F(ReassemblyTest, RstAckOn2psPortClearsTheAreaAndRestartsEveryFeed) {
    ExpectRstAckClearsEverythingAndRestartsEveryFeed(kPort);
}

TEST_F(ReassemblyTest, RstAckOn4psPortClearsTheAreaAndRestartsEveryFeed) {
    ExpectRstAckClearsEverythingAndRestartsEveryFeed(kPort4);
}

TEST_F(ReassemblyTest, OnlyRstWithAckAndAPayloadResets) {
    const uint32_t next = Start();
    ASSERT_TRUE(Subscribed(0));

    TcpSegmentFields empty = At(next);
    empty.flags = 0x14;
    const std::string out = Logged([&] { SendFrame(EmptySegment(empty)); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"payloadSize<=0, max_payload=0"});
    EXPECT_TRUE(Subscribed(0));
    EXPECT_EQ(Session().init, 1);

    // RST alone is an ordinary segment.
    TcpSegmentFields rstOnly = At(next);
    rstOnly.flags = 0x04;
    Send(rstOnly, InstMessage(2, 1));
    EXPECT_TRUE(Subscribed(1));
    EXPECT_EQ(Session().init, 1);

    TcpSegmentFields rstAck = At(1);
    rstAck.flags = 0x14;
    Send(rstAck, Bytes{'x'});
    EXPECT_FALSE(Subscribed(0));
    EXPECT_FALSE(Subscribed(1));
    ExpectSessionReset(kPort);
}

// ---- Frame checks, in order ----

TEST_F(ReassemblyTest, FrameShorterThan34BytesIsTooShortForIp) {
    Bytes frame = build_tcp_frame(At(kStartSeq), StartMessage());
    frame.resize(33);
    const std::string out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"packet too short for IP, packetLen=33"});
    EXPECT_EQ(Session().frag_buf, nullptr);
}

TEST_F(ReassemblyTest, IpHeaderLengthBelow20OrPastTheFrameIsInvalid) {
    Bytes frame = build_tcp_frame(At(kStartSeq), StartMessage());
    frame[14] = 0x44;
    std::string out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"invalid IP header, ip_hdr_len=16 packetLen=" +
                                                            std::to_string(frame.size())});

    // 60 bytes of IP header need 74 bytes of frame.
    frame[14] = 0x4F;
    frame.resize(73);
    out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"invalid IP header, ip_hdr_len=60 packetLen=73"});
    EXPECT_EQ(Session().frag_buf, nullptr);
    EXPECT_EQ(health().tcp.bad_ip_header, 2u);
    EXPECT_EQ(health().tcp.frames, 2u);
}

TEST_F(ReassemblyTest, OtherProtocolsAreLoggedButIcmpIgmpAndUdpAreSilent) {
    for (uint8_t protocol : {1, 2, 17}) {
        TcpSegmentFields segment = At(kStartSeq);
        segment.protocol = protocol;
        const std::string out = Logged([&] { Send(segment, StartMessage()); });
        EXPECT_TRUE(parse_log_lines(out).empty()) << "protocol " << int(protocol) << ": " << out;
    }
    TcpSegmentFields segment = At(kStartSeq);
    segment.protocol = 47;
    const std::string out = Logged([&] { Send(segment, StartMessage()); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"ip_p [47]"});
    EXPECT_EQ(Session().frag_buf, nullptr);
    EXPECT_FALSE(Subscribed(0));
    EXPECT_EQ(health().tcp.not_tcp, 4u);  // the silent ones too
}

TEST_F(ReassemblyTest, FrameWithoutRoomForATcpHeaderIsTooShortForTcp) {
    Bytes frame = build_tcp_frame(At(kStartSeq), StartMessage());
    frame.resize(53);
    std::string out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"packet too short for TCP header"});

    // One byte more passes that check and finds no payload.
    frame = build_tcp_frame(At(kStartSeq), StartMessage());
    frame.resize(54);
    out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"payloadSize<=0, max_payload=0"});
    EXPECT_EQ(Session().frag_buf, nullptr);
    EXPECT_EQ(health().tcp.short_tcp, 1u);
    EXPECT_EQ(health().tcp.no_payload, 1u);
}

TEST_F(ReassemblyTest, FramesForOtherPortsAreDroppedSilently) {
    const std::string out = Logged([&] { SendAt(kStartSeq, StartMessage(), kNotSnapshotPort); });
    EXPECT_TRUE(parse_log_lines(out).empty()) << out;
    EXPECT_EQ(Session(kNotSnapshotPort).frag_buf, nullptr);
    EXPECT_EQ(Session(kNotSnapshotPort).init, 0);
    EXPECT_FALSE(Subscribed(0));
    EXPECT_EQ(health().tcp.other_port, 1u);
}

TEST_F(ReassemblyTest, TcpHeaderLengthBelow20OrPastTheFrameIsInvalid) {
    Bytes frame = build_tcp_frame(At(kStartSeq), StartMessage());
    frame[14 + 20 + 12] = 0x40;
    std::string out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"invalid TCP header or truncated packet"});

    // 60 bytes of TCP header need 94 bytes of frame.
    frame[14 + 20 + 12] = static_cast<char>(0xF0);
    frame.resize(93);
    out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"invalid TCP header or truncated packet"});
    EXPECT_EQ(Session().frag_buf, nullptr);
    EXPECT_EQ(health().tcp.bad_tcp_header, 2u);
}

TEST_F(ReassemblyTest, SegmentWithoutPayloadIsDroppedWithItsAvailableBytes) {
    std::string out = Logged([&] { SendFrame(EmptySegment(At(kStartSeq))); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"payloadSize<=0, max_payload=0"});

    // Six bytes of padding are there, but none of them is TCP data.
    TcpSegmentFields segment = At(kStartSeq);
    segment.padding = 6;
    out = Logged([&] { SendFrame(EmptySegment(segment)); });
    EXPECT_EQ(Handler(out, "[X]"), std::vector<std::string>{"payloadSize<=0, max_payload=6"});
    EXPECT_EQ(Session().frag_buf, nullptr);
    EXPECT_EQ(health().tcp.no_payload, 2u);
}

TEST_F(ReassemblyTest, WrongChecksumIsLoggedAtDebugAndDropped) {
    TcpSegmentFields segment = At(kStartSeq);
    segment.badChecksum = true;
    const std::string out = Logged([&] { Send(segment, StartMessage()); });
    EXPECT_EQ(Handler(out, "[D]"), std::vector<std::string>{"tcp checksum is not correct"});
    EXPECT_TRUE(Handler(out, "[X]").empty());
    EXPECT_EQ(Session().frag_buf, nullptr);
    EXPECT_EQ(Session().init, 0);
    EXPECT_FALSE(Subscribed(0));
}

TEST_F(ReassemblyTest, TruncatedSegmentFailsTheChecksumStep) {
    // The IP total length promises ten bytes more than the frame holds.
    Bytes frame = build_tcp_frame(At(kStartSeq), StartMessage());
    frame.resize(frame.size() - 10);
    const std::string out = Logged([&] { SendFrame(frame); });
    EXPECT_EQ(Handler(out, "[D]"), std::vector<std::string>{"tcp checksum is not correct"});
    EXPECT_EQ(Session().init, 0);
}

TEST_F(ReassemblyTest, SegmentOf2036BytesPassesAndOf2037Fails) {
    // TCP header and data: 20 + 2017 bytes.
    const std::string out = Logged([&] { SendAt(kStartSeq, StartMessageOfSize(2017)); });
    EXPECT_EQ(Handler(out, "[D]"), std::vector<std::string>{"tcp checksum is not correct"});
    EXPECT_EQ(Session().init, 0);

    SendAt(kStartSeq, StartMessageOfSize(2016));
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().next_expt_seq, kStartSeq + 2016);
}

// ---- Sessions and feed identification ----

TEST_F(ReassemblyTest, AnySegmentOnAnIdleSnapshotPortPreparesItsSession) {
    TcpSegmentFields segment = At(4242, kPort4);
    segment.srcHost = 0xC0A80101;
    segment.dstHost = 0xC0A80102;
    segment.srcPort = 51000;
    Send(segment, Bytes(20, 'x'));
    const TcpSession& s = Session(kPort4);
    ASSERT_NE(s.frag_buf, nullptr);
    EXPECT_TRUE(AllZero(s.frag_buf, CExanicTcpFunc::kFragBufSize));
    EXPECT_EQ(s.src_host, htonl(0xC0A80101));
    EXPECT_EQ(s.dst_host, htonl(0xC0A80102));
    EXPECT_EQ(s.src_port, 51000);
    EXPECT_EQ(s.dst_port, kPort4);
    EXPECT_EQ(s.init, 0);
    EXPECT_EQ(s.current_seq, 0u);
    EXPECT_EQ(s.frag_buf_offset, 0);
}

TEST_F(ReassemblyTest, LeftoverFragmentIsWipedWhenTheIdleSessionSeesASegment) {
    const uint32_t next = Start();
    // [last message | 10 bytes of a next message]: the session ends with bytes pending
    const Bytes tail = Join({LastMessage(), Slice(InstMessage(5, 5), 0, 10)});
    SendAt(next, tail);
    ASSERT_EQ(Session().init, 0);
    ASSERT_EQ(Session().frag_buf_offset, 10);

    SendAt(next + static_cast<uint32_t>(tail.size()), Bytes(20, 'x'));
    EXPECT_EQ(Session().frag_buf_offset, 0);
    EXPECT_TRUE(AllZero(Session().frag_buf, CExanicTcpFunc::kFragBufSize));
    EXPECT_FALSE(Subscribed(5));
}

TEST_F(ReassemblyTest, SnapTopicMatchesIne2psThenShfe2psThenShfe4psThenIne4ps) {
    struct Case {
        const char* what;
        int16_t ine2, shfe2, shfe4, ine4;
        uint8_t enabled, finished;
        int16_t topic;
        EMdqpDataType expected;
    };
    const Case cases[] = {
        {"ine2ps before shfe2ps", 1000, 1000, 1101, 5101, 0x0F, 0x00, 1000, INE_2PS},
        {"shfe2ps once ine2ps finished", 1000, 1000, 1101, 5101, 0x0F, 0x04, 1000, SHFE_2PS},
        {"shfe2ps before shfe4ps", 5000, 1000, 1000, 5101, 0x0F, 0x00, 1000, SHFE_2PS},
        {"shfe4ps once shfe2ps finished", 5000, 1000, 1000, 5101, 0x0F, 0x01, 1000, SHFE_4PS},
        {"shfe4ps before ine4ps", 5000, 1000, 1101, 1101, 0x0F, 0x00, 1101, SHFE_4PS},
        {"ine4ps while shfe4ps is disabled", 5000, 1000, 1101, 1101, 0x0D, 0x00, 1101, INE_4PS},
        {"ine2ps before ine4ps", 5000, 1000, 1101, 5000, 0x0F, 0x00, 5000, INE_2PS},
        {"ine4ps once ine2ps finished", 5000, 1000, 1101, 5000, 0x0F, 0x04, 5000, INE_4PS},
        {"nothing once all of them finished", 1000, 1000, 1000, 1000, 0x0F, 0x0F, 1000,
         MDQP_DATA_TYPE_UNKNOW},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        h.config.ine2ps_topic_id = c.ine2;
        h.config.shfe2ps_topic_id = c.shfe2;
        h.config.shfe4ps_topic_id = c.shfe4;
        h.config.ine4ps_topic_id = c.ine4;
        h.enabled.mask = c.enabled;
        h.finished.mask = c.finished;
        h.tcp->ResetSession(Session());
        SendAt(kStartSeq, StartMessage(c.topic));
        EXPECT_EQ(Session().em_dqp_data_type, c.expected);
        EXPECT_EQ(Session().init, c.expected == MDQP_DATA_TYPE_UNKNOW ? 0 : 1);
    }
}

TEST_F(ReassemblyTest, OnlyEnabledUnfinishedFeedsStartASession) {
    // enabled: SHFE 2ps and INE 2ps
    for (int16_t topic : {int16_t{1101}, int16_t{5101}, int16_t{4242}}) {
        SCOPED_TRACE(topic);
        SendAt(kStartSeq, StartMessage(topic));
        EXPECT_EQ(Session().init, 0);
        EXPECT_EQ(Session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    }
    EXPECT_FALSE(Subscribed(0));

    h.finished.mask = ENABLE_SHFE2PS;
    SendAt(kStartSeq, StartMessage(kShfeTopic));
    EXPECT_EQ(Session().init, 0);
    EXPECT_EQ(Session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);

    SendAt(kStartSeq, StartMessage(kIneTopic));
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().em_dqp_data_type, INE_2PS);
    EXPECT_TRUE(Subscribed(20479));
}

TEST_F(ReassemblyTest, SnapFieldIsLoggedWithTopicSnapNumberAndPort) {
    const std::string out = Logged([&] { SendAt(kStartSeq, StartMessage(kShfeTopic), kPort4); });
    EXPECT_EQ(Handler(out, "[X]"),
              std::vector<std::string>{"topic ID: 1000, snap No: 7, TCP dst port: 22000"});
    EXPECT_EQ(Session(kPort4).em_dqp_data_type, SHFE_2PS);
}

TEST_F(ReassemblyTest, ZeroSizedFieldInTheStartWarnsAndLeavesTheSessionDown) {
    // A finished run leaves its feed on the session.
    const uint32_t next = Start();
    SendAt(next, LastMessage());
    ASSERT_EQ(Session().init, 0);
    ASSERT_EQ(Session().em_dqp_data_type, SHFE_2PS);
    h.finished.mask = 0;

    const Bytes skipped(30, 0);
    const Bytes start = CMdqpMessageBuilder(kMdqpFlagMore, 4)
                            .RawField(MDQP_FID_SKIP_0031, skipped.data(), 30)
                            .RawField(MDQP_FID_SKIP_0032, skipped.data(), 10)
                            .RawField(MDQP_FID_SKIP_0031, skipped.data(), 0)
                            .Snap(kShfeTopic)
                            .Inst("cu2409", 3, 10.0, 70000.0, 5)
                            .Build();
    const std::string out = Logged([&] { SendAt(5000, start); });
    EXPECT_EQ(Handler(out, "[W]"),
              std::vector<std::string>{"invalid field data, break field iteration, iter=3 payloadSize=" +
                                       std::to_string(start.size())});
    EXPECT_EQ(Session().init, 0);
    EXPECT_EQ(Session().em_dqp_data_type, MDQP_DATA_TYPE_UNKNOW);
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_FALSE(Subscribed(3));
}

TEST_F(ReassemblyTest, FeedWalkContinuesPastTheFirstMessage) {
    // No SnapField in the first message. The walk reads the second message's
    // header as a field whose size is that message's length, lands on the
    // last four bytes of the second message (a SnapField header) and takes
    // the third message's header as its body: topic 0x3211 (flag 0x11, '2').
    h.config.shfe2ps_topic_id = 0x3211;
    const Bytes first =
        CMdqpMessageBuilder(kMdqpFlagMore, 1).RawField(MDQP_FID_SKIP_0031, Bytes(20, 0).data(), 20).Build();
    Bytes body(16, 0);
    const char snapHeader[] = {0x01, 0x10, 0x06, 0x00};
    memcpy(body.data() + 12, snapHeader, 4);
    const Bytes second =
        CMdqpMessageBuilder(kMdqpFlagMore, 2).RawField(MDQP_FID_SKIP_0031, body.data(), 16).Build();
    const Bytes third = InstMessage(3, 4);
    const std::string out = Logged([&] { SendAt(kStartSeq, Join({first, second, third})); });
    EXPECT_EQ(Handler(out, "[X]"),
              std::vector<std::string>{"topic ID: 12817, snap No: " + std::to_string(3 << 16 | 116) +
                                       ", TCP dst port: 33022"});
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().em_dqp_data_type, SHFE_2PS);
    EXPECT_EQ(DeliveredRequestIds(out), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(Subscribed(4));
}

TEST_F(ReassemblyTest, StartWithAnIncompleteFirstMessageWaitsForTheRest) {
    const Bytes start = CMdqpMessageBuilder(kMdqpFlagMore, 1)
                            .Snap(kShfeTopic)
                            .Inst("cu2409", 0, 10.0, 70000.0, 5)
                            .Inst("cu2410", 1, 10.0, 70000.0, 5)
                            .Build();
    ASSERT_EQ(start.size(), 250u);
    SendAt(kStartSeq, Slice(start, 0, 100));
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().frag_flag, 1);
    EXPECT_EQ(Session().frag_buf_offset, 100);
    EXPECT_EQ(Session().next_expt_seq, kStartSeq + 100);
    EXPECT_FALSE(Subscribed(0));

    SendAt(kStartSeq + 100, Slice(start, 100, 250));
    EXPECT_TRUE(Subscribed(0));
    EXPECT_TRUE(Subscribed(1));
    EXPECT_EQ(Session().frag_flag, 0);
}

TEST_F(ReassemblyTest, FinishedSessionTakesTheStartOfAnotherFeed) {
    const uint32_t next = Start(kPort, kShfeTopic);
    SendAt(next, LastMessage());
    ASSERT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    ASSERT_EQ(Session().init, 0);

    SendAt(9000, StartMessage(kIneTopic));
    EXPECT_EQ(Session().init, 1);
    EXPECT_EQ(Session().em_dqp_data_type, INE_2PS);
    EXPECT_EQ(Session().current_seq, 9000u);
    EXPECT_TRUE(Subscribed(20479));
}

// ---- Fragments ----

TEST_F(ReassemblyTest, FragmentOfExactly65535BytesIsJoined) {
    uint32_t seq = Start();
    const Bytes filler(65407, 0);
    const Bytes big = CMdqpMessageBuilder(kMdqpFlagMore, 8)
                          .Inst("zn2409", 9, 5.0, 22000.0, 5)
                          .RawField(MDQP_FID_SKIP_0031, filler.data(), filler.size())
                          .Build();
    ASSERT_EQ(big.size(), 65535u);
    std::string out;
    for (size_t at = 0; at < big.size(); at += 1500) {
        EXPECT_FALSE(Subscribed(9)) << at;
        const Bytes piece = Slice(big, at, std::min(big.size(), at + 1500));
        out += Logged([&] { SendAt(seq, piece); });
        seq += static_cast<uint32_t>(piece.size());
    }
    EXPECT_EQ(DeliveredRequestIds(out), std::vector<int>{8});
    EXPECT_TRUE(Handler(out, "[W]").empty());
    EXPECT_TRUE(Subscribed(9));
    EXPECT_EQ(Session().frag_flag, 0);
    EXPECT_EQ(Session().frag_buf_offset, 0);
}

TEST_F(ReassemblyTest, FragmentGrowingPast65535BytesIsIgnoredAndStartsOver) {
    uint32_t seq = Start();
    ASSERT_TRUE(Subscribed(0));
    const Bytes filler(65531, 0);
    const Bytes big = CMdqpMessageBuilder(kMdqpFlagMore, 8)
                          .RawField(MDQP_FID_SKIP_0031, filler.data(), filler.size())
                          .Build();
    ASSERT_EQ(big.size(), 65543u);
    // pending: 43 x 1500 + 1035 = 65535 bytes, still short of the message
    size_t at = 0;
    for (; at + 1500 <= 64500; at += 1500) {
        SendAt(seq, Slice(big, at, at + 1500));
        seq += 1500;
    }
    SendAt(seq, Slice(big, at, at + 1035));
    seq += 1035;
    at += 1035;
    ASSERT_EQ(Session().frag_buf_offset, 65535);
    ASSERT_EQ(Session().init, 1);
    ASSERT_TRUE(Subscribed(0));

    const std::string out = Logged([&] { SendAt(seq, Slice(big, at, at + 1)); });
    EXPECT_EQ(Handler(out, "[W]"), std::vector<std::string>{"ignore tcp message!"});
    ExpectEverythingCleared();
    EXPECT_EQ(health().snapshot.cleared[QUVO_CLEAN_FRAGMENT], 1u);
}

// ---- Held frames ----

TEST_F(ReassemblyTest, HeldFramesAreKeptInAscendingSequenceOrder) {
    const uint32_t a = Start();
    const Bytes ma = InstMessage(11, 1), mb = InstMessage(12, 2), mc = InstMessage(13, 3),
                md = InstMessage(14, 4);
    const uint32_t b = a + 124, c = b + 124, d = c + 124;

    // held: [] -> [b, c, d]  expected: a
    SendAt(d, md);
    SendAt(b, mb);
    SendAt(c, mc);
    EXPECT_EQ(HeldSeqs(Session()), (std::vector<uint32_t>{b, c, d}));
    EXPECT_EQ(Session().lost_buf_size, 3u);
    EXPECT_EQ(Session().lost_flag, 1);

    // A repeat of the head is dropped.
    SendAt(b, mb);
    EXPECT_EQ(HeldSeqs(Session()), (std::vector<uint32_t>{b, c, d}));
    EXPECT_EQ(Session().lost_buf_size, 3u);

    // A repeat of a later frame is kept beside it: held [b, c, d, d].
    SendAt(d, md);
    EXPECT_EQ(HeldSeqs(Session()), (std::vector<uint32_t>{b, c, d, d}));
    EXPECT_EQ(Session().lost_buf_size, 4u);
    EXPECT_FALSE(Subscribed(2));

    // The missing segment arrives: each message once, in order; the repeat is stale.
    const std::string out = Logged([&] { SendAt(a, ma); });
    EXPECT_EQ(DeliveredRequestIds(out), (std::vector<int>{11, 12, 13, 14}));
    EXPECT_EQ(Session().lost_buf_head, nullptr);
    EXPECT_EQ(Session().lost_flag, 0);
    EXPECT_EQ(Session().lost_buf_size, 0u);
    EXPECT_EQ(Session().next_expt_seq, d + 124);
}

TEST_F(ReassemblyTest, DrainStopsAtTheNextGap) {
    const uint32_t a = Start();
    const uint32_t b = a + 124, c = b + 124;
    // held: [c]  expected: a; a arrives, b is still missing
    SendAt(c, InstMessage(13, 3));
    SendAt(a, InstMessage(11, 1));
    EXPECT_TRUE(Subscribed(1));
    EXPECT_FALSE(Subscribed(3));
    EXPECT_EQ(HeldSeqs(Session()), std::vector<uint32_t>{c});
    EXPECT_EQ(Session().next_expt_seq, b);

    SendAt(b, InstMessage(12, 2));
    EXPECT_TRUE(Subscribed(2));
    EXPECT_TRUE(Subscribed(3));
    EXPECT_EQ(Session().lost_flag, 0);
}

TEST_F(ReassemblyTest, OneByteSegmentAtAMessageBoundaryIsNoMessageStart) {
    const uint32_t a = Start();
    const Bytes first = InstMessage(11, 1);
    // The header's type byte would lie past the payload: dropped, and counted.
    SendAt(a, Slice(first, 0, 1));
    EXPECT_EQ(Session().next_expt_seq, a + 1);
    EXPECT_EQ(Session().frag_flag, 0);
    // The rest starts inside a header: dropped too.
    SendAt(a + 1, Slice(first, 1, 124));
    EXPECT_FALSE(Subscribed(1));
    EXPECT_EQ(Session().next_expt_seq, a + 124);

    // Two bytes hold flag and type: a message start, joined with the rest.
    const Bytes second = InstMessage(12, 2);
    SendAt(a + 124, Slice(second, 0, 2));
    EXPECT_EQ(Session().frag_flag, 1);
    SendAt(a + 126, Slice(second, 2, 124));
    EXPECT_TRUE(Subscribed(2));
}

TEST_F(ReassemblyTest, SegmentFromAnotherHostIsIgnored) {
    const uint32_t next = Start();
    TcpSegmentFields otherSource = At(next);
    otherSource.srcHost = 0x0A000009;
    Send(otherSource, InstMessage(2, 1));
    TcpSegmentFields otherDestination = At(next);
    otherDestination.dstHost = 0x0A000009;
    Send(otherDestination, InstMessage(2, 1));
    TcpSegmentFields ahead = At(next + 500);
    ahead.srcHost = 0x0A000009;
    Send(ahead, InstMessage(3, 2));
    EXPECT_FALSE(Subscribed(1));
    EXPECT_EQ(Session().next_expt_seq, next);
    EXPECT_EQ(Session().lost_flag, 0);

    EXPECT_EQ(health().tcp.other_host, 3u);

    SendAt(next, InstMessage(2, 1));
    EXPECT_TRUE(Subscribed(1));
}

TEST_F(ReassemblyTest, InOrderSegmentNotStartingWithAMessageIsDroppedAndHeldFramesWait) {
    const uint32_t a = Start();
    const uint32_t b = a + 124;
    // held: [b]  expected: a; a carries no message header
    SendAt(b, InstMessage(12, 2));
    const std::string out = Logged([&] { SendAt(a, Bytes(124, 0x5A)); });
    EXPECT_TRUE(Handler(out, "[E]").empty());
    EXPECT_TRUE(Handler(out, "[W]").empty());
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_EQ(Session().next_expt_seq, b);
    EXPECT_EQ(HeldSeqs(Session()), std::vector<uint32_t>{b});
    EXPECT_FALSE(Subscribed(2));
    EXPECT_EQ(health().tcp.not_mdqp, 1u);

    // The next in-order segment drains the list: the held copy is then stale.
    SendAt(b, InstMessage(12, 2));
    EXPECT_TRUE(Subscribed(2));
    EXPECT_EQ(Session().lost_flag, 0);
}

TEST_F(ReassemblyTest, HeldPayloadNotStartingWithAMessageLogsNotMdqpHeader) {
    const uint32_t a = Start();
    const uint32_t g = a + 124, c = g + 40;
    // held: [g (not a message), c]  expected: a
    SendAt(g, Bytes(40, 0x5A));
    SendAt(c, InstMessage(13, 3));
    const std::string out = Logged([&] { SendAt(a, InstMessage(11, 1)); });
    EXPECT_EQ(Handler(out, "[E]"), std::vector<std::string>{"not a mdqp header, check program logic"});
    EXPECT_EQ(DeliveredRequestIds(out), std::vector<int>{11});
    // The drain stopped on g, already counted: held [g, c]  expected: c
    EXPECT_EQ(Session().next_expt_seq, c);
    EXPECT_EQ(HeldSeqs(Session()), (std::vector<uint32_t>{g, c}));
    EXPECT_FALSE(Subscribed(3));

    SendAt(c, InstMessage(13, 3));
    EXPECT_TRUE(Subscribed(3));
    EXPECT_EQ(Session().lost_buf_head, nullptr);
}

// [a whole message | 10 bytes whose header is not a message's]
Bytes MessageThenNonHeader() {
    const char notHeader[10] = {0x22, 0x32, 100, 0, 0, 0, 0, 0, 0, 0};
    return Join({InstMessage(11, 1), Bytes(notHeader, notHeader + 10)});
}

TEST_F(ReassemblyTest, HeldPayloadAppendedToABufferedNonMessageLogsNotMdqpHeader) {
    const uint32_t a = Start();
    const Bytes first = MessageThenNonHeader();
    const uint32_t b = a + static_cast<uint32_t>(first.size());
    // held: [b]  expected: a; a leaves 10 bytes pending that are no message
    SendAt(b, InstMessage(12, 2));
    const std::string out = Logged([&] { SendAt(a, first); });
    EXPECT_EQ(Handler(out, "[E]"), std::vector<std::string>{"not a mdqp header, check program logic"});
    EXPECT_EQ(DeliveredRequestIds(out), std::vector<int>{11});
    EXPECT_FALSE(Subscribed(2));
    EXPECT_EQ(Session().next_expt_seq, b + 124);
}

TEST_F(ReassemblyTest, InOrderPayloadAppendedToABufferedNonMessageIsSilent) {
    const uint32_t a = Start();
    const Bytes first = MessageThenNonHeader();
    const uint32_t b = a + static_cast<uint32_t>(first.size());
    SendAt(a, first);
    ASSERT_EQ(Session().frag_flag, 1);
    ASSERT_EQ(Session().frag_buf_offset, 10);
    const std::string out = Logged([&] { SendAt(b, InstMessage(12, 2)); });
    EXPECT_TRUE(Handler(out, "[E]").empty());
    EXPECT_TRUE(DeliveredRequestIds(out).empty());
    EXPECT_FALSE(Subscribed(2));
    EXPECT_EQ(Session().frag_buf_offset, 10 + 124);
    EXPECT_EQ(Session().next_expt_seq, b + 124);
}

TEST_F(ReassemblyTest, HoleThatNeverFillsBreaksAt500HeldFramesAndStartsOver) {
    const uint32_t hole = Start();
    ASSERT_TRUE(Subscribed(0));
    // held: [hole+16, hole+32, ..., hole+16*500]  expected: hole, which never comes
    for (uint32_t k = 1; k <= 500; ++k) {
        SendAt(hole + 16 * k, PacketMessage(static_cast<int32_t>(k)));
    }
    ASSERT_EQ(Session().lost_buf_size, 500u);
    ASSERT_TRUE(Subscribed(0));
    EXPECT_EQ(health().tcp.held, 500u);
    EXPECT_EQ(health().tcp.held_peak, 500u);

    const uint32_t got = hole + 16 * 501;
    const std::string out = Logged([&] { SendAt(got, PacketMessage(501)); });
    EXPECT_EQ(Handler(out, "[E]"),
              std::vector<std::string>{"break tcp seq detected. expt: " + std::to_string(hole) +
                                       ", got: " + std::to_string(got)});
    ExpectEverythingCleared();
    EXPECT_EQ(health().snapshot.cleared[QUVO_CLEAN_HELD], 1u);

    // The snapshot starts over from the next start segment.
    Start();
    EXPECT_TRUE(Subscribed(0));
}

// ---- The price check that closes every handled frame ----

Bytes BookMessage(double bid, double ask) {
    return CMdqpMessageBuilder(kMdqpFlagMore, 2)
        .Deal(MakeDeal(0, 100.0, 110.0, 90.0))
        .Level(0, '0', bid, 5)
        .Level(0, '1', ask, 5)
        .Build();
}

TEST_F(ReassemblyTest, SoundBooksKeepTheFinishedFeeds) {
    h.enabled.mask = ENABLE_SHFE2PS;
    const uint32_t next = Start();
    const Bytes book = BookMessage(99.0, 101.0);
    SendAt(next, book);
    const std::string out = Logged([&] { SendAt(next + static_cast<uint32_t>(book.size()), LastMessage()); });
    EXPECT_TRUE(Handler(out, "[W]").empty());
    EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    EXPECT_EQ(h.area->instmts[0].bid_px[0], 99.0);
}

TEST_F(ReassemblyTest, FailedPriceCheckOnceEveryFeedFinishedStartsOver) {
    h.enabled.mask = ENABLE_SHFE2PS;
    const uint32_t next = Start();
    // bid 101 above ask 100.5
    const Bytes book = BookMessage(101.0, 100.5);
    SendAt(next, book);
    const std::string out = Logged([&] { SendAt(next + static_cast<uint32_t>(book.size()), LastMessage()); });
    EXPECT_EQ(Handler(out, "[W]"), std::vector<std::string>{"price check is error"});
    ExpectEverythingCleared();
    EXPECT_EQ(health().snapshot.price_check_failures, 1u);
    EXPECT_EQ(health().snapshot.cleared[QUVO_CLEAN_PRICE_CHECK], 1u);
    EXPECT_EQ(health().snapshot.feeds[SHFE_2PS].completed, 1u);
}

TEST_F(ReassemblyTest, IgnoredSegmentStillEndsWithThePriceCheck) {
    h.enabled.mask = ENABLE_SHFE2PS;
    h.finished.mask = ENABLE_SHFE2PS;
    instrument& inst = h.area->instmts[0];
    memcpy(inst.inst_id, "cu2409", 7);
    inst.bid_px[0] = 101.0;
    inst.bid_vol[0] = 1;
    inst.ask_px[0] = 100.0;
    inst.ask_vol[0] = 1;
    h.area->shfe_inst_cnt = 1;
    CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 0) = {110.0, 90.0};

    // A frame dropped by the checks returns before it.
    TcpSegmentFields bad = At(kStartSeq, kPort4);
    bad.badChecksum = true;
    Send(bad, Bytes(20, 'x'));
    ASSERT_EQ(h.finished.mask, ENABLE_SHFE2PS);
    ASSERT_TRUE(Subscribed(0));

    // A segment that starts nothing is still followed by it.
    const std::string out = Logged([&] { SendAt(kStartSeq, Bytes(20, 'x'), kPort4); });
    EXPECT_EQ(Handler(out, "[W]"), std::vector<std::string>{"price check is error"});
    EXPECT_EQ(h.finished.mask, 0);
    EXPECT_FALSE(Subscribed(0));
}

// ---- Sweeps: one stream, many segmentations and delivery orders ----

struct Segment {
    uint32_t seq;
    Bytes payload;
};

struct SweepStream {
    Bytes bytes;
    int messages = 0;
    std::vector<bool> messageStart;  // by stream offset
    std::vector<uint32_t> slots;
};

// A whole SHFE 2ps snapshot: 24 instruments, their trades, books and totals
// in messages of many sizes (one of a bare header, one too short for a field).
SweepStream MakeSweepStream() {
    constexpr int kInstruments = 24;
    SweepStream s;
    const auto instNo = [](int i) { return 3 * i + 1; };
    const auto tick = [](int i) { return 0.5 * (1 + i % 4); };
    const auto codec = [](int i) { return 1000.0 + 100 * i; };
    const auto id = [](int i) {
        char text[16];
        snprintf(text, sizeof(text), "%s24%02d", i % 2 == 0 ? "cu" : "al", i);
        return std::string(text);
    };
    int requestId = 1;
    const auto add = [&](const CMdqpMessageBuilder& b) {
        const Bytes m = b.Build();
        s.messageStart.resize(s.bytes.size() + 1, false);
        s.messageStart[s.bytes.size()] = true;
        s.bytes.insert(s.bytes.end(), m.begin(), m.end());
        ++s.messages;
    };
    const auto inst = [&](CMdqpMessageBuilder& m, int i) {
        m.Inst(id(i), instNo(i), tick(i), codec(i), 5 + i);
        s.slots.push_back(static_cast<uint32_t>(instNo(i)));
    };

    CMdqpMessageBuilder first(kMdqpFlagMore, requestId++);
    first.Snap(kShfeTopic, 3).PacketNo(1);
    for (int i = 0; i < 4; ++i) {
        inst(first, i);
    }
    add(first);
    for (int i = 4; i < kInstruments;) {
        CMdqpMessageBuilder m(kMdqpFlagMore, requestId++);
        for (int k = 0; k < 1 + i % 3 && i < kInstruments; ++k, ++i) {
            inst(m, i);
        }
        add(m);
    }
    add(CMdqpMessageBuilder(kMdqpFlagMore, requestId++));
    add(CMdqpMessageBuilder(kMdqpFlagMore, requestId++).PacketNo(2));
    for (int i = 0; i < kInstruments; ++i) {
        const double c = codec(i), t = tick(i);
        DealInfoField deal = MakeDeal(instNo(i), c + t, c * 1.1, c * 0.9);
        if (i % 5 == 0) {
            deal.lowest_price = DBL_MAX;
        }
        CMdqpMessageBuilder m(kMdqpFlagMore, requestId++);
        m.Deal(deal);
        if (i % 4 == 3) {
            // A book run that began in an earlier message would be cleared again.
            add(m);
            m = CMdqpMessageBuilder(kMdqpFlagMore, requestId++);
        }
        const int levels = 1 + i % 5;
        for (int k = 0; k < levels; ++k) {
            m.Level(instNo(i), '0', c - t * (k + 1), 10 * (k + 1));
        }
        for (int k = 0; k < levels; ++k) {
            m.Level(instNo(i), '1', c + t * (k + 1), 20 * (k + 1));
        }
        m.Stats(instNo(i), 100 + i, 1000.5 * i, 200 + i, i % 6 == 0 ? DBL_MAX : 2000.25 * i);
        add(m);
    }
    add(CMdqpMessageBuilder(kMdqpFlagLast, requestId++).PacketNo(77).Stats(instNo(0), 1, 2.0, 3, 4.0));
    s.messageStart.resize(s.bytes.size() + 1, false);
    return s;
}

// Segments of `stream` cut at `cuts` (positions inside the stream).
std::vector<Segment> CutAt(const Bytes& stream, std::vector<size_t> cuts) {
    cuts.push_back(stream.size());
    std::sort(cuts.begin(), cuts.end());
    std::vector<Segment> segments;
    size_t from = 0;
    for (size_t cut : cuts) {
        if (cut <= from || cut > stream.size()) {
            continue;
        }
        segments.push_back({kStartSeq + static_cast<uint32_t>(from), Slice(stream, from, cut)});
        from = cut;
    }
    return segments;
}

Bytes FrameOf(const Segment& segment) {
    return build_tcp_frame(At(segment.seq), segment.payload);
}

// The decoded state of an in-order delivery.
struct DecodedState {
    std::unique_ptr<share> area{new share()};
    std::unique_ptr<PriceCalcInfo> calc{new PriceCalcInfo()};
    std::vector<inter_info> inter = std::vector<inter_info>(QUVO_INST_SLOTS);
    uint8_t finished = 0;

    explicit DecodedState(const CTcpHarness& h) {
        memcpy(static_cast<void*>(area.get()), h.area.get(), sizeof(share));
        memcpy(static_cast<void*>(calc.get()), h.calc.get(), sizeof(PriceCalcInfo));
        for (uint32_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
            inter[slot] = h.tcp->GetInterInfo(slot);
        }
        finished = h.finished.mask;
    }
};

::testing::AssertionResult SameState(const CTcpHarness& h, const DecodedState& ref) {
    const char* got = reinterpret_cast<const char*>(h.area.get());
    const char* want = reinterpret_cast<const char*>(ref.area.get());
    if (memcmp(got, want, sizeof(share)) != 0) {
        size_t at = 0;
        while (got[at] == want[at]) {
            ++at;
        }
        return ::testing::AssertionFailure()
               << "area differs at byte " << at << " (slot " << at / sizeof(instrument) << ")";
    }
    if (memcmp(h.calc.get(), ref.calc.get(), sizeof(PriceCalcInfo)) != 0) {
        return ::testing::AssertionFailure() << "price tables differ";
    }
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS; ++slot) {
        if (memcmp(&h.tcp->GetInterInfo(slot), &ref.inter[slot], sizeof(inter_info)) != 0) {
            return ::testing::AssertionFailure() << "limits differ in slot " << slot;
        }
    }
    if (h.finished.mask != ref.finished) {
        return ::testing::AssertionFailure() << "finished mask " << int(h.finished.mask);
    }
    return ::testing::AssertionSuccess();
}

// The same state, looking only at the slots the stream writes.
::testing::AssertionResult SameSlots(const CTcpHarness& h, const DecodedState& ref,
                                     const std::vector<uint32_t>& slots) {
    for (uint32_t slot : slots) {
        if (memcmp(&h.area->instmts[slot], &ref.area->instmts[slot], sizeof(instrument)) != 0) {
            return ::testing::AssertionFailure() << "slot " << slot << " differs";
        }
        if (h.calc->priceTick[slot] != ref.calc->priceTick[slot] ||
            h.calc->codecPrice[slot] != ref.calc->codecPrice[slot] ||
            h.calc->volumeMulti[slot] != ref.calc->volumeMulti[slot]) {
            return ::testing::AssertionFailure() << "price tables differ in slot " << slot;
        }
        if (memcmp(&h.tcp->GetInterInfo(slot), &ref.inter[slot], sizeof(inter_info)) != 0) {
            return ::testing::AssertionFailure() << "limits differ in slot " << slot;
        }
    }
    if (memcmp(&h.area->shfe_inst_cnt, &ref.area->shfe_inst_cnt, 4 * sizeof(int32_t)) != 0) {
        return ::testing::AssertionFailure() << "counts or packet numbers differ";
    }
    if (h.finished.mask != ref.finished) {
        return ::testing::AssertionFailure() << "finished mask " << int(h.finished.mask);
    }
    return ::testing::AssertionSuccess();
}

// Puts back what the stream wrote, without touching the rest of the area.
// The session, idle again after the last message, is restarted by the next
// start segment.
void ClearSlots(CTcpHarness& h, const std::vector<uint32_t>& slots) {
    for (uint32_t slot : slots) {
        memset(static_cast<void*>(&h.area->instmts[slot]), 0, sizeof(instrument));
        h.calc->priceTick[slot] = 0;
        h.calc->codecPrice[slot] = 0;
        h.calc->volumeMulti[slot] = 0;
        CExanicTcpFuncTestAccess::InterInfo(*h.tcp, slot) = {0, 0};
    }
    memset(&h.area->shfe_inst_cnt, 0, 4 * sizeof(int32_t));
    h.finished.mask = 0;
}

::testing::AssertionResult SessionDone(const TcpSession& s) {
    if (s.init != 0 || s.frag_flag != 0 || s.lost_flag != 0 || s.lost_buf_head != nullptr) {
        return ::testing::AssertionFailure() << "session left with init " << int(s.init) << " frag_flag "
                                             << int(s.frag_flag) << " lost_flag " << int(s.lost_flag);
    }
    return ::testing::AssertionSuccess();
}

constexpr size_t kGrid = 1400;

// Cuts every kGrid bytes, the first at `first`.
std::vector<size_t> Grid(size_t size, size_t first = kGrid) {
    std::vector<size_t> cuts;
    for (size_t at = first; at < size; at += kGrid) {
        cuts.push_back(at);
    }
    return cuts;
}

class ReassemblySweepTest : public ReassemblyTest {
protected:
    ReassemblySweepTest() : stream(MakeSweepStream()) {}

    // The state of the stream delivered in order on the grid, checked against
    // what the stream holds.
    std::unique_ptr<DecodedState> Reference() {
        CTcpHarness ref;
        std::string out;
        {
            CCommonLog::GetInstance().SetLogLevel(kAll);
            CStdoutCapture capture;
            for (const Segment& segment : CutAt(stream.bytes, Grid(stream.bytes.size()))) {
                ref.Handle(FrameOf(segment));
            }
            out = capture.Stop();
            CCommonLog::GetInstance().SetLogLevel(kQuiet);
        }
        std::vector<int> all;
        for (int id = 1; id <= stream.messages; ++id) {
            all.push_back(id);
        }
        EXPECT_EQ(DeliveredRequestIds(out), all);
        EXPECT_EQ(ref.finished.mask, ENABLE_SHFE2PS);
        EXPECT_EQ(ref.area->shfe_inst_cnt, 3 * 23 + 2);
        EXPECT_EQ(ref.area->shfe_pktno, 77);
        for (uint32_t slot : stream.slots) {
            EXPECT_NE(ref.area->instmts[slot].inst_id[0], 0) << slot;
            EXPECT_NE(ref.area->instmts[slot].bid_px[0], 0.0) << slot;
            EXPECT_NE(ref.area->instmts[slot].ask_px[0], 0.0) << slot;
            EXPECT_NE(ref.tcp->GetInterInfo(slot).upper_limit_price, 0.0) << slot;
        }
        EXPECT_EQ(ref.area->instmts[1].lowest_price, 0.0);
        EXPECT_EQ(ref.area->instmts[1].bid_totvol, 1);
        return std::make_unique<DecodedState>(ref);
    }

    SweepStream stream;
};

TEST_F(ReassemblySweepTest, SplitAtEveryBytePositionGivesTheInOrderState) {
    const std::unique_ptr<DecodedState> ref = Reference();
    const size_t n = stream.bytes.size();
    const uint32_t end = kStartSeq + static_cast<uint32_t>(n);
    const auto check = [&](size_t p, const char* how) {
        const ::testing::AssertionResult same = SameSlots(h, *ref, stream.slots);
        const ::testing::AssertionResult done = SessionDone(Session());
        const bool ok = same && done && Session().next_expt_seq == end;
        if (!ok) {
            ADD_FAILURE() << "split at " << p << ", " << how << ": " << same.message() << done.message()
                          << " next " << Session().next_expt_seq;
        }
        ClearSlots(h, stream.slots);
        return ok;
    };
    // Frames of whole grid steps recur for every split; the two pieces of a
    // split step are built each time.
    std::map<std::pair<size_t, size_t>, Bytes> gridFrames;
    Bytes piece;
    const auto onGrid = [&](size_t at) { return at == 0 || at == n || at % (kGrid / 2) == 0; };
    const auto frameAt = [&](size_t from, size_t to) -> const Bytes& {
        if (!onGrid(from) || !onGrid(to)) {
            piece = build_tcp_frame(At(kStartSeq + static_cast<uint32_t>(from)), stream.bytes.data() + from,
                                    to - from);
            return piece;
        }
        auto it = gridFrames.find({from, to});
        if (it == gridFrames.end()) {
            it = gridFrames
                     .emplace(std::make_pair(from, to),
                              build_tcp_frame(At(kStartSeq + static_cast<uint32_t>(from)),
                                              stream.bytes.data() + from, to - from))
                     .first;
        }
        return it->second;
    };
    size_t inOrder = 0, swapped = 0;
    std::vector<size_t> bounds;
    // A start segment needs 45 bytes.
    for (size_t p = 45; p < n; ++p) {
        // A one-byte segment at a message boundary is no message start, so
        // a p next to the grid moves the grid by half a step.
        const size_t offGrid = p % kGrid;
        bounds = Grid(n, offGrid <= 1 || offGrid == kGrid - 1 ? kGrid / 2 : kGrid);
        bounds.push_back(p);
        bounds.push_back(0);
        bounds.push_back(n);
        std::sort(bounds.begin(), bounds.end());
        bounds.erase(std::unique(bounds.begin(), bounds.end()), bounds.end());
        const size_t segments = bounds.size() - 1;
        for (size_t i = 0; i < segments; ++i) {
            SendReused(frameAt(bounds[i], bounds[i + 1]));
        }
        if (!check(p, "in order")) {
            break;
        }
        ++inOrder;
        // The segment after p first, held until the one before p arrives.
        const size_t before =
            static_cast<size_t>(std::find(bounds.begin(), bounds.end(), p) - bounds.begin()) - 1;
        if (before == 0) {
            continue;
        }
        for (size_t i = 0; i < segments; ++i) {
            const size_t k = i == before ? before + 1 : i == before + 1 ? before : i;
            SendReused(frameAt(bounds[k], bounds[k + 1]));
        }
        if (!check(p, "swapped")) {
            break;
        }
        ++swapped;
    }
    EXPECT_EQ(inOrder, n - 45);
    // Only splits inside the first segment have no segment before them to swap.
    EXPECT_GE(swapped, n - kGrid);
    // Nothing any split wrote outside the stream's slots.
    EXPECT_TRUE(AllZero(h.area.get(), sizeof(share)));
    EXPECT_TRUE(AllZero(h.calc.get(), sizeof(PriceCalcInfo)));
    EXPECT_TRUE(InterInfosZero(h));
}

enum Delivery : unsigned {
    kInOrder = 0,
    kReversed = 1,
    kShuffled = 2,
    kDuplicates = 4,  // repeats of segments already sent, and of the start after the end
    kPadding = 8,     // every frame padded with random bytes
    kNoise = 16,      // frames of other ports, protocols and hosts, and corrupted copies
};

std::string DeliveryName(unsigned how) {
    std::string name = how & kReversed ? "reversed" : how & kShuffled ? "shuffled" : "in order";
    name += how & kDuplicates ? "+duplicates" : "";
    name += how & kPadding ? "+padding" : "";
    name += how & kNoise ? "+noise" : "";
    return name;
}

// Random sizes in [minSize, maxSize]; the first at least 45 bytes, and none
// a single byte at a message boundary (no message start).
std::vector<Segment> RandomCut(const SweepStream& stream, std::mt19937& rng, size_t minSize, size_t maxSize) {
    std::vector<size_t> cuts;
    size_t at = std::max<size_t>(45, minSize) + rng() % (maxSize - std::max<size_t>(45, minSize) + 1);
    while (at < stream.bytes.size()) {
        cuts.push_back(at);
        const size_t size = minSize + rng() % (maxSize - minSize + 1);
        at += size == 1 && stream.messageStart[at] ? 2 : size;
    }
    return CutAt(stream.bytes, cuts);
}

Bytes Padded(Bytes frame, std::mt19937& rng) {
    const size_t padding = 1 + rng() % 60;
    for (size_t i = 0; i < padding; ++i) {
        frame.push_back(static_cast<char>(rng()));
    }
    return frame;
}

Bytes NoiseFor(const Segment& segment, std::mt19937& rng) {
    TcpSegmentFields noise = At(segment.seq);
    switch (rng() % 5) {
        case 0:
            noise.dstPort = kNotSnapshotPort;
            break;
        case 1:
            noise.protocol = 17;
            break;
        case 2:
            noise.protocol = 47;
            break;
        case 3:
            noise.srcHost = 0x0A0000FE;
            break;
        default: {
            // The same segment with a byte changed after the checksum was made.
            Bytes frame = build_tcp_frame(noise, segment.payload);
            frame[kHeaders + rng() % segment.payload.size()] ^= 0x5A;
            return frame;
        }
    }
    return build_tcp_frame(noise, segment.payload);
}

std::vector<Bytes> Deliveries(const std::vector<Segment>& segments, unsigned how, std::mt19937& rng) {
    std::vector<size_t> order;
    for (size_t i = 1; i < segments.size(); ++i) {
        order.push_back(i);
    }
    if (how & kReversed) {
        std::reverse(order.begin(), order.end());
    } else if (how & kShuffled) {
        for (size_t i = order.size(); i > 1; --i) {
            std::swap(order[i - 1], order[rng() % i]);
        }
    }
    const auto frame = [&](size_t k) {
        Bytes f = FrameOf(segments[k]);
        return how & kPadding ? Padded(std::move(f), rng) : f;
    };
    std::vector<Bytes> frames{frame(0)};
    std::vector<size_t> sent{0};
    // Repeats and noise go before the last original frame: that one ends the
    // snapshot, and an idle session would read later segments as starts.
    for (size_t k : order) {
        if ((how & kNoise) && rng() % 3 == 0) {
            frames.push_back(NoiseFor(segments[k], rng));
        }
        if ((how & kDuplicates) && rng() % 3 == 0) {
            frames.push_back(frame(sent[rng() % sent.size()]));
        }
        frames.push_back(frame(k));
        sent.push_back(k);
    }
    if (how & kDuplicates) {
        // A finished feed takes no new start.
        frames.push_back(frame(0));
    }
    return frames;
}

TEST_F(ReassemblySweepTest, RandomSegmentationsAndOrdersGiveTheInOrderState) {
    const std::unique_ptr<DecodedState> ref = Reference();
    std::vector<int> all;
    for (int id = 1; id <= stream.messages; ++id) {
        all.push_back(id);
    }
    const unsigned hows[] = {
        kInOrder,
        kReversed,
        kShuffled,
        kShuffled | kDuplicates,
        kInOrder | kPadding,
        kShuffled | kPadding,
        kShuffled | kNoise,
        kReversed | kDuplicates | kPadding | kNoise,
        kShuffled | kDuplicates | kPadding | kNoise,
    };
    const std::pair<size_t, size_t> sizes[] = {{1, 1400}, {1, 80}, {700, 1400}};
    int scenarios = 0;
    for (uint32_t seed : {11u, 22u, 33u}) {
        for (const auto& [minSize, maxSize] : sizes) {
            for (unsigned how : hows) {
                SCOPED_TRACE("seed " + std::to_string(seed) + ", sizes " + std::to_string(minSize) + ".." +
                             std::to_string(maxSize) + ", " + DeliveryName(how));
                std::mt19937 rng(seed);
                const std::vector<Segment> segments = RandomCut(stream, rng, minSize, maxSize);
                const std::vector<Bytes> frames = Deliveries(segments, how, rng);
                std::string out;
                {
                    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(LOG_DEBUG_EX));
                    CStdoutCapture capture;
                    for (const Bytes& frame : frames) {
                        SendReused(frame);
                    }
                    out = capture.Stop();
                    CCommonLog::GetInstance().SetLogLevel(kQuiet);
                }
                EXPECT_EQ(DeliveredRequestIds(out), all);
                // The whole area: a stray write of an earlier scenario would show here too.
                EXPECT_TRUE(SameState(h, *ref));
                EXPECT_TRUE(SessionDone(Session()));
                ClearSlots(h, stream.slots);
                ++scenarios;
            }
        }
    }
    EXPECT_EQ(scenarios, 81);
}

}  // namespace
