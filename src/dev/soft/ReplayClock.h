// One clock for both ports of a replay, so paced frames of the two captures
// come out in their captured interleaving.
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

inline int64_t monotonic_ns() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

class CReplayClock {
public:
    // speed 0: every frame is due at once; 1: captured pacing; X: X times faster.
    explicit CReplayClock(double speed) : m_speed(speed) {}

    void SetOrigin(int64_t firstCaptureNs) { m_originNs = firstCaptureNs; }
    bool IsPaced() const { return m_speed > 0; }

    // Whether a frame captured at `captureNs` is due. The clock starts at the
    // first question asked, which is the feed's first poll.
    bool IsDue(int64_t captureNs) {
        if (m_speed <= 0) {
            return true;
        }
        const int64_t now = monotonic_ns();
        int64_t start = m_startNs.load(std::memory_order_relaxed);
        if (start < 0) {
            int64_t unset = -1;
            start = m_startNs.compare_exchange_strong(unset, now, std::memory_order_relaxed) ? now : unset;
        }
        const double offset = static_cast<double>(captureNs - m_originNs) / m_speed;
        return static_cast<double>(now - start) >= offset;
    }

private:
    double m_speed;
    int64_t m_originNs = 0;
    std::atomic<int64_t> m_startNs{-1};
};
