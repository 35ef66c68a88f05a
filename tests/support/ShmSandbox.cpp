#include "tests/support/ShmSandbox.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdlib>
#include <filesystem>

#include "interface/commonheader.h"
#include "interface/quvohealth.h"

CShmSandbox::CShmSandbox() {
    // Earlier candidates stay on disk, so their inodes are not handed out again.
    for (int attempt = 0; attempt < 64; ++attempt) {
        const std::string sub = "keys" + std::to_string(attempt);
        std::filesystem::create_directory(m_dir.Path() + "/" + sub);
        m_dir.WriteFile(sub + "/" QUVO_UPDATE_RING_KEY_FILE, "");
        m_dir.WriteFile(sub + "/" QUVO_MD_AREA_KEY_FILE, "");
        m_keyDir = m_dir.Path() + "/" + sub;
        if (SegmentId(RingKeyPath()) < 0 && SegmentId(AreaKeyPath()) < 0 &&
            HealthSegmentId(AreaKeyPath()) < 0) {
            break;
        }
    }
    const char* saved = getenv(QUVO_KEY_DIR_ENV);
    m_hadKeyDir = saved != nullptr;
    if (m_hadKeyDir) {
        m_savedKeyDir = saved;
    }
    setenv(QUVO_KEY_DIR_ENV, m_keyDir.c_str(), 1);
}

CShmSandbox::~CShmSandbox() {
    for (const std::string& path : {RingKeyPath(), AreaKeyPath()}) {
        const int id = SegmentId(path);
        if (id >= 0) {
            shmctl(id, IPC_RMID, nullptr);
        }
    }
    const int health = HealthSegmentId(AreaKeyPath());
    if (health >= 0) {
        shmctl(health, IPC_RMID, nullptr);
    }
    if (m_hadKeyDir) {
        setenv(QUVO_KEY_DIR_ENV, m_savedKeyDir.c_str(), 1);
    } else {
        unsetenv(QUVO_KEY_DIR_ENV);
    }
}

std::string CShmSandbox::RingKeyPath() const {
    return Dir() + "/" QUVO_UPDATE_RING_KEY_FILE;
}
std::string CShmSandbox::AreaKeyPath() const {
    return Dir() + "/" QUVO_MD_AREA_KEY_FILE;
}

int CShmSandbox::SegmentId(const std::string& keyPath) {
    const key_t key = ftok(keyPath.c_str(), QUVO_SHM_PROJ_ID);
    if (key == -1) {
        return -1;
    }
    return shmget(key, 0, 0);
}

int CShmSandbox::HealthSegmentId(const std::string& areaKeyPath) {
    const key_t key = ftok(areaKeyPath.c_str(), QUVO_HEALTH_PROJ_ID);
    return key == -1 ? -1 : shmget(key, 0, 0);
}

long CShmSandbox::AttachCount(const std::string& keyPath) {
    const int id = SegmentId(keyPath);
    struct shmid_ds info {};
    if (id < 0 || shmctl(id, IPC_STAT, &info) != 0) {
        return -1;
    }
    return static_cast<long>(info.shm_nattch);
}
