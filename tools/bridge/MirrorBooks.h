// The replica's writer: applies book messages to a market-data area laid out
// as the feed's and announces each applied book on the replica's update ring,
// as the feed announces its own. One thread at a time may call it.
#pragma once

#include <cstdint>
#include <vector>

#include "interface/quvobridge.h"
#include "src/api/UpdateRing.h"

enum class EMirrorApply {
    Applied,  // written and announced
    Stale,    // not newer than the book the slot holds: left as it is
};

class CMirrorBooks {
public:
    // `area` and `ring` are the replica's attached segments; both outlive this.
    CMirrorBooks(share& area, CUpdateRing& ring);

    // Forgets every book: zeroes the whole area (records and counters) and
    // the order of every slot, so that any message applies next.
    void Clear();

    // Writes `msg`'s book into its slot when the message is newer than the
    // last applied there (bridge_newer), raises that exchange's instrument
    // count to cover the slot, then announces the slot. The slot must be
    // inside the area (bridge_decode checks it).
    EMirrorApply Apply(const quvo_book_msg& msg);

    uint64_t Applied() const { return m_applied; }
    uint64_t Stale() const { return m_stale; }

private:
    struct BookOrder {
        uint64_t epoch;
        uint64_t seq;
    };

    share& m_area;
    CUpdateRing& m_ring;
    std::vector<BookOrder> m_order;
    uint64_t m_applied = 0;
    uint64_t m_stale = 0;
};
