// A program of one's own, built against the installed headers and liborb only:
// "client RING N" puts N packets whose data is "packet <i>", then reads N
// packets from the oldest and prints for each its source name and data.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "orb/orb.h"
#include "stock/elog.h"

int main(int argc, char** argv) {
    elog_init(argc, argv);
    if (argc != 3) elog_die(0, "usage: client ring count\n");
    int w = orbopen(argv[1], "w"), r = orbopen(argv[1], "r"), n = std::atoi(argv[2]);
    int nbytes = 0, bufsize = 0, pktid;
    if (w < 0 || r < 0) elog_die(0, "can't open %s\n", argv[1]);
    char srcname[ORB_SRCNAME_SIZE + 1], *buf = nullptr;
    double time;
    for (int i = 0; i < n; i++) {
        std::string text = "packet " + std::to_string(i);
        if (orbput(w, "outside/x", 1e9 + i, text.data(), int(text.size())) < 0)
            elog_die(0, "can't put packet %d\n", i);
    }
    orbseek(r, ORBOLDEST);
    for (int i = 0; i < n; i++) {
        if (orbreap_timeout(r, 60, &pktid, srcname, &time, &buf, &nbytes, &bufsize) < 0)
            elog_die(0, "no packet %d\n", i);
        std::printf("%s %.*s\n", srcname, nbytes, buf);
    }
    return 0;
}
