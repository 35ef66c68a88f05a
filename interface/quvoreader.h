/*
 * Reader side of quvo-md's shared memory, header-only (C++17, POSIX).
 *
 * CQuvoReader attaches both segments read-only; CRingFollower follows the
 * update ring; quvo_copy_consistent takes a copy of one record that two
 * successive copies agree on.
 *
 * What the update ring can and cannot tell a reader:
 *   - An announcement says which slot changed, not what changed or how often:
 *     compare with your own last copy to find out.
 *   - The record may already reflect later updates when it is read; it is
 *     never older than the announcement.
 *   - The ring holds the last 65536 announcements and no count of laps. A
 *     reader more than 65536 announcements behind cannot tell that it was
 *     lapped: it silently reads newer entries in place of the ones it missed.
 *   - An update the feed rejected and restored is never announced.
 *   - If the feed restarts, it refills the ring with end markers and starts
 *     again at entry 0: a follower further on waits until the feed gets back
 *     to its position unless it calls CheckRestart() (which cannot see a
 *     restart once the new feed has passed the follower's position). If the
 *     segments are removed and created anew, an attached reader keeps seeing
 *     the old ones; attach again.
 * The feed writes without a lock, so a record copied while it is being
 * written can mix old and new fields: use quvo_copy_consistent.
 */
#ifndef QUVO_INTERFACE_QUVOREADER_H
#define QUVO_INTERFACE_QUVOREADER_H

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "commonheader.h"

// The key directory: $QUVO_KEY_DIR when set and not empty, else /etc.
inline std::string quvo_key_dir() {
    const char* dir = getenv(QUVO_KEY_DIR_ENV);
    return (dir != nullptr && dir[0] != '\0') ? dir : QUVO_DEFAULT_KEY_DIR;
}

// "<key directory>/<keyFile>".
inline std::string quvo_key_path(const char* keyFile) {
    std::string path = quvo_key_dir();
    if (path.back() != '/') {
        path += '/';
    }
    return path + keyFile;
}

// The id of the segment keyed by ftok(`path`, `projId`), never creating it;
// -1 with `error` in an operator's words when there is none. `what` names
// the segment in messages; `missing` is the whole message for a key file
// that names no segment.
inline int quvo_find_segment(const std::string& path, int projId, const char* what,
                             const std::string& missing, std::string& error) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        error = errno == ENOENT ? "key file " + path + " does not exist: is " QUVO_KEY_DIR_ENV " right?"
                                : "cannot use key file " + path + ": " + strerror(errno);
        return -1;
    }
    const key_t key = ftok(path.c_str(), projId);
    if (key == -1) {
        error = "cannot make a key from " + path + ": " + strerror(errno);
        return -1;
    }
    const int id = shmget(key, 0, 0);
    if (id == -1) {
        error = errno == ENOENT ? missing
                                : "cannot open the " + std::string(what) + " for key file " + path + ": " +
                                      strerror(errno);
    }
    return id;
}

inline bool quvo_slot_in_use(const instrument& inst) {
    return inst.inst_id[0] != 0 && inst.inst_id[0] != ' ';
}

// Whether the 16-byte identifier, up to its first NUL, is exactly `id`.
inline bool quvo_inst_id_equals(const unsigned char (&instId)[sizeof(instrument::inst_id)], const char* id) {
    const size_t length = strlen(id);
    return length <= sizeof(instId) &&
           strnlen(reinterpret_cast<const char*>(instId), sizeof(instId)) == length &&
           memcmp(instId, id, length) == 0;
}

class CQuvoReader {
public:
    CQuvoReader() = default;
    ~CQuvoReader() { Detach(); }
    CQuvoReader(const CQuvoReader&) = delete;
    CQuvoReader& operator=(const CQuvoReader&) = delete;

    // Attaches the update ring, then the market-data area, both read-only and
    // never creating them. On failure nothing stays attached and `error` says why.
    bool Attach(std::string& error) {
        Detach();
        const void* ring = _AttachSegment(QUVO_UPDATE_RING_KEY_FILE, QUVO_UPDATE_RING_SIZE, m_ringId, error);
        if (ring == nullptr) {
            return false;
        }
        const void* area = _AttachSegment(QUVO_MD_AREA_KEY_FILE, QUVO_MD_AREA_SIZE, m_areaId, error);
        if (area == nullptr) {
            shmdt(ring);
            return false;
        }
        m_pRing = static_cast<const uint16_t*>(ring);
        m_pArea = static_cast<const share*>(area);
        return true;
    }

    void Detach() {
        if (m_pArea != nullptr) {
            shmdt(m_pArea);
            m_pArea = nullptr;
        }
        if (m_pRing != nullptr) {
            shmdt(m_pRing);
            m_pRing = nullptr;
        }
    }

    bool IsAttached() const { return m_pArea != nullptr; }

    // Whether the key files still name the segments attached. False once they
    // were removed or made anew: what stays attached is no longer written,
    // so detach and attach again.
    bool IsCurrent() const {
        return IsAttached() && _SegmentId(quvo_key_path(QUVO_UPDATE_RING_KEY_FILE)) == m_ringId &&
               _SegmentId(quvo_key_path(QUVO_MD_AREA_KEY_FILE)) == m_areaId;
    }

    // Processes attached to the market-data area, this one included; -1 when
    // not attached or it cannot be read. More than 1 means the feed (or
    // another reader) holds the area.
    long AttachCount() const {
        struct shmid_ds segment {};
        if (!IsAttached() || shmctl(m_areaId, IPC_STAT, &segment) != 0) {
            return -1;
        }
        return static_cast<long>(segment.shm_nattch);
    }
    const share* Area() const { return m_pArea; }
    // QUVO_UPDATE_RING_ENTRIES entries; follow them with CRingFollower.
    const uint16_t* Ring() const { return m_pRing; }

    // Instrument counts as published, bounded by each exchange's slot range.
    uint32_t ShfeCount() const { return _Bounded(&m_pArea->shfe_inst_cnt, QUVO_SHFE_MAX_INST_CNT); }
    uint32_t IneCount() const { return _Bounded(&m_pArea->ine_inst_cnt, QUVO_INE_MAX_INST_CNT); }

    // Slot of the in-use instrument whose identifier is exactly `id`, or -1.
    int FindSlot(const char* id) const {
        for (uint32_t slot : ListSlots()) {
            unsigned char instId[sizeof(instrument::inst_id)];
            memcpy(instId, m_pArea->instmts[slot].inst_id, sizeof(instId));
            if (quvo_inst_id_equals(instId, id)) {
                return static_cast<int>(slot);
            }
        }
        return -1;
    }

    // Slots in use: SHFE by instrument number, then INE by instrument number.
    std::vector<uint32_t> ListSlots() const {
        std::vector<uint32_t> slots;
        const uint32_t shfe = ShfeCount();
        for (uint32_t n = 0; n < shfe; ++n) {
            _AddIfInUse(quvo_shfe_slot(n), slots);
        }
        const uint32_t ine = IneCount();
        for (uint32_t n = 0; n < ine; ++n) {
            _AddIfInUse(quvo_ine_slot(n), slots);
        }
        return slots;
    }

private:
    // The segment keyed by `path`, or -1 (errno set) when there is none.
    static int _SegmentId(const std::string& path) {
        const key_t key = ftok(path.c_str(), QUVO_SHM_PROJ_ID);
        return key == -1 ? -1 : shmget(key, 0, 0);
    }

    static const void* _AttachSegment(const char* keyFile, size_t expectedSize, int& id, std::string& error) {
        const std::string path = quvo_key_path(keyFile);
        id = quvo_find_segment(
            path, QUVO_SHM_PROJ_ID, "segment",
            "no market-data segment for key file " + path + ": is quvo-md running on this host?", error);
        if (id == -1) {
            return nullptr;
        }
        void* addr = shmat(id, nullptr, SHM_RDONLY);
        if (addr == reinterpret_cast<void*>(-1)) {
            error = "cannot attach the segment for key file " + path + " read-only: " + strerror(errno);
            return nullptr;
        }
        struct shmid_ds segment {};
        if (shmctl(id, IPC_STAT, &segment) != 0) {
            error = "cannot read the size of the segment for key file " + path + ": " + strerror(errno);
        } else if (segment.shm_segsz != expectedSize) {
            error = "the segment for key file " + path + " is " + std::to_string(segment.shm_segsz) +
                    " bytes, expected " + std::to_string(expectedSize) + " bytes";
        } else {
            return addr;
        }
        shmdt(addr);
        return nullptr;
    }

    static uint32_t _Bounded(const int32_t* count, int32_t limit) {
        const int32_t value = __atomic_load_n(count, __ATOMIC_RELAXED);
        return static_cast<uint32_t>(value < 0 ? 0 : (value > limit ? limit : value));
    }

    void _AddIfInUse(uint32_t slot, std::vector<uint32_t>& slots) const {
        if (quvo_slot_in_use(m_pArea->instmts[slot])) {
            slots.push_back(slot);
        }
    }

    const uint16_t* m_pRing = nullptr;
    const share* m_pArea = nullptr;
    int m_ringId = -1;
    int m_areaId = -1;
};

// Follows the update ring from the end it finds at construction.
class CRingFollower {
public:
    explicit CRingFollower(const uint16_t* entries) : m_pEntries(entries), m_index(_FindEnd(entries)) {}

    // Takes the next announcement, or returns false at the end marker. After
    // true, the announced slot's record is at least as new as the announcement.
    bool Next(uint16_t& slot) {
        const uint16_t value = __atomic_load_n(&m_pEntries[m_index], __ATOMIC_RELAXED);
        if (value == QUVO_UPDATE_RING_END) {
            return false;
        }
        // Pairs with the feed's release store of the entry.
        std::atomic_thread_fence(std::memory_order_acquire);
        slot = value;
        ++m_index;
        return true;
    }

    // Index of the next entry to read; wraps from 65535 to 0.
    uint16_t Index() const { return m_index; }

    // Whether a new feed process has reset the ring behind this follower: at
    // the end marker, with the ring's first end marker before it. If so, the
    // follower goes back to entry 0 and reads what the new feed announced.
    // Costs a scan of the ring up to the index: call it when idle, not per poll.
    bool CheckRestart() {
        if (_Load(m_pEntries, m_index) != QUVO_UPDATE_RING_END || _FindEnd(m_pEntries) >= m_index) {
            return false;
        }
        m_index = 0;
        return true;
    }

private:
    static uint16_t _FindEnd(const uint16_t* entries) {
        uint32_t index = 0;
        while (index < QUVO_UPDATE_RING_ENTRIES && _Load(entries, index) != QUVO_UPDATE_RING_END) {
            ++index;
        }
        // The feed marks entry 0 before it fills entry 65535: caught between
        // the two stores, the end is 65535, not 0.
        if (index == 0 && _Load(entries, 1) != QUVO_UPDATE_RING_END &&
            _Load(entries, QUVO_UPDATE_RING_ENTRIES - 1) == QUVO_UPDATE_RING_END) {
            index = QUVO_UPDATE_RING_ENTRIES - 1;
        }
        return static_cast<uint16_t>(index);
    }

    static uint16_t _Load(const uint16_t* entries, uint32_t index) {
        return __atomic_load_n(&entries[index], __ATOMIC_RELAXED);
    }

    const uint16_t* m_pEntries;
    uint16_t m_index;
};

inline void quvo_copy_record(const instrument& source, instrument& out) {
    memcpy(&out, &source, sizeof(out));
}

// Copies `source` into `out` until two successive copies are byte-identical,
// taking at most `maxCopies` copies; false when no two agreed (`out` then
// holds the last copy). `copy` is a stand-in for quvo_copy_record.
template <typename Copier>
bool quvo_copy_consistent(const instrument& source, instrument& out, unsigned maxCopies, Copier&& copy) {
    if (maxCopies < 2) {
        return false;
    }
    instrument previous;
    copy(source, previous);
    for (unsigned copies = 2; copies <= maxCopies; ++copies) {
        // Without a barrier the compiler could reuse the first copy's loads.
        std::atomic_thread_fence(std::memory_order_acquire);
        __asm__ __volatile__("" ::: "memory");
        copy(source, out);
        if (memcmp(&previous, &out, sizeof(out)) == 0) {
            return true;
        }
        memcpy(&previous, &out, sizeof(out));
    }
    return false;
}

inline bool quvo_copy_consistent(const instrument& source, instrument& out, unsigned maxCopies = 16) {
    return quvo_copy_consistent(source, out, maxCopies, quvo_copy_record);
}

#endif /* QUVO_INTERFACE_QUVOREADER_H */
