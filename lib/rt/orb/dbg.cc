// Debugging aids: the printed form of a connection and the exchange logs kept under
// ORB_DUMP.
#include <cstdlib>
#include <cstring>
#include <string>

#include "orb/orbpriv.h"
#include "stock/allot.h"
#include "stock/bns.h"
#include "stock/elog.h"
#include "stock/epoch.h"
#include "stock/path.h"
#include "stock/printable.h"

void orb_open_dump(Orbfile* of) {
    const char* dir = getenv("ORB_DUMP");
    if (!dir || !*dir) return;
    char* when = epoch2str(std_now(), "%Y/%j/%Y-%j-%H#%M#%S");
    std::string name = of->name;
    for (char& c : name)
        if (c == '/') c = '_';  // a file-backed ring's path must not make directories of its own
    std::string path = std::string(dir) + "/" + (when ? when : "") + "_" + name;
    free(when);
    if (auto c = path.rfind(':'); c != std::string::npos && c > strlen(dir)) path[c] = '#';
    std::string parent = path.substr(0, path.rfind('/'));
    makedir(parent.c_str());
    FILE* f = fopen(path.c_str(), "w");
    if (!f) {
        elog_complain(1, "Can't open file '%s'", path.c_str());
        return;
    }
    of->dump = f;
    free(of->PacketDump);
    of->PacketDump = allot_strdup(path.c_str(), "PacketDump");
    of->sZPacketDump = static_cast<int>(path.size()) + 1;
    of->sZdump = 1;
}

void orb_exchange_log(Orbfile* of, const char* direction, const char* label, const char* bytes, int n) {
    if (!of->dump || n < 0) return;
    std::string when = orb_time(std_now());
    fprintf(of->dump, "\n#orb x %s-%s %d %s\n", direction, label ? label : "anon", n, when.c_str());
    hexdump(of->dump, bytes, n);
    fputc('\n', of->dump);
    fflush(of->dump);
}

void orbdump(FILE* file, int orb, int flag) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return;
    fprintf(file, "Orbfile for fd #%d\n", orb);
    fprintf(file, "\tOrbfile->name = %s # server name\n", of->name ? of->name : "");
    fprintf(file, "\tOrbfile->fd = %d # orb descriptor\n", of->fd);
    fprintf(file, "\tOrbfile->perm = %c # permission (r or w)\n", of->perm);
    fprintf(file, "\tOrbfile->lastpktid = %d # last packet read or positioned to\n", of->lastpktid);
    fprintf(file, "\tOrbfile->lastpkttime = %s # time of last packet\n", orb_time(of->lastpkttime).c_str());
    fprintf(file, "\tOrbfile->server_start = %s # server start time\n", orb_time(of->server_start).c_str());
    fprintf(file, "\tOrbfile->orb_start = %s # ring creation time\n", orb_time(of->orb_start).c_str());
    fprintf(file, "\tOrbfile->opentime = %s # open or last reconnection attempt\n",
            orb_time(of->opentime).c_str());
    fprintf(file, "\tOrbfile->PacketDump = %s # exchange log\n", of->PacketDump ? of->PacketDump : "");
    fprintf(file, "\tOrbfile->resend = %d # messages kept for resending\n", of->resend);
    fprintf(file, "\tOrbfile->prevlast = %d # latest pktid at last check\n", of->prevlast);
    fprintf(file, "\tOrbfile->cnt = %d # quiet time-outs in a row\n", of->cnt);
    fprintf(file, "\tOrbfile->nonblocking = %d # descriptor in non-blocking mode\n", of->nonblocking);
    fprintf(file, "\tOrbfile->error = %d # 1 response unread, 2 request unsent\n", of->error);
    fprintf(file, "\tOrbfile->first_nd_failure = %d # first failed bounded read\n", of->first_nd_failure);
    fprintf(file, "\tOrbfile->once = %d # \n", of->once);
    fprintf(file, "\tOrbfile->reopen = %d # reconnect automatically\n", of->reopen);
    fprintf(file, "\tOrbfile->reaped = %d # streaming read active\n", of->reaped);
    fprintf(file, "\tOrbfile->signer = %s # signer of an authenticated server\n", of->signer);
    if (flag) {
        if (of->req) dumpOrbrequest(file, of->req);
        if (of->reply) dumpOrbresponse(file, of->reply);
        fprintf(file, "input stream:\n");
        if (of->in) bnsdump(file, of->in);
        fprintf(file, "output stream:\n");
        if (of->out) bnsdump(file, of->out);
    }
}
