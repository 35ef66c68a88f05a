#include "src/dev/ExanicDevFunc.h"

#include <arpa/inet.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cstdlib>

#include "public/log/CommonLog.h"

int CExanicDevFunc::InitDev() {
    _BindCpu();
    const char* device = m_refConfigData.device.c_str();

    m_pNicHandler = card_acquire_handle(device);
    if (m_pNicHandler == nullptr) {
        QUVO_LOG(LOG_ERROR, "get [%s] handle failed, %s", device, card_get_last_error());
        return -1;
    }
    m_pRegisters = card_get_devkit_registers(m_pNicHandler);
    if (m_pRegisters == nullptr) {
        QUVO_LOG(LOG_ERROR, "get [%s] registers failed, %s", device, card_get_last_error());
        return -1;
    }
    m_pTcpRxBuffer = card_acquire_rx_buffer(m_pNicHandler, 1, 0);
    if (m_pTcpRxBuffer == nullptr) {
        QUVO_LOG(LOG_ERROR, "get [%s] tcp rx buffer failed, %s", device, card_get_last_error());
        return -1;
    }
    m_pUdpRxBuffer = card_acquire_rx_buffer(m_pNicHandler, 0, 0);
    if (m_pUdpRxBuffer == nullptr) {
        QUVO_LOG(LOG_ERROR, "get [%s] udp rx buffer failed, %s", device, card_get_last_error());
        return -1;
    }
    _InitReg();
    return 0;
}

void CExanicDevFunc::ReleaseDev() {
    if (m_pUdpRxBuffer != nullptr) {
        card_release_rx_buffer(m_pUdpRxBuffer);
        m_pUdpRxBuffer = nullptr;
    }
    if (m_pTcpRxBuffer != nullptr) {
        card_release_rx_buffer(m_pTcpRxBuffer);
        m_pTcpRxBuffer = nullptr;
    }
    if (m_pNicHandler != nullptr) {
        card_release_handle(m_pNicHandler);
        m_pNicHandler = nullptr;
    }
}

int CExanicDevFunc::_BindCpu() {
    const int cpu = m_refConfigData.cpucore;
    // A value equal to the processor count passes here, deliberately; the
    // affinity call then refuses it.
    if (cpu < 0 || cpu > get_nprocs()) {
        QUVO_LOG(LOG_WARNING, "CPU[%d] exceed max procs", cpu);
        return -1;
    }
    cpu_set_t set;
    static_assert(sizeof(set) == 128, "a 1024-bit CPU set");
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(0, sizeof(set), &set) != 0) {
        QUVO_LOG(LOG_WARNING, "set CPU[%d] affinity failed", cpu);
        return -1;
    }
    QUVO_LOG(LOG_INFO, "set CPU[%d] affinity successful", cpu);
    return 0;
}

void CExanicDevFunc::_InitReg() {
    const uint32_t version = reg_read(m_pRegisters, REG_FPGA_VERSION);
    const uint32_t date = reg_read(m_pRegisters, REG_FPGA_DATE);
    QUVO_LOG(LOG_INFO, "FPGA version: %x, update data: %x", version, date);

    reg_write(m_pRegisters, REG_RESET, 1);
    reg_write(m_pRegisters, REG_RESET, 0);
    usleep(1);

    mask_store(m_refEnabledMask, 0);
    // Both kinds load the same registers; the 4ps feed wins, deliberately.
    if (m_refConfigData.shfe4ps) {
        _SetIpAndPort(REG_SHFE_A_ADDR, REG_SHFE_A_PORT, m_refConfigData.shfe4ps_ip_a);
        _SetIpAndPort(REG_SHFE_B_ADDR, REG_SHFE_B_PORT, m_refConfigData.shfe4ps_ip_b);
        mask_set(m_refEnabledMask, ENABLE_SHFE4PS);
    } else if (m_refConfigData.shfe2ps) {
        _SetIpAndPort(REG_SHFE_A_ADDR, REG_SHFE_A_PORT, m_refConfigData.shfe2ps_ip_a);
        _SetIpAndPort(REG_SHFE_B_ADDR, REG_SHFE_B_PORT, m_refConfigData.shfe2ps_ip_b);
        mask_set(m_refEnabledMask, ENABLE_SHFE2PS);
    }
    if (m_refConfigData.ine4ps) {
        _SetIpAndPort(REG_INE_A_ADDR, REG_INE_A_PORT, m_refConfigData.ine4ps_ip_a);
        _SetIpAndPort(REG_INE_B_ADDR, REG_INE_B_PORT, m_refConfigData.ine4ps_ip_b);
        mask_set(m_refEnabledMask, ENABLE_INE4PS);
    } else if (m_refConfigData.ine2ps) {
        _SetIpAndPort(REG_INE_A_ADDR, REG_INE_A_PORT, m_refConfigData.ine2ps_ip_a);
        _SetIpAndPort(REG_INE_B_ADDR, REG_INE_B_PORT, m_refConfigData.ine2ps_ip_b);
        mask_set(m_refEnabledMask, ENABLE_INE2PS);
    }

    reg_write(m_pRegisters, REG_ALL_INE, 0);
    reg_write(m_pRegisters, REG_ALL_SHFE, 0);
    reg_write(m_pRegisters, REG_UNKNOWN_528, 0);
    reg_write(m_pRegisters, REG_SPLIT_ALL_FIELD,
              static_cast<uint32_t>(static_cast<int32_t>(m_refConfigData.split_all_field)));

    for (uint32_t address = 0; address < 4096; ++address) {
        reg_write(m_pRegisters, REG_INE_TABLE_ADDR, address);
        reg_write(m_pRegisters, REG_INE_TABLE_DATA, 0);
    }
    for (uint32_t address = 0; address < 16384; ++address) {
        reg_write(m_pRegisters, REG_SHFE_TABLE_ADDR, address);
        reg_write(m_pRegisters, REG_SHFE_TABLE_DATA, 0);
    }
}

void CExanicDevFunc::_SetIpAndPort(unsigned int addrRegister, unsigned int portRegister,
                                   std::string address) {
    const size_t colon = address.find(':');
    if (colon == std::string::npos) {
        reg_write(m_pRegisters, addrRegister, 0);
        reg_write(m_pRegisters, portRegister, 0);
        return;
    }
    // No validation: a malformed address loads 0xFFFFFFFF, a malformed port
    // whatever strtol makes of it.
    const in_addr_t ip = inet_addr(address.substr(0, colon).c_str());
    reg_write(m_pRegisters, addrRegister, ntohl(ip));
    const long port = strtol(address.substr(colon + 1).c_str(), nullptr, 10);
    reg_write(m_pRegisters, portRegister, static_cast<uint32_t>(port));
}
