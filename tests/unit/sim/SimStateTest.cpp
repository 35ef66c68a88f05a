#include "sim/SimState.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

// JSON text written by hand, so the reader is tested apart from the writer.
Fields instrument_fields() {
    return {{"exchange", "\"SHFE\""},
            {"inst_no", "3"},
            {"slot", "3"},
            {"id", "\"cu2501\""},
            {"kind", "\"future\""},
            {"price_tick", "10"},
            {"codec_price", "72000"},
            {"volume_multiple", "5"},
            {"upper_limit", "75600"},
            {"lower_limit", "68400"},
            {"change_no", "7"},
            {"last_px", "72010"},
            {"volume", "12"},
            {"turnover", "4320600.5"},
            {"open_interest", "1000"},
            {"bid_totvol", "30"},
            {"ask_totvol", "40"},
            {"bid_totamount", "2160000"},
            {"ask_totamount", "2880800"},
            {"highest_price", "72020"},
            {"lowest_price", "71990"},
            {"bid_px", "[72000, 71990, 0, 0, 0]"},
            {"bid_vol", "[3, 4, 0, 0, 0]"},
            {"ask_px", "[72010, 72020, 7.203e4, 0, 0]"},
            {"ask_vol", "[1, 2, 5, 0, 0]"}};
}

SimInstrumentState instrument_value() {
    SimInstrumentState inst;
    inst.exchange = ESimExchange::SHFE;
    inst.instNo = 3;
    inst.slot = 3;
    inst.id = "cu2501";
    inst.kind = ESimKind::FUTURE;
    inst.priceTick = 10;
    inst.codecPrice = 72000;
    inst.volumeMultiple = 5;
    inst.upperLimit = 75600;
    inst.lowerLimit = 68400;
    inst.changeNo = 7;
    inst.lastPx = 72010;
    inst.volume = 12;
    inst.turnover = 4320600.5;
    inst.openInterest = 1000;
    inst.bidTotVol = 30;
    inst.askTotVol = 40;
    inst.bidTotAmount = 2160000;
    inst.askTotAmount = 2880800;
    inst.highestPrice = 72020;
    inst.lowestPrice = 71990;
    const double bidPx[kSimPublishedLevels] = {72000, 71990, 0, 0, 0};
    const int32_t bidVol[kSimPublishedLevels] = {3, 4, 0, 0, 0};
    const double askPx[kSimPublishedLevels] = {72010, 72020, 72030, 0, 0};
    const int32_t askVol[kSimPublishedLevels] = {1, 2, 5, 0, 0};
    for (int level = 0; level < kSimPublishedLevels; ++level) {
        inst.bidPx[level] = bidPx[level];
        inst.bidVol[level] = bidVol[level];
        inst.askPx[level] = askPx[level];
        inst.askVol[level] = askVol[level];
    }
    return inst;
}

Fields top_fields() {
    return {{"seed", "1"}, {"records", "2"}, {"snapshots", "3"}, {"gaps", "4"}};
}

Fields fault_fields() {
    return {{"tcp_reorder", "11"},    {"tcp_duplicate", "12"},
            {"tcp_loss", "13"},       {"tcp_bad_checksum", "14"},
            {"tcp_padding", "15"},    {"tcp_other_protocol", "16"},
            {"tcp_other_port", "17"}, {"tcp_reset", "18"},
            {"raw_frames", "19"},     {"stale", "20"},
            {"crossed", "21"},        {"unknown_field", "22"},
            {"short_record", "23"},   {"bad_length", "24"},
            {"decoded_frames", "25"}};
}

SimFaultCounts fault_value() {
    SimFaultCounts faults;
    uint64_t* const counts[] = {&faults.tcpReorder,     &faults.tcpDuplicate, &faults.tcpLoss,
                                &faults.tcpBadChecksum, &faults.tcpPadding,   &faults.tcpOtherProtocol,
                                &faults.tcpOtherPort,   &faults.tcpReset,     &faults.rawFrames,
                                &faults.stale,          &faults.crossed,      &faults.unknownField,
                                &faults.shortRecord,    &faults.badLength,    &faults.decodedFrames};
    uint64_t value = 11;
    for (uint64_t* count : counts) {
        *count = value++;
    }
    return faults;
}

void set_field(Fields& fields, const std::string& key, const std::string& value) {
    for (auto& field : fields) {
        if (field.first == key) {
            field.second = value;
            return;
        }
    }
    fields.emplace_back(key, value);
}

void erase_field(Fields& fields, const std::string& key) {
    std::erase_if(fields, [&](const auto& field) { return field.first == key; });
}

std::string join_fields(const Fields& fields) {
    std::string text;
    for (const auto& [key, value] : fields) {
        text += (text.empty() ? "\"" : ", \"") + key + "\": " + value;
    }
    return text;
}

Fields top_fields_with_faults(const Fields& faults = fault_fields()) {
    Fields top = top_fields();
    top.emplace_back("faults", "{" + join_fields(faults) + "}");
    return top;
}

// The counts on line 1, then `instruments` as the value of "instruments".
std::string counts_then(const std::string& instruments, const Fields& top = top_fields()) {
    return "{" + join_fields(top) + ",\n\"instruments\": " + instruments + "}";
}

// The counts are on line 1 and instrument i on line 3 + i.
std::string document(const std::vector<Fields>& instruments, const Fields& top = top_fields()) {
    std::string list = "[";
    for (size_t index = 0; index < instruments.size(); ++index) {
        list += (index == 0 ? "\n{" : ",\n{") + join_fields(instruments[index]) + "}";
    }
    return counts_then(list + "\n]", top) + "\n";
}

std::string two_instrument_document(const Fields& second) {
    return document({instrument_fields(), second});
}

SimState sentinel_state() {
    SimState state;
    state.seed = 99;
    state.instruments.push_back(instrument_value());
    state.instruments[0].id = "sentinel";
    return state;
}

// The error, after checking that parsing failed and left the state alone.
std::string parse_error(const std::string& text) {
    SimState state = sentinel_state();
    std::string error;
    EXPECT_FALSE(parse_sim_state(text, state, error));
    EXPECT_EQ(state, sentinel_state());
    return error;
}

uint64_t bits_of(double value) {
    uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

std::vector<double*> double_fields(SimInstrumentState& inst) {
    std::vector<double*> fields = {&inst.priceTick,    &inst.codecPrice,   &inst.upperLimit,
                                   &inst.lowerLimit,   &inst.lastPx,       &inst.turnover,
                                   &inst.openInterest, &inst.bidTotAmount, &inst.askTotAmount,
                                   &inst.highestPrice, &inst.lowestPrice};
    for (int level = 0; level < kSimPublishedLevels; ++level) {
        fields.push_back(&inst.bidPx[level]);
        fields.push_back(&inst.askPx[level]);
    }
    return fields;
}

std::vector<uint64_t> double_bits(const SimState& state) {
    std::vector<uint64_t> bits;
    for (SimInstrumentState inst : state.instruments) {
        for (const double* field : double_fields(inst)) {
            bits.push_back(bits_of(*field));
        }
    }
    return bits;
}

SimState round_trip(const SimState& state) {
    SimState back;
    std::string error;
    EXPECT_TRUE(parse_sim_state(format_sim_state(state), back, error)) << error;
    return back;
}

SimState awkward_state() {
    volatile double tenth = 0.1;
    const std::vector<double> awkward = {0.1,
                                         1e-300,
                                         -0.0,
                                         DBL_MAX,
                                         -DBL_MAX,
                                         std::numeric_limits<double>::denorm_min(),
                                         DBL_MIN,
                                         3 * tenth + 72000,
                                         72000,
                                         -72000.5,
                                         0.0,
                                         1.0 / 3.0,
                                         std::nextafter(72000.0, 1e9),
                                         9007199254740992.0,
                                         1e22,
                                         123456.789,
                                         -1e-5,
                                         4.35 * 100};
    SimState state;
    state.seed = 12345;
    state.records = 678;
    state.snapshots = 9;
    state.gaps = 8;
    state.faults = fault_value();
    state.faults.decodedFrames = std::numeric_limits<uint64_t>::max();
    // Every field gets several of the values across the instruments.
    for (size_t index = 0; index < awkward.size(); ++index) {
        SimInstrumentState inst = instrument_value();
        inst.instNo = static_cast<int32_t>(index);
        inst.id = "i" + std::to_string(index);
        const std::vector<double*> fields = double_fields(inst);
        for (size_t field = 0; field < fields.size(); ++field) {
            *fields[field] = awkward[(index + field) % awkward.size()];
        }
        state.instruments.push_back(inst);
    }
    return state;
}

TEST(SimStateTest, NamesMapBothWays) {
    for (const ESimExchange exchange : {ESimExchange::SHFE, ESimExchange::INE}) {
        ESimExchange parsed = exchange == ESimExchange::SHFE ? ESimExchange::INE : ESimExchange::SHFE;
        ASSERT_TRUE(sim_parse_exchange(sim_exchange_name(exchange), parsed));
        EXPECT_EQ(parsed, exchange);
    }
    for (const ESimKind kind : {ESimKind::FUTURE, ESimKind::OPTION, ESimKind::TAS, ESimKind::SPREAD}) {
        ESimKind parsed = kind == ESimKind::FUTURE ? ESimKind::SPREAD : ESimKind::FUTURE;
        ASSERT_TRUE(sim_parse_kind(sim_kind_name(kind), parsed));
        EXPECT_EQ(parsed, kind);
    }
    EXPECT_STREQ(sim_exchange_name(ESimExchange::INE), "INE");
    EXPECT_STREQ(sim_kind_name(ESimKind::TAS), "tas");
    ESimExchange exchange = ESimExchange::SHFE;
    ESimKind kind = ESimKind::FUTURE;
    for (const char* text : {"shfe", " SHFE", "SHFE ", "", "CFFEX"}) {
        EXPECT_FALSE(sim_parse_exchange(text, exchange)) << text;
    }
    for (const char* text : {"Future", "FUTURE", "", "futures", "stock"}) {
        EXPECT_FALSE(sim_parse_kind(text, kind)) << text;
    }
}

TEST(SimStateTest, ReadsHandWrittenDocument) {
    Fields ine = instrument_fields();
    set_field(ine, "exchange", "\"INE\"");
    set_field(ine, "inst_no", "12");
    set_field(ine, "slot", "20467");
    set_field(ine, "kind", "\"option\"");
    set_field(ine, "last_px", "-0.5");
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state(two_instrument_document(ine), state, error)) << error;
    EXPECT_EQ(state.seed, 1u);
    EXPECT_EQ(state.records, 2u);
    EXPECT_EQ(state.snapshots, 3u);
    EXPECT_EQ(state.gaps, 4u);
    EXPECT_EQ(state.faults, SimFaultCounts{}) << "a file without faults reads as none";
    ASSERT_EQ(state.instruments.size(), 2u);
    EXPECT_EQ(state.instruments[0], instrument_value());
    SimInstrumentState second = instrument_value();
    second.exchange = ESimExchange::INE;
    second.instNo = 12;
    second.slot = 20467;
    second.kind = ESimKind::OPTION;
    second.lastPx = -0.5;
    EXPECT_EQ(state.instruments[1], second);
}

TEST(SimStateTest, RoundTripKeepsEveryBitOfAwkwardDoubles) {
    const SimState state = awkward_state();
    const SimState back = round_trip(state);
    EXPECT_EQ(back, state);
    EXPECT_EQ(double_bits(back), double_bits(state));
    EXPECT_EQ(format_sim_state(back), format_sim_state(state));
}

TEST(SimStateTest, RoundTripThroughFileKeepsEveryBit) {
    CTempDir dir;
    const std::string path = dir.Path() + "/expected.json";
    const SimState state = awkward_state();
    std::string error;
    ASSERT_TRUE(write_sim_state(path, state, error)) << error;
    SimState back;
    ASSERT_TRUE(read_sim_state(path, back, error)) << error;
    EXPECT_EQ(back, state);
    EXPECT_EQ(double_bits(back), double_bits(state));
}

// Negative zero keeps its sign: it is written "-0.0" and read back negative.
TEST(SimStateTest, NegativeZeroKeepsItsSign) {
    SimState state;
    state.instruments.push_back(instrument_value());
    state.instruments[0].lastPx = -0.0;
    const std::string text = format_sim_state(state);
    EXPECT_NE(text.find("\"last_px\": -0.0,"), std::string::npos) << text;
    const SimState back = round_trip(state);
    ASSERT_EQ(back.instruments.size(), 1u);
    EXPECT_TRUE(std::signbit(back.instruments[0].lastPx));
    EXPECT_EQ(back.instruments[0].lastPx, 0.0);
}

TEST(SimStateTest, WholeNumbersPrintWithoutFractionOrExponent) {
    SimInstrumentState inst = instrument_value();
    inst.codecPrice = 72000;
    inst.lastPx = -5;
    inst.turnover = 0;
    inst.priceTick = 0.5;
    SimState state;
    state.instruments.push_back(inst);
    const std::string text = format_sim_state(state);
    EXPECT_NE(text.find("\"codec_price\": 72000,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"last_px\": -5,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"turnover\": 0,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"price_tick\": 0.5,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"bid_px\": [72000, 71990, 0, 0, 0]"), std::string::npos) << text;
}

TEST(SimStateTest, OneInstrumentPerLine) {
    SimState state = awkward_state();
    state.instruments.resize(3);
    const std::string text = format_sim_state(state);
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    EXPECT_EQ(start, text.size()) << "ends with a newline";
    ASSERT_EQ(lines.size(), 2 + state.instruments.size() + 1) << text;
    EXPECT_EQ(lines[0].rfind("{\"seed\": 12345, \"records\": 678, \"snapshots\": 9, \"gaps\": 8, "
                             "\"faults\": {\"tcp_reorder\": 11, ",
                             0),
              0u)
        << lines[0];
    EXPECT_EQ(lines[0].substr(lines[0].size() - 40), "\"decoded_frames\": 18446744073709551615},")
        << lines[0];
    for (size_t index = 0; index < state.instruments.size(); ++index) {
        const std::string& line = lines[2 + index];
        EXPECT_EQ(line.rfind("  {\"exchange\": \"SHFE\", \"inst_no\": " + std::to_string(index) + ",", 0), 0u)
            << line;
        for (const auto& [key, value] : instrument_fields()) {
            EXPECT_NE(line.find("\"" + key + "\": "), std::string::npos) << key;
        }
    }
}

TEST(SimStateTest, ReadsHandWrittenFaultCounts) {
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state(document({instrument_fields()}, top_fields_with_faults()), state, error))
        << error;
    EXPECT_EQ(state.faults, fault_value());
    EXPECT_EQ(state.gaps, 4u);
    EXPECT_EQ(state.instruments.at(0), instrument_value());
}

TEST(SimStateTest, FaultCountsRoundTripThroughFile) {
    CTempDir dir;
    const std::string path = dir.Path() + "/expected.json";
    SimState state;
    state.faults = fault_value();
    state.faults.tcpReset = std::numeric_limits<uint64_t>::max();
    state.faults.rawFrames = (uint64_t{1} << 53) + 1;  // a double cannot hold it
    state.instruments.push_back(instrument_value());
    std::string error;
    ASSERT_TRUE(write_sim_state(path, state, error)) << error;
    SimState back;
    ASSERT_TRUE(read_sim_state(path, back, error)) << error;
    EXPECT_EQ(back.faults, state.faults);
    EXPECT_EQ(back, state);
    // Each count under its own name, after "gaps".
    const std::string text = read_file(path);
    EXPECT_LT(text.find("\"gaps\": 0, \"faults\": {"), text.find("\"instruments\"")) << text;
    for (const auto& [key, value] : fault_fields()) {
        EXPECT_NE(text.find("\"" + key + "\": "), std::string::npos) << key;
    }
    EXPECT_NE(text.find("\"tcp_reset\": 18446744073709551615,"), std::string::npos) << text;
    EXPECT_NE(text.find("\"raw_frames\": 9007199254740993,"), std::string::npos) << text;
}

TEST(SimStateTest, BadFaultCountsAreNamedAtTheirLine) {
    for (const auto& [key, value] : fault_fields()) {
        for (const char* bad : {"-1", "1.5", "1e3", "\"3\"", "null", "true", "18446744073709551616"}) {
            Fields faults = fault_fields();
            set_field(faults, key, bad);
            EXPECT_EQ(parse_error(document({instrument_fields()}, top_fields_with_faults(faults))),
                      "<input>:1: faults: \"" + key +
                          "\" must be an integer from 0 to 18446744073709551615, not " +
                          (bad[0] == '"' ? std::string("a string") : std::string(bad)))
                << key << " = " << bad;
        }
        Fields missing = fault_fields();
        erase_field(missing, key);
        EXPECT_EQ(parse_error(document({instrument_fields()}, top_fields_with_faults(missing))),
                  "<input>:1: faults: missing \"" + key + "\"");
    }
    // A count on a line of its own is named at that line.
    Fields faults = fault_fields();
    set_field(faults, "tcp_loss", "\n-2");
    const std::string spread = "{" + join_fields(top_fields()) + ",\n\"faults\": {" + join_fields(faults) +
                               "}, \"instruments\": []}";
    EXPECT_EQ(parse_error(spread),
              "<input>:3: faults: \"tcp_loss\" must be an integer from 0 to 18446744073709551615, not -2");
    for (const char* notObject : {"[]", "0", "null", "\"none\""}) {
        Fields top = top_fields();
        top.emplace_back("faults", notObject);
        EXPECT_EQ(parse_error(document({instrument_fields()}, top))
                      .rfind("<input>:1: \"faults\" must be an object, not ", 0),
                  0u)
            << notObject;
    }
}

TEST(SimStateTest, UnknownFaultCountsAreIgnored) {
    Fields faults = fault_fields();
    faults.emplace_back("tcp_future_fault", "7");
    SimState state;
    std::string error;
    ASSERT_TRUE(
        parse_sim_state(document({instrument_fields()}, top_fields_with_faults(faults)), state, error))
        << error;
    EXPECT_EQ(state.faults, fault_value());
}

TEST(SimStateTest, EmptyInstrumentListRoundTrips) {
    SimState state;
    state.seed = 7;
    const SimState back = round_trip(state);
    EXPECT_EQ(back.seed, 7u);
    EXPECT_TRUE(back.instruments.empty());
}

TEST(SimStateTest, LargestCountsSurvive) {
    SimState state;
    state.seed = std::numeric_limits<uint64_t>::max();
    state.records = std::numeric_limits<uint64_t>::max() - 1;
    state.snapshots = (uint64_t{1} << 53) + 1;  // a double cannot hold it
    state.gaps = std::numeric_limits<uint64_t>::max();
    SimInstrumentState inst = instrument_value();
    inst.changeNo = std::numeric_limits<uint32_t>::max();
    inst.volume = std::numeric_limits<uint32_t>::max();
    inst.instNo = std::numeric_limits<int32_t>::min();
    inst.slot = std::numeric_limits<int32_t>::max();
    inst.bidVol[4] = std::numeric_limits<int32_t>::min();
    inst.askVol[0] = std::numeric_limits<int32_t>::max();
    state.instruments.push_back(inst);
    const SimState back = round_trip(state);
    EXPECT_EQ(back.seed, state.seed);
    EXPECT_EQ(back.records, state.records);
    EXPECT_EQ(back.snapshots, state.snapshots);
    EXPECT_EQ(back.gaps, state.gaps);
    EXPECT_EQ(back, state);
}

TEST(SimStateTest, AwkwardIdsRoundTrip) {
    const std::vector<std::string> ids = {"he said \"hi\"",
                                          "back\\slash\\",
                                          "tab\tnew\nline\r",
                                          "\x01\x1f\x7f end",
                                          std::string("nul\0x", 5),
                                          "caf\xc3\xa9",
                                          "",
                                          "\\u0041 stays text",
                                          "/slash/"};
    SimState state;
    for (const std::string& id : ids) {
        state.instruments.push_back(instrument_value());
        state.instruments.back().id = id;
    }
    const std::string text = format_sim_state(state);
    for (const char ch : text) {
        EXPECT_TRUE(static_cast<unsigned char>(ch) >= 0x20 || ch == '\n') << "raw control byte " << int(ch);
    }
    EXPECT_NE(text.find("\"id\": \"he said \\\"hi\\\"\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"id\": \"back\\\\slash\\\\\""), std::string::npos) << text;
    EXPECT_NE(text.find("\\u0001\\u001f\x7f end"), std::string::npos) << text;
    EXPECT_EQ(round_trip(state), state);
}

TEST(SimStateTest, ReadsEveryStringEscape) {
    Fields second = instrument_fields();
    set_field(second, "id", "\"a\\/b\\\"\\\\\\b\\f\\n\\r\\t\\u0041\\u00e9\\u20AC\\ud83d\\ude00\"");
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state(two_instrument_document(second), state, error)) << error;
    EXPECT_EQ(state.instruments[1].id, "a/b\"\\\b\f\n\r\tA\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(SimStateTest, KeysInAnyOrderAndUnknownKeysIgnored) {
    Fields reversed = instrument_fields();
    std::reverse(reversed.begin(), reversed.end());
    Fields extended = instrument_fields();
    extended.insert(extended.begin(), {"comment", "\"written by a newer simulator\""});
    set_field(extended, "future_field", "{\"a\": [1, {\"b\": null}, false, true, -2.5e-3], \"c\": \"\"}");
    set_field(extended, "levels_10", "[[], {}, [[[]]]]");
    Fields top = top_fields();
    std::reverse(top.begin(), top.end());
    set_field(top, "generator", "{\"version\": 2}");
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state(document({reversed, extended}, top), state, error)) << error;
    EXPECT_EQ(state.seed, 1u);
    EXPECT_EQ(state.snapshots, 3u);
    ASSERT_EQ(state.instruments.size(), 2u);
    EXPECT_EQ(state.instruments[0], instrument_value());
    EXPECT_EQ(state.instruments[1], instrument_value());
}

TEST(SimStateTest, AcceptsAnyJsonWhitespace) {
    const std::string text =
        "\r\n\t {\t\"instruments\" :\r\n[ ] ,\"snapshots\":0,\"records\"  :  1 ,\"gaps\"\t:0,\n\"seed\":2 "
        "}\r\n\t";
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state(text, state, error)) << error;
    EXPECT_EQ(state.records, 1u);
    EXPECT_EQ(state.seed, 2u);
}

TEST(SimStateTest, EachMissingInstrumentKeyIsNamed) {
    for (const auto& [key, value] : instrument_fields()) {
        Fields second = instrument_fields();
        erase_field(second, key);
        EXPECT_EQ(parse_error(two_instrument_document(second)),
                  "<input>:4: instrument 1: missing \"" + key + "\"");
    }
}

TEST(SimStateTest, EachMissingTopLevelKeyIsNamed) {
    for (const auto& [key, value] : top_fields()) {
        Fields top = top_fields();
        erase_field(top, key);
        EXPECT_EQ(parse_error(document({instrument_fields()}, top)), "<input>:1: missing \"" + key + "\"");
    }
    EXPECT_EQ(parse_error("{\"seed\": 1, \"records\": 2,\n \"snapshots\": 3, \"gaps\": 4}"),
              "<input>:1: missing \"instruments\"");
}

struct BadField {
    const char* key;
    const char* value;
    const char* error;
};

TEST(SimStateTest, WrongTypesAndRangesInAnInstrumentAreNamed) {
    const std::vector<BadField> cases = {
        {"inst_no", "2147483648",
         "\"inst_no\" must be an integer from -2147483648 to 2147483647, not 2147483648"},
        {"slot", "-2147483649",
         "\"slot\" must be an integer from -2147483648 to 2147483647, not -2147483649"},
        {"volume_multiple", "1.5",
         "\"volume_multiple\" must be an integer from -2147483648 to 2147483647, not 1.5"},
        {"bid_totvol", "1e3", "\"bid_totvol\" must be an integer from -2147483648 to 2147483647, not 1e3"},
        {"ask_totvol", "\"3\"",
         "\"ask_totvol\" must be an integer from -2147483648 to 2147483647, not a string"},
        {"change_no", "-1", "\"change_no\" must be an integer from 0 to 4294967295, not -1"},
        {"volume", "4294967296", "\"volume\" must be an integer from 0 to 4294967295, not 4294967296"},
        {"volume", "true", "\"volume\" must be an integer from 0 to 4294967295, not true"},
        {"last_px", "\"72000\"", "\"last_px\" must be a finite number, not a string"},
        {"open_interest", "null", "\"open_interest\" must be a finite number, not null"},
        {"highest_price", "[1]", "\"highest_price\" must be a finite number, not an array"},
        {"id", "42", "\"id\" must be a string, not 42"},
        {"id", "{}", "\"id\" must be a string, not an object"},
        {"exchange", "\"CFFEX\"", "\"exchange\" must be \"SHFE\" or \"INE\""},
        {"exchange", "1", "\"exchange\" must be \"SHFE\" or \"INE\""},
        {"kind", "\"stock\"", "\"kind\" must be one of \"future\", \"option\", \"tas\", \"spread\""},
        {"bid_px", "[1, 2, 3, 4]", "\"bid_px\" must be an array of 5 numbers"},
        {"bid_px", "[1, 2, 3, 4, 5, 6]", "\"bid_px\" must be an array of 5 numbers"},
        {"ask_px", "[1, 2, \"3\", 4, 5]", "\"ask_px\" must be an array of 5 numbers"},
        {"ask_px", "5", "\"ask_px\" must be an array of 5 numbers"},
        {"bid_vol", "[1, 2, 3, 4, 2147483648]",
         "\"bid_vol\" must be an array of 5 integers from -2147483648 to 2147483647"},
        {"ask_vol", "[1, 2, 3, 4, 0.5]",
         "\"ask_vol\" must be an array of 5 integers from -2147483648 to 2147483647"},
        {"ask_vol", "[]", "\"ask_vol\" must be an array of 5 integers from -2147483648 to 2147483647"},
    };
    for (const BadField& bad : cases) {
        Fields second = instrument_fields();
        set_field(second, bad.key, bad.value);
        EXPECT_EQ(parse_error(two_instrument_document(second)),
                  std::string("<input>:4: instrument 1: ") + bad.error)
            << bad.key << " = " << bad.value;
    }
}

TEST(SimStateTest, WrongTypesAndRangesAtTopLevelAreNamed) {
    const std::vector<BadField> cases = {
        {"seed", "18446744073709551616",
         "\"seed\" must be an integer from 0 to 18446744073709551615, not 18446744073709551616"},
        {"seed", "-1", "\"seed\" must be an integer from 0 to 18446744073709551615, not -1"},
        {"records", "1.0", "\"records\" must be an integer from 0 to 18446744073709551615, not 1.0"},
        {"snapshots", "\"3\"",
         "\"snapshots\" must be an integer from 0 to 18446744073709551615, not a string"},
        {"gaps", "-4", "\"gaps\" must be an integer from 0 to 18446744073709551615, not -4"},
    };
    for (const BadField& bad : cases) {
        Fields top = top_fields();
        set_field(top, bad.key, bad.value);
        EXPECT_EQ(parse_error(document({instrument_fields()}, top)), std::string("<input>:1: ") + bad.error)
            << bad.key << " = " << bad.value;
    }
    EXPECT_EQ(parse_error(counts_then("{}")),
              "<input>:2: \"instruments\" must be an array of objects, not an object");
    EXPECT_EQ(parse_error(counts_then("[\n{},\n[]]")), "<input>:3: instrument 0: missing \"exchange\"");
    EXPECT_EQ(parse_error("\n[1, 2]"), "<input>:2: the top level must be an object, not an array");
    EXPECT_EQ(parse_error("\"text\""), "<input>:1: the top level must be an object, not a string");
}

TEST(SimStateTest, AnInstrumentThatIsNotAnObjectIsNamed) {
    const std::string text = counts_then("[\n{" + join_fields(instrument_fields()) + "},\n[1]]");
    EXPECT_EQ(parse_error(text), "<input>:4: instrument 1: must be an object, not an array");
    const std::string scalar = counts_then("[\n{" + join_fields(instrument_fields()) + "},\n\n-4.50e1]");
    EXPECT_EQ(parse_error(scalar), "<input>:5: instrument 1: must be an object, not -4.50e1");
}

TEST(SimStateTest, DuplicateKeysAreRefused) {
    Fields second = instrument_fields();
    second.emplace_back("volume", "13");
    EXPECT_EQ(parse_error(two_instrument_document(second)), "<input>:4: duplicate key \"volume\"");
}

// One field a line, each comma leading the next line, so that a number's
// last digit is followed by a newline.
TEST(SimStateTest, ValuesSpreadOverLinesAreNamedAtTheirOwnLine) {
    const auto spread = [](const Fields& fields) {
        std::string text = "{" + join_fields(top_fields()) + ", \"instruments\": [\n{";
        for (size_t index = 0; index < fields.size(); ++index) {
            text += (index == 0 ? "\"" : "\n, \"") + fields[index].first + "\": " + fields[index].second;
        }
        return text + "\n}]}";
    };
    const Fields fields = instrument_fields();
    for (size_t index = 0; index < fields.size(); ++index) {
        Fields bad = fields;
        // A number where a number is not wanted, else a string.
        const std::set<std::string> numbers = {
            "price_tick",    "codec_price",   "upper_limit",   "lower_limit",   "last_px",     "turnover",
            "open_interest", "bid_totamount", "ask_totamount", "highest_price", "lowest_price"};
        bad[index].second = numbers.count(fields[index].first) != 0 ? "\"1.5\"" : "1.5e0";
        const std::string error = parse_error(spread(bad));
        EXPECT_EQ(error.rfind("<input>:" + std::to_string(2 + index) + ": instrument 0: \"" +
                                  fields[index].first + "\"",
                              0),
                  0u)
            << error;
    }
    Fields missing = fields;
    missing.erase(missing.begin() + 3);
    EXPECT_EQ(parse_error(spread(missing)), "<input>:2: instrument 0: missing \"id\"");
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state(spread(fields), state, error)) << error;
    EXPECT_EQ(state.instruments.at(0), instrument_value());
}

// A double cannot hold them, so the parser refuses them before any field is read.
TEST(SimStateTest, NumbersBeyondADoubleAreRefusedAtTheirLine) {
    Fields second = instrument_fields();
    set_field(second, "turnover", "1e400");
    EXPECT_EQ(parse_error(two_instrument_document(second)), "<input>:4: number overflow parsing '1e400'");
    second = instrument_fields();
    set_field(second, "ask_px", "[1, 2, 3, 4, -1e999]");
    EXPECT_EQ(parse_error(two_instrument_document(second)), "<input>:4: number overflow parsing '-1e999'");
}

// Every cut of a valid document ends early, at the line where it was cut.
TEST(SimStateTest, EveryTruncationIsReportedAtItsLine) {
    SimState state = awkward_state();
    state.instruments.resize(2);
    const std::string text = format_sim_state(state);
    const size_t complete = text.find_last_not_of(" \n") + 1;
    for (size_t length = 0; length < complete; ++length) {
        const std::string prefix = text.substr(0, length);
        const long line = 1 + std::count(prefix.begin(), prefix.end(), '\n');
        const std::string error = parse_error(prefix);
        EXPECT_EQ(error.rfind("<input>:" + std::to_string(line) + ": ", 0), 0u)
            << "length " << length << ": " << error;
        EXPECT_NE(error.find("end of input"), std::string::npos) << "length " << length << ": " << error;
    }
    SimState back;
    std::string error;
    EXPECT_TRUE(parse_sim_state(text.substr(0, complete), back, error)) << error;
}

// The library words the reason; the line, and what it names, are checked.
TEST(SimStateTest, TextThatIsNotJsonIsRefusedWithItsLine) {
    struct Case {
        std::string text;
        int line;
        const char* reason;
    };
    const std::vector<Case> cases = {
        {"", 1, "unexpected end of input"},
        {"   \n\n", 3, "unexpected end of input"},
        {"hello", 1, "invalid literal"},
        {"{seed: 1}", 1, "expected string literal"},
        {"{\"seed\": 1,}", 1, "unexpected '}'; expected string literal"},
        {"{'seed': 1}", 1, "expected string literal"},
        {"{\"seed\" 1}", 1, "expected ':'"},
        {"[1 2]", 1, "expected ']'"},
        {"{\"seed\": 01}", 1, "expected '}'"},
        {"{\"seed\": NaN}", 1, "invalid literal"},
        {"{\"seed\": Infinity}", 1, "invalid literal"},
        {"{\"seed\": -}", 1, "expected digit after '-'"},
        {"{\"seed\": +1}", 1, "invalid literal"},
        {"{\"seed\": 1.}", 1, "expected digit after '.'"},
        {"{\"seed\": .5}", 1, "invalid literal"},
        {"{\"seed\": 1e}", 1, "after exponent"},
        {"{\"seed\": tru}", 1, "invalid literal"},
        {"{\"seed\": tru", 1, "unexpected end of input: "},
        {"{}\n{}", 2, "expected end of input"},
        {"\n\n{\"id\": \"a\tb\"}", 3, "control character U+0009 (HT) must be escaped"},
        {"\n{\"id\": \"a\nb\"}", 2, "control character U+000A (LF) must be escaped"},
        {"{\"id\": \"\\x\"}", 1, "forbidden character after backslash"},
        {"\"\\u12G4\"", 1, "must be followed by 4 hex digits"},
        {"\"\\udc00\"", 1, "surrogate U+DC00..U+DFFF must follow U+D800..U+DBFF"},
        {"\"\\ud800x\"", 1, "surrogate U+D800..U+DBFF must be followed by U+DC00..U+DFFF"},
        {"\"\\ud800\\u0041\"", 1, "surrogate U+D800..U+DBFF must be followed by U+DC00..U+DFFF"},
        {"{\"id\": \"caf\xe9\"}", 1, "ill-formed UTF-8"},
        {std::string("\0{}", 3), 1, "a NUL byte"},
        {std::string("{}\n\n\0 trailing", 14), 3, "a NUL byte"},
        {std::string("{\"id\": \"a\0b\"}", 13), 1, "a NUL byte"},
    };
    for (const Case& bad : cases) {
        const std::string error = parse_error(bad.text);
        const std::string at = "<input>:" + std::to_string(bad.line) + ": ";
        EXPECT_EQ(error.rfind(at, 0), 0u) << bad.text << ": " << error;
        EXPECT_NE(error.find(bad.reason), std::string::npos) << bad.text << ": " << error;
        EXPECT_EQ(error.find("json.exception"), std::string::npos) << error;
        EXPECT_EQ(error.find("column"), std::string::npos) << error;
    }
}

// The parser skips a UTF-8 byte order mark.
TEST(SimStateTest, LeadingByteOrderMarkIsSkipped) {
    SimState state;
    std::string error;
    ASSERT_TRUE(parse_sim_state("\xef\xbb\xbf" + document({instrument_fields()}), state, error)) << error;
    ASSERT_EQ(state.instruments.size(), 1u);
    EXPECT_EQ(state.instruments[0], instrument_value());
}

TEST(SimStateTest, DeepNestingIsRefusedWithoutExhaustingTheStack) {
    const std::string text = std::string(200000, '[') + std::string(200000, ']');
    EXPECT_EQ(parse_error(text), "<input>:1: values nested no deeper than 64 levels, found '['");
    Fields second = instrument_fields();
    set_field(second, "unknown", std::string(50, '[') + std::string(50, ']'));
    SimState state;
    std::string error;
    EXPECT_TRUE(parse_sim_state(two_instrument_document(second), state, error)) << error;
}

TEST(SimStateTest, ReadErrorsNameTheFile) {
    CTempDir dir;
    Fields second = instrument_fields();
    set_field(second, "bid_px", "[1, 2]");
    const std::string path = dir.WriteFile("expected.json", two_instrument_document(second));
    SimState state = sentinel_state();
    std::string error;
    EXPECT_FALSE(read_sim_state(path, state, error));
    EXPECT_EQ(error, path + ":4: instrument 1: \"bid_px\" must be an array of 5 numbers");
    EXPECT_EQ(state, sentinel_state());

    const std::string truncated = dir.WriteFile("cut.json", "{\"seed\": 1,\n");
    EXPECT_FALSE(read_sim_state(truncated, state, error));
    EXPECT_EQ(error.rfind(truncated + ":2: ", 0), 0u) << error;
    EXPECT_NE(error.find("unexpected end of input"), std::string::npos) << error;
}

TEST(SimStateTest, MissingFileAndDirectoryAreNamedWithTheReason) {
    CTempDir dir;
    const std::string missing = dir.Path() + "/absent.json";
    SimState state = sentinel_state();
    std::string error;
    EXPECT_FALSE(read_sim_state(missing, state, error));
    EXPECT_EQ(error, "cannot read " + missing + ": " + std::strerror(ENOENT));
    EXPECT_FALSE(read_sim_state(dir.Path(), state, error));
    EXPECT_EQ(error, "cannot read " + dir.Path() + ": " + std::strerror(EISDIR));
    EXPECT_EQ(state, sentinel_state());
}

TEST(SimStateTest, WriteReplacesTheTargetAndLeavesNoTemporaryFile) {
    CTempDir dir;
    const std::string path = dir.WriteFile("expected.json", "old contents");
    SimState state = awkward_state();
    std::string error;
    ASSERT_TRUE(write_sim_state(path, state, error)) << error;
    EXPECT_EQ(read_file(path), format_sim_state(state));
    EXPECT_EQ(dir.List(), std::vector<std::string>{"expected.json"});

    state.instruments.resize(1);
    state.seed = 2;
    ASSERT_TRUE(write_sim_state(path, state, error)) << error;
    EXPECT_EQ(read_file(path), format_sim_state(state));
    EXPECT_EQ(dir.List(), std::vector<std::string>{"expected.json"});
}

TEST(SimStateTest, WrittenFileFollowsTheUmask) {
    CTempDir dir;
    const std::string path = dir.Path() + "/expected.json";
    const mode_t previous = umask(022);
    std::string error;
    const bool written = write_sim_state(path, awkward_state(), error);
    umask(previous);
    ASSERT_TRUE(written) << error;
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST(SimStateTest, RelativePathIsWrittenInTheWorkingDirectory) {
    CTempDir dir;
    const std::filesystem::path previous = std::filesystem::current_path();
    std::filesystem::current_path(dir.Path());
    std::string error;
    const bool written = write_sim_state("relative.json", awkward_state(), error);
    std::filesystem::current_path(previous);
    ASSERT_TRUE(written) << error;
    EXPECT_EQ(dir.List(), std::vector<std::string>{"relative.json"});
}

TEST(SimStateTest, WriteErrorsNameThePathAndTheReason) {
    CTempDir dir;
    const std::string inMissingDir = dir.Path() + "/no/such/expected.json";
    std::string error;
    EXPECT_FALSE(write_sim_state(inMissingDir, awkward_state(), error));
    EXPECT_EQ(error, "cannot write " + inMissingDir + ": " + std::strerror(ENOENT));

    // The rename fails here, after the temporary file was written.
    const std::string occupied = dir.Path() + "/expected.json";
    ASSERT_TRUE(std::filesystem::create_directory(occupied));
    EXPECT_FALSE(write_sim_state(occupied, awkward_state(), error));
    EXPECT_EQ(error, "cannot write " + occupied + ": " + std::strerror(EISDIR));
    EXPECT_EQ(dir.List(), std::vector<std::string>{"expected.json"});
    EXPECT_TRUE(std::filesystem::is_directory(occupied));
}

TEST(SimStateTest, NonFiniteDoublesAreRefusedBeforeWriting) {
    CTempDir dir;
    const std::string path = dir.WriteFile("expected.json", "old contents");
    SimState state = awkward_state();
    state.instruments[1].id = "rb\"2505";
    std::string error;

    state.instruments[1].lastPx = std::nan("");
    EXPECT_FALSE(write_sim_state(path, state, error));
    EXPECT_EQ(error, "cannot write " + path +
                         ": instrument 1 (\"rb\\\"2505\"): \"last_px\" is nan, which JSON cannot hold");

    state.instruments[1].lastPx = 0;
    state.instruments[1].bidPx[2] = -std::numeric_limits<double>::infinity();
    EXPECT_FALSE(write_sim_state(path, state, error));
    EXPECT_EQ(error,
              "cannot write " + path +
                  ": instrument 1 (\"rb\\\"2505\"): \"bid_px[2]\" is infinite, which JSON cannot hold");

    EXPECT_EQ(read_file(path), "old contents");
    EXPECT_EQ(dir.List(), std::vector<std::string>{"expected.json"});
}

TEST(SimStateTest, FormattedNonFiniteDoubleIsNullAndRefusedOnRead) {
    SimState state;
    state.instruments.push_back(instrument_value());
    state.instruments[0].turnover = std::numeric_limits<double>::infinity();
    const std::string text = format_sim_state(state);
    EXPECT_NE(text.find("\"turnover\": null,"), std::string::npos) << text;
    EXPECT_EQ(text.find("inf"), std::string::npos) << text;
    EXPECT_EQ(parse_error(text), "<input>:3: instrument 0: \"turnover\" must be a finite number, not null");
}

// A reader racing the writer sees the old file or the new one, never a part.
TEST(SimStateTest, ConcurrentReaderNeverSeesAPartialFile) {
    CTempDir dir;
    const std::string path = dir.Path() + "/expected.json";
    const SimState base = awkward_state();
    SimState big = base;
    for (int copy = 0; copy < 20; ++copy) {
        big.instruments.insert(big.instruments.end(), base.instruments.begin(), base.instruments.end());
    }
    SimState small = awkward_state();
    small.instruments.resize(1);
    std::string error;
    ASSERT_TRUE(write_sim_state(path, small, error)) << error;

    std::atomic<bool> done{false};
    std::atomic<int> writeFailures{0};
    std::thread writer([&] {
        std::string writeError;
        for (int round = 0; round < 40; ++round) {
            if (!write_sim_state(path, round % 2 == 0 ? big : small, writeError)) {
                ++writeFailures;
            }
        }
        done = true;
    });
    int reads = 0;
    int bad = 0;
    std::string firstBad;
    while (!done || reads == 0) {
        SimState state;
        std::string readError;
        ++reads;
        if (!read_sim_state(path, state, readError) || (state != big && state != small)) {
            if (bad++ == 0) {
                firstBad = readError;
            }
        }
    }
    writer.join();
    EXPECT_EQ(writeFailures, 0);
    EXPECT_EQ(bad, 0) << firstBad;
    EXPECT_GT(reads, 0);
    EXPECT_EQ(dir.List(), std::vector<std::string>{"expected.json"});
}

}  // namespace
