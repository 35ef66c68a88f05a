// The card facade: the seven libexanic calls the feed uses, dispatched to
// libexanic for a card name, or to the software card for "replay:..." and
// registered simulator devices. Only the receive call is on a hot path. In
// the card build every frame, a software card's too, is read by the
// library's exanic_receive_frame; without the library the software card
// answers the call itself.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "src/dev/soft/SoftCard.h"

#if QUVO_HAVE_EXANIC
#include <exanic/exanic.h>
#include <exanic/fifo_rx.h>
#include <exanic/util.h>
#endif

struct CardHandle;

// A receive buffer of one port: a card's, or a software card's port.
struct CardRx {
#if QUVO_HAVE_EXANIC
    // The library's reader: of the card's DMA buffer, or of a software
    // card's ring (then it is softReader).
    exanic_rx_t* pExanicRx;
    exanic_rx_t softReader;
#endif
    CSoftCard* pSoftCard;
    int softPort;
    CardHandle* pHandle;
};

// Returned by card_receive_frame for a frame longer than the caller's buffer.
constexpr ssize_t CARD_RX_FRAME_TRUNCATED = -RX_FRAME_TRUNCATED;
// Returned by card_receive_frame after the reader was lapped.
constexpr ssize_t CARD_RX_FRAME_SWOVFL = -RX_FRAME_SWOVFL;

// True for device strings served by the software card.
bool card_is_software(const char* device);
// Checks what `device` names without keeping anything: a software card is
// built (options parsed, captures read) and let go; a card name needs card
// support in this build and its device file. False, with `detail` saying why,
// when acquiring it would fail; `detail` describes it either way.
bool card_check_device(const std::string& device, std::string& detail);

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
// waits; negative on error: CARD_RX_FRAME_TRUNCATED when it does not fit,
// CARD_RX_FRAME_SWOVFL when frames were lost, or minus a hardware frame
// status (ERxFrameStatus).
inline ssize_t card_receive_frame(CardRx* rx, char* buf, size_t size) {
#if QUVO_HAVE_EXANIC
    if (__builtin_expect(rx->pSoftCard != nullptr, 0)) {
        if (!rx->pSoftCard->UsesRing()) {
            return rx->pSoftCard->ReceiveDirect(rx->softPort, buf, size);
        }
        rx->pSoftCard->FillRing(rx->softPort, *rx->pExanicRx);
    }
    return exanic_receive_frame(rx->pExanicRx, buf, size, nullptr);
#else
    return rx->pSoftCard->ReceiveDirect(rx->softPort, buf, size);
#endif
}
