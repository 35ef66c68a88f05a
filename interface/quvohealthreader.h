/*
 * Reader side of the feed's health segment (quvohealth.h), header-only
 * (C++17, POSIX): attach read-only, take a consistent copy, tell whether the
 * feed that wrote it still runs, and read latency percentiles.
 */
#ifndef QUVO_INTERFACE_QUVOHEALTHREADER_H
#define QUVO_INTERFACE_QUVOHEALTHREADER_H

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "commonheader.h"
#include "quvohealth.h"
#include "quvoreader.h"

inline const char* quvo_health_phase_name(uint64_t phase) {
    static const char* const kNames[QUVO_PHASE_COUNT] = {"starting", "configuring", "snapshot", "replay",
                                                         "live",     "stopping",    "stopped",  "failed"};
    return phase < QUVO_PHASE_COUNT ? kNames[phase] : "unknown";
}

inline const char* quvo_health_restart_name(unsigned reason) {
    static const char* const kNames[QUVO_RESTART_COUNT] = {"gap", "topic", "short", "cache"};
    return reason < QUVO_RESTART_COUNT ? kNames[reason] : "unknown";
}

inline const char* quvo_health_clean_name(unsigned cause) {
    static const char* const kNames[QUVO_CLEAN_COUNT] = {"run_start", "rst_ack", "fragment", "held",
                                                         "price_check"};
    return cause < QUVO_CLEAN_COUNT ? kNames[cause] : "unknown";
}

inline const char* quvo_health_feed_name(unsigned feed) {
    static const char* const kNames[QUVO_HEALTH_FEEDS] = {"shfe2ps", "ine2ps", "shfe4ps", "ine4ps"};
    return feed < QUVO_HEALTH_FEEDS ? kNames[feed] : "unknown";
}

// One counter of a group and its C name. The tables below list every
// counter of a group in layout order; the JSON form, the terminal report and
// the exporter all take their names from them.
template <typename Group>
struct quvo_health_field {
    const char* name;
    uint64_t Group::*member;
};

#define QUVO_HEALTH_FIELD(group, name) \
    quvo_health_field<group> {         \
#name, &group::name            \
    }

inline constexpr quvo_health_field<quvo_health_feed> kQuvoHealthFeedFields[] = {
    QUVO_HEALTH_FIELD(quvo_health_feed, started_ns),     QUVO_HEALTH_FIELD(quvo_health_feed, completed_ns),
    QUVO_HEALTH_FIELD(quvo_health_feed, instruments),    QUVO_HEALTH_FIELD(quvo_health_feed, messages),
    QUVO_HEALTH_FIELD(quvo_health_feed, bytes),          QUVO_HEALTH_FIELD(quvo_health_feed, completed),
    QUVO_HEALTH_FIELD(quvo_health_feed, messages_total), QUVO_HEALTH_FIELD(quvo_health_feed, bytes_total)};

inline constexpr quvo_health_field<quvo_health_tcp> kQuvoHealthTcpFields[] = {
    QUVO_HEALTH_FIELD(quvo_health_tcp, polls_empty),
    QUVO_HEALTH_FIELD(quvo_health_tcp, polls_busy),
    QUVO_HEALTH_FIELD(quvo_health_tcp, abnormal_length),
    QUVO_HEALTH_FIELD(quvo_health_tcp, late),
    QUVO_HEALTH_FIELD(quvo_health_tcp, frames),
    QUVO_HEALTH_FIELD(quvo_health_tcp, short_ip),
    QUVO_HEALTH_FIELD(quvo_health_tcp, bad_ip_header),
    QUVO_HEALTH_FIELD(quvo_health_tcp, not_tcp),
    QUVO_HEALTH_FIELD(quvo_health_tcp, short_tcp),
    QUVO_HEALTH_FIELD(quvo_health_tcp, other_port),
    QUVO_HEALTH_FIELD(quvo_health_tcp, bad_tcp_header),
    QUVO_HEALTH_FIELD(quvo_health_tcp, no_payload),
    QUVO_HEALTH_FIELD(quvo_health_tcp, checksum),
    QUVO_HEALTH_FIELD(quvo_health_tcp, rst_ack),
    QUVO_HEALTH_FIELD(quvo_health_tcp, not_start),
    QUVO_HEALTH_FIELD(quvo_health_tcp, other_host),
    QUVO_HEALTH_FIELD(quvo_health_tcp, in_order),
    QUVO_HEALTH_FIELD(quvo_health_tcp, held),
    QUVO_HEALTH_FIELD(quvo_health_tcp, held_peak),
    QUVO_HEALTH_FIELD(quvo_health_tcp, duplicates),
    QUVO_HEALTH_FIELD(quvo_health_tcp, old),
    QUVO_HEALTH_FIELD(quvo_health_tcp, not_mdqp)};

inline constexpr quvo_health_field<quvo_health_records> kQuvoHealthRecordFields[] = {
    QUVO_HEALTH_FIELD(quvo_health_records, received),
    QUVO_HEALTH_FIELD(quvo_health_records, abnormal_length),
    QUVO_HEALTH_FIELD(quvo_health_records, applied),
    QUVO_HEALTH_FIELD(quvo_health_records, stale),
    QUVO_HEALTH_FIELD(quvo_health_records, restored),
    QUVO_HEALTH_FIELD(quvo_health_records, unsubscribed),
    QUVO_HEALTH_FIELD(quvo_health_records, options),
    QUVO_HEALTH_FIELD(quvo_health_records, out_of_range),
    QUVO_HEALTH_FIELD(quvo_health_records, short_record),
    QUVO_HEALTH_FIELD(quvo_health_records, unsupported_topic),
    QUVO_HEALTH_FIELD(quvo_health_records, gaps),
    QUVO_HEALTH_FIELD(quvo_health_records, unknown_fields),
    QUVO_HEALTH_FIELD(quvo_health_records, other_field_id),
    QUVO_HEALTH_FIELD(quvo_health_records, bad_level),
    QUVO_HEALTH_FIELD(quvo_health_records, bad_event),
    QUVO_HEALTH_FIELD(quvo_health_records, bad_entry)};

inline constexpr quvo_health_field<quvo_health_cache> kQuvoHealthCacheFields[] = {
    QUVO_HEALTH_FIELD(quvo_health_cache, cached),    QUVO_HEALTH_FIELD(quvo_health_cache, peak),
    QUVO_HEALTH_FIELD(quvo_health_cache, overflows), QUVO_HEALTH_FIELD(quvo_health_cache, replayed),
    QUVO_HEALTH_FIELD(quvo_health_cache, corrupt),   QUVO_HEALTH_FIELD(quvo_health_cache, cleared)};

inline constexpr quvo_health_field<quvo_health_ring> kQuvoHealthRingFields[] = {
    QUVO_HEALTH_FIELD(quvo_health_ring, write_count), QUVO_HEALTH_FIELD(quvo_health_ring, exchange_time),
    QUVO_HEALTH_FIELD(quvo_health_ring, exchange_millis), QUVO_HEALTH_FIELD(quvo_health_ring, shfe_packet_no),
    QUVO_HEALTH_FIELD(quvo_health_ring, ine_packet_no)};

#undef QUVO_HEALTH_FIELD

// Each table names every word of its group.
static_assert(std::size(kQuvoHealthFeedFields) * 8 == sizeof(quvo_health_feed), "feed fields");
static_assert(std::size(kQuvoHealthTcpFields) * 8 == sizeof(quvo_health_tcp), "tcp fields");
static_assert(std::size(kQuvoHealthRecordFields) * 8 == sizeof(quvo_health_records), "record fields");
static_assert(std::size(kQuvoHealthCacheFields) * 8 == sizeof(quvo_health_cache), "cache fields");
static_assert(std::size(kQuvoHealthRingFields) * 8 == sizeof(quvo_health_ring), "ring fields");

// Copies `source` until two successive copies agree, at most `maxCopies`
// copies; false when none agreed (`out` then holds the last). The four poll
// counters move on every idle turn of the feed's loops, faster than a copy
// is taken, so they are left out of the comparison: each is one aligned
// word and is taken from the last copy.
inline bool quvo_health_copy(const quvo_health& source, quvo_health& out, unsigned maxCopies = 16) {
    if (maxCopies < 2) {
        return false;
    }
    const auto settled = [](quvo_health& copy) {
        copy.tcp.polls_empty = copy.tcp.polls_busy = 0;
        copy.latency.polls_empty = copy.latency.polls_busy = 0;
    };
    quvo_health previous;
    quvo_health current;
    memcpy(&previous, &source, sizeof(quvo_health));
    settled(previous);
    for (unsigned copies = 2; copies <= maxCopies; ++copies) {
        std::atomic_thread_fence(std::memory_order_acquire);
        __asm__ __volatile__("" ::: "memory");
        memcpy(&out, &source, sizeof(quvo_health));
        current = out;
        settled(current);
        if (memcmp(&previous, &current, sizeof(quvo_health)) == 0) {
            return true;
        }
        previous = current;
    }
    return false;
}

// Whether a copy's header names this layout; `error` says why not.
inline bool quvo_health_layout_ok(const quvo_health& copy, std::string& error) {
    if (copy.magic == 0) {
        error = "the health segment is not set up yet: a feed is starting";
        return false;
    }
    if (copy.magic != QUVO_HEALTH_MAGIC) {
        error = "the health segment does not hold quvo-md health figures";
        return false;
    }
    if (copy.version != QUVO_HEALTH_VERSION || copy.size != sizeof(quvo_health)) {
        error = "the health segment has layout version " + std::to_string(copy.version) + " of " +
                std::to_string(copy.size) + " bytes; this reader knows version " +
                std::to_string(QUVO_HEALTH_VERSION) + " of " + std::to_string(sizeof(quvo_health)) + " bytes";
        return false;
    }
    return true;
}

// Clock ticks since boot at which process `pid` started (/proc/PID/stat
// field 22), or 0 when there is no such process.
inline uint64_t quvo_process_start_ticks(uint64_t pid) {
    char path[64];
    snprintf(path, sizeof(path), "/proc/%llu/stat", static_cast<unsigned long long>(pid));
    FILE* file = fopen(path, "r");
    if (file == nullptr) {
        return 0;
    }
    char text[1024];
    const size_t n = fread(text, 1, sizeof(text) - 1, file);
    fclose(file);
    text[n] = '\0';
    // The command name may hold spaces and parentheses: count from its end.
    const char* p = strrchr(text, ')');
    if (p == nullptr) {
        return 0;
    }
    for (int field = 2; field < 22 && p != nullptr; ++field) {
        p = strchr(p + 1, ' ');
    }
    return p == nullptr ? 0 : strtoull(p + 1, nullptr, 10);
}

// Whether the process that wrote `copy` still runs (and is not another
// process that took its number since).
inline bool quvo_health_writer_alive(const quvo_health& copy) {
    return copy.process.pid != 0 && copy.process.start_ticks != 0 &&
           quvo_process_start_ticks(copy.process.pid) == copy.process.start_ticks;
}

// Whether the figures are final: the feed stopped, failed, or is gone.
inline bool quvo_health_final(const quvo_health& copy) {
    return copy.process.phase == QUVO_PHASE_STOPPED || copy.process.phase == QUVO_PHASE_FAILED ||
           !quvo_health_writer_alive(copy);
}

// The latency, in ns, at or below which a fraction `q` (0..1) of the
// measured records fall: the upper end of the bucket that holds it, capped by
// the largest latency seen. 0 when nothing was measured.
inline uint64_t quvo_health_percentile(const quvo_health_latency& latency, double q) {
    uint64_t total = 0;
    for (uint64_t count : latency.buckets) {
        total += count;
    }
    if (total == 0) {
        return 0;
    }
    const double wanted = q * static_cast<double>(total);
    uint64_t seen = 0;
    for (unsigned i = 0; i < QUVO_HEALTH_LATENCY_BUCKETS; ++i) {
        seen += latency.buckets[i];
        if (latency.buckets[i] != 0 && static_cast<double>(seen) >= wanted) {
            const uint64_t high =
                i + 1 < QUVO_HEALTH_LATENCY_BUCKETS ? quvo_health_bucket_low(i + 1) - 1 : latency.max_ns;
            return high < latency.max_ns ? high : latency.max_ns;
        }
    }
    return latency.max_ns;
}

// The health segment of the key directory, attached read-only.
class CQuvoHealthReader {
public:
    CQuvoHealthReader() = default;
    ~CQuvoHealthReader() { Detach(); }
    CQuvoHealthReader(const CQuvoHealthReader&) = delete;
    CQuvoHealthReader& operator=(const CQuvoHealthReader&) = delete;

    // Never creates the segment. On failure nothing stays attached and
    // `error` says why, in words for an operator.
    bool Attach(std::string& error) {
        Detach();
        const int id =
            quvo_find_segment(quvo_key_path(QUVO_HEALTH_KEY_FILE), QUVO_HEALTH_PROJ_ID, "health segment",
                              "no quvo-md has made a health segment for key directory " + quvo_key_dir() +
                                  ": start the feed, or set " QUVO_KEY_DIR_ENV,
                              error);
        if (id == -1) {
            return false;
        }
        struct shmid_ds segment {};
        if (shmctl(id, IPC_STAT, &segment) != 0) {
            error = "cannot read the health segment's size: " + std::string(strerror(errno));
            return false;
        }
        if (segment.shm_segsz < sizeof(uint32_t) * 3) {
            error = "the health segment is " + std::to_string(segment.shm_segsz) + " bytes: too small";
            return false;
        }
        void* addr = shmat(id, nullptr, SHM_RDONLY);
        if (addr == reinterpret_cast<void*>(-1)) {
            error = "cannot attach the health segment read-only: " + std::string(strerror(errno));
            return false;
        }
        m_pAddr = addr;
        m_size = segment.shm_segsz;
        m_id = id;
        return true;
    }

    void Detach() {
        if (m_pAddr != nullptr) {
            shmdt(m_pAddr);
            m_pAddr = nullptr;
        }
    }

    bool IsAttached() const { return m_pAddr != nullptr; }

    // Whether the key file still names the segment attached (a feed that
    // starts after a host's segments were removed makes a new one).
    bool IsCurrent() const {
        const key_t key = ftok(quvo_key_path(QUVO_HEALTH_KEY_FILE).c_str(), QUVO_HEALTH_PROJ_ID);
        return IsAttached() && key != -1 && shmget(key, 0, 0) == m_id;
    }

    // A consistent copy whose layout this reader knows; false with `error`.
    // `passing`, when given, tells a failure that may go away by itself (a
    // feed still setting the segment up, or writing too fast for this copy)
    // from one that will not.
    bool Read(quvo_health& out, std::string& error, bool* passing = nullptr) const {
        if (passing != nullptr) {
            *passing = false;
        }
        if (!IsAttached()) {
            error = "the health segment is not attached";
            return false;
        }
        uint32_t head[3];
        memcpy(head, m_pAddr, sizeof(head));
        if (head[0] == QUVO_HEALTH_MAGIC &&
            (head[1] != QUVO_HEALTH_VERSION || head[2] != sizeof(quvo_health))) {
            quvo_health header{};
            memcpy(&header, head, sizeof(head));
            return quvo_health_layout_ok(header, error);
        }
        if (m_size < sizeof(quvo_health)) {
            error = "the health segment is " + std::to_string(m_size) + " bytes, smaller than this layout";
            return false;
        }
        if (!quvo_health_copy(*static_cast<const quvo_health*>(m_pAddr), out)) {
            error = "the health segment kept changing while it was copied";
            if (passing != nullptr) {
                *passing = true;
            }
            return false;
        }
        if (!quvo_health_layout_ok(out, error)) {
            if (passing != nullptr) {
                *passing = out.magic == 0;
            }
            return false;
        }
        return true;
    }

private:
    void* m_pAddr = nullptr;
    size_t m_size = 0;
    int m_id = -1;
};

#endif /* QUVO_INTERFACE_QUVOHEALTHREADER_H */
