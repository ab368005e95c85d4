// Entry: revision line, options, parameter file, then send or receive mode.
#include "ferrant2.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "orb/orb.h"
#include "stock/elog.h"
#include "stock/path.h"
#include "stock/pf.h"

Parameters Params;
LagParams* Lag = nullptr;
int Verbose = 0;
char* Net_sta = nullptr;

// The settings point into this tree, which lives as long as the process.
Pf* Params_pf = nullptr;

namespace {

// A string setting that an empty value leaves unset.
char* nonempty(Pf* pf, const char* key) {
    char* s = pfget_string(pf, key);
    return (s == nullptr || *s == '\0') ? nullptr : s;
}

}  // namespace

void usage() {
    fprintf(stderr,
            "Usage: ferrant2 [-p pf] [-v] [-w watchdir] [file ...] orb\n"
            "       ferrant2 [-p pf] [-S state] [-v] orb\n\n");
    exit(1);
}

void setup_parameters(const char* pfname) {
    Pf*& pf = Params_pf;
    if (pfread(pfname, &pf) == -1 || pf == nullptr) {
        elog_die(0, "Can't read parameter file %s", pfname);
    }
    Params.match = nonempty(pf, "match");
    Params.reject = nonempty(pf, "reject");
    Params.directory = nonempty(pf, "directory");
    Params.starting_position = pfget_string(pf, "starting_position");
    Params.preserve_directories = pfget_boolean(pf, "preserve_directories");
    Params.bytes_per_packet = pfget_int(pf, "bytes_per_packet");
    Lag = pfget_orblag_params(pf);
    Params.file_match = nonempty(pf, "file_match");
    Params.file_reject = nonempty(pf, "file_reject");
}

int main(int argc, char** argv) {
    char statefile[PATH_MAX];
    const char* watchdir = nullptr;
    int errflag = 0;

    elog_notify(0, "$Revision: 1.7 $ $Date: 2007/01/17 18:24:39 $\n");
    elog_init(argc, argv);
    const char* pfname = argv[0];

    int c;
    while ((c = getopt(argc, argv, "+N:p:S:vVw:")) != -1) {
        switch (c) {
        case 'N': Net_sta = optarg; break;
        case 'p': pfname = optarg; break;
        case 'S':
            Params.statefile = abspath(optarg, statefile) ? statefile : optarg;
            break;
        case 'v': Verbose++; break;
        case 'V': usage();
        case 'w': watchdir = optarg; break;
        default: errflag++; break;
        }
    }

    setup_parameters(pfname);

    if (errflag || argc - optind <= 0) usage();

    if (watchdir == nullptr && argc - optind <= 1) recv_files(argc, argv);
    return xmit_files(argc, argv, watchdir) == 0 ? 0 : 1;
}
