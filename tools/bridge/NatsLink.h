// The bridge's connection to NATS: the servers of the options, the
// credentials, endless reconnection, and counts of what happened to it.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
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
    // refuses (a bad URL), a credentials file that cannot be read or holds no
    // user JWT and seed, and a server that refuses the connection (it does
    // not accept the credentials, or wants some and none were given), after
    // which the library would not try again.
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
    // Whether the servers refused the client after the start: the library
    // then never connects again, so the bridge ends rather than sit idle.
    bool Refused() const { return m_refused.load(std::memory_order_relaxed); }

    // Closes the connection and ends the library, waiting for the threads
    // that call the handlers: one link per process.
    void Close();

private:
    static void _OnConnected(natsConnection* conn, void* closure);
    static void _OnReconnected(natsConnection* conn, void* closure);
    static void _OnDisconnected(natsConnection* conn, void* closure);
    static void _OnError(natsConnection* conn, natsSubscription* sub, natsStatus status, void* closure);
    static void _OnClosed(natsConnection* conn, void* closure);
    static int64_t _ReconnectDelay(natsConnection* conn, int attempts, void* closure);
    std::string _RefusedText() const;

    natsOptions* m_pOptions = nullptr;
    natsConnection* m_pConn = nullptr;
    std::atomic<uint64_t> m_generation{0};
    std::atomic<uint64_t> m_reconnects{0};
    std::atomic<uint64_t> m_disconnects{0};
    std::atomic<bool> m_slowConsumer{false};
    std::atomic<bool> m_refused{false};
    std::string m_creds;
    // What became of the first connection attempt, and whether Open has
    // returned or Close begun: a closing after that is told on stderr.
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_closed = false;
    bool m_retrying = false;
    bool m_opened = false;
    bool m_closing = false;
};

// "text of the status: last error", for messages.
std::string nats_error_text(natsStatus status);
