#include "tools/bridge/BridgeOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "tools/MetricsServer.h"

const char* const kBridgeUsage =
    "Usage: quvo-bridge [OPTIONS]            publish this host's books on NATS\n"
    "       quvo-bridge --mirror [OPTIONS]   keep a replica of them in this host's shared memory\n"
    "\n"
    "Publishing, the bridge follows the update ring of the quvo-md feed whose key files are in\n"
    "$QUVO_KEY_DIR (else /etc), as any reader does, and publishes each changed instrument's book\n"
    "on PREFIX.SHFE.<id> or PREFIX.INE.<id>. While NATS is slower than the feed, announcements of\n"
    "an instrument still waiting are folded into its one pending publication, which carries the\n"
    "latest book. The latest book of every instrument is also kept in a JetStream key-value bucket\n"
    "(key SHFE.<id> or INE.<id>), and a stream keeps the published history. Both are made when\n"
    "missing. When NATS cannot be reached the bridge keeps following the ring, reconnects, and then\n"
    "publishes every instrument's latest book again.\n"
    "\n"
    "Mirroring, the bridge makes the update ring and the market-data area for the key files in\n"
    "$QUVO_KEY_DIR, laid out as the feed's (no feed may run on them), fills them from the bucket\n"
    "and then from the live subjects, and announces each book it writes on its ring, so that every\n"
    "reader works on the replica unchanged. A book never replaces a newer one of the same\n"
    "instrument. After a reconnect it reads the whole bucket again.\n"
    "\n"
    "  --server URL        a NATS server, e.g. nats://10.0.0.5:4222; repeat it, or separate URLs\n"
    "                      with commas, for a cluster (default nats://127.0.0.1:4222)\n"
    "  --creds FILE        NATS credentials file (user JWT and seed)\n"
    "  --prefix PREFIX     subject prefix (default quvo.book)\n"
    "  --bucket NAME       key-value bucket (default quvo-books)\n"
    "  --stream NAME       history stream, on PREFIX.> (default quvo-history)\n"
    "  --history-age SECONDS    keep the history this long (default 86400; 0 for ever)\n"
    "  --history-bytes BYTES    and at most this many bytes (default: no limit)\n"
    "  --replicas N        replicas of the stream and bucket when the bridge makes them (default 1;\n"
    "                      3 in a cluster of three)\n"
    "  --json              publish JSON rather than the binary message (the mirror reads both)\n"
    "  --send-at-once      write each message to the socket as it is published, rather than\n"
    "                      gathered for about a millisecond: lower latency while NATS keeps up,\n"
    "                      fewer books a second at the top (more conflated)\n"
    "  --stats[=SECONDS]   print the bridge's figures as one JSON object a line every SECONDS\n"
    "                      (default 1) and once more when it stops\n"
    "  --metrics ADDR:PORT serve the same figures at http://ADDR:PORT/metrics for Prometheus\n"
    "                      (quvo_bridge_*, or quvo_mirror_* when mirroring); port 0 takes a free\n"
    "                      port, which the line \"quvo-bridge: serving http://...\" names\n"
    "  --mirror            mirror rather than publish\n"
    "  -h, --help          print this text and exit\n"
    "\n"
    "The binary message (interface/quvobridge.h, version 1, 368 bytes, little-endian): magic\n"
    "\"QVBK\", version, slot, the bridge's epoch, the slot's sequence number, the publish time,\n"
    "then the 336-byte instrument record. docs/bridge.md describes it and the JSON form.\n"
    "\n"
    "Figures (--stats), publishing: announcements read from the ring, published books, conflated\n"
    "announcements, unchanged books not sent again after a rescan, laps (the ring overtook the\n"
    "bridge: every book was compared again), reconnects, pending books, lag (announcements the\n"
    "bridge is behind the feed, -1 when the feed publishes no health figures), max_delay_us (the\n"
    "longest wait from announcement to publication since the line before), publish errors,\n"
    "put errors (puts the bucket refused or did not acknowledge: published again).\n"
    "Mirroring: applied books, stale books refused, invalid messages, resyncs from the bucket,\n"
    "books read from the bucket, reconnects.\n"
    "\n"
    "SIGINT (Ctrl+C) or SIGTERM stops it with status 0. Exit status 2: bad options or NATS options,\n"
    "a credentials file that cannot be read, or a server that refuses the connection (credentials),\n"
    "at the start or later;\n"
    "3: a feed or another mirror writes the key files; 1: the shared memory cannot be made.\n";

namespace {

bool valid_subject(const std::string& subject) {
    if (subject.empty() || subject.front() == '.' || subject.back() == '.' ||
        subject.find("..") != std::string::npos) {
        return false;
    }
    for (const char c : subject) {
        if (c == ' ' || c == '\t' || c == '*' || c == '>' || static_cast<unsigned char>(c) < 0x21) {
            return false;
        }
    }
    return true;
}

bool valid_name(const std::string& name) {
    if (name.empty()) {
        return false;
    }
    for (const char c : name) {
        if (!((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
              c == '_')) {
            return false;
        }
    }
    return true;
}

bool read_seconds(const std::string& name, const std::string& value, bool zeroAllowed, double& out,
                  std::string& error) {
    char* end = nullptr;
    errno = 0;
    const double seconds = strtod(value.c_str(), &end);
    if (value.empty() || *end != '\0' || errno != 0 || !std::isfinite(seconds) || seconds < 0 ||
        (!zeroAllowed && seconds == 0) || seconds > 1e9) {
        error =
            name + " needs a number of seconds" + (zeroAllowed ? "" : " above 0") + ", not '" + value + "'";
        return false;
    }
    out = seconds;
    return true;
}

bool read_integer(const std::string& name, const std::string& value, long long low, long long high,
                  long long& out, std::string& error) {
    char* end = nullptr;
    errno = 0;
    const long long number = strtoll(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || errno != 0 || number < low || number > high) {
        error = name + " needs a whole number from " + std::to_string(low) + " to " + std::to_string(high) +
                ", not '" + value + "'";
        return false;
    }
    out = number;
    return true;
}

}  // namespace

bool parse_bridge_options(int argc, char** argv, BridgeOptions& options, std::string& error) {
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
        const bool takesValue = arg == "--server" || arg == "--creds" || arg == "--prefix" ||
                                arg == "--bucket" || arg == "--stream" || arg == "--history-age" ||
                                arg == "--history-bytes" || arg == "--replicas" || arg == "--metrics";
        if (takesValue && !hasValue) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!takesValue && hasValue && arg != "--stats") {
            error = arg + " takes no value";
            return false;
        }
        long long number = 0;
        if (arg == "--server") {
            for (size_t start = 0; start <= value.size();) {
                const size_t comma = value.find(',', start);
                const std::string url =
                    value.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
                if (url.empty()) {
                    error = "--server needs URLs, not '" + value + "'";
                    return false;
                }
                options.servers.push_back(url);
                if (comma == std::string::npos) {
                    break;
                }
                start = comma + 1;
            }
        } else if (arg == "--creds") {
            options.creds = value;
        } else if (arg == "--prefix") {
            if (!valid_subject(value)) {
                error = "--prefix needs a subject of dot-separated tokens without spaces, '*' or '>', not '" +
                        value + "'";
                return false;
            }
            options.prefix = value;
        } else if (arg == "--bucket" || arg == "--stream") {
            if (!valid_name(value)) {
                error = arg + " needs a name of letters, digits, '-' and '_', not '" + value + "'";
                return false;
            }
            (arg == "--bucket" ? options.bucket : options.stream) = value;
        } else if (arg == "--history-age") {
            if (!read_seconds(arg, value, true, options.historySeconds, error)) {
                return false;
            }
        } else if (arg == "--history-bytes") {
            if (!read_integer(arg, value, 1, INT64_MAX, number, error)) {
                return false;
            }
            options.historyBytes = number;
        } else if (arg == "--replicas") {
            if (!read_integer(arg, value, 1, 5, number, error)) {
                return false;
            }
            options.replicas = static_cast<int>(number);
        } else if (arg == "--stats") {
            options.statsSeconds = 1;
            if (hasValue && !read_seconds(arg, value, false, options.statsSeconds, error)) {
                return false;
            }
        } else if (arg == "--metrics") {
            if (!valid_listen(value)) {
                error = "--metrics needs ADDR:PORT with a port of 0..65535, not '" + value + "'";
                return false;
            }
            options.metrics = value;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--send-at-once") {
            options.sendAtOnce = true;
        } else if (arg == "--mirror") {
            options.mirror = true;
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
    if (options.servers.empty()) {
        options.servers.push_back("nats://127.0.0.1:4222");
    }
    if (options.mirror && options.json) {
        error = "--json is for publishing; the mirror reads both forms";
        return false;
    }
    return true;
}
