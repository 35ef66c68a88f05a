// The "key=value,key=value" lists of software device strings.
#pragma once

#include <set>
#include <string>

// Calls `apply(key, value, error)` for each item of `text`, in order; empty
// items are skipped. Fails with `error` on an item without '=', a key given
// twice, or when `apply` fails. `what` names the list in messages ("replay").
template <typename Apply>
bool for_each_device_option(const std::string& text, const char* what, Apply&& apply, std::string& error) {
    std::set<std::string> seen;
    size_t start = 0;
    while (start <= text.size()) {
        size_t comma = text.find(',', start);
        if (comma == std::string::npos) {
            comma = text.size();
        }
        const std::string item = text.substr(start, comma - start);
        start = comma + 1;
        if (item.empty()) {
            continue;
        }
        const size_t equals = item.find('=');
        if (equals == std::string::npos) {
            error = std::string(what) + " option '" + item + "' has no value (expected key=value)";
            return false;
        }
        const std::string key = item.substr(0, equals);
        if (!seen.insert(key).second) {
            error = std::string(what) + " option " + key + " is given twice";
            return false;
        }
        if (!apply(key, item.substr(equals + 1), error)) {
            return false;
        }
    }
    return true;
}
