// The snapshot object both packet-handler fuzzers keep across inputs, and
// the session invariants they check after every frame, beyond what the
// sanitizers see.
#pragma once

#include <cstdio>
#include <cstdlib>

#include "fuzz/FuzzSupport.h"
#include "fuzz/PacketHandlerInput.h"
#include "tests/support/TcpHarness.h"

namespace packet_handler_fuzz {

inline CTcpHarness& Harness() {
    static CTcpHarness* h = [] {
        CTcpHarness* made = new CTcpHarness();
        made->enabled.mask = ENABLE_SHFE2PS | ENABLE_SHFE4PS | ENABLE_INE2PS | ENABLE_INE4PS;
        return made;
    }();
    return *h;
}

inline void FreshSessions(CTcpHarness& h) {
    h.tcp->ResetSession(CExanicTcpFuncTestAccess::Session(*h.tcp, kPort2ps));
    h.tcp->ResetSession(CExanicTcpFuncTestAccess::Session(*h.tcp, kPort4ps));
    h.finished.mask = 0;
}

[[noreturn]] inline void Fail(const char* what, uint16_t port) {
    fprintf(stderr, "packet handler fuzz: %s (port %u)\n", what, port);
    abort();
}

inline uint32_t HeldSeq(const TcpLostBuf* node) {
    const unsigned char* ip = reinterpret_cast<const unsigned char*>(node->buf) + 14;
    const unsigned char* tcp = ip + (ip[0] & 0x0F) * 4;
    return static_cast<uint32_t>(tcp[4]) << 24 | static_cast<uint32_t>(tcp[5]) << 16 |
           static_cast<uint32_t>(tcp[6]) << 8 | tcp[7];
}

inline void CheckSession(const CTcpHarness& h, uint16_t port) {
    const TcpSession& s = h.tcp->GetSession(port);
    if ((s.lost_flag == 1) != (s.lost_buf_head != nullptr)) {
        Fail("held-frame flag and list disagree", port);
    }
    const TcpLostBuf* before = nullptr;
    for (const TcpLostBuf* node = s.lost_buf_head; node != nullptr; node = node->next) {
        if (node->before != before) {
            Fail("held list back link broken", port);
        }
        if (before != nullptr && HeldSeq(before) > HeldSeq(node)) {
            Fail("held list out of sequence order", port);
        }
        before = node;
    }
    if (s.frag_buf_offset < 0 || s.frag_buf_offset > CExanicTcpFunc::kFragLimit) {
        Fail("fragment offset outside 0..65535", port);
    }
    if (s.frag_flag == 0 && s.frag_buf_offset != 0) {
        Fail("bytes pending without the fragment flag", port);
    }
    if (s.init == 1 && (s.em_dqp_data_type == MDQP_DATA_TYPE_UNKNOW || s.frag_buf == nullptr)) {
        Fail("established session without a feed or a fragment buffer", port);
    }
    if ((mask_load(h.finished) & ~mask_load(h.enabled)) != 0) {
        Fail("a feed finished that is not enabled", port);
    }
}

// Checks both snapshot ports; a run whose feeds all finished is over, and
// the next one starts from nothing, as the decoder loop does.
inline void AfterFrame(CTcpHarness& h) {
    CheckSession(h, kPort2ps);
    CheckSession(h, kPort4ps);
    if (mask_load(h.enabled) == mask_load(h.finished)) {
        CExanicTcpFuncTestAccess::Cleandata(*h.tcp);
    }
}

// One fuzz input: a control byte, then frames. `handle` prepares each frame
// and hands it to the packet handler; invariants are checked after each.
template <typename Handle>
int RunInput(const uint8_t* data, size_t size, Handle&& handle) {
    if (size < 1) {
        return 0;
    }
    CTcpHarness& h = Harness();
    if (data[0] & kFreshSessions) {
        FreshSessions(h);
    }
    for (const Frame& frame : SplitFrames(data, size)) {
        handle(h, frame);
        AfterFrame(h);
    }
    return 0;
}

}  // namespace packet_handler_fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return fuzz_initialize(packet_handler_fuzz::Harness);
}
