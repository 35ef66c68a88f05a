// quvo-bridge-latency: how long a book takes from the feed's ring to a
// mirror's ring. Follows both rings on one host; each book the mirror
// announces is matched, by slot and change number, with the moment the feed's
// announcement of it was seen. Prints percentiles, and every latency (ns, one
// a line) to a file for plotting.
#include <sys/prctl.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "interface/quvoreader.h"
#include "tools/StopSignal.h"

namespace {

constexpr const char* kUsage =
    "Usage: quvo-bridge-latency --feed DIR --mirror DIR --seconds S [--out FILE]\n"
    "Follows the update rings of the feed in key directory DIR and of a quvo-bridge mirror in\n"
    "another for S seconds, and prints the latency from the feed's announcement of a book to the\n"
    "mirror's announcement of the same book (slot and change number): count, p50, p90, p99,\n"
    "p99.9 and max in microseconds, and how many of the mirror's books matched none seen. With\n"
    "--out, every latency in nanoseconds, one a line.\n";

// Per slot, the last change numbers the feed announced and when.
constexpr size_t kKept = 64;

struct Seen {
    uint32_t changeNo;
    int64_t ns;
};

int64_t now_ns() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

bool attach_at(CQuvoReader& reader, const std::string& dir) {
    setenv(QUVO_KEY_DIR_ENV, dir.c_str(), 1);
    std::string error;
    if (!reader.Attach(error)) {
        fprintf(stderr, "quvo-bridge-latency: %s: %s\n", dir.c_str(), error.c_str());
        return false;
    }
    return true;
}

int64_t percentile(const std::vector<int64_t>& sorted, double q) {
    if (sorted.empty()) {
        return 0;
    }
    const size_t index = static_cast<size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[index];
}

}  // namespace

int main(int argc, char** argv) {
    std::string feedDir;
    std::string mirrorDir;
    std::string out;
    double seconds = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        }
        if (i + 1 >= argc) {
            fprintf(stderr, "quvo-bridge-latency: %s needs a value\n%s", arg.c_str(), kUsage);
            return 2;
        }
        const std::string value = argv[++i];
        if (arg == "--feed") {
            feedDir = value;
        } else if (arg == "--mirror") {
            mirrorDir = value;
        } else if (arg == "--out") {
            out = value;
        } else if (arg == "--seconds") {
            seconds = strtod(value.c_str(), nullptr);
        } else {
            fprintf(stderr, "quvo-bridge-latency: unknown option %s\n%s", arg.c_str(), kUsage);
            return 2;
        }
    }
    if (feedDir.empty() || mirrorDir.empty() || !(seconds > 0)) {
        fputs(kUsage, stderr);
        return 2;
    }
    signal(SIGINT, request_stop);
    signal(SIGTERM, request_stop);
    // The sleep between looks bounds the resolution; the default timer slack
    // (50 us) would add to it.
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    CQuvoReader feed;
    CQuvoReader mirror;
    if (!attach_at(feed, feedDir) || !attach_at(mirror, mirrorDir)) {
        return 2;
    }
    CRingFollower feedRing(feed.Ring());
    CRingFollower mirrorRing(mirror.Ring());
    std::vector<Seen> seen(static_cast<size_t>(QUVO_INST_SLOTS) * kKept, Seen{0, -1});
    std::vector<uint8_t> next(QUVO_INST_SLOTS, 0);
    std::vector<int64_t> latencies;
    uint64_t unmatched = 0;
    const int64_t end = now_ns() + static_cast<int64_t>(seconds * 1e9);
    while (!g_stop && now_ns() < end) {
        bool idle = true;
        for (uint16_t slot; feedRing.Next(slot);) {
            idle = false;
            if (slot >= QUVO_INST_SLOTS) {
                continue;
            }
            const uint32_t changeNo =
                __atomic_load_n(&feed.Area()->instmts[slot].change_no, __ATOMIC_RELAXED);
            seen[slot * kKept + next[slot]] = Seen{changeNo, now_ns()};
            next[slot] = static_cast<uint8_t>((next[slot] + 1) % kKept);
        }
        for (uint16_t slot; mirrorRing.Next(slot);) {
            idle = false;
            if (slot >= QUVO_INST_SLOTS) {
                continue;
            }
            const int64_t at = now_ns();
            const uint32_t changeNo =
                __atomic_load_n(&mirror.Area()->instmts[slot].change_no, __ATOMIC_RELAXED);
            int64_t from = -1;
            for (size_t k = 0; k < kKept; ++k) {
                const Seen& entry = seen[slot * kKept + k];
                if (entry.ns >= 0 && entry.changeNo == changeNo && (from < 0 || entry.ns < from)) {
                    from = entry.ns;
                }
            }
            if (from < 0) {
                ++unmatched;
            } else {
                latencies.push_back(at - from);
            }
        }
        if (idle) {
            std::this_thread::sleep_for(std::chrono::microseconds(10));
        }
    }
    if (!out.empty()) {
        FILE* file = fopen(out.c_str(), "w");
        if (file == nullptr) {
            fprintf(stderr, "quvo-bridge-latency: cannot write %s: %s\n", out.c_str(), strerror(errno));
            return 2;
        }
        for (const int64_t latency : latencies) {
            fprintf(file, "%lld\n", static_cast<long long>(latency));
        }
        fclose(file);
    }
    std::vector<int64_t> sorted = latencies;
    std::sort(sorted.begin(), sorted.end());
    printf(
        "{\"count\":%zu,\"unmatched\":%llu,\"p50_us\":%.1f,\"p90_us\":%.1f,\"p99_us\":%.1f,\"p999_us\":%.1f,"
        "\"max_us\":%.1f}\n",
        sorted.size(), static_cast<unsigned long long>(unmatched), percentile(sorted, 0.5) / 1e3,
        percentile(sorted, 0.9) / 1e3, percentile(sorted, 0.99) / 1e3, percentile(sorted, 0.999) / 1e3,
        sorted.empty() ? 0.0 : sorted.back() / 1e3);
    return 0;
}
