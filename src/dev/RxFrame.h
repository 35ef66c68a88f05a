// What a receive call returns besides a length, and the geometry of the
// card's receive ring. The values are the card library's own; the card build
// checks each one against its headers, so the software card returns exactly
// what the card does and a log line reads the same on both.
#pragma once

#include <cstdint>

#if QUVO_HAVE_EXANIC
#include <cstddef>  // the library's headers use NULL without declaring it

#include <exanic/fifo_if.h>
#include <exanic/fifo_rx.h>
#include <exanic/pcie_if.h>
#endif

// Hardware frame status, in the low four bits of a frame's last info word.
enum ERxFrameStatus : uint8_t {
    RX_FRAME_OK = 0,
    RX_FRAME_ABORTED = 1,  // aborted by the sender
    RX_FRAME_CORRUPT = 2,  // failed the CRC check
    RX_FRAME_HWOVFL = 3,   // frames lost in the card (PCIe bandwidth)
    RX_FRAME_ERROR_MASK = 0x0F,
};

// Software results; a receive call returns them negated.
enum ERxFrameSoftStatus : int {
    RX_FRAME_SWOVFL = 256,     // the reader was lapped: frames lost
    RX_FRAME_TRUNCATED = 257,  // longer than the caller's buffer: frame consumed
};

// The ring: 2 MiB of 128-byte chunks, 120 payload bytes then an 8-byte info
// word (timestamp, status, length, filter, generation).
constexpr uint32_t kRxChunkSize = 128;
constexpr uint32_t kRxChunkPayload = 120;
constexpr uint32_t kRxRingChunks = 512 * 4096 / kRxChunkSize;

constexpr uint32_t rx_frame_chunks(uint32_t length) {
    return length == 0 ? 1 : (length + kRxChunkPayload - 1) / kRxChunkPayload;
}

#if QUVO_HAVE_EXANIC
static_assert(int{RX_FRAME_ABORTED} == int{EXANIC_RX_FRAME_ABORTED});
static_assert(int{RX_FRAME_CORRUPT} == int{EXANIC_RX_FRAME_CORRUPT});
static_assert(int{RX_FRAME_HWOVFL} == int{EXANIC_RX_FRAME_HWOVFL});
static_assert(int{RX_FRAME_ERROR_MASK} == int{EXANIC_RX_FRAME_ERROR_MASK});
static_assert(int{RX_FRAME_SWOVFL} == int{EXANIC_RX_FRAME_SWOVFL});
static_assert(int{RX_FRAME_TRUNCATED} == int{EXANIC_RX_FRAME_TRUNCATED});
static_assert(kRxChunkSize == EXANIC_RX_CHUNK_SIZE && kRxChunkSize == sizeof(struct rx_chunk));
static_assert(kRxChunkPayload == EXANIC_RX_CHUNK_PAYLOAD_SIZE);
static_assert(kRxRingChunks == EXANIC_RX_NUM_CHUNKS);
#endif
