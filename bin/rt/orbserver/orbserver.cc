// orbserver: serves a ring file to many clients over TCP.
#include <cstdio>
#include <cstdlib>

#include "board.h"
#include "frontend.h"
#include "http.h"
#include "stock/elog.h"

static void usage() {
    std::fprintf(stderr,
                 "Usage: orbserver [-p pf] [-P [address:]port] [-s size] [-n npkts] [-m maxpkts] "
                 "[-H [address:]port] [-o portfile] [-T certfile,keyfile] [-v] ring\n");
    std::exit(1);
}

int main(int argc, char** argv) {
    elog_init(argc, argv);
    Settings settings;
    std::string why;
    std::string path = front_end_args(argc, argv, "p:P:H:s:n:m:o:T:v", settings, &why);
    if (path.empty()) {
        if (why.empty()) usage();
        elog_die(0, "%s\n", why.c_str());
    }
    auto ring = open_ring(path, settings, &why);
    if (!ring) elog_die(0, "%s\n", why.c_str());
    Frontend::install_signal_handlers();
    Frontend server(settings, std::move(ring));
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
