// What `quvo-md --check` reports: the configuration read with the feed's own
// reader and rules, each place where those rules would quietly ignore or
// change what the file says, and whether the feed would refuse to start.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "src/config/ConfigParse.h"

struct ConfigFinding {
    enum ESeverity { WARNING, ERROR };
    ESeverity severity;
    int line;  // 0: the file as a whole
    std::string text;
};

struct ConfigCheckResult {
    bool opened = false;
    ExanicMdConfigData config;
    int logLevel = 0;
    std::string deviceDetail;
    std::vector<ConfigFinding> findings;

    // 0 clean, 1 warnings only, 2 the feed would refuse to start.
    int ExitStatus() const;
};

class CConfigCheck {
public:
    // Reads `path` and checks it; touches no shared memory and writes no log.
    static ConfigCheckResult Check(const std::string& path);

    // The values the feed would run with, one "name  value" line each.
    static std::string Describe(const ConfigCheckResult& result);
    // Findings as "path:line: warning: text", then the effective values and
    // a closing verdict.
    static std::string Report(const std::string& path, const ConfigCheckResult& result);

    // The keys the feed reads from [config], as its reader asks for them.
    static std::vector<std::string> KnownKeys();
    // The known key nearest `key` by edits (a swap of neighbours counts as
    // one), or empty when none is close.
    static std::string NearestKey(const std::string& key);

    // The reader's own trimming, and its record reading with each key and
    // default it asks for reported to `observer`.
    static std::string Trim(const std::string& text);
    static int ReadRecord(CConfigParse& parse, const std::function<void(const char*, const char*)>& observer);
};
