// print_updates: prints every update of the instruments named on the command
// line, as quvo-md announces them in the update ring. A minimal reader:
//
//   QUVO_KEY_DIR=$PWD/run/keys build/release/examples/print_updates cu2501 sc2501
//
// One line per update: update time, identifier, change number, last price,
// volume, best bid and best ask (price x volume). Ctrl+C stops it.
// Identifiers not in use yet are waited for.
#include <signal.h>
#include <time.h>

#include <cstdio>
#include <string>
#include <vector>

#include "interface/quvoreader.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) {
    g_stop = 1;
}

void print_usage(FILE* out, const char* program) {
    fprintf(out,
            "Usage: %s ID [ID ...]\n"
            "Prints the book of each instrument named, then a line for every update of it\n"
            "that quvo-md announces in its update ring: update time, identifier, change\n"
            "number, last price, volume, best bid and best ask (price x volume). An\n"
            "identifier not in use yet is waited for, and printed once it comes into use.\n"
            "Ctrl+C stops it.\n"
            "\n"
            "  -h, --help  print this text and exit\n"
            "\n"
            "The shared memory is keyed by the files key_f and key_e in the directory named\n"
            "by QUVO_KEY_DIR, or in /etc when it is unset or empty.\n"
            "Exit status: 0 stopped by a signal; 2 bad arguments or no shared memory.\n",
            program);
}

void print_update(const instrument& inst) {
    const unsigned t = inst.update_time;
    printf("%02u:%02u:%02u.%03u %.16s change_no %u last %.10g volume %u bid %.10g x %d ask %.10g x %d\n",
           t / 10000, t / 100 % 100, t % 100, unsigned{inst.update_milli_sec},
           reinterpret_cast<const char*>(inst.inst_id), inst.change_no, inst.last_px, inst.volume,
           inst.bid_px[0], inst.bid_vol[0], inst.ask_px[0], inst.ask_vol[0]);
    fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        print_usage(stderr, argv[0]);
        return 2;
    }
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            print_usage(stdout, argv[0]);
            return 0;
        }
        // No identifier starts with a dash: this is a mistyped option.
        if (arg[0] == '-') {
            fprintf(stderr, "print_updates: unknown option %s\n", argv[i]);
            print_usage(stderr, argv[0]);
            return 2;
        }
    }
    CQuvoReader reader;
    std::string error;
    if (!reader.Attach(error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    signal(SIGINT, on_signal);
    signal(SIGTERM, on_signal);

    // Start following before the first copies, so no update falls in between.
    CRingFollower follower(reader.Ring());
    std::vector<bool> wanted(QUVO_INST_SLOTS, false);
    std::vector<std::string> waiting;
    std::vector<int> found;
    for (int i = 1; i < argc; ++i) {
        const int slot = reader.FindSlot(argv[i]);
        if (slot < 0) {
            fprintf(stderr, "print_updates: %s is not in use; waiting for it\n", argv[i]);
            waiting.push_back(argv[i]);
        } else if (!wanted[slot]) {
            wanted[slot] = true;
            found.push_back(slot);
        }
    }
    for (int slot : found) {
        instrument copy;
        quvo_copy_consistent(reader.Area()->instmts[slot], copy);
        print_update(copy);
    }

    const timespec idle{0, 100000};
    while (!g_stop) {
        uint16_t slot;
        if (!follower.Next(slot)) {
            // A strategy would spin here on a core of its own.
            nanosleep(&idle, nullptr);
            continue;
        }
        if (slot >= QUVO_INST_SLOTS) {
            continue;
        }
        const instrument& record = reader.Area()->instmts[slot];
        // Instruments not in use at start appear with their first update.
        for (size_t i = 0; !wanted[slot] && i < waiting.size(); ++i) {
            if (quvo_inst_id_equals(record.inst_id, waiting[i].c_str())) {
                wanted[slot] = true;
                waiting.erase(waiting.begin() + static_cast<long>(i));
            }
        }
        if (!wanted[slot]) {
            continue;
        }
        instrument copy;
        if (!quvo_copy_consistent(record, copy)) {
            fprintf(stderr, "slot %u: no two copies agreed; skipped\n", unsigned{slot});
            continue;
        }
        print_update(copy);
    }
    return 0;
}
