#include "src/config/ConfigParse.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "public/log/CommonLog.h"

namespace {

constexpr const char* kBlanks = " \t\r\n";

long ToLong(const std::string& text) {
    return strtol(text.c_str(), nullptr, 10);
}

}  // namespace

std::string CConfigParse::_Trim(const std::string& s) {
    const size_t first = s.find_first_not_of(kBlanks);
    if (first == std::string::npos) {
        return std::string();
    }
    const size_t last = s.find_last_not_of(kBlanks);
    return s.substr(first, last - first + 1);
}

std::vector<std::string> CConfigParse::_SplitByChar(const std::string& s, char /*sep*/) {
    std::vector<std::string> pieces;
    std::istringstream stream(s);
    std::string piece;
    while (std::getline(stream, piece, ',')) {
        piece = _Trim(piece);
        if (!piece.empty()) {
            pieces.push_back(piece);
        }
    }
    return pieces;
}

std::string CConfigParse::_GetConfigData(const std::string& section, const std::string& key,
                                         const std::string& defaultValue) const {
    const auto sectionIt = sections.find(section);
    if (sectionIt == sections.end()) {
        return defaultValue;
    }
    const auto keyIt = sectionIt->second.find(key);
    if (keyIt == sectionIt->second.end()) {
        return defaultValue;
    }
    return keyIt->second;
}

IniLine CConfigParse::_ReadLine(const std::string& raw) {
    IniLine result;
    std::string line = _Trim(raw);
    // A comment starts anywhere, so a value never holds ';' or '#'.
    const size_t comment = line.find_first_of(";#");
    if (comment != std::string::npos) {
        line.erase(comment);
        result.commentCut = true;
    }
    line = _Trim(line);
    if (line.empty()) {
        result.kind = IniLine::BLANK;
    } else if (line[0] == '[') {
        const size_t close = line.find(']');
        if (close == std::string::npos) {
            result.kind = IniLine::UNCLOSED_HEADING;
        } else {
            result.kind = IniLine::HEADING;
            result.section = line.substr(1, close - 1);
        }
    } else {
        const size_t equals = line.find('=');
        if (equals == std::string::npos) {
            result.kind = IniLine::NO_EQUALS;
        } else {
            result.kind = IniLine::KEY_VALUE;
            result.key = _Trim(line.substr(0, equals));
            result.value = _Trim(line.substr(equals + 1));
        }
    }
    return result;
}

int CConfigParse::_LoadConfig(const std::string& path, const LineObserver& observer) {
    QUVO_LOG(LOG_INFO, "read configure file: %s", path.c_str());
    std::ifstream file(path);
    if (!file.is_open()) {
        QUVO_LOG(LOG_ERROR, "unable to open config file: %s", path.c_str());
        return -1;
    }

    std::string current;
    std::string raw;
    int number = 0;
    while (std::getline(file, raw)) {
        const IniLine line = _ReadLine(raw);
        if (observer) {
            observer(++number, raw, line);
        }
        if (line.kind == IniLine::HEADING) {
            current = line.section;
            // A repeated heading discards what its earlier occurrence set.
            sections[current].clear();
        } else if (line.kind == IniLine::KEY_VALUE && !current.empty()) {
            sections[current][line.key] = line.value;
        }
    }
    return 0;
}

int CConfigParse::_ReadRecord(const KeyObserver& observer) {
    ExanicMdConfigData& cfg = m_refConfigData;
    auto get = [this, &observer](const char* key, const char* defaultValue) {
        if (observer) {
            observer(key, defaultValue);
        }
        return _GetConfigData("config", key, defaultValue);
    };

    cfg.device = get("device", "");
    cfg.insts = get("insts", "");
    cfg.shfe2ps_ip_a = get("shfe2ps_ip_a", "239.4.42.72:21000");
    cfg.shfe2ps_ip_b = get("shfe2ps_ip_b", "239.3.42.71:21000");
    cfg.shfe4ps_ip_a = get("shfe4ps_ip_a", "239.3.2.3:21101");
    cfg.shfe4ps_ip_b = get("shfe4ps_ip_b", "239.4.2.4:21101");
    cfg.ine2ps_ip_a = get("ine2ps_ip_a", "239.3.52.71:25000");
    cfg.ine2ps_ip_b = get("ine2ps_ip_b", "239.4.52.72:25000");
    cfg.ine4ps_ip_a = get("ine4ps_ip_a", "239.4.151.92:25101");
    cfg.ine4ps_ip_b = get("ine4ps_ip_b", "239.3.151.91:25101");
    cfg.shfe2ps_topic_id = static_cast<int16_t>(ToLong(get("shfe2ps_topic_id", "1000")));
    cfg.shfe4ps_topic_id = static_cast<int16_t>(ToLong(get("shfe4ps_topic_id", "1101")));
    cfg.ine2ps_topic_id = static_cast<int16_t>(ToLong(get("ine2ps_topic_id", "5000")));
    cfg.ine4ps_topic_id = static_cast<int16_t>(ToLong(get("ine4ps_topic_id", "5101")));
    cfg.md2ps_snap_port = static_cast<uint16_t>(ToLong(get("md2ps_snap_port", "33022")));
    cfg.md4ps_snap_port = static_cast<uint16_t>(ToLong(get("md4ps_snap_port", "22000")));
    cfg.cpucore = static_cast<int16_t>(ToLong(get("cpucore", "")));
    cfg.recvall = get("insts", "") == "all" ? 1 : 0;
    cfg.options = get("options", "") == "norecv" ? 0 : 1;
    cfg.split_all_field = static_cast<int8_t>(ToLong(get("split_all_field", "1")));
    cfg.shfe2ps = get("shfe2ps", "") == "enabled";
    cfg.ine2ps = get("ine2ps", "") == "enabled";
    // No key enables a 4ps feed in this version; shfe4ps and ine4ps stay false.

    cfg.listen_insts = _SplitByChar(cfg.insts, ',');
    cfg.total_listen_cnt = static_cast<uint32_t>(cfg.listen_insts.size());

    cfg.timeout_cnt = static_cast<int16_t>(ToLong(get("timeout_cnt", "10")));
    cfg.shield_price_check = ToLong(get("shield_price_check", "0")) == 1;
    return static_cast<int>(ToLong(get("log_level", "7")));
}

int CConfigParse::InitConfig(const std::string& path) {
    if (_LoadConfig(path) != 0) {
        return -1;
    }
    const int logLevel = _ReadRecord();
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(logLevel));
    const ExanicMdConfigData& cfg = m_refConfigData;

    QUVO_LOG(LOG_DEBUG,
             "configure param: device: %s, insts: %s,\n"
             "shfe2ps_ip_a: %s, shfe2ps_ip_b: %s, shfe4ps_ip_a: %s, shfe4ps_ip_b: %s,"
             "ine2ps_ip_b: %s, ine2ps_ip_a: %s, ine4ps_ip_b: %s, ine4ps_ip_a: %s,\n"
             "hfe2ps_topic_id: %d, hfe4ps_topic_id: %d, ne2ps_topic_id: %d, ne4ps_topic_id: %d,"
             "md2ps_snap_port: %u, md4ps_snap_port: %u, cpucore: %d, recvall: %d, options: %d, "
             "split_all_field: %d,\n"
             "shfe2ps: %d, shfe4ps: %d, ine2ps: %d, ine4ps: %d,timeout_cnt: %d, log_level: %d",
             cfg.device.c_str(), cfg.insts.c_str(), cfg.shfe2ps_ip_a.c_str(), cfg.shfe2ps_ip_b.c_str(),
             cfg.shfe4ps_ip_a.c_str(), cfg.shfe4ps_ip_b.c_str(), cfg.ine2ps_ip_b.c_str(),
             cfg.ine2ps_ip_a.c_str(), cfg.ine4ps_ip_b.c_str(), cfg.ine4ps_ip_a.c_str(), cfg.shfe2ps_topic_id,
             cfg.shfe4ps_topic_id, cfg.ine2ps_topic_id, cfg.ine4ps_topic_id, cfg.md2ps_snap_port,
             cfg.md4ps_snap_port, cfg.cpucore, cfg.recvall, cfg.options, cfg.split_all_field, cfg.shfe2ps,
             cfg.shfe4ps, cfg.ine2ps, cfg.ine4ps, cfg.timeout_cnt, logLevel);

    if (logLevel > 7) {
        for (const std::string& inst : cfg.listen_insts) {
            QUVO_LOG(LOG_DEBUG_EX, "inst: %s", inst.c_str());
        }
    }

    if (cfg.device.empty()) {
        QUVO_LOG(LOG_ERROR, "null device name");
        return -1;
    }
    if (cfg.recvall == 0 && cfg.total_listen_cnt == 0) {
        QUVO_LOG(LOG_ERROR, "no subscribed instrument");
        return -1;
    }
    return 0;
}
