// quvo-md: the feed process. One argument, the configuration file; SIGINT stops it.
#include <csignal>
#include <cstdio>

#include "src/ExanicMdImpl.h"

static int keep_running = 1;

static void sig_handler(int) {
    __atomic_store_n(&keep_running, 0, __ATOMIC_RELAXED);
    puts("received Ctrl + C signal in api.");
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "Usage: %s config.ini\n", argv[0]);
        return -1;
    }
    signal(SIGINT, sig_handler);
    quvo_recv(argv[1], &keep_running);
    return 0;
}
