#include "src/api/ZeroedBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <system_error>

namespace {

// Small enough that a pause or a stop is seen within a fraction of a
// millisecond, large enough that the calls cost nothing next to the faults.
constexpr size_t kStep = 1u << 20;
constexpr size_t kPage = 4096;

bool Populate(char* data, size_t size) {
#ifdef MADV_POPULATE_WRITE
    return madvise(data, size, MADV_POPULATE_WRITE) == 0;
#else
    (void)data;
    (void)size;
    return false;
#endif
}

}  // namespace

// calloc hands back pages that read as zero without writing them, so the
// buffer is zeroed at once; only the page faults are left, and those are
// taken here rather than by the first frames cached.
CZeroedBuffer::CZeroedBuffer(size_t size, bool allowBackground)
    : m_pData(static_cast<char*>(calloc(size, 1))), m_size(size), m_allowBackground(allowBackground) {
    if (m_pData == nullptr) {
        m_size = 0;
    }
}

CZeroedBuffer::~CZeroedBuffer() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    free(m_pData);
}

void CZeroedBuffer::StartMapping() {
    if (m_size == 0 || m_thread.joinable()) {
        return;
    }
    m_background = m_allowBackground && Populate(_PageAligned(), kPage);
    try {
        m_thread = std::thread([this] { _Map(); });
    } catch (const std::system_error&) {
        _Map();
    }
}

char* CZeroedBuffer::_PageAligned() const {
    return reinterpret_cast<char*>((reinterpret_cast<uintptr_t>(m_pData) + kPage - 1) &
                                   ~uintptr_t{kPage - 1});
}

void CZeroedBuffer::_Map() {
    // The page before the first whole one holds the heap's own header and is
    // mapped already.
    char* const end = m_pData + m_size;
    for (char* at = _PageAligned(); at < end; at += kStep) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (m_pauseAsked && !m_stop) {
                m_parked = true;
                m_changed.notify_all();
                m_changed.wait(lock, [this] { return !m_pauseAsked || m_stop; });
                m_parked = false;
            }
            if (m_stop) {
                break;
            }
        }
        const size_t length = std::min<size_t>(kStep, static_cast<size_t>(end - at));
        if (m_background) {
            Populate(at, length);
        } else {
            // Through a volatile pointer, or the compiler drops a memset of
            // memory it knows calloc zeroed.
            static void* (*const volatile zeroFill)(void*, int, size_t) = memset;
            zeroFill(at, 0, length);
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_changed.notify_all();
}

void CZeroedBuffer::PauseMapping() {
    if (!m_background) {
        WaitAllMapped();
        return;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_pauseAsked = true;
    m_changed.wait(lock, [this] { return m_parked || m_done || !m_thread.joinable(); });
}

void CZeroedBuffer::ResumeMapping() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_pauseAsked = false;
    }
    m_changed.notify_all();
}

void CZeroedBuffer::WaitAllMapped() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}
