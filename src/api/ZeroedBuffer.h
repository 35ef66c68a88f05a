// A large zeroed heap buffer whose pages are mapped ahead of use.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

class CZeroedBuffer {
public:
    // Null data() when the heap refuses `size` bytes. Without
    // `allowBackground` the zeros are always written, as on a kernel that
    // cannot map pages without writing them.
    explicit CZeroedBuffer(size_t size, bool allowBackground = true);
    ~CZeroedBuffer();
    CZeroedBuffer(const CZeroedBuffer&) = delete;
    CZeroedBuffer& operator=(const CZeroedBuffer&) = delete;

    char* data() const { return m_pData; }
    size_t size() const { return m_size; }

    // Starts mapping every page on a thread. Where the kernel can map pages
    // without writing them, the buffer may be used meanwhile; elsewhere the
    // thread writes the zeros, and PauseMapping() must come before the
    // first write.
    void StartMapping();
    // Returns once the mapping thread is parked or done, so that it takes
    // nothing from the caller's threads; where it writes zeros, once it is
    // done.
    void PauseMapping();
    void ResumeMapping();
    // Waits for the whole mapping; for tests.
    void WaitAllMapped();
    bool MapsInBackground() const { return m_background; }

private:
    void _Map();
    char* _PageAligned() const;

    char* m_pData;
    size_t m_size;
    bool m_allowBackground;
    bool m_background = false;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stop = false;
    bool m_pauseAsked = false;
    bool m_parked = false;
    bool m_done = false;
    std::thread m_thread;
};
