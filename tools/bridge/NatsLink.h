// The bridge's connection to NATS: the servers of the options, the
// credentials, endless reconnection, and counts of what happened to it.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "tools/bridge/BridgeOptions.h"

class CNatsLink {
public:
    CNatsLink() = default;
    // Closes the connection.
    ~CNatsLink();
    CNatsLink(const CNatsLink&) = delete;
    CNatsLink& operator=(const CNatsLink&) = delete;

    // Starts connecting; true when connected or still trying in the
    // background (no server is up yet), false with `error` for options NATS
    // refuses (a bad URL, an unreadable credentials file).
    bool Open(const BridgeOptions& options, const char* name, std::string& error);

    natsConnection* Connection() const { return m_pConn; }
    bool Connected() const;

    // One more for every connection made, the first included: a caller that
    // sees it change knows that what it sent before may be lost.
    uint64_t Generation() const { return m_generation.load(std::memory_order_acquire); }
    uint64_t Reconnects() const { return m_reconnects.load(std::memory_order_relaxed); }
    uint64_t Disconnects() const { return m_disconnects.load(std::memory_order_relaxed); }
    // Whether a subscription fell behind and the server dropped messages to
    // it since the last call.
    bool TakeSlowConsumer() { return m_slowConsumer.exchange(false); }

    // Closes the connection and ends the library, waiting for the threads
    // that call the handlers: one link per process.
    void Close();

private:
    static void _OnConnected(natsConnection* conn, void* closure);
    static void _OnReconnected(natsConnection* conn, void* closure);
    static void _OnDisconnected(natsConnection* conn, void* closure);
    static void _OnError(natsConnection* conn, natsSubscription* sub, natsStatus status, void* closure);

    natsOptions* m_pOptions = nullptr;
    natsConnection* m_pConn = nullptr;
    std::atomic<uint64_t> m_generation{0};
    std::atomic<uint64_t> m_reconnects{0};
    std::atomic<uint64_t> m_disconnects{0};
    std::atomic<bool> m_slowConsumer{false};
};

// "text of the status: last error", for messages.
std::string nats_error_text(natsStatus status);
