#include "tests/support/Loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

int free_loopback_port() {
    // The kernel may hand a port out again once closed: never give one twice.
    static std::set<int> given;
    for (int attempt = 0; attempt < 100; ++attempt) {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        int port = -1;
        if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
            port = ntohs(address.sin_port);
        }
        if (fd >= 0) {
            close(fd);
        }
        if (port > 0 && given.insert(port).second) {
            return port;
        }
    }
    return -1;
}

// HTTP/1.0, so that the body ends when the server closes.
bool scrape_metrics(int port, std::string& body, std::string& error) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        error = strerror(errno);
        return false;
    }
    const timeval timeout{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    std::string answer;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        error = "connect: " + std::string(strerror(errno));
    } else {
        const std::string request = "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
            error = "send: " + std::string(strerror(errno));
        }
        char buffer[65536];
        for (ssize_t n; error.empty() && (n = recv(fd, buffer, sizeof(buffer), 0)) != 0;) {
            if (n < 0) {
                error = "recv: " + std::string(strerror(errno));
            } else {
                answer.append(buffer, static_cast<size_t>(n));
            }
        }
    }
    close(fd);
    if (!error.empty()) {
        return false;
    }
    const size_t end = answer.find("\r\n\r\n");
    if (answer.rfind("HTTP/1.", 0) != 0 || answer.find(" 200 ") != 8 || end == std::string::npos) {
        error = "not a 200 answer: " + answer.substr(0, 200);
        return false;
    }
    body = answer.substr(end + 4);
    return true;
}
