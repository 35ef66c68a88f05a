// quvo-bridge's command line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct BridgeOptions {
    std::vector<std::string> servers;  // NATS URLs; a cluster is several
    std::string creds;                 // credentials file, or empty
    std::string prefix = "quvo.book";
    std::string bucket = "quvo-books";
    std::string stream = "quvo-history";
    double historySeconds = 86400;  // the stream's retention by age; 0 keeps for ever
    int64_t historyBytes = -1;      // and by size; -1 no limit
    int replicas = 1;               // of the stream and the bucket, when the bridge makes them
    bool json = false;
    bool sendAtOnce = false;  // each message written at once rather than gathered
    bool mirror = false;
    double statsSeconds = 0;  // 0: no figures
    std::string metrics;      // ADDR:PORT to serve the figures on for Prometheus, or empty
    bool help = false;
};

extern const char* const kBridgeUsage;

// Reads argv; false with `error` in an operator's words.
bool parse_bridge_options(int argc, char** argv, BridgeOptions& options, std::string& error);
