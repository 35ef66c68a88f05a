// Loopback ports for the servers tests start, and a Prometheus scrape as the
// tests make it: GET /metrics over HTTP/1.0, bounded in time.
#pragma once

#include <string>

// A loopback port nothing listened on a moment ago, never the same one twice
// in a process; -1 when none was found.
int free_loopback_port();

// The body of a 200 answer, or false with `error`.
bool scrape_metrics(int port, std::string& body, std::string& error);
