#include "src/FeedLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>

namespace {

// The process holding a lock on the file open at `fd`, from /proc/locks;
// 0 when none is listed.
pid_t feed_lock_holder(int fd) {
    struct stat info;
    if (fstat(fd, &info) != 0) {
        return 0;
    }
    FILE* locks = fopen("/proc/locks", "r");
    if (locks == nullptr) {
        return 0;
    }
    pid_t holder = 0;
    char line[256];
    while (holder == 0 && fgets(line, sizeof(line), locks) != nullptr) {
        char kind[16];
        char mode[16];
        char access[16];
        int pid = 0;
        unsigned devMajor = 0;
        unsigned devMinor = 0;
        uintmax_t inode = 0;
        // Waiters are listed as "N: -> FLOCK ..." and fail the match.
        if (sscanf(line, "%*d: %15s %15s %15s %d %x:%x:%" SCNuMAX, kind, mode, access, &pid, &devMajor,
                   &devMinor, &inode) == 7 &&
            devMajor == major(info.st_dev) && devMinor == minor(info.st_dev) && inode == info.st_ino) {
            holder = pid;
        }
    }
    fclose(locks);
    return holder;
}

}  // namespace

int feed_lock_key_files(const std::string& ringKeyFile, const std::string& areaKeyFile,
                        std::string& message) {
    for (const std::string* path : {&ringKeyFile, &areaKeyFile}) {
        // Kept open, and so locked, until the process ends.
        const int fd = open(path->c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            return 0;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            continue;
        }
        const int lockErrno = errno;
        const pid_t holder = lockErrno == EWOULDBLOCK ? feed_lock_holder(fd) : 0;
        close(fd);
        if (lockErrno != EWOULDBLOCK) {
            return 0;
        }
        message = "another feed" +
                  (holder > 0 ? " (process " + std::to_string(holder) + ")" : std::string()) +
                  " is running on the key files " + ringKeyFile + " and " + areaKeyFile +
                  "; not starting, so that its books stay as they are. Stop it first, or set QUVO_KEY_DIR " +
                  "for a separate pair of segments.";
        return -1;
    }
    return 0;
}
