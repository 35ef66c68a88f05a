// What the fuzz targets and their seed generators share.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "public/log/CommonLog.h"

// The configuration's default topic ids, which every target's feed runs with.
constexpr uint16_t kShfeTopic2 = 1000;
constexpr uint16_t kShfeTopic4 = 1101;
constexpr uint16_t kIneTopic2 = 5000;
constexpr uint16_t kIneTopic4 = 5101;

// Whether QUVO_FUZZ_LOG=1 asks for the log.
inline bool fuzz_logging() {
    const char* log = getenv("QUVO_FUZZ_LOG");
    return log != nullptr && log[0] == '1';
}

// Fuzzing runs silent; QUVO_FUZZ_LOG=1 formats every log line too, at the
// cost of speed, so the message paths are fuzzed as well.
inline void fuzz_set_log_level() {
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(fuzz_logging() ? 0x1F : 0));
}

// Every target's LLVMFuzzerInitialize: the log level, then `keep()`, which
// makes the state the target keeps across inputs before the first input.
// Returns 0.
template <typename Keep>
int fuzz_initialize(Keep&& keep) {
    fuzz_set_log_level();
    keep();
    return 0;
}

// One seed file of a generator: its name and every byte of it.
struct Seed {
    std::string name;
    std::vector<uint8_t> bytes;
};

// Writes `seed` into `dir`. Returns false (after perror) when it cannot.
inline bool write_seed(const std::string& dir, const Seed& seed) {
    const std::string path = dir + "/" + seed.name;
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        perror(path.c_str());
        return false;
    }
    const bool ok = fwrite(seed.bytes.data(), 1, seed.bytes.size(), f) == seed.bytes.size();
    if (fclose(f) != 0 || !ok) {
        perror(path.c_str());
        return false;
    }
    return true;
}

// The seed generators' main: one argument, the directory to write `seeds` into.
inline int seed_main(int argc, char** argv, const std::vector<Seed>& seeds) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    for (const Seed& seed : seeds) {
        if (!write_seed(argv[1], seed)) {
            return 1;
        }
    }
    return 0;
}
