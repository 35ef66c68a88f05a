#include "tools/HealthFormat.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>
#include <vector>

#include "tools/DumpFormat.h"

namespace {

using ojson = nlohmann::ordered_json;

uint64_t restarts_total(const quvo_health& health) {
    uint64_t total = 0;
    for (uint64_t count : health.restarts.by_reason) {
        total += count;
    }
    return total;
}

std::string config_path(const quvo_health& health) {
    return std::string(health.process.config_path,
                       strnlen(health.process.config_path, sizeof(health.process.config_path)));
}

// A group's counters under their C names, in layout order.
template <typename Group, size_t N>
ojson fields_json(const Group& group, const quvo_health_field<Group> (&fields)[N]) {
    ojson object = ojson::object();
    for (const quvo_health_field<Group>& field : fields) {
        object[field.name] = group.*field.member;
    }
    return object;
}

ojson latency_json(const quvo_health_latency& latency) {
    ojson buckets = ojson::array();
    for (uint64_t count : latency.buckets) {
        buckets.push_back(count);
    }
    return ojson{{"samples", latency.samples},
                 {"sum_ns", latency.sum_ns},
                 {"max_ns", latency.max_ns},
                 {"polls_empty", latency.polls_empty},
                 {"polls_busy", latency.polls_busy},
                 {"p50_ns", quvo_health_percentile(latency, 0.5)},
                 {"p90_ns", quvo_health_percentile(latency, 0.9)},
                 {"p99_ns", quvo_health_percentile(latency, 0.99)},
                 {"p999_ns", quvo_health_percentile(latency, 0.999)},
                 {"buckets", std::move(buckets)}};
}

std::optional<double> rate_of(uint64_t before, uint64_t after, double seconds, bool sameProcess) {
    if (!sameProcess || !(seconds > 0) || after < before) {
        return std::nullopt;
    }
    return static_cast<double>(after - before) / seconds;
}

ojson optional_json(const std::optional<double>& value) {
    return value ? ojson(*value) : ojson(nullptr);
}

// Scales `ns` into the unit that keeps three digits or fewer in front of the point.
std::string scaled(uint64_t ns, bool ascii) {
    static const char* const kUnits[] = {"ns", "µs", "ms", "s"};
    if (ns < 1000) {
        return std::to_string(ns) + "ns";
    }
    double value = static_cast<double>(ns);
    int unit = 0;
    while (unit < 3 && value >= 999.5) {
        value /= 1000.0;
        ++unit;
    }
    const char* name = unit == 1 && ascii ? "us" : kUnits[unit];
    return printf_string(value < 99.95 ? "%.1f%s" : "%.0f%s", value, name);
}

std::string ago(uint64_t thenNs, uint64_t nowNs) {
    if (thenNs == 0) {
        return "never";
    }
    return format_duration(nowNs > thenNs ? nowNs - thenNs : 0) + " ago";
}

std::string when(uint64_t thenNs, uint64_t nowNs) {
    if (thenNs == 0) {
        return "never";
    }
    return format_wall_time(thenNs) + " (" + ago(thenNs, nowNs) + ")";
}

std::string per_second(const std::optional<double>& rate) {
    if (!rate) {
        return "";
    }
    if (*rate >= 99.95) {
        return " (" + format_count(static_cast<uint64_t>(std::llround(*rate))) + "/s)";
    }
    return printf_string(" (%.1f/s)", *rate);
}

struct named_count {
    const char* name;
    uint64_t value;
};

// "name value, name value"; with `nonZeroOnly`, the zero ones left out.
std::string list_counts(const std::vector<named_count>& counts, bool nonZeroOnly) {
    std::string text;
    for (const named_count& count : counts) {
        if (nonZeroOnly && count.value == 0) {
            continue;
        }
        text += (text.empty() ? "" : ", ") + std::string(count.name) + " " + format_count(count.value);
    }
    return text;
}

std::string line(const char* label, const std::string& text) {
    return printf_string("%-10s ", label) + text + "\n";
}

std::string ended_line(const quvo_health& health, const char* state, uint64_t nowNs) {
    const uint64_t phase = health.process.phase;
    if (strcmp(state, "stopped") == 0 || strcmp(state, "failed") == 0) {
        const uint64_t at = health.process.phase_started_ns[phase];
        return "quvo-md " + std::string(state) + " at " + format_wall_time(at) + " (" + ago(at, nowNs) +
               "); these are the figures it left\n";
    }
    return printf_string(
        "quvo-md (pid %llu) is gone: it ended without stopping in order, last in phase %s; "
        "these are the figures it left\n",
        static_cast<unsigned long long>(health.process.pid), quvo_health_phase_name(phase));
}

std::string snapshot_lines(const quvo_health& health) {
    const quvo_health_snapshot& snapshot = health.snapshot;
    std::string text =
        line("snapshot",
             format_count(snapshot.completed) + " phases completed; the last took " +
                 (snapshot.completed != 0 ? format_duration(snapshot.last_duration_ns) : std::string("-")) +
                 ", all of them " + format_duration(snapshot.total_duration_ns) + "; price check failures " +
                 format_count(snapshot.price_check_failures));
    text += printf_string("  %-9s %-19s %9s %12s %12s %14s %10s\n", "feed", "last started", "took",
                          "instruments", "messages", "bytes", "completed");
    for (unsigned i = 0; i < QUVO_HEALTH_FEEDS; ++i) {
        const quvo_health_feed& feed = snapshot.feeds[i];
        if (feed.instruments == 0 && feed.messages == 0) {
            text += printf_string("  %-9s not used\n", quvo_health_feed_name(i));
            continue;
        }
        const std::string took = feed.completed_ns == 0 ? "loading"
                                 : feed.completed_ns >= feed.started_ns
                                     ? format_duration(feed.completed_ns - feed.started_ns)
                                     : "?";
        text += printf_string("  %-9s %-19s %9s %12s %12s %14s %10s\n", quvo_health_feed_name(i),
                              format_wall_time(feed.started_ns).c_str(), took.c_str(),
                              format_count(feed.instruments).c_str(), format_count(feed.messages).c_str(),
                              format_count(feed.bytes).c_str(), format_count(feed.completed).c_str());
    }
    std::vector<named_count> cleared;
    for (unsigned cause = 0; cause < QUVO_CLEAN_COUNT; ++cause) {
        cleared.push_back({quvo_health_clean_name(cause), snapshot.cleared[cause]});
    }
    text += "  cleared   " + list_counts(cleared, false) + "\n";
    return text;
}

std::string tcp_lines(const quvo_health& health, const health_rates* rates) {
    const quvo_health_tcp& tcp = health.tcp;
    std::string text = line("tcp", "frames " + format_count(tcp.frames) +
                                       per_second(rates ? rates->snapshot_frames : std::nullopt) +
                                       ", in_order " + format_count(tcp.in_order) + ", held " +
                                       format_count(tcp.held) + ", held_peak " + format_count(tcp.held_peak));
    // Every other counter of the group is a frame dropped at some step.
    std::vector<named_count> dropped;
    for (const quvo_health_field<quvo_health_tcp>& field : kQuvoHealthTcpFields) {
        const uint64_t quvo_health_tcp::*shown[] = {
            &quvo_health_tcp::polls_empty, &quvo_health_tcp::polls_busy, &quvo_health_tcp::frames,
            &quvo_health_tcp::in_order,    &quvo_health_tcp::held,       &quvo_health_tcp::held_peak};
        if (std::find(std::begin(shown), std::end(shown), field.member) == std::end(shown)) {
            dropped.push_back({field.name, tcp.*field.member});
        }
    }
    const std::string drops = list_counts(dropped, true);
    text += line("", "dropped: " + (drops.empty() ? std::string("none") : drops));
    text +=
        line("", "polls: empty " + format_count(tcp.polls_empty) + ", busy " + format_count(tcp.polls_busy));
    return text;
}

std::string records_lines(const quvo_health& health, const health_rates* rates) {
    const quvo_health_records& r = health.records;
    const auto rate = [rates](std::optional<double> health_rates::*member) {
        return per_second(rates != nullptr ? rates->*member : std::nullopt);
    };
    std::string text = line(
        "records", "received " + format_count(r.received) + rate(&health_rates::received) + ", applied " +
                       format_count(r.applied) + rate(&health_rates::applied) + ", announced " +
                       format_count(health.ring.write_count) + rate(&health_rates::announced));
    text += line("", "stale " + format_count(r.stale) + rate(&health_rates::stale) + ", restored " +
                         format_count(r.restored) + rate(&health_rates::restored) + ", gaps " +
                         format_count(r.gaps) + ", abnormal_length " + format_count(r.abnormal_length));
    const std::vector<named_count> skipped = {{"unsubscribed", r.unsubscribed},
                                              {"options", r.options},
                                              {"out_of_range", r.out_of_range},
                                              {"short_record", r.short_record},
                                              {"unsupported_topic", r.unsupported_topic}};
    text += line("", "not applied: " + list_counts(skipped, false));
    const std::vector<named_count> fields = {{"unknown_fields", r.unknown_fields},
                                             {"other_field_id", r.other_field_id},
                                             {"bad_level", r.bad_level},
                                             {"bad_event", r.bad_event},
                                             {"bad_entry", r.bad_entry}};
    text += line("", "field errors: " + list_counts(fields, false));
    return text;
}

std::string latency_lines(const quvo_health& health) {
    const quvo_health_latency& latency = health.latency;
    std::string text;
    if (latency.samples == 0) {
        text = line("latency",
                    printf_string("no samples yet (one live record in %d is timed, from frame read to "
                                  "announcement)",
                                  QUVO_HEALTH_LATENCY_SAMPLE_EVERY));
    } else {
        text = line("latency", "p50 " + format_latency(quvo_health_percentile(latency, 0.5)) + "  p90 " +
                                   format_latency(quvo_health_percentile(latency, 0.9)) + "  p99 " +
                                   format_latency(quvo_health_percentile(latency, 0.99)) + "  p99.9 " +
                                   format_latency(quvo_health_percentile(latency, 0.999)) + "  max " +
                                   format_latency(latency.max_ns) + "  mean " +
                                   format_latency(latency.sum_ns / latency.samples));
        text +=
            line("", printf_string("%s samples: one live record in %d is timed, from frame read to "
                                   "announcement",
                                   format_count(latency.samples).c_str(), QUVO_HEALTH_LATENCY_SAMPLE_EVERY));
    }
    text += line("live polls",
                 "empty " + format_count(latency.polls_empty) + ", busy " + format_count(latency.polls_busy));
    return text;
}

}  // namespace

uint64_t health_wall_now_ns() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

const char* health_state(const quvo_health& health, bool writerAlive) {
    if (health.process.phase == QUVO_PHASE_STOPPED) {
        return "stopped";
    }
    if (health.process.phase == QUVO_PHASE_FAILED) {
        return "failed";
    }
    return writerAlive ? "running" : "gone";
}

const char* health_state(const quvo_health& health) {
    return health_state(health, quvo_health_writer_alive(health));
}

nlohmann::ordered_json health_to_json(const quvo_health& health, bool writerAlive) {
    const quvo_health_process& process = health.process;
    ojson phases = ojson::object();
    for (unsigned phase = 0; phase < QUVO_PHASE_COUNT; ++phase) {
        phases[quvo_health_phase_name(phase)] = process.phase_started_ns[phase];
    }
    const quvo_health_restarts& restarts = health.restarts;
    const ojson lastReason =
        restarts.last_ns == 0 ? ojson(nullptr)
                              : ojson(quvo_health_restart_name(static_cast<unsigned>(restarts.last_reason)));
    ojson feeds = ojson::object();
    for (unsigned feed = 0; feed < QUVO_HEALTH_FEEDS; ++feed) {
        feeds[quvo_health_feed_name(feed)] = fields_json(health.snapshot.feeds[feed], kQuvoHealthFeedFields);
    }
    ojson cleared = ojson::object();
    for (unsigned cause = 0; cause < QUVO_CLEAN_COUNT; ++cause) {
        cleared[quvo_health_clean_name(cause)] = health.snapshot.cleared[cause];
    }
    ojson restartsJson = ojson::object();
    for (unsigned reason = 0; reason < QUVO_RESTART_COUNT; ++reason) {
        restartsJson[quvo_health_restart_name(reason)] = restarts.by_reason[reason];
    }
    restartsJson["total"] = restarts_total(health);
    restartsJson["last_ns"] = restarts.last_ns;
    restartsJson["last_reason"] = lastReason;
    ojson records = fields_json(health.records, kQuvoHealthRecordFields);
    records["announced"] = health.ring.write_count;
    return ojson{{"layout_version", health.version},
                 {"state", health_state(health, writerAlive)},
                 {"pid", process.pid},
                 {"start_ns", process.start_ns},
                 {"config_path", config_path(health)},
                 {"phase", quvo_health_phase_name(process.phase)},
                 {"run", process.run},
                 {"phase_started_ns", std::move(phases)},
                 {"restarts", std::move(restartsJson)},
                 {"snapshot",
                  {{"feeds", std::move(feeds)},
                   {"cleared", std::move(cleared)},
                   {"price_check_failures", health.snapshot.price_check_failures},
                   {"completed", health.snapshot.completed},
                   {"last_duration_ns", health.snapshot.last_duration_ns},
                   {"total_duration_ns", health.snapshot.total_duration_ns}}},
                 {"tcp", fields_json(health.tcp, kQuvoHealthTcpFields)},
                 {"records", std::move(records)},
                 {"cache", fields_json(health.cache, kQuvoHealthCacheFields)},
                 {"ring", fields_json(health.ring, kQuvoHealthRingFields)},
                 {"latency", latency_json(health.latency)}};
}

nlohmann::ordered_json health_to_json(const quvo_health& health) {
    return health_to_json(health, quvo_health_writer_alive(health));
}

std::string health_json_line(const nlohmann::ordered_json& value) {
    // A configuration path is bytes; whatever is not UTF-8 becomes U+FFFD.
    return value.dump(-1, ' ', true, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

health_rates health_rates_between(const quvo_health& before, const quvo_health& after, double seconds) {
    health_rates rates;
    rates.seconds = seconds;
    const bool same =
        before.process.pid == after.process.pid && before.process.start_ns == after.process.start_ns;
    rates.received = rate_of(before.records.received, after.records.received, seconds, same);
    rates.applied = rate_of(before.records.applied, after.records.applied, seconds, same);
    rates.stale = rate_of(before.records.stale, after.records.stale, seconds, same);
    rates.restored = rate_of(before.records.restored, after.records.restored, seconds, same);
    rates.announced = rate_of(before.ring.write_count, after.ring.write_count, seconds, same);
    rates.snapshot_frames = rate_of(before.tcp.frames, after.tcp.frames, seconds, same);
    const uint64_t restartsBefore = restarts_total(before);
    const uint64_t restartsAfter = restarts_total(after);
    if (same && seconds > 0 && restartsAfter >= restartsBefore) {
        rates.restarts = restartsAfter - restartsBefore;
    }
    return rates;
}

nlohmann::ordered_json health_rates_to_json(const health_rates* rates) {
    if (rates == nullptr) {
        return ojson{{"seconds", nullptr},
                     {"received_per_s", nullptr},
                     {"applied_per_s", nullptr},
                     {"stale_per_s", nullptr},
                     {"restored_per_s", nullptr},
                     {"announced_per_s", nullptr},
                     {"snapshot_frames_per_s", nullptr},
                     {"restarts", nullptr}};
    }
    return ojson{{"seconds", rates->seconds},
                 {"received_per_s", optional_json(rates->received)},
                 {"applied_per_s", optional_json(rates->applied)},
                 {"stale_per_s", optional_json(rates->stale)},
                 {"restored_per_s", optional_json(rates->restored)},
                 {"announced_per_s", optional_json(rates->announced)},
                 {"snapshot_frames_per_s", optional_json(rates->snapshot_frames)},
                 {"restarts", rates->restarts ? ojson(*rates->restarts) : ojson(nullptr)}};
}

std::string format_count(uint64_t value) {
    const std::string digits = std::to_string(value);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0) {
            text += ',';
        }
        text += digits[i];
    }
    return text;
}

std::string format_latency(uint64_t ns) {
    return scaled(ns, false);
}

std::string format_duration(uint64_t ns) {
    const uint64_t seconds = ns / 1000000000u;
    if (seconds < 60) {
        return scaled(ns, false);
    }
    const auto whole = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    if (seconds < 3600) {
        return printf_string("%llum %02llus", whole(seconds / 60), whole(seconds % 60));
    }
    if (seconds < 86400) {
        return printf_string("%lluh %02llum", whole(seconds / 3600), whole(seconds / 60 % 60));
    }
    return printf_string("%llud %02lluh", whole(seconds / 86400), whole(seconds / 3600 % 24));
}

std::string format_wall_time(uint64_t ns) {
    if (ns == 0) {
        return "never";
    }
    const time_t seconds = static_cast<time_t>(ns / 1000000000u);
    struct tm local {};
    localtime_r(&seconds, &local);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string format_snap_time(uint64_t hhmmss, uint64_t millis) {
    const auto whole = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    return printf_string("%02llu:%02llu:%02llu.%03llu", whole(hhmmss / 10000), whole(hhmmss / 100 % 100),
                         whole(hhmmss % 100), whole(millis));
}

std::string health_report(const quvo_health& health, bool writerAlive, uint64_t nowNs,
                          const health_rates* rates) {
    const quvo_health_process& process = health.process;
    const char* state = health_state(health, writerAlive);
    std::string text;
    if (strcmp(state, "running") != 0) {
        text += ended_line(health, state, nowNs);
    }
    const uint64_t phaseStarted =
        process.phase < QUVO_PHASE_COUNT ? process.phase_started_ns[process.phase] : 0;
    text +=
        line("phase", std::string(quvo_health_phase_name(process.phase)) +
                          (phaseStarted == 0
                               ? std::string()
                               : " for " + format_duration(nowNs > phaseStarted ? nowNs - phaseStarted : 0) +
                                     ", since " + format_wall_time(phaseStarted)));
    text += line(
        "process",
        printf_string("pid %llu, started %s, run %llu", static_cast<unsigned long long>(process.pid),
                      when(process.start_ns, nowNs).c_str(), static_cast<unsigned long long>(process.run)));
    const std::string path = config_path(health);
    text += line("config", path.empty() ? "(none named)" : path);

    const quvo_health_restarts& restarts = health.restarts;
    const uint64_t total = restarts_total(health);
    std::string restartText = format_count(total) + ": gap " +
                              format_count(restarts.by_reason[QUVO_RESTART_GAP]) + ", topic " +
                              format_count(restarts.by_reason[QUVO_RESTART_TOPIC]) + ", short " +
                              format_count(restarts.by_reason[QUVO_RESTART_SHORT]) + ", cache " +
                              format_count(restarts.by_reason[QUVO_RESTART_CACHE]);
    if (restarts.last_ns != 0) {
        restartText += "; the last " + when(restarts.last_ns, nowNs) + ", " +
                       quvo_health_restart_name(static_cast<unsigned>(restarts.last_reason));
    }
    if (rates != nullptr && rates->restarts) {
        restartText += "; " + format_count(*rates->restarts) + " in the last " +
                       format_duration(static_cast<uint64_t>(rates->seconds * 1e9));
    }
    text += line("restarts", restartText);
    text += snapshot_lines(health);
    text += tcp_lines(health, rates);
    text += records_lines(health, rates);

    const quvo_health_cache& cache = health.cache;
    const std::vector<named_count> cacheCounts = {
        {"cached", cache.cached},       {"peak", cache.peak},       {"replayed", cache.replayed},
        {"overflows", cache.overflows}, {"corrupt", cache.corrupt}, {"cleared", cache.cleared}};
    text += line("cache", list_counts(cacheCounts, false));
    const quvo_health_ring& ring = health.ring;
    text += line("ring", "writes " + format_count(ring.write_count) + ", last exchange time " +
                             (ring.exchange_time == 0 && ring.exchange_millis == 0
                                  ? std::string("none yet")
                                  : format_snap_time(ring.exchange_time, ring.exchange_millis)) +
                             ", packets SHFE " + format_count(ring.shfe_packet_no) + ", INE " +
                             format_count(ring.ine_packet_no));
    text += latency_lines(health);
    return text;
}

std::string health_summary(const quvo_health& health, bool writerAlive, const health_rates* rates,
                           bool ascii) {
    const char* state = health_state(health, writerAlive);
    const bool running = strcmp(state, "running") == 0;
    std::string text = running ? quvo_health_phase_name(health.process.phase) : state;
    if (running && rates != nullptr && rates->received) {
        text += "  " + format_count(static_cast<uint64_t>(std::llround(*rates->received))) + " rec/s";
    }
    text += "  restarts " + format_count(restarts_total(health));
    text += "  p99 " + (health.latency.samples == 0
                            ? std::string("-")
                            : scaled(quvo_health_percentile(health.latency, 0.99), ascii));
    return text;
}
