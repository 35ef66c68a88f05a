// A large zeroed heap buffer whose pages can be mapped ahead of use.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

class CZeroedBuffer {
public:
    // Null data() when the heap refuses `size` bytes.
    explicit CZeroedBuffer(size_t size);
    ~CZeroedBuffer();
    CZeroedBuffer(const CZeroedBuffer&) = delete;
    CZeroedBuffer& operator=(const CZeroedBuffer&) = delete;

    char* data() const { return m_pData; }
    size_t size() const { return m_size; }

    // Maps the pages not yet mapped on a thread of its own, while the buffer
    // is in use; the first call starts the thread, later ones let a paused
    // one go on. Nothing where the kernel cannot map pages without writing
    // them: pages are then mapped by their first write.
    void MapInBackground();
    // Returns once the mapping thread is parked, done or never started, so
    // that it takes nothing from the caller's threads.
    void PauseMapping();
    // Waits for the whole mapping; not while paused. For tests.
    void WaitAllMapped();
    // Whether this kernel maps pages without writing them.
    static bool CanMapInBackground();

private:
    void _Map();
    char* _PageAligned() const;

    char* m_pData;
    size_t m_size;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_stop = false;
    bool m_pauseAsked = false;
    bool m_parked = false;
    bool m_done = false;
    std::thread m_thread;
};
