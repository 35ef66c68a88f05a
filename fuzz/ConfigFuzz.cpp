// libFuzzer target: arbitrary bytes as the feed's configuration file, through
// the INI reader (CConfigParse::_LoadConfig), the record it fills
// (_ReadRecord) and, when the file keeps the log quiet, InitConfig.
//
// Beyond what the sanitizers see, every result must equal a reading made
// here from the reader's rules, without its code: lines end at '\n'; a ';' or
// '#' anywhere starts a comment; the blanks are space, tab, CR and LF; a line
// "[name]" (text after the first ']' ignored, blanks inside kept) starts a
// section and empties an earlier one of that name; "key = value" lines outside
// a named section are dropped; the last value of a key wins. The record takes
// each key of [config] or its default: numbers by strtol in base 10 cut to the
// field's width, flags by exact words, and insts split at commas into trimmed
// non-empty pieces.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <type_traits>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "public/log/CommonLog.h"
#include "src/config/ConfigParse.h"
#include "tests/support/ConfigParseAccess.h"

namespace {

using Sections = std::map<std::string, std::map<std::string, std::string>>;

constexpr size_t kMaxInput = 1 << 16;
constexpr int kLogLevelBits = 0x1F;

// The input lives in a memory file opened by name, so nothing reaches the disk.
struct InputFile {
    int fd = -1;
    std::string path;
};

InputFile& Input() {
    static InputFile* input = [] {
        InputFile* made = new InputFile();
        made->fd = memfd_create("quvo-config-fuzz", MFD_CLOEXEC);
        if (made->fd < 0) {
            perror("config fuzz: memfd_create");
            abort();
        }
        made->path = "/proc/self/fd/" + std::to_string(made->fd);
        return made;
    }();
    return *input;
}

void WriteInput(const uint8_t* data, size_t size) {
    const InputFile& input = Input();
    if (ftruncate(input.fd, 0) != 0) {
        perror("config fuzz: ftruncate");
        abort();
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(input.fd, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) {
            perror("config fuzz: pwrite");
            abort();
        }
        done += static_cast<size_t>(n);
    }
}

std::string Escaped(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char hex[8];
            snprintf(hex, sizeof(hex), "\\x%02x", c);
            out += hex;
        }
    }
    return out;
}

[[noreturn]] void Fail(const char* what, const std::string& expected, const std::string& got) {
    fprintf(stderr, "config fuzz: %s: expected \"%s\", got \"%s\"\n", what, Escaped(expected).c_str(),
            Escaped(got).c_str());
    abort();
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string Trimmed(const std::string& text) {
    size_t begin = 0;
    size_t end = text.size();
    while (begin < end && IsBlank(text[begin])) {
        ++begin;
    }
    while (end > begin && IsBlank(text[end - 1])) {
        --end;
    }
    return text.substr(begin, end - begin);
}

Sections ReferenceSections(const uint8_t* data, size_t size) {
    Sections sections;
    std::string current;
    size_t start = 0;
    while (start < size) {
        const uint8_t* newline = static_cast<const uint8_t*>(memchr(data + start, '\n', size - start));
        const size_t end = newline != nullptr ? static_cast<size_t>(newline - data) : size;
        std::string line(reinterpret_cast<const char*>(data) + start, end - start);
        start = end + 1;

        for (size_t i = 0; i < line.size(); ++i) {
            if (line[i] == ';' || line[i] == '#') {
                line.resize(i);
                break;
            }
        }
        line = Trimmed(line);
        if (line.empty()) {
            continue;
        }
        if (line[0] == '[') {
            const size_t close = line.find(']');
            if (close != std::string::npos) {
                current = line.substr(1, close - 1);
                sections[current] = {};
            }
            continue;
        }
        const size_t equals = line.find('=');
        if (equals != std::string::npos && !current.empty()) {
            sections[current][Trimmed(line.substr(0, equals))] = Trimmed(line.substr(equals + 1));
        }
    }
    return sections;
}

template <typename T>
T Number(const std::string& text) {
    using Unsigned = std::make_unsigned_t<T>;
    const long value = strtol(text.c_str(), nullptr, 10);
    return static_cast<T>(static_cast<Unsigned>(static_cast<unsigned long>(value)));
}

std::vector<std::string> Pieces(const std::string& list) {
    std::vector<std::string> pieces;
    size_t start = 0;
    for (;;) {
        const size_t comma = list.find(',', start);
        const std::string piece = Trimmed(list.substr(start, comma - start));
        if (!piece.empty()) {
            pieces.push_back(piece);
        }
        if (comma == std::string::npos) {
            return pieces;
        }
        start = comma + 1;
    }
}

struct Reading {
    ExanicMdConfigData record;
    int logLevel = 0;
    int initResult = 0;
};

Reading ReferenceRecord(const Sections& sections) {
    const auto found = sections.find("config");
    const auto get = [&](const char* key, const char* defaultValue) -> std::string {
        if (found == sections.end()) {
            return defaultValue;
        }
        const auto value = found->second.find(key);
        return value == found->second.end() ? defaultValue : value->second;
    };
    Reading r;
    ExanicMdConfigData& c = r.record;
    c.device = get("device", "");
    c.insts = get("insts", "");
    c.shfe2ps_ip_a = get("shfe2ps_ip_a", "239.4.42.72:21000");
    c.shfe2ps_ip_b = get("shfe2ps_ip_b", "239.3.42.71:21000");
    c.shfe4ps_ip_a = get("shfe4ps_ip_a", "239.3.2.3:21101");
    c.shfe4ps_ip_b = get("shfe4ps_ip_b", "239.4.2.4:21101");
    c.ine2ps_ip_a = get("ine2ps_ip_a", "239.3.52.71:25000");
    c.ine2ps_ip_b = get("ine2ps_ip_b", "239.4.52.72:25000");
    c.ine4ps_ip_a = get("ine4ps_ip_a", "239.4.151.92:25101");
    c.ine4ps_ip_b = get("ine4ps_ip_b", "239.3.151.91:25101");
    c.shfe2ps_topic_id = Number<int16_t>(get("shfe2ps_topic_id", "1000"));
    c.shfe4ps_topic_id = Number<int16_t>(get("shfe4ps_topic_id", "1101"));
    c.ine2ps_topic_id = Number<int16_t>(get("ine2ps_topic_id", "5000"));
    c.ine4ps_topic_id = Number<int16_t>(get("ine4ps_topic_id", "5101"));
    c.md2ps_snap_port = Number<uint16_t>(get("md2ps_snap_port", "33022"));
    c.md4ps_snap_port = Number<uint16_t>(get("md4ps_snap_port", "22000"));
    c.cpucore = Number<int16_t>(get("cpucore", "0"));
    c.recvall = c.insts == "all" ? 1 : 0;
    c.options = get("options", "") == "norecv" ? 0 : 1;
    c.split_all_field = Number<int8_t>(get("split_all_field", "1"));
    c.shfe2ps = get("shfe2ps", "") == "enabled";
    c.ine2ps = get("ine2ps", "") == "enabled";
    c.shfe4ps = false;
    c.ine4ps = false;
    c.listen_insts = Pieces(c.insts);
    c.total_listen_cnt = static_cast<uint32_t>(c.listen_insts.size());
    c.timeout_cnt = Number<int16_t>(get("timeout_cnt", "10"));
    c.shield_price_check = strtol(get("shield_price_check", "0").c_str(), nullptr, 10) == 1;
    r.logLevel = Number<int32_t>(get("log_level", "7"));
    r.initResult = c.device.empty() || (c.recvall == 0 && c.listen_insts.empty()) ? -1 : 0;
    return r;
}

void Same(const char* what, const std::string& expected, const std::string& got) {
    if (expected != got) {
        Fail(what, expected, got);
    }
}

void Same(const char* what, long expected, long got) {
    if (expected != got) {
        Fail(what, std::to_string(expected), std::to_string(got));
    }
}

std::string Joined(const std::vector<std::string>& pieces) {
    std::string all;
    for (const std::string& piece : pieces) {
        all += "[" + piece + "]";
    }
    return all;
}

std::string Listed(const Sections& sections) {
    std::string all;
    for (const auto& [name, keys] : sections) {
        all += "[" + name + "]";
        for (const auto& [key, value] : keys) {
            all += " " + key + "=" + value + ";";
        }
    }
    return all;
}

void CheckRecord(const ExanicMdConfigData& e, const ExanicMdConfigData& g) {
    Same("device", e.device, g.device);
    Same("insts", e.insts, g.insts);
    Same("shfe2ps_ip_a", e.shfe2ps_ip_a, g.shfe2ps_ip_a);
    Same("shfe2ps_ip_b", e.shfe2ps_ip_b, g.shfe2ps_ip_b);
    Same("shfe4ps_ip_a", e.shfe4ps_ip_a, g.shfe4ps_ip_a);
    Same("shfe4ps_ip_b", e.shfe4ps_ip_b, g.shfe4ps_ip_b);
    Same("ine2ps_ip_a", e.ine2ps_ip_a, g.ine2ps_ip_a);
    Same("ine2ps_ip_b", e.ine2ps_ip_b, g.ine2ps_ip_b);
    Same("ine4ps_ip_a", e.ine4ps_ip_a, g.ine4ps_ip_a);
    Same("ine4ps_ip_b", e.ine4ps_ip_b, g.ine4ps_ip_b);
    Same("listen_insts", Joined(e.listen_insts), Joined(g.listen_insts));
    Same("total_listen_cnt", e.total_listen_cnt, g.total_listen_cnt);
    Same("shfe2ps_topic_id", e.shfe2ps_topic_id, g.shfe2ps_topic_id);
    Same("shfe4ps_topic_id", e.shfe4ps_topic_id, g.shfe4ps_topic_id);
    Same("ine2ps_topic_id", e.ine2ps_topic_id, g.ine2ps_topic_id);
    Same("ine4ps_topic_id", e.ine4ps_topic_id, g.ine4ps_topic_id);
    Same("md2ps_snap_port", e.md2ps_snap_port, g.md2ps_snap_port);
    Same("md4ps_snap_port", e.md4ps_snap_port, g.md4ps_snap_port);
    Same("cpucore", e.cpucore, g.cpucore);
    Same("timeout_cnt", e.timeout_cnt, g.timeout_cnt);
    Same("recvall", e.recvall, g.recvall);
    Same("options", e.options, g.options);
    Same("split_all_field", e.split_all_field, g.split_all_field);
    Same("shield_price_check", e.shield_price_check, g.shield_price_check);
    Same("shfe2ps", e.shfe2ps, g.shfe2ps);
    Same("shfe4ps", e.shfe4ps, g.shfe4ps);
    Same("ine2ps", e.ine2ps, g.ine2ps);
    Same("ine4ps", e.ine4ps, g.ine4ps);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_initialize(Input);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) {
        return 0;
    }
    WriteInput(data, size);
    const Sections sections = ReferenceSections(data, size);
    const Reading expected = ReferenceRecord(sections);
    const std::string& path = Input().path;

    ExanicMdConfigData record;
    CConfigParse parse(record);
    Same("_LoadConfig result", 0, CConfigParseTestAccess::LoadConfig(parse, path));
    Same("sections", Listed(sections), Listed(CConfigParseTestAccess::Sections(parse)));
    Same("log level read", expected.logLevel, CConfigParseTestAccess::ReadRecord(parse));
    CheckRecord(expected.record, record);

    // InitConfig applies the file's log level; a file that enables a level
    // would make every later input log, so only quiet files go through it.
    if ((expected.logLevel & kLogLevelBits) == 0) {
        ExanicMdConfigData initRecord;
        CConfigParse init(initRecord);
        Same("InitConfig result", expected.initResult, init.InitConfig(path));
        Same("log level set", expected.logLevel, CCommonLog::GetInstance().GetLogLevel());
        CheckRecord(expected.record, initRecord);
        fuzz_set_log_level();
    }
    return 0;
}
