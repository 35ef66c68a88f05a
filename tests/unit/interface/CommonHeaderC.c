/* Compiled as C: the reader header must stand alone in a C program too. */
#include "interface/commonheader.h"
#include "interface/quvohealth.h"

size_t quvo_c_instrument_size(void) {
    return sizeof(instrument);
}
size_t quvo_c_share_size(void) {
    return sizeof(share_t);
}
size_t quvo_c_ask_px_offset(void) {
    return offsetof(instrument, ask_px);
}
size_t quvo_c_health_size(void) {
    return sizeof(quvo_health);
}
size_t quvo_c_health_latency_offset(void) {
    return offsetof(quvo_health, latency);
}
