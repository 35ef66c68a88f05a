// The card's receive ring, played by the software card in the card build:
// frames are written into host memory exactly as the card's DMA engine leaves
// them (120-byte chunks, each followed by its info word, the generation
// flipping at every wrap), and the card library's own receive call reads
// them through an exanic_rx_t that points at this memory.
#pragma once

#include <cstdint>
#include <memory>

#include "src/dev/RxFrame.h"

#if QUVO_HAVE_EXANIC

class CSoftRxRing {
public:
    // A zeroed ring, or null when its memory cannot be had.
    static std::unique_ptr<CSoftRxRing> Create();
    ~CSoftRxRing();
    CSoftRxRing(const CSoftRxRing&) = delete;
    CSoftRxRing& operator=(const CSoftRxRing&) = delete;

    // Writes one frame of 1 or more bytes whatever the reader's position: a
    // reader more than a ring behind is lapped, as on the card. Payload
    // first, then each chunk's info word with a release store.
    void Write(const char* data, uint32_t length, uint8_t status, uint32_t timestamp);
    // Points `rx` at this ring and places it the way the library does when a
    // buffer is acquired: after the last frame written.
    void Attach(exanic_rx_t& rx);
    // `rx` has read every chunk written.
    bool IsDrained(const exanic_rx_t& rx) const {
        return rx.next_chunk == m_next && rx.generation == m_generation;
    }

    // Chunks written and not yet read by `rx` (fewer than 256 rings' worth).
    uint64_t GetPending(const exanic_rx_t& rx) const {
        const uint8_t laps = static_cast<uint8_t>(m_generation - rx.generation);
        return static_cast<uint64_t>(laps) * kRxRingChunks + m_next - rx.next_chunk;
    }

    volatile struct rx_chunk* GetChunks() const { return m_pChunks; }
    uint32_t GetNextChunk() const { return m_next; }
    uint8_t GetGeneration() const { return m_generation; }
    uint64_t GetChunksWritten() const { return m_written; }

private:
    explicit CSoftRxRing(struct rx_chunk* chunks) : m_pChunks(chunks) {}

    struct rx_chunk* m_pChunks;
    uint32_t m_next = 0;
    // A zeroed ring reads as generation 0 everywhere; the library then waits
    // for generation 1 at chunk 0.
    uint8_t m_generation = 1;
    uint64_t m_written = 0;
};

#endif
