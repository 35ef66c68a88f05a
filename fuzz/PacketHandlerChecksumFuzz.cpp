// libFuzzer target: frames completed into plausible IPv4 TCP segments to a
// snapshot port with a correct checksum, through
// CExanicTcpFunc::_PacketHandler, so that inputs reach sessions, held
// frames, fragments and the MDQP decoder. Input layout: PacketHandlerInput.h;
// each frame's first byte steers its completion.
//
// One snapshot object lives across inputs, and the sessions' invariants are
// checked after every frame, as in the raw target.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/FuzzSupport.h"
#include "fuzz/PacketHandlerHarness.h"
#include "fuzz/TcpChecksum.h"
#include "public/log/CommonLog.h"

using namespace packet_handler_fuzz;
using namespace fuzz_frames;

namespace {

constexpr uint32_t kSrcHost = 0x0A000001;
constexpr uint32_t kDstHost = 0x0A000002;

// Completes `in` into `frame` (exactly sized, zeroed slack after it).
std::unique_ptr<uint8_t[]> Complete(CTcpHarness& h, const uint8_t* in, size_t size, size_t& len) {
    const uint8_t control = size > 0 ? in[0] : 0;
    const uint8_t ipFirst = size > kEth ? in[kEth] : 0;
    const int ihl = control & kKeepIpHeaderLength ? std::clamp(ipFirst & 0x0F, 5, 15) : 5;
    const size_t hl = static_cast<size_t>(ihl) * 4;
    const uint8_t offsetByte = size > kEth + hl + 12 ? in[kEth + hl + 12] : 0;
    const int doff = control & kKeepTcpHeaderLength ? std::clamp(offsetByte >> 4, 5, 15) : 5;
    const size_t th = static_cast<size_t>(doff) * 4;
    len = std::min(std::max(size, kEth + hl + th + 1), kMaxFrame);

    std::unique_ptr<uint8_t[]> frame(new uint8_t[len + kMdqpReadSlack]());
    memcpy(frame.get(), in, std::min(size, len));
    uint8_t* f = frame.get();
    uint8_t* ip = f + kEth;
    uint8_t* tcp = ip + hl;
    f[12] = 0x08;
    f[13] = 0x00;
    ip[0] = static_cast<uint8_t>(0x40 | ihl);
    ip[9] = 6;
    uint16_t port = Get16(tcp + 2);
    if (port != kPort2ps && port != kPort4ps) {
        port = control & kPortOf4ps ? kPort4ps : kPort2ps;
        Put16(tcp + 2, port);
    }
    tcp[12] = static_cast<uint8_t>(doff << 4 | (tcp[12] & 0x0F));
    if (!(control & kKeepHosts)) {
        Put32(ip + 12, kSrcHost);
        Put32(ip + 16, kDstHost);
    }
    if (!(control & kKeepRst)) {
        tcp[13] &= static_cast<uint8_t>(~0x04);
    }
    if (control & kRelativeSeq) {
        const int16_t delta = static_cast<int16_t>(Get16(tcp + 6));
        Put32(tcp + 4, h.tcp->GetSession(port).next_expt_seq + static_cast<uint32_t>(delta));
    }
    // Whatever lies past the IP total length is padding.
    size_t padding = control & kPadded ? f[len - 1] % 64 : 0;
    if (kEth + hl + th + 1 + padding > len) {
        padding = 0;
    }
    SealSegment(ip, hl, len - kEth - padding);
    return frame;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return RunInput(data, size, [](CTcpHarness& h, const Frame& in) {
        size_t len = 0;
        std::unique_ptr<uint8_t[]> frame = Complete(h, in.data, in.size, len);
        CExanicTcpFuncTestAccess::PacketHandler(*h.tcp, reinterpret_cast<char*>(frame.get()),
                                                static_cast<unsigned int>(len));
    });
}
