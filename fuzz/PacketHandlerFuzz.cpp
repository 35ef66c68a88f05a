// libFuzzer target: arbitrary bytes as Ethernet frames through
// CExanicTcpFunc::_PacketHandler. Input layout: PacketHandlerInput.h.
//
// One snapshot object lives across inputs, so sessions, held frames and
// pending fragments carry over unless an input asks for fresh sessions.
// Almost every frame stops at the checksum; the checksum target goes deeper.
// After every frame the sessions' invariants are checked
// (PacketHandlerHarness.h).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz/FuzzSupport.h"
#include "fuzz/PacketHandlerHarness.h"
#include "public/log/CommonLog.h"

using namespace packet_handler_fuzz;

namespace {

void Handle(CTcpHarness& h, const uint8_t* data, size_t len) {
    // Exactly the frame and the zeroed slack the receive copy gives it, so
    // any read beyond is a heap overflow.
    std::unique_ptr<char[]> frame(new char[len + kMdqpReadSlack]);
    memcpy(frame.get(), data, len);
    memset(frame.get() + len, 0, kMdqpReadSlack);
    CExanicTcpFuncTestAccess::PacketHandler(*h.tcp, frame.get(), static_cast<unsigned int>(len));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return RunInput(data, size, [](CTcpHarness& h, const Frame& frame) {
        Handle(h, frame.data, frame.size < kMaxFrame ? frame.size : kMaxFrame);
    });
}
