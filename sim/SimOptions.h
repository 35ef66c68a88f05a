// Settings of the exchange simulator, shared by the software card's
// "sim:key=value,..." device and quvo-sim's --key=value options.
#pragma once

#include <cstdint>
#include <string>

// Where the software card's simulator raises SIGINT in the feed (interrupt=).
enum ESimInterrupt : uint8_t {
    SIM_INTERRUPT_NONE,
    SIM_INTERRUPT_WRITE,           // the feed's Nth register write
    SIM_INTERRUPT_SNAPSHOT,        // the Nth snapshot taken, before any of its frames
    SIM_INTERRUPT_RAW,             // the Nth raw frame on port 1
    SIM_INTERRUPT_DECODED,         // the Nth decoded frame on port 0
    SIM_INTERRUPT_AFTER_SNAPSHOT,  // the Nth decoded frame since the raw stream was last switched off
};

struct SimOptions {
    int shfe = 200;  // instruments per exchange; 0 leaves the exchange out
    int ine = 50;
    uint64_t seed = 1;
    double rate = 2000;    // decoded records per second; 0: as fast as they are read
    uint64_t records = 0;  // stop after this many records; 0: never
    int16_t shfeTopic = 1000;
    int16_t ineTopic = 5000;
    uint16_t snapPort = 33022;

    // Fault rates, each a probability in [0, 1].
    // Per snapshot segment:
    double tcpReorder = 0;
    double tcpDuplicate = 0;
    double tcpLoss = 0;  // held back and retransmitted a few segments later
    double tcpBadChecksum = 0;
    double tcpPadding = 0;
    double tcpOther = 0;  // a frame of another port or protocol slipped in
    // Per snapshot: one RST+ACK part-way, then the snapshot again.
    double tcpReset = 0;
    // Per decoded record:
    double gap = 0;  // a record is lost; the feed sees a change-number gap
    double stale = 0;
    double crossed = 0;  // a crossing record the feed must undo, then the real one
    double unknownField = 0;
    double shortRecord = 0;
    double badLength = 0;  // a frame longer than the card hands over

    // Software card only.
    std::string expectPath;
    double exitSeconds = -1;
    double seconds = 0;   // stop making records this long after the first read; 0: never
    uint64_t warmup = 0;  // records sent between a snapshot request and the snapshot
    ESimInterrupt interruptAt = SIM_INTERRUPT_NONE;
    uint64_t interruptCount = 0;
};

// Applies one key=value setting. Returns false with `error` naming the key.
// `forDevice` allows the software-card-only keys (seconds, expect, exit,
// warmup, interrupt).
bool sim_set_option(SimOptions& options, const std::string& key, const std::string& value, bool forDevice,
                    std::string& error);

// The event's name in interrupt=EVENT:N ("write", ...; "none").
const char* sim_interrupt_name(ESimInterrupt at);

// Parses "key=value,key=value" (the text after "sim:").
bool sim_parse_device_options(const std::string& text, SimOptions& options, std::string& error);

// One line per key with its meaning and default, for --help and the docs.
std::string sim_options_help(bool forDevice);
