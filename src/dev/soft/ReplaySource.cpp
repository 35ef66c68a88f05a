#include "src/dev/soft/ReplaySource.h"

#include "src/dev/soft/DeviceOptions.h"

#include <fcntl.h>
#include <pcap/pcap.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
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

namespace {

struct ClassicFileHeader {
    uint32_t magic;
    uint16_t versionMajor;
    uint16_t versionMinor;
    int32_t thisZone;
    uint32_t sigFigs;
    uint32_t snapLen;
    uint32_t linkType;
};
constexpr uint32_t kMicroMagic = 0xa1b2c3d4;
constexpr uint32_t kNanoMagic = 0xa1b23c4d;
constexpr uint32_t kLinkTypeEthernet = 1;
constexpr uint32_t kLargestSnapLen = 262144;

// Maps a plain capture (pcap 2.4 in this host's byte order, every record
// whole and within the snapshot length): the port walks the file's own
// records, so nothing is copied or indexed; here they are only checked and
// counted. False, having kept nothing, for anything else (another format, an
// odd header, a file cut short, an error), which is then read through
// libpcap with its rules and its reasons.
bool MapPlainCapture(const std::string& path, bool requireEthernet, CFrameBytes& bytes,
                     SoftRecords& records) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<size_t>(status.st_size) < sizeof(ClassicFileHeader)) {
        close(fd);
        return false;
    }
    const size_t size = static_cast<size_t>(status.st_size);
    void* mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    close(fd);
    if (mapping == MAP_FAILED) {
        return false;
    }
    CFrameBytes mapped = CFrameBytes::Mapped(mapping, size);
    const char* const data = mapped.Data();
    ClassicFileHeader header;
    memcpy(&header, data, sizeof(header));
    const bool nano = header.magic == kNanoMagic;
    if ((header.magic != kMicroMagic && !nano) || header.versionMajor != 2 || header.versionMinor != 4 ||
        header.snapLen == 0 || header.snapLen > kLargestSnapLen ||
        (requireEthernet && header.linkType != kLinkTypeEthernet)) {
        return false;
    }
    size_t count = 0;
    size_t at = sizeof(header);
    while (at < size) {
        SoftPcapRecordHeader record;
        if (size - at < sizeof(record)) {
            return false;
        }
        memcpy(&record, data + at, sizeof(record));
        at += sizeof(record);
        if (record.capturedLength > header.snapLen || record.capturedLength > record.originalLength ||
            size - at < record.capturedLength) {
            return false;
        }
        at += record.capturedLength;
        ++count;
    }
    records.begin = sizeof(header);
    records.end = size;
    records.count = count;
    records.pcap = true;
    records.fractionNs = nano ? 1 : 1000;
    bytes = std::move(mapped);
    return true;
}

}  // namespace

bool load_pcap(const std::string& path, bool requireEthernet, CFrameBytes& bytes, SoftRecords& records,
               std::string& error) {
    if (MapPlainCapture(path, requireEthernet, bytes, records)) {
        return true;
    }
    std::vector<char> copy;
    records = SoftRecords();
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
        copy.reserve(static_cast<size_t>(fileSize));
    }
    struct pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    int status;
    while ((status = pcap_next_ex(pcap, &header, &data)) == 1) {
        // As char, so that the insert is one copy rather than a conversion
        // byte by byte.
        append_soft_record(copy, static_cast<int64_t>(header->ts.tv_sec) * 1000000000 + header->ts.tv_usec,
                           reinterpret_cast<const char*>(data), header->caplen);
        ++records.count;
    }
    if (status != PCAP_ERROR_BREAK) {
        error = "cannot read capture " + path + " after " + std::to_string(records.count) +
                " packets: " + pcap_geterr(pcap);
        pcap_close(pcap);
        return false;
    }
    pcap_close(pcap);
    records.end = copy.size();
    bytes = CFrameBytes(std::move(copy));
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
        CFrameBytes bytes;
        SoftRecords records;
        if (!load_pcap(capture.path, capture.ethernet, bytes, records, error)) {
            return nullptr;
        }
        capture.port.Load(std::move(bytes), records);
        int64_t first = 0;
        if (capture.port.GetFirstTime(first) && first < origin) {
            origin = first;
        }
    }
    if (options.hold) {
        source->m_port0.HoldUntilStreamCycled(REG_ORIG_DATA);
    }
    source->m_clock.SetOrigin(origin == std::numeric_limits<int64_t>::max() ? 0 : origin);
    return source;
}
