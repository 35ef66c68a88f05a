#include "tests/support/Poll.h"

#include <time.h>
#include <unistd.h>

#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

double seconds_now() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

bool poll_until(const std::function<bool()>& done, double seconds, int intervalMs) {
    const double deadline = seconds_now() + seconds;
    while (!done()) {
        if (seconds_now() >= deadline) {
            return false;
        }
        usleep(static_cast<useconds_t>(intervalMs) * 1000);
    }
    return true;
}

bool wait_for_text(const std::string& path, const std::string& text, double seconds, int intervalMs) {
    return poll_until([&] { return contains(read_file(path), text); }, seconds, intervalMs);
}

bool wait_settled(const std::function<std::string()>& read, double seconds, int intervalMs,
                  std::string& text) {
    std::string previous;
    return poll_until(
        [&] {
            text = read();
            const bool same = !text.empty() && text == previous;
            previous = text;
            return same;
        },
        seconds, intervalMs);
}
