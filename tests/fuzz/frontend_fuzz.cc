// Feeds arbitrary bytes as one client's request stream to the server's
// request-handling core, the way forbserver serves its client, against one
// small ring reused across inputs. The client half-closes after its bytes and
// reads every answer, so each input ends when the server lets the client go.
#include <poll.h>

#include <thread>

#include "frontend.h"
#include "fuzz.h"

namespace {

std::string Ring_path;
Settings Ring_settings;

void client(int fd, const uint8_t* data, size_t size) {
    size_t off = 0;
    char buf[65536];
    for (bool wr_open = true;;) {
        if (wr_open && off == size) shutdown(fd, SHUT_WR), wr_open = false;
        pollfd p{fd, short(POLLIN | (wr_open ? POLLOUT : 0)), 0};
        if (poll(&p, 1, -1) < 0) continue;
        if (p.revents & POLLOUT) {
            ssize_t n = send(fd, data + off, size - off, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0) off += size_t(n);
            else if (n < 0 && errno != EAGAIN && errno != EINTR) off = size;
        }
        if (p.revents & (POLLIN | POLLHUP | POLLERR)) {
            ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) break;
        }
    }
    close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Ring_path = fuzz::scratch_dir() + "/ring";
    Ring_settings.ring_size = 1 << 20;
    Ring_settings.ring_packets = 512;
    Ring_settings.maxpkts = 1000;
    Ring_settings.request_timeout = 2;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string why;
    auto ring = open_ring(Ring_path, Ring_settings, &why);  // made by the first input
    fuzz::require(bool(ring), "open_ring");
    int sv[2];
    fuzz::socket_pair(sv);
    Frontend server(Ring_settings, std::move(ring), Ring_path);
    server.add_stdio_client(sv[0], sv[0]);
    std::thread peer(client, sv[1], data, size);
    server.run();
    peer.join();
    return 0;
}
