// Writes a simulated trading session as two captures the software card can
// replay (raw snapshot frames and decoded records) and the books a correct
// feed holds at the end of it.
#include <getopt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "sim/ExchangeModel.h"
#include "sim/PcapWriter.h"

namespace {

// 2026-11-20 00:00:00 +08:00, the trading day of every capture.
constexpr int64_t kDayStartNs = 1763568000LL * 1000000000;
// Decoded records are not Ethernet frames: a user link type.
constexpr int kDecodedLinkType = 147;
// After a lost record the feed restarts; the exchange's next snapshot comes
// this much later, by when the feed is waiting for it.
constexpr int64_t kResnapshotDelayNs = 50 * 1000000;
constexpr int64_t kFrameSpacingNs = 1000;

void Usage(FILE* out, const char* program) {
    fprintf(out,
            "Usage: %s --raw FILE --decoded FILE --expect FILE [--records N] [--warmup N] [--KEY=VALUE ...]\n"
            "\n"
            "Simulates SHFE and INE for one session and writes:\n"
            "  --raw FILE      pcap (Ethernet) of the snapshot TCP frames the card passes on port 1\n"
            "  --decoded FILE  pcap (link type 147) of the decoded records the card passes on port 0\n"
            "  --expect FILE   JSON of the books a correct feed holds after both are replayed\n"
            "Capture times interleave the two files as they would be captured. Replay them with\n"
            "  device = replay:raw=FILE,decoded=FILE,exit=1\n"
            "\n"
            "  --records N     decoded records after the snapshot (default 100000)\n"
            "  --warmup N      decoded records before the snapshot, which the feed finds already in\n"
            "                  the snapshot (default 1000)\n"
            "  --quiet         no progress lines\n"
            "  --help          this text\n"
            "\n"
            "Market and faults (--KEY=VALUE):\n%s"
            "\n"
            "A gap fault makes the feed restart and wait for the exchange's next snapshot, which the raw\n"
            "capture carries 50 ms (capture time) after the gap; replay such captures with speed=1 or\n"
            "another pace, since at full speed the snapshot may arrive before the feed asks for it.\n",
            program, sim_options_help(false).c_str());
}

bool ParseCount(const char* text, uint64_t& out) {
    char* end = nullptr;
    const unsigned long long value = strtoull(text, &end, 10);
    if (*text == '\0' || *text == '-' || *end != '\0') {
        return false;
    }
    out = value;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string rawPath, decodedPath, expectPath;
    uint64_t records = 100000, warmup = 1000;
    bool quiet = false;
    SimOptions options;
    options.rate = 20000;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            Usage(stdout, argv[0]);
            return 0;
        }
        if (arg == "--quiet") {
            quiet = true;
            continue;
        }
        if (arg.rfind("--", 0) != 0) {
            fprintf(stderr, "%s: unexpected argument '%s'\n", argv[0], arg.c_str());
            Usage(stderr, argv[0]);
            return 2;
        }
        std::string key = arg.substr(2), value;
        const size_t equals = key.find('=');
        if (equals != std::string::npos) {
            value = key.substr(equals + 1);
            key.resize(equals);
        } else if (i + 1 < argc) {
            value = argv[++i];
        } else {
            fprintf(stderr, "%s: option --%s needs a value\n", argv[0], key.c_str());
            return 2;
        }
        if (key == "raw") {
            rawPath = value;
        } else if (key == "decoded") {
            decodedPath = value;
        } else if (key == "expect") {
            expectPath = value;
        } else if (key == "records" || key == "warmup") {
            if (!ParseCount(value.c_str(), key == "records" ? records : warmup)) {
                fprintf(stderr, "%s: --%s needs a count, not '%s'\n", argv[0], key.c_str(), value.c_str());
                return 2;
            }
        } else {
            std::string error;
            if (!sim_set_option(options, key, value, false, error)) {
                fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
                return 2;
            }
        }
    }
    if (rawPath.empty() || decodedPath.empty() || expectPath.empty()) {
        fprintf(stderr, "%s: --raw, --decoded and --expect are all needed\n", argv[0]);
        Usage(stderr, argv[0]);
        return 2;
    }
    if (options.shfe == 0 && options.ine == 0) {
        fprintf(stderr, "%s: no instruments: --shfe and --ine are both 0\n", argv[0]);
        return 2;
    }
    options.records = warmup + records;

    const auto started = std::chrono::steady_clock::now();
    try {
        CExchangeModel model(options);
        CPcapWriter raw(rawPath, 1, true);
        CPcapWriter decoded(decodedPath, kDecodedLinkType, true);
        uint64_t rawFrames = 0, decodedFrames = 0, snapshots = 0;
        SimFrames frames;
        const auto snapshot = [&](int64_t atNs) {
            frames.Clear();
            model.BuildSnapshotFrames(3, frames);
            size_t offset = 0;
            for (size_t i = 0; i < frames.Count(); ++i) {
                raw.Write(frames.bytes.data() + offset, frames.lengths[i],
                          kDayStartNs + atNs + static_cast<int64_t>(i) * kFrameSpacingNs);
                offset += frames.lengths[i];
            }
            rawFrames += frames.Count();
            ++snapshots;
        };
        int64_t resnapshotAt = -1;
        uint64_t step = 0, lastReport = 0;
        const uint64_t total = options.records;
        while (true) {
            if (step == warmup) {
                snapshot(model.GetTimeNs() + 1);
            }
            if (resnapshotAt >= 0 && model.GetTimeNs() >= resnapshotAt) {
                snapshot(model.GetTimeNs() + 1);
                resnapshotAt = -1;
            }
            frames.Clear();
            if (!model.Step(3, frames)) {
                break;
            }
            ++step;
            if (model.LastStepLost() && step > warmup && resnapshotAt < 0) {
                resnapshotAt = model.GetTimeNs() + kResnapshotDelayNs;
            }
            size_t offset = 0;
            for (size_t i = 0; i < frames.Count(); ++i) {
                // Frames over the card's limit are recorded at their full length.
                decoded.Write(frames.bytes.data() + offset, frames.lengths[i],
                              kDayStartNs + model.GetTimeNs());
                offset += frames.lengths[i];
            }
            decodedFrames += frames.Count();
            if (!quiet && total >= 100000 && step - lastReport >= total / 10) {
                lastReport = step;
                fprintf(stderr, "quvo-sim: %llu of %llu records\n", static_cast<unsigned long long>(step),
                        static_cast<unsigned long long>(total));
            }
        }
        if (step <= warmup) {
            snapshot(model.GetTimeNs() + 1);
        }
        if (resnapshotAt >= 0) {
            snapshot(resnapshotAt);
        }
        raw.Close();
        decoded.Close();
        std::string error;
        if (!write_sim_state(expectPath, model.GetState(), error)) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            return 1;
        }
        if (!quiet) {
            const double seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
            fprintf(
                stderr,
                "quvo-sim: %llu records (%llu before the snapshot) in %llu decoded frames, %llu snapshot(s) "
                "in %llu raw frames, %d SHFE and %d INE instruments, seed %llu; %.2f s\n",
                static_cast<unsigned long long>(step), static_cast<unsigned long long>(warmup),
                static_cast<unsigned long long>(decodedFrames), static_cast<unsigned long long>(snapshots),
                static_cast<unsigned long long>(rawFrames), options.shfe, options.ine,
                static_cast<unsigned long long>(options.seed), seconds);
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: %s\n", argv[0], e.what());
        return 1;
    }
    return 0;
}
