#include "src/config/ConfigCheck.h"

#include <arpa/inet.h>
#include <sched.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>

#include "public/log/CommonLog.h"
#include "src/dev/Card.h"

namespace {

using ConfigField = long (*)(const ExanicMdConfigData&);

// The keys read as integers into a narrower field, which keeps only the low
// bits of what was written.
struct IntegerKey {
    const char* key;
    int bits;
    bool isSigned;
    ConfigField field;
};

constexpr IntegerKey kIntegerKeys[] = {
    {"shfe2ps_topic_id", 16, true, [](const ExanicMdConfigData& c) -> long { return c.shfe2ps_topic_id; }},
    {"shfe4ps_topic_id", 16, true, [](const ExanicMdConfigData& c) -> long { return c.shfe4ps_topic_id; }},
    {"ine2ps_topic_id", 16, true, [](const ExanicMdConfigData& c) -> long { return c.ine2ps_topic_id; }},
    {"ine4ps_topic_id", 16, true, [](const ExanicMdConfigData& c) -> long { return c.ine4ps_topic_id; }},
    {"md2ps_snap_port", 16, false, [](const ExanicMdConfigData& c) -> long { return c.md2ps_snap_port; }},
    {"md4ps_snap_port", 16, false, [](const ExanicMdConfigData& c) -> long { return c.md4ps_snap_port; }},
    {"cpucore", 16, true, [](const ExanicMdConfigData& c) -> long { return c.cpucore; }},
    {"split_all_field", 8, true, [](const ExanicMdConfigData& c) -> long { return c.split_all_field; }},
    {"timeout_cnt", 16, true, [](const ExanicMdConfigData& c) -> long { return c.timeout_cnt; }},
};

struct AddressKey {
    const char* key;
    const std::string ExanicMdConfigData::*field;
};

constexpr AddressKey kAddressKeys[] = {
    {"shfe2ps_ip_a", &ExanicMdConfigData::shfe2ps_ip_a}, {"shfe2ps_ip_b", &ExanicMdConfigData::shfe2ps_ip_b},
    {"shfe4ps_ip_a", &ExanicMdConfigData::shfe4ps_ip_a}, {"shfe4ps_ip_b", &ExanicMdConfigData::shfe4ps_ip_b},
    {"ine2ps_ip_a", &ExanicMdConfigData::ine2ps_ip_a},   {"ine2ps_ip_b", &ExanicMdConfigData::ine2ps_ip_b},
    {"ine4ps_ip_a", &ExanicMdConfigData::ine4ps_ip_a},   {"ine4ps_ip_b", &ExanicMdConfigData::ine4ps_ip_b},
};

// What the record reads, key by key, with the default of each: asked of the
// reader itself, so that the check knows exactly the keys the feed knows.
const std::map<std::string, std::string>& read_keys() {
    static const std::map<std::string, std::string> keys = [] {
        std::map<std::string, std::string> found;
        ExanicMdConfigData record;
        CConfigParse parse(record);
        CConfigCheck::ReadRecord(
            parse, [&found](const char* key, const char* defaultValue) { found.emplace(key, defaultValue); });
        return found;
    }();
    return keys;
}

size_t edit_distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        d[i][0] = i;
    }
    for (size_t j = 0; j <= b.size(); ++j) {
        d[0][j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

std::string lower(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// Where each [config] key was last set, and the file's structure findings.
class CLineScan {
public:
    explicit CLineScan(std::vector<ConfigFinding>& findings) : m_refFindings(findings) {}

    int LineOf(const std::string& key) const {
        const auto found = m_configKeys.find(key);
        return found == m_configKeys.end() ? 0 : found->second;
    }

    void Line(int number, const std::string& raw, const IniLine& line) {
        switch (line.kind) {
            case IniLine::BLANK:
                return;
            case IniLine::UNCLOSED_HEADING:
                _Warn(number, "a heading without ']' is ignored; the lines after it stay " +
                                  (m_current.empty() ? std::string("outside any section")
                                                     : "in [" + m_current + "]"));
                return;
            case IniLine::NO_EQUALS:
                _Warn(number, "a line without '=' is ignored");
                return;
            case IniLine::HEADING:
                _Heading(number, line.section);
                return;
            case IniLine::KEY_VALUE:
                _KeyValue(number, raw, line);
                return;
        }
    }

private:
    void _Warn(int line, std::string text) {
        m_refFindings.push_back({ConfigFinding::WARNING, line, std::move(text)});
    }

    void _Heading(int number, const std::string& section) {
        m_current = section;
        if (section == "config") {
            if (m_configLine != 0 && !m_configKeys.empty()) {
                _Warn(number, "[config] again: the " + std::to_string(m_configKeys.size()) +
                                  " key(s) set after line " + std::to_string(m_configLine) +
                                  " are discarded");
            }
            m_configLine = number;
            m_configKeys.clear();
        } else if (section.empty()) {
            _Warn(number, "[] names no section: the keys after it are ignored");
        } else if (lower(CConfigCheck::Trim(section)) == "config") {
            _Warn(number, "[" + section + "] is not [config] (names are exact, blanks and case count): " +
                              "the keys after it are ignored");
        } else {
            _Warn(number, "section [" + section + "] is not read: the keys after it are ignored");
        }
    }

    void _KeyValue(int number, const std::string& raw, const IniLine& line) {
        if (m_current.empty()) {
            _Warn(number, line.key + ": outside any section, ignored (keys belong under [config])");
            return;
        }
        if (m_current != "config") {
            return;
        }
        if (line.key.empty()) {
            _Warn(number, "a value without a key is ignored");
            return;
        }
        const size_t comment = raw.find_first_of(";#");
        if (line.commentCut && comment > 0 && raw.find('=') < comment && !isspace(raw[comment - 1]) &&
            raw[comment - 1] != '=') {
            _Warn(number, line.key + ": '" + raw[comment] + "' starts a comment anywhere, so the value is " +
                              quoted(line.value));
        }
        const auto earlier = m_configKeys.find(line.key);
        if (earlier != m_configKeys.end()) {
            _Warn(number, line.key + ": given again; this value replaces the one at line " +
                              std::to_string(earlier->second));
        }
        m_configKeys[line.key] = number;
        if (read_keys().count(line.key) != 0) {
            return;
        }
        if (line.key == "shfe4ps" || line.key == "ine4ps") {
            _Warn(number, line.key + ": unknown key; no key enables a 4ps feed in this version");
            return;
        }
        const std::string nearest = CConfigCheck::NearestKey(line.key);
        _Warn(number, line.key + ": unknown key" +
                          (nearest.empty() ? ", ignored" : ", did you mean " + nearest + "?"));
    }

    std::vector<ConfigFinding>& m_refFindings;
    std::string m_current;
    int m_configLine = 0;
    std::map<std::string, int> m_configKeys;
};

class CValueCheck {
public:
    CValueCheck(ConfigCheckResult& result, const std::map<std::string, std::string>& values,
                const CLineScan& scan)
        : m_refResult(result), m_refValues(values), m_refScan(scan) {}

    void Run() {
        for (const IntegerKey& rule : kIntegerKeys) {
            _Integer(rule);
        }
        _ShieldPriceCheck();
        _LogLevel();
        _Switch("shfe2ps");
        _Switch("ine2ps");
        _Options();
        _Insts();
        for (const AddressKey& address : kAddressKeys) {
            _Address(address.key);
        }
        _CpuCore();
        _Refusals();
    }

private:
    const std::string* _Value(const char* key) const {
        const auto found = m_refValues.find(key);
        return found == m_refValues.end() ? nullptr : &found->second;
    }

    void _Add(ConfigFinding::ESeverity severity, const char* key, std::string text) {
        m_refResult.findings.push_back(
            {severity, key == nullptr ? 0 : m_refScan.LineOf(key), std::move(text)});
    }

    void _Warn(const char* key, std::string text) { _Add(ConfigFinding::WARNING, key, std::move(text)); }

    // The number the reader takes from `key`'s text; false, after any
    // finding, when nothing more is to be said of it.
    bool _Number(const char* key, long& number) {
        const std::string* value = _Value(key);
        if (value == nullptr) {
            return false;
        }
        const std::string head = std::string(key) + " = " + *value + ": ";
        if (value->empty()) {
            const std::string& defaultValue = read_keys().at(key);
            if (!defaultValue.empty() && defaultValue != "0") {
                _Warn(key, std::string(key) + " is empty: read as 0, not the default " + defaultValue);
            }
            return false;
        }
        const char* text = value->c_str();
        char* end = nullptr;
        errno = 0;
        number = strtol(text, &end, 10);
        if (end == text) {
            _Warn(key, head + "not a number, read as 0");
            return false;
        }
        if (*end == 'x' || *end == 'X') {
            _Warn(key, head + "hexadecimal is not read, read as " + std::to_string(number));
            return false;
        }
        if (*end != '\0') {
            _Warn(key, head + "the text after the number is ignored, read as " + std::to_string(number));
        }
        if (errno == ERANGE) {
            _Warn(key, head + "out of range, read as " + std::to_string(number));
            return false;
        }
        return true;
    }

    void _Integer(const IntegerKey& rule) {
        long number = 0;
        if (!_Number(rule.key, number)) {
            return;
        }
        const long min = rule.isSigned ? -(1L << (rule.bits - 1)) : 0;
        const long max = rule.isSigned ? (1L << (rule.bits - 1)) - 1 : (1L << rule.bits) - 1;
        if (number < min || number > max) {
            _Warn(rule.key, std::string(rule.key) + " = " + *_Value(rule.key) + ": does not fit " +
                                std::to_string(rule.bits) + " bits, the feed uses " +
                                std::to_string(rule.field(m_refResult.config)));
        }
    }

    void _ShieldPriceCheck() {
        long number = 0;
        const char* key = "shield_price_check";
        if (_Number(key, number) && *_Value(key) != "0" && *_Value(key) != "1") {
            _Warn(key, std::string(key) + " = " + *_Value(key) +
                           ": only 1 shields the price check; read as " + (number == 1 ? "1 (on)" : "off"));
        }
    }

    void _LogLevel() {
        long number = 0;
        const char* key = "log_level";
        if (_Number(key, number) && (number < 0 || number > 31)) {
            _Warn(key, std::string(key) + " = " + *_Value(key) +
                           ": outside 0..31 (error 1, warning 2, info 4, debug 8, debug_ex 16); the mask is "
                           "used as it is");
        }
    }

    void _Switch(const char* key) {
        const std::string* value = _Value(key);
        if (value != nullptr && !value->empty() && *value != "enabled") {
            _Warn(key, std::string(key) + " = " + *value + ": only " + quoted("enabled") +
                           " enables the feed; it stays disabled");
        }
    }

    void _Options() {
        const std::string* value = _Value("options");
        if (value != nullptr && !value->empty() && *value != "norecv" && *value != "recv") {
            _Warn("options", "options = " + *value + ": only " + quoted("norecv") +
                                 " drops option instruments; they are kept");
        }
    }

    void _Insts() {
        const ExanicMdConfigData& c = m_refResult.config;
        if (c.recvall != 0) {
            return;
        }
        for (const std::string& entry : c.listen_insts) {
            if (lower(entry) == "all") {
                _Warn("insts", "insts entry " + entry + ": an instrument list, not all (only insts = all, " +
                                   "alone and in lower case, subscribes every instrument)");
            } else if (entry.size() > kListenEntryMaxLen) {
                _Warn("insts",
                      "insts entry " + entry + " is longer than six characters: no instrument can " +
                          "match it (entries are a product such as cu, or an identifier's first six " +
                          "characters)");
            }
        }
    }

    void _Address(const char* key) {
        const std::string* value = _Value(key);
        if (value == nullptr) {
            return;
        }
        const size_t colon = value->find(':');
        in_addr address;
        if (colon == std::string::npos) {
            _Warn(key,
                  std::string(key) + " = " + *value + ": no ':port', the card gets address 0 and port 0");
            return;
        }
        if (inet_pton(AF_INET, value->substr(0, colon).c_str(), &address) != 1) {
            _Warn(key, std::string(key) + " = " + *value + ": not a dotted IPv4 address");
        }
        const std::string port = value->substr(colon + 1);
        char* end = nullptr;
        const long number = strtol(port.c_str(), &end, 10);
        if (port.empty() || *end != '\0' || number < 1 || number > UINT16_MAX) {
            _Warn(key, std::string(key) + " = " + *value + ": the port is not a number from 1 to 65535");
        }
    }

    void _CpuCore() {
        const int cpu = m_refResult.config.cpucore;
        const int cpus = get_nprocs();
        // -1 is how a development or test configuration asks to run unpinned.
        if (cpu == -1 && _Value("cpucore") != nullptr) {
            return;
        }
        if (cpu < 0 || cpu >= cpus) {
            _Warn("cpucore", "cpucore = " + std::to_string(cpu) + ": not a CPU of this host (0 to " +
                                 std::to_string(cpus - 1) + "); the feed runs unpinned");
            return;
        }
        cpu_set_t allowed;
        CPU_ZERO(&allowed);
        if (sched_getaffinity(0, sizeof(allowed), &allowed) == 0 && !CPU_ISSET(cpu, &allowed)) {
            _Warn("cpucore", "cpucore = " + std::to_string(cpu) +
                                 ": not among the CPUs this process may use; the feed runs unpinned");
        }
    }

    void _Refusals() {
        const ExanicMdConfigData& c = m_refResult.config;
        if (c.device.empty()) {
            _Add(ConfigFinding::ERROR, "device", "null device name: device is missing or empty");
        } else if (!card_check_device(c.device, m_refResult.deviceDetail)) {
            _Add(ConfigFinding::ERROR, "device",
                 "device = " + c.device + ": " + m_refResult.deviceDetail + " (the feed would stop with " +
                     quoted("failed to initialize network device") + ")");
        }
        if (c.recvall == 0 && c.total_listen_cnt == 0) {
            _Add(ConfigFinding::ERROR, "insts", "no subscribed instrument: insts is missing or empty");
        }
        if (!c.shfe2ps && !c.shfe4ps && !c.ine2ps && !c.ine4ps) {
            _Add(ConfigFinding::ERROR, nullptr,
                 "all SHFE and INE are disabled: set shfe2ps = enabled or ine2ps = enabled");
        }
    }

    ConfigCheckResult& m_refResult;
    const std::map<std::string, std::string>& m_refValues;
    const CLineScan& m_refScan;
};

std::string on_off(bool value) {
    return value ? "enabled" : "disabled";
}

}  // namespace

int ConfigCheckResult::ExitStatus() const {
    int status = 0;
    for (const ConfigFinding& finding : findings) {
        status = std::max(status, finding.severity == ConfigFinding::ERROR ? 2 : 1);
    }
    return status;
}

std::string CConfigCheck::Trim(const std::string& text) {
    return CConfigParse::_Trim(text);
}

std::vector<std::string> CConfigCheck::KnownKeys() {
    std::vector<std::string> keys;
    for (const auto& entry : read_keys()) {
        keys.push_back(entry.first);
    }
    return keys;
}

int CConfigCheck::ReadRecord(CConfigParse& parse,
                             const std::function<void(const char*, const char*)>& observer) {
    return parse._ReadRecord(observer);
}

std::string CConfigCheck::NearestKey(const std::string& key) {
    std::string best;
    size_t bestDistance = 3;
    for (const auto& [known, defaultValue] : read_keys()) {
        const size_t distance = edit_distance(key, known);
        if (distance < bestDistance && distance < key.size()) {
            best = known;
            bestDistance = distance;
        }
    }
    return best;
}

ConfigCheckResult CConfigCheck::Check(const std::string& path) {
    ConfigCheckResult result;
    CLineScan scan(result.findings);
    // The feed's own reader logs what it reads; a check writes no log.
    CCommonLog& log = CCommonLog::GetInstance();
    const int savedLevel = log.GetLogLevel();
    log.SetLogLevel(static_cast<ELOGLEVEL>(0));
    CConfigParse parse(result.config);
    const int loaded = parse._LoadConfig(
        path,
        [&scan](int number, const std::string& raw, const IniLine& line) { scan.Line(number, raw, line); });
    const int openErrno = errno;
    log.SetLogLevel(static_cast<ELOGLEVEL>(savedLevel));
    if (loaded != 0) {
        result.findings.push_back({ConfigFinding::ERROR, 0,
                                   "unable to open config file: " + path + " (" + strerror(openErrno) + ")"});
        return result;
    }
    result.opened = true;
    result.logLevel = parse._ReadRecord();

    static const std::map<std::string, std::string> kNone;
    const auto section = parse.sections.find("config");
    CValueCheck(result, section == parse.sections.end() ? kNone : section->second, scan).Run();
    std::stable_sort(result.findings.begin(), result.findings.end(),
                     [](const ConfigFinding& a, const ConfigFinding& b) {
                         return (a.line == 0 ? INT_MAX : a.line) < (b.line == 0 ? INT_MAX : b.line);
                     });
    return result;
}

std::string CConfigCheck::Describe(const ConfigCheckResult& result) {
    const ExanicMdConfigData& c = result.config;
    std::string instruments;
    for (const std::string& entry : c.listen_insts) {
        instruments += (instruments.empty() ? "" : ", ") + entry;
    }
    std::string levels;
    const char* names[] = {"error", "warning", "info", "debug", "debug_ex"};
    for (int bit = 0; bit < 5; ++bit) {
        if ((result.logLevel & (1 << bit)) != 0) {
            levels += (levels.empty() ? "" : ", ") + std::string(names[bit]);
        }
    }
    std::vector<std::pair<std::string, std::string>> rows = {
        {"device", c.device + (result.deviceDetail.empty() ? "" : "  (" + result.deviceDetail + ")")},
        {"insts", c.insts},
        {"subscribed", c.recvall != 0 ? "every instrument"
                                      : std::to_string(c.total_listen_cnt) + " entries: " + instruments},
        {"options", c.options != 0 ? "1 (option instruments kept)" : "0 (option instruments dropped)"},
        {"shfe2ps", on_off(c.shfe2ps)},
        {"ine2ps", on_off(c.ine2ps)},
        {"shfe4ps", on_off(c.shfe4ps) + " (no key enables it)"},
        {"ine4ps", on_off(c.ine4ps) + " (no key enables it)"},
    };
    for (const AddressKey& address : kAddressKeys) {
        rows.emplace_back(address.key, c.*address.field);
    }
    for (const IntegerKey& integer : kIntegerKeys) {
        const long value = integer.field(c);
        rows.emplace_back(integer.key,
                          std::to_string(value) +
                              (strcmp(integer.key, "cpucore") == 0 && value == -1 ? " (unpinned)" : ""));
    }
    rows.insert(rows.end(), {
                                {"shield_price_check",
                                 c.shield_price_check ? "1 (price check failures reported only)" : "0"},
                                {"log_level", std::to_string(result.logLevel) +
                                                  (levels.empty() ? " (nothing)" : " (" + levels + ")")},
                            });
    std::string text;
    for (const auto& [name, value] : rows) {
        text += "  " + name + std::string(name.size() < 20 ? 20 - name.size() : 1, ' ') + value + "\n";
    }
    return text;
}

std::string CConfigCheck::Report(const std::string& path, const ConfigCheckResult& result) {
    std::string text;
    int warnings = 0;
    int errors = 0;
    for (const ConfigFinding& finding : result.findings) {
        const bool error = finding.severity == ConfigFinding::ERROR;
        (error ? errors : warnings) += 1;
        text += path + (finding.line > 0 ? ":" + std::to_string(finding.line) : "") +
                (error ? ": error: " : ": warning: ") + finding.text + "\n";
    }
    if (result.opened) {
        text += (result.findings.empty() ? "" : "\n") + std::string("the feed would run with:\n") +
                Describe(result) + "\n";
    }
    const std::string counts = std::to_string(warnings) + (warnings == 1 ? " warning, " : " warnings, ") +
                               std::to_string(errors) + (errors == 1 ? " error" : " errors");
    switch (result.ExitStatus()) {
        case 0:
            text += path + ": ok\n";
            break;
        case 1:
            text += path + ": " + counts + ": the feed would start, but not as the file seems to say\n";
            break;
        default:
            text += path + ": " + counts + ": the feed would refuse to start\n";
            break;
    }
    return text;
}
