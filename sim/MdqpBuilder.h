// Builds MDQP snapshot messages field by field, and Ethernet/IPv4/TCP frames
// that carry them, for the simulator, the tests, fuzz seeds and benchmarks.
#pragma once

#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "src/tcp/MdqpRecord.h"

class CMdqpMessageBuilder {
public:
    explicit CMdqpMessageBuilder(uint8_t flag = kMdqpFlagMore, int32_t requestId = 0) {
        MdqpHeader header{flag, kMdqpSnapshotType, 0, requestId};
        Append(&header, sizeof(header));
    }

    template <typename Body>
    CMdqpMessageBuilder& Field(uint16_t id, const Body& body) {
        return RawField(id, &body, sizeof(body));
    }
    CMdqpMessageBuilder& RawField(uint16_t id, const void* body, size_t size) {
        FieldHeader field{id, static_cast<uint16_t>(size)};
        Append(&field, sizeof(field));
        Append(body, size);
        return *this;
    }
    // Appends fields already encoded, such as those of another builder.
    CMdqpMessageBuilder& Raw(const void* fields, size_t size) {
        Append(fields, size);
        return *this;
    }
    CMdqpMessageBuilder& Snap(int16_t topicId, int32_t snapNo = 1) {
        return Field(MDQP_FID_SNAP, SnapField{topicId, snapNo});
    }
    CMdqpMessageBuilder& PacketNo(int32_t packetNo) {
        return Field(MDQP_FID_PACKET_NO, PacketNoField{packetNo});
    }
    CMdqpMessageBuilder& Inst(const std::string& id, int32_t instNo, double tick, double codec,
                              int32_t multiple) {
        InstInfoField info{};
        memcpy(info.inst_id, id.data(), std::min(id.size(), sizeof(info.inst_id) - 1));
        info.volume_multiple = multiple;
        info.price_tick = tick;
        info.codec_price = codec;
        info.inst_no = instNo;
        return Field(MDQP_FID_INST_INFO, info);
    }
    CMdqpMessageBuilder& Deal(const DealInfoField& deal) { return Field(MDQP_FID_DEAL_INFO, deal); }
    CMdqpMessageBuilder& Level(int32_t instNo, char direction, double price, int32_t volume) {
        return Field(MDQP_FID_PRICE_DETAIL, PriceDetailField{instNo, direction, price, volume});
    }
    CMdqpMessageBuilder& Stats(int32_t instNo, int32_t bidVol, double bidAmount, int32_t askVol,
                               double askAmount) {
        return Field(MDQP_FID_ORDER_STATIS, OrderStatisField{instNo, bidVol, bidAmount, askVol, askAmount});
    }

    // The message with its length set to the fields written so far.
    std::vector<char> Build() const {
        std::vector<char> bytes = m_bytes;
        const uint16_t length = static_cast<uint16_t>(bytes.size() - sizeof(MdqpHeader));
        memcpy(bytes.data() + offsetof(MdqpHeader, length), &length, sizeof(length));
        return bytes;
    }

private:
    void Append(const void* data, size_t size) {
        const size_t at = m_bytes.size();
        m_bytes.resize(at + size);
        if (size != 0) {
            memcpy(m_bytes.data() + at, data, size);
        }
    }
    std::vector<char> m_bytes;
};

// Addresses and flags of one TCP segment; addresses and ports in host order.
struct TcpSegmentFields {
    uint32_t srcHost = 0x0A000001;  // 10.0.0.1
    uint32_t dstHost = 0x0A000002;
    uint16_t srcPort = 40000;
    uint16_t dstPort = 33022;
    uint32_t seq = 1000;
    uint8_t flags = 0x18;  // PSH+ACK
    uint8_t protocol = 6;
    size_t padding = 0;  // Ethernet padding after the IP packet
    bool badChecksum = false;
};

// One Ethernet frame of an IPv4 TCP segment carrying `payload`, with a correct
// TCP checksum unless asked otherwise.
// The TCP checksum, in host order, of the `segLen` bytes at `tcp`, with the
// check field taken as zero and the pseudo-header's addresses from the IPv4
// header at `ip`.
inline uint16_t tcp_checksum(const unsigned char* ip, const unsigned char* tcp, size_t segLen) {
    uint32_t sum = 0;
    const auto word = [](const unsigned char* p) { return static_cast<uint32_t>(p[0] << 8 | p[1]); };
    for (size_t i = 12; i < 20; i += 2) {
        sum += word(ip + i);
    }
    sum += 6 + static_cast<uint32_t>(segLen);
    for (size_t i = 0; i + 1 < segLen; i += 2) {
        sum += i == 16 ? 0 : word(tcp + i);
    }
    if (segLen & 1) {
        sum += static_cast<uint32_t>(tcp[segLen - 1]) << 8;
    }
    while (sum >> 16) {
        sum = (sum & 0xFFFF) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

inline std::vector<char> build_tcp_frame(const TcpSegmentFields& fields, const char* payload, size_t size) {
    constexpr size_t kEth = 14, kIp = 20, kTcp = 20;
    std::vector<char> frame(kEth + kIp + kTcp + size + fields.padding, 0);
    unsigned char* f = reinterpret_cast<unsigned char*>(frame.data());
    f[12] = 0x08;  // IPv4
    unsigned char* ip = f + kEth;
    ip[0] = 0x45;
    const uint16_t total = htons(static_cast<uint16_t>(kIp + kTcp + size));
    memcpy(ip + 2, &total, 2);
    ip[8] = 64;
    ip[9] = fields.protocol;
    const uint32_t src = htonl(fields.srcHost), dst = htonl(fields.dstHost);
    memcpy(ip + 12, &src, 4);
    memcpy(ip + 16, &dst, 4);
    unsigned char* tcp = ip + kIp;
    const uint16_t sport = htons(fields.srcPort), dport = htons(fields.dstPort);
    const uint32_t seq = htonl(fields.seq);
    memcpy(tcp, &sport, 2);
    memcpy(tcp + 2, &dport, 2);
    memcpy(tcp + 4, &seq, 4);
    tcp[12] = 0x50;
    tcp[13] = fields.flags;
    tcp[14] = 0xFF;
    if (size != 0) {
        memcpy(tcp + kTcp, payload, size);
    }

    uint16_t check = htons(tcp_checksum(ip, tcp, kTcp + size));
    if (fields.badChecksum) {
        check ^= 0x0101;
    }
    memcpy(tcp + 16, &check, 2);
    return frame;
}

inline std::vector<char> build_tcp_frame(const TcpSegmentFields& fields, const std::vector<char>& payload) {
    return build_tcp_frame(fields, payload.data(), payload.size());
}
