// Front-end settings: the orbserver parameter file, overridden by command-line
// options, and the address lists that decide who may read, write and
// administer the ring.
//
// Sizes take k/M/G suffixes (powers of 1024). Address lists hold IPv4 CIDR
// blocks ("127.0.0.0/8", "10.1.2.3" for one host, "0.0.0.0/0" for all).
// load_settings() fills a Settings from the parameter file named (a path when
// it holds "/", else a name found along the parameter search path); keys the
// file lacks keep their built-in defaults. Errors come back as text, nothing
// here is fatal.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Cidr {
    uint32_t net = 0;   // host order
    uint32_t mask = 0;  // host order
};

// Parses "a.b.c.d[/bits]"; false for anything else.
bool parse_cidr(const std::string& text, Cidr& out);
// True when addr (host order) falls in one of the blocks.
bool cidr_allows(const std::vector<Cidr>& list, uint32_t addr);

// "64M", "4096", "1.5G" -> bytes; -1 for text that is not a size.
long long parse_size(const std::string& text);

struct Settings {
    std::string bind_address = "0.0.0.0";  // orbserver only
    int port = 6510;                       // orbserver only; 0 picks a free port
    long long ring_size = 256LL << 20;     // data bytes of a new ring
    long long ring_packets = 0;            // index slots of a new ring; 0: from the size
    int maxpkts = 1 << 30;                 // packet-id modulus of a new ring
    int max_clients = 1000;
    int idle_timeout = 0;       // seconds a client may send nothing; 0: no limit
    int request_timeout = 30;   // seconds a request may take to arrive whole
    std::vector<Cidr> read_allow;   // default: everyone
    std::vector<Cidr> write_allow;  // default: loopback
    std::vector<Cidr> admin_allow;  // default: loopback
    std::string http_address = "0.0.0.0";  // orbserver's status page (-H)
    int http_port = -1;                    // -1: no status page; 0 picks a free port
    std::string port_file;      // where the listening "address:port" is written
    int verbose = 0;
    // TLS on the listening port when both are set (orbserver only).
    std::string tls_certificate, tls_key;
    // Trusted signers of signed opens: name and public-key file, and the
    // permission letters ("r", "w", "rw") whose opens must be signed.
    std::vector<std::pair<std::string, std::string>> signers;
    std::string signed_opens;
    // The ring as a JetStream stream on the cluster at these URLs (-J), with
    // this many replicas when created here (0: min(3, number of URLs)).
    std::vector<std::string> jetstream_urls;
    int jetstream_replicas = 0;

    Settings();
};

// Reads the parameter file into s. "" on success, else what went wrong.
std::string load_settings(const std::string& pfname, Settings& s);

// Applies one command-line option shared by both front ends: -p is handled by
// the caller (it names the file read first); -s size, -n index slots,
// -m packet-id modulus, -P [address:]port, -H [address:]port of the status
// page, -o port file, -T certfile,keyfile for TLS, -J url[,url...] of a
// JetStream cluster holding the ring, -v more logging.
// "" on success, else the complaint.
std::string apply_option(int opt, const char* arg, Settings& s);
