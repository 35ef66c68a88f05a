// quvo-bridge: the feed's books over NATS, and (--mirror) a replica of them
// on another host, in shared memory laid out as the feed's.
#include <csignal>
#include <cstdio>
#include <string>

#include "tools/StopSignal.h"
#include "tools/bridge/BridgeMirror.h"
#include "tools/bridge/BridgeOptions.h"
#include "tools/bridge/BridgePublisher.h"

int main(int argc, char** argv) {
    BridgeOptions options;
    std::string error;
    if (!parse_bridge_options(argc, argv, options, error)) {
        fprintf(stderr, "quvo-bridge: %s (see --help)\n", error.c_str());
        return 2;
    }
    if (options.help) {
        fputs(kBridgeUsage, stdout);
        return 0;
    }
    signal(SIGINT, request_stop);
    signal(SIGTERM, request_stop);
    signal(SIGPIPE, SIG_IGN);
    int status = 0;
    if (options.mirror) {
        CBridgeMirror mirror(options);
        status = mirror.Run(g_stop);
    } else {
        CBridgePublisher publisher(options);
        status = publisher.Run(g_stop);
    }
    return status;
}
