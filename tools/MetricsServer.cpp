#include "tools/MetricsServer.h"

#include <cstdio>
#include <exception>

bool valid_listen(const std::string& text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size() || colon + 6 < text.size()) {
        return false;
    }
    const std::string port = text.substr(colon + 1);
    for (char c : port) {
        if (c < '0' || c > '9') {
            return false;
        }
    }
    return std::stol(port) <= 65535;
}

std::unique_ptr<CMetricsServer> CMetricsServer::Serve(const char* program, const std::string& listen,
                                                      std::shared_ptr<prometheus::Collectable> collector,
                                                      std::string& error) {
    auto server = std::make_unique<CMetricsServer>();
    try {
        server->m_pExposer = std::make_unique<prometheus::Exposer>(listen, 2);
    } catch (const std::exception& e) {
        error = "cannot listen on " + listen + ": " + e.what();
        return nullptr;
    }
    server->m_pCollector = std::move(collector);
    server->m_pExposer->RegisterCollectable(server->m_pCollector);
    const std::vector<int> ports = server->m_pExposer->GetListeningPorts();
    const std::string host = listen.substr(0, listen.rfind(':'));
    printf("%s: serving http://%s:%d/metrics\n", program, host.c_str(), ports.empty() ? 0 : ports.front());
    fflush(stdout);
    return server;
}
