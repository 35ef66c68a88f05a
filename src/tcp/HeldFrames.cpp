#include "src/tcp/HeldFrames.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "src/tcp/WireLoad.h"

namespace {

constexpr unsigned int kEthernetHeader = 14;

void LinkBefore(HeldFrames held, TcpLostBuf* cur, TcpLostBuf* node) {
    node->next = cur;
    node->before = cur->before;
    if (cur->before != nullptr) {
        cur->before->next = node;
    } else {
        held.head = node;
    }
    cur->before = node;
}

void LinkAfter(TcpLostBuf* cur, TcpLostBuf* node) {
    node->before = cur;
    node->next = cur->next;
    if (cur->next != nullptr) {
        cur->next->before = node;
    }
    cur->next = node;
}

}  // namespace

uint32_t held_frame_seq(const TcpLostBuf* node) {
    const char* ip = node->buf + kEthernetHeader;
    const int hl = (static_cast<uint8_t>(ip[0]) & 0x0F) * 4;
    return ntohl(Load32(ip + hl + 4));
}

TcpLostBuf* held_frame_new(const char* frame, unsigned int len) {
    TcpLostBuf* node = static_cast<TcpLostBuf*>(malloc(sizeof(TcpLostBuf)));
    if (node == nullptr) {
        return nullptr;
    }
    memset(static_cast<void*>(node), 0, sizeof(TcpLostBuf));
    // Anything past 2048 bytes can only be padding beyond the segment.
    const unsigned int kept = len < sizeof(node->buf) ? len : sizeof(node->buf);
    memcpy(node->buf, frame, kept);
    node->len = kept;
    return node;
}

EHeldInsert held_frames_insert(HeldFrames held, TcpLostBuf* node, uint32_t seq) {
    if (held.flag != 1) {
        held.head = node;
        held.flag = 1;
        ++held.size;
        return HELD_INSERTED;
    }
    // Only the head is compared for equality: a node is passed only when the
    // frame is above the node after it, so a repeat of a later frame is linked
    // in before it rather than dropped.
    for (TcpLostBuf* cur = held.head; cur != nullptr && held.size < kHeldFramesLimit; cur = cur->next) {
        const uint32_t curSeq = held_frame_seq(cur);
        if (seq < curSeq) {
            LinkBefore(held, cur, node);
            ++held.size;
            return HELD_INSERTED;
        }
        if (seq == curSeq) {
            free(node);
            return HELD_DUPLICATE;
        }
        if (cur->next == nullptr || seq <= held_frame_seq(cur->next)) {
            LinkAfter(cur, node);
            ++held.size;
            return HELD_INSERTED;
        }
    }
    free(node);
    return HELD_FULL;
}

void held_frames_release_head(HeldFrames held) {
    TcpLostBuf* head = held.head;
    held.head = head->next;
    free(head);
    if (held.head == nullptr) {
        held.flag = 0;
        held.size = 0;
    } else {
        held.head->before = nullptr;
        --held.size;
    }
}

void held_frames_free_all(HeldFrames held) {
    for (TcpLostBuf* node = held.head; node != nullptr;) {
        TcpLostBuf* next = node->next;
        free(node);
        node = next;
    }
    held.head = nullptr;
    held.size = 0;
    held.flag = 0;
}
