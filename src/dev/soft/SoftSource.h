// What stands behind a software card: something that produces the frames its
// two ports receive (a replay of captures, or an exchange simulator that
// registers itself). The card owns delivery; a source only says which frame
// arrives next.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

// A frame that has reached a port. The bytes belong to the source and stay
// valid until the source is asked for that port's next frame, or, from a
// paced source, for as long as the source lives.
struct SoftFrameRef {
    const char* data;
    uint32_t length;
    uint8_t status;      // hardware frame status (ERxFrameStatus), 0 for a good frame
    uint32_t timestamp;  // low 32 bits of the arrival time in ns
};

enum ESoftNext {
    SOFT_NEXT_NONE,     // nothing has arrived
    SOFT_NEXT_FRAME,    // `frame` has arrived
    SOFT_NEXT_DROPPED,  // a frame arrived while its stream was off: the card dropped it
};

class CSoftSource {
public:
    virtual ~CSoftSource() = default;

    // The next frame to reach `port` (0 decoded records, 1 raw frames). Only
    // the thread that polls the port calls this for it.
    virtual ESoftNext Next(int port, SoftFrameRef& frame) = 0;
    // Paced sources deliver frames at their own times, however fast the feed
    // reads, so a slow reader can be lapped; the others hand over one frame
    // at a time as the feed takes them.
    virtual bool IsPaced() const { return false; }
    // Nothing more will arrive on either port without outside action.
    virtual bool IsIdle() const = 0;
    // Each release of the card's handle.
    virtual void OnHandleReleased() {}
    // Seconds of quiet after which the card raises SIGINT once idle; negative: never.
    virtual double GetExitSeconds() const { return -1; }
};

// Builds a source from the text after "name:" (empty for a bare "name").
// Returns null with `error` set when the text is unusable.
using SoftSourceFactory = std::unique_ptr<CSoftSource> (*)(const std::string& options,
                                                           volatile uint32_t* registers, std::string& error);

// Makes `name` and `name:...` device strings software devices built by
// `factory`. Returns true, so it can initialise a static.
bool soft_card_register_source(const char* name, SoftSourceFactory factory);
// The factory for a device string, or null; `options` gets the text after "name:".
SoftSourceFactory soft_card_find_source(const std::string& device, std::string& options);
