// Reaches the INI reader's private steps, which the tests check one by one.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "src/config/ConfigParse.h"

class CConfigParseTestAccess {
public:
    static int LoadConfig(CConfigParse& parse, const std::string& path) { return parse._LoadConfig(path); }
    static int ReadRecord(CConfigParse& parse) { return parse._ReadRecord(); }
    static std::string GetConfigData(const CConfigParse& parse, const std::string& section,
                                     const std::string& key, const std::string& defaultValue) {
        return parse._GetConfigData(section, key, defaultValue);
    }
    static const std::map<std::string, std::map<std::string, std::string>>& Sections(
        const CConfigParse& parse) {
        return parse.sections;
    }
    static std::string Trim(const std::string& s) { return CConfigParse::_Trim(s); }
    static std::vector<std::string> SplitByChar(const std::string& s, char sep) {
        return CConfigParse::_SplitByChar(s, sep);
    }
};
