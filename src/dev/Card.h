// The card facade: the seven libexanic calls the feed uses, dispatched to
// libexanic for a card name, or to the software card for "replay:..." and
// "sim..." devices. Only the receive call is on a hot path; it costs one
// predictable branch over calling libexanic directly.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "src/dev/soft/SoftCard.h"

#if QUVO_HAVE_EXANIC
#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#endif

struct CardHandle;

// A receive buffer of one port. Exactly one backend pointer is set.
struct CardRx {
#if QUVO_HAVE_EXANIC
    exanic_rx_t* pExanicRx;
#endif
    CSoftCard* pSoftCard;
    CSoftPort* pSoftPort;
    CardHandle* pHandle;
};

// Returned by card_receive_frame for a frame longer than the caller's buffer.
constexpr ssize_t CARD_RX_FRAME_TRUNCATED = CSoftPort::kTruncated;
#if QUVO_HAVE_EXANIC
static_assert(CARD_RX_FRAME_TRUNCATED == -EXANIC_RX_FRAME_TRUNCATED, "software card must match libexanic");
#endif

// True for device strings served by the software card.
bool card_is_software(const char* device);

// Acquires the device; acquiring a name again returns the same handle with
// its reference count raised. Null on failure (see card_get_last_error).
CardHandle* card_acquire_handle(const char* device);
// The devkit register window, or null on failure.
volatile uint32_t* card_get_devkit_registers(CardHandle* handle);
// A receive buffer of `port`, or null on failure.
CardRx* card_acquire_rx_buffer(CardHandle* handle, int port, int bufferNumber);
void card_release_rx_buffer(CardRx* rx);
// Drops one reference; the device is closed when the last one goes.
void card_release_handle(CardHandle* handle);
// Text of the last failure of the calls above.
const char* card_get_last_error();
// The software card behind a handle, or null for a real card.
CSoftCard* card_get_soft_card(CardHandle* handle);
// Number of holders of the device's handle; 0 when it is not open.
int card_get_ref_count(const char* device);

// Copies one whole frame into `buf` and returns its length; 0 when no frame
// waits; negative on error (CARD_RX_FRAME_TRUNCATED when it does not fit).
inline ssize_t card_receive_frame(CardRx* rx, char* buf, size_t size) {
#if QUVO_HAVE_EXANIC
    if (__builtin_expect(rx->pExanicRx != nullptr, 1)) {
        return exanic_receive_frame(rx->pExanicRx, buf, size, nullptr);
    }
#endif
    return rx->pSoftCard->Receive(rx->pSoftPort, buf, size);
}
