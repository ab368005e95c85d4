// Resurrection: after a restart of the client process, put a reader back at the packet
// its state file saved.
#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "orb/orbpriv.h"
#include "stock/bury.h"
#include "stock/elog.h"
#include "stock/epoch.h"

namespace {
std::mutex Slots_mutex;
// The ring start time saved with the state file, one slot per connection name. The
// state file keeps the address until the process ends, so the slots live as long.
std::map<std::string, std::unique_ptr<double>> Slots;

double* slot_for(const char* name) {
    std::lock_guard<std::mutex> lock(Slots_mutex);
    auto& s = Slots[name];
    if (!s) s = std::make_unique<double>(0.0);
    return s.get();
}
}  // namespace

void orb_note_orb_start(Orbfile* of) {
    if (double* slot = orb_extra(of)->saved_orb_start) *slot = of->orb_start;
}

int orbresurrect(int orb, int* pktid, double* pkttime) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    std::string base = of->name;
    double* slot = slot_for(of->name);
    *slot = of->orb_start;
    int a = resurrect((base + "{orb_start}").c_str(), slot, TIME_RELIC);
    int b = resurrect((base + "{last_pktid}").c_str(), pktid, INT_RELIC);
    int c = resurrect((base + "{last_pkttime}").c_str(), pkttime, TIME_RELIC);
    if (a < 0 || b < 0 || c < 0) return -1;
    double saved = *slot;
    // From here on the slot follows the live ring, so that the next bury saves it.
    *slot = of->orb_start;
    orb_extra(of)->saved_orb_start = slot;
    return orbreposition(orb, saved, *pktid, *pkttime);
}

int orbreposition(int orb, double orb_start, int pktid, double pkttime) {
    Orbfile* of = orb2orbfile(orb);
    if (!of) return -1;
    orb_check_verbose();
    if (OrbVerbose) elog_debug(0, "Attempt to reposition to packet #%d or time=%s\n", pktid, orb_time(pkttime).c_str());
    bool by_time = false;
    if (std::fabs(of->orb_start - orb_start) >= 1) {
        elog_complain(0, "orbserver %s was reset at         %s\n state file built for earlier orb %s\n", of->name,
                      orb_time(of->orb_start).c_str(), orb_time(orb_start).c_str());
        if (pktid == -1) return 0;
        by_time = true;
    } else if (pktid < 0) {
        return 0;  // nothing was saved: the position stays as the open left it
    } else {
        int r = orbseek(orb, pktid);
        if (r != pktid) {
            elog_notify(0, "orbseek to %d returns %d during resurrection of %s\n", pktid, r, of->name);
            by_time = true;
        } else {
            double t;
            if (get_pkttime(of, &t) == 0 && std::fabs(t - pkttime) <= 1) {
                if (OrbVerbose) elog_debug(0, "orbseek to pktid #%d gets to correct packet\n", pktid);
                elog_notify(0, "resurrection succeeds for %s\n", of->name);
                return 0;
            }
            elog_notify(0, "orbseek to pktid #%d succeeds, but packet has wrong time %s, not %s\n", pktid,
                        orb_time(t).c_str(), orb_time(pkttime).c_str());
            by_time = true;
        }
    }
    int result = 0;
    if (by_time) {
        double after = pkttime - 0.00001;
        int r = orbafter(orb, after);
        if (r < 0) {
            if (OrbVerbose)
                elog_debug(0, "orbafter to %s returns %d during resurrection of %s\n", orb_time(after).c_str(), r,
                           of->name);
            result = -3;
        } else {
            double t;
            get_pkttime(of, &t);
            if (std::fabs(t - pkttime) <= 1) {
                elog_notify(0, "orbafter to %s on %s gets to wrong packet, but correct time (%s)\n",
                            orb_time(after).c_str(), of->name, orb_time(t).c_str());
                result = -2;
            } else {
                elog_notify(0, "orbafter returns packet at %s, not %s\n", orb_time(t).c_str(),
                            orb_time(pkttime).c_str());
                result = -1;
            }
        }
    }
    if (result != 0) elog_notify(0, "resurrection fails for %s\n", of->name);
    return result;
}
