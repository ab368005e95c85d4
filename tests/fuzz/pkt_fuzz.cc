// Arbitrary source names and bodies through unstuffPkt and showPkt; whatever
// unpacks must pack again to the same bytes.
#include "fuzz.h"
#include "pkt/pkt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    size_t namelen = data[0] % PKT_SRCNAMESIZE;
    if (namelen > size - 1) namelen = size - 1;
    char name[PKT_SRCNAMESIZE] = {};
    memcpy(name, data + 1, namelen);
    const char* body = reinterpret_cast<const char*>(data + 1 + namelen);
    int nbytes = static_cast<int>(size - 1 - namelen);
    if (namelen == 0) strcpy(name, "h/xfer/1/a");
    Packet* pkt = nullptr;
    if (unstuffPkt(name, 0, body, nbytes, &pkt) == PKT_XFER_TYPE) {
        char srcname[PKT_SRCNAMESIZE];
        double t;
        char* buf = nullptr;
        int n = 0, bufsize = 0;
        fuzz::require(stuffPkt(pkt, srcname, &t, &buf, &n, &bufsize) == 0, "stuffPkt");
        fuzz::require(n == nbytes && memcmp(buf, body, n) == 0, "packed again differently");
        free(buf);
    }
    freePkt(pkt);
    FILE* devnull = fopen("/dev/null", "w");
    if (devnull) {
        showPkt(1, name, 0, body, nbytes, devnull, 5);
        fclose(devnull);
    }
    return 0;
}
