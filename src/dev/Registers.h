// The FPGA image's devkit register window: 32-bit registers addressed by
// index (byte offset = index * 4), host byte order.
#pragma once

#include <atomic>
#include <cstdint>

enum ERegister : uint32_t {
    REG_FPGA_VERSION = 1,
    REG_FPGA_DATE = 2,
    REG_RESET = 5,
    REG_HOST_TIMESTAMP = 12,
    REG_SHFE_A_ADDR = 16,
    REG_INE_A_ADDR = 17,
    REG_SHFE_A_PORT = 18,
    REG_INE_A_PORT = 19,
    REG_SHFE_B_ADDR = 20,
    REG_INE_B_ADDR = 21,
    REG_SHFE_B_PORT = 22,
    REG_INE_B_PORT = 23,
    REG_ORIG_DATA = 512,    // raw frame stream (port 1) on/off
    REG_DECODE_DATA = 513,  // decoded record stream (port 0) on/off
    REG_ALL_INE = 514,
    REG_ALL_SHFE = 515,
    REG_UNKNOWN_528 = 528,
    REG_SPLIT_ALL_FIELD = 1398,
    REG_SHFE_TABLE_ADDR = 1792,
    REG_SHFE_TABLE_DATA = 1793,
    REG_INE_TABLE_ADDR = 1796,
    REG_INE_TABLE_DATA = 1797,
};

// Sees every register access made through reg_read and reg_write while it is
// installed. The software card installs one to record what the feed wrote;
// nothing is installed in production, which costs one predictable branch.
class CRegisterTap {
public:
    virtual void OnRegisterRead(volatile uint32_t* window, uint32_t index, uint32_t value) = 0;
    virtual void OnRegisterWrite(volatile uint32_t* window, uint32_t index, uint32_t value) = 0;

protected:
    ~CRegisterTap() = default;
};

extern std::atomic<CRegisterTap*> g_registerTap;

// One 32-bit store, in program order. The software card reads the stream
// registers from another thread, so the access is atomic (a plain mov).
inline void reg_write(volatile uint32_t* window, uint32_t index, uint32_t value) {
    __atomic_store_n(&window[index], value, __ATOMIC_RELAXED);
    CRegisterTap* tap = g_registerTap.load(std::memory_order_relaxed);
    if (__builtin_expect(tap != nullptr, 0)) {
        tap->OnRegisterWrite(window, index, value);
    }
}

inline uint32_t reg_read(volatile uint32_t* window, uint32_t index) {
    const uint32_t value = __atomic_load_n(&window[index], __ATOMIC_RELAXED);
    CRegisterTap* tap = g_registerTap.load(std::memory_order_relaxed);
    if (__builtin_expect(tap != nullptr, 0)) {
        tap->OnRegisterRead(window, index, value);
    }
    return value;
}
