// Writer side of the update ring: one 16-bit slot number per announcement.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>

#include "interface/commonheader.h"

class CUpdateRing {
public:
    // `entries` is the attached ring segment of QUVO_UPDATE_RING_ENTRIES
    // entries. The write counter starts at 0 and lives as long as the object,
    // so it carries across pipeline restarts.
    explicit CUpdateRing(uint16_t* entries) : m_pEntries(entries), m_writeCount(0) {}

    // Start-up clearing: every entry becomes the end marker.
    void Reset() { memset(m_pEntries, 0xFF, QUVO_UPDATE_RING_SIZE); }

    // Announces `slot`, whose record must be fully written. The end marker is
    // stored before the entry it follows, so readers never run past the end.
    void Publish(uint32_t slot) {
        std::atomic_thread_fence(std::memory_order_seq_cst);
        const uint16_t index = static_cast<uint16_t>(m_writeCount);
        if (index != QUVO_UPDATE_RING_END) {
            _Store(index + 1u, QUVO_UPDATE_RING_END);
        } else {
            _Store(0, index);
        }
        _Store(index, static_cast<uint16_t>(slot));
        ++m_writeCount;
    }

    uint32_t GetWriteCount() const { return m_writeCount; }
    uint16_t* GetEntries() const { return m_pEntries; }

private:
    // Readers in other processes follow the entries, so each store is a single
    // 16-bit write kept in program order (a plain store on x86).
    void _Store(uint32_t index, uint16_t value) {
        std::atomic_ref<uint16_t>(m_pEntries[index]).store(value, std::memory_order_release);
    }

    uint16_t* m_pEntries;
    uint32_t m_writeCount;
};
