#include "tools/bridge/NatsLink.h"

#include <vector>

namespace {

constexpr int64_t kCloseWaitMs = 5000;

}  // namespace

std::string nats_error_text(natsStatus status) {
    std::string text = natsStatus_GetText(status);
    const char* last = nats_GetLastError(nullptr);
    if (last != nullptr && last[0] != '\0' && text != last) {
        text += ": ";
        text += last;
    }
    return text;
}

CNatsLink::~CNatsLink() {
    Close();
}

bool CNatsLink::Open(const BridgeOptions& options, const char* name, std::string& error) {
    natsStatus status = natsOptions_Create(&m_pOptions);
    std::vector<const char*> servers;
    for (const std::string& server : options.servers) {
        servers.push_back(server.c_str());
    }
    if (status == NATS_OK) {
        status = natsOptions_SetServers(m_pOptions, servers.data(), static_cast<int>(servers.size()));
    }
    if (status == NATS_OK && !options.creds.empty()) {
        status = natsOptions_SetUserCredentialsFromFiles(m_pOptions, options.creds.c_str(), nullptr);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetName(m_pOptions, name);
    }
    // Never give up: the bridge outlives any server restart.
    if (status == NATS_OK) {
        status = natsOptions_SetMaxReconnect(m_pOptions, -1);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetReconnectWait(m_pOptions, 200);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetTimeout(m_pOptions, 2000);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetPingInterval(m_pOptions, 2000);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetRetryOnFailedConnect(m_pOptions, true, _OnConnected, this);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetReconnectedCB(m_pOptions, _OnReconnected, this);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetDisconnectedCB(m_pOptions, _OnDisconnected, this);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetErrorHandler(m_pOptions, _OnError, this);
    }
    if (status != NATS_OK) {
        error = "cannot set the NATS options: " + nats_error_text(status);
        return false;
    }
    status = natsConnection_Connect(&m_pConn, m_pOptions);
    if (status == NATS_OK) {
        m_generation.fetch_add(1, std::memory_order_acq_rel);
    } else if (status != NATS_NOT_YET_CONNECTED) {
        error = "cannot connect to NATS: " + nats_error_text(status);
        return false;
    }
    return true;
}

bool CNatsLink::Connected() const {
    return m_pConn != nullptr && natsConnection_Status(m_pConn) == NATS_CONN_STATUS_CONNECTED;
}

void CNatsLink::Close() {
    if (m_pConn != nullptr) {
        natsConnection_Close(m_pConn);
        natsConnection_Destroy(m_pConn);
        m_pConn = nullptr;
    }
    if (m_pOptions != nullptr) {
        natsOptions_Destroy(m_pOptions);
        m_pOptions = nullptr;
        // The library calls the connection's handlers from its own threads
        // even after the close; they use this object, so it waits for them.
        nats_CloseAndWait(kCloseWaitMs);
    }
}

void CNatsLink::_OnConnected(natsConnection*, void* closure) {
    static_cast<CNatsLink*>(closure)->m_generation.fetch_add(1, std::memory_order_acq_rel);
}

void CNatsLink::_OnReconnected(natsConnection*, void* closure) {
    CNatsLink* link = static_cast<CNatsLink*>(closure);
    link->m_reconnects.fetch_add(1, std::memory_order_relaxed);
    link->m_generation.fetch_add(1, std::memory_order_acq_rel);
}

void CNatsLink::_OnDisconnected(natsConnection*, void* closure) {
    static_cast<CNatsLink*>(closure)->m_disconnects.fetch_add(1, std::memory_order_relaxed);
}

void CNatsLink::_OnError(natsConnection*, natsSubscription*, natsStatus status, void* closure) {
    if (status == NATS_SLOW_CONSUMER) {
        static_cast<CNatsLink*>(closure)->m_slowConsumer.store(true);
    }
}
