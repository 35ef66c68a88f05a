#include "src/api/Health.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "interface/quvohealthreader.h"
#include "src/api/shfe_recv.h"

namespace {

quvo_health g_localHealth;

uint64_t ClockNs(clockid_t clock) {
    struct timespec now;
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
}

void* CreateSegment(std::string& error) {
    const std::string path = shm_key_path(QUVO_HEALTH_KEY_FILE);
    const key_t key = ftok(path.c_str(), QUVO_HEALTH_PROJ_ID);
    if (key == -1) {
        error = "cannot make a key from " + path + ": " + strerror(errno);
        return nullptr;
    }
    // A segment of another size was left by a feed of another layout:
    // readers attached to it keep it; the key names a new one from now on.
    const int old = shmget(key, 0, 0);
    struct shmid_ds segment {};
    if (old != -1 && shmctl(old, IPC_STAT, &segment) == 0 && segment.shm_segsz != sizeof(quvo_health)) {
        shmctl(old, IPC_RMID, nullptr);
    }
    const int id = shmget(key, sizeof(quvo_health), IPC_CREAT | 0644);
    if (id == -1) {
        error = "cannot create the health segment for " + path + ": " + strerror(errno);
        return nullptr;
    }
    void* addr = shmat(id, nullptr, 0);
    if (addr == reinterpret_cast<void*>(-1)) {
        error = "cannot attach the health segment for " + path + ": " + strerror(errno);
        return nullptr;
    }
    return addr;
}

}  // namespace

quvo_health* g_pQuvoHealth = &g_localHealth;

uint64_t health_wall_ns() {
    return ClockNs(CLOCK_REALTIME);
}

void health_note(uint64_t quvo_health_records::*field) {
    health_add(health().records.*field);
}

uint64_t health_monotonic_ns() {
    return ClockNs(CLOCK_MONOTONIC);
}

void attach_health(const char* configPath) {
    std::string error;
    void* addr = CreateSegment(error);
    if (addr == nullptr) {
        fprintf(stderr, "quvo-md: health figures are not published: %s\n", error.c_str());
        return;
    }
    auto* h = static_cast<quvo_health*>(addr);
    // Readers see a zero magic until the record is whole again.
    __atomic_store_n(&h->magic, 0u, __ATOMIC_RELEASE);
    memset(reinterpret_cast<char*>(h) + sizeof(h->magic), 0, sizeof(quvo_health) - sizeof(h->magic));
    h->version = QUVO_HEALTH_VERSION;
    h->size = sizeof(quvo_health);
    h->process.pid = static_cast<uint64_t>(getpid());
    h->process.start_ns = health_wall_ns();
    h->process.start_ticks = quvo_process_start_ticks(static_cast<uint64_t>(getpid()));
    if (configPath != nullptr) {
        char resolved[PATH_MAX];
        const char* shown = realpath(configPath, resolved) != nullptr ? resolved : configPath;
        // Cut to fit, always terminated (the record was zeroed above).
        memcpy(h->process.config_path, shown, strnlen(shown, sizeof(h->process.config_path) - 1));
    }
    g_pQuvoHealth = h;
    health_phase(QUVO_PHASE_STARTING);
    __atomic_store_n(&h->magic, QUVO_HEALTH_MAGIC, __ATOMIC_RELEASE);
}

void detach_health() {
    if (g_pQuvoHealth == &g_localHealth) {
        return;
    }
    quvo_health* h = g_pQuvoHealth;
    g_pQuvoHealth = &g_localHealth;
    shmdt(h);
}

void health_phase(quvo_health_phase phase) {
    quvo_health_process& process = health().process;
    health_set(process.phase_started_ns[phase], health_wall_ns());
    health_set(process.phase, phase);
}
