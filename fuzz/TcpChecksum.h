// Big-endian fields and segment sealing, for the fuzz targets that complete
// arbitrary frames into segments that pass the snapshot path's frame checks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "sim/MdqpBuilder.h"

namespace fuzz_frames {

constexpr size_t kEth = 14;
// Longer TCP segments fail the snapshot path's frame checks.
constexpr size_t kMaxSegment = 2036;

inline uint16_t Get16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

inline void Put16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

inline void Put32(uint8_t* p, uint32_t v) {
    Put16(p, static_cast<uint16_t>(v >> 16));
    Put16(p + 2, static_cast<uint16_t>(v));
}

// Sets the IPv4 total length of the packet at `ip`, whose header is `hl`
// bytes, to `ipLen` cut to the longest segment taken, and the TCP checksum to
// match.
inline void SealSegment(uint8_t* ip, size_t hl, size_t ipLen) {
    ipLen = std::min(ipLen, hl + kMaxSegment);
    Put16(ip + 2, static_cast<uint16_t>(ipLen));
    Put16(ip + hl + 16, tcp_checksum(ip, ip + hl, ipLen - hl));
}

}  // namespace fuzz_frames
