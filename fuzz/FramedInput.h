// The framing of the fuzz inputs that carry several frames
// (PacketHandlerInput.h, SoftCardSessionInput.h): after the control byte,
// frames each led by a two-byte little-endian header whose masked bits are
// the frame's length; a length that runs past the end takes what is left.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace fuzz_input {

struct Frame {
    const uint8_t* data;
    size_t size;
};

// Calls `visit(header, frame)` for each frame of the input.
template <typename Visit>
void for_each_frame(const uint8_t* data, size_t size, uint16_t lengthMask, Visit&& visit) {
    size_t at = 1;
    while (at + 2 <= size) {
        const uint16_t header = static_cast<uint16_t>(data[at] | data[at + 1] << 8);
        at += 2;
        const size_t len = std::min<size_t>(header & lengthMask, size - at);
        visit(header, Frame{data + at, len});
        at += len;
    }
}

// Appends `frame` to `input`, led by `header`.
inline void append_frame(std::vector<uint8_t>& input, uint16_t header, const std::vector<char>& frame) {
    input.push_back(static_cast<uint8_t>(header & 0xFF));
    input.push_back(static_cast<uint8_t>(header >> 8));
    input.insert(input.end(), frame.begin(), frame.end());
}

}  // namespace fuzz_input
