// quvo-dump: prints instruments from quvo-md's shared memory, once or as the
// update ring announces changes, or compares them with an expected state.
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "interface/quvoreader.h"
#include "sim/SimState.h"
#include "sim/StateCompare.h"
#include "tools/DumpFormat.h"
#include "tools/HealthFormat.h"
#include "tools/StopSignal.h"

namespace {

constexpr const char* kUsage =
    "Usage: quvo-dump [options] [ID ...]\n"
    "       quvo-dump --check EXPECTED.json\n"
    "       quvo-dump --health [--json]\n"
    "Prints instruments from the shared memory of the quvo-md feed on this host.\n"
    "\n"
    "  ID             identifier of an instrument to print, matched exactly (e.g. cu2501);\n"
    "                 with no ID, every instrument in use is printed\n"
    "  --all          every instrument in use (what no ID means); not combined with IDs\n"
    "  --json         one JSON object per line and instrument instead of the table,\n"
    "                 under the expected-state file's names (id, exchange, slot, ...)\n"
    "  --counts       print the area's four counters (shfe_inst_cnt, ine_inst_cnt,\n"
    "                 shfe_pktno, ine_pktno) first; with no ID and no --all, only them\n"
    "  --watch        print the instruments, then follow the update ring and reprint\n"
    "                 each one announced as changed; IDs not in use yet are waited for;\n"
    "                 SIGINT (Ctrl+C) or SIGTERM stops with status 0\n"
    "  --interval MS  with --watch, table view only: reprint an instrument at most once\n"
    "                 every MS milliseconds (default 0: on every change)\n"
    "  --count N      with --watch: exit after N announcements of printed instruments\n"
    "  --check FILE   compare the shared memory with an expected-state file (as the\n"
    "                 simulator writes, see docs/simulator.md): each instrument it\n"
    "                 lists, every field the shared record holds, doubles exactly; prints\n"
    "                 the first 20 differences (instrument, exchange, slot, field and\n"
    "                 both values), the number of the rest, then a summary line;\n"
    "                 takes no other option or ID\n"
    "  --health       print the feed's health figures once, as quvo-stat --once does\n"
    "                 (quvo-stat --help says what each means); with --json, one JSON\n"
    "                 object on one line; takes no other option and no ID\n"
    "  -h, --help     print this text and exit\n"
    "\n"
    "The table shows ten levels a side: the exchange publishes five, levels 6 to 10\n"
    "(marked local) are kept by the feed. Empty levels are left blank. Prices are\n"
    "written at the precision of the instrument's prices (576.2, not\n"
    "576.20000000000005), in the table and in JSON alike.\n"
    "\n"
    "Shared memory: the update ring is keyed by ftok on the file key_f, the market-data\n"
    "area by key_e, both in the directory named by the environment variable\n"
    "QUVO_KEY_DIR, or in /etc when it is unset or empty. Both are attached read-only.\n"
    "The health segment is keyed by ftok on key_e with project id 'H'.\n"
    "\n"
    "Exit status: 0 done; 1 an ID is not in use; 2 bad options, or the shared memory\n"
    "cannot be attached. With --check: 0 equal, 1 different, 2 the file cannot be\n"
    "read or is not an expected state, or the shared memory cannot be attached.\n"
    "With --health: 0 printed; 2 no health segment, or one that cannot be read.\n";

struct DumpOptions {
    bool all = false;
    bool json = false;
    bool counts = false;
    bool watch = false;
    bool help = false;
    long intervalMs = 0;
    long count = 0;
    std::string checkPath;
    bool check = false;
    bool health = false;
    std::vector<std::string> ids;
};

bool parse_count(const std::string& text, long minimum, long& value) {
    if (text.empty() || text[0] < '0' || text[0] > '9') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    value = strtol(text.c_str(), &end, 10);
    return errno == 0 && *end == '\0' && value >= minimum;
}

bool parse_options(int argc, char** argv, DumpOptions& options, std::string& error) {
    bool optionsEnded = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (optionsEnded || arg.empty() || arg[0] != '-') {
            options.ids.push_back(arg);
            continue;
        }
        std::string value;
        bool hasValue = false;
        const size_t equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = arg.substr(equals + 1);
            arg.erase(equals);
            hasValue = true;
        }
        const bool takesValue = arg == "--interval" || arg == "--count" || arg == "--check";
        if (takesValue && !hasValue) {
            if (i + 1 >= argc) {
                error = arg + " needs a value";
                return false;
            }
            value = argv[++i];
        } else if (!takesValue && hasValue) {
            error = arg + " takes no value";
            return false;
        }
        if (arg == "--") {
            optionsEnded = true;
        } else if (arg == "--all") {
            options.all = true;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--counts") {
            options.counts = true;
        } else if (arg == "--health") {
            options.health = true;
        } else if (arg == "--watch") {
            options.watch = true;
        } else if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--interval") {
            if (!parse_count(value, 0, options.intervalMs)) {
                error = "--interval needs a number of milliseconds, not '" + value + "'";
                return false;
            }
        } else if (arg == "--check") {
            if (value.empty()) {
                error = "--check needs the path of an expected-state file";
                return false;
            }
            options.check = true;
            options.checkPath = value;
        } else if (arg == "--count") {
            if (!parse_count(value, 1, options.count)) {
                error = "--count needs a number above 0, not '" + value + "'";
                return false;
            }
        } else {
            error = "unknown option " + arg;
            return false;
        }
    }
    if (options.check &&
        (options.all || options.json || options.counts || options.watch || !options.ids.empty())) {
        error = "--check takes no other option and no ID";
    } else if (options.health && (options.all || options.counts || options.watch || options.check ||
                                  options.intervalMs > 0 || options.count > 0 || !options.ids.empty())) {
        error = "--health takes no other option than --json, and no ID";
    } else if (options.all && !options.ids.empty()) {
        error = "--all and IDs exclude each other";
    } else if (!options.watch && (options.intervalMs > 0 || options.count > 0)) {
        error = "--interval and --count need --watch";
    } else if (options.json && options.intervalMs > 0) {
        error = "--interval applies to the table view, not to --json";
    } else if (options.watch && options.counts) {
        error = "--counts does not combine with --watch";
    }
    return error.empty();
}

std::string join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

class CPrinter {
public:
    CPrinter(const share& area, bool json) : m_area(area), m_json(json) {}

    void Print(uint32_t slot) {
        instrument copy;
        if (!quvo_copy_consistent(m_area.instmts[slot], copy)) {
            fprintf(stderr, "quvo-dump: slot %u kept changing; its copy may mix two updates\n", slot);
        }
        Write(m_json ? format_json(copy, slot) : format_table(copy, slot));
    }

    void Write(const std::string& text) {
        // Tables are parted by a blank line; JSON stays one object a line.
        if (!m_json && m_printed) {
            fputc('\n', stdout);
        }
        fwrite(text.data(), 1, text.size(), stdout);
        m_printed = true;
    }

private:
    const share& m_area;
    bool m_json;
    bool m_printed = false;
};

class CWatcher {
public:
    CWatcher(const CQuvoReader& reader, const DumpOptions& options)
        : m_reader(reader),
          m_options(options),
          m_printer(*reader.Area(), options.json),
          m_follower(reader.Ring()),
          m_watched(QUVO_INST_SLOTS, 0),
          m_queued(QUVO_INST_SLOTS, 0),
          m_lastPrint(QUVO_INST_SLOTS, INT64_MIN / 2) {}

    int Run() {
        std::vector<uint32_t> initial = m_options.ids.empty() ? m_reader.ListSlots() : _Resolve();
        if (!m_missing.empty()) {
            fprintf(stderr, "quvo-dump: not in use yet, waiting for: %s\n", join(m_missing).c_str());
        }
        for (uint32_t slot : initial) {
            m_printer.Print(slot);
            m_lastPrint[slot] = now_ms();
        }
        fflush(stdout);
        long seen = 0;
        while (!g_stop) {
            bool any = false;
            uint16_t slot = 0;
            while ((m_options.count == 0 || seen < m_options.count) && m_follower.Next(slot)) {
                any = true;
                if (slot < QUVO_INST_SLOTS && _IsWatched(slot)) {
                    ++seen;
                    _Queue(slot);
                }
            }
            const bool done = m_options.count > 0 && seen >= m_options.count;
            _PrintDue(done);
            fflush(stdout);
            if (done) {
                break;
            }
            if (!any) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        return 0;
    }

private:
    std::vector<uint32_t> _Resolve() {
        std::vector<uint32_t> slots;
        for (const std::string& id : m_options.ids) {
            const int slot = m_reader.FindSlot(id.c_str());
            if (slot < 0) {
                m_missing.push_back(id);
            } else if (!m_watched[slot]) {
                m_watched[slot] = 1;
                slots.push_back(static_cast<uint32_t>(slot));
            }
        }
        return slots;
    }

    bool _IsWatched(uint32_t slot) {
        const instrument& inst = m_reader.Area()->instmts[slot];
        if (m_options.ids.empty()) {
            return quvo_slot_in_use(inst);
        }
        if (m_watched[slot]) {
            return true;
        }
        unsigned char instId[sizeof(inst.inst_id)];
        memcpy(instId, inst.inst_id, sizeof(instId));
        for (size_t i = 0; i < m_missing.size(); ++i) {
            if (quvo_inst_id_equals(instId, m_missing[i].c_str())) {
                m_missing.erase(m_missing.begin() + static_cast<long>(i));
                m_watched[slot] = 1;
                return true;
            }
        }
        return false;
    }

    void _Queue(uint32_t slot) {
        if (!m_queued[slot]) {
            m_queued[slot] = 1;
            m_queue.push_back(slot);
        }
    }

    // Prints queued instruments whose interval has passed, or all of them.
    void _PrintDue(bool all) {
        const int64_t now = now_ms();
        size_t kept = 0;
        for (uint32_t slot : m_queue) {
            if (all || now - m_lastPrint[slot] >= m_options.intervalMs) {
                m_printer.Print(slot);
                m_lastPrint[slot] = now;
                m_queued[slot] = 0;
            } else {
                m_queue[kept++] = slot;
            }
        }
        m_queue.resize(kept);
    }

    const CQuvoReader& m_reader;
    const DumpOptions& m_options;
    CPrinter m_printer;
    CRingFollower m_follower;
    std::vector<std::string> m_missing;
    std::vector<char> m_watched;
    std::vector<char> m_queued;
    std::vector<uint32_t> m_queue;
    std::vector<int64_t> m_lastPrint;
};

int dump_once(const CQuvoReader& reader, const DumpOptions& options) {
    CPrinter printer(*reader.Area(), options.json);
    if (options.counts) {
        printer.Write(options.json ? format_counts_json(*reader.Area())
                                   : format_counts_table(*reader.Area()));
        if (options.ids.empty() && !options.all) {
            return 0;
        }
    }
    std::vector<std::string> missing;
    std::vector<uint32_t> slots;
    if (options.ids.empty()) {
        slots = reader.ListSlots();
    }
    for (const std::string& id : options.ids) {
        const int slot = reader.FindSlot(id.c_str());
        if (slot < 0) {
            missing.push_back(id);
        } else {
            slots.push_back(static_cast<uint32_t>(slot));
        }
    }
    for (uint32_t slot : slots) {
        printer.Print(slot);
    }
    fflush(stdout);
    if (!missing.empty()) {
        fprintf(stderr, "quvo-dump: no instrument in use with the identifier: %s\n", join(missing).c_str());
        return 1;
    }
    return 0;
}

constexpr size_t kShownDifferences = 20;

std::string count_of(size_t count, const char* noun) {
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// Exit status: 0 equal, 1 different, 2 unusable input.
int check_state(const DumpOptions& options) {
    SimState expected;
    std::string error;
    if (!read_sim_state(options.checkPath, expected, error)) {
        fprintf(stderr, "quvo-dump: %s\n", error.c_str());
        return 2;
    }
    for (size_t index = 0; index < expected.instruments.size(); ++index) {
        const SimInstrumentState& inst = expected.instruments[index];
        const int32_t slot = sim_slot_of(inst);
        if (slot < 0 || slot != inst.slot) {
            fprintf(stderr,
                    "quvo-dump: %s: instrument %zu (%s): slot %d is not where %s instrument %d goes\n",
                    options.checkPath.c_str(), index, inst.id.c_str(), inst.slot,
                    sim_exchange_name(inst.exchange), inst.instNo);
            return 2;
        }
    }
    CQuvoReader reader;
    if (!reader.Attach(error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    size_t differences = 0;
    size_t differing = 0;
    for (const SimInstrumentState& inst : expected.instruments) {
        instrument copy;
        if (!quvo_copy_consistent(reader.Area()->instmts[inst.slot], copy)) {
            fprintf(stderr, "quvo-dump: slot %d kept changing; its copy may mix two updates\n", inst.slot);
        }
        const std::vector<SimFieldDifference> found = compare_instrument(copy, inst);
        differing += found.empty() ? 0 : 1;
        for (const SimFieldDifference& difference : found) {
            if (++differences <= kShownDifferences) {
                printf("%s\n", describe_difference(inst, difference).c_str());
            }
        }
    }
    if (differences > kShownDifferences) {
        const size_t rest = differences - kShownDifferences;
        printf("... and %zu more difference%s\n", rest, rest == 1 ? "" : "s");
    }
    const std::string checked = count_of(expected.instruments.size(), "instrument");
    if (differences == 0) {
        printf("%s checked against %s: all equal\n", checked.c_str(), options.checkPath.c_str());
    } else {
        printf("%s checked against %s: %s in %s\n", checked.c_str(), options.checkPath.c_str(),
               count_of(differences, "difference").c_str(), count_of(differing, "instrument").c_str());
    }
    return differences == 0 ? 0 : 1;
}

// Exit status: 0 printed, 2 no segment or no usable copy.
int print_health(const DumpOptions& options) {
    CQuvoHealthReader reader;
    std::string error;
    quvo_health copy;
    if (!reader.Attach(error) || !reader.Read(copy, error)) {
        fprintf(stderr, "quvo-dump: %s\n", error.c_str());
        return 2;
    }
    const bool alive = quvo_health_writer_alive(copy);
    const std::string text = options.json ? health_json_line(health_to_json(copy, alive))
                                          : health_report(copy, alive, health_wall_now_ns(), nullptr);
    fwrite(text.data(), 1, text.size(), stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    DumpOptions options;
    std::string error;
    if (!parse_options(argc, argv, options, error)) {
        fprintf(stderr, "quvo-dump: %s\n\n%s", error.c_str(), kUsage);
        return 2;
    }
    if (options.help) {
        fputs(kUsage, stdout);
        return 0;
    }
    if (options.check) {
        return check_state(options);
    }
    if (options.health) {
        return print_health(options);
    }
    CQuvoReader reader;
    if (!reader.Attach(error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 2;
    }
    if (!options.watch) {
        return dump_once(reader, options);
    }
    struct sigaction action {};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return CWatcher(reader, options).Run();
}
