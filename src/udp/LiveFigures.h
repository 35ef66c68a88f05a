// The live loop's health figures, kept so that an announced record stores
// nothing: the loop's fence makes every store on the busy path wait to drain.
// Records applied live are the ring's write count since the phase began;
// records received add the polls that announced nothing yet found a frame;
// the latency sample is picked by the write count. The state is a handful of
// locals the loop keeps in registers, written to the segment after each poll
// that announces nothing, with each sample, and when the phase ends.
#pragma once

#include <cstdint>

#include "src/api/Health.h"
#include "src/api/UpdateRing.h"
#include "src/udp/ExanicUdpFunc.h"

class CLiveFigures {
public:
    CLiveFigures(CExanicUdpFunc& udp, uint32_t writeCount)
        : m_udp(udp),
          m_writeCount(writeCount),
          m_received(health_load(health().records.received)),
          m_applied(health_load(health().records.applied)),
          m_empty(health_load(health().latency.polls_empty)),
          m_sampleStart(0) {}

    // One turn of the live loop: a poll, the announcement of the record it
    // applied (the parser leaves its slot in `slot`), and their figures.
    int Turn(CUpdateRing& ring, const uint32_t& slot) {
        BeforePoll(ring.GetWriteCount());
        const int result = m_udp.UdpRecv();
        if (result == 1) {
            ring.Publish(slot);
            Announced(ring.GetWriteCount());
        } else {
            Idle(ring.GetWriteCount());
        }
        return result;
    }

    // Before each poll, with the ring's write count: the clock is read for
    // the poll that may bring the announcement picked for a sample, so
    // latency runs from the poll that read the frame to the ring.
    void BeforePoll(uint32_t writeCount) {
        if (__builtin_expect(health_sampled(writeCount + 1ull), 0)) {
            m_sampleStart = health_monotonic_ns();
        }
    }

    // After the ring announced the record the poll applied.
    void Announced(uint32_t writeCount) {
        if (__builtin_expect(health_sampled(writeCount), 0)) {
            _Sample(writeCount);
        }
    }

    // After a poll that announced nothing: empty, or a record ignored,
    // undone or fatal.
    void Idle(uint32_t writeCount) { _Store(writeCount, 1); }

    // When the phase ends.
    void End(uint32_t writeCount) { _Store(writeCount, 0); }

private:
    [[gnu::cold, gnu::noinline]] void _Sample(uint32_t writeCount) {
        m_udp.AccountAnnounced(writeCount, true);
        health_latency(health_monotonic_ns() - m_sampleStart);
        _Store(writeCount, 0);
    }

    void _Store(uint32_t writeCount, uint64_t polls) {
        // The write count wraps; a sample every QUVO_HEALTH_LATENCY_SAMPLE_EVERY
        // announcements at the latest keeps the difference well inside 32 bits.
        const uint64_t announced = static_cast<uint32_t>(writeCount - m_writeCount);
        const uint64_t empty = health_load(health().latency.polls_empty);
        m_writeCount = writeCount;
        m_applied += announced;
        m_received += announced + polls - (empty - m_empty);
        m_empty = empty;
        quvo_health& figures = health();
        health_set(figures.records.applied, m_applied);
        health_set(figures.records.received, m_received);
        health_set(figures.ring.write_count, writeCount);
        health_set(figures.latency.polls_busy, m_received - health_load(figures.cache.cached));
    }

    CExanicUdpFunc& m_udp;
    uint32_t m_writeCount;
    uint64_t m_received;
    uint64_t m_applied;
    uint64_t m_empty;
    uint64_t m_sampleStart;
};
