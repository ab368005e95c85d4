// Arbitrary bytes into the protocol decoders: the first byte picks requests or
// responses and the buffer size, the rest is the stream.  Every message that
// decodes is encoded again, so the encoders see whatever a hostile peer can
// make the decoders produce.
#include <sys/mman.h>

#include "fuzz.h"
#include "orb/orbfile.h"
#include "stock/bns.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    // The checks read the variable whatever its value; a smaller limit keeps
    // each run from allocating megabytes for sizes it will then not receive.
    Orb_max_data_bytes = (data[0] & 0x1c) == 0x1c ? 4000000 : 100000;
    static int fd = memfd_create("wire_fuzz", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, 0) != 0) return 0;
    if (size > 1 && pwrite(fd, data + 1, size - 1, 0) != (ssize_t)(size - 1)) return 0;
    lseek(fd, 0, SEEK_SET);
    int mode = data[0] & 1;
    Bns* in = bnsnew(fd, (data[0] & 2) ? 16 : 8192);
    bnstimeout(in, 0);
    Bns* out = bnsnew(-1, 256);
    Orbrequest* q = newOrbrequest();
    Orbresponse* r = newOrbresponse();
    for (int n = 0; n < 64; n++) {
        if (mode == 0 ? gbnsOrbrequest(in, q) != 0 : gbnsOrbresponse(in, r) != 0) break;
        mode == 0 ? pbnsOrbrequest(out, q) : pbnsOrbresponse(out, r);
        bnsclr(out);
    }
    freeOrbrequest(q);
    freeOrbresponse(r);
    bnsfree(out);
    bnsfree(in);
    return 0;
}
