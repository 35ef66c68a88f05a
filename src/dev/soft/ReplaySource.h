// The replay source of the software card: "replay:raw=FILE,decoded=FILE[,speed=X][,exit=S][,hold=1]".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "src/dev/soft/ReplayClock.h"
#include "src/dev/soft/SoftCard.h"

struct ReplayOptions {
    std::string raw;      // pcap of Ethernet frames, delivered on port 1
    std::string decoded;  // pcap of decoded records, delivered on port 0
    double speed = 0;
    double exitSeconds = -1;  // negative: never raise SIGINT
    bool hold = false;        // decoded frames wait until the raw stream has been on and off
};

// Parses the text after "replay:". Returns false with `error` saying which
// key or value is wrong.
bool parse_replay_options(const std::string& text, ReplayOptions& options, std::string& error);

// Reads every packet of a pcap file (microsecond or nanosecond) into `bytes`
// and `records`. With `requireEthernet` the file's link type must be Ethernet.
// Returns false with `error` naming the file and libpcap's reason.
bool load_pcap(const std::string& path, bool requireEthernet, CFrameBytes& bytes,
               std::vector<SoftFrame>& frames, std::string& error);

// Both captures, read into memory when the card is opened, so the receive
// path does no I/O; one clock paces the two.
class CReplaySource final : public CSoftSource {
public:
    // Null with `error` set when the options or a file are unusable.
    static std::unique_ptr<CReplaySource> Open(const std::string& options, volatile uint32_t* registers,
                                               std::string& error);

    ESoftNext Next(int port, SoftFrameRef& frame) override { return GetPort(port)->Next(frame); }
    bool IsPaced() const override { return m_clock.IsPaced(); }
    bool IsIdle() const override { return m_port0.IsIdle() && m_port1.IsIdle(); }
    double GetExitSeconds() const override { return m_options.exitSeconds; }

    CSoftPort* GetPort(int port) { return port == 0 ? &m_port0 : &m_port1; }

private:
    CReplaySource(const ReplayOptions& options, volatile uint32_t* registers);

    ReplayOptions m_options;
    CReplayClock m_clock;
    CSoftPort m_port0;
    CSoftPort m_port1;
};
