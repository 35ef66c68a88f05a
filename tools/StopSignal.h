// The stop request and the steady clock of the tools that run until stopped.
#pragma once

#include <signal.h>

#include <chrono>
#include <cstdint>

inline volatile sig_atomic_t g_stop = 0;

inline void request_stop(int) {
    g_stop = 1;
}

inline int64_t now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
