// orbserver: serves a ring file to many clients over TCP.
#include <cstdio>
#include <cstdlib>

#include "frontend.h"
#include "stock/elog.h"

static void usage() {
    std::fprintf(stderr,
                 "Usage: orbserver [-p pf] [-P [address:]port] [-s size] [-n npkts] [-m maxpkts] "
                 "[-o portfile] [-T certfile,keyfile] [-v] ring\n");
    std::exit(1);
}

int main(int argc, char** argv) {
    elog_init(argc, argv);
    Settings settings;
    std::string why;
    std::string path = front_end_args(argc, argv, "p:P:s:n:m:o:T:v", settings, &why);
    if (path.empty()) {
        if (why.empty()) usage();
        elog_die(0, "%s\n", why.c_str());
    }
    auto ring = open_ring(path, settings, &why);
    if (!ring) elog_die(0, "%s\n", why.c_str());
    Frontend::install_signal_handlers();
    Frontend server(settings, std::move(ring));
    if (std::string e = server.listen_tcp(); !e.empty()) elog_die(0, "%s\n", e.c_str());
    int status = server.run();
    elog_notify(0, "stopped\n");
    return status;
}
