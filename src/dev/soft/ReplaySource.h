// The replay source of the software card: "replay:raw=FILE,decoded=FILE[,speed=X][,exit=S]".
#pragma once

#include <string>
#include <vector>

#include "src/dev/soft/SoftCard.h"

struct ReplayOptions {
    std::string raw;      // pcap of Ethernet frames, delivered on port 1
    std::string decoded;  // pcap of decoded records, delivered on port 0
    double speed = 0;
    double exitSeconds = -1;  // negative: never raise SIGINT
};

// Parses the text after "replay:". Returns false with `error` saying which
// key or value is wrong.
bool parse_replay_options(const std::string& text, ReplayOptions& options, std::string& error);

// Reads every packet of a pcap file (microsecond or nanosecond) into `bytes`
// and `frames`. With `requireEthernet` the file's link type must be Ethernet.
// Returns false with `error` naming the file and libpcap's reason.
bool load_pcap(const std::string& path, bool requireEthernet, std::vector<char>& bytes,
               std::vector<SoftFrame>& frames, std::string& error);
