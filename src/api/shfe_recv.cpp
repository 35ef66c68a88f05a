#include "src/api/shfe_recv.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdio>
#include <cstdlib>

void (*update_md)(instrument*) = nullptr;

namespace {

[[noreturn]] void FailShm(const char* what, bool adviseDriverUpdate) {
    perror(what);
    if (adviseDriverUpdate) {
        fputs(
            "Please update the network card's driver and firmware to the latest release, available from the "
            "card's software download page, and retry.\n",
            stderr);
    }
    fputs("If the problem persists, contact quvo-md support with this message and the feed's log file.\n",
          stderr);
    exit(1);
}

}  // namespace

extern "C" char* create_shm(const char* path, unsigned int size) {
    key_t key = ftok(path, QUVO_SHM_PROJ_ID);
    if (key == -1) {
        // Same words as the attach failure, deliberately.
        FailShm("failed to attach memory", true);
    }
    int id = shmget(key, size, IPC_CREAT | 0777);
    if (id == -1) {
        FailShm("failed to access memory", true);
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        FailShm("failed to attach memory", false);
    }
    return static_cast<char*>(addr);
}

extern "C" void free_shm(char* addr) {
    if (shmdt(addr) == -1) {
        perror("failed to free memory");
        exit(1);
    }
}

extern "C" void set_update_md_callback(void (*callback)(instrument*)) {
    update_md = callback;
}

std::string shm_key_path(const char* keyFile) {
    const char* dir = getenv(QUVO_KEY_DIR_ENV);
    std::string path = (dir != nullptr && dir[0] != '\0') ? dir : QUVO_DEFAULT_KEY_DIR;
    if (path.back() != '/') {
        path += '/';
    }
    return path + keyFile;
}
