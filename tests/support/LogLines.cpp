#include "tests/support/LogLines.h"

#include <regex>

std::vector<LogLine> parse_log_lines(const std::string& out) {
    static const std::regex line(
        "\x1b\\[[0-9;]+m (\\[[EWIDXN]\\]) \\[[0-9]{8}\\]\\[[0-9]{2}:[0-9]{2}:[0-9]{2}\\]\\[[0-9]+\\] "
        "\\[([^:\\]]+):[0-9]+\\]\\[([^\\]]+)\\]([^\x1b]*)\x1b\\[0m \n");
    std::vector<LogLine> lines;
    for (std::sregex_iterator it(out.begin(), out.end(), line), end; it != end; ++it) {
        lines.push_back({(*it)[1], (*it)[2], (*it)[3], (*it)[4]});
    }
    return lines;
}

std::vector<std::string> log_messages(const std::string& out, const std::string& label,
                                      const std::string& function) {
    std::vector<std::string> messages;
    for (const LogLine& line : parse_log_lines(out)) {
        if (line.label == label && line.function == function) {
            messages.push_back(line.message);
        }
    }
    return messages;
}
