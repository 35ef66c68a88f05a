#include "tools/bridge/BridgeMetrics.h"

#include <cstring>
#include <utility>

#include "tools/MetricsServer.h"

namespace {

struct FigureText {
    const char* name;
    bool counter;
    const char* help;
};

// Everything either mode prints; a figure not listed is served as a gauge.
constexpr FigureText kFigures[] = {
    {"connected", false, "1 while connected to a NATS server."},
    {"announcements", true, "Announcements read from the feed's update ring."},
    {"published", true, "Books published."},
    {"conflated", true, "Announcements folded into an instrument's pending publication."},
    {"unchanged", true, "Books a comparison marked that equalled what was last sent, so were not sent."},
    {"laps", true,
     "Times the ring may have overtaken the bridge, each followed by a comparison of every book."},
    {"rescans", true, "Comparisons of every book with the copy taken before."},
    {"reconnects", true, "Reconnections to NATS."},
    {"disconnects", true, "Losses of the NATS connection."},
    {"pending", false, "Instruments waiting to be published."},
    {"lag", false, "Announcements the bridge is behind the feed; -1 without the feed's health segment."},
    {"max_delay_us", false,
     "Longest wait from an announcement to its publication since the previous scrape, in microseconds."},
    {"inconsistent", true, "Records that kept changing while copied; copied again."},
    {"publish_errors", true, "Sends refused at once (not connected, or too many puts in flight); retried."},
    {"put_errors", true, "Bucket puts refused or not acknowledged; published again."},
    {"applied", true, "Books written into the replica and announced on its ring."},
    {"stale", true, "Books refused as older than the replica's."},
    {"invalid", true, "Messages that were not a book of a known layout."},
    {"resyncs", true, "Reads of the whole bucket: at start, after reconnects and after dropped messages."},
    {"bucket_books", false, "Books read from the bucket at the last resync."},
    {"slow_consumer", true, "Times NATS reported dropping messages to the mirror."},
};

const FigureText* find_figure(const std::string& name) {
    for (const FigureText& figure : kFigures) {
        if (name == figure.name) {
            return &figure;
        }
    }
    return nullptr;
}

}  // namespace

CBridgeFigures::CBridgeFigures(std::string prefix, Source source)
    : m_prefix(std::move(prefix)), m_source(std::move(source)) {}

std::vector<prometheus::MetricFamily> CBridgeFigures::Collect() const {
    CExposition out;
    const nlohmann::ordered_json figures = m_source();
    for (const auto& [name, value] : figures.items()) {
        if (!value.is_number() && !value.is_boolean()) {
            continue;
        }
        const double number = value.is_boolean() ? (value.get<bool>() ? 1.0 : 0.0) : value.get<double>();
        const FigureText* figure = find_figure(name);
        const std::string help = figure != nullptr ? figure->help : "quvo-bridge figure " + name + ".";
        if (figure != nullptr && figure->counter) {
            CExposition::Sample(
                out.Family(m_prefix + "_" + name + "_total", help, prometheus::MetricType::Counter), number);
        } else {
            out.Gauge(m_prefix + "_" + name, help, number);
        }
    }
    return out.Take();
}

bool serve_bridge_figures(const std::string& listen, std::string prefix, CBridgeFigures::Source source,
                          std::unique_ptr<CMetricsServer>& server, std::string& error) {
    if (listen.empty()) {
        return true;
    }
    server = CMetricsServer::Serve(
        "quvo-bridge", listen, std::make_shared<CBridgeFigures>(std::move(prefix), std::move(source)), error);
    return server != nullptr;
}
