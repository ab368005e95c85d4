// ferrant2 throughput against md5sum of the same bytes and, end to end,
// against rsync's daemon on loopback moving the same data in the same run
// (with MD5 as its digest, the same digest work, and with its default);
// and the peak memory of each process. Prints rows of the benchmark table.
//   FERRANT_BENCH_MB     total data size in MiB (default 1024)
//   FERRANT_BENCH_FILES  number of files in the many-files run (default 10000)
//   FERRANT_BENCH_RUNS   end-to-end runs of each tool; the best counts (default 3)
#include <fcntl.h>
#include <ftw.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include "support/nats_cluster.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string Build = FERRANT_BUILD_DIR;
std::string Tmp;
bool Failed = false;  // keeps Tmp's logs for a look afterwards

double seconds_since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

size_t count(const std::string& hay, const std::string& needle) {
    size_t n = 0;
    for (size_t at = hay.find(needle); at != std::string::npos; at = hay.find(needle, at + 1)) n++;
    return n;
}

void make_old(const std::string& path) {
    struct timeval tv[2];
    gettimeofday(&tv[0], nullptr);
    tv[0].tv_sec -= 3600;
    tv[1] = tv[0];
    utimes(path.c_str(), tv);
}

void write_data(const std::string& path, size_t n, uint64_t seed) {
    std::vector<uint64_t> block(1 << 17);
    FILE* f = fopen(path.c_str(), "w");
    uint64_t x = seed * 0x9e3779b97f4a7c15ull + 1;
    for (size_t done = 0; done < n;) {
        for (auto& w : block) {
            x ^= x << 13, x ^= x >> 7, x ^= x << 17;
            w = x;
        }
        size_t k = std::min(n - done, block.size() * 8);
        fwrite(block.data(), 1, k, f);
        done += k;
    }
    fclose(f);
    make_old(path);
}

struct Proc {
    pid_t pid = -1;
    std::string err;
    struct rusage ru {};
    int status = -1;
};

Proc start(const std::vector<std::string>& argv, const std::string& cwd, const std::string& errfile) {
    Proc p;
    p.err = errfile;
    p.pid = fork();
    if (p.pid == 0) {
        setpgid(0, 0);
        int fd = open(errfile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        int null = open("/dev/null", O_RDWR);
        dup2(null, 0), dup2(null, 1);
        if (chdir(cwd.c_str()) != 0) _exit(127);
        std::vector<char*> a;
        for (auto& s : argv) a.push_back(const_cast<char*>(s.c_str()));
        a.push_back(nullptr);
        execvp(a[0], a.data());
        _exit(127);
    }
    setpgid(p.pid, p.pid);
    return p;
}

void finish(Proc& p) {
    if (p.pid > 0 && wait4(p.pid, &p.status, 0, &p.ru) == p.pid) p.pid = 0;
}

void stop(Proc& p) {
    if (p.pid > 0) {
        kill(-p.pid, SIGTERM);
        finish(p);
    }
}

// Peak resident size of a live process in MiB, from /proc.
double vmhwm(pid_t pid) {
    std::ifstream f("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(f, line)) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    }
    return 0;
}

double run_md5sum(const std::string& cmd) {
    auto t = Clock::now();
    if (system((cmd + " > /dev/null").c_str()) != 0) return 0;
    return seconds_since(t);
}

// Polls the log for n occurrences of text, reading only what was appended
// since the last look: the log of a many-file run grows to megabytes, and
// rereading it would take CPU from the processes being measured.
bool wait_for(const std::string& file, const std::string& text, size_t n, double limit) {
    auto t = Clock::now();
    std::ifstream f;
    std::string carry;  // a tail that may hold the start of text
    size_t seen = 0;
    std::vector<char> buf(1 << 16);
    while (seconds_since(t) < limit) {
        std::string fresh;
        if (!f.is_open()) f.open(file, std::ios::binary);  // the child may not have made it yet
        f.clear();
        while (f.read(buf.data(), std::streamsize(buf.size())) || f.gcount() > 0)
            fresh.append(buf.data(), size_t(f.gcount()));
        if (!fresh.empty()) {
            std::string hay = carry + fresh;
            seen += count(hay, text);
            size_t keep = std::min(hay.size(), text.size() - 1);
            carry = hay.substr(hay.size() - keep);
        }
        if (seen >= n) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

// wait_match: the readers whose lag holds the sender back ("": none).
void write_pf(const std::string& path, const std::string& dir, const std::string& start, long bpp = 1000000,
              const std::string& wait_match = "") {
    std::ofstream f(path);
    f << "directory " << dir << "\nstarting_position " << start
      << "\nmatch\nreject\npreserve_directories yes\nbytes_per_packet " << bpp << "\nfile_match\nfile_reject\n"
         "test_freq 0.1\nlag_trigger 0.5\nlag_reset 0.2\nwait_seconds 1\nwait_match " << wait_match
      << "\nwait_reject\nuse_orbputx no\n";
}

void row(const std::string& figure, double mbs, double ref, double bar, const std::string& note = "") {
    double ratio = ref > 0 ? mbs / ref : 0;
    printf("| %s%s | %.0f MB/s | md5sum %.0f MB/s | %.2f | >= %.1f%s |\n", figure.c_str(), note.c_str(), mbs, ref,
           ratio, bar, ratio >= bar ? "" : " (missed)");
    fflush(stdout);
}

// A time-based row: ferrant2's seconds against a reference's, as a speed ratio.
void time_row(const std::string& figure, double secs, const std::string& ref_name, double ref_secs, double bar,
              const std::string& also = "") {
    double ratio = secs > 0 ? ref_secs / secs : 0;
    printf("| %s | %.2f s | %s %.2f s%s | %.2f | >= %.2f%s |\n", figure.c_str(), secs, ref_name.c_str(), ref_secs,
           also.c_str(), ratio, bar, ratio >= bar ? "" : " (missed)");
    fflush(stdout);
}

void remove_tree(const std::string& dir) {
    nftw(dir.c_str(), [](const char* p, const struct stat*, int, struct FTW*) { return remove(p), 0; }, 32,
         FTW_DEPTH | FTW_PHYS);
}

// rsync's daemon on a loopback port of its own, writing below Tmp/rsync.
struct Rsyncd {
    Proc proc;
    int port = 0;
    Rsyncd() {
        mkdir((Tmp + "/rsync").c_str(), 0755);
        for (int p = 28730; p < 28830 && port == 0; p++) {
            std::ofstream conf(Tmp + "/rsyncd.conf");
            conf << "use chroot = no\nuid = " << getuid() << "\ngid = " << getgid() << "\n[mod]\npath = " << Tmp
                 << "/rsync\nread only = no\n";
            conf.close();
            proc = start({"rsync", "--daemon", "--no-detach", "--address=127.0.0.1", "--port=" + std::to_string(p),
                          "--config=" + Tmp + "/rsyncd.conf"},
                         Tmp, Tmp + "/rsyncd.log");
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            if (waitpid(proc.pid, nullptr, WNOHANG) == 0) port = p;
        }
    }
    ~Rsyncd() { stop(proc); }

    // Seconds to copy src (a file, or a directory's contents with a
    // trailing "/") into an empty destination; 0 when rsync failed.
    double copy(const std::string& src, bool md5) {
        remove_tree(Tmp + "/rsync/dst");
        if (port == 0) return 0;
        std::string cmd = "rsync -a " + std::string(md5 ? "--checksum-choice=md5 " : "") + src +
                          " rsync://127.0.0.1:" + std::to_string(port) + "/mod/dst/ 2>>" + Tmp + "/rsync.log";
        auto t = Clock::now();
        bool ok = system(cmd.c_str()) == 0;
        double secs = seconds_since(t);
        remove_tree(Tmp + "/rsync/dst");
        return ok ? secs : 0;
    }
};

}  // namespace

// ferrant2 through two orbservers on a JetStream stream of a 3-node loopback
// cluster (3 replicas): sent through one front end, received through the other.
template <class E2e>
void jetstream_row(const std::string& many, size_t nfiles, E2e& e2e) {
    if (nats_test::server_binary().empty()) return;
    nats_test::Cluster cluster;
    if (std::string why = cluster.wait_ready(); !why.empty()) {
        printf("| ferrant2 end to end through orbserver -J | failed: %s | | | |\n", why.c_str());
        return;
    }
    std::string urls, names[2];
    for (const auto& u : cluster.urls()) urls += (urls.empty() ? "" : ",") + u;
    Proc fe[2];
    for (int i = 0; i < 2; i++) {
        std::string port = Tmp + "/js-port" + std::to_string(i);
        fe[i] = start({Build + "/bin/orbserver", "-J", urls, "-s", "1400M", "-P", "127.0.0.1:0", "-o", port, "files"}, Tmp,
                      Tmp + "/js-orbserver" + std::to_string(i) + ".log");
        for (int k = 0; k < 3000 && (names[i].empty() || names[i].back() != '\n'); k++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            names[i] = slurp(port);
        }
        if (!names[i].empty()) names[i].pop_back();
    }
    double secs = e2e(many + "/", nfiles, 1000000, std::to_string(nfiles) + " files through orbserver -J",
                      names[0], names[1]);
    if (secs > 0)
        printf("| ferrant2 end to end through two orbserver -J front ends (3 replicas, loopback cluster), %zu files, "
               "1000000-byte packets | %.2f s | | | reported |\n", nfiles, secs);
    for (Proc& p : fe) stop(p);
}

int main() {
    long mb = getenv("FERRANT_BENCH_MB") ? atol(getenv("FERRANT_BENCH_MB")) : 1024;
    long nfiles = getenv("FERRANT_BENCH_FILES") ? atol(getenv("FERRANT_BENCH_FILES")) : 10000;
    long runs = getenv("FERRANT_BENCH_RUNS") ? std::max(1L, atol(getenv("FERRANT_BENCH_RUNS"))) : 3;
    char tmpl[] = "/tmp/ferrant-bench.XXXXXX";
    Tmp = mkdtemp(tmpl);
    setenv("QUORVANE", Build.c_str(), 1);
    setenv("ELOG_MAXMSG", "0", 1);
    std::string ferrant = Build + "/bin/ferrant2";
    std::string size_note = mb == 1024 ? "" : " (" + std::to_string(mb) + " MiB)";
    double bytes = double(mb) * 1048576.0;
    long ringmb = mb + mb / 4 + 64;

    std::string big = Tmp + "/big.bin";
    write_data(big, size_t(bytes), 1);
    run_md5sum("md5sum " + big);  // warm the page cache
    double ref = bytes / 1e6 / run_md5sum("md5sum " + big);

    // Sender alone, into a file-backed ring large enough for the whole file.
    // The ring is made beforehand, as an operator's ring would be: a new
    // ring file first brings all its pages into memory, once.
    std::string ring = Tmp + "/ring@s" + std::to_string(ringmb) + "M";
    write_pf(Tmp + "/b.pf", Tmp + "/in", "oldest");
    double sender_mb = 0;
    bool sent = false;
    for (long bpp : {60000L, 1000000L}) {  // the ring keeps the large-packet run for the receiver
        unlink((Tmp + "/ring").c_str());
        Proc maker = start({Build + "/bin/orbstat", ring}, Tmp, Tmp + "/ring-create.log");
        finish(maker);
        write_pf(Tmp + "/s.pf", Tmp + "/in", "oldest", bpp);
        auto t = Clock::now();
        Proc s = start({ferrant, "-p", Tmp + "/s.pf", big, ring}, Tmp, Tmp + "/sender.log");
        finish(s);
        double st = seconds_since(t);
        sent = WIFEXITED(s.status) && WEXITSTATUS(s.status) == 0;
        std::string what = "ferrant2 sender file -> file-backed ring, one file, " + std::to_string(bpp) +
                           "-byte packets";
        if (sent) row(what, bytes / 1e6 / st, ref, 0.8, size_note);
        else {
            Failed = true;
            printf("| %s | failed, see %s/sender.log | | | |\n", what.c_str(), Tmp.c_str());
        }
        sender_mb = std::max(sender_mb, s.ru.ru_maxrss / 1024.0);  // includes the forbserver it started
    }

    // Receiver alone, from the ring the sender filled.
    auto t = Clock::now();
    Proc r = start({ferrant, "-p", Tmp + "/b.pf", ring}, Tmp, Tmp + "/receiver.log");
    bool got = sent && wait_for(r.err, "ferrant2: received ", 1, 600);
    double rt = seconds_since(t);
    double receiver_mb = vmhwm(r.pid);
    stop(r);
    if (got) row("ferrant2 receiver file-backed ring -> file", bytes / 1e6 / rt, ref, 0.8, size_note);
    else {
        Failed = true;
        printf("| ferrant2 receiver ring -> file | failed, see %s/receiver.log | | | |\n", Tmp.c_str());
    }
    unlink((Tmp + "/in" + big).c_str());
    unlink((Tmp + "/ring").c_str());

    // End to end through orbserver on loopback: one file, then many.
    // The server writes the address it bound to the port file once it is ready.
    Proc server = start({Build + "/bin/orbserver", "-P", "127.0.0.1:0", "-o", Tmp + "/port", "-s",
                         std::to_string(ringmb) + "M", Tmp + "/sring"},
                        Tmp, Tmp + "/server.log");
    std::string name;
    for (int i = 0; i < 2000 && (name.empty() || name.back() != '\n'); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        name = slurp(Tmp + "/port");
    }
    if (!name.empty()) name.pop_back();
    double e2e_sender_mb = 0, e2e_receiver_mb = 0;
    // Seconds from the sender's start to the receiver's nth file, or 0.
    // The sender writes to send_to and the receiver reads from recv_from ("": name).
    auto e2e = [&](const std::string& arg, size_t n, long bpp, const std::string& label,
                   const std::string& send_to = "", const std::string& recv_from = "") -> double {
        // Through another front end the sender is held back by the receiver's lag, as an operator would run it.
        write_pf(Tmp + "/e.pf", Tmp + "/e2e", "newest", bpp, recv_from.empty() ? "" : ".*ferrant2.*");
        std::string log = Tmp + "/e2e-" + std::to_string(bpp) + ".log";
        // A log left by an earlier run would be read before the child truncates it:
        // its "Starting at" and "received" lines would count for this run.
        unlink(log.c_str());
        unlink((log + "-sender").c_str());
        Proc rr = start({ferrant, "-p", Tmp + "/e.pf", recv_from.empty() ? name : recv_from}, Tmp, log);
        bool ok = wait_for(rr.err, "Starting at pktid", 1, 30);
        auto t0 = Clock::now();
        Proc ss;
        if (ok) ss = start({ferrant, "-p", Tmp + "/e.pf", arg, send_to.empty() ? name : send_to}, Tmp, log + "-sender");
        ok = ok && wait_for(rr.err, "ferrant2: received ", n, 900);
        double et = seconds_since(t0);
        e2e_receiver_mb = std::max(e2e_receiver_mb, vmhwm(rr.pid));
        finish(ss);
        e2e_sender_mb = std::max(e2e_sender_mb, ss.ru.ru_maxrss / 1024.0);
        stop(rr);
        remove_tree(Tmp + "/e2e");
        if (!ok) {
            Failed = true;
            printf("| ferrant2 end to end, %s | failed after %zu of %zu files, see %s | | | |\n", label.c_str(),
                   count(slurp(log), "ferrant2: received "), n, log.c_str());
        }
        return ok ? et : 0;
    };
    // Both packet sizes against rsync with MD5 (the bar) and with its default (reported). Each figure is
    // the best of `runs`, the four taken in turn each round: on a shared machine a single run of either
    // tool can be a third slower than its next, and the best run is what each can do.
    Rsyncd rsyncd;
    // The best so far and one more run's seconds; -1 once any run failed (a run returns 0 then).
    auto best = [](double sofar, double secs) {
        if (sofar < 0 || secs == 0) return -1.0;
        return sofar == 0 ? secs : std::min(sofar, secs);
    };
    auto compare = [&](const std::string& src, const std::string& rsync_src, size_t n, const std::string& what,
                       double bar) {
        double md5 = 0, plain = 0, secs[2] = {};
        const long sizes[2] = {1000000, 60000};
        for (long k = 0; k < runs; k++) {
            md5 = best(md5, rsyncd.copy(rsync_src, true));
            plain = best(plain, rsyncd.copy(rsync_src, false));
            for (int i = 0; i < 2; i++)
                if (secs[i] >= 0) {
                    std::string label = what + ", " + std::to_string(sizes[i]) + "-byte packets";
                    secs[i] = best(secs[i], e2e(src, n, sizes[i], label));
                }
        }
        if (md5 <= 0 || plain <= 0) {
            Failed = true;
            printf("| rsync, %s | failed, see %s/rsync.log | | | |\n", what.c_str(), Tmp.c_str());
        }
        for (int i = 0; i < 2; i++) {
            if (secs[i] <= 0 || md5 <= 0) continue;
            char also[96];
            snprintf(also, sizeof also, "; rsync default %.2f s, ratio %.2f", plain, plain / secs[i]);
            time_row("ferrant2 end to end through orbserver, " + what + ", " + std::to_string(sizes[i]) +
                         "-byte packets" + size_note, secs[i], "rsync-md5", md5, bar, also);
        }
        if (secs[0] > 0 && secs[1] > 0)
            time_row("ferrant2 end to end, " + what + ", 60000-byte against 1000000-byte packets", secs[1],
                     "1000000-byte packets", secs[0], 0.85);
    };
    compare(big, big, 1, "one file", 1.1);
    double server_mb = server.pid > 0 ? vmhwm(server.pid) : 0;
    unlink(big.c_str());

    std::string many = Tmp + "/many";
    mkdir(many.c_str(), 0755);
    size_t each = size_t(bytes) / size_t(nfiles);
    for (long i = 0; i < nfiles; i++) {
        std::string d = many + "/d" + std::to_string(i / 100);
        if (i % 100 == 0) mkdir(d.c_str(), 0755);
        write_data(d + "/f" + std::to_string(i), each, uint64_t(i) + 7);
    }
    run_md5sum("find " + many + " -type f -print0 | xargs -0 md5sum");  // warm the page cache
    compare(many, many + "/", size_t(nfiles), std::to_string(nfiles) + " files", 1.3);
    server_mb = std::max(server_mb, server.pid > 0 ? vmhwm(server.pid) : 0);
    stop(server);
    jetstream_row(many, size_t(nfiles), e2e);

    printf("| ferrant2 peak resident memory, %ld MiB file | sender with its forbserver %.0f MiB, receiver %.0f MiB, orbserver %.0f MiB "
           "(end to end through orbserver: sender %.0f, receiver %.0f); the forbserver and orbserver figures "
           "count the ring pages they touched | - | - | independent of file size |\n",
           mb, sender_mb, receiver_mb, server_mb, e2e_sender_mb, e2e_receiver_mb);

    remove_tree(many);
    if (Failed) printf("\nThe logs of the failed rows are kept in %s.\n", Tmp.c_str());
    else remove_tree(Tmp);
    return 0;
}
