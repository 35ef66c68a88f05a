#include "sim/SimState.h"

#include <fcntl.h>
#include <locale.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <utility>

namespace {

// A JSON number needs '.' whatever locale the program has chosen, and printf
// and strtod follow LC_NUMERIC.
class CCNumericScope {
public:
    CCNumericScope() : m_previous(uselocale(c_locale())) {}
    ~CCNumericScope() { uselocale(m_previous); }
    CCNumericScope(const CCNumericScope&) = delete;
    CCNumericScope& operator=(const CCNumericScope&) = delete;

private:
    static locale_t c_locale() {
        static const locale_t locale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
        return locale;
    }

    locale_t m_previous;
};

void append_string(std::string& out, std::string_view text) {
    out += '"';
    for (const char ch : text) {
        const auto byte = static_cast<unsigned char>(ch);
        if (ch == '"' || ch == '\\') {
            out += '\\';
            out += ch;
        } else if (byte < 0x20 || byte == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04X", byte);
            out += escaped;
        } else {
            out += ch;
        }
    }
    out += '"';
}

// Seventeen significant digits give back the same double through strtod.
void append_double(std::string& out, double value) {
    if (!std::isfinite(value)) {
        out += "null";
        return;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", value);
    out += text;
}

template <typename Instrument, typename Visitor>
bool for_each_field(Instrument& inst, Visitor& visit) {
    return visit("exchange", inst.exchange) && visit("inst_no", inst.instNo) && visit("slot", inst.slot) &&
           visit("id", inst.id) && visit("kind", inst.kind) && visit("price_tick", inst.priceTick) &&
           visit("codec_price", inst.codecPrice) && visit("volume_multiple", inst.volumeMultiple) &&
           visit("upper_limit", inst.upperLimit) && visit("lower_limit", inst.lowerLimit) &&
           visit("change_no", inst.changeNo) && visit("last_px", inst.lastPx) &&
           visit("volume", inst.volume) && visit("turnover", inst.turnover) &&
           visit("open_interest", inst.openInterest) && visit("bid_totvol", inst.bidTotVol) &&
           visit("ask_totvol", inst.askTotVol) && visit("bid_totamount", inst.bidTotAmount) &&
           visit("ask_totamount", inst.askTotAmount) && visit("highest_price", inst.highestPrice) &&
           visit("lowest_price", inst.lowestPrice) && visit("bid_px", inst.bidPx) &&
           visit("bid_vol", inst.bidVol) && visit("ask_px", inst.askPx) && visit("ask_vol", inst.askVol);
}

template <typename State, typename Visitor>
bool for_each_count(State& state, Visitor& visit) {
    return visit("seed", state.seed) && visit("records", state.records) &&
           visit("snapshots", state.snapshots);
}

class CFieldWriter {
public:
    explicit CFieldWriter(std::string& out) : m_out(out) {}

    bool operator()(const char* key, ESimExchange value) {
        Key(key);
        append_string(m_out, sim_exchange_name(value));
        return true;
    }
    bool operator()(const char* key, ESimKind value) {
        Key(key);
        append_string(m_out, sim_kind_name(value));
        return true;
    }
    bool operator()(const char* key, const std::string& value) {
        Key(key);
        append_string(m_out, value);
        return true;
    }
    bool operator()(const char* key, int32_t value) { return Integer(key, value); }
    bool operator()(const char* key, uint32_t value) { return Integer(key, value); }
    bool operator()(const char* key, uint64_t value) { return Integer(key, value); }
    bool operator()(const char* key, double value) {
        Key(key);
        append_double(m_out, value);
        return true;
    }
    bool operator()(const char* key, const double (&values)[kSimPublishedLevels]) {
        Key(key);
        m_out += '[';
        for (int level = 0; level < kSimPublishedLevels; ++level) {
            m_out += level == 0 ? "" : ", ";
            append_double(m_out, values[level]);
        }
        m_out += ']';
        return true;
    }
    bool operator()(const char* key, const int32_t (&values)[kSimPublishedLevels]) {
        Key(key);
        m_out += '[';
        for (int level = 0; level < kSimPublishedLevels; ++level) {
            m_out += level == 0 ? "" : ", ";
            m_out += std::to_string(values[level]);
        }
        m_out += ']';
        return true;
    }

private:
    void Key(const char* key) {
        if (!m_first) {
            m_out += ", ";
        }
        m_first = false;
        append_string(m_out, key);
        m_out += ": ";
    }

    template <typename T>
    bool Integer(const char* key, T value) {
        Key(key);
        m_out += std::to_string(value);
        return true;
    }

    std::string& m_out;
    bool m_first = true;
};

// Stops at the first double JSON cannot hold and names it.
class CNonFiniteFinder {
public:
    bool operator()(const char* key, double value) { return Check(key, value); }
    bool operator()(const char* key, const double (&values)[kSimPublishedLevels]) {
        for (int level = 0; level < kSimPublishedLevels; ++level) {
            if (!Check(key, values[level])) {
                m_field += "[" + std::to_string(level) + "]";
                return false;
            }
        }
        return true;
    }
    template <typename T>
    bool operator()(const char*, const T&) {
        return true;
    }

    const std::string& Field() const { return m_field; }
    double Value() const { return m_value; }

private:
    bool Check(const char* key, double value) {
        if (std::isfinite(value)) {
            return true;
        }
        m_field = key;
        m_value = value;
        return false;
    }

    std::string m_field;
    double m_value = 0;
};

enum class EJsonType { NUL, BOOL, NUMBER, STRING, ARRAY, OBJECT };

struct JsonMember;

struct JsonValue {
    EJsonType type = EJsonType::NUL;
    int line = 0;
    bool boolean = false;
    std::string text;  // a string's contents, or a number as written
    std::vector<JsonValue> items;
    std::vector<JsonMember> members;
};

struct JsonMember {
    std::string key;
    JsonValue value;
};

class CJsonParser {
public:
    explicit CJsonParser(std::string_view text) : m_text(text) {}

    bool Parse(JsonValue& root) {
        SkipSpace();
        if (!ParseValue(root, 0)) {
            return false;
        }
        SkipSpace();
        if (!AtEnd()) {
            return Fail("expected the end of the input after the top-level value");
        }
        return true;
    }

    int ErrorLine() const { return m_errorLine; }
    const std::string& Error() const { return m_error; }

private:
    // Far deeper than the expected-state shape; keeps hostile input off the stack.
    static constexpr int kMaxDepth = 64;

    bool AtEnd() const { return m_pos >= m_text.size(); }
    bool Next(char ch) const { return !AtEnd() && m_text[m_pos] == ch; }
    bool NextIsDigit() const { return !AtEnd() && m_text[m_pos] >= '0' && m_text[m_pos] <= '9'; }

    bool Consume(char ch) {
        if (!Next(ch)) {
            return false;
        }
        ++m_pos;
        return true;
    }

    void SkipSpace() {
        while (!AtEnd()) {
            const char ch = m_text[m_pos];
            if (ch == '\n') {
                ++m_line;
            } else if (ch != ' ' && ch != '\t' && ch != '\r') {
                return;
            }
            ++m_pos;
        }
    }

    bool Fail(const std::string& expected) {
        m_errorLine = m_line;
        if (AtEnd()) {
            m_error = "unexpected end of input: " + expected;
            return false;
        }
        const auto byte = static_cast<unsigned char>(m_text[m_pos]);
        char found[16];
        if (byte > 0x20 && byte < 0x7f) {
            std::snprintf(found, sizeof found, "'%c'", byte);
        } else {
            std::snprintf(found, sizeof found, "byte 0x%02X", byte);
        }
        m_error = expected + ", found " + found;
        return false;
    }

    bool ParseValue(JsonValue& out, int depth) {
        if (depth > kMaxDepth) {
            return Fail("values nested no deeper than " + std::to_string(kMaxDepth) + " levels");
        }
        out.line = m_line;
        if (AtEnd()) {
            return Fail("expected a JSON value");
        }
        switch (m_text[m_pos]) {
            case '{':
                return ParseObject(out, depth);
            case '[':
                return ParseArray(out, depth);
            case '"':
                out.type = EJsonType::STRING;
                return ParseString(out.text);
            case 't':
                out.type = EJsonType::BOOL;
                out.boolean = true;
                return ParseWord("true");
            case 'f':
                out.type = EJsonType::BOOL;
                return ParseWord("false");
            case 'n':
                out.type = EJsonType::NUL;
                return ParseWord("null");
            default:
                if (Next('-') || NextIsDigit()) {
                    return ParseNumber(out);
                }
                return Fail("expected a JSON value");
        }
    }

    bool ParseObject(JsonValue& out, int depth) {
        out.type = EJsonType::OBJECT;
        ++m_pos;
        SkipSpace();
        if (Consume('}')) {
            return true;
        }
        for (;;) {
            SkipSpace();
            if (!Next('"')) {
                return Fail("expected a string key");
            }
            std::string key;
            if (!ParseString(key)) {
                return false;
            }
            for (const auto& member : out.members) {
                if (member.key == key) {
                    std::string quoted;
                    append_string(quoted, key);
                    m_errorLine = m_line;
                    m_error = "duplicate key " + quoted;
                    return false;
                }
            }
            SkipSpace();
            if (!Consume(':')) {
                return Fail("expected ':' after a key");
            }
            SkipSpace();
            JsonValue value;
            if (!ParseValue(value, depth + 1)) {
                return false;
            }
            out.members.push_back({std::move(key), std::move(value)});
            SkipSpace();
            if (Consume('}')) {
                return true;
            }
            if (!Consume(',')) {
                return Fail("expected ',' or '}'");
            }
        }
    }

    bool ParseArray(JsonValue& out, int depth) {
        out.type = EJsonType::ARRAY;
        ++m_pos;
        SkipSpace();
        if (Consume(']')) {
            return true;
        }
        for (;;) {
            SkipSpace();
            JsonValue item;
            if (!ParseValue(item, depth + 1)) {
                return false;
            }
            out.items.push_back(std::move(item));
            SkipSpace();
            if (Consume(']')) {
                return true;
            }
            if (!Consume(',')) {
                return Fail("expected ',' or ']'");
            }
        }
    }

    bool ParseWord(std::string_view word) {
        for (const char ch : word) {
            if (!Consume(ch)) {
                return Fail(AtEnd() ? "expected '" + std::string(word) + "'" : "expected a JSON value");
            }
        }
        return true;
    }

    bool ParseNumber(JsonValue& out) {
        const size_t start = m_pos;
        Consume('-');
        if (!Consume('0')) {
            if (!NextIsDigit()) {
                return Fail("expected a digit");
            }
            SkipDigits();
        }
        if (Consume('.')) {
            if (!NextIsDigit()) {
                return Fail("expected a digit after '.'");
            }
            SkipDigits();
        }
        if (Consume('e') || Consume('E')) {
            if (!Consume('+')) {
                Consume('-');
            }
            if (!NextIsDigit()) {
                return Fail("expected a digit in the exponent");
            }
            SkipDigits();
        }
        out.type = EJsonType::NUMBER;
        out.text = std::string(m_text.substr(start, m_pos - start));
        return true;
    }

    void SkipDigits() {
        while (NextIsDigit()) {
            ++m_pos;
        }
    }

    bool ParseHex4(uint32_t& code) {
        code = 0;
        for (int digit = 0; digit < 4; ++digit) {
            if (AtEnd()) {
                return Fail("expected four hex digits after \\u");
            }
            const char ch = m_text[m_pos];
            uint32_t value = 0;
            if (ch >= '0' && ch <= '9') {
                value = ch - '0';
            } else if (ch >= 'a' && ch <= 'f') {
                value = ch - 'a' + 10;
            } else if (ch >= 'A' && ch <= 'F') {
                value = ch - 'A' + 10;
            } else {
                return Fail("expected four hex digits after \\u");
            }
            code = code * 16 + value;
            ++m_pos;
        }
        return true;
    }

    bool ParseUnicodeEscape(std::string& out) {
        uint32_t code = 0;
        if (!ParseHex4(code)) {
            return false;
        }
        if (code >= 0xDC00 && code <= 0xDFFF) {
            return Fail("expected a high surrogate before a low surrogate");
        }
        if (code >= 0xD800 && code <= 0xDBFF) {
            if (!Consume('\\') || !Consume('u')) {
                return Fail("expected a \\u low surrogate after a high surrogate");
            }
            uint32_t low = 0;
            if (!ParseHex4(low)) {
                return false;
            }
            if (low < 0xDC00 || low > 0xDFFF) {
                return Fail("expected a low surrogate after a high surrogate");
            }
            code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
        }
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xC0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xE0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (code & 0x3F));
        }
        return true;
    }

    bool ParseString(std::string& out) {
        ++m_pos;
        for (;;) {
            if (AtEnd()) {
                return Fail("expected '\"' closing the string");
            }
            const char ch = m_text[m_pos];
            if (ch == '"') {
                ++m_pos;
                return true;
            }
            if (static_cast<unsigned char>(ch) < 0x20) {
                return Fail("expected a control character in a string to be escaped");
            }
            if (ch != '\\') {
                out += ch;
                ++m_pos;
                continue;
            }
            ++m_pos;
            if (AtEnd()) {
                return Fail("expected an escape after '\\'");
            }
            const char escape = m_text[m_pos];
            switch (escape) {
                case '"':
                case '\\':
                case '/':
                    out += escape;
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u':
                    ++m_pos;
                    if (!ParseUnicodeEscape(out)) {
                        return false;
                    }
                    continue;
                default:
                    return Fail("expected one of \\\" \\\\ \\/ \\b \\f \\n \\r \\t \\u after '\\'");
            }
            ++m_pos;
        }
    }

    std::string_view m_text;
    size_t m_pos = 0;
    int m_line = 1;
    int m_errorLine = 0;
    std::string m_error;
};

std::string describe(const JsonValue& value) {
    switch (value.type) {
        case EJsonType::NUL:
            return "null";
        case EJsonType::BOOL:
            return value.boolean ? "true" : "false";
        case EJsonType::NUMBER:
            return value.text.size() <= 40 ? value.text : value.text.substr(0, 40) + "...";
        case EJsonType::STRING:
            return "a string";
        case EJsonType::ARRAY:
            return "an array";
        case EJsonType::OBJECT:
            return "an object";
    }
    return "?";
}

std::string quote(const char* key) {
    return std::string("\"") + key + "\"";
}

// Integers are read from the digits as written, never through a double.
template <typename T>
bool integer_from(const JsonValue& value, T& out) {
    if (value.type != EJsonType::NUMBER || value.text.find_first_of(".eE") != std::string::npos) {
        return false;
    }
    const char* first = value.text.data();
    const char* last = first + value.text.size();
    const auto [end, status] = std::from_chars(first, last, out);
    return status == std::errc() && end == last;
}

bool double_from(const JsonValue& value, double& out) {
    if (value.type != EJsonType::NUMBER) {
        return false;
    }
    char* end = nullptr;
    out = std::strtod(value.text.c_str(), &end);
    return end == value.text.c_str() + value.text.size() && std::isfinite(out);
}

template <typename T>
std::string integer_range() {
    return "from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
           std::to_string(std::numeric_limits<T>::max());
}

class CObjectReader {
public:
    CObjectReader(const std::string& source, const JsonValue& object, std::string context, std::string& error)
        : m_source(source), m_object(object), m_context(std::move(context)), m_error(error) {}

    bool operator()(const char* key, int32_t& value) { return Integer(key, value); }
    bool operator()(const char* key, uint32_t& value) { return Integer(key, value); }
    bool operator()(const char* key, uint64_t& value) { return Integer(key, value); }

    bool operator()(const char* key, double& value) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!double_from(*found, value)) {
            return Fail(found->line, quote(key) + " must be a finite number, not " + describe(*found));
        }
        return true;
    }

    bool operator()(const char* key, std::string& value) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (found->type != EJsonType::STRING) {
            return Fail(found->line, quote(key) + " must be a string, not " + describe(*found));
        }
        value = found->text;
        return true;
    }

    bool operator()(const char* key, ESimExchange& value) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (found->type != EJsonType::STRING || !sim_parse_exchange(found->text, value)) {
            return Fail(found->line, quote(key) + " must be \"SHFE\" or \"INE\"");
        }
        return true;
    }

    bool operator()(const char* key, ESimKind& value) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (found->type != EJsonType::STRING || !sim_parse_kind(found->text, value)) {
            return Fail(found->line,
                        quote(key) + " must be one of \"future\", \"option\", \"tas\", \"spread\"");
        }
        return true;
    }

    bool operator()(const char* key, double (&values)[kSimPublishedLevels]) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        bool good = found->type == EJsonType::ARRAY && found->items.size() == kSimPublishedLevels;
        for (int level = 0; good && level < kSimPublishedLevels; ++level) {
            good = double_from(found->items[level], values[level]);
        }
        if (!good) {
            return Fail(found->line, quote(key) + " must be an array of " +
                                         std::to_string(kSimPublishedLevels) + " numbers");
        }
        return true;
    }

    bool operator()(const char* key, int32_t (&values)[kSimPublishedLevels]) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        bool good = found->type == EJsonType::ARRAY && found->items.size() == kSimPublishedLevels;
        for (int level = 0; good && level < kSimPublishedLevels; ++level) {
            good = integer_from(found->items[level], values[level]);
        }
        if (!good) {
            return Fail(found->line, quote(key) + " must be an array of " +
                                         std::to_string(kSimPublishedLevels) + " integers " +
                                         integer_range<int32_t>());
        }
        return true;
    }

    // Looks up a required key; a missing one is an error.
    const JsonValue* Find(const char* key) {
        for (const auto& member : m_object.members) {
            if (member.key == key) {
                return &member.value;
            }
        }
        Fail(m_object.line, "missing " + quote(key));
        return nullptr;
    }

    bool Fail(int line, const std::string& what) {
        m_error = m_source + ":" + std::to_string(line) + ": " + m_context + what;
        return false;
    }

private:
    template <typename T>
    bool Integer(const char* key, T& value) {
        const JsonValue* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!integer_from(*found, value)) {
            return Fail(found->line, quote(key) + " must be an integer " + integer_range<T>() + ", not " +
                                         describe(*found));
        }
        return true;
    }

    const std::string& m_source;
    const JsonValue& m_object;
    std::string m_context;
    std::string& m_error;
};

bool parse_state(const std::string& text, const std::string& source, SimState& state, std::string& error) {
    const CCNumericScope numeric;
    JsonValue root;
    CJsonParser parser(text);
    if (!parser.Parse(root)) {
        error = source + ":" + std::to_string(parser.ErrorLine()) + ": " + parser.Error();
        return false;
    }
    CObjectReader top(source, root, "", error);
    if (root.type != EJsonType::OBJECT) {
        return top.Fail(root.line, "the top level must be an object, not " + describe(root));
    }
    SimState read;
    if (!for_each_count(read, top)) {
        return false;
    }
    const JsonValue* instruments = top.Find("instruments");
    if (instruments == nullptr) {
        return false;
    }
    if (instruments->type != EJsonType::ARRAY) {
        return top.Fail(instruments->line,
                        "\"instruments\" must be an array of objects, not " + describe(*instruments));
    }
    read.instruments.resize(instruments->items.size());
    for (size_t index = 0; index < instruments->items.size(); ++index) {
        const JsonValue& item = instruments->items[index];
        CObjectReader fields(source, item, "instrument " + std::to_string(index) + ": ", error);
        if (item.type != EJsonType::OBJECT) {
            return fields.Fail(item.line, "must be an object, not " + describe(item));
        }
        if (!for_each_field(read.instruments[index], fields)) {
            return false;
        }
    }
    state = std::move(read);
    return true;
}

std::string os_error(const std::string& doing, const std::string& path, int code) {
    return doing + " " + path + ": " + std::strerror(code);
}

bool write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
        if (wrote < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        done += static_cast<size_t>(wrote);
    }
    return true;
}

}  // namespace

const char* sim_exchange_name(ESimExchange exchange) {
    switch (exchange) {
        case ESimExchange::SHFE:
            return "SHFE";
        case ESimExchange::INE:
            return "INE";
    }
    return "?";
}

const char* sim_kind_name(ESimKind kind) {
    switch (kind) {
        case ESimKind::FUTURE:
            return "future";
        case ESimKind::OPTION:
            return "option";
        case ESimKind::TAS:
            return "tas";
        case ESimKind::SPREAD:
            return "spread";
    }
    return "?";
}

bool sim_parse_exchange(const std::string& text, ESimExchange& exchange) {
    for (const ESimExchange candidate : {ESimExchange::SHFE, ESimExchange::INE}) {
        if (text == sim_exchange_name(candidate)) {
            exchange = candidate;
            return true;
        }
    }
    return false;
}

bool sim_parse_kind(const std::string& text, ESimKind& kind) {
    for (const ESimKind candidate : {ESimKind::FUTURE, ESimKind::OPTION, ESimKind::TAS, ESimKind::SPREAD}) {
        if (text == sim_kind_name(candidate)) {
            kind = candidate;
            return true;
        }
    }
    return false;
}

std::string format_sim_state(const SimState& state) {
    const CCNumericScope numeric;
    std::string out = "{";
    CFieldWriter counts(out);
    for_each_count(state, counts);
    out += ",\n \"instruments\": [";
    for (size_t index = 0; index < state.instruments.size(); ++index) {
        out += index == 0 ? "\n  {" : ",\n  {";
        CFieldWriter fields(out);
        for_each_field(state.instruments[index], fields);
        out += '}';
    }
    out += state.instruments.empty() ? "]}\n" : "\n ]}\n";
    return out;
}

bool write_sim_state(const std::string& path, const SimState& state, std::string& error) {
    for (size_t index = 0; index < state.instruments.size(); ++index) {
        const SimInstrumentState& inst = state.instruments[index];
        CNonFiniteFinder finder;
        if (!for_each_field(inst, finder)) {
            std::string id;
            append_string(id, inst.id);
            error = "cannot write " + path + ": instrument " + std::to_string(index) + " (" + id + "): \"" +
                    finder.Field() + "\" is " + (std::isnan(finder.Value()) ? "nan" : "infinite") +
                    ", which JSON cannot hold";
            return false;
        }
    }
    const std::string text = format_sim_state(state);

    // The temporary file sits next to the target so the rename stays within
    // one file system and replaces the target in one step.
    static std::atomic<unsigned> s_counter{0};
    const size_t slash = path.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temporary;
    int fd = -1;
    do {
        temporary = directory + "." + base + ".tmp." + std::to_string(getpid()) + "." +
                    std::to_string(s_counter.fetch_add(1));
        fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EEXIST);
    if (fd < 0) {
        error = os_error("cannot write", path, errno);
        return false;
    }
    bool good = write_all(fd, text) && ::fsync(fd) == 0;
    int code = good ? 0 : errno;
    if (::close(fd) != 0 && good) {
        good = false;
        code = errno;
    }
    if (good && std::rename(temporary.c_str(), path.c_str()) != 0) {
        good = false;
        code = errno;
    }
    if (!good) {
        ::unlink(temporary.c_str());
        error = os_error("cannot write", path, code);
    }
    return good;
}

bool parse_sim_state(const std::string& text, SimState& state, std::string& error) {
    return parse_state(text, "<input>", state, error);
}

bool read_sim_state(const std::string& path, SimState& state, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        error = os_error("cannot read", path, errno);
        return false;
    }
    std::string text;
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            error = os_error("cannot read", path, errno);
            ::close(fd);
            return false;
        }
        if (got == 0) {
            break;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    ::close(fd);
    return parse_state(text, path, state, error);
}
