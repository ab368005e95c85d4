// Inside a front end: the state of one connection and the Impl behind
// Frontend (frontend.h), split by concern:
//   loop.cc       connections, the epoll loop, reading requests, time-outs
//   requests.cc   each request and its answer
//   streaming.cc  reader positions, encoding packets, pushing streams
//   access.cc     what an address or a signer may do
//   frontend.cc   Frontend itself, opening the ring, the command line
// Everything here runs on the loop's thread, except the waiter thread's
// wait_loop(), which touches only the atomics, the ring's wait and wake_fd.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "auth.h"
#include "board.h"
#include "frontend.h"
#include "orb/orbfile.h"
#include "pattern.h"
#include "ring/store.h"
#include "stock/bns.h"
#include "stock/epoch.h"
#include "deviants/my.h"

namespace fe {

constexpr int kVersion = 7;              // protocol version answered to ORBPING
constexpr int kEndOfStream = -32;        // pktid of the package that ends a counted stream
constexpr int kOutHigh = 256 * 1024;     // stop pushing packets above this much pending output
constexpr int kOutStopReading = 4 << 20; // stop reading requests above this much
constexpr int kGarbageLimit = 1024;      // bytes skipped in a row before a client is dropped
constexpr int kInBuffer = 16384;      // initial stream buffers; they grow as needed
constexpr size_t kDirectSend = 64 * 1024;  // packets from this size go out straight from the ring

double monotonic();
std::string addr_text(uint32_t addr);  // dotted quad of a host-order address
void copy_text(char* dst, size_t n, const char* src);  // bounded, always terminated

extern int Stop_fd;  // eventfd written by the signal handler
void on_stop_signal(int);

enum class Stream { none, reap, get_wait };

struct Client {
    uint64_t id = 0;
    int in_fd = -1, out_fd = -1;
    bool stdio = false;
    uint32_t addr = 0x7f000001;  // host order
    int port = 0;
    std::string host;
    bool may_read = true, may_write = false, may_admin = false;

    Bns* in = nullptr;
    Bns* out = nullptr;
    Orbrequest* req = nullptr;
    Orbresponse* resp = nullptr;

    bool opened = false;
    char perm = 'r';
    int32_t slot = -1;        // entry in the ring's client table
    int32_t thread = -1;      // session id
    ring::ClientCounters* counters = nullptr;
    int logflag = 0;
    int stashflag = 0;
    int priority = 0;

    // Read position: the seq stood at (may be evicted, or -1 before the first
    // packet); at_oldest after ORBSEEK ORBOLDEST, when the current packet is
    // whatever is oldest and the next read yields it.
    int64_t pos = -1;
    bool at_oldest = false;

    Pattern select, reject;
    std::vector<std::pair<std::string, signed char>> verdicts;  // by source-table index

    uint64_t scan_from = 0;   // no selected packet before this seq (0: unknown)
    Stream stream = Stream::none;
    double reap_maxtime = 0;
    int reap_maxbytes = -1;
    int reap_left = -1;       // packets still to send before the end package; -1 unlimited
    int get_code = ORBGET;

    bool synced = false;      // marker of the current request already read
    bool awaiting_put = false; // its put's answer waits on the store: read nothing more
    int garbage = 0;          // bytes skipped since the last good request
    double partial_since = 0; // monotonic time a partial request started, 0 none
    double last_request = 0;  // monotonic
    bool closing = false;     // drop once the output is written
    bool dead = false;
    uint32_t events = 0;      // registered epoll interest on in_fd
    uint32_t out_events = 0;  // on out_fd when it differs
    std::unique_ptr<TlsSession> tls;  // under in and out on a TLS port
    OpenChallenge challenge;

    ~Client() {
        freeOrbrequest(req);
        freeOrbresponse(resp);
        bnsfree(in);
        bnsfree(out);
    }
    int pending() const { return out ? out->lp - out->fp : 0; }
};

// A put as the loop answers it once the store has completed it.
struct PutDone {
    uint64_t client;  // Client::id; the client may have gone meanwhile
    int what;
    std::string srcname;
    double time;
    uint32_t size;
    int64_t seq = -1;  // -2: a stash put
    std::string why;   // "" on success
};

}  // namespace fe

using fe::Client;
using fe::PutDone;
using fe::Stream;

struct Frontend::Impl {
    Settings settings;
    std::unique_ptr<ring::RingStore> ring;
    std::string ring_name;  // as the status page and the log name it
    double server_start = std_now();
    int epfd = -1;
    int listen_fd = -1;
    int wake_fd = -1;    // the waiter thread and stop() write here
    uint32_t listen_addr = 0;
    int listen_port = 0;
    bool stdio_mode = false;
    bool stopping = false;
    int exit_status = 0;

    std::map<uint64_t, std::unique_ptr<Client>> clients;
    uint64_t next_id = 1;
    int nlocal = 0;

    // Statistics for ORBSTAT and the status page.
    int opens = 0, closes = 0, rejected = 0, errors = 0, messages = 0, connections = 0;
    status::Totals totals;
    std::shared_ptr<StatusBoard> board;
    // A stream found its next packet unreadable for now in this pass of the
    // loop: the loop tries again shortly instead of waiting for a new packet.
    bool read_stalled = false;
    // Puts completed by the store on its own threads, for the loop to answer.
    std::mutex puts_mu;
    std::vector<PutDone> puts_done;

    // Waiter thread: sleeps on the ring while armed.
    std::thread waiter;
    std::atomic<bool> armed{false};
    std::atomic<uint64_t> armed_head{0};
    std::atomic<bool> quit{false};

    std::string user = my_username(), hostname = my_hostname();
    std::unique_ptr<TlsContext> tls;  // the port's, when it serves TLS
    std::unique_ptr<Auth> auth;       // signed opens, for TCP clients

    static constexpr uint64_t kListenTag = 1;
    static constexpr uint64_t kWakeTag = 2;
    static constexpr uint64_t kStopTag = 3;
    static constexpr uint64_t kOutFlag = 1ull << 63;

    // loop.cc: connections and the event loop
    Impl(const Settings& s, std::unique_ptr<ring::RingStore> r, std::string name);
    ~Impl();
    void wait_loop();
    void arm(uint64_t head);
    Client* add_client(int in, int out, bool stdio);
    void update_events(Client& c);
    void drop(Client& c, const char* why);
    void reap_dead();
    // Writes what the client's output holds without blocking. false when the
    // client has gone.
    bool flush_out(Client& c);
    // Why the bytes of an incomplete request can never complete, or "".
    static std::string hopeless(const char* b, int n);
    // Longest tail of the consumed bytes that could start the marker.
    static int marker_prefix(const char* b, int n);
    // One read of what the descriptor holds, straight into the input buffer, so
    // that decoding starts on bytes at hand. false once the client has gone.
    bool fill(Client& c);
    // A plain client on a TLS port gets an answer it can read, then is dropped.
    bool refused_plain(Client& c);
    void read_requests(Client& c);
    void on_input(Client& c);
    void accept_all();
    // Drops clients that stalled mid-request or idled too long; returns the
    // epoll time-out until the next such check (-1: none needed).
    int check_timeouts();
    int run();

    // streaming.cc: positions, packet encoding, streams
    // Encodes one packet as a response with code; false (nothing encoded) when
    // the packet left the ring meanwhile or cannot be encoded. A large packet
    // for a client with nothing pending is written straight from the ring, and
    // only what the socket did not take is copied to the output.
    bool encode_packet(Client& c, int code, uint64_t seq, int maxbytes, ring::Entry* e);
    // Writes the encoded head in the output and then n bytes at data, as far
    // as the socket takes them now; the rest of the body joins the output.
    // The ring entry must still be intact after that copy too. If it is not
    // and nothing went out, the response is taken back (mark: where the
    // output ended before it); bytes already sent cannot be, so that client
    // is dropped.
    bool send_direct(Client& c, uint64_t seq, const char* data, size_t n, int mark);
    void encode_end(Client& c);
    void stand(Client& c, int64_t seq);
    bool selected(Client& c, const ring::Entry& e);
    // First candidate seq a reader at c's position reads next.
    uint64_t first_candidate(const Client& c) const;
    // The first selected packet at or after seq; fills e. Without one, *end
    // (when given) is where a later search may start.
    std::optional<uint64_t> next_selected(Client& c, uint64_t seq, ring::Entry* e, uint64_t* end = nullptr);
    std::optional<uint64_t> prev_selected(Client& c, int64_t from, ring::Entry* e);
    // The packet the client stands at.
    std::optional<uint64_t> current(Client& c, ring::Entry* e);
    int tell(Client& c);
    int latest_pktid();
    // Resolves a position code or pktid to a seq for ORBGET and ORBSEEK.
    // Returns nullopt with why set when there is no such packet.
    std::optional<uint64_t> locate(Client& c, int code, ring::Entry* e, std::string& why);
    // After a packet could not be encoded: one evicted meanwhile is followed
    // by whatever is oldest now; one that is still there can never be sent
    // (it was logged), so the stream passes over it rather than retry forever.
    void pass_over(Client& c, uint64_t seq);
    // Pushes what the client's stream can take now. Returns true when the client
    // is streaming and has caught up (so wants a wake-up on the next packet).
    bool push(Client& c);

    // requests.cc: requests and their answers
    void send_error(Client& c, int what, const std::string& msg);
    // Starts a success response; the caller sets the body fields and calls finish().
    Orbresponse* start(Client& c, int what);
    // Every response goes out behind the marker the client synchronises on.
    int put_response(Client& c);
    void finish(Client& c) { put_response(c); }
    void handle_open(Client& c, Orbrequest* q);
    void handle_put(Client& c, Orbrequest* q);
    void complete_put(const PutDone& d);
    void finish_puts();
    void handle_get(Client& c, Orbrequest* q);
    void handle_seek(Client& c, Orbrequest* q);
    int count_selected(Client& c);
    void handle_pattern(Client& c, Orbrequest* q);
    void handle_stat(Client& c);
    void fill_stat(Orbstat& s);
    void count_written(const char* srcname, uint64_t bytes);
    status::Snapshot snapshot();
    void handle_clients(Client& c);
    void handle_sources(Client& c);
    Client* local_by_thread(int thread);
    void handle(Client& c, Orbrequest* q);

    // access.cc: what a client may do
    bool check_rights(Client& c, int what, bool right, const char* action);
    void refuse_open(Client& c, Orbrequest* q, const std::string& why);
    void handle_challenge(Client& c, Orbrequest* q);
};
