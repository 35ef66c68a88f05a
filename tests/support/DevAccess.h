// Reaches CExanicDevFunc's private steps, which the tests check one by one.
#pragma once

#include <string>

#include "src/dev/ExanicDevFunc.h"

class CExanicDevFuncTestAccess {
public:
    static int BindCpu(CExanicDevFunc& dev) { return dev._BindCpu(); }
    static void InitReg(CExanicDevFunc& dev, volatile uint32_t* window) {
        dev.m_pRegisters = window;
        dev._InitReg();
    }
    static void SetIpAndPort(CExanicDevFunc& dev, volatile uint32_t* window, unsigned int a, unsigned int p,
                             const std::string& text) {
        dev.m_pRegisters = window;
        dev._SetIpAndPort(a, p, text);
    }
};
