// One feed per pair of key files. The feed holds an exclusive advisory lock
// on both key files for the life of its process, so the lock goes with the
// process however it ends (SIGKILL included). Readers never take it.
#pragma once

#include <string>

// Takes the lock on `ringKeyFile` and `areaKeyFile`. Returns 0 when held, or
// when a key file cannot be opened (attaching then fails as it always has);
// -1 when another process holds it, with `message` naming the key files and
// that process.
int feed_lock_key_files(const std::string& ringKeyFile, const std::string& areaKeyFile, std::string& message);
