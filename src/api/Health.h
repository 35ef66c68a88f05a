// The feed's side of the health segment. Every figure has one writing thread
// at a time, so an update is a relaxed load and store: no lock, no fence, no
// read-modify-write on the hot path.
#pragma once

#include <cstdint>

#include "interface/quvohealth.h"

// The record written to: the health segment once attach_health succeeded,
// before that (and in processes that never attach, such as tests) a
// process-local record, so writers never test for its absence.
extern quvo_health* g_pQuvoHealth;

inline quvo_health& health() {
    return *g_pQuvoHealth;
}

inline uint64_t health_load(const uint64_t& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
inline void health_set(uint64_t& field, uint64_t value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
inline void health_add(uint64_t& field, uint64_t n = 1) {
    health_set(field, health_load(field) + n);
}
inline void health_raise(uint64_t& field, uint64_t value) {
    if (value > health_load(field)) {
        health_set(field, value);
    }
}

// Counts a record outcome that the busy path rarely takes. Out of line and
// cold, so that the counting leaves the applying code as it is laid out
// without it: one call in a block moved out of the way.
[[gnu::cold, gnu::noinline]] void health_note(uint64_t quvo_health_records::*field);

uint64_t health_wall_ns();
uint64_t health_monotonic_ns();

// Creates (0644) or reuses the health segment keyed by the market-data
// area's key file, resets it and fills in this process. A segment of
// another layout is replaced. On failure the feed runs on with the local
// record and a line on standard error says why: health figures are never a
// reason to stop a feed.
void attach_health(const char* configPath);
// Detaches the segment, which stays for readers; writes go local again.
void detach_health();

// Enters `phase` now.
void health_phase(quvo_health_phase phase);

// Whether the `seen`th announcement is one picked for a latency sample (one in
// QUVO_HEALTH_LATENCY_SAMPLE_EVERY). A clock read per record would cost more
// than the rest of the accounting together.
inline bool health_sampled(uint64_t seen) {
    return seen % QUVO_HEALTH_LATENCY_SAMPLE_EVERY == 0;
}

// One live record's latency from its poll to its announcement.
inline void health_latency(uint64_t ns) {
    quvo_health_latency& latency = health().latency;
    health_add(latency.samples);
    health_add(latency.sum_ns, ns);
    health_raise(latency.max_ns, ns);
    health_add(latency.buckets[quvo_health_bucket(ns)]);
}

#ifdef QUVO_HEALTH_BARE
// Benchmarks build a second copy of a component without the accounting (its
// class renamed), so that the cost is measured side by side in one run.
#define QUVO_HEALTH_UNUSED(field, ...) ((void)(field), (void)sizeof(0 __VA_OPT__(+(__VA_ARGS__))))
#define health_add(...) QUVO_HEALTH_UNUSED(__VA_ARGS__)
#define health_set(...) QUVO_HEALTH_UNUSED(__VA_ARGS__)
#define health_raise(...) QUVO_HEALTH_UNUSED(__VA_ARGS__)
#define health_sampled(seen) ((void)(seen), false)
#define health_latency(ns) (void)sizeof(ns)
#define health_note(field) (void)(field)
#endif
