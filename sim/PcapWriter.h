// Writes pcap capture files (microsecond or nanosecond) with libpcap, for
// quvo-sim and the tests that feed the software card.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct pcap;
struct pcap_dumper;

class CPcapWriter {
public:
    // `linkType` is a DLT_ value (1 is Ethernet). Throws std::runtime_error
    // when the file cannot be created.
    CPcapWriter(const std::string& path, int linkType, bool nanosecond);
    ~CPcapWriter();
    CPcapWriter(const CPcapWriter&) = delete;
    CPcapWriter& operator=(const CPcapWriter&) = delete;

    // Appends one packet captured at `timeNs` (nanoseconds since the epoch).
    // `wireLength` larger than `length` records a packet cut by the snap length.
    void Write(const void* data, uint32_t length, int64_t timeNs, uint32_t wireLength = 0);
    void Close();

private:
    struct pcap* m_pPcap;
    struct pcap_dumper* m_pDumper;
    bool m_nanosecond;
};

// Writes `packets` to a new capture at `path`, all captured at `timeNs`.
void write_pcap(const std::string& path, const std::vector<std::vector<char>>& packets, int linkType = 1,
                int64_t timeNs = 0);
