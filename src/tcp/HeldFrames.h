// The frames of one TCP session that arrived ahead of a gap, held in a doubly
// linked list in ascending order of TCP sequence number until the gap fills.
// The list lives in the session's own fields (lost_buf_head, lost_buf_size,
// lost_flag), reached through HeldFrames. Nodes are malloc'd and freed here.
// Not thread-safe: one session belongs to one thread.
#pragma once

#include <cstdint>

#include "src/tcp/MdqpRecord.h"

// One held out-of-order frame, Ethernet header first. The slack keeps reads
// of a field body near the end of the frame inside the node.
struct TcpLostBuf {
    char buf[2048];
    uint32_t len;
    TcpLostBuf* next;  // toward higher sequence numbers
    TcpLostBuf* before;
    char slack[kMdqpReadSlack];
};

// The most frames a session holds.
constexpr uint32_t kHeldFramesLimit = 500;

// A session's list fields, by reference: the lowest frame (nullptr when
// empty), the number of frames and 1 once a frame is held. The flag goes back
// to 0, and the count with it, when the last frame is released or all are freed.
struct HeldFrames {
    TcpLostBuf*& head;
    uint32_t& size;
    uint8_t& flag;
};

enum EHeldInsert {
    HELD_INSERTED,   // linked in; size counts it
    HELD_DUPLICATE,  // the head has the same sequence number; freed
    HELD_FULL,       // kHeldFramesLimit frames are held already; freed
};

// The TCP sequence number of the frame in `node`: Ethernet, IPv4, TCP.
uint32_t held_frame_seq(const TcpLostBuf* node);

// A zeroed node holding the first min(len, 2048) bytes of `frame`, len set to
// that count; nullptr when out of memory. The caller owns it.
TcpLostBuf* held_frame_new(const char* frame, unsigned int len);

// Takes `node`, whose frame has sequence number `seq`, and links it in or frees
// it. The first frame of an empty list (flag 0) becomes the head. Otherwise
// the walk from the head puts a lower frame before the node it meets, drops a
// repeat of the head, and puts a higher frame after the tail, or between a
// node and the next node whose sequence number is at least its own (so a
// repeat of a later frame is kept, before it).
EHeldInsert held_frames_insert(HeldFrames held, TcpLostBuf* node, uint32_t seq);

// Frees the head; the list must not be empty.
void held_frames_release_head(HeldFrames held);

// Frees every node; the list is empty afterwards.
void held_frames_free_all(HeldFrames held);
