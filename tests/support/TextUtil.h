// Small text helpers for tests that read logs, tool output and screens.
#pragma once

#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Occurrences of `part` in `text`, overlapping ones included.
inline size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++n;
    }
    return n;
}

// The lines of `text` without their newlines; no empty last line after a final newline.
inline std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The words of `text`, split at white space.
inline std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> out;
    for (std::string word; in >> word;) {
        out.push_back(word);
    }
    return out;
}

// `text` without its leading and trailing spaces.
inline std::string trim(const std::string& text) {
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}
