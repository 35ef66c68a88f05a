// The snapshot path: raw TCP frames of the MDQP snapshot streams, reassembled
// per destination port, decoded into the instrument table, then checked.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "interface/commonheader.h"
#include "src/config/ConfigParse.h"
#include "src/dev/Card.h"
#include "src/dev/ExanicDevFunc.h"
#include "src/tcp/HeldFrames.h"
#include "src/tcp/MdqpRecord.h"
#include "src/tcp/thread/Thread.h"

// The day's price limits of one slot.
struct inter_info {
    double upper_limit_price;
    double lower_limit_price;
};

// Reassembly state of one TCP destination port.
struct TcpSession {
    uint32_t src_host;
    uint32_t dst_host;
    uint16_t src_port;
    uint16_t dst_port;
    TcpLostBuf* lost_buf_head;
    char* frag_buf;
    uint32_t lost_buf_size;
    int32_t frag_buf_offset;
    uint32_t next_expt_seq;
    uint32_t current_seq;
    uint8_t frag_flag;
    uint8_t lost_flag;
    uint8_t init;
    uint8_t reserved;
    EMdqpDataType em_dqp_data_type;
};

class CExanicTcpFunc {
public:
    static constexpr uint32_t kFragBufSize = 100000;
    static constexpr int32_t kFragLimit = 65535;
    static constexpr uint32_t kMaxHeldFrames = kHeldFramesLimit;
    static constexpr int kRoundSeconds = 120;

    // Seconds of the realtime clock; tests inject their own.
    using ClockFunc = int64_t (*)();
    static int64_t RealtimeSeconds();

    CExanicTcpFunc(const ExanicMdConfigData& configData, share* shareMem, UEnableMask& enabledMask,
                   UEnableMask& finishedMask, PriceCalcInfo& calcInfo, ClockFunc clock = RealtimeSeconds);
    ~CExanicTcpFunc();
    CExanicTcpFunc(const CExanicTcpFunc&) = delete;
    CExanicTcpFunc& operator=(const CExanicTcpFunc&) = delete;

    // Stores the register window and the raw-frame rx buffer; returns 0.
    int InitTcp(volatile uint32_t* registers, CardRx* rxBuffer);
    void StartRunning();
    void StopRunning();
    int GetInitialized() const { return m_initialized.load(); }

    // Runs the snapshot phase until every enabled feed is finished (1), the
    // rounds run out (-1), or the running flag is cleared (stays 0).
    void RunTcpDecoder();
    // One poll of the rx buffer: a usable frame is copied and queued on `worker`.
    void TcpRecv(CThread& worker);

    // Checks every instrument's five-level books against their limits: 0, or
    // the first failing instrument's code (-1 bounds, -2 order, -3 mismatch).
    int ShfePriceCheck();
    int ShfeInstPriceCheck(instrument instmts, inter_info interInfo);
    int CheckPrice(const std::vector<double>& _price, const std::vector<int>& _vol, double& upper_limit_price,
                   double& lower_limit_price, bool isSpread);

    // Drops a session's fragment buffer and held frames.
    void ResetSession(TcpSession& s);

    const TcpSession& GetSession(uint16_t port) const { return m_sessions[port]; }
    const inter_info& GetInterInfo(uint32_t slot) const { return inter_infos[slot]; }

private:
    friend class CExanicTcpFuncTestAccess;

    void _PacketHandler(char* frame, unsigned int len);
    void _Cleandata();
    int _ParseMdqp(MdqpHeader* msg, unsigned short port);
    bool _ProtectInstNo(const EMdqpDataType& type, int& inst_no);
    bool _IsSubscribed(int slot);

    void _InitTcpSession(TcpSession& s, uint32_t srcHost, uint32_t dstHost, uint16_t srcPort, uint16_t port);
    bool _StartSession(TcpSession& s, const char* data, int32_t payload, uint32_t seq, uint16_t port);
    // Delivers the whole messages of `data`, keeping a trailing part in the
    // fragment buffer. False when `data` does not start with a message header.
    bool _CutMessages(TcpSession& s, const char* data, int32_t n, uint16_t port);
    // Appends to a pending fragment. False when the snapshot was started over.
    bool _AppendFragment(TcpSession& s, const char* data, int32_t n, uint16_t port, bool logNotMdqp);
    void _HoldFrame(TcpSession& s, const char* frame, unsigned int len, uint32_t seq);
    void _DrainHeld(TcpSession& s, uint16_t port);
    bool _ChecksumOk(const char* ip, int hl, int seglen);
    bool _AllFinished() const;

    const ExanicMdConfigData& m_refConfigData;
    volatile uint32_t* m_pRegisters;
    CardRx* m_pRxBuffer;
    share* m_pShareMem;
    UEnableMask& m_refEnabledMask;
    UEnableMask& m_refFinishedMask;
    PriceCalcInfo& m_refCalcInfo;
    ClockFunc m_clock;
    std::atomic<int> m_initialized;
    std::atomic<bool> m_runningFlag;
    bool shfe_cnt_80_flag;
    bool ine_cnt_80_flag;
    bool shfe_cnt_flag;
    bool ine_cnt_flag;
    char m_recvBuf[2048];
    TcpSession m_sessions[65536];
    inter_info inter_infos[QUVO_INST_SLOTS];
    // Reused by every instrument's check, so the walk over the table does
    // not allocate per instrument.
    std::vector<double> m_checkPrices;
    std::vector<int> m_checkVolumes;
};
