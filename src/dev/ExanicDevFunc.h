// Card bring-up: CPU pinning, the device handle, the register window, the two
// receive buffers, and the FPGA register programming.
#pragma once

#include <cstdint>
#include <string>

#include "interface/commonheader.h"
#include "src/config/ConfigParse.h"
#include "src/dev/Card.h"
#include "src/dev/Registers.h"

// One byte of feed bits. The driver owns two: the enabled mask (written by
// _InitReg) and the finished mask (written by the snapshot decoder).
union UEnableMask {
    uint8_t mask;
    struct {
        uint8_t shfe2ps : 1;
        uint8_t shfe4ps : 1;
        uint8_t ine2ps : 1;
        uint8_t ine4ps : 1;
        uint8_t reserved : 4;
    };
};
static_assert(sizeof(UEnableMask) == 1, "UEnableMask is one byte");

enum EEnableBit : uint8_t {
    ENABLE_SHFE2PS = 1u << 0,
    ENABLE_SHFE4PS = 1u << 1,
    ENABLE_INE2PS = 1u << 2,
    ENABLE_INE4PS = 1u << 3,
};

// The masks are shared between the driver and the snapshot thread: whole-byte
// relaxed atomic accesses, plain loads and stores in the machine code.
inline uint8_t mask_load(const UEnableMask& m) {
    return __atomic_load_n(&m.mask, __ATOMIC_RELAXED);
}
inline void mask_store(UEnableMask& m, uint8_t value) {
    __atomic_store_n(&m.mask, value, __ATOMIC_RELAXED);
}
inline void mask_set(UEnableMask& m, uint8_t bits) {
    mask_store(m, static_cast<uint8_t>(mask_load(m) | bits));
}

// Per-slot price conversion, filled by the snapshot decoder and read for every
// decoded record: price = ticks * priceTick + codecPrice; an amount is
// (volume * codecPrice + ticks * priceTick) * volumeMulti.
struct PriceCalcInfo {
    double priceTick[QUVO_INST_SLOTS];
    double codecPrice[QUVO_INST_SLOTS];
    int volumeMulti[QUVO_INST_SLOTS];
};

class CExanicDevFunc {
public:
    CExanicDevFunc(const ExanicMdConfigData& configData, UEnableMask& enabledMask)
        : m_refConfigData(configData),
          m_pNicHandler(nullptr),
          m_pRegisters(nullptr),
          m_pTcpRxBuffer(nullptr),
          m_pUdpRxBuffer(nullptr),
          m_refEnabledMask(enabledMask) {}

    // Pins the calling thread, acquires the card named by `device`, its
    // register window and the rx buffers of port 1 (raw frames) and port 0
    // (decoded records), then programs the registers. 0, or -1 after logging
    // which step failed; nothing acquired is released on failure.
    int InitDev();
    // Releases the decoded buffer, the raw buffer, then the handle; skips
    // whatever was not acquired.
    void ReleaseDev();

    volatile uint32_t* GetRegisters() const { return m_pRegisters; }
    CardRx* GetTcpRxBuffer() const { return m_pTcpRxBuffer; }
    CardRx* GetUdpRxBuffer() const { return m_pUdpRxBuffer; }
    CardHandle* GetHandle() const { return m_pNicHandler; }

    // Feeds to the host: raw frames (512), decoded records (513), and the
    // exchanges' feeds (514 INE, 515 SHFE). Each is one 32-bit store.
    void StartOrigData() { reg_write(m_pRegisters, REG_ORIG_DATA, 1); }
    void StopOrigData() { reg_write(m_pRegisters, REG_ORIG_DATA, 0); }
    void StartDecodeData() { reg_write(m_pRegisters, REG_DECODE_DATA, 1); }
    void StopDecodeData() { reg_write(m_pRegisters, REG_DECODE_DATA, 0); }
    void StartAllIne() { reg_write(m_pRegisters, REG_ALL_INE, 1); }
    void StopAllIne() { reg_write(m_pRegisters, REG_ALL_INE, 0); }
    void StartAllShfe() { reg_write(m_pRegisters, REG_ALL_SHFE, 1); }
    void StopAllShfe() { reg_write(m_pRegisters, REG_ALL_SHFE, 0); }

private:
    friend class CExanicDevFuncTestAccess;

    int _BindCpu();
    void _InitReg();
    void _SetIpAndPort(unsigned int addrRegister, unsigned int portRegister, std::string address);

    const ExanicMdConfigData& m_refConfigData;
    CardHandle* m_pNicHandler;
    volatile uint32_t* m_pRegisters;
    CardRx* m_pTcpRxBuffer;
    CardRx* m_pUdpRxBuffer;
    UEnableMask& m_refEnabledMask;
};
