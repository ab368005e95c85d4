// The throttled write: hold the writer back while a chosen reader lags too far.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "orb/orbpriv.h"
#include "stock/elog.h"
#include "stock/epoch.h"

namespace {
std::mutex Lag_mutex;
long Calls;
Laggards* Record;
long Written;

void pause_seconds(int seconds) {
    // A zero wait would hammer the server with status requests; pace it a little.
    double s = seconds > 0 ? seconds : 0.05;
    std::this_thread::sleep_for(std::chrono::duration<double>(s));
}
}  // namespace

int orbput_nolag(int orb, const char* srcname, double time, const char* packet, int nbytes, LagParams* params) {
    bool check = params && (params->wait_match || params->wait_reject);
    if (check) {
        std::lock_guard<std::mutex> lock(Lag_mutex);
        if (Record && Calls++ <= Record->range * params->testfreq) check = false;
    }
    if (check) {
        double lag = orblag(orb, params->wait_match, params->wait_reject, &Record);
        {
            std::lock_guard<std::mutex> lock(Lag_mutex);
            if (Calls > Record->range * params->testfreq) Calls = 0;
        }
        if (lag < -1) elog_die(0, "Error in match or reject parameters");
        if (lag > params->lag_trigger || lag == -1) {
            double start = std_now();
            if (lag == -1)
                elog_notify(0, "No readers found on output orb; waiting for a reader");
            else if (params->verbose)
                elog_notify(0, "lag=%.2f, waiting for lag=%.2f", lag, params->lag_reset);
            while (lag > params->lag_reset || lag == -1) {
                pause_seconds(params->wait_seconds);
                lag = orblag(orb, params->wait_match, params->wait_reject, &Record);
                if (lag < -1) elog_die(0, "Error in match or reject parameters");
                if (params->verbose >= 2 && lag != -1)
                    elog_notify(0, "lag=%.2f, waiting for lag=%.2f", lag, params->lag_reset);
            }
            if (params->verbose) {
                char* d = strtdelta(std_now() - start);
                elog_notify(0, "waited %s for orb readers", d ? d : "");
                free(d);
            }
        }
    }
    int r = params && params->axe ? orbputx(orb, srcname, time, packet, nbytes)
                                  : orbput(orb, srcname, time, packet, nbytes);
    if (params && params->verbose >= 3) {
        long count;
        {
            std::lock_guard<std::mutex> lock(Lag_mutex);
            count = ++Written;
        }
        std::string when = orb_time(time);
        elog_debug(0, "#%ld '%s': %s : %d bytes\n", count, srcname, when.c_str(), nbytes);
    }
    return r < 0 ? -1 : 0;
}
