// The feed's health figures (interface/quvohealth.h) for an operator: the
// JSON form quvo-stat, quvo-dump --health and the Python reader share, rates
// between two copies, the terminal report and quvo-view's one-line summary.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "interface/quvohealth.h"
#include "interface/quvohealthreader.h"

// CLOCK_REALTIME in ns, as the feed stamps its figures.
uint64_t health_wall_now_ns();

// "running", "stopped" (phase stopped), "failed" (phase failed) or "gone"
// (the writing process no longer exists and stopped or failed in neither).
const char* health_state(const quvo_health& health, bool writerAlive);
// The same, asking /proc whether the writer still runs.
const char* health_state(const quvo_health& health);

// The whole record in the shared JSON form, keys in their fixed order.
nlohmann::ordered_json health_to_json(const quvo_health& health, bool writerAlive);
nlohmann::ordered_json health_to_json(const quvo_health& health);
// `value` on one line with its newline; bytes that are not UTF-8 (a
// configuration path may hold any) become U+FFFD.
std::string health_json_line(const nlohmann::ordered_json& value);

// Per-second figures between two copies taken `seconds` apart. A figure is
// empty when it cannot be told: the copies come from different feed
// processes (pid or start_ns differ), its counter went backwards, or
// `seconds` is not above 0.
struct health_rates {
    double seconds = 0;
    std::optional<double> received;         // records.received
    std::optional<double> applied;          // records.applied
    std::optional<double> stale;            // records.stale
    std::optional<double> restored;         // records.restored
    std::optional<double> announced;        // ring.write_count
    std::optional<double> snapshot_frames;  // tcp.frames
    std::optional<uint64_t> restarts;       // restarts in the interval, not a rate
};

health_rates health_rates_between(const quvo_health& before, const quvo_health& after, double seconds);
// {"seconds", "received_per_s", "applied_per_s", "stale_per_s", "restored_per_s",
// "announced_per_s", "snapshot_frames_per_s", "restarts"}; empty figures are
// null, and so is everything when `rates` is null (no earlier copy).
nlohmann::ordered_json health_rates_to_json(const health_rates* rates);

// 1234567 gives "1,234,567".
std::string format_count(uint64_t value);
// A latency in the unit that suits it: "850ns", "1.2µs", "12.3µs", "450µs", "1.5ms", "2.3s".
std::string format_latency(uint64_t ns);
// A span of time: as format_latency below a minute, then "3m 05s", "2h 03m", "4d 07h".
std::string format_duration(uint64_t ns);
// The local date and time of a CLOCK_REALTIME instant, "2025-01-02 09:30:15"; "never" for 0.
std::string format_wall_time(uint64_t ns);
// A record's snapTime (hhmmss as an integer) and its milliseconds: "09:30:15.500".
std::string format_snap_time(uint64_t hhmmss, uint64_t millis);

// The report for a terminal, several lines each ending in a newline. `nowNs`
// (CLOCK_REALTIME) turns times into ages; `rates`, when given, adds the
// per-second figures. A feed that is not running is named as such on the
// first line.
std::string health_report(const quvo_health& health, bool writerAlive, uint64_t nowNs,
                          const health_rates* rates);

// One line for quvo-view's status bar, e.g. "live  52,311 rec/s  restarts 3  p99 1.2µs";
// the records a second only for a running feed and when `rates` tells them. `ascii` writes "us" for
// microseconds, for terminals that take no UTF-8.
std::string health_summary(const quvo_health& health, bool writerAlive, const health_rates* rates,
                           bool ascii = false);
