// What the fuzz targets and their seed generators share.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "public/log/CommonLog.h"

// Fuzzing runs silent; QUVO_FUZZ_LOG=1 formats every log line too, at the
// cost of speed, so the message paths are fuzzed as well.
inline void fuzz_set_log_level() {
    const char* log = getenv("QUVO_FUZZ_LOG");
    CCommonLog::GetInstance().SetLogLevel(static_cast<ELOGLEVEL>(log != nullptr && log[0] == '1' ? 0x1F : 0));
}

// Writes one seed file: an optional leading control byte, then `bytes`.
// Returns false (after perror) when the file cannot be written.
inline bool write_seed(const std::string& dir, const std::string& name, const void* bytes, size_t size,
                       const unsigned char* control = nullptr) {
    const std::string path = dir + "/" + name;
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) {
        perror(path.c_str());
        return false;
    }
    const bool ok =
        (control == nullptr || fwrite(control, 1, 1, f) == 1) && fwrite(bytes, 1, size, f) == size;
    if (fclose(f) != 0 || !ok) {
        perror(path.c_str());
        return false;
    }
    return true;
}

// The seed generators' main: one argument, the directory to write into.
// `write(dir, seed)` writes one seed and returns false on failure.
template <typename Seeds, typename Write>
int seed_main(int argc, char** argv, const Seeds& seeds, Write&& write) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DIR\n", argv[0]);
        return 2;
    }
    for (const auto& seed : seeds) {
        if (!write(argv[1], seed)) {
            return 1;
        }
    }
    return 0;
}
