// A Prometheus scrape as the tests make it: GET /metrics over HTTP/1.0 on a
// loopback port, bounded in time.
#pragma once

#include <string>

// The body of a 200 answer, or false with `error`.
bool scrape_metrics(int port, std::string& body, std::string& error);
