#include "src/dev/soft/ReplaySource.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <set>

namespace {

bool ParseSeconds(const std::string& key, const std::string& value, double& out, std::string& error) {
    char* end = nullptr;
    errno = 0;
    const double number = strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || errno != 0 || !std::isfinite(number) || number < 0) {
        error = "bad value '" + value + "' for replay option " + key + ": expected a number >= 0";
        return false;
    }
    out = number;
    return true;
}

}  // namespace

bool parse_replay_options(const std::string& text, ReplayOptions& options, std::string& error) {
    std::set<std::string> seen;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        const std::string item = text.substr(start, comma - start);
        start = comma + 1;
        if (item.empty()) {
            continue;
        }
        const size_t equals = item.find('=');
        if (equals == std::string::npos) {
            error = "replay option '" + item + "' has no value (expected key=value)";
            return false;
        }
        const std::string key = item.substr(0, equals);
        const std::string value = item.substr(equals + 1);
        if (!seen.insert(key).second) {
            error = "replay option " + key + " is given twice";
            return false;
        }
        if (key == "raw" || key == "decoded") {
            if (value.empty()) {
                error = "replay option " + key + " needs a file name";
                return false;
            }
            (key == "raw" ? options.raw : options.decoded) = value;
        } else if (key == "speed") {
            if (!ParseSeconds(key, value, options.speed, error)) {
                return false;
            }
        } else if (key == "exit") {
            if (!ParseSeconds(key, value, options.exitSeconds, error)) {
                return false;
            }
        } else {
            error = "unknown replay option '" + key + "' (expected raw, decoded, speed, exit)";
            return false;
        }
    }
    if (options.raw.empty() && options.decoded.empty()) {
        error = "replay needs raw=FILE, decoded=FILE or both";
        return false;
    }
    return true;
}

bool load_pcap(const std::string& path, bool requireEthernet, std::vector<char>& bytes,
               std::vector<SoftFrame>& frames, std::string& error) {
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    pcap_t* pcap = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, errbuf);
    if (pcap == nullptr) {
        error = "cannot open capture " + path + ": " + errbuf;
        return false;
    }
    if (requireEthernet && pcap_datalink(pcap) != DLT_EN10MB) {
        const char* name = pcap_datalink_val_to_name(pcap_datalink(pcap));
        error = "capture " + path + " has link type " + (name ? name : std::to_string(pcap_datalink(pcap))) +
                ", expected Ethernet";
        pcap_close(pcap);
        return false;
    }
    struct pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    int status;
    while ((status = pcap_next_ex(pcap, &header, &data)) == 1) {
        SoftFrame frame;
        frame.offset = bytes.size();
        frame.length = header->caplen;
        frame.timeNs = static_cast<int64_t>(header->ts.tv_sec) * 1000000000 + header->ts.tv_usec;
        bytes.insert(bytes.end(), data, data + header->caplen);
        frames.push_back(frame);
    }
    if (status != PCAP_ERROR_BREAK) {
        error = "cannot read capture " + path + " after " + std::to_string(frames.size()) +
                " packets: " + pcap_geterr(pcap);
        pcap_close(pcap);
        return false;
    }
    pcap_close(pcap);
    return true;
}
