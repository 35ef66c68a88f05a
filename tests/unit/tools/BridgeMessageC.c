/* Compiled as C: the bridge's message header must stand alone in a C program too. */
#include "interface/quvobridge.h"

size_t quvo_c_book_msg_size(void) {
    return sizeof(quvo_book_msg);
}
size_t quvo_c_book_msg_book_offset(void) {
    return offsetof(quvo_book_msg, book);
}
