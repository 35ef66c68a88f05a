// quvo-bridge's figures for Prometheus (--metrics): every number of the
// object --stats prints, served as PREFIX_<name>, counters with _total.
#pragma once

#include <prometheus/collectable.h>
#include <prometheus/metric_family.h>

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/MetricsServer.h"

class CBridgeFigures : public prometheus::Collectable {
public:
    using Source = std::function<nlohmann::ordered_json()>;

    // `prefix` quvo_bridge for publishing, quvo_mirror for mirroring.
    CBridgeFigures(std::string prefix, Source source);

    std::vector<prometheus::MetricFamily> Collect() const override;

private:
    std::string m_prefix;
    Source m_source;
};

// Serves `source` at --metrics when it is given; false with `error` when it
// cannot be listened on. Started once the NATS link is open, and stopped
// before it closes, since a scrape reads the link.
bool serve_bridge_figures(const std::string& listen, std::string prefix, CBridgeFigures::Source source,
                          std::unique_ptr<CMetricsServer>& server, std::string& error);
