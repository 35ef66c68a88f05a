#include "sim/SimState.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace {

using json = nlohmann::json;
using ordered_json = nlohmann::ordered_json;

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
           visit("snapshots", state.snapshots) && visit("gaps", state.gaps);
}

template <typename Faults, typename Visitor>
bool for_each_fault(Faults& faults, Visitor& visit) {
    return visit("tcp_reorder", faults.tcpReorder) && visit("tcp_duplicate", faults.tcpDuplicate) &&
           visit("tcp_loss", faults.tcpLoss) && visit("tcp_bad_checksum", faults.tcpBadChecksum) &&
           visit("tcp_padding", faults.tcpPadding) && visit("tcp_other_protocol", faults.tcpOtherProtocol) &&
           visit("tcp_other_port", faults.tcpOtherPort) && visit("tcp_reset", faults.tcpReset) &&
           visit("raw_frames", faults.rawFrames) && visit("stale", faults.stale) &&
           visit("crossed", faults.crossed) && visit("unknown_field", faults.unknownField) &&
           visit("short_record", faults.shortRecord) && visit("bad_length", faults.badLength) &&
           visit("decoded_frames", faults.decodedFrames);
}

std::string dump(const ordered_json& value) {
    return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// Whole numbers go out as integers, "72000" rather than "72000.0", while a
// double holds them exactly; negative zero stays a double so that it keeps
// its sign.
ordered_json json_number(double value) {
    constexpr double kExactIntegers = 9007199254740992.0;  // 2^53
    if (value == std::trunc(value) && std::fabs(value) <= kExactIntegers &&
        !(value == 0 && std::signbit(value))) {
        return static_cast<int64_t>(value);
    }
    return value;
}

class CFieldWriter {
public:
    explicit CFieldWriter(ordered_json& object) : m_object(object) {}

    bool operator()(const char* key, ESimExchange value) {
        m_object[key] = sim_exchange_name(value);
        return true;
    }
    bool operator()(const char* key, ESimKind value) {
        m_object[key] = sim_kind_name(value);
        return true;
    }
    bool operator()(const char* key, const std::string& value) {
        m_object[key] = value;
        return true;
    }
    bool operator()(const char* key, double value) {
        m_object[key] = json_number(value);
        return true;
    }
    template <typename T>
    requires std::is_integral_v<T>
    bool operator()(const char* key, T value) {
        m_object[key] = value;
        return true;
    }
    bool operator()(const char* key, const double (&values)[kSimPublishedLevels]) {
        ordered_json& array = m_object[key] = ordered_json::array();
        for (const double value : values) {
            array.push_back(json_number(value));
        }
        return true;
    }
    bool operator()(const char* key, const int32_t (&values)[kSimPublishedLevels]) {
        m_object[key] = values;
        return true;
    }

private:
    ordered_json& m_object;
};

// The library's dump() has no one-line form with spaces after ',' and ':',
// which keeps a line per instrument readable; every key and value is still
// rendered by the library.
void append_value(std::string& out, const ordered_json& value);

void append_members(std::string& out, const ordered_json& object) {
    for (auto member = object.begin(); member != object.end(); ++member) {
        out += member == object.begin() ? "" : ", ";
        out += dump(member.key());
        out += ": ";
        append_value(out, member.value());
    }
}

void append_value(std::string& out, const ordered_json& value) {
    if (value.is_object()) {
        out += '{';
        append_members(out, value);
        out += '}';
    } else if (value.is_array()) {
        out += '[';
        for (size_t index = 0; index < value.size(); ++index) {
            out += index == 0 ? "" : ", ";
            append_value(out, value[index]);
        }
        out += ']';
    } else {
        out += dump(value);
    }
}

ordered_json fields_of(const SimInstrumentState& inst) {
    ordered_json fields = ordered_json::object();
    CFieldWriter writer(fields);
    for_each_field(inst, writer);
    return fields;
}

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

bool is_utf8(const std::string& text) {
    try {
        (void)json(text).dump();
        return true;
    } catch (const json::type_error&) {
        return false;
    }
}

// What a state holds that JSON cannot, or "" when it holds nothing of the kind.
std::string unwritable(const SimState& state) {
    for (size_t index = 0; index < state.instruments.size(); ++index) {
        const SimInstrumentState& inst = state.instruments[index];
        const std::string which = "instrument " + std::to_string(index) + " (" + dump(inst.id) + "): ";
        CNonFiniteFinder finder;
        if (!for_each_field(inst, finder)) {
            return which + "\"" + finder.Field() + "\" is " +
                   (std::isnan(finder.Value()) ? "nan" : "infinite") + ", which JSON cannot hold";
        }
        if (!is_utf8(inst.id)) {
            return which + "\"id\" is not UTF-8, which JSON cannot hold";
        }
    }
    return "";
}

// The line of the byte at `offset`; past the end, the last line.
int line_at(std::string_view text, size_t offset) {
    const auto end = text.begin() + static_cast<long>(std::min(offset, text.size()));
    return 1 + static_cast<int>(std::count(text.begin(), end, '\n'));
}

// The parser reads the text through CCountingIterator, a byte at a time, and
// this keeps the line of the last byte read: when an event reaches the
// handler, the line its value starts on. A number ends only when the byte
// after it is read; that byte may be a newline, which counts to the line it
// ends.
class CLineCounter {
public:
    void Read(char byte) {
        m_line += m_afterNewline ? 1 : 0;
        m_afterNewline = byte == '\n';
    }
    int Line() const { return m_line; }

private:
    int m_line = 1;
    bool m_afterNewline = false;
};

class CCountingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    CCountingIterator(const char* at, CLineCounter& lines) : m_at(at), m_lines(&lines) {}

    reference operator*() const {
        m_lines->Read(*m_at);
        return *m_at;
    }
    CCountingIterator& operator++() {
        ++m_at;
        return *this;
    }
    CCountingIterator operator++(int) {
        CCountingIterator before = *this;
        ++m_at;
        return before;
    }
    bool operator==(const CCountingIterator& other) const { return m_at == other.m_at; }

private:
    const char* m_at;
    CLineCounter* m_lines;
};

struct SourceNote {
    int line = 0;
    std::string written;  // a number with a fraction or exponent, as written
};

// Builds the document the library's own parser would, and notes the line
// each value starts on. Unlike that parser it refuses a repeated key, of
// which the last would silently win, and keeps hostile nesting from growing
// the document.
class CDocumentBuilder : public nlohmann::json_sax<json> {
public:
    CDocumentBuilder(std::string_view text, const CLineCounter& lines) : m_text(text), m_lines(lines) {}

    bool null() override { return Add(nullptr); }
    bool boolean(bool value) override { return Add(value); }
    bool number_integer(number_integer_t value) override { return Add(value); }
    bool number_unsigned(number_unsigned_t value) override { return Add(value); }
    bool number_float(number_float_t value, const string_t& written) override { return Add(value, written); }
    bool string(string_t& value) override { return Add(std::move(value)); }
    bool binary(binary_t&) override { return false; }  // never in JSON text
    bool start_object(std::size_t) override { return Open(json::object(), '{'); }
    bool start_array(std::size_t) override { return Open(json::array(), '['); }
    bool end_object() override { return Close(); }
    bool end_array() override { return Close(); }

    bool key(string_t& key) override {
        if (m_open.back()->contains(key)) {
            return Fail(m_lines.Line(), "duplicate key " + dump(key));
        }
        m_key = std::move(key);
        return true;
    }

    // `position` counts the bytes read, the one that failed included (one
    // past the text at its end).
    bool parse_error(std::size_t position, const std::string&, const json::exception& error) override {
        std::string message = library_message(error);
        // A cut-off file reads as one whatever the library saw last.
        if (position > m_text.size() && message.find("end of input") == std::string::npos) {
            message = "unexpected end of input: " + message;
        }
        return Fail(line_at(m_text, position == 0 ? 0 : position - 1), message);
    }

    const json& Root() const { return m_root; }
    int ErrorLine() const { return m_errorLine; }
    const std::string& Error() const { return m_error; }

    // The note of the top level or of a member of an object.
    const SourceNote& Note(const json& value) const {
        const auto found = m_notes.find(&value);
        return found == m_notes.end() ? s_none : found->second;
    }
    // The note of item `index` of `array`.
    const SourceNote& ItemNote(const json& array, size_t index) const {
        const auto found = m_itemNotes.find(array.get_ptr<const json::array_t*>());
        return found == m_itemNotes.end() || index >= found->second.size() ? s_none : found->second[index];
    }

private:
    // Far deeper than the expected-state shape.
    static constexpr size_t kMaxDepth = 64;

    static inline const SourceNote s_none;

    // "[json.exception.parse_error.101] parse error at line 2, column 1: syntax
    // error ..." without the library's tag and position: the caller gives
    // the file and the line.
    static std::string library_message(const json::exception& error) {
        std::string text = error.what();
        const size_t tagEnd = text.find("] ");
        if (text.rfind("[json.exception.", 0) == 0 && tagEnd != std::string::npos) {
            text.erase(0, tagEnd + 2);
        }
        const size_t positionEnd = text.find(": ");
        if (text.rfind("parse error", 0) == 0 && positionEnd != std::string::npos) {
            text.erase(0, positionEnd + 2);
        }
        return text;
    }

    bool Fail(int line, const std::string& what) {
        m_errorLine = line;
        m_error = what;
        return false;
    }

    // A member of an object stays where it was put (a node of the object's
    // map), and so does the top level; an item moves as its array grows, so
    // items are noted by their array's contents, which never move, and index.
    json* Insert(json&& value, const std::string& written) {
        const SourceNote note{m_lines.Line(), written};
        if (m_open.empty()) {
            m_root = std::move(value);
            m_notes[&m_root] = note;
            return &m_root;
        }
        json& parent = *m_open.back();
        if (parent.is_array()) {
            m_itemNotes[parent.get_ptr<const json::array_t*>()].push_back(note);
            parent.push_back(std::move(value));
            return &parent.back();
        }
        json& member = parent[m_key] = std::move(value);
        m_notes[&member] = note;
        return &member;
    }

    bool Add(json&& value, const std::string& written = "") {
        Insert(std::move(value), written);
        return true;
    }

    bool Open(json&& value, char bracket) {
        if (m_open.size() > kMaxDepth) {
            return Fail(m_lines.Line(), "values nested no deeper than " + std::to_string(kMaxDepth) +
                                            " levels, found '" + bracket + "'");
        }
        m_open.push_back(Insert(std::move(value), ""));
        return true;
    }

    bool Close() {
        m_open.pop_back();
        return true;
    }

    std::string_view m_text;
    const CLineCounter& m_lines;
    json m_root;
    std::vector<json*> m_open;
    std::string m_key;
    std::unordered_map<const json*, SourceNote> m_notes;
    std::unordered_map<const json::array_t*, std::vector<SourceNote>> m_itemNotes;
    int m_errorLine = 0;
    std::string m_error;
};

std::string describe(const json& value, const SourceNote& note) {
    switch (value.type()) {
        case json::value_t::null:
            return "null";
        case json::value_t::boolean:
            return value.get<bool>() ? "true" : "false";
        case json::value_t::number_integer:
        case json::value_t::number_unsigned:
        case json::value_t::number_float: {
            const std::string text = note.written.empty() ? value.dump() : note.written;
            return text.size() <= 40 ? text : text.substr(0, 40) + "...";
        }
        case json::value_t::string:
            return "a string";
        case json::value_t::array:
            return "an array";
        case json::value_t::object:
            return "an object";
        default:
            return "?";
    }
}

std::string quote(const char* key) {
    return std::string("\"") + key + "\"";
}

// Integers are taken as the parser read them, never through a double.
template <typename T>
bool integer_from(const json& value, T& out) {
    if (value.is_number_unsigned()) {
        const auto number = value.get<json::number_unsigned_t>();
        if (!std::in_range<T>(number)) {
            return false;
        }
        out = static_cast<T>(number);
        return true;
    }
    if (value.is_number_integer()) {
        const auto number = value.get<json::number_integer_t>();
        if (!std::in_range<T>(number)) {
            return false;
        }
        out = static_cast<T>(number);
        return true;
    }
    return false;
}

// The parser refuses a number too large for a double, so every one is finite.
bool double_from(const json& value, double& out) {
    if (!value.is_number()) {
        return false;
    }
    out = value.get<double>();
    return std::isfinite(out);
}

template <typename T>
std::string integer_range() {
    return "from " + std::to_string(std::numeric_limits<T>::min()) + " to " +
           std::to_string(std::numeric_limits<T>::max());
}

class CObjectReader {
public:
    CObjectReader(const std::string& source, const CDocumentBuilder& document, const json& object,
                  const SourceNote& objectNote, std::string context, std::string& error)
        : m_source(source),
          m_document(document),
          m_object(object),
          m_objectLine(objectNote.line),
          m_context(std::move(context)),
          m_error(error) {}

    bool operator()(const char* key, int32_t& value) { return Integer(key, value); }
    bool operator()(const char* key, uint32_t& value) { return Integer(key, value); }
    bool operator()(const char* key, uint64_t& value) { return Integer(key, value); }

    bool operator()(const char* key, double& value) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!double_from(*found, value)) {
            return FailAt(found, quote(key) + " must be a finite number, not " + Describe(found));
        }
        return true;
    }

    bool operator()(const char* key, std::string& value) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!found->is_string()) {
            return FailAt(found, quote(key) + " must be a string, not " + Describe(found));
        }
        value = found->get<std::string>();
        return true;
    }

    bool operator()(const char* key, ESimExchange& value) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!found->is_string() || !sim_parse_exchange(found->get<std::string>(), value)) {
            return FailAt(found, quote(key) + " must be \"SHFE\" or \"INE\"");
        }
        return true;
    }

    bool operator()(const char* key, ESimKind& value) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!found->is_string() || !sim_parse_kind(found->get<std::string>(), value)) {
            return FailAt(found, quote(key) + " must be one of \"future\", \"option\", \"tas\", \"spread\"");
        }
        return true;
    }

    bool operator()(const char* key, double (&values)[kSimPublishedLevels]) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        bool good = found->is_array() && found->size() == kSimPublishedLevels;
        for (int level = 0; good && level < kSimPublishedLevels; ++level) {
            good = double_from((*found)[level], values[level]);
        }
        if (!good) {
            return FailAt(found, quote(key) + " must be an array of " + std::to_string(kSimPublishedLevels) +
                                     " numbers");
        }
        return true;
    }

    bool operator()(const char* key, int32_t (&values)[kSimPublishedLevels]) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        bool good = found->is_array() && found->size() == kSimPublishedLevels;
        for (int level = 0; good && level < kSimPublishedLevels; ++level) {
            good = integer_from((*found)[level], values[level]);
        }
        if (!good) {
            return FailAt(found, quote(key) + " must be an array of " + std::to_string(kSimPublishedLevels) +
                                     " integers " + integer_range<int32_t>());
        }
        return true;
    }

    // Looks up a required key; a missing one is an error.
    const json* Find(const char* key) {
        const auto found = m_object.find(key);
        if (found == m_object.end()) {
            Fail(m_objectLine, "missing " + quote(key));
            return nullptr;
        }
        return &*found;
    }

    bool Fail(int line, const std::string& what) {
        m_error = m_source + ":" + std::to_string(line) + ": " + m_context + what;
        return false;
    }

private:
    bool FailAt(const json* found, const std::string& what) {
        return Fail(m_document.Note(*found).line, what);
    }

    std::string Describe(const json* found) const { return describe(*found, m_document.Note(*found)); }

    template <typename T>
    bool Integer(const char* key, T& value) {
        const json* found = Find(key);
        if (found == nullptr) {
            return false;
        }
        if (!integer_from(*found, value)) {
            return FailAt(
                found, quote(key) + " must be an integer " + integer_range<T>() + ", not " + Describe(found));
        }
        return true;
    }

    const std::string& m_source;
    const CDocumentBuilder& m_document;
    const json& m_object;
    int m_objectLine;
    std::string m_context;
    std::string& m_error;
};

bool parse_state(const std::string& text, const std::string& source, SimState& state, std::string& error) {
    // The library's lexer takes a NUL byte for the end of the input and would
    // ignore whatever follows it.
    const size_t nul = text.find('\0');
    if (nul != std::string::npos) {
        error =
            source + ":" + std::to_string(line_at(text, nul)) + ": a NUL byte, which JSON text cannot hold";
        return false;
    }
    CLineCounter lines;
    CDocumentBuilder document(text, lines);
    const char* begin = text.data();
    if (!json::sax_parse(CCountingIterator(begin, lines), CCountingIterator(begin + text.size(), lines),
                         &document)) {
        error = source + ":" + std::to_string(document.ErrorLine()) + ": " + document.Error();
        return false;
    }
    const json& root = document.Root();
    const SourceNote& rootNote = document.Note(root);
    CObjectReader top(source, document, root, rootNote, "", error);
    if (!root.is_object()) {
        return top.Fail(rootNote.line, "the top level must be an object, not " + describe(root, rootNote));
    }
    SimState read;
    if (!for_each_count(read, top)) {
        return false;
    }
    // Files written before the fault counts existed have none: all 0.
    const auto faults = root.find("faults");
    if (faults != root.end()) {
        const SourceNote& faultsNote = document.Note(*faults);
        if (!faults->is_object()) {
            return top.Fail(faultsNote.line,
                            "\"faults\" must be an object, not " + describe(*faults, faultsNote));
        }
        CObjectReader counts(source, document, *faults, faultsNote, "faults: ", error);
        if (!for_each_fault(read.faults, counts)) {
            return false;
        }
    }
    const json* instruments = top.Find("instruments");
    if (instruments == nullptr) {
        return false;
    }
    const SourceNote& listNote = document.Note(*instruments);
    if (!instruments->is_array()) {
        return top.Fail(listNote.line, "\"instruments\" must be an array of objects, not " +
                                           describe(*instruments, listNote));
    }
    read.instruments.resize(instruments->size());
    for (size_t index = 0; index < instruments->size(); ++index) {
        const json& item = (*instruments)[index];
        const SourceNote& itemNote = document.ItemNote(*instruments, index);
        CObjectReader fields(source, document, item, itemNote, "instrument " + std::to_string(index) + ": ",
                             error);
        if (!item.is_object()) {
            return fields.Fail(itemNote.line, "must be an object, not " + describe(item, itemNote));
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
    ordered_json counts = ordered_json::object();
    CFieldWriter writer(counts);
    for_each_count(state, writer);
    ordered_json& faults = counts["faults"] = ordered_json::object();
    CFieldWriter faultWriter(faults);
    for_each_fault(state.faults, faultWriter);
    std::string out = "{";
    append_members(out, counts);
    out += ",\n \"instruments\": [";
    for (size_t index = 0; index < state.instruments.size(); ++index) {
        out += index == 0 ? "\n  {" : ",\n  {";
        append_members(out, fields_of(state.instruments[index]));
        out += '}';
    }
    out += state.instruments.empty() ? "]}\n" : "\n ]}\n";
    return out;
}

bool write_sim_state(const std::string& path, const SimState& state, std::string& error) {
    const std::string refused = unwritable(state);
    if (!refused.empty()) {
        error = "cannot write " + path + ": " + refused;
        return false;
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
