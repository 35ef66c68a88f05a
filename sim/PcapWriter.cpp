#include "sim/PcapWriter.h"

#include <pcap/pcap.h>

#include <stdexcept>

CPcapWriter::CPcapWriter(const std::string& path, int linkType, bool nanosecond) : m_nanosecond(nanosecond) {
    m_pPcap = pcap_open_dead_with_tstamp_precision(
        linkType, 262144, nanosecond ? PCAP_TSTAMP_PRECISION_NANO : PCAP_TSTAMP_PRECISION_MICRO);
    if (m_pPcap == nullptr) {
        throw std::runtime_error("pcap_open_dead failed");
    }
    m_pDumper = pcap_dump_open(m_pPcap, path.c_str());
    if (m_pDumper == nullptr) {
        const std::string why = pcap_geterr(m_pPcap);
        pcap_close(m_pPcap);
        throw std::runtime_error("cannot create capture " + path + ": " + why);
    }
}

CPcapWriter::~CPcapWriter() {
    Close();
}

void CPcapWriter::Write(const void* data, uint32_t length, int64_t timeNs, uint32_t wireLength) {
    struct pcap_pkthdr header {};
    header.ts.tv_sec = timeNs / 1000000000;
    const int64_t fraction = timeNs % 1000000000;
    header.ts.tv_usec = m_nanosecond ? fraction : fraction / 1000;
    header.caplen = length;
    header.len = wireLength > length ? wireLength : length;
    pcap_dump(reinterpret_cast<u_char*>(m_pDumper), &header, static_cast<const u_char*>(data));
}

void CPcapWriter::Close() {
    if (m_pDumper != nullptr) {
        pcap_dump_close(m_pDumper);
        m_pDumper = nullptr;
        pcap_close(m_pPcap);
        m_pPcap = nullptr;
    }
}

void write_pcap(const std::string& path, const std::vector<std::vector<char>>& packets, int linkType,
                int64_t timeNs) {
    CPcapWriter writer(path, linkType, true);
    for (const std::vector<char>& packet : packets) {
        writer.Write(packet.data(), static_cast<uint32_t>(packet.size()), timeNs);
    }
}
