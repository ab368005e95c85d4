// forbserver: serves a ring file to the one client on its standard input and
// output (the client library starts it for ring names that are file paths).
// Nothing but protocol may go to standard output: the log writes to stderr.
#include <cstdio>
#include <cstdlib>

#include "frontend.h"
#include "stock/elog.h"

static void usage() {
    std::fprintf(stderr, "Usage: forbserver [-p pf] [-s size] [-n npkts] [-m maxpkts] [-v] ring\n");
    std::exit(1);
}

int main(int argc, char** argv) {
    elog_init(argc, argv);
    Settings settings;
    std::string why;
    std::string path = front_end_args(argc, argv, "p:s:n:m:v", settings, &why);
    if (path.empty()) {
        if (why.empty()) usage();
        elog_die(0, "%s\n", why.c_str());
    }
    auto ring = open_ring(path, settings, &why);
    if (!ring) elog_die(0, "%s\n", why.c_str());
    Frontend::install_signal_handlers();
    Frontend server(settings, std::move(ring), path);
    server.add_stdio_client(0, 1);
    return server.run();
}
