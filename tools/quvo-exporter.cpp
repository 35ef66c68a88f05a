// quvo-exporter: the feed's health figures over HTTP for Prometheus. Every
// scrape reads a fresh consistent copy of the health segment; nothing polls
// between scrapes.
#include <prometheus/collectable.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "interface/quvohealthreader.h"
#include "tools/MetricsServer.h"

namespace {

constexpr const char* kUsage =
    "Usage: quvo-exporter --listen ADDR:PORT\n"
    "Serves the health figures of the quvo-md feed on this host at\n"
    "http://ADDR:PORT/metrics in the Prometheus text format.\n"
    "\n"
    "  --listen ADDR:PORT  address and port to serve on, e.g. 127.0.0.1:9469 or\n"
    "                      0.0.0.0:9469 (every interface); port 0 takes a free port,\n"
    "                      which the start-up line names\n"
    "  -h, --help          print this text and exit\n"
    "\n"
    "Once listening it prints \"quvo-exporter: serving http://ADDR:PORT/metrics\" on\n"
    "standard output. Each scrape attaches the health segment if it is not attached\n"
    "yet (keyed by ftok on the file key_e, 'H', in QUVO_KEY_DIR or /etc) and reads\n"
    "it read-only. Without a readable segment a scrape still answers, with quvo_up 0\n"
    "and quvo_health_readable 0, and the reason goes to standard error once. A\n"
    "stopped or vanished feed shows quvo_up 0 and the figures it left.\n"
    "\n"
    "SIGINT or SIGTERM stops it with status 0. Exit status 2: bad options, or the\n"
    "address cannot be listened on.\n";

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

constexpr double kNsPerSecond = 1e9;

double seconds_of(uint64_t ns) {
    return static_cast<double>(ns) / kNsPerSecond;
}

// A labelled counter family from (label value, count) pairs.
void labelled_counter(CExposition& out, const std::string& name, const std::string& help, const char* label,
                      const std::vector<std::pair<const char*, uint64_t>>& values) {
    MetricFamily& family = out.Family(name, help, MetricType::Counter);
    for (const auto& [value, count] : values) {
        CExposition::Sample(family, static_cast<double>(count), {{label, value}});
    }
}

// A group's counters as (C name, value) pairs, in layout order, leaving out
// those `skip` holds; `keep` turns the selection round.
template <typename Group, size_t N>
std::vector<std::pair<const char*, uint64_t>> counts_of(const Group& group,
                                                        const quvo_health_field<Group> (&fields)[N],
                                                        std::initializer_list<uint64_t Group::*> skip,
                                                        bool keep = false) {
    std::vector<std::pair<const char*, uint64_t>> counts;
    for (const quvo_health_field<Group>& field : fields) {
        const bool listed = std::find(skip.begin(), skip.end(), field.member) != skip.end();
        if (listed == keep) {
            counts.emplace_back(field.name, group.*field.member);
        }
    }
    return counts;
}

void add_process(CExposition& out, const quvo_health& h) {
    const quvo_health_process& p = h.process;
    MetricFamily& phase =
        out.Family("quvo_phase",
                   "Phase of the feed's current run: 1 for the phase it is in, 0 for the others. "
                   "A feed that ended keeps its last phase.",
                   MetricType::Gauge);
    for (unsigned i = 0; i < QUVO_PHASE_COUNT; ++i) {
        CExposition::Sample(phase, p.phase == i ? 1 : 0, {{"phase", quvo_health_phase_name(i)}});
    }
    out.Gauge("quvo_run", "Pipeline runs begun by the feed process: 1 for the first, one more per restart.",
              static_cast<double>(p.run));
    out.Gauge("quvo_process_start_time_seconds",
              "When the feed process set the health segment up, in seconds "
              "since the epoch.",
              seconds_of(p.start_ns));
    MetricFamily& info = out.Family("quvo_info", "The feed process that writes the health segment; always 1.",
                                    MetricType::Gauge);
    const std::string path(p.config_path, strnlen(p.config_path, sizeof(p.config_path)));
    CExposition::Sample(info, 1, {{"config_path", path}, {"pid", std::to_string(p.pid)}});
}

void add_restarts(CExposition& out, const quvo_health& h) {
    std::vector<std::pair<const char*, uint64_t>> reasons;
    for (unsigned i = 0; i < QUVO_RESTART_COUNT; ++i) {
        reasons.emplace_back(quvo_health_restart_name(i), h.restarts.by_reason[i]);
    }
    labelled_counter(
        out, "quvo_restarts_total",
        "Restarts of the pipeline from the configuration and a fresh snapshot, by reason: a "
        "change-number gap, a record of an unsupported topic, a record shorter than its header, a "
        "corrupt cache entry.",
        "reason", reasons);
    out.Gauge("quvo_last_restart_time_seconds",
              "When the pipeline last restarted, in seconds since the epoch; 0 "
              "before the first restart.",
              seconds_of(h.restarts.last_ns));
}

void add_records(CExposition& out, const quvo_health& h) {
    // Faults inside records that were still applied get a family of their own.
    const std::initializer_list<uint64_t quvo_health_records::*> fieldFaults = {
        &quvo_health_records::unknown_fields, &quvo_health_records::bad_level,
        &quvo_health_records::bad_event, &quvo_health_records::bad_entry};
    std::vector<std::pair<const char*, uint64_t>> results =
        counts_of(h.records, kQuvoHealthRecordFields, fieldFaults);
    results.emplace_back("announced", h.ring.write_count);
    labelled_counter(
        out, "quvo_records_total",
        "Decoded incremental records. received: frames of a usable length read from the card; the "
        "other results are what became of them (applied: taken by a book; announced: update-ring "
        "announcements; stale: change number already in the book; restored: undone by the book "
        "check; gaps: change-number gaps) or faults, so they do not add up to received. "
        "abnormal_length frames are not among the received.",
        "result", results);
    labelled_counter(
        out, "quvo_record_fields_total",
        "Faults inside records the feed still applied: an unknown field or a short tail that ended "
        "the field loop, a price level outside 1..10, an unknown event type, an unknown entry type.",
        "problem", counts_of(h.records, kQuvoHealthRecordFields, fieldFaults, true));
}

void add_snapshot(CExposition& out, const quvo_health& h) {
    const quvo_health_snapshot& s = h.snapshot;
    out.Gauge(
        "quvo_snapshot_duration_seconds",
        "Duration of the last successful snapshot phase, from its start to the last feed's last message.",
        seconds_of(s.last_duration_ns));
    out.Counter("quvo_snapshots_total", "Snapshot phases that ended in success.", s.completed);
    CExposition::Sample(out.Family("quvo_snapshot_seconds_total", "Time spent in successful snapshot phases.",
                                   MetricType::Counter),
                        seconds_of(s.total_duration_ns));

    MetricFamily& duration =
        out.Family("quvo_feed_snapshot_duration_seconds",
                   "Each snapshot feed's last snapshot, from its first segment to its last "
                   "message; 0 while one loads and before the first.",
                   MetricType::Gauge);
    MetricFamily& instruments =
        out.Family("quvo_feed_snapshot_instruments",
                   "Instrument definitions taken in each snapshot feed's last (or current) snapshot.",
                   MetricType::Gauge);
    MetricFamily& messages = out.Family("quvo_feed_snapshot_messages_total",
                                        "Snapshot messages decoded, per snapshot feed.", MetricType::Counter);
    MetricFamily& bytes = out.Family("quvo_feed_snapshot_bytes_total",
                                     "Snapshot message bytes decoded, headers included, per "
                                     "snapshot feed.",
                                     MetricType::Counter);
    MetricFamily& completed = out.Family("quvo_feed_snapshots_total",
                                         "Snapshots completed, per snapshot feed.", MetricType::Counter);
    for (unsigned i = 0; i < QUVO_HEALTH_FEEDS; ++i) {
        const quvo_health_feed& feed = s.feeds[i];
        const Labels labels{{"feed", quvo_health_feed_name(i)}};
        const bool done = feed.completed_ns != 0 && feed.completed_ns >= feed.started_ns;
        CExposition::Sample(duration, done ? seconds_of(feed.completed_ns - feed.started_ns) : 0, labels);
        CExposition::Sample(instruments, static_cast<double>(feed.instruments), labels);
        CExposition::Sample(messages, static_cast<double>(feed.messages_total), labels);
        CExposition::Sample(bytes, static_cast<double>(feed.bytes_total), labels);
        CExposition::Sample(completed, static_cast<double>(feed.completed), labels);
    }

    std::vector<std::pair<const char*, uint64_t>> causes;
    for (unsigned i = 0; i < QUVO_CLEAN_COUNT; ++i) {
        causes.emplace_back(quvo_health_clean_name(i), s.cleared[i]);
    }
    labelled_counter(
        out, "quvo_snapshot_clears_total",
        "Times the whole snapshot state was cleared, by cause: the start of every snapshot phase, a "
        "reset connection, a message over the fragment limit, 500 out-of-order frames held, a failed "
        "price check.",
        "cause", causes);
    out.Counter("quvo_price_check_failures_total", "Loaded snapshots whose books failed the price check.",
                s.price_check_failures);
}

void add_tcp(CExposition& out, const quvo_health& h) {
    const quvo_health_tcp& t = h.tcp;
    std::vector<std::pair<const char*, uint64_t>> results =
        counts_of(t, kQuvoHealthTcpFields,
                  {&quvo_health_tcp::polls_empty, &quvo_health_tcp::polls_busy, &quvo_health_tcp::held_peak});
    for (auto& [name, count] : results) {
        if (strcmp(name, "frames") == 0) {
            name = "handled";  // reads better as a result than the field's name
        }
    }
    labelled_counter(
        out, "quvo_tcp_frames_total",
        "Raw snapshot frames by step. handled: frames that reached the packet handler. Each of those "
        "is dropped at one step (short_ip, bad_ip_header, not_tcp, short_tcp, other_port, "
        "bad_tcp_header, no_payload, checksum, rst_ack, not_start, other_host, old, duplicates), "
        "taken in sequence (in_order) or held out of order (held); a frame that starts a snapshot "
        "session counts only as handled. abnormal_length (receive errors, bad sizes) and late "
        "(every feed had finished) frames never reach the handler. not_mdqp: in-sequence data that "
        "does not start a message.",
        "result", results);
    out.Gauge("quvo_tcp_held_peak",
              "The longest list of out-of-order snapshot segments held at once (500 clears "
              "the snapshot).",
              static_cast<double>(t.held_peak));
    labelled_counter(out, "quvo_tcp_polls_total",
                     "Polls of the snapshot receive loop: empty found nothing, busy read a frame.", "result",
                     {{"empty", t.polls_empty}, {"busy", t.polls_busy}});
}

void add_cache_and_ring(CExposition& out, const quvo_health& h) {
    const quvo_health_cache& c = h.cache;
    labelled_counter(
        out, "quvo_cache_frames_total",
        "Decoded frames stored in the cache while a snapshot loads (cached), and applied from it "
        "afterwards (replayed).",
        "event", {{"cached", c.cached}, {"replayed", c.replayed}});
    out.Gauge("quvo_cache_peak_frames", "Most frames the cache held at once.", static_cast<double>(c.peak));
    out.Counter("quvo_cache_overflows_total",
                "Times the cache was full and every cached frame was abandoned for room; the books restart "
                "from a gap soon after.",
                c.overflows);
    out.Counter("quvo_cache_corrupt_total",
                "Cache entries refused as out of range; each restarts the pipeline.", c.corrupt);
    out.Counter("quvo_cache_clears_total", "Times the cache was emptied.", c.cleared);

    const quvo_health_ring& r = h.ring;
    out.Counter("quvo_ring_writes_total", "Announcements made on the update ring: its write counter.",
                r.write_count);
    const uint64_t t = r.exchange_time;
    const double ofDay = static_cast<double>(t / 10000 * 3600 + t / 100 % 100 * 60 + t % 100) +
                         static_cast<double>(r.exchange_millis) / 1000;
    out.Gauge("quvo_last_exchange_time_seconds_of_day",
              "The exchange time of the last record the feed decoded (snapTime and snapMillisec), in seconds "
              "since midnight; 0 before the first.",
              ofDay);
    MetricFamily& packet = out.Family(
        "quvo_packet_number", "The packet number of the last record per exchange.", MetricType::Gauge);
    CExposition::Sample(packet, static_cast<double>(r.shfe_packet_no), {{"exchange", "shfe"}});
    CExposition::Sample(packet, static_cast<double>(r.ine_packet_no), {{"exchange", "ine"}});
}

void add_latency(CExposition& out, const quvo_health& h) {
    const quvo_health_latency& l = h.latency;
    MetricFamily& family =
        out.Family("quvo_record_latency_seconds",
                   "Live records from the frame read to the update-ring announcement, one record in " +
                       std::to_string(QUVO_HEALTH_LATENCY_SAMPLE_EVERY) +
                       " timed. The feed keeps four buckets per power of two; here they are merged into one "
                       "bucket per power of two, whose bound is 1 ns below the next power of two because "
                       "latencies are whole nanoseconds (le 3e-09, 7e-09, ..., 0.001048575).",
                   MetricType::Histogram);
    ClientMetric metric;
    metric.histogram.sample_count = l.samples;
    metric.histogram.sample_sum = seconds_of(l.sum_ns);
    uint64_t cumulative = 0;
    // Buckets [0, 4) are the exact values 0..3 ns; from 4 on, each run of four
    // spans one power of two; the last bucket is everything above.
    for (unsigned first = 0; first + 1 < QUVO_HEALTH_LATENCY_BUCKETS; first += 4) {
        for (unsigned i = first; i < first + 4; ++i) {
            cumulative += l.buckets[i];
        }
        const uint64_t high = quvo_health_bucket_low(first + 4) - 1;
        // A copy taken between the two stores of one sample may hold it in a
        // bucket but not yet in samples: the buckets never pass the count.
        metric.histogram.bucket.push_back(
            {cumulative < l.samples ? cumulative : l.samples, static_cast<double>(high) / kNsPerSecond});
    }
    family.metric.push_back(std::move(metric));
    out.Gauge("quvo_record_latency_max_seconds", "The largest latency measured.", seconds_of(l.max_ns));
    labelled_counter(out, "quvo_live_polls_total",
                     "Polls of the live receive loop: empty found nothing, busy read a frame.", "result",
                     {{"empty", l.polls_empty}, {"busy", l.polls_busy}});
}

class CHealthCollector : public prometheus::Collectable {
public:
    std::vector<MetricFamily> Collect() const override {
        std::lock_guard<std::mutex> lock(m_mutex);
        quvo_health copy;
        std::string error;
        const bool readable = _Read(copy, error);
        _Report(readable ? "" : error);

        CExposition out;
        out.Gauge("quvo_up",
                  "1 while a feed process runs and writes the health segment; 0 when it stopped, "
                  "failed or is gone, or the segment cannot be read.",
                  readable && !quvo_health_final(copy) ? 1 : 0);
        out.Gauge("quvo_health_readable",
                  "1 when the health segment was attached and read; 0 when it is "
                  "missing, still being set up, or of a layout this exporter does not know.",
                  readable ? 1 : 0);
        if (readable) {
            add_process(out, copy);
            add_restarts(out, copy);
            add_records(out, copy);
            add_snapshot(out, copy);
            add_tcp(out, copy);
            add_cache_and_ring(out, copy);
            add_latency(out, copy);
        }
        return out.Take();
    }

private:
    bool _Read(quvo_health& copy, std::string& error) const {
        if (!m_reader.IsCurrent() && !m_reader.Attach(error)) {
            return false;
        }
        // A busy feed may keep a copy from settling; a few more tries are
        // cheaper than a scrape without figures.
        for (int attempt = 0; attempt < 3; ++attempt) {
            if (m_reader.Read(copy, error)) {
                return true;
            }
        }
        return false;
    }

    // Each reason once, not once per scrape.
    void _Report(const std::string& error) const {
        if (error == m_lastError) {
            return;
        }
        if (error.empty()) {
            fprintf(stderr, "quvo-exporter: the health segment is readable\n");
        } else {
            fprintf(stderr, "quvo-exporter: %s\n", error.c_str());
        }
        m_lastError = error;
    }

    mutable std::mutex m_mutex;
    mutable CQuvoHealthReader m_reader;
    mutable std::string m_lastError;
};

}  // namespace

int main(int argc, char** argv) {
    std::string listen;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--listen" && i + 1 < argc) {
            listen = argv[++i];
        } else if (arg.rfind("--listen=", 0) == 0) {
            listen = arg.substr(9);
        } else {
            fprintf(stderr, "quvo-exporter: %s\n%s",
                    arg == "--listen" ? "--listen needs ADDR:PORT" : ("unknown argument " + arg).c_str(),
                    kUsage);
            return 2;
        }
    }
    if (listen.empty()) {
        fprintf(stderr, "quvo-exporter: --listen ADDR:PORT is required\n%s", kUsage);
        return 2;
    }
    if (!valid_listen(listen)) {
        fprintf(stderr, "quvo-exporter: --listen %s: not ADDR:PORT with a port of 0..65535\n",
                listen.c_str());
        return 2;
    }

    // Blocked before the server's threads start, so only sigwait takes them.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    std::string error;
    std::unique_ptr<CMetricsServer> server =
        CMetricsServer::Serve("quvo-exporter", listen, std::make_shared<CHealthCollector>(), error);
    if (server == nullptr) {
        fprintf(stderr, "quvo-exporter: %s\n", error.c_str());
        return 2;
    }

    int signal = 0;
    while (sigwait(&stop, &signal) != 0) {
    }
    // The server's threads may still be collecting: stop them before the
    // collector goes.
    server.reset();
    return 0;
}
