// Feeds arbitrary bytes as one client's request stream to the server's request-handling core, the way
// forbserver serves its client, against one small ring reused across inputs. The client half-closes after its
// bytes and reads every answer, so each input ends when the server lets the client go.
#include <cerrno>
#include <thread>

#include "frontend.h"
#include "fuzz.h"

static std::string Ring_path;
static Settings Ring_settings;

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
    fuzz::require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0, "socketpair");
    Frontend server(Ring_settings, std::move(ring), Ring_path);
    server.add_stdio_client(sv[0], sv[0]);
    std::thread writer([&] {
        for (size_t off = 0; off < size;) {
            ssize_t n = send(sv[1], data + off, size - off, MSG_NOSIGNAL);
            if (n > 0) off += size_t(n);
            else if (errno != EINTR) break;
        }
        shutdown(sv[1], SHUT_WR);
    });
    std::thread reader([&] {
        char buf[65536];
        for (ssize_t n = 1; n > 0 || (n < 0 && errno == EINTR);) n = recv(sv[1], buf, sizeof buf, 0);
    });
    server.run();
    writer.join();
    reader.join();
    close(sv[1]);
    return 0;
}
