// orbserver: serves a ring to many clients over TCP. The ring is a ring file,
// or with -J a JetStream stream that any number of orbservers serve at once.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "board.h"
#include "frontend.h"
#include "http.h"
#include "ring/store_jetstream.h"
#include "stock/elog.h"

// The stream `name` on the cluster, created with the settings' limits when
// missing; a cluster nobody answers for, or a stream the ring cannot use, is
// fatal with the reason.
static std::unique_ptr<ring::RingStore> open_stream(const std::string& name, const Settings& s) {
    ring::JetStreamOptions o;
    o.urls = s.jetstream_urls;
    o.name = name;
    o.size = uint64_t(s.ring_size);
    o.npkts = uint64_t(s.ring_packets);
    o.maxpkts = s.maxpkts;
    o.replicas = s.jetstream_replicas;
    o.maxclients = uint32_t(std::clamp(s.max_clients + 16, 256, 4096));
    o.timeout_ms = 10000;  // a put outlasts the election of a new stream leader
    std::string limits;
    try {
        auto store = ring::open_jetstream_store(o, &limits);
        elog_notify(0, "%s\n", limits.c_str());
        return store;
    } catch (const std::exception& e) {
        elog_die(0, "%s\n", e.what());
    }
    return nullptr;
}

static void usage() {
    std::fprintf(stderr,
                 "Usage: orbserver [-p pf] [-P [address:]port] [-s size] [-n npkts] [-m maxpkts] "
                 "[-H [address:]port] [-o portfile] [-T certfile,keyfile] [-J url[,url...]] [-v] ring\n");
    std::exit(1);
}

int main(int argc, char** argv) {
    elog_init(argc, argv);
    Settings settings;
    std::string why;
    std::string path = front_end_args(argc, argv, "p:P:H:s:n:m:o:T:J:v", settings, &why);
    if (path.empty()) {
        if (why.empty()) usage();
        elog_die(0, "%s\n", why.c_str());
    }
    auto ring = settings.jetstream_urls.empty() ? open_ring(path, settings, &why) : open_stream(path, settings);
    if (!ring) elog_die(0, "%s\n", why.c_str());
    Frontend::install_signal_handlers();
    Frontend server(settings, std::move(ring), path);
    // Declared after the server, so it stops before the server goes away.
    std::unique_ptr<StatusServer> http;
    if (settings.http_port >= 0) {
        auto board = std::make_shared<StatusBoard>();
        server.publish_status(board);
        http = std::make_unique<StatusServer>(board, settings.read_allow);
        if (std::string e = http->start(settings.http_address, settings.http_port); !e.empty())
            elog_die(0, "%s\n", e.c_str());
        elog_notify(0, "status page at http://%s:%d/\n", settings.http_address.c_str(), http->port());
    }
    if (std::string e = server.listen_tcp(); !e.empty()) elog_die(0, "%s\n", e.c_str());
    int status = server.run();
    elog_notify(0, "stopped\n");
    return status;
}
