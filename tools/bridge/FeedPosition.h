// How far the bridge's ring follower is behind the feed. The ring has no lap
// count, so the follower measures itself against the write counter the feed
// publishes in its health segment, which trails the ring by at most
// QUVO_HEALTH_LATENCY_SAMPLE_EVERY announcements.
#pragma once

#include <cstdint>

#include "interface/commonheader.h"

class CFeedPosition {
public:
    // The follower found the ring's end at `index` (its next entry) while the
    // feed's published counter read `published`: the follower's position is
    // the first count at or after `published` whose entry is `index`.
    void AtEnd(uint16_t index, uint32_t published) {
        m_base = published + static_cast<uint16_t>(index - static_cast<uint16_t>(published));
        m_taken = 0;
        m_known = true;
    }

    // The follower took `count` more announcements.
    void Took(uint32_t count) { m_taken += count; }

    // No position until the next AtEnd (a new feed, a rescan).
    void Forget() { m_known = false; }

    // Announcements the feed made that the follower has not taken, given the
    // counter it publishes now; 0 when the counter trails the follower, -1
    // when the position is not known.
    int64_t Behind(uint32_t published) const {
        if (!m_known) {
            return -1;
        }
        const int32_t behind = static_cast<int32_t>(published - (m_base + m_taken));
        return behind < 0 ? 0 : behind;
    }

    // Whether the feed may have written over entries the follower has not
    // read. The margin covers the counter trailing the ring.
    bool Lapped(uint32_t published) const {
        return Behind(published) >= static_cast<int64_t>(QUVO_UPDATE_RING_ENTRIES - kMargin);
    }

    static constexpr uint32_t kMargin = 1024;

private:
    uint32_t m_base = 0;
    uint32_t m_taken = 0;
    bool m_known = false;
};
