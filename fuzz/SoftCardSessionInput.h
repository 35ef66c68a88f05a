// The input layout of the soft_card_session fuzzer, shared with its seed
// generator: one control byte, then frames (FramedInput.h). A header's top bit
// sends its frame to the decoded capture (records, port 0), else it goes to
// the raw capture (Ethernet frames, port 1); the other fifteen bits are the
// frame's length.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/FramedInput.h"

namespace soft_card_session_fuzz {

// Per capture; later frames are left out, so that one input stays quick.
constexpr size_t kMaxFrames = 64;
constexpr uint16_t kDecodedBit = 0x8000;
constexpr uint16_t kLengthMask = 0x7FFF;

// The control byte: the configuration the feed runs with.
enum : uint8_t {
    kFeedMask = 0x03,
    kFeedShfe = 0x00,  // shfe2ps = enabled
    kFeedIne = 0x01,   // ine2ps = enabled
    kFeedBoth = 0x02,
    kFeedBothToo = 0x03,
    kListed = 0x04,      // insts = kListedInstruments rather than all
    kOptionsOff = 0x08,  // options = norecv
    // Each raw frame's IP total length and TCP checksum are made to agree
    // with its bytes, so that changed frames still reach the decoder.
    kCompleteRaw = 0x10,
    // The decoded records arrive kPacedDelayNs after the raw frames, paced by
    // their capture times, so that they meet a finished snapshot rather than
    // wait in the cache.
    kPaced = 0x20,
};

constexpr int64_t kPacedDelayNs = 50000000;

inline constexpr const char* kListedInstruments = "cu2501,al,sc2501";

using fuzz_input::Frame;

struct Captures {
    std::vector<Frame> raw;
    std::vector<Frame> decoded;
};

inline Captures SplitCaptures(const uint8_t* data, size_t size) {
    Captures captures;
    fuzz_input::for_each_frame(data, size, kLengthMask, [&captures](uint16_t header, Frame frame) {
        std::vector<Frame>& capture = (header & kDecodedBit) != 0 ? captures.decoded : captures.raw;
        if (capture.size() < kMaxFrames) {
            capture.push_back(frame);
        }
    });
    return captures;
}

inline void AppendFrame(std::vector<uint8_t>& input, bool decoded, const std::vector<char>& frame) {
    fuzz_input::append_frame(
        input, static_cast<uint16_t>((frame.size() & kLengthMask) | (decoded ? kDecodedBit : 0)), frame);
}

}  // namespace soft_card_session_fuzz
