// A NATS server with JetStream for end-to-end tests, run as a child process
// on 127.0.0.1 at a port that was free, storing in a directory of the test's.
// Every wait is bounded; the destructor kills a server still running.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/Loopback.h"

class CNatsServer {
public:
    // A server named `name` whose files (store, output) go under `dir`.
    // `clusterPort` and `routes` (loopback cluster ports of the others) make
    // it one of a cluster; 0 and none for a single server.
    CNatsServer(const std::string& program, const std::string& dir, const std::string& name,
                int clusterPort = 0, std::vector<int> routes = {});

    // Has the server read the configuration file at `path` too when it starts;
    // the options of the command line (address, port, JetStream) override it.
    void SetConfig(const std::string& path) { m_config = path; }

    // Starts it (on the same port as before when restarted) and waits up to
    // `seconds` for it to be ready; false with the reason in `error`.
    bool Start(double seconds, std::string& error);
    // SIGTERM, then SIGKILL if it has not ended within `seconds`.
    void Stop(double seconds = 10);
    // SIGKILL at once, as a crash.
    void Kill();

    int Port() const { return m_port; }
    int ClusterPort() const { return m_clusterPort; }
    std::string Url() const { return "nats://127.0.0.1:" + std::to_string(m_port); }
    std::string Output() const;

private:
    std::string m_program;
    std::string m_dir;
    std::string m_name;
    int m_port;
    int m_clusterPort;
    std::vector<int> m_routes;
    std::string m_config;
    int m_starts = 0;
    std::unique_ptr<CChildProcess> m_pProcess;
};
