#include "tools/bridge/NatsLink.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

namespace {

constexpr int64_t kCloseWaitMs = 5000;
constexpr int64_t kReconnectWaitMs = 200;
constexpr int64_t kReconnectJitterMs = 100;
// Only a bound: the library settles the first attempt within milliseconds.
constexpr auto kFirstAttemptWait = std::chrono::seconds(10);
constexpr int kRefusedAttempts = 3;
constexpr auto kRefusedRetryWait = std::chrono::milliseconds(250);

// The library reads the file only when it connects, and then reports no
// cause when it cannot: read it here first.
bool check_credentials(const std::string& path, std::string& error) {
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        error = "cannot read the credentials file " + path + ": " + strerror(errno);
        return false;
    }
    std::string text;
    char buffer[4096];
    size_t got = 0;
    while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) {
        text.append(buffer, got);
    }
    const int readError = ferror(file) != 0 ? errno : 0;
    fclose(file);
    if (readError != 0) {
        error = "cannot read the credentials file " + path + ": " + strerror(readError);
        return false;
    }
    if (text.find("JWT-----") == std::string::npos || text.find("SEED-----") == std::string::npos) {
        error = "the credentials file " + path + " holds no user JWT and seed";
        return false;
    }
    return true;
}

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
    m_creds = options.creds;
    if (!m_creds.empty() && !check_credentials(m_creds, error)) {
        return false;
    }
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
    // The library's flusher waits about a millisecond to gather messages
    // into one write; at once, each is a write of its own.
    if (status == NATS_OK && options.sendAtOnce) {
        status = natsOptions_SetSendAsap(m_pOptions, true);
    }
    // Never give up: the bridge outlives any server restart.
    if (status == NATS_OK) {
        status = natsOptions_SetMaxReconnect(m_pOptions, -1);
    }
    if (status == NATS_OK) {
        status = natsOptions_SetCustomReconnectDelay(m_pOptions, _ReconnectDelay, this);
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
    if (status == NATS_OK) {
        status = natsOptions_SetClosedCB(m_pOptions, _OnClosed, this);
    }
    if (status != NATS_OK) {
        error = "cannot set the NATS options: " + nats_error_text(status);
        return false;
    }
    for (int attempt = 1;; ++attempt) {
        status = natsConnection_Connect(&m_pConn, m_pOptions);
        if (status == NATS_OK) {
            m_generation.fetch_add(1, std::memory_order_acq_rel);
            break;
        }
        if (status != NATS_NOT_YET_CONNECTED) {
            error = "cannot connect to NATS: " + nats_error_text(status);
            return false;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        // The library retries a server it cannot reach, but closes the
        // connection at once, with no cause, when a server refuses the client:
        // wait for the one or the other, so that a refusal ends the start.
        m_changed.wait_for(lock, kFirstAttemptWait, [this] {
            return m_closed || m_retrying || m_generation.load(std::memory_order_acquire) > 0;
        });
        if (!m_closed) {
            break;
        }
        if (attempt == kRefusedAttempts) {
            error = _RefusedText();
            return false;
        }
        // A server setting an account up as the first of its clients arrives
        // has been seen to refuse one of two clients that came together:
        // only a refusal that repeats ends the start.
        m_closed = false;
        m_retrying = false;
        lock.unlock();
        natsConnection_Destroy(m_pConn);
        m_pConn = nullptr;
        std::this_thread::sleep_for(kRefusedRetryWait);
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    m_opened = true;
    return true;
}

std::string CNatsLink::_RefusedText() const {
    if (m_creds.empty()) {
        return "the NATS server refused the connection: it requires credentials (--creds FILE)";
    }
    return "the NATS server refused the connection: it does not accept the credentials in " + m_creds;
}

bool CNatsLink::Connected() const {
    return m_pConn != nullptr && natsConnection_Status(m_pConn) == NATS_CONN_STATUS_CONNECTED;
}

void CNatsLink::Close() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closing = true;
    }
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
    CNatsLink* link = static_cast<CNatsLink*>(closure);
    link->m_generation.fetch_add(1, std::memory_order_acq_rel);
    std::lock_guard<std::mutex> lock(link->m_mutex);
    link->m_changed.notify_all();
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

void CNatsLink::_OnClosed(natsConnection*, void* closure) {
    CNatsLink* link = static_cast<CNatsLink*>(closure);
    std::lock_guard<std::mutex> lock(link->m_mutex);
    link->m_closed = true;
    link->m_changed.notify_all();
    if (link->m_opened && !link->m_closing) {
        // Reconnection is endless, so the library closed because every server refused the client.
        fprintf(stderr, "quvo-bridge: NATS closed the connection for good: %s\n",
                link->_RefusedText().c_str());
        link->m_refused.store(true, std::memory_order_relaxed);
    }
}

int64_t CNatsLink::_ReconnectDelay(natsConnection*, int, void* closure) {
    CNatsLink* link = static_cast<CNatsLink*>(closure);
    {
        std::lock_guard<std::mutex> lock(link->m_mutex);
        link->m_retrying = true;
        link->m_changed.notify_all();
    }
    // Spread, so that bridges that lost the same server do not all return at once.
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return kReconnectWaitMs +
           std::chrono::duration_cast<std::chrono::microseconds>(now).count() % kReconnectJitterMs;
}
