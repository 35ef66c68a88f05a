// Both segments made as the feed makes them, in a key sandbox of their own,
// with the feed's ring publisher: reader tests play the feed through them.
#pragma once

#include "src/api/SharedSegments.h"
#include "src/api/UpdateRing.h"
#include "tests/support/ShmSandbox.h"

class CFeedSegments {
protected:
    CFeedSegments() : m_segments(attach_shared_segments()), m_ring(m_segments.pUpdateRing) {}
    ~CFeedSegments() {
        if (m_segments.pMdArea != nullptr) {
            detach_shared_segments(m_segments);
        }
    }

    instrument& Slot(uint32_t slot) { return m_segments.pMdArea->instmts[slot]; }

    CShmSandbox m_sandbox;
    SharedSegments m_segments;
    CUpdateRing m_ring;
};
