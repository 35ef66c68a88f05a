#include "src/dev/soft/RxRing.h"

#if QUVO_HAVE_EXANIC

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kRingBytes = static_cast<size_t>(kRxRingChunks) * kRxChunkSize;

uint64_t InfoWord(uint32_t timestamp, uint8_t status, uint8_t length, uint8_t generation) {
    union {
        struct rx_chunk_info info;
        uint64_t data;
    } u;
    u.info.timestamp = timestamp;
    u.info.frame_status = status;
    u.info.length = length;
    u.info.matched_filter = 0;
    u.info.generation = generation;
    return u.data;
}

}  // namespace

std::unique_ptr<CSoftRxRing> CSoftRxRing::Create() {
    void* memory = aligned_alloc(4096, kRingBytes);
    if (memory == nullptr) {
        return nullptr;
    }
    memset(memory, 0, kRingBytes);
    return std::unique_ptr<CSoftRxRing>(new CSoftRxRing(static_cast<struct rx_chunk*>(memory)));
}

CSoftRxRing::~CSoftRxRing() {
    free(m_pChunks);
}

void CSoftRxRing::Write(const char* data, uint32_t length, uint8_t status, uint32_t timestamp) {
    uint32_t left = length;
    do {
        struct rx_chunk& chunk = m_pChunks[m_next];
        const bool last = left <= kRxChunkPayload;
        const uint32_t bytes = last ? left : kRxChunkPayload;
        memcpy(chunk.payload, data, bytes);
        data += bytes;
        left -= bytes;
        // Only the last chunk carries a length and a status; 0 says more follow.
        const uint64_t word = last ? InfoWord(timestamp, status, static_cast<uint8_t>(bytes), m_generation)
                                   : InfoWord(timestamp, 0, 0, m_generation);
        __atomic_store_n(&chunk.u.data, word, __ATOMIC_RELEASE);
        ++m_written;
        if (++m_next == kRxRingChunks) {
            m_next = 0;
            ++m_generation;
        }
    } while (left > 0);
}

void CSoftRxRing::Attach(exanic_rx_t& rx) {
    memset(&rx, 0, sizeof(rx));
    rx.buffer = m_pChunks;
    __exanic_rx_catchup(&rx);
}

#endif
