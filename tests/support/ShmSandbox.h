// An isolated pair of key files for the shared segments: points QUVO_KEY_DIR
// at a fresh directory holding key_f and key_e, and on destruction removes
// the segments keyed by them and restores the environment. Key files whose
// keys already name a segment (ftok keys repeat as inodes are reused) are
// passed over, so a segment left by a killed process never leaks in.
#pragma once

#include <string>

#include "tests/support/TempDir.h"

class CShmSandbox {
public:
    CShmSandbox();
    ~CShmSandbox();

    const std::string& Dir() const { return m_keyDir; }
    std::string RingKeyPath() const;
    std::string AreaKeyPath() const;
    // The System V id of the segment keyed by `keyPath`, or -1 if none exists.
    static int SegmentId(const std::string& keyPath);
    // The id of the feed's health segment keyed by the area's key file, or -1.
    static int HealthSegmentId(const std::string& areaKeyPath);
    // Number of processes attached to the segment keyed by `keyPath`.
    static long AttachCount(const std::string& keyPath);

private:
    CTempDir m_dir;
    std::string m_keyDir;
    std::string m_savedKeyDir;
    bool m_hadKeyDir;
};
