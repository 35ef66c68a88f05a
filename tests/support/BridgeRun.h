// What the bridge's end-to-end tests share: readers of a key directory's
// segments, the comparison of a replica with the feed, and commands run with
// a key directory.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "interface/quvoreader.h"
#include "tests/support/Poll.h"

// `argv` run by env with QUVO_KEY_DIR set to `keyDir`.
inline std::vector<std::string> in_key_dir(const std::string& keyDir, std::vector<std::string> argv) {
    argv.insert(argv.begin(), {"/usr/bin/env", std::string(QUVO_KEY_DIR_ENV) + "=" + keyDir});
    return argv;
}

// Attaches `reader` to the segments of key directory `dir`, waiting a while
// for a process still making them.
inline void attach_at(CQuvoReader& reader, const std::string& dir) {
    setenv(QUVO_KEY_DIR_ENV, dir.c_str(), 1);
    std::string error;
    ASSERT_TRUE(poll_until([&] { return reader.Attach(error); }, 10, 50)) << error;
}

// The first differences between two areas' records and counts, at most `limit`.
inline std::vector<std::string> area_differences(const share& feed, const share& mirror, size_t limit = 10) {
    std::vector<std::string> differences;
    for (uint32_t slot = 0; slot < QUVO_INST_SLOTS && differences.size() < limit; ++slot) {
        const instrument& a = feed.instmts[slot];
        const instrument& b = mirror.instmts[slot];
        if (memcmp(&a, &b, sizeof(a)) != 0) {
            differences.push_back("slot " + std::to_string(slot) + " (" +
                                  std::string(reinterpret_cast<const char*>(a.inst_id),
                                              strnlen(reinterpret_cast<const char*>(a.inst_id), 16)) +
                                  "): change_no " + std::to_string(a.change_no) + " in the feed, " +
                                  std::to_string(b.change_no) + " in the mirror");
        }
    }
    if (feed.shfe_inst_cnt != mirror.shfe_inst_cnt || feed.ine_inst_cnt != mirror.ine_inst_cnt) {
        differences.push_back("counts " + std::to_string(feed.shfe_inst_cnt) + "/" +
                              std::to_string(feed.ine_inst_cnt) + " in the feed, " +
                              std::to_string(mirror.shfe_inst_cnt) + "/" +
                              std::to_string(mirror.ine_inst_cnt) + " in the mirror");
    }
    return differences;
}
