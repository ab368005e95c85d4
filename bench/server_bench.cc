// orbserver figures through our client library: one writer and one reader at
// once (512-byte and 64 KiB packets, the latter also over TLS), puts alone, reads of a full ring alone,
// one writer and four readers, put-to-reap latency, and the server's private
// memory. Every client is its own process, as in real use. Prints rows of the
// benchmark table.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "orb/orb.h"
#include "support/nats_cluster.h"
#include "stock/epoch.h"

namespace {

double mono() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

struct Server {
    pid_t pid = -1;
    std::string name;
};

// ring: a path under dir, or (with -J among extra) a stream name.
Server start_server(const std::string& dir, const std::string& size, const std::vector<std::string>& extra = {},
                    const std::string& ring_name = "ring") {
    std::string portfile = dir + "/port", ring = ring_name.find('/') == 0 ? ring_name : dir + "/" + ring_name;
    if (std::find(extra.begin(), extra.end(), "-J") != extra.end()) ring = ring_name;
    std::filesystem::remove(portfile);
    std::filesystem::remove(ring);
    Server s;
    s.pid = fork();
    if (s.pid == 0) {
        std::string bin = std::string(FERRANT_BUILD_DIR) + "/bin/orbserver";
        freopen((dir + "/orbserver.log").c_str(), "a", stderr);
        std::vector<std::string> args = {bin, "-P", "127.0.0.1:0", "-o", portfile, "-s", size};
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(ring);
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(bin.c_str(), argv.data());
        _exit(127);
    }
    for (int i = 0; i < 20000; i++) {
        std::ifstream f(portfile);
        std::string line;
        if (std::getline(f, line) && !line.empty() && f.good()) {
            s.name = line;
            return s;
        }
        usleep(1000);
    }
    std::fprintf(stderr, "orbserver did not start; see %s/orbserver.log\n", dir.c_str());
    std::exit(1);
}

void stop_server(Server& s) {
    kill(s.pid, SIGTERM);
    waitpid(s.pid, nullptr, 0);
}

// Runs f in a child process; its results come back through a pipe.
struct Child {
    pid_t pid;
    int fd;
};
Child spawn_v(const std::function<std::vector<double>()>& f) {
    int p[2];
    if (pipe(p) != 0) std::exit(1);
    pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        std::vector<double> v = f();
        ssize_t n = ssize_t(v.size() * sizeof(double));
        if (write(p[1], v.data(), size_t(n)) != n) _exit(1);
        _exit(0);
    }
    close(p[1]);
    return {pid, p[0]};
}
Child spawn(const std::function<double()>& f) {
    return spawn_v([&] { return std::vector<double>{f()}; });
}
std::vector<double> results(Child c, size_t n) {
    std::vector<double> v(n, -1);
    ssize_t want = ssize_t(n * sizeof(double));
    if (read(c.fd, v.data(), size_t(want)) != want) v.assign(n, -1);
    close(c.fd);
    waitpid(c.pid, nullptr, 0);
    return v;
}
double result(Child c) { return results(c, 1)[0]; }

// A writer of n packets of size bytes, then an end packet; returns seconds.
double writer(const std::string& name, int n, int size, double gap = 0, const char* src = "BENCH/data") {
    int orb = orbopen(name.c_str(), "w");
    if (orb < 0) return -1;
    std::vector<char> buf(size_t(size), 'p');
    double t0 = mono();
    for (int i = 0; i < n; i++) {
        double t = gap > 0 ? std_now() : double(i);
        if (orbput(orb, src, t, buf.data(), size) != 0) return -1;
        if (gap > 0) std::this_thread::sleep_for(std::chrono::duration<double>(gap));
    }
    // The end packet tells the readers of a measured run to stop.
    if (std::strcmp(src, "BENCH/data") == 0) orbput(orb, "BENCH/end", 0, buf.data(), 1);
    orbputx(orb, "BENCH/sync", 0, buf.data(), 1);
    double t = mono() - t0;
    orbclose(orb);
    return t;
}

// Reader: opened before the writer starts (ready is signalled by the open);
// reads until the end packet. Returns packets per second, counted from the
// first packet read.
struct ReadStats {
    long packets = 0;
    double seconds = 0;
    std::vector<double> latencies;
};
ReadStats read_until_end(int orb, bool latency) {
    ReadStats s;
    int pktid, nbytes, bufsize = 0;
    char src[ORB_SRCNAME_SIZE + 1];
    double t, t0 = 0;
    char* packet = nullptr;
    while (orbreap(orb, &pktid, src, &t, &packet, &nbytes, &bufsize) == 0) {
        if (pktid < 0) continue;
        if (std::strcmp(src, "BENCH/end") == 0) break;
        if (s.packets == 0) t0 = mono();
        s.packets++;
        if (latency) s.latencies.push_back(std_now() - t);
    }
    s.seconds = mono() - t0;
    free(packet);
    return s;
}

void row(const std::string& figure, const std::string& measured, const std::string& reference,
         const std::string& ratio, const std::string& bar) {
    std::printf("| %s | %s | %s | %s | %s |\n", figure.c_str(), measured.c_str(), reference.c_str(),
                ratio.c_str(), bar.c_str());
    std::fflush(stdout);
}

std::string fmt(const char* f, double v) {
    char b[64];
    std::snprintf(b, sizeof b, f, v);
    return b;
}

// Writes the ring over once, so that the figures are of a ring in use and not
// of the first touch of every page of a new file.
void warm(const std::string& name, long bytes) {
    Child w = spawn([&] { return writer(name, int(bytes / 65536) + 1, 65536, 0, "BENCH/warm"); });
    result(w);
}

// One writer and `readers` readers at once; returns each reader's packets/s.
// The readers open read_name when given (another front end of the ring).
std::vector<double> stream(const std::string& name, int n, int size, int readers, const std::string& read_name = "") {
    const std::string& rname = read_name.empty() ? name : read_name;
    std::vector<Child> kids;
    for (int r = 0; r < readers; r++) {
        int p[2];
        if (pipe(p) != 0) std::exit(1);
        kids.push_back(spawn([&, p] {
            close(p[0]);
            int orb = orbopen(rname.c_str(), "r");
            char c = orb >= 0 ? 'y' : 'n';
            if (write(p[1], &c, 1) != 1) return -1.0;
            close(p[1]);
            if (orb < 0) return -1.0;
            ReadStats s = read_until_end(orb, false);
            return s.seconds > 0 ? s.packets / s.seconds : -1.0;
        }));
        close(p[1]);
        char c;
        if (read(p[0], &c, 1) != 1 || c != 'y') std::exit(1);
        close(p[0]);
    }
    usleep(20000);  // the readers' streams are requested
    Child w = spawn([&] { return writer(name, n, size); });
    result(w);
    std::vector<double> rates;
    for (Child k : kids) rates.push_back(result(k));
    return rates;
}

}  // namespace

// Arguments name the figures to run (512, 64k, js, tls, alone, fanout, latency); none: all.
int main(int argc, char** argv) {
    auto want = [&](const char* k) {
        if (argc < 2) return true;
        for (int i = 1; i < argc; i++)
            if (std::strcmp(argv[i], k) == 0) return true;
        return false;
    };
    char tmpl[] = "/tmp/serverbench.XXXXXX";
    std::string dir = mkdtemp(tmpl);
    setenv("ELOG_MAXMSG", "0", 0);

    // 512-byte packets, one writer and one reader.
    if (want("512")) {
        Server s = start_server(dir, "64M");
        warm(s.name, 64 << 20);
        std::vector<double> r = stream(s.name, 400000, 512, 1);
        row("orbserver 512-byte packets, 1 writer + 1 reader, put → reaped (client library)",
            fmt("%.0f packets/s", r[0]), "141,000 packets/s", fmt("%.2f", r[0] / 141000),
            "≥ 150,000 packets/s");
        stop_server(s);
    }
    // 64 KiB packets.
    if (want("64k")) {
        Server s = start_server(dir, "256M");
        warm(s.name, 256 << 20);
        std::vector<double> r = stream(s.name, 20000, 65536, 1);
        double gbs = r[0] * 65536 / 1e9;
        row("orbserver 64 KiB packets, 1 writer + 1 reader, put → reaped (client library)",
            fmt("%.2f GB/s", gbs), "1.36 GB/s", fmt("%.2f", gbs / 1.36), "≥ 1.4 GB/s");
        stop_server(s);
    }
    // A ring on a JetStream stream of a 3-node loopback cluster (3 replicas):
    // the writer puts through one front end, the reader reaps through another.
    if (want("js") && !nats_test::server_binary().empty()) {
        nats_test::Cluster cluster;
        if (std::string why = cluster.wait_ready(); !why.empty()) {
            row("orbserver on JetStream", "failed: " + why, "", "", "");
        } else {
            std::string urls;
            for (const auto& u : cluster.urls()) urls += (urls.empty() ? "" : ",") + u;
            std::string a_dir = dir + "/a", b_dir = dir + "/b";
            std::filesystem::create_directories(a_dir);
            std::filesystem::create_directories(b_dir);
            struct Fig { const char* what; int n, size; const char* file_ring; };
            for (Fig f : {Fig{"512-byte", 20000, 512, "141,000 packets/s"}, Fig{"64 KiB", 3000, 65536, "1.36 GB/s"}}) {
                std::string stream_name = std::string("bench") + std::to_string(f.size);
                Server a = start_server(a_dir, "256M", {"-J", urls}, stream_name);
                Server b = start_server(b_dir, "256M", {"-J", urls}, stream_name);
                double r = stream(a.name, f.n, f.size, 1, b.name)[0];
                std::string measured = f.size == 512 ? fmt("%.0f packets/s", r) : fmt("%.3f GB/s", r * f.size / 1e9);
                row(std::string("orbserver -J (3 replicas, loopback cluster) ") + f.what +
                        " packets, writer and reader on two front ends, put → reaped",
                    measured, std::string("file ring: ") + f.file_ring, "—", "reported");
                stop_server(a);
                stop_server(b);
            }
        }
    }
    // 64 KiB packets over TLS through a named port, beside plain TCP in the same run.
    if (want("tls")) {
        std::string cert = dir + "/cert", key = dir + "/key";
        std::string make = "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " + key +
                           " -out " + cert + " -subj /CN=bench -addext subjectAltName=IP:127.0.0.1 -days 1 " +
                           ">/dev/null 2>&1";
        if (std::system(make.c_str()) != 0) return 1;
        setenv("PFPATH", (dir + ":" FERRANT_BUILD_DIR "/data/pf").c_str(), 1);
        setenv("ORB_TLS_CA", cert.c_str(), 1);
        double gbs[2];
        for (int tls = 0; tls < 2; tls++) {
            Server s = start_server(dir, "256M", tls ? std::vector<std::string>{"-T", cert + "," + key}
                                                     : std::vector<std::string>{});
            std::string name = s.name;
            if (tls) {
                std::ofstream(dir + "/orbserver_names.pf") << "bench " << name.substr(name.rfind(':') + 1) << " tls\n";
                name = "127.0.0.1:bench";
            }
            warm(name, 256 << 20);
            gbs[tls] = stream(name, 20000, 65536, 1)[0] * 65536 / 1e9;
            stop_server(s);
        }
        row("orbserver 64 KiB packets over TLS, 1 writer + 1 reader, put → reaped (client library)",
            fmt("%.2f GB/s", gbs[1]), fmt("%.2f GB/s plain TCP, same run", gbs[0]), fmt("%.2f", gbs[1] / gbs[0]),
            "≥ 0.75 (within 25% of plain, with AES-NI)");
    }
    // Puts alone, then reads of the full ring alone.
    if (want("alone")) {
        Server s = start_server(dir, "256M");
        warm(s.name, 256 << 20);
        const int n = 400000;
        Child w = spawn([&] { return writer(s.name, n, 512); });
        double secs = result(w);
        double puts = (n + 2) / secs;
        row("orbserver 512-byte puts alone (client library)", fmt("%.0f puts/s", puts), "470,000 puts/s",
            fmt("%.2f", puts / 470000), "≥ 470,000 puts/s");
        Child r = spawn([&] {
            int orb = orbopen(s.name.c_str(), "r");
            if (orb < 0 || orbselect(orb, "BENCH/(data|end)") < 0 || orbseek(orb, ORBOLDEST) < 0) return -1.0;
            ReadStats st = read_until_end(orb, false);
            return st.packets / st.seconds;
        });
        double reads = result(r);
        row("orbserver reads of a full ring alone, 512-byte packets (client library)",
            fmt("%.0f reads/s", reads), "191,000 reads/s", fmt("%.2f", reads / 191000), "≥ 191,000 reads/s");
        stop_server(s);
    }
    // One writer, four readers.
    if (want("fanout")) {
        Server s = start_server(dir, "64M");
        warm(s.name, 64 << 20);
        std::vector<double> r = stream(s.name, 200000, 512, 4);
        std::string each;
        for (double v : r) each += (each.empty() ? "" : ", ") + fmt("%.0f", v);
        double lo = *std::min_element(r.begin(), r.end());
        row("orbserver 1 writer + 4 readers, 512-byte packets, packets/s per reader", each, "—", "—",
            lo > 0 ? "every reader keeps up (all packets read)" : "a reader failed");
        stop_server(s);
    }
    // Latency: paced puts, each stamped with its send time.
    if (want("latency")) {
        Server s = start_server(dir, "64M");
        int p[2];
        if (pipe(p) != 0) return 1;
        Child r = spawn_v([&] {
            close(p[0]);
            int orb = orbopen(s.name.c_str(), "r");
            char c = 'y';
            if (write(p[1], &c, 1) != 1) return std::vector<double>{-1, -1};
            ReadStats st = read_until_end(orb, true);
            std::sort(st.latencies.begin(), st.latencies.end());
            if (st.latencies.empty()) return std::vector<double>{-1, -1};
            return std::vector<double>{st.latencies[st.latencies.size() / 2],
                                       st.latencies[st.latencies.size() * 99 / 100]};
        });
        close(p[1]);
        char c;
        if (read(p[0], &c, 1) != 1) return 1;
        usleep(20000);
        Child w = spawn([&] { return writer(s.name, 3000, 512, 0.0002); });
        result(w);
        std::vector<double> lat = results(r, 2);
        row("orbserver put → reap latency on loopback, p50 / p99",
            fmt("%.3f ms", lat[0] * 1e3) + " / " + fmt("%.3f ms", lat[1] * 1e3), "—", "—", "p50 < 1 ms");
        // Private memory of the server after all that: bounded buffers, the ring is mapped.
        std::ifstream st("/proc/" + std::to_string(s.pid) + "/status");
        std::string line, anon = "?";
        while (std::getline(st, line))
            if (line.rfind("RssAnon:", 0) == 0) anon = line.substr(8);
        anon.erase(0, anon.find_first_not_of(" \t"));
        row("orbserver private memory (RssAnon) after the runs", anon, "—", "—",
            "independent of ring and file size");
        stop_server(s);
    }
    std::filesystem::remove_all(dir);
    return 0;
}
