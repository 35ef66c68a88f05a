// Splits captured log output back into its lines' parts.
#pragma once

#include <string>
#include <vector>

struct LogLine {
    std::string label;     // "[E]", "[W]", "[I]", "[D]", "[X]" or "[N]"
    std::string unit;      // source file, e.g. "src/dev/ExanicDevFunc.cpp"
    std::string function;  // e.g. "InitDev"
    std::string message;
};

// Every well-formed log line in `out`, in order.
std::vector<LogLine> parse_log_lines(const std::string& out);

// Messages of the lines with `label` written by `function`.
std::vector<std::string> log_messages(const std::string& out, const std::string& label,
                                      const std::string& function);
