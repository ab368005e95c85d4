// A program of one's own, built against the installed headers and liborb only:
// "client w RING N" puts N xfer packets whose data is "packet <i>";
// "client r RING N" reads N packets from the oldest and prints for each its
// source name, sequence number and data.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "orb/orb.h"
#include "pkt/pkt.h"
#include "stock/elog.h"

int main(int argc, char** argv) {
    elog_init(argc, argv);
    if (argc != 4) elog_die(0, "usage: client w|r ring count\n");
    bool writing = std::strcmp(argv[1], "w") == 0;
    int orb = orbopen(argv[2], writing ? "w" : "r"), nbytes = 0, bufsize = 0, pktid;
    if (orb < 0) elog_die(0, "can't open %s\n", argv[2]);
    char srcname[PKT_SRCNAMESIZE], *buf = nullptr;
    double time;
    Packet* pkt = writing ? newPkt() : nullptr;
    if (!writing) orbseek(orb, ORBOLDEST);
    for (int i = 0; i < std::atoi(argv[3]); i++) {
        if (writing) {
            std::string text = "packet " + std::to_string(i);
            std::strcpy(pkt->parts.src_net, "outside");
            pkt->pkttype = suffix2pkttype("xfer");
            pkt->dfile = text.data();
            pkt->dfile_size = int(text.size());
            pkt->string_size = i;
            pkt->time = 1e9 + i;
            if (stuffPkt(pkt, srcname, &time, &buf, &nbytes, &bufsize) < 0 ||
                orbput(orb, srcname, time, buf, nbytes) < 0)
                elog_die(0, "can't put packet %d\n", i);
            pkt->dfile = nullptr;  // not ours to free
        } else if (orbreap_timeout(orb, 60, &pktid, srcname, &time, &buf, &nbytes, &bufsize) < 0) {
            elog_die(0, "no packet %d\n", i);
        } else if (unstuffPkt(srcname, time, buf, nbytes, &pkt) != PKT_XFER_TYPE) {
            elog_die(0, "packet %d is not an xfer packet\n", i);
        } else {
            std::printf("%s %d %.*s\n", srcname, pkt->string_size, pkt->dfile_size, pkt->dfile);
        }
    }
    freePkt(pkt);
    std::free(buf);
    orbclose(orb);
    return 0;
}
