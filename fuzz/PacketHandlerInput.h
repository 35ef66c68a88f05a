// The input layout of the two packet-handler fuzzers, shared with their seed
// generator: one control byte, then frames, each a two-byte little-endian
// length and that many bytes; a length that runs past the end takes what is
// left. Several frames per input let one input carry a whole reassembly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace packet_handler_fuzz {

// The receive copy holds at most this much, so longer frames never reach the handler.
constexpr size_t kMaxFrame = 2048;

constexpr uint16_t kPort2ps = 33022;
constexpr uint16_t kPort4ps = 22000;

// The control byte.
enum : uint8_t {
    kWholeInput = 0x01,     // everything after the control byte is one frame
    kFreshSessions = 0x02,  // both snapshot ports idle first, so the input replays on its own
};

// The first byte of a frame (the Ethernet destination, never inspected)
// steers how the checksum target completes that frame.
enum : uint8_t {
    kKeepIpHeaderLength = 0x01,   // the frame's IHL, within 5..15, rather than 5
    kKeepTcpHeaderLength = 0x02,  // the frame's data offset, within 5..15, rather than 5
    kPadded = 0x04,               // the frame's last byte (mod 64) is Ethernet padding
    kRelativeSeq = 0x08,          // seq = the session's next expected + the frame's low 16 bits, signed
    kKeepHosts = 0x10,            // the frame's addresses rather than the one connection's
    kKeepRst = 0x20,              // RST kept; otherwise cleared, so that resets stay rare
    kPortOf4ps = 0x40,            // 22000 rather than 33022 when the frame names neither
};

struct Frame {
    const uint8_t* data;
    size_t size;
};

inline std::vector<Frame> SplitFrames(const uint8_t* data, size_t size) {
    std::vector<Frame> frames;
    if (size < 1) {
        return frames;
    }
    const uint8_t control = data[0];
    size_t at = 1;
    if (control & kWholeInput) {
        frames.push_back({data + at, size - at});
        return frames;
    }
    while (at + 2 <= size) {
        size_t len = static_cast<size_t>(data[at]) | static_cast<size_t>(data[at + 1]) << 8;
        at += 2;
        if (len > size - at) {
            len = size - at;
        }
        frames.push_back({data + at, len});
        at += len;
    }
    return frames;
}

inline void AppendFrame(std::vector<uint8_t>& input, const std::vector<char>& frame) {
    input.push_back(static_cast<uint8_t>(frame.size() & 0xFF));
    input.push_back(static_cast<uint8_t>(frame.size() >> 8));
    input.insert(input.end(), frame.begin(), frame.end());
}

}  // namespace packet_handler_fuzz
