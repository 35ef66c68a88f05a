// quvo-md: the feed process. One argument, the configuration file; SIGINT or
// SIGTERM stops it. Before the feed starts, the front door answers --help,
// --version and --check without touching shared memory or the log, and
// refuses to start a second feed on the same key files.
#include <malloc.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "src/ExanicMdImpl.h"
#include "src/FeedLock.h"
#include "src/api/shfe_recv.h"
#include "src/config/ConfigCheck.h"

static int keep_running = 1;

static void sig_handler(int) {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
    puts("received Ctrl + C signal in api.");
}

namespace {

// Another feed holds the key files.
constexpr int kExitFeedRunning = 3;

void print_help(const char* program) {
    printf(
        "Usage: %s CONFIG.ini\n"
        "       %s --check CONFIG.ini\n"
        "       %s --help | --version\n"
        "\n"
        "Runs the market-data feed with the configuration CONFIG.ini until SIGINT or SIGTERM,\n"
        "publishing the books in the shared-memory segments keyed by the files key_f and key_e\n"
        "(in $QUVO_KEY_DIR when set, else /etc). Every start clears the books.\n"
        "\n"
        "  --check CONFIG.ini  read the configuration as the feed would, attach nothing, and print\n"
        "                      each finding and the values the feed would run with; exit status 0\n"
        "                      clean, 1 warnings only, 2 the feed would refuse to start\n"
        "  -h, --help          print this help\n"
        "  --version           print the software version and the build's card support\n"
        "\n"
        "Exit status of a run: 0 after the feed stopped (also when it could not start: see the log),\n"
        "1 when the shared memory cannot be attached, %d when another feed runs on the key files.\n",
        program, program, program, kExitFeedRunning);
}

void print_version() {
    printf("quvo-md %s\n", quvo_software_version());
    printf("card support: %s\n", QUVO_HAVE_EXANIC ? "yes (libexanic)" : "no (software card only)");
}

}  // namespace

int main(int argc, char** argv) {
    // A fixed threshold: the allocator otherwise raises it each time a large
    // block is freed, and the large blocks of each restart then come from the
    // heap and stay resident after they are freed, so the resident size an
    // operator watches would step up with restarts without anything kept.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        print_help(argv[0]);
        return 0;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        print_version();
        return 0;
    }
    if (argc == 3 && strcmp(argv[1], "--check") == 0) {
        const ConfigCheckResult result = CConfigCheck::Check(argv[2]);
        fputs(CConfigCheck::Report(argv[2], result).c_str(), stdout);
        return result.ExitStatus();
    }
    if (argc >= 2 && strcmp(argv[1], "--check") == 0) {
        fprintf(stderr, "%s: --check takes one argument, the configuration file (see --help)\n", argv[0]);
        return -1;
    }
    if (argc == 2 && strncmp(argv[1], "--", 2) == 0) {
        fprintf(stderr, "%s: unknown option %s (see --help)\n", argv[0], argv[1]);
        return -1;
    }
    if (argc != 2) {
        fprintf(stderr, "Usage: %s config.ini\n", argv[0]);
        return -1;
    }
    std::string message;
    if (feed_lock_key_files(shm_key_path(QUVO_UPDATE_RING_KEY_FILE), shm_key_path(QUVO_MD_AREA_KEY_FILE),
                            message) != 0) {
        fprintf(stderr, "%s: %s\n", argv[0], message.c_str());
        return kExitFeedRunning;
    }
    signal(SIGINT, sig_handler);
    signal(SIGTERM, sig_handler);
    quvo_recv(argv[1], &keep_running);
    return 0;
}
