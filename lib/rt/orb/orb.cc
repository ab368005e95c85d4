// Interim bodies so that callers link while the library is filled in.
#include "orb/orb.h"

int OrbVerbose = 0;

int orbopen(const char*, const char*) { return -1; }
int orbclose(int) { return -1; }
Orbfile* orb2orbfile(int) { return nullptr; }
int orbclient(Orbfile*, Orbrequest*, Orbresponse*) { return -1; }
void orbdump(FILE*, int, int) {}
int orbseek(int, int) { return -1; }
int orbtell(int) { return -1; }
int orbafter(int, double) { return -1; }
int orbselect(int, const char*) { return -1; }
int orbreject(int, const char*) { return -1; }
int orbping(int, int* version) { *version = -1; return -1; }
int orbid(int, int* id) { *id = -1; return -1; }
int orbstat(int, Orbstat** status) { *status = nullptr; return -1; }
int orbclients(int, double*, Orbclient** clients, int* n) { *clients = nullptr; *n = 0; return -1; }
int orbsources(int, double*, Orbsrc** sources, int* n) { *sources = nullptr; *n = 0; return -1; }
int orbsetpri(int, int, int) { return -1; }
int orbkill(int, int) { return -1; }
int orbhalt(int) { return -1; }
int orbset_logging(int, int) { return -1; }
int orbstashselect(int, int) { return -1; }
int orbrup(const char*, int, double*, double*, int*) { return -1; }
int orbposition(int, const char*) { return -1; }
int orbget(int, int, int*, char*, double*, char**, int*, int*) { return -1; }
int orbgetstash(int, char*, int*, double*, char**, int*, int*) { return -1; }
int orbreap(int, int*, char*, double*, char**, int*, int*) { return -1; }
int orbreapn(int, int, int*, char*, double*, char**, int*, int*) { return -1; }
int orbreaphdr(int, int*, char*, double*) { return -1; }
int orbreapt(int, double, int*, char*, double*, char**, int*, int*) { return -1; }
int orbreap_timeout(int, double, int*, char*, double*, char**, int*, int*) { return -1; }
int orbreap_nd(int, int*, char*, double*, char**, int*, int*) { return -1; }
int get_pkttime(Orbfile*, double* time) { *time = 0; return -1; }
int orbput(int, const char*, double, const char*, int) { return -1; }
int orbputx(int, const char*, double, const char*, int) { return -1; }
LagParams* pfget_orblag_params(Pf*) { return new LagParams; }
void freeLagParams(LagParams* p) { delete p; }
void freeLaggards(Laggards* l) { delete l; }
int orbput_nolag(int, const char*, double, const char*, int, LagParams*) { return -1; }
double orblag(int, const char*, const char*, Laggards**) { return -2; }
double lagvalue(int, int, int, int) { return 1; }
int orbrange(int) { return 1; }
int orbreopen(Orbfile*) { return -1; }
int orbresurrect(int, int*, double*) { return -1; }
int orbreposition(int, double, int, double) { return -1; }
extern "C" int orbelog(const char*, const char*, const char*) { return -1; }
