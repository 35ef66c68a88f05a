// The snapshot phase's loop: polls the raw-frame buffer, hands frames to the
// "PktHdr" worker, and decides success, failure or abandonment.
#include <cstring>
#include <vector>

#include "public/log/CommonLog.h"
#include "src/api/Health.h"
#include "src/tcp/ExanicTcpFunc.h"

void CExanicTcpFunc::TcpRecv(CThread& worker) {
    // An error result is taken as a huge length and dropped with the rest.
    const uint32_t n = static_cast<uint32_t>(card_receive_frame(m_pRxBuffer, m_recvBuf, sizeof(m_recvBuf)));
    quvo_health_tcp& figures = health().tcp;
    if (n == 0) {
        health_add(figures.polls_empty);
        return;
    }
    health_add(figures.polls_busy);
    if (n <= 14 || n > sizeof(m_recvBuf)) {
        QUVO_LOG(LOG_WARNING, "receive abnormal decode length: %u", n);
        health_add(figures.abnormal_length);
        return;
    }
    // The copy frees the receive buffer at once; the slack keeps reads of a
    // field body near the frame's end inside the copy.
    std::vector<char> frame(n + kMdqpReadSlack, 0);
    memcpy(frame.data(), m_recvBuf, n);
    worker.Enqueue([this, frame = std::move(frame), n]() mutable {
        if (_AllFinished()) {
            health_add(health().tcp.late);
            return;  // every enabled feed is done: late frames are dropped
        }
        _PacketHandler(frame.data(), n);
    });
}

void CExanicTcpFunc::RunTcpDecoder() {
    int rounds = m_refConfigData.timeout_cnt;
    const int64_t start = m_clock();
    mask_store(m_refFinishedMask, 0);
    health_add(health().snapshot.cleared[QUVO_CLEAN_RUN_START]);
    _Cleandata();
    QUVO_LOG(LOG_INFO, "start initialization, enabled mask 0x%x", mask_load(m_refEnabledMask));

    CThread worker;
    bool completed = false;
    bool abandoned = false;
    // Rounds are anchored to the start, not to the end of the previous round.
    for (int64_t k = 0; !completed && !abandoned; ++k) {
        const int64_t base = start + kRoundSeconds * k;
        for (;;) {
            if (!m_runningFlag.load()) {
                completed = _AllFinished();
                abandoned = !completed;
                break;
            }
            if (_AllFinished()) {
                completed = true;
                break;
            }
            TcpRecv(worker);
            if (m_clock() - base > kRoundSeconds) {
                break;
            }
        }
        if (completed || abandoned) {
            break;
        }
        if (--rounds <= 0) {
            QUVO_LOG(LOG_ERROR, "too many initialization failures");
            m_initialized.store(-1);
            std::atomic_thread_fence(std::memory_order_seq_cst);
            completed = _AllFinished();
            break;
        }
        QUVO_LOG(LOG_WARNING, "initialization still not completed");
    }
    if (completed) {
        m_initialized.store(1);
        std::atomic_thread_fence(std::memory_order_seq_cst);
        QUVO_LOG(LOG_INFO, "initialization completed");
    }
    worker.Join();
}
