// A software card replaying frames on one port, with that port's stream
// switched on: port 1 carries raw frames, port 0 decoded records.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/PcapWriter.h"
#include "src/dev/Card.h"

class CReplayCard {
public:
    // `options` is appended to the device string (",speed=1").
    CReplayCard(const std::string& dir, int port, const std::vector<std::vector<char>>& frames,
                const std::string& options = "") {
        const std::string path = dir + (port == 1 ? "/raw.pcap" : "/decoded.pcap");
        write_pcap(path, frames);
        const std::string device = (port == 1 ? "replay:raw=" : "replay:decoded=") + path + options;
        m_handle = card_acquire_handle(device.c_str());
        EXPECT_NE(m_handle, nullptr) << card_get_last_error();
        if (m_handle != nullptr) {
            reg_write(card_get_devkit_registers(m_handle), port == 1 ? REG_ORIG_DATA : REG_DECODE_DATA, 1);
            m_rx = card_acquire_rx_buffer(m_handle, port, 0);
        }
    }
    ~CReplayCard() {
        if (m_rx != nullptr) {
            card_release_rx_buffer(m_rx);
        }
        if (m_handle != nullptr) {
            card_release_handle(m_handle);
        }
    }
    CReplayCard(const CReplayCard&) = delete;
    CReplayCard& operator=(const CReplayCard&) = delete;

    CardRx* Rx() const { return m_rx; }
    CSoftCard* Card() const { return card_get_soft_card(m_handle); }

private:
    CardHandle* m_handle = nullptr;
    CardRx* m_rx = nullptr;
};
