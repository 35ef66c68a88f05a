#include "tests/support/NatsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "tests/support/Poll.h"
#include "tests/support/TempDir.h"
#include "tests/support/TextUtil.h"

CNatsServer::CNatsServer(const std::string& program, const std::string& dir, const std::string& name,
                         int clusterPort, std::vector<int> routes)
    : m_program(program),
      m_dir(dir + "/" + name),
      m_name(name),
      m_port(free_loopback_port()),
      m_clusterPort(clusterPort),
      m_routes(std::move(routes)) {
    std::filesystem::create_directories(m_dir);
}

bool CNatsServer::Start(double seconds, std::string& error) {
    if (m_port <= 0) {
        error = "no free port";
        return false;
    }
    std::vector<std::string> argv = {
        m_program,     "--addr",      "127.0.0.1",      "--port",        std::to_string(m_port),
        "--jetstream", "--store_dir", m_dir + "/store", "--server_name", m_name};
    if (!m_config.empty()) {
        argv.insert(argv.begin() + 1, {"--config", m_config});
    }
    if (m_clusterPort > 0) {
        std::string routes;
        for (const int route : m_routes) {
            routes += (routes.empty() ? "" : ",") + std::string("nats://127.0.0.1:") + std::to_string(route);
        }
        argv.insert(argv.end(), {"--cluster_name", "quvo-test", "--cluster",
                                 "nats://127.0.0.1:" + std::to_string(m_clusterPort), "--routes", routes});
    }
    ++m_starts;
    const std::string output = m_dir + "/server" + std::to_string(m_starts) + ".out";
    m_pProcess = std::make_unique<CChildProcess>(argv, m_dir, output);
    if (!wait_for_text(output, "Server is ready", seconds, 20)) {
        error = "nats-server did not become ready in time:\n" + read_file(output);
        return false;
    }
    return true;
}

void CNatsServer::Stop(double seconds) {
    if (m_pProcess && m_pProcess->Running()) {
        m_pProcess->Signal(SIGTERM);
        int status = 0;
        m_pProcess->Wait(seconds, status);
    }
    m_pProcess.reset();
}

void CNatsServer::Kill() {
    if (m_pProcess && m_pProcess->Running()) {
        m_pProcess->Signal(SIGKILL);
        int status = 0;
        m_pProcess->Wait(10, status);
    }
    m_pProcess.reset();
}

std::string CNatsServer::Output() const {
    return read_file(m_dir + "/server" + std::to_string(m_starts) + ".out");
}
