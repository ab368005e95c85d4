// A program of one's own, built against the installed headers and liborb only:
// "client RING N" puts N xfer packets whose data is "packet <i>", then reads N
// packets from the oldest and prints for each its source name, sequence
// number and data.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orb/orb.h"
#include "pkt/pkt.h"
#include "stock/elog.h"

int main(int argc, char** argv) {
    elog_init(argc, argv);
    if (argc != 3) elog_die(0, "usage: client ring count\n");
    int w = orbopen(argv[1], "w"), r = orbopen(argv[1], "r"), n = std::atoi(argv[2]);
    int nbytes = 0, bufsize = 0, pktid;
    if (w < 0 || r < 0) elog_die(0, "can't open %s\n", argv[1]);
    char srcname[PKT_SRCNAMESIZE], *buf = nullptr;
    double time;
    Packet* pkt = newPkt();
    std::strcpy(pkt->parts.src_net, "outside");
    pkt->pkttype = suffix2pkttype("xfer");
    for (int i = 0; i < n; i++) {
        std::string text = "packet " + std::to_string(i);
        pkt->dfile = text.data();  // not ours to free: taken back below
        pkt->dfile_size = int(text.size());
        pkt->string_size = i;
        pkt->time = 1e9 + i;
        if (stuffPkt(pkt, srcname, &time, &buf, &nbytes, &bufsize) < 0 ||
            orbput(w, srcname, time, buf, nbytes) < 0)
            elog_die(0, "can't put packet %d\n", i);
        pkt->dfile = nullptr;
    }
    orbseek(r, ORBOLDEST);
    for (int i = 0; i < n; i++) {
        if (orbreap_timeout(r, 60, &pktid, srcname, &time, &buf, &nbytes, &bufsize) < 0 ||
            unstuffPkt(srcname, time, buf, nbytes, &pkt) != PKT_XFER_TYPE)
            elog_die(0, "no xfer packet %d\n", i);
        std::printf("%s %d %.*s\n", srcname, pkt->string_size, pkt->dfile_size, pkt->dfile);
    }
    return 0;
}
