// Test helper: raw HTTP/1.0 exchanges with orbserver's status port, so that tests can send malformed requests
// as well as good ones.
//   int port = testsupport::http_port(server.log());      // from "status page at ..."
//   auto r = testsupport::http_get(port, "/status.json"); // r.code, r.body
#pragma once

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/orbserver.h"

namespace testsupport {

// Options for an OrbServer that serves its status on a free loopback port.
inline OrbServer::Options with_status_port(const std::string& pf = "") { return {pf, {"-H", "127.0.0.1:0"}}; }

// The port orbserver logged for its status page, 0 if none yet.
inline int http_port(const std::string& log) {
    auto at = log.find("status page at http://");
    if (at == std::string::npos) return 0;
    auto colon = log.find(':', at + 22);
    return colon == std::string::npos ? 0 : std::atoi(log.c_str() + colon + 1);
}

// A connection to the loopback port (from the local address from, when given), or -1.
inline int connect_loopback(int port, const char* from = nullptr) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{AF_INET, htons(uint16_t(port)), {htonl(INADDR_LOOPBACK)}, {}}, la{AF_INET, 0, {}, {}};
    if (from && inet_pton(AF_INET, from, &la.sin_addr) == 1)
        bind(fd, reinterpret_cast<sockaddr*>(&la), sizeof la);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) close(fd), fd = -1;
    return fd;
}

struct HttpReply {
    int code = 0;  // 0: no response at all
    std::string body;
};

// Sends raw and reads until the server closes (or 60 s of silence).
inline HttpReply http_request(int port, const std::string& raw) {
    int fd = connect_loopback(port);
    if (fd < 0) return {};
    timeval tv{60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    std::string all;
    if (send(fd, raw.data(), raw.size(), MSG_NOSIGNAL) == ssize_t(raw.size())) {
        char buf[65536];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) all.append(buf, size_t(n));
    }
    close(fd);
    auto end = all.find("\r\n\r\n");
    if (all.rfind("HTTP/1.", 0) != 0 || end == std::string::npos) return {};
    return {std::atoi(all.c_str() + 9), all.substr(end + 4)};
}

inline HttpReply http_get(int port, const std::string& path) {
    return http_request(port, "GET " + path + " HTTP/1.0\r\n\r\n");
}

}  // namespace testsupport
