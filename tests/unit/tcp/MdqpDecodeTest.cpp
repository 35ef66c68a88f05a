#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"
#include "sim/MdqpBuilder.h"
#include "src/dev/soft/SoftCard.h"
#include "tests/support/LogLines.h"
#include "tests/support/SnapshotModel.h"
#include "tests/support/StdoutCapture.h"
#include "tests/support/TcpHarness.h"

namespace {

constexpr uint16_t kShfePort = CTcpHarness::kPort2ps;
constexpr uint16_t kInePort = CTcpHarness::kPort4ps;
constexpr uint16_t kShfe4psPort = 41000;
constexpr uint16_t kIne4psPort = 41001;
constexpr uint16_t kUnknownPort = 41002;
constexpr uint32_t kTopSlot = QUVO_INST_SLOTS - 1;

enum ELatch { kShfeCount80 = 0, kIneCount80 = 1, kShfeLimit = 2, kIneLimit = 3 };

using Messages = std::vector<std::string>;

std::string IdOf(const instrument& inst) {
    const char* p = reinterpret_cast<const char*>(inst.inst_id);
    return std::string(p, strnlen(p, sizeof(inst.inst_id)));
}

// The message with its length field set to `length`, whatever its bytes.
std::vector<char> WithLength(std::vector<char> msg, uint16_t length) {
    memcpy(msg.data() + offsetof(MdqpHeader, length), &length, sizeof(length));
    return msg;
}

// A trailing skipped field, so that a short field before it is not left in
// the last 8 body bytes, which are never read as a field start.
std::vector<char> Sealed(CMdqpMessageBuilder& b) {
    const char pad[12] = {};
    return b.RawField(MDQP_FID_SKIP_0032, pad, sizeof(pad)).Build();
}

// Level-X messages of _ParseMdqp other than the header and field trace lines.
Messages DecodeNotes(const std::string& out) {
    Messages notes;
    for (const std::string& m : log_messages(out, "[X]", "_ParseMdqp")) {
        if (m.rfind("MDQP flag:", 0) != 0 && m.rfind("field_id:", 0) != 0) {
            notes.push_back(m);
        }
    }
    return notes;
}

size_t FieldTraceLines(const std::string& out) {
    size_t n = 0;
    for (const std::string& m : log_messages(out, "[X]", "_ParseMdqp")) {
        n += m.rfind("field_id:", 0) == 0 ? 1 : 0;
    }
    return n;
}

Messages AllAt(const std::string& out, const std::string& label) {
    Messages all;
    for (const LogLine& line : parse_log_lines(out)) {
        if (line.label == label) {
            all.push_back(line.message);
        }
    }
    return all;
}

class MdqpDecodeTest : public ::testing::Test {
protected:
    MdqpDecodeTest() {
        CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(31));
        SetSessionTypes();
    }

    void SetSessionTypes() {
        Session(kShfePort).em_dqp_data_type = SHFE_2PS;
        Session(kInePort).em_dqp_data_type = INE_2PS;
        Session(kShfe4psPort).em_dqp_data_type = SHFE_4PS;
        Session(kIne4psPort).em_dqp_data_type = INE_4PS;
    }

    TcpSession& Session(uint16_t port) { return CExanicTcpFuncTestAccess::Session(*h.tcp, port); }

    // Decodes one message from a buffer with the read slack zeroed after it;
    // the buffer stays in m_buf until the next call.
    int Parse(const std::vector<char>& msg, uint16_t port = kShfePort) {
        m_buf.assign(msg.begin(), msg.end());
        m_buf.resize(msg.size() + kMdqpReadSlack, 0);
        return CExanicTcpFuncTestAccess::ParseMdqp(*h.tcp, reinterpret_cast<MdqpHeader*>(m_buf.data()), port);
    }

    std::string ParseLogged(const std::vector<char>& msg, uint16_t port = kShfePort) {
        CStdoutCapture capture;
        EXPECT_EQ(Parse(msg, port), 0);
        return capture.Stop();
    }

    instrument& Slot(uint32_t slot) { return h.area->instmts[slot]; }

    void MarkSubscribed(uint32_t slot, const char* id) { memcpy(Slot(slot).inst_id, id, strlen(id)); }

    // Levels 0..9 of both sides set to recognisable values that no test sends.
    void FillStaleBook(uint32_t slot, double bidTop, double askTop) {
        for (int k = 0; k < QUVO_BOOK_LEVELS; ++k) {
            Slot(slot).bid_px[k] = bidTop - k;
            Slot(slot).bid_vol[k] = 900 + k;
            Slot(slot).ask_px[k] = askTop + k;
            Slot(slot).ask_vol[k] = 800 + k;
        }
    }

    bool Latch(ELatch which) { return CExanicTcpFuncTestAccess::Latch(*h.tcp, which); }

    bool AreaIsZero() { return all_zero(h.area.get(), sizeof(share)); }

    bool CalcIsZero() { return all_zero(h.calc.get(), sizeof(PriceCalcInfo)); }

    void ListenOnly(std::vector<std::string> entries) {
        h.config.recvall = 0;
        h.config.total_listen_cnt = static_cast<uint32_t>(entries.size());
        h.config.listen_insts = std::move(entries);
    }

    CTcpHarness h;
    std::vector<char> m_buf;
};

// ---- message length and the field walk ----

TEST_F(MdqpDecodeTest, LengthOfEightOrLessDecodesNoFieldButLastFlagStillFinishes) {
    const std::vector<char> withField = CMdqpMessageBuilder(kMdqpFlagLast).PacketNo(77).Build();
    ASSERT_EQ(withField.size(), 16u);
    for (uint16_t length = 0; length <= 8; ++length) {
        SCOPED_TRACE(length);
        h.finished.mask = 0;
        Session(kShfePort).init = 1;
        const std::string out = ParseLogged(WithLength(withField, length));
        EXPECT_EQ(h.area->shfe_pktno, 0);
        EXPECT_EQ(FieldTraceLines(out), 0u);
        EXPECT_EQ(h.finished.mask, ENABLE_SHFE2PS);
        EXPECT_EQ(Session(kShfePort).init, 0);
        EXPECT_EQ(log_messages(out, "[I]", "_ParseMdqp"),
                  Messages{"shfe2ps init finished, total instruments:0"});
    }
}

TEST_F(MdqpDecodeTest, LengthOfNineDecodesTheFirstField) {
    std::vector<char> msg = CMdqpMessageBuilder(kMdqpFlagMore).PacketNo(77).Build();
    msg.push_back(0);
    const std::string out = ParseLogged(WithLength(msg, 9));
    EXPECT_EQ(h.area->shfe_pktno, 77);
    EXPECT_EQ(FieldTraceLines(out), 1u);
    EXPECT_EQ(h.finished.mask, 0);
}

TEST_F(MdqpDecodeTest, HeaderAndFieldsAreTracedAtDebugEx) {
    CMdqpMessageBuilder b(kMdqpFlagMore, 42);
    b.PacketNo(3);
    const std::string out = ParseLogged(Sealed(b));
    EXPECT_EQ(
        log_messages(out, "[X]", "_ParseMdqp"),
        (Messages{"MDQP flag: 0x11, type_id: 0x32, length: 24, requset_id: 42",
                  "field_id: 0x1004, field_size: 4", "packet_no: 3", "field_id: 0x32, field_size: 12"}));
}

TEST_F(MdqpDecodeTest, FieldStartingInTheLastEightBodyBytesIsNeverRead) {
    // Second field at body offset 8 of a 16-byte body: header offset 16 == length.
    const std::string out = ParseLogged(CMdqpMessageBuilder().PacketNo(5).PacketNo(6).Build());
    EXPECT_EQ(h.area->shfe_pktno, 5);
    EXPECT_EQ(FieldTraceLines(out), 1u);

    // An unknown id there is not even looked at.
    const char body[4] = {};
    const std::string out2 = ParseLogged(CMdqpMessageBuilder()
                                             .Inst("cu2501", 1, 10.0, 70000.0, 5)
                                             .RawField(0x0777, body, sizeof(body))
                                             .Build());
    EXPECT_EQ(IdOf(Slot(1)), "cu2501");
    EXPECT_EQ(FieldTraceLines(out2), 1u);
    EXPECT_TRUE(AllAt(out2, "[E]").empty());
}

TEST_F(MdqpDecodeTest, FieldStartingNineBytesBeforeTheEndIsRead) {
    char longer[5] = {};
    const int32_t six = 6;
    memcpy(longer, &six, sizeof(six));
    const std::vector<char> msg =
        CMdqpMessageBuilder().PacketNo(5).RawField(MDQP_FID_PACKET_NO, longer, sizeof(longer)).Build();
    ASSERT_EQ(msg.size(), 8u + 17u);
    const std::string out = ParseLogged(msg);
    EXPECT_EQ(h.area->shfe_pktno, 6);
    EXPECT_EQ(FieldTraceLines(out), 2u);
}

TEST_F(MdqpDecodeTest, UnknownFieldIdIsLoggedAtErrorAndSkipped) {
    const char three[3] = {1, 2, 3};
    const char five[5] = {};
    CMdqpMessageBuilder b;
    b.RawField(0x0007, three, sizeof(three)).RawField(0x0205, five, sizeof(five)).PacketNo(9);
    const std::string out = ParseLogged(Sealed(b));
    EXPECT_EQ(log_messages(out, "[E]", "_ParseMdqp"),
              (Messages{"unknown fieldID: 07", "unknown fieldID: 205"}));
    EXPECT_EQ(h.area->shfe_pktno, 9);
    EXPECT_TRUE(AllAt(out, "[W]").empty());
}

TEST_F(MdqpDecodeTest, ReservedFieldIdsAreSkippedSilently) {
    const char bytes[12] = {0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01};
    CMdqpMessageBuilder b;
    b.RawField(MDQP_FID_SKIP_0031, bytes, 2)
        .RawField(MDQP_FID_SKIP_0032, bytes, 0)
        .Snap(1000, 3)
        .RawField(MDQP_FID_SKIP_1002, bytes, 12)
        .RawField(MDQP_FID_SKIP_1003, bytes, 1)
        .PacketNo(4);
    const std::string out = ParseLogged(Sealed(b));
    EXPECT_EQ(h.area->shfe_pktno, 4);
    EXPECT_EQ(FieldTraceLines(out), 7u);
    EXPECT_TRUE(AllAt(out, "[E]").empty());
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_EQ(DecodeNotes(out), Messages{"packet_no: 4"});
}

TEST_F(MdqpDecodeTest, ParseAlwaysReturnsZero) {
    const char junk[4] = {};
    EXPECT_EQ(Parse(CMdqpMessageBuilder().RawField(0x7777, junk, 4).Inst("cu2501", 99999, 1, 1, 1).Build()),
              0);
    EXPECT_EQ(Parse(CMdqpMessageBuilder(kMdqpFlagLast).Build(), kUnknownPort), 0);
}

// ---- instrument definitions ----

TEST_F(MdqpDecodeTest, SixCharacterIdIsAcceptedWithOptionsOff) {
    h.config.options = 0;
    const std::string out = ParseLogged(CMdqpMessageBuilder().Inst("cu2409", 3, 10.0, 70000.0, 5).Build());
    EXPECT_EQ(IdOf(Slot(3)), "cu2409");
    EXPECT_EQ(h.area->shfe_inst_cnt, 4);
    EXPECT_EQ(h.calc->priceTick[3], 10.0);
    EXPECT_EQ(h.calc->codecPrice[3], 70000.0);
    EXPECT_EQ(h.calc->volumeMulti[3], 5);
    EXPECT_EQ(
        DecodeNotes(out),
        Messages{
            "inst_id: cu2409, inst_no: 3, vol_multi: 5, price_tick: 10.000000, codec_price: 70000.000000"});
    EXPECT_EQ(log_messages(out, "[D]", "_ParseMdqp"),
              Messages{"instrument [cu2409] subscribed, inst_no [3]"});
}

TEST_F(MdqpDecodeTest, LongerIdIsRejectedAsAnOptionWithOptionsOff) {
    h.config.options = 0;
    CRegisterRecorder recorder(h.registers.data());
    recorder.Start();
    const std::string out =
        ParseLogged(CMdqpMessageBuilder().Inst("cu2409C70000", 3, 10.0, 70000.0, 5).Build());
    recorder.Stop();
    const Messages notes = DecodeNotes(out);
    ASSERT_EQ(notes.size(), 2u);
    EXPECT_EQ(notes[1], "do not subscribe options, instrumentID: cu2409C70000");
    EXPECT_TRUE(recorder.GetAccesses().empty());
    EXPECT_EQ(h.area->shfe_inst_cnt, 0);
    EXPECT_TRUE(AreaIsZero());
    EXPECT_TRUE(CalcIsZero());
    EXPECT_TRUE(log_messages(out, "[D]", "_ParseMdqp").empty());

    // A seven-character id is already an option.
    Parse(CMdqpMessageBuilder().Inst("cu2409C", 4, 10.0, 70000.0, 5).Build());
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 4));
    EXPECT_EQ(h.area->shfe_inst_cnt, 0);
}

TEST_F(MdqpDecodeTest, LongerIdIsAcceptedWithOptionsOn) {
    h.config.options = 1;
    Parse(CMdqpMessageBuilder().Inst("cu2409C70000", 3, 0.5, 120.0, 5).Build());
    EXPECT_EQ(IdOf(Slot(3)), "cu2409C70000");
    EXPECT_EQ(h.calc->priceTick[3], 0.5);
}

TEST_F(MdqpDecodeTest, ListenedProductPrefixSubscribes) {
    ListenOnly({"cu"});
    Parse(CMdqpMessageBuilder().Inst("cu2409", 3, 10, 1, 5).Inst("al2409", 4, 5, 1, 5).Build());
    EXPECT_EQ(IdOf(Slot(3)), "cu2409");
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 4));
}

TEST_F(MdqpDecodeTest, ListenedSixCharacterIdSubscribes) {
    ListenOnly({"cu2409"});
    Parse(CMdqpMessageBuilder()
              .Inst("cu2409", 3, 10, 1, 5)
              .Inst("cu2410", 4, 10, 1, 5)
              .Inst("cu2409C70000", 5, 10, 1, 5)
              .Build());
    EXPECT_EQ(IdOf(Slot(3)), "cu2409");
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 4));
    EXPECT_EQ(IdOf(Slot(5)), "cu2409C70000");
}

TEST_F(MdqpDecodeTest, ListenedSingleCharacterSubscribesNothingLonger) {
    ListenOnly({"c"});
    CRegisterRecorder recorder(h.registers.data());
    recorder.Start();
    Parse(CMdqpMessageBuilder().Inst("cu2409", 3, 10, 1, 5).Inst("cu", 4, 10, 1, 5).Build());
    recorder.Stop();
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 3));
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 4));
    EXPECT_TRUE(recorder.GetAccesses().empty());
    // The instruments were still defined.
    EXPECT_EQ(h.area->shfe_inst_cnt, 5);
    EXPECT_EQ(h.calc->priceTick[3], 10.0);
}

TEST_F(MdqpDecodeTest, ShortIdIsComparedWhole) {
    ListenOnly({"c", "cu240"});
    Parse(CMdqpMessageBuilder()
              .Inst("c", 1, 10, 1, 5)
              .Inst("cu240", 2, 10, 1, 5)
              .Inst("cu2409", 3, 10, 1, 5)
              .Inst("cu24", 4, 10, 1, 5)
              .Build());
    EXPECT_EQ(IdOf(Slot(1)), "c");
    EXPECT_EQ(IdOf(Slot(2)), "cu240");
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 3));
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 4));
}

TEST_F(MdqpDecodeTest, ThreeCharacterEntryIsNeitherPrefixNorId) {
    ListenOnly({"cu2", "cu2409C"});
    h.config.options = 1;
    Parse(CMdqpMessageBuilder().Inst("cu2409", 3, 10, 1, 5).Inst("cu2409C70000", 4, 10, 1, 5).Build());
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 3));
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 4));
}

TEST_F(MdqpDecodeTest, ListenCountBoundsTheList) {
    ListenOnly({"al", "cu"});
    h.config.total_listen_cnt = 1;
    Parse(CMdqpMessageBuilder().Inst("cu2409", 3, 10, 1, 5).Inst("al2409", 4, 10, 1, 5).Build());
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 3));
    EXPECT_EQ(IdOf(Slot(4)), "al2409");

    h.config.total_listen_cnt = 0;
    Parse(CMdqpMessageBuilder().Inst("al2410", 5, 10, 1, 5).Build());
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 5));
}

TEST_F(MdqpDecodeTest, RecvallSubscribesWhateverTheList) {
    ListenOnly({"zz"});
    h.config.recvall = 1;
    Parse(CMdqpMessageBuilder().Inst("cu2409", 3, 10, 1, 5).Build());
    EXPECT_EQ(IdOf(Slot(3)), "cu2409");
}

TEST_F(MdqpDecodeTest, IdCopyStopsAtFifteenAndLeavesTheSixteenthByte) {
    Slot(2).inst_id[15] = 0x7E;
    Parse(CMdqpMessageBuilder().Inst("abcdefghijklmnopqrstu", 2, 1, 1, 1).Build());
    EXPECT_EQ(memcmp(Slot(2).inst_id, "abcdefghijklmno", 15), 0);
    EXPECT_EQ(Slot(2).inst_id[15], 0x7E);
}

TEST_F(MdqpDecodeTest, ShorterIdIsPaddedWithZerosUpToFifteen) {
    memcpy(Slot(2).inst_id, "zn2409C12345678Z", 16);
    Parse(CMdqpMessageBuilder().Inst("cu2409", 2, 1, 1, 1).Build());
    const unsigned char want[16] = {'c', 'u', '2', '4', '0', '9', 0, 0, 0, 0, 0, 0, 0, 0, 0, 'Z'};
    EXPECT_EQ(memcmp(Slot(2).inst_id, want, 16), 0);
}

TEST_F(MdqpDecodeTest, IneInstNoZeroLandsInTheLastSlot) {
    Parse(CMdqpMessageBuilder().Inst("sc2501", 0, 0.1, 550.0, 1000).Build(), kInePort);
    EXPECT_EQ(IdOf(Slot(kTopSlot)), "sc2501");
    EXPECT_EQ(h.area->ine_inst_cnt, 1);
    EXPECT_EQ(h.area->shfe_inst_cnt, 0);
    EXPECT_EQ(h.calc->priceTick[kTopSlot], 0.1);
    EXPECT_EQ(h.calc->volumeMulti[kTopSlot], 1000);
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 0));
}

TEST_F(MdqpDecodeTest, IneInstNo4095IsTheLastAccepted) {
    Parse(CMdqpMessageBuilder().Inst("sc2612", 4095, 0.1, 550.0, 1000).Build(), kInePort);
    EXPECT_EQ(IdOf(Slot(16384)), "sc2612");
    EXPECT_EQ(h.area->ine_inst_cnt, 4096);

    const std::string out =
        ParseLogged(CMdqpMessageBuilder().Inst("sc2701", 4096, 0.1, 1, 1).Build(), kInePort);
    EXPECT_EQ(log_messages(out, "[W]", "_ProtectInstNo"), Messages{"instrument No [4096] exceed limit 4095"});
    EXPECT_EQ(h.area->ine_inst_cnt, 4096);
    EXPECT_FALSE(Latch(kIneLimit));
    EXPECT_TRUE(Latch(kShfeLimit));
}

TEST_F(MdqpDecodeTest, ShfeInstNo16383IsTheLastAccepted) {
    Parse(CMdqpMessageBuilder().Inst("cu2612", 16383, 10, 1, 5).Build());
    EXPECT_EQ(IdOf(Slot(16383)), "cu2612");
    EXPECT_EQ(h.area->shfe_inst_cnt, 16384);
}

TEST_F(MdqpDecodeTest, ShfeInstNo16384IsRefusedAndLoggedOnceAtMost) {
    // Slot 16384 belongs to INE 4095; a refused SHFE number must not reach it.
    MarkSubscribed(16384, "sc2612");
    const instrument before = Slot(16384);
    CRegisterRecorder recorder(h.registers.data());
    recorder.Start();
    CStdoutCapture capture;
    Parse(CMdqpMessageBuilder().Inst("cu2701", 16384, 10, 1, 5).Build());
    Parse(CMdqpMessageBuilder()
              .Deal(MakeDeal(16384, 100, 110, 90))
              .Level(16384, '0', 100, 1)
              .Stats(16384, 1, 2, 3, 4)
              .Inst("cu2702", 20000, 10, 1, 5)
              .Build());
    const std::string out = capture.Stop();
    recorder.Stop();
    EXPECT_EQ(log_messages(out, "[W]", "_ProtectInstNo"),
              Messages{"instrument No [16384] exceed limit 16383"});
    EXPECT_EQ(AllAt(out, "[W]").size(), 1u);
    EXPECT_EQ(h.area->shfe_inst_cnt, 0);
    EXPECT_EQ(memcmp(&Slot(16384), &before, sizeof(instrument)), 0);
    EXPECT_TRUE(recorder.GetAccesses().empty());
    EXPECT_TRUE(CalcIsZero());
    EXPECT_FALSE(Latch(kShfeLimit));
    EXPECT_TRUE(Latch(kIneLimit));
}

TEST_F(MdqpDecodeTest, InstNoLimitIsNeverLoggedAfterTheFirstCleandata) {
    CExanicTcpFuncTestAccess::Cleandata(*h.tcp);
    SetSessionTypes();
    for (int latch = 0; latch < 4; ++latch) {
        EXPECT_FALSE(Latch(static_cast<ELatch>(latch)));
    }
    CStdoutCapture capture;
    Parse(CMdqpMessageBuilder().Inst("cu2701", 16384, 10, 1, 5).Build());
    Parse(CMdqpMessageBuilder().Inst("sc2701", 4096, 10, 1, 5).Build(), kInePort);
    const std::string out = capture.Stop();
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_EQ(h.area->shfe_inst_cnt, 0);
    EXPECT_EQ(h.area->ine_inst_cnt, 0);
    EXPECT_TRUE(AreaIsZero());
}

TEST_F(MdqpDecodeTest, ProtectInstNoBoundsPerFeed) {
    CExanicTcpFuncTestAccess::SetLatches(*h.tcp, false);
    CExanicTcpFunc& t = *h.tcp;
    for (EMdqpDataType type : {SHFE_2PS, SHFE_4PS}) {
        EXPECT_TRUE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, 0));
        EXPECT_TRUE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, 16383));
        EXPECT_FALSE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, 16384));
        EXPECT_TRUE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, -1));
    }
    for (EMdqpDataType type : {INE_2PS, INE_4PS}) {
        EXPECT_TRUE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, 0));
        EXPECT_TRUE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, 4095));
        EXPECT_FALSE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, 4096));
        EXPECT_TRUE(CExanicTcpFuncTestAccess::ProtectInstNo(t, type, -1));
    }
}

TEST_F(MdqpDecodeTest, ProtectInstNoRefusesAnUnknownFeedSilently) {
    CStdoutCapture capture;
    EXPECT_FALSE(CExanicTcpFuncTestAccess::ProtectInstNo(*h.tcp, MDQP_DATA_TYPE_UNKNOW, 0));
    EXPECT_FALSE(CExanicTcpFuncTestAccess::ProtectInstNo(*h.tcp, MDQP_DATA_TYPE_UNKNOW, 100000));
    EXPECT_FALSE(CExanicTcpFuncTestAccess::ProtectInstNo(*h.tcp, static_cast<EMdqpDataType>(7), 1));
    EXPECT_TRUE(parse_log_lines(capture.Stop()).empty());
    EXPECT_TRUE(Latch(kShfeLimit));
    EXPECT_TRUE(Latch(kIneLimit));
}

TEST_F(MdqpDecodeTest, FieldsOfAnUnknownFeedWriteNothing) {
    Parse(CMdqpMessageBuilder()
              .Inst("cu2501", 1, 10, 1, 5)
              .Deal(MakeDeal(1, 100, 110, 90))
              .Level(1, '0', 100, 1)
              .Build(),
          kUnknownPort);
    EXPECT_TRUE(AreaIsZero());
    EXPECT_TRUE(CalcIsZero());
}

TEST_F(MdqpDecodeTest, NegativeInstNoPassesTheCheckButHasNoSlot) {
    CRegisterRecorder recorder(h.registers.data());
    recorder.Start();
    CStdoutCapture capture;
    Parse(CMdqpMessageBuilder()
              .Inst("cu2501", -1, 10, 1, 5)
              .Deal(MakeDeal(-1, 100, 110, 90))
              .Level(-1, '0', 100, 1)
              .Stats(-1, 1, 2, 3, 4)
              .Build());
    Parse(CMdqpMessageBuilder()
              .Inst("sc2501", -5, 10, 1, 5)
              .Deal(MakeDeal(-5, 100, 110, 90))
              .Level(-5, '1', 100, 1)
              .Build(),
          kInePort);
    const std::string out = capture.Stop();
    recorder.Stop();
    EXPECT_TRUE(recorder.GetAccesses().empty());
    EXPECT_TRUE(AreaIsZero());
    EXPECT_TRUE(CalcIsZero());
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, kTopSlot).upper_limit_price, 0.0);
}

// ---- counters and their warnings ----

TEST_F(MdqpDecodeTest, CountersHoldTheHighestNumberPlusOne) {
    h.config.recvall = 0;  // counted whether subscribed or not
    Parse(CMdqpMessageBuilder().Inst("cu2501", 5, 1, 1, 1).Inst("cu2502", 2, 1, 1, 1).Build());
    EXPECT_EQ(h.area->shfe_inst_cnt, 6);
    Parse(CMdqpMessageBuilder().Inst("cu2503", 9, 1, 1, 1).Inst("cu2504", 7, 1, 1, 1).Build(), kShfe4psPort);
    EXPECT_EQ(h.area->shfe_inst_cnt, 10);
    Parse(CMdqpMessageBuilder().Inst("sc2501", 9, 1, 1, 1).Inst("sc2502", 1, 1, 1, 1).Build(), kInePort);
    EXPECT_EQ(h.area->ine_inst_cnt, 10);
    Parse(CMdqpMessageBuilder().Inst("sc2503", 12, 1, 1, 1).Build(), kIne4psPort);
    EXPECT_EQ(h.area->ine_inst_cnt, 13);
    EXPECT_EQ(h.area->shfe_inst_cnt, 10);
}

TEST_F(MdqpDecodeTest, ShfeCountAbove12800WarnsOnce) {
    std::string out = ParseLogged(CMdqpMessageBuilder().Inst("cu2501", 12799, 1, 1, 1).Build());
    EXPECT_EQ(h.area->shfe_inst_cnt, 12800);
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_TRUE(Latch(kShfeCount80));

    out = ParseLogged(CMdqpMessageBuilder().Inst("cu2502", 12800, 1, 1, 1).Build());
    EXPECT_EQ(log_messages(out, "[W]", "_ParseMdqp"),
              Messages{"shfe_inst_cnt is [12801] more than 80% max cnt[12800]"});
    EXPECT_FALSE(Latch(kShfeCount80));
    EXPECT_TRUE(Latch(kIneCount80));

    out = ParseLogged(CMdqpMessageBuilder().Inst("cu2503", 13000, 1, 1, 1).Build(), kShfe4psPort);
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_EQ(h.area->shfe_inst_cnt, 13001);
}

TEST_F(MdqpDecodeTest, CountWarningNamesTheCountReachedByAJump) {
    h.config.recvall = 0;
    const std::string out = ParseLogged(CMdqpMessageBuilder().Inst("cu2501", 14000, 1, 1, 1).Build());
    EXPECT_EQ(log_messages(out, "[W]", "_ParseMdqp"),
              Messages{"shfe_inst_cnt is [14001] more than 80% max cnt[12800]"});
    EXPECT_FALSE(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 14000));
}

TEST_F(MdqpDecodeTest, IneCountAbove3200WarnsOnce) {
    std::string out = ParseLogged(CMdqpMessageBuilder().Inst("sc2501", 3199, 1, 1, 1).Build(), kInePort);
    EXPECT_EQ(h.area->ine_inst_cnt, 3200);
    EXPECT_TRUE(AllAt(out, "[W]").empty());

    out = ParseLogged(CMdqpMessageBuilder().Inst("sc2502", 3200, 1, 1, 1).Build(), kInePort);
    EXPECT_EQ(log_messages(out, "[W]", "_ParseMdqp"),
              Messages{"ine_inst_cnt is [3201] more than 80% max cnt[3200]"});
    EXPECT_FALSE(Latch(kIneCount80));
    EXPECT_TRUE(Latch(kShfeCount80));

    out = ParseLogged(CMdqpMessageBuilder().Inst("sc2503", 4000, 1, 1, 1).Build(), kIne4psPort);
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_EQ(h.area->ine_inst_cnt, 4001);
}

TEST_F(MdqpDecodeTest, CountWarningsAreNeverGivenAfterCleandata) {
    CExanicTcpFuncTestAccess::Cleandata(*h.tcp);
    SetSessionTypes();
    CStdoutCapture capture;
    Parse(CMdqpMessageBuilder().Inst("cu2501", 16000, 1, 1, 1).Build());
    Parse(CMdqpMessageBuilder().Inst("sc2501", 4000, 1, 1, 1).Build(), kInePort);
    const std::string out = capture.Stop();
    EXPECT_TRUE(AllAt(out, "[W]").empty());
    EXPECT_EQ(h.area->shfe_inst_cnt, 16001);
    EXPECT_EQ(h.area->ine_inst_cnt, 4001);
    for (int latch = 0; latch < 4; ++latch) {
        EXPECT_FALSE(Latch(static_cast<ELatch>(latch)));
    }
}

// ---- the card's subscription registers ----

TEST_F(MdqpDecodeTest, SubscriptionWritesTheNumberThenTheStrobe) {
    CRegisterRecorder recorder(h.registers.data());
    recorder.Start();
    Parse(CMdqpMessageBuilder().Inst("cu2501", 7, 1, 1, 1).Inst("al2501", 300, 1, 1, 1).Build());
    Parse(CMdqpMessageBuilder().Inst("sc2501", 3, 1, 1, 1).Build(), kInePort);
    Parse(CMdqpMessageBuilder().Inst("cu2502", 8, 1, 1, 1).Build(), kShfe4psPort);
    Parse(CMdqpMessageBuilder().Inst("sc2502", 4, 1, 1, 1).Build(), kIne4psPort);
    h.config.recvall = 0;
    Parse(CMdqpMessageBuilder().Inst("zn2501", 9, 1, 1, 1).Build());
    recorder.Stop();
    const std::vector<RegisterAccess> want = {
        {true, 0x700, 7}, {true, 0x701, 1}, {true, 0x700, 300}, {true, 0x701, 1}, {true, 0x704, 3},
        {true, 0x705, 1}, {true, 0x700, 8}, {true, 0x701, 1},   {true, 0x704, 4}, {true, 0x705, 1},
    };
    EXPECT_EQ(recorder.GetAccesses(), want);
    const char* bytes = reinterpret_cast<const char*>(h.registers.data());
    uint32_t word;
    memcpy(&word, bytes + 0x1C00, 4);
    EXPECT_EQ(word, 8u);
    memcpy(&word, bytes + 0x1C04, 4);
    EXPECT_EQ(word, 1u);
    memcpy(&word, bytes + 0x1C10, 4);
    EXPECT_EQ(word, 4u);
    memcpy(&word, bytes + 0x1C14, 4);
    EXPECT_EQ(word, 1u);
}

// ---- the finished mask ----

TEST_F(MdqpDecodeTest, LastFlagSetsTheFeedBitLogsAndEndsTheSession) {
    h.area->shfe_inst_cnt = 12;
    h.area->ine_inst_cnt = 34;
    struct Case {
        uint16_t port;
        uint8_t mask;
        const char* message;
    };
    const Case cases[] = {
        {kShfePort, 0x01, "shfe2ps init finished, total instruments:12"},
        {kShfe4psPort, 0x03, "shfe4ps init finished, total instruments:12"},
        {kInePort, 0x07, "ine2ps init finished, total instruments:34"},
        {kIne4psPort, 0x0F, "ine4ps init finished, total instruments:34"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        Session(c.port).init = 1;
        const std::string out = ParseLogged(CMdqpMessageBuilder(kMdqpFlagLast).Build(), c.port);
        EXPECT_EQ(h.finished.mask, c.mask);
        EXPECT_EQ(Session(c.port).init, 0);
        EXPECT_EQ(log_messages(out, "[I]", "_ParseMdqp"), Messages{c.message});
    }
}

TEST_F(MdqpDecodeTest, FinishingKeepsTheOtherBits) {
    h.finished.mask = 0xF0 | ENABLE_INE4PS;
    Parse(CMdqpMessageBuilder(kMdqpFlagLast).Inst("sc2501", 0, 1, 1, 1).Build(), kInePort);
    EXPECT_EQ(h.finished.mask, 0xF0 | ENABLE_INE4PS | ENABLE_INE2PS);
    EXPECT_EQ(IdOf(Slot(kTopSlot)), "sc2501");
}

TEST_F(MdqpDecodeTest, MoreFlagLeavesTheFeedOpen) {
    Session(kShfePort).init = 1;
    const std::string out = ParseLogged(CMdqpMessageBuilder(kMdqpFlagMore).Build());
    EXPECT_EQ(h.finished.mask, 0);
    EXPECT_EQ(Session(kShfePort).init, 1);
    EXPECT_TRUE(AllAt(out, "[I]").empty());
}

TEST_F(MdqpDecodeTest, LastFlagOfAnUnknownFeedOnlyEndsTheSession) {
    Session(kUnknownPort).init = 1;
    const std::string out = ParseLogged(CMdqpMessageBuilder(kMdqpFlagLast).Build(), kUnknownPort);
    EXPECT_EQ(h.finished.mask, 0);
    EXPECT_EQ(Session(kUnknownPort).init, 0);
    EXPECT_TRUE(AllAt(out, "[I]").empty());
}

// ---- packet numbers ----

TEST_F(MdqpDecodeTest, PacketNumberGoesToTheFeedsSide) {
    CMdqpMessageBuilder shfe, ine, shfe4, ine4;
    shfe.PacketNo(11);
    ine.PacketNo(22);
    shfe4.PacketNo(33);
    ine4.PacketNo(44);
    const std::string out = ParseLogged(Sealed(shfe));
    EXPECT_EQ(h.area->shfe_pktno, 11);
    EXPECT_EQ(h.area->ine_pktno, 0);
    EXPECT_EQ(DecodeNotes(out), Messages{"packet_no: 11"});
    Parse(Sealed(ine), kInePort);
    EXPECT_EQ(h.area->ine_pktno, 22);
    EXPECT_EQ(h.area->shfe_pktno, 11);
    Parse(Sealed(shfe4), kShfe4psPort);
    EXPECT_EQ(h.area->shfe_pktno, 33);
    Parse(Sealed(ine4), kIne4psPort);
    EXPECT_EQ(h.area->ine_pktno, 44);
}

// ---- subscription state ----

TEST_F(MdqpDecodeTest, OnlyNulAndBlankFirstBytesAreUnsubscribed) {
    memcpy(Slot(5).inst_id, "xu2501", 6);
    for (int v = 0; v < 256; ++v) {
        Slot(5).inst_id[0] = static_cast<unsigned char>(v);
        EXPECT_EQ(CExanicTcpFuncTestAccess::IsSubscribed(*h.tcp, 5), v != 0x00 && v != 0x20) << v;
    }
}

TEST_F(MdqpDecodeTest, DealAndStatsOfAnUnsubscribedSlotAreSkippedSilently) {
    MarkSubscribed(5, " u2501");
    const std::string out = ParseLogged(CMdqpMessageBuilder()
                                            .Deal(MakeDeal(4, 100, 110, 90))
                                            .Stats(4, 1, 2, 3, 4)
                                            .Deal(MakeDeal(5, 100, 110, 90))
                                            .Stats(5, 1, 2, 3, 4)
                                            .Build());
    EXPECT_TRUE(DecodeNotes(out).empty());
    EXPECT_EQ(parse_log_lines(out).size(), log_messages(out, "[X]", "_ParseMdqp").size());
    const instrument zero{};
    instrument blank{};
    memcpy(blank.inst_id, " u2501", 6);
    EXPECT_EQ(memcmp(&Slot(4), &zero, sizeof(instrument)), 0);
    EXPECT_EQ(memcmp(&Slot(5), &blank, sizeof(instrument)), 0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).upper_limit_price, 0.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 5).lower_limit_price, 0.0);
}

TEST_F(MdqpDecodeTest, LevelOfAnUnsubscribedSlotIsLoggedWithTheSlot) {
    std::string out = ParseLogged(CMdqpMessageBuilder().Level(4, '0', 100, 1).Build());
    EXPECT_EQ(DecodeNotes(out), Messages{"skip unsubscribed inst, instNo : 4"});
    out = ParseLogged(CMdqpMessageBuilder().Level(2, '1', 100, 1).Build(), kInePort);
    EXPECT_EQ(DecodeNotes(out), Messages{"skip unsubscribed inst, instNo : 20477"});
    EXPECT_TRUE(AreaIsZero());
}

// ---- trade statistics and order totals ----

TEST_F(MdqpDecodeTest, DealInfoWritesOnlyItsMembers) {
    MarkSubscribed(4, "cu2501");
    FillStaleBook(4, 60, 70);
    Slot(4).update_time = 123456;
    Slot(4).type = 7;
    Slot(4).bid_totvol = 11;
    instrument want = Slot(4);

    DealInfoField d{};
    d.inst_no = 4;
    d.last_price = 70010.5;
    d.volume = 321;
    d.turnover = 1.5e9;
    d.open_interest = 12345;
    d.highest_price = 70500;
    d.lowest_price = 69500;
    d.open_price = 1;
    d.close_price = 2;
    d.settlement_price = 3;
    d.upper_limit_price = 75000;
    d.lower_limit_price = 65000;
    d.pre_settlement_price = 4;
    d.pre_close_price = 5;
    d.pre_open_interest = 6;
    d.pre_delta = 7;
    d.curr_delta = 8;
    memcpy(d.action_day, "20250102", 9);
    memcpy(d.update_time, "10:11:12", 9);
    d.update_mill_sec = 0x12345;
    d.change_no = 99;
    const std::string out = ParseLogged(CMdqpMessageBuilder().Deal(d).Build());

    want.last_px = 70010.5;
    want.turnover = 1.5e9;
    want.change_no = 99;
    want.update_milli_sec = 0x2345;
    want.open_interest = 12345;
    want.volume = 321;
    want.highest_price = 70500;
    want.lowest_price = 69500;
    EXPECT_EQ(memcmp(&Slot(4), &want, sizeof(instrument)), 0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).upper_limit_price, 75000.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).lower_limit_price, 65000.0);
    EXPECT_EQ(DecodeNotes(out),
              Messages{"last_price: 70010.500000, volume: 321, turnover: 1500000000.000000, "
                       "open_interest: 12345.000000, change_no: 99, update_time: 10:11:12, "
                       "update_mill_sec: 74565"});
}

TEST_F(MdqpDecodeTest, OrderTotalsAreCopied) {
    MarkSubscribed(kTopSlot - 3, "sc2501");
    Parse(CMdqpMessageBuilder().Stats(3, 100, 1.25e6, -7, 2.5e6).Build(), kInePort);
    EXPECT_EQ(Slot(kTopSlot - 3).bid_totvol, 100);
    EXPECT_EQ(Slot(kTopSlot - 3).bid_totamount, 1.25e6);
    EXPECT_EQ(Slot(kTopSlot - 3).ask_totvol, -7);
    EXPECT_EQ(Slot(kTopSlot - 3).ask_totamount, 2.5e6);
}

TEST_F(MdqpDecodeTest, DblMaxIsStoredAsZeroExceptTheRawFields) {
    DealInfoField d{};
    d.inst_no = 4;
    d.last_price = d.turnover = d.open_interest = d.highest_price = d.lowest_price = DBL_MAX;
    d.upper_limit_price = d.lower_limit_price = DBL_MAX;
    d.volume = 3;
    const std::vector<char> msg = CMdqpMessageBuilder()
                                      .Inst("cu2501", 4, DBL_MAX, DBL_MAX, 5)
                                      .Deal(d)
                                      .Level(4, '0', DBL_MAX, 3)
                                      .Stats(4, 1, DBL_MAX, 2, DBL_MAX)
                                      .Build();
    Parse(msg);
    EXPECT_EQ(h.calc->priceTick[4], DBL_MAX);
    EXPECT_EQ(h.calc->codecPrice[4], 0.0);
    EXPECT_EQ(h.calc->volumeMulti[4], 5);
    const instrument& inst = Slot(4);
    EXPECT_EQ(inst.last_px, 0.0);
    EXPECT_EQ(inst.turnover, 0.0);
    EXPECT_EQ(inst.open_interest, DBL_MAX);
    EXPECT_EQ(inst.highest_price, 0.0);
    EXPECT_EQ(inst.lowest_price, 0.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).upper_limit_price, 0.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).lower_limit_price, 0.0);
    EXPECT_EQ(inst.bid_px[0], 0.0);
    EXPECT_EQ(inst.bid_vol[0], 3);
    EXPECT_EQ(inst.bid_totamount, DBL_MAX);
    EXPECT_EQ(inst.ask_totamount, DBL_MAX);

    // The level's price is replaced in the message buffer too.
    const size_t priceAt =
        8 + (4 + sizeof(InstInfoField)) + (4 + sizeof(DealInfoField)) + 4 + offsetof(PriceDetailField, price);
    double inBuffer;
    memcpy(&inBuffer, m_buf.data() + priceAt, sizeof(inBuffer));
    EXPECT_EQ(inBuffer, 0.0);
}

TEST_F(MdqpDecodeTest, OnlyExactlyDblMaxIsEmpty) {
    const double below = std::nextafter(DBL_MAX, 0.0);
    DealInfoField d = MakeDeal(4, below, INFINITY, -DBL_MAX);
    d.turnover = -DBL_MAX;
    Parse(CMdqpMessageBuilder()
              .Inst("cu2501", 4, 1, below, 5)
              .Deal(d)
              .Level(4, '1', -DBL_MAX, 2)
              .Level(4, '0', below, 3)
              .Build());
    EXPECT_EQ(h.calc->codecPrice[4], below);
    EXPECT_EQ(Slot(4).last_px, below);
    EXPECT_EQ(Slot(4).turnover, -DBL_MAX);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).upper_limit_price, INFINITY);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).lower_limit_price, -DBL_MAX);
    EXPECT_EQ(Slot(4).ask_px[0], -DBL_MAX);
    EXPECT_EQ(Slot(4).bid_px[0], below);
}

// ---- price levels ----

TEST_F(MdqpDecodeTest, BidLevels100Then99Then98FillLevels0To2AndAFurther99OverwritesLevel1) {
    MarkSubscribed(4, "cu2501");
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 100, 1)
              .Level(4, '0', 99, 2)
              .Level(4, '0', 98, 3)
              .Level(4, '0', 99, 7)
              .Build());
    const double px[5] = {100, 99, 98, 0, 0};
    const int32_t vol[5] = {1, 7, 3, 0, 0};
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(Slot(4).bid_px[k], px[k]) << k;
        EXPECT_EQ(Slot(4).bid_vol[k], vol[k]) << k;
        EXPECT_EQ(Slot(4).ask_px[k], 0.0) << k;
        EXPECT_EQ(Slot(4).ask_vol[k], 0) << k;
    }
}

TEST_F(MdqpDecodeTest, AskLevelsFillUpwardAndARepeatedPriceOverwritesItsLevel) {
    MarkSubscribed(kTopSlot, "sc2501");
    Parse(CMdqpMessageBuilder()
              .Level(0, '1', 101, 1)
              .Level(0, '1', 102, 2)
              .Level(0, '1', 103, 3)
              .Level(0, '1', 102, 9)
              .Build(),
          kInePort);
    const double px[5] = {101, 102, 103, 0, 0};
    const int32_t vol[5] = {1, 9, 3, 0, 0};
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(Slot(kTopSlot).ask_px[k], px[k]) << k;
        EXPECT_EQ(Slot(kTopSlot).ask_vol[k], vol[k]) << k;
        EXPECT_EQ(Slot(kTopSlot).bid_px[k], 0.0) << k;
    }
}

TEST_F(MdqpDecodeTest, PriceWithinToleranceOfALevelOverwritesIt) {
    MarkSubscribed(4, "cu2501");
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 100, 1)
              .Level(4, '0', 99.999995, 2)
              .Level(4, '0', 99.99998, 3)
              .Level(4, '1', 101, 4)
              .Level(4, '1', 101.000005, 5)
              .Level(4, '1', 101.00002, 6)
              .Build());
    EXPECT_EQ(Slot(4).bid_px[0], 99.999995);
    EXPECT_EQ(Slot(4).bid_vol[0], 2);
    EXPECT_EQ(Slot(4).bid_px[1], 99.99998);
    EXPECT_EQ(Slot(4).ask_px[0], 101.000005);
    EXPECT_EQ(Slot(4).ask_vol[0], 5);
    EXPECT_EQ(Slot(4).ask_px[1], 101.00002);
}

TEST_F(MdqpDecodeTest, BetterPriceOverwritesInsteadOfShifting) {
    MarkSubscribed(4, "cu2501");
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 90, 1)
              .Level(4, '0', 95, 2)
              .Level(4, '1', 110, 3)
              .Level(4, '1', 105, 4)
              .Build());
    EXPECT_EQ(Slot(4).bid_px[0], 95);
    EXPECT_EQ(Slot(4).bid_vol[0], 2);
    EXPECT_EQ(Slot(4).bid_px[1], 0.0);
    EXPECT_EQ(Slot(4).ask_px[0], 105);
    EXPECT_EQ(Slot(4).ask_vol[0], 4);
    EXPECT_EQ(Slot(4).ask_px[1], 0.0);
}

TEST_F(MdqpDecodeTest, SixthSlotIsWrittenWhenThePriceIsWorseThanFiveOccupiedLevels) {
    MarkSubscribed(4, "cu2501");
    CMdqpMessageBuilder b;
    for (int k = 0; k < 5; ++k) {
        b.Level(4, '0', 100 - k, 1 + k).Level(4, '1', 101 + k, 11 + k);
    }
    b.Level(4, '0', 95, 6).Level(4, '1', 106, 16);
    Parse(b.Build());
    EXPECT_EQ(Slot(4).bid_px[5], 95);
    EXPECT_EQ(Slot(4).bid_vol[5], 6);
    EXPECT_EQ(Slot(4).ask_px[5], 106);
    EXPECT_EQ(Slot(4).ask_vol[5], 16);
    EXPECT_EQ(Slot(4).bid_px[4], 96);
    EXPECT_EQ(Slot(4).ask_px[4], 105);
    EXPECT_EQ(Slot(4).bid_px[6], 0.0);
    EXPECT_EQ(Slot(4).ask_px[6], 0.0);

    // A still worse price replaces the sixth slot again; a price within the
    // five goes to its own level.
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 100, 1)
              .Level(4, '0', 99, 1)
              .Level(4, '0', 98, 1)
              .Level(4, '0', 97, 1)
              .Level(4, '0', 96, 1)
              .Level(4, '0', 94, 7)
              .Level(4, '0', 93, 8)
              .Level(4, '0', 97.5, 9)
              .Build());
    EXPECT_EQ(Slot(4).bid_px[5], 93);
    EXPECT_EQ(Slot(4).bid_vol[5], 8);
    EXPECT_EQ(Slot(4).bid_px[3], 97.5);
    EXPECT_EQ(Slot(4).bid_vol[3], 9);
    EXPECT_EQ(Slot(4).bid_px[6], 0.0);
}

TEST_F(MdqpDecodeTest, ZeroVolumeAtAPriceOrVolumeAtZeroPriceIsAnOccupiedLevel) {
    MarkSubscribed(4, "cu2501");
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 100, 0)
              .Level(4, '0', 99, 1)
              .Level(4, '1', 0, 5)
              .Level(4, '1', 101, 1)
              .Build());
    EXPECT_EQ(Slot(4).bid_px[0], 100);
    EXPECT_EQ(Slot(4).bid_px[1], 99);
    EXPECT_EQ(Slot(4).ask_px[0], 0.0);
    EXPECT_EQ(Slot(4).ask_vol[0], 5);
    EXPECT_EQ(Slot(4).ask_px[1], 101);

    // A level with a price near zero and no volume is empty and taken first.
    Parse(CMdqpMessageBuilder().Level(4, '1', 0.000009, 0).Level(4, '1', 101, 1).Build());
    EXPECT_EQ(Slot(4).ask_px[0], 101);
    EXPECT_EQ(Slot(4).ask_vol[0], 1);
    EXPECT_EQ(Slot(4).ask_px[1], 0.0);
}

TEST_F(MdqpDecodeTest, UnknownDirectionWritesNoLevelButStillStartsARun) {
    MarkSubscribed(4, "cu2501");
    FillStaleBook(4, 60, 70);
    Parse(CMdqpMessageBuilder().Level(4, '2', 100, 1).Build());
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(Slot(4).bid_px[k], 0.0) << k;
        EXPECT_EQ(Slot(4).ask_px[k], 0.0) << k;
        EXPECT_EQ(Slot(4).bid_vol[k], 0) << k;
        EXPECT_EQ(Slot(4).ask_vol[k], 0) << k;
    }
    EXPECT_EQ(Slot(4).bid_px[5], 55);

    Parse(CMdqpMessageBuilder().Level(4, '0', 100, 1).Level(4, 'x', 99, 1).Level(4, '0', 98, 2).Build());
    EXPECT_EQ(Slot(4).bid_px[0], 100);
    EXPECT_EQ(Slot(4).bid_px[1], 98);
    EXPECT_EQ(Slot(4).bid_vol[1], 2);
}

TEST_F(MdqpDecodeTest, TwoPriceDetailRunsSeparatedByDealInfoClearTheBookTwice) {
    MarkSubscribed(4, "cu2501");
    FillStaleBook(4, 60, 70);
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 100, 1)
              .Level(4, '1', 101, 2)
              .Deal(MakeDeal(4, 100, 110, 90))
              .Level(4, '0', 98, 3)
              .Build());
    EXPECT_EQ(Slot(4).bid_px[0], 98);
    EXPECT_EQ(Slot(4).bid_vol[0], 3);
    for (int k = 1; k < 5; ++k) {
        EXPECT_EQ(Slot(4).bid_px[k], 0.0) << k;
    }
    for (int k = 0; k < 5; ++k) {
        EXPECT_EQ(Slot(4).ask_px[k], 0.0) << k;
        EXPECT_EQ(Slot(4).ask_vol[k], 0) << k;
    }
    // Levels 5..9 are never cleared.
    for (int k = 5; k < QUVO_BOOK_LEVELS; ++k) {
        EXPECT_EQ(Slot(4).bid_px[k], 60.0 - k) << k;
        EXPECT_EQ(Slot(4).bid_vol[k], 900 + k) << k;
        EXPECT_EQ(Slot(4).ask_px[k], 70.0 + k) << k;
        EXPECT_EQ(Slot(4).ask_vol[k], 800 + k) << k;
    }
}

TEST_F(MdqpDecodeTest, RunSwitchingInstrumentsDoesNotClearTheSecond) {
    MarkSubscribed(4, "cu2501");
    MarkSubscribed(5, "cu2502");
    FillStaleBook(4, 60, 70);
    FillStaleBook(5, 150, 170);
    Parse(CMdqpMessageBuilder().Level(4, '0', 100, 1).Level(5, '0', 200, 2).Build());
    EXPECT_EQ(Slot(4).bid_px[0], 100);
    EXPECT_EQ(Slot(4).bid_px[1], 0.0);
    EXPECT_EQ(Slot(4).ask_px[0], 0.0);
    EXPECT_EQ(Slot(5).bid_px[0], 200);
    EXPECT_EQ(Slot(5).bid_vol[0], 2);
    EXPECT_EQ(Slot(5).bid_px[1], 149);
    EXPECT_EQ(Slot(5).ask_px[0], 170);
    EXPECT_EQ(Slot(5).ask_vol[4], 804);
}

TEST_F(MdqpDecodeTest, EachMessageStartsANewRun) {
    MarkSubscribed(4, "cu2501");
    Parse(CMdqpMessageBuilder().Level(4, '0', 100, 1).Level(4, '0', 99, 1).Build());
    Parse(CMdqpMessageBuilder().Level(4, '0', 98, 4).Build());
    EXPECT_EQ(Slot(4).bid_px[0], 98);
    EXPECT_EQ(Slot(4).bid_vol[0], 4);
    EXPECT_EQ(Slot(4).bid_px[1], 0.0);
}

TEST_F(MdqpDecodeTest, SkippedFieldBetweenLevelsStartsANewRun) {
    MarkSubscribed(4, "cu2501");
    const char pad[2] = {};
    Parse(CMdqpMessageBuilder()
              .Level(4, '0', 100, 1)
              .RawField(MDQP_FID_SKIP_0031, pad, sizeof(pad))
              .Level(4, '0', 99, 2)
              .Build());
    EXPECT_EQ(Slot(4).bid_px[0], 99);
    EXPECT_EQ(Slot(4).bid_px[1], 0.0);
}

TEST_F(MdqpDecodeTest, LevelOfAnUnsubscribedInstrumentStillContinuesARun) {
    MarkSubscribed(4, "cu2501");
    Parse(CMdqpMessageBuilder().Level(4, '0', 100, 1).Level(6, '0', 50, 1).Level(4, '0', 99, 2).Build());
    EXPECT_EQ(Slot(4).bid_px[0], 100);
    EXPECT_EQ(Slot(4).bid_px[1], 99);
}

TEST_F(MdqpDecodeTest, InstrumentDefinedEarlierInTheMessageTakesItsFields) {
    h.config.recvall = 0;
    ListenOnly({"cu"});
    Parse(CMdqpMessageBuilder()
              .Deal(MakeDeal(4, 100, 110, 90))
              .Inst("cu2501", 4, 10, 1, 5)
              .Deal(MakeDeal(4, 101, 111, 91))
              .Level(4, '0', 100, 3)
              .Inst("al2501", 5, 5, 1, 5)
              .Deal(MakeDeal(5, 50, 60, 40))
              .Build());
    EXPECT_EQ(Slot(4).last_px, 101);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 4).upper_limit_price, 111);
    EXPECT_EQ(Slot(4).bid_px[0], 100);
    EXPECT_EQ(Slot(5).last_px, 0.0);
    EXPECT_EQ(CExanicTcpFuncTestAccess::InterInfo(*h.tcp, 5).upper_limit_price, 0.0);
}

}  // namespace
