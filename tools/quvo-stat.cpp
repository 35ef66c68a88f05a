// quvo-stat: the health figures quvo-md publishes in its health segment, as
// a report refreshed in place, once, or as one JSON object per interval.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "tools/HealthFormat.h"
#include "tools/StopSignal.h"

#define QUVO_STRINGIFY_(x) #x
#define QUVO_STRINGIFY(x) QUVO_STRINGIFY_(x)

namespace {

constexpr const char* kUsage =
    "Usage: quvo-stat [--interval SECONDS] [--count N] [--json]\n"
    "       quvo-stat --once [--json]\n"
    "Shows the health figures the quvo-md feed on this host publishes: what it is doing,\n"
    "what it has counted, and how fast. By default the report is refreshed in place every\n"
    "second until SIGINT (Ctrl+C) or SIGTERM, which end it with status 0.\n"
    "\n"
    "  --interval SECONDS  time between reports (default 1; fractions allowed, e.g. 0.2)\n"
    "  --count N           stop after N reports\n"
    "  --once              one report, then exit (no rates: they need two reads)\n"
    "  --json              one JSON object per report, on one line: the figures under the\n"
    "                      names quvo-dump --health --json uses, then \"interval\" (the rates\n"
    "                      since the report before, null on the first or when another\n"
    "                      feed process wrote it) and \"at_ns\" (when it was read, in ns\n"
    "                      since the epoch)\n"
    "  -h, --help          print this text and exit\n"
    "\n"
    "The report:\n"
    "  phase       what the feed is doing (starting, configuring, snapshot, replay, live,\n"
    "              stopping, stopped, failed) and for how long\n"
    "  process     the feed's pid, when it started, and its run: 1 for the first pipeline\n"
    "              run, one more per restart\n"
    "  config      the configuration file it read\n"
    "  restarts    restarts from the configuration, by reason: gap (a change-number gap),\n"
    "              topic (a record of an unknown topic), short (a record shorter than its\n"
    "              header), cache (a corrupt cache entry); the last one's time and reason\n"
    "  snapshot    snapshot phases completed and how long the last took; per snapshot\n"
    "              feed (shfe2ps, ine2ps, shfe4ps, ine4ps) its last snapshot's start,\n"
    "              duration, instruments, messages and bytes (\"not used\" when it took\n"
    "              none); cleared: why the whole snapshot state was dropped (run_start,\n"
    "              once per phase; rst_ack, a reset connection; fragment, a message over\n"
    "              the fragment limit; held, too many frames out of order; price_check)\n"
    "  tcp         snapshot frames handled, segments taken in order, held out of order\n"
    "              and the longest held list; frames dropped, by the step that dropped\n"
    "              them (only those not zero); receive polls\n"
    "  records     incremental records received from the card, applied to a book,\n"
    "              announced on the update ring, stale (change number already in the\n"
    "              book), restored (undone by the book check), gaps; those not applied\n"
    "              and those whose fields ended early, by reason; rates per second\n"
    "  cache       records cached while the snapshot loaded, the most held at once,\n"
    "              replayed, overflows, corrupt entries, clears\n"
    "  ring        announcements written, the last record's exchange time and the last\n"
    "              packet numbers of SHFE and INE\n"
    "  latency     from a live record's frame read to its announcement: percentiles,\n"
    "              largest and mean, over the records timed (one in " QUVO_STRINGIFY(
        QUVO_HEALTH_LATENCY_SAMPLE_EVERY) ")\n"
    "  live polls  polls of the live receive loop that found nothing, and that read a frame\n"
    "\n"
    "When the feed has stopped, failed or is gone (ended without stopping in order), the\n"
    "report says so on its first line and shows the figures it left. quvo-stat then keeps\n"
    "watching, and follows a new feed started on the same key directory by itself.\n"
    "\n"
    "Shared memory: the health segment is keyed by ftok on the file key_e with project id\n"
    "'H', in the directory named by the environment variable QUVO_KEY_DIR, or in /etc\n"
    "when it is unset or empty. It is attached read-only.\n"
    "\n"
    "Exit status: 0 done, or stopped by SIGINT or SIGTERM; 2 bad options, no key file,\n"
    "no health segment, a segment of a layout this quvo-stat does not know, or (with\n"
    "--once) a segment that could not be read.\n";

constexpr double kMaxIntervalSeconds = 86400;
// How long --once waits for a feed that is still setting the segment up.
constexpr int64_t kSettleMs = 2000;

struct StatOptions {
    double interval = 1.0;
    long count = 0;
    bool once = false;
    bool json = false;
    bool help = false;
};

bool parse_options(int argc, char** argv, StatOptions& options, std::string& error) {
    bool intervalGiven = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasValue = false;
        const size_t equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = arg.substr(equals + 1);
            arg.erase(equals);
            hasValue = true;
        }
        const bool takesValue = arg == "--interval" || arg == "--count";
        if (takesValue && !hasValue) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!takesValue && hasValue) {
            error = arg + " takes no value";
            return false;
        }
        char* end = nullptr;
        if (arg == "--interval") {
            errno = 0;
            options.interval = strtod(value.c_str(), &end);
            if (value.empty() || *end != '\0' || errno != 0 || !(options.interval > 0) ||
                options.interval > kMaxIntervalSeconds) {
                error = "--interval needs a number of seconds above 0 (at most 86400), not '" + value + "'";
                return false;
            }
            intervalGiven = true;
        } else if (arg == "--count") {
            errno = 0;
            options.count = strtol(value.c_str(), &end, 10);
            if (value.empty() || value[0] < '0' || value[0] > '9' || *end != '\0' || errno != 0 ||
                options.count < 1) {
                error = "--count needs a number above 0, not '" + value + "'";
                return false;
            }
        } else if (arg == "--once") {
            options.once = true;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg.empty() || arg[0] != '-') {
            error = "unexpected argument '" + arg + "'";
            return false;
        } else {
            error = "unknown option " + arg;
            return false;
        }
    }
    if (options.once && (intervalGiven || options.count > 0)) {
        error = "--once takes neither --interval nor --count";
        return false;
    }
    if (options.once) {
        options.count = 1;
    }
    return true;
}

class CStat {
public:
    explicit CStat(const StatOptions& options)
        : m_options(options), m_terminal(!options.json && isatty(STDOUT_FILENO)) {}

    int Run() {
        std::string error;
        m_reader = std::make_unique<CQuvoHealthReader>();
        if (!m_reader->Attach(error)) {
            fprintf(stderr, "quvo-stat: %s\n", error.c_str());
            return 2;
        }
        long reports = 0;
        int64_t next = now_ms();
        const int64_t started = next;
        while (!g_stop) {
            _Follow();
            quvo_health copy;
            bool passing = false;
            if (!m_reader->Read(copy, error, &passing)) {
                if (!passing) {
                    fprintf(stderr, "quvo-stat: %s\n", error.c_str());
                    return 2;
                }
                if (m_options.once && now_ms() - started >= kSettleMs) {
                    fprintf(stderr, "quvo-stat: %s\n", error.c_str());
                    return 2;
                }
                if (m_options.once) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(20));
                    continue;
                }
                _Note(error);
            } else {
                _Report(copy);
                if (m_options.count > 0 && ++reports >= m_options.count) {
                    break;
                }
            }
            // After a stall the next report waits a whole interval rather than coming at once.
            next = std::max(next + static_cast<int64_t>(std::llround(m_options.interval * 1000.0)), now_ms());
            _SleepUntil(next);
        }
        return 0;
    }

private:
    // A segment removed or replaced, or taken over by another feed process:
    // attaches to what the key file names now, keeping the old segment (and
    // the figures it left) while nothing else can be attached.
    void _Follow() {
        bool renew = !m_reader->IsCurrent();
        if (!renew && m_hasLast) {
            quvo_health copy;
            std::string error;
            renew = m_reader->Read(copy, error) && (copy.process.pid != m_last.process.pid ||
                                                    copy.process.start_ns != m_last.process.start_ns);
        }
        if (!renew) {
            return;
        }
        auto fresh = std::make_unique<CQuvoHealthReader>();
        std::string error;
        if (fresh->Attach(error)) {
            m_reader = std::move(fresh);
        }
    }

    void _Report(const quvo_health& copy) {
        const int64_t nowMs = now_ms();
        const uint64_t nowNs = health_wall_now_ns();
        health_rates rates;
        const health_rates* shown = nullptr;
        if (m_hasLast) {
            rates = health_rates_between(m_last, copy, static_cast<double>(nowMs - m_lastMs) / 1000.0);
            shown = &rates;
        }
        const bool alive = quvo_health_writer_alive(copy);
        if (m_options.json) {
            nlohmann::ordered_json object = health_to_json(copy, alive);
            object["interval"] = health_rates_to_json(shown);
            object["at_ns"] = nowNs;
            _Write(health_json_line(object));
        } else {
            std::string text = health_report(copy, alive, nowNs, shown);
            if (!m_options.once) {
                text += _Footer(nowNs);
            }
            _Write(text);
        }
        m_last = copy;
        m_lastMs = nowMs;
        m_hasLast = true;
    }

    std::string _Footer(uint64_t nowNs) const {
        char interval[32];
        snprintf(interval, sizeof(interval), "%g", m_options.interval);
        return "\nread " + format_wall_time(nowNs) + " from key directory " + quvo_key_dir() + ", every " +
               interval + " s" + (m_terminal ? "; Ctrl+C to stop" : "") + "\n";
    }

    void _Note(const std::string& error) {
        if (m_options.json) {
            fprintf(stderr, "quvo-stat: %s; trying again\n", error.c_str());
            return;
        }
        _Write("quvo-stat: " + error + "; trying again\n");
    }

    void _Write(const std::string& text) {
        if (m_terminal) {
            // Home, each line cleared to its end, the rest of the screen cleared:
            // the report is redrawn in place without flashing.
            std::string screen = m_written ? "\033[H" : "\033[H\033[2J";
            size_t start = 0;
            for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
                screen += text.substr(start, end - start) + "\033[K\n";
                start = end + 1;
            }
            screen += "\033[J";
            fputs(screen.c_str(), stdout);
        } else {
            if (m_written && !m_options.json) {
                fputc('\n', stdout);
            }
            fputs(text.c_str(), stdout);
        }
        fflush(stdout);
        m_written = true;
    }

    static void _SleepUntil(int64_t deadlineMs) {
        for (int64_t now = now_ms(); now < deadlineMs && !g_stop; now = now_ms()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min<int64_t>(deadlineMs - now, 50)));
        }
    }

    const StatOptions& m_options;
    const bool m_terminal;
    std::unique_ptr<CQuvoHealthReader> m_reader;
    quvo_health m_last{};
    int64_t m_lastMs = 0;
    bool m_hasLast = false;
    bool m_written = false;
};

}  // namespace

int main(int argc, char** argv) {
    StatOptions options;
    std::string error;
    if (!parse_options(argc, argv, options, error)) {
        fprintf(stderr, "quvo-stat: %s\n\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (options.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    struct sigaction action {};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return CStat(options).Run();
}
