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
// buffer is zeroed at once; only the page faults are left.
CZeroedBuffer::CZeroedBuffer(size_t size) : m_pData(static_cast<char*>(calloc(size, 1))), m_size(size) {
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

bool CZeroedBuffer::CanMapInBackground() {
    static const bool can = [] {
        void* page = mmap(nullptr, kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) {
            return false;
        }
        const bool populated = Populate(static_cast<char*>(page), kPage);
        munmap(page, kPage);
        return populated;
    }();
    return can;
}

void CZeroedBuffer::MapInBackground() {
    if (m_size == 0 || !CanMapInBackground()) {
        return;
    }
    if (m_thread.joinable()) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_pauseAsked = false;
        }
        m_changed.notify_all();
        return;
    }
    try {
        m_thread = std::thread([this] { _Map(); });
    } catch (const std::system_error&) {
        // Pages are then mapped by their first write.
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
        Populate(at, std::min<size_t>(kStep, static_cast<size_t>(end - at)));
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_done = true;
    }
    m_changed.notify_all();
}

void CZeroedBuffer::PauseMapping() {
    if (!m_thread.joinable()) {
        return;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_pauseAsked = true;
    m_changed.wait(lock, [this] { return m_parked || m_done; });
}

void CZeroedBuffer::WaitAllMapped() {
    if (m_thread.joinable()) {
        m_thread.join();
    }
}
