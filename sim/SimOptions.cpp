#include "sim/SimOptions.h"

#include "src/dev/soft/DeviceOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <vector>

namespace {

bool ParseInteger(const std::string& value, long long low, long long high, long long& out) {
    if (value.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long long number = strtoll(value.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || number < low || number > high) {
        return false;
    }
    out = number;
    return true;
}

bool ParseUnsigned(const std::string& value, uint64_t& out) {
    if (value.empty() || value[0] == '-' || value[0] == '+') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long number = strtoull(value.c_str(), &end, 10);
    if (*end != '\0' || errno != 0) {
        return false;
    }
    out = number;
    return true;
}

bool ParseReal(const std::string& value, double low, double high, double& out) {
    if (value.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const double number = strtod(value.c_str(), &end);
    if (*end != '\0' || errno != 0 || !std::isfinite(number) || number < low || number > high) {
        return false;
    }
    out = number;
    return true;
}

struct OptionKey {
    const char* key;
    const char* help;
    bool deviceOnly;
    // Returns the expected form when the value is refused, else null.
    std::function<const char*(SimOptions&, const std::string&)> set;
};

template <typename T>
std::function<const char*(SimOptions&, const std::string&)> Integer(T SimOptions::*field, long long low,
                                                                    long long high, const char* form) {
    return [=](SimOptions& o, const std::string& v) -> const char* {
        long long n = 0;
        if (!ParseInteger(v, low, high, n)) {
            return form;
        }
        o.*field = static_cast<T>(n);
        return nullptr;
    };
}

std::function<const char*(SimOptions&, const std::string&)> Rate(double SimOptions::*field) {
    return [=](SimOptions& o, const std::string& v) -> const char* {
        return ParseReal(v, 0, 1, o.*field) ? nullptr : "a probability from 0 to 1";
    };
}

const std::vector<OptionKey>& Keys() {
    static const std::vector<OptionKey> keys = {
        {"shfe", "SHFE instruments (0 to 16384; 0 leaves SHFE out)", false,
         Integer(&SimOptions::shfe, 0, 16384, "a count from 0 to 16384")},
        {"ine", "INE instruments (0 to 4096; 0 leaves INE out)", false,
         Integer(&SimOptions::ine, 0, 4096, "a count from 0 to 4096")},
        {"seed", "seed of every random choice; the same seed gives the same market", false,
         [](SimOptions& o, const std::string& v) -> const char* {
             return ParseUnsigned(v, o.seed) ? nullptr : "an unsigned integer";
         }},
        {"rate", "decoded records per second; 0 sends them as fast as they are read", false,
         [](SimOptions& o, const std::string& v) -> const char* {
             return ParseReal(v, 0, 1e9, o.rate) ? nullptr : "a number of records per second, 0 to 1e9";
         }},
        {"records", "stop after this many decoded records; 0 never stops", false,
         [](SimOptions& o, const std::string& v) -> const char* {
             return ParseUnsigned(v, o.records) ? nullptr : "an unsigned integer";
         }},
        {"shfe_topic", "topic id of SHFE snapshots and records (default 1000)", false,
         Integer(&SimOptions::shfeTopic, -32768, 32767, "a 16-bit topic id")},
        {"ine_topic", "topic id of INE snapshots and records (default 5000)", false,
         Integer(&SimOptions::ineTopic, -32768, 32767, "a 16-bit topic id")},
        {"snap_port", "TCP port the snapshots are sent to (default 33022)", false,
         Integer(&SimOptions::snapPort, 1, 65535, "a TCP port from 1 to 65535")},
        {"tcp_reorder", "per segment: swapped with the next one", false, Rate(&SimOptions::tcpReorder)},
        {"tcp_duplicate", "per segment: sent again a little later", false, Rate(&SimOptions::tcpDuplicate)},
        {"tcp_loss", "per segment: lost, retransmitted a few segments later", false,
         Rate(&SimOptions::tcpLoss)},
        {"tcp_bad_checksum", "per segment: a corrupted copy arrives first", false,
         Rate(&SimOptions::tcpBadChecksum)},
        {"tcp_padding", "per segment: Ethernet padding after the IP packet", false,
         Rate(&SimOptions::tcpPadding)},
        {"tcp_other", "per segment: a frame of another port or protocol comes first", false,
         Rate(&SimOptions::tcpOther)},
        {"tcp_reset", "per snapshot: an RST+ACK part-way, then the whole snapshot again", false,
         Rate(&SimOptions::tcpReset)},
        {"gap", "per record: the record is lost, so the feed sees a change-number gap and restarts", false,
         Rate(&SimOptions::gap)},
        {"stale", "per record: an old record is sent again", false, Rate(&SimOptions::stale)},
        {"crossed", "per record: a record that crosses the book comes first, then the real one", false,
         Rate(&SimOptions::crossed)},
        {"unknown_field", "per record: an unknown field is appended", false, Rate(&SimOptions::unknownField)},
        {"short_record", "per record: a frame shorter than a record comes first", false,
         Rate(&SimOptions::shortRecord)},
        {"bad_length", "per record: a frame longer than 2048 bytes comes first", false,
         Rate(&SimOptions::badLength)},
        {"seconds", "stop making records this many seconds after the feed first reads one; 0 never stops",
         true,
         [](SimOptions& o, const std::string& v) -> const char* {
             return ParseReal(v, 0, 1e9, o.seconds) ? nullptr : "a number of seconds >= 0";
         }},
        {"expect", "write the expected books as JSON to this file when the card is released", true,
         [](SimOptions& o, const std::string& v) -> const char* {
             if (v.empty()) {
                 return "a file name";
             }
             o.expectPath = v;
             return nullptr;
         }},
        {"exit", "raise SIGINT once every record was sent and nothing moved for this many seconds", true,
         [](SimOptions& o, const std::string& v) -> const char* {
             return ParseReal(v, 0, 1e9, o.exitSeconds) ? nullptr : "a number of seconds >= 0";
         }},
        {"warmup", "records sent after each snapshot request before the snapshot is taken (default 0)", true,
         [](SimOptions& o, const std::string& v) -> const char* {
             return ParseUnsigned(v, o.warmup) ? nullptr : "an unsigned integer";
         }},
        {"interrupt", "raise SIGINT once at EVENT:N: the Nth write, snapshot, raw, decoded or after_snapshot",
         true,
         [](SimOptions& o, const std::string& v) -> const char* {
             constexpr const char* kForm =
                 "EVENT:N, EVENT one of write, snapshot, raw, decoded, after_snapshot";
             const size_t colon = v.find(':');
             if (colon == std::string::npos) {
                 return kForm;
             }
             const std::string event = v.substr(0, colon);
             ESimInterrupt at = SIM_INTERRUPT_NONE;
             for (const ESimInterrupt candidate :
                  {SIM_INTERRUPT_WRITE, SIM_INTERRUPT_SNAPSHOT, SIM_INTERRUPT_RAW, SIM_INTERRUPT_DECODED,
                   SIM_INTERRUPT_AFTER_SNAPSHOT}) {
                 if (event == sim_interrupt_name(candidate)) {
                     at = candidate;
                 }
             }
             uint64_t count = 0;
             if (at == SIM_INTERRUPT_NONE || !ParseUnsigned(v.substr(colon + 1), count) || count == 0) {
                 return kForm;
             }
             o.interruptAt = at;
             o.interruptCount = count;
             return nullptr;
         }},
    };
    return keys;
}

}  // namespace

bool sim_set_option(SimOptions& options, const std::string& key, const std::string& value, bool forDevice,
                    std::string& error) {
    for (const OptionKey& option : Keys()) {
        if (key != option.key || (option.deviceOnly && !forDevice)) {
            continue;
        }
        if (const char* form = option.set(options, value)) {
            error = "bad value '" + value + "' for simulator option " + key + ": expected " + form;
            return false;
        }
        return true;
    }
    std::string known;
    for (const OptionKey& option : Keys()) {
        if (!option.deviceOnly || forDevice) {
            known += known.empty() ? "" : ", ";
            known += option.key;
        }
    }
    error = "unknown simulator option '" + key + "' (known: " + known + ")";
    return false;
}

const char* sim_interrupt_name(ESimInterrupt at) {
    switch (at) {
        case SIM_INTERRUPT_WRITE:
            return "write";
        case SIM_INTERRUPT_SNAPSHOT:
            return "snapshot";
        case SIM_INTERRUPT_RAW:
            return "raw";
        case SIM_INTERRUPT_DECODED:
            return "decoded";
        case SIM_INTERRUPT_AFTER_SNAPSHOT:
            return "after_snapshot";
        case SIM_INTERRUPT_NONE:
            break;
    }
    return "none";
}

bool sim_parse_device_options(const std::string& text, SimOptions& options, std::string& error) {
    return for_each_device_option(
        text, "simulator",
        [&options](const std::string& key, const std::string& value, std::string& why) {
            return sim_set_option(options, key, value, true, why);
        },
        error);
}

std::string sim_options_help(bool forDevice) {
    std::string text;
    for (const OptionKey& option : Keys()) {
        if (option.deviceOnly && !forDevice) {
            continue;
        }
        std::string key = option.key;
        key.resize(18, ' ');
        text += "  " + key + option.help + "\n";
    }
    return text;
}
