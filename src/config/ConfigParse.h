// The feed's configuration file (one INI section "config") and the record it
// fills, which every component then reads and none writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct ExanicMdConfigData {
    std::string device;
    std::string insts;
    std::string shfe2ps_ip_a;
    std::string shfe2ps_ip_b;
    std::string shfe4ps_ip_a;
    std::string shfe4ps_ip_b;
    std::string ine2ps_ip_b;
    std::string ine2ps_ip_a;
    std::string ine4ps_ip_b;
    std::string ine4ps_ip_a;
    std::vector<std::string> listen_insts;
    uint32_t total_listen_cnt = 0;
    int16_t shfe2ps_topic_id = 0;
    int16_t shfe4ps_topic_id = 0;
    int16_t ine2ps_topic_id = 0;
    int16_t ine4ps_topic_id = 0;
    uint16_t md2ps_snap_port = 0;
    uint16_t md4ps_snap_port = 0;
    int16_t cpucore = 0;
    int16_t timeout_cnt = 0;
    int8_t recvall = 0;
    int8_t options = 0;
    int8_t split_all_field = 0;
    bool shield_price_check = false;
    bool shfe2ps = false;
    bool shfe4ps = false;
    bool ine2ps = false;
    bool ine4ps = false;
};

// An `insts` entry matches an identifier by at most its first six characters.
constexpr size_t kListenEntryMaxLen = 6;

// One line of the configuration file, as the reader takes it.
struct IniLine {
    enum EKind { BLANK, HEADING, UNCLOSED_HEADING, NO_EQUALS, KEY_VALUE };
    EKind kind = BLANK;
    std::string section;      // HEADING: the name between the brackets, untrimmed
    std::string key;          // KEY_VALUE: trimmed
    std::string value;        // KEY_VALUE: trimmed
    bool commentCut = false;  // a ';' or '#' cut something off the line
};

class CConfigParse {
public:
    explicit CConfigParse(ExanicMdConfigData& configData) : m_refConfigData(configData) {}

    // Reads `path` into the record and sets the log level from it.
    // Returns 0, or -1 when the file cannot be opened, no device is named or
    // nothing is subscribed; on -1 the record may be partly filled.
    int InitConfig(const std::string& path);

private:
    friend class CConfigParseTestAccess;
    // The configuration check reads files with the same rules.
    friend class CConfigCheck;

    // Sees each line as the reader takes it: its number from 1, the text as
    // read, and what the reader made of it.
    using LineObserver = std::function<void(int number, const std::string& raw, const IniLine& line)>;
    // A key the record reads, with the default it falls back to.
    using KeyObserver = std::function<void(const char* key, const char* defaultValue)>;

    int _LoadConfig(const std::string& path, const LineObserver& observer = nullptr);
    static IniLine _ReadLine(const std::string& raw);
    // Fills the record from `sections`; returns the log level value.
    int _ReadRecord(const KeyObserver& observer = nullptr);
    static std::string _Trim(const std::string& s);
    // Always splits on the comma, whatever `sep` is.
    static std::vector<std::string> _SplitByChar(const std::string& s, char sep);
    std::string _GetConfigData(const std::string& section, const std::string& key,
                               const std::string& defaultValue) const;

    std::map<std::string, std::map<std::string, std::string>> sections;
    ExanicMdConfigData& m_refConfigData;
};
