// The Prometheus endpoint the tools serve their figures on: the families of
// one scrape, and the HTTP server that asks a collector for them.
#pragma once

#include <prometheus/client_metric.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>

#include <cstdint>
#include <deque>
#include <iterator>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// The families of one scrape, built in order.
class CExposition {
public:
    using MetricFamily = prometheus::MetricFamily;
    using MetricType = prometheus::MetricType;
    using Labels = std::vector<prometheus::ClientMetric::Label>;

    MetricFamily& Family(const std::string& name, const std::string& help, MetricType type) {
        m_families.push_back(MetricFamily{name, help, type, {}});
        return m_families.back();
    }

    // One sample of a counter or gauge family.
    static void Sample(MetricFamily& family, double value, Labels labels = {}) {
        prometheus::ClientMetric metric;
        metric.label = std::move(labels);
        if (family.type == MetricType::Counter) {
            metric.counter.value = value;
        } else {
            metric.gauge.value = value;
        }
        family.metric.push_back(std::move(metric));
    }

    void Gauge(const std::string& name, const std::string& help, double value) {
        Sample(Family(name, help, MetricType::Gauge), value);
    }
    void Counter(const std::string& name, const std::string& help, uint64_t value) {
        Sample(Family(name, help, MetricType::Counter), static_cast<double>(value));
    }

    std::vector<MetricFamily> Take() {
        return std::vector<MetricFamily>(std::make_move_iterator(m_families.begin()),
                                         std::make_move_iterator(m_families.end()));
    }

private:
    std::deque<MetricFamily> m_families;  // a deque: families stay put while more are added
};

// ADDR:PORT with a port of 0..65535; ADDR may be a bracketed IPv6 address.
bool valid_listen(const std::string& text);

// Serves a collector at http://LISTEN/metrics until it is destroyed. The
// server holds the collector only weakly, so this keeps it.
class CMetricsServer {
public:
    // Prints "PROGRAM: serving http://ADDR:PORT/metrics" with the port taken;
    // null with `error` when the address cannot be listened on.
    static std::unique_ptr<CMetricsServer> Serve(const char* program, const std::string& listen,
                                                 std::shared_ptr<prometheus::Collectable> collector,
                                                 std::string& error);

private:
    // Declared first, so that the server's threads stop before it goes.
    std::shared_ptr<prometheus::Collectable> m_pCollector;
    std::unique_ptr<prometheus::Exposer> m_pExposer;
};
