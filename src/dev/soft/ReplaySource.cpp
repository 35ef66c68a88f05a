#include "src/dev/soft/ReplaySource.h"

#include "src/dev/soft/DeviceOptions.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <system_error>

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
    const auto apply = [&options](const std::string& key, const std::string& value, std::string& why) {
        if (key == "raw" || key == "decoded") {
            if (value.empty()) {
                why = "replay option " + key + " needs a file name";
                return false;
            }
            (key == "raw" ? options.raw : options.decoded) = value;
            return true;
        }
        if (key == "speed") {
            return ParseSeconds(key, value, options.speed, why);
        }
        if (key == "exit") {
            return ParseSeconds(key, value, options.exitSeconds, why);
        }
        if (key == "hold") {
            if (value != "0" && value != "1") {
                why = "bad value '" + value + "' for replay option hold: expected 0 or 1";
                return false;
            }
            options.hold = value == "1";
            return true;
        }
        why = "unknown replay option '" + key + "' (expected raw, decoded, speed, exit, hold)";
        return false;
    };
    if (!for_each_device_option(text, "replay", apply, error)) {
        return false;
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
    // The file's size bounds the frames' bytes; reserved, a capture of many
    // megabytes is not copied again each time the vector grows.
    std::error_code sizeError;
    const uintmax_t fileSize = std::filesystem::file_size(path, sizeError);
    if (!sizeError) {
        bytes.reserve(bytes.size() + static_cast<size_t>(fileSize));
    }
    struct pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    int status;
    while ((status = pcap_next_ex(pcap, &header, &data)) == 1) {
        SoftFrame frame;
        frame.offset = bytes.size();
        frame.length = header->caplen;
        frame.timeNs = static_cast<int64_t>(header->ts.tv_sec) * 1000000000 + header->ts.tv_usec;
        // As char, so that the insert is one copy rather than a conversion
        // byte by byte.
        const char* first = reinterpret_cast<const char*>(data);
        bytes.insert(bytes.end(), first, first + header->caplen);
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

CReplaySource::CReplaySource(const ReplayOptions& options, volatile uint32_t* registers)
    : m_options(options),
      m_clock(options.speed),
      m_port0(registers, REG_DECODE_DATA, m_clock),
      m_port1(registers, REG_ORIG_DATA, m_clock) {}

std::unique_ptr<CReplaySource> CReplaySource::Open(const std::string& text, volatile uint32_t* registers,
                                                   std::string& error) {
    ReplayOptions options;
    if (!parse_replay_options(text, options, error)) {
        return nullptr;
    }
    std::unique_ptr<CReplaySource> source(new CReplaySource(options, registers));
    int64_t origin = std::numeric_limits<int64_t>::max();
    struct Capture {
        const std::string& path;
        bool ethernet;
        CSoftPort& port;
    };
    for (const Capture& capture :
         {Capture{options.raw, true, source->m_port1}, Capture{options.decoded, false, source->m_port0}}) {
        if (capture.path.empty()) {
            continue;
        }
        std::vector<char> bytes;
        std::vector<SoftFrame> frames;
        if (!load_pcap(capture.path, capture.ethernet, bytes, frames, error)) {
            return nullptr;
        }
        if (!frames.empty() && frames.front().timeNs < origin) {
            origin = frames.front().timeNs;
        }
        capture.port.Load(std::move(bytes), std::move(frames));
    }
    if (options.hold) {
        source->m_port0.HoldUntilStreamCycled(REG_ORIG_DATA);
    }
    source->m_clock.SetOrigin(origin == std::numeric_limits<int64_t>::max() ? 0 : origin);
    return source;
}
