// A large zeroed heap buffer whose pages are mapped ahead of use.
#pragma once

#include <atomic>
#include <cstddef>
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

    // Starts mapping every page. Where the kernel can map pages without
    // writing them, a thread does it while the buffer is already in use and
    // WaitMapped() returns at once; elsewhere the thread writes the zeros,
    // and WaitMapped() must come before the first write.
    void StartMapping();
    // Returns once no thread may still write the buffer.
    void WaitMapped();
    // Waits for the whole mapping, however it is done; for tests.
    void WaitAllMapped();
    bool MapsInBackground() const { return m_background; }

private:
    void _Map();
    char* _PageAligned() const;

    char* m_pData;
    size_t m_size;
    bool m_allowBackground;
    bool m_background = false;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
