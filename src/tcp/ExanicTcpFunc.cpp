#include "src/tcp/ExanicTcpFunc.h"

#include <arpa/inet.h>
#include <time.h>

#include <cstdlib>
#include <cstring>

#include "public/log/CommonLog.h"
#include "src/api/Health.h"
#include "src/tcp/HeldFrames.h"
#include "src/tcp/TcpChecksum.h"
#include "src/tcp/WireLoad.h"

namespace {

constexpr unsigned int kEthernetHeader = 14;
// The reassembly steps report as part of the frame they handle.
constexpr const char* kPacketHandler = "_PacketHandler";
constexpr uint8_t kTcpFlagRst = 0x04;
constexpr uint8_t kTcpFlagAck = 0x10;

inline HeldFrames Held(TcpSession& s) {
    return HeldFrames{s.lost_buf_head, s.lost_buf_size, s.lost_flag};
}

// A message start: a snapshot message header (last or not).
inline bool IsMdqpHeader(const MdqpHeader& h) {
    return (h.flag & 0xEF) == 1 && h.type_id == kMdqpSnapshotType;
}

}  // namespace

int64_t CExanicTcpFunc::RealtimeSeconds() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int32_t>(now.tv_sec);
}

CExanicTcpFunc::CExanicTcpFunc(const ExanicMdConfigData& configData, share* shareMem,
                               UEnableMask& enabledMask, UEnableMask& finishedMask, PriceCalcInfo& calcInfo,
                               ClockFunc clock)
    : m_refConfigData(configData),
      m_pRegisters(nullptr),
      m_pRxBuffer(nullptr),
      m_pShareMem(shareMem),
      m_refEnabledMask(enabledMask),
      m_refFinishedMask(finishedMask),
      m_refCalcInfo(calcInfo),
      m_clock(clock),
      m_initialized(0),
      m_runningFlag(true),
      shfe_cnt_80_flag(true),
      ine_cnt_80_flag(true),
      shfe_cnt_flag(true),
      ine_cnt_flag(true),
      m_recvBuf(),
      m_sessions(),
      inter_infos() {
    for (TcpSession& s : m_sessions) {
        s.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
    }
}

CExanicTcpFunc::~CExanicTcpFunc() {
    for (TcpSession& s : m_sessions) {
        ResetSession(s);
    }
}

int CExanicTcpFunc::InitTcp(volatile uint32_t* registers, CardRx* rxBuffer) {
    m_pRegisters = registers;
    m_pRxBuffer = rxBuffer;
    return 0;
}

void CExanicTcpFunc::StartRunning() {
    m_initialized.store(0);
    std::atomic_thread_fence(std::memory_order_seq_cst);
    m_runningFlag.store(true);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

void CExanicTcpFunc::StopRunning() {
    m_runningFlag.store(false);
    std::atomic_thread_fence(std::memory_order_seq_cst);
}

bool CExanicTcpFunc::_AllFinished() const {
    return mask_load(m_refEnabledMask) == mask_load(m_refFinishedMask);
}

void CExanicTcpFunc::ResetSession(TcpSession& s) {
    s.frag_flag = 0;
    s.init = 0;
    s.frag_buf_offset = 0;
    free(s.frag_buf);
    s.frag_buf = nullptr;
    held_frames_free_all(Held(s));
    s.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
}

void CExanicTcpFunc::_Cleandata() {
    memset(static_cast<void*>(m_pShareMem), 0, sizeof(share));
    for (TcpSession& s : m_sessions) {
        ResetSession(s);
    }
    mask_store(m_refFinishedMask, 0);
    memset(inter_infos, 0, sizeof(inter_infos));
    memset(static_cast<void*>(&m_refCalcInfo), 0, sizeof(PriceCalcInfo));
    shfe_cnt_80_flag = false;
    ine_cnt_80_flag = false;
    shfe_cnt_flag = false;
    ine_cnt_flag = false;
}

bool CExanicTcpFunc::_ChecksumOk(const char* ip, int hl, int seglen) {
    return tcp_segment_checksum(ip, ip + hl, static_cast<size_t>(seglen)) == ntohs(Load16(ip + hl + 16));
}

void CExanicTcpFunc::_InitTcpSession(TcpSession& s, uint32_t srcHost, uint32_t dstHost, uint16_t srcPort,
                                     uint16_t port) {
    if (s.frag_buf == nullptr) {
        s.frag_buf = static_cast<char*>(malloc(kFragBufSize));
        if (s.frag_buf == nullptr) {
            QUVO_LOG(LOG_ERROR, "failed to allocate memcory for fragment memory.");
            exit(-1);
        }
    }
    memset(s.frag_buf, 0, kFragBufSize);
    s.lost_buf_size = 0;
    s.frag_buf_offset = 0;
    s.dst_host = dstHost;
    s.src_host = srcHost;
    s.dst_port = port;
    s.src_port = srcPort;
}

bool CExanicTcpFunc::_StartSession(TcpSession& s, const char* data, int32_t payload, uint32_t seq,
                                   uint16_t port) {
    s.current_seq = seq;
    s.next_expt_seq = seq + static_cast<uint32_t>(payload);
    // The walk runs over the whole payload, past the first message if need be.
    const int32_t limit = payload / 4 + 1;
    int32_t iter = 0;
    for (int32_t pos = static_cast<int32_t>(sizeof(MdqpHeader)); pos < payload;) {
        FieldHeader field;
        memcpy(&field, data + pos, sizeof(field));
        ++iter;
        if (iter > limit || field.field_size == 0) {
            QUVO_LOG_AS(kPacketHandler, LOG_WARNING,
                        "invalid field data, break field iteration, iter=%d payloadSize=%d", iter, payload);
            s.init = 0;
            s.em_dqp_data_type = MDQP_DATA_TYPE_UNKNOW;
            return false;
        }
        if (field.field_id == MDQP_FID_SNAP && field.field_size == sizeof(SnapField)) {
            SnapField snap;
            memcpy(&snap, data + pos + sizeof(field), sizeof(snap));
            QUVO_LOG_AS(kPacketHandler, LOG_DEBUG_EX, "topic ID: %d, snap No: %d, TCP dst port: %d",
                        snap.topic_id, snap.snap_no, port);
            const uint8_t enabled = mask_load(m_refEnabledMask);
            const uint8_t finished = mask_load(m_refFinishedMask);
            const auto open = [&](uint8_t bit) { return (enabled & bit) != 0 && (finished & bit) == 0; };
            const ExanicMdConfigData& cfg = m_refConfigData;
            EMdqpDataType type = MDQP_DATA_TYPE_UNKNOW;
            if (snap.topic_id == cfg.ine2ps_topic_id && open(ENABLE_INE2PS)) {
                type = INE_2PS;
            } else if (snap.topic_id == cfg.shfe2ps_topic_id && open(ENABLE_SHFE2PS)) {
                type = SHFE_2PS;
            } else if (snap.topic_id == cfg.shfe4ps_topic_id && open(ENABLE_SHFE4PS)) {
                type = SHFE_4PS;
            } else if (snap.topic_id == cfg.ine4ps_topic_id && open(ENABLE_INE4PS)) {
                type = INE_4PS;
            }
            s.em_dqp_data_type = type;
            s.init = type == MDQP_DATA_TYPE_UNKNOW ? 0 : 1;
            return s.init == 1;
        }
        pos += field.field_size + static_cast<int32_t>(sizeof(field));
    }
    return false;
}

bool CExanicTcpFunc::_CutMessages(TcpSession& s, const char* data, int32_t n, uint16_t port) {
    MdqpHeader header = WireLoad<MdqpHeader>(data);
    if (!IsMdqpHeader(header)) {
        return false;
    }
    int32_t size = header.length + static_cast<int32_t>(sizeof(MdqpHeader));
    int32_t pos = 0;
    while (size <= n - pos) {
        _ParseMdqp(reinterpret_cast<MdqpHeader*>(const_cast<char*>(data + pos)), port);
        pos += size;
        const int32_t rest = n - pos;
        if (rest == 0) {
            s.frag_flag = 0;
            s.frag_buf_offset = 0;
            return true;
        }
        if (rest < static_cast<int32_t>(sizeof(MdqpHeader))) {
            break;
        }
        header = WireLoad<MdqpHeader>(data + pos);
        size = header.length + static_cast<int32_t>(sizeof(MdqpHeader));
    }
    // A trailing part of a message waits in the fragment buffer.
    memmove(s.frag_buf, data + pos, static_cast<size_t>(n - pos));
    s.frag_buf_offset = n - pos;
    s.frag_flag = 1;
    return true;
}

bool CExanicTcpFunc::_AppendFragment(TcpSession& s, const char* data, int32_t n, uint16_t port,
                                     bool logNotMdqp) {
    if (s.frag_buf_offset + n > kFragLimit) {
        QUVO_LOG_AS(kPacketHandler, LOG_WARNING, "ignore tcp message!");
        health_add(health().snapshot.cleared[QUVO_CLEAN_FRAGMENT]);
        _Cleandata();
        return false;
    }
    memcpy(s.frag_buf + s.frag_buf_offset, data, static_cast<size_t>(n));
    s.frag_buf_offset += n;
    if (!_CutMessages(s, s.frag_buf, s.frag_buf_offset, port)) {
        if (logNotMdqp) {
            QUVO_LOG_AS(kPacketHandler, LOG_ERROR, "not a mdqp header, check program logic");
        }
        health_add(health().tcp.not_mdqp);
        return false;
    }
    return true;
}

void CExanicTcpFunc::_HoldFrame(TcpSession& s, const char* frame, unsigned int len, uint32_t seq) {
    if (s.lost_flag == 1 && s.lost_buf_size >= kMaxHeldFrames) {
        QUVO_LOG_AS(kPacketHandler, LOG_ERROR, "break tcp seq detected. expt: %u, got: %u", s.next_expt_seq,
                    seq);
        health_add(health().snapshot.cleared[QUVO_CLEAN_HELD]);
        _Cleandata();
        return;
    }
    TcpLostBuf* node = held_frame_new(frame, len);
    if (node == nullptr) {
        QUVO_LOG_AS(kPacketHandler, LOG_ERROR, "failed to malloc buffer to store tcp lost frame");
        return;
    }
    quvo_health_tcp& figures = health().tcp;
    switch (held_frames_insert(Held(s), node, seq)) {
        case HELD_INSERTED:
            health_add(figures.held);
            health_raise(figures.held_peak, s.lost_buf_size);
            break;
        case HELD_DUPLICATE:
            health_add(figures.duplicates);
            break;
        case HELD_FULL:
            break;
    }
}

void CExanicTcpFunc::_DrainHeld(TcpSession& s, uint16_t port) {
    while (s.lost_flag == 1 && s.lost_buf_head != nullptr) {
        TcpLostBuf* node = s.lost_buf_head;
        const uint32_t seq = held_frame_seq(node);
        if (seq > s.next_expt_seq) {
            return;
        }
        if (seq == s.next_expt_seq) {
            const char* ip = node->buf + kEthernetHeader;
            const int hl = (static_cast<uint8_t>(ip[0]) & 0x0F) * 4;
            const int th = (static_cast<uint8_t>(ip[hl + 12]) >> 4) * 4;
            const int32_t payload = ntohs(Load16(ip + 2)) - hl - th;
            const char* data = ip + hl + th;
            s.next_expt_seq += static_cast<uint32_t>(payload);
            if (s.frag_flag == 1) {
                if (!_AppendFragment(s, data, payload, port, true)) {
                    return;
                }
            } else if (!_CutMessages(s, data, payload, port)) {
                QUVO_LOG_AS(kPacketHandler, LOG_ERROR, "not a mdqp header, check program logic");
                health_add(health().tcp.not_mdqp);
                return;
            }
        }
        held_frames_release_head(Held(s));
    }
}

void CExanicTcpFunc::_PacketHandler(char* frame, unsigned int len) {
    quvo_health& figures = health();
    health_add(figures.tcp.frames);
    if (len < 34) {
        QUVO_LOG(LOG_DEBUG_EX, "packet too short for IP, packetLen=%u", len);
        health_add(figures.tcp.short_ip);
        return;
    }
    const char* ip = frame + kEthernetHeader;
    const int hl = (static_cast<uint8_t>(ip[0]) & 0x0F) * 4;
    if (hl < 20 || hl > 60 || len < static_cast<unsigned int>(hl) + kEthernetHeader) {
        QUVO_LOG(LOG_DEBUG_EX, "invalid IP header, ip_hdr_len=%d packetLen=%u", hl, len);
        health_add(figures.tcp.bad_ip_header);
        return;
    }
    const int protocol = static_cast<uint8_t>(ip[9]);
    if (protocol != 6) {
        if (protocol != 1 && protocol != 2 && protocol != 17) {
            QUVO_LOG(LOG_DEBUG_EX, "ip_p [%d]", protocol);
        }
        health_add(figures.tcp.not_tcp);
        return;
    }
    if (len < static_cast<unsigned int>(hl) + 34) {
        QUVO_LOG(LOG_DEBUG_EX, "packet too short for TCP header");
        health_add(figures.tcp.short_tcp);
        return;
    }
    const char* tcp = ip + hl;
    const uint16_t port = ntohs(Load16(tcp + 2));
    if (port != m_refConfigData.md2ps_snap_port && port != m_refConfigData.md4ps_snap_port) {
        health_add(figures.tcp.other_port);
        return;
    }
    const int th = (static_cast<uint8_t>(tcp[12]) >> 4) * 4;
    if (th < 20 || th > 60 || len < static_cast<unsigned int>(hl + th) + kEthernetHeader) {
        QUVO_LOG(LOG_DEBUG_EX, "invalid TCP header or truncated packet");
        health_add(figures.tcp.bad_tcp_header);
        return;
    }
    const int ipLen = ntohs(Load16(ip + 2));
    const int seglen = ipLen - hl;
    const int avail = static_cast<int>(len) - hl - th - static_cast<int>(kEthernetHeader);
    if (avail < 0) {
        health_add(figures.tcp.no_payload);
        return;
    }
    // Ethernet padding past the IP total length is never data.
    const int32_t payload = avail < seglen - th ? avail : seglen - th;
    if (payload <= 0) {
        QUVO_LOG(LOG_DEBUG_EX, "payloadSize<=0, max_payload=%d", avail);
        health_add(figures.tcp.no_payload);
        return;
    }
    if (ipLen < hl + 20 || seglen < 20 ||
        static_cast<int>(len) - hl - static_cast<int>(kEthernetHeader) < seglen || seglen > 2036 ||
        !_ChecksumOk(ip, hl, seglen)) {
        QUVO_LOG(LOG_DEBUG, "tcp checksum is not correct");
        health_add(figures.tcp.checksum);
        return;
    }
    if ((static_cast<uint8_t>(tcp[13]) & (kTcpFlagRst | kTcpFlagAck)) == (kTcpFlagRst | kTcpFlagAck)) {
        // A reset connection starts the whole snapshot over.
        health_add(figures.tcp.rst_ack);
        health_add(figures.snapshot.cleared[QUVO_CLEAN_RST_ACK]);
        _Cleandata();
        return;
    }

    TcpSession& s = m_sessions[port];
    const char* data = tcp + th;
    const uint32_t seq = ntohl(Load32(tcp + 4));
    const uint32_t srcHost = Load32(ip + 12);
    const uint32_t dstHost = Load32(ip + 16);

    if (s.init == 0) {
        _InitTcpSession(s, srcHost, dstHost, ntohs(Load16(tcp)), port);
        const MdqpHeader header = WireLoad<MdqpHeader>(data);
        if (payload >= 45 && header.flag == kMdqpFlagMore && header.type_id == kMdqpSnapshotType) {
            if (!_StartSession(s, data, payload, seq, port)) {
                health_add(figures.tcp.not_start);
                return;
            }
            quvo_health_feed& feed = figures.snapshot.feeds[s.em_dqp_data_type];
            health_set(feed.started_ns, health_wall_ns());
            health_set(feed.completed_ns, 0);
            health_set(feed.instruments, 0);
            health_set(feed.messages, 0);
            health_set(feed.bytes, 0);
            // A start segment whose first message is incomplete ends here.
            const int32_t first = header.length + static_cast<int32_t>(sizeof(MdqpHeader));
            _CutMessages(s, data, payload, port);
            if (first > payload) {
                return;
            }
        } else {
            health_add(figures.tcp.not_start);
        }
    } else if (dstHost == s.dst_host && srcHost == s.src_host) {
        const int64_t gap = static_cast<int64_t>(s.next_expt_seq) - static_cast<int64_t>(seq);
        if (gap == 0) {
            health_add(figures.tcp.in_order);
            s.next_expt_seq = seq + static_cast<uint32_t>(payload);
            if (s.frag_flag == 1) {
                if (!_AppendFragment(s, data, payload, port, false)) {
                    return;
                }
            } else if (!_CutMessages(s, data, payload, port)) {
                health_add(figures.tcp.not_mdqp);
                return;
            }
            _DrainHeld(s, port);
        } else if (gap < 0) {
            _HoldFrame(s, frame, len, seq);
        } else {
            health_add(figures.tcp.old);  // old or repeated data
        }
    } else {
        health_add(figures.tcp.other_host);
    }

    if (_AllFinished() && ShfePriceCheck() != 0) {
        QUVO_LOG(LOG_WARNING, "price check is error");
        health_add(figures.snapshot.price_check_failures);
        health_add(figures.snapshot.cleared[QUVO_CLEAN_PRICE_CHECK]);
        _Cleandata();
    }
}
