// The input layout of the two packet-handler fuzzers, shared with their seed
// generator: one control byte, then frames (FramedInput.h) whose whole header
// is their length. Several frames per input let one input carry a whole
// reassembly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/FramedInput.h"

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

using fuzz_input::Frame;

inline std::vector<Frame> SplitFrames(const uint8_t* data, size_t size) {
    std::vector<Frame> frames;
    if (size < 1) {
        return frames;
    }
    if (data[0] & kWholeInput) {
        frames.push_back({data + 1, size - 1});
        return frames;
    }
    fuzz_input::for_each_frame(data, size, 0xFFFF,
                               [&frames](uint16_t, Frame frame) { frames.push_back(frame); });
    return frames;
}

inline void AppendFrame(std::vector<uint8_t>& input, const std::vector<char>& frame) {
    fuzz_input::append_frame(input, static_cast<uint16_t>(frame.size()), frame);
}

}  // namespace packet_handler_fuzz
