// Waiting in tests for what another process does: a file to hold a text, a
// condition to hold, shared memory to stop changing. Every wait is bounded.
#pragma once

#include <functional>
#include <string>

// Seconds on the monotonic clock.
double seconds_now();

// Calls `done` every `intervalMs` until it returns true or `seconds` pass;
// returns its last answer.
bool poll_until(const std::function<bool()>& done, double seconds, int intervalMs);

// Polls the file at `path` until it contains `text`; whether it does.
bool wait_for_text(const std::string& path, const std::string& text, double seconds, int intervalMs);

// Calls `read` every `intervalMs` until two reads in a row give the same text,
// not empty, as the books do once a market has stopped. True with that text in
// `text`; false with the last read there when `seconds` pass first.
bool wait_settled(const std::function<std::string()>& read, double seconds, int intervalMs,
                  std::string& text);
