// The JetStream ring store. The mapping is described in store_jetstream.h.
#include "ring/store_jetstream.h"
#include "ring/store_jetstream_clients.h"
#include "ring/store_tables.h"

#include <nats/nats.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <unordered_map>

namespace ring {

namespace {

constexpr char kSrcHeader[] = "Orb-Source";
constexpr char kTimeHeader[] = "Orb-Time";
constexpr char kDescPrefix[] = "orb ring, pktid modulus ";
constexpr int32_t kHole = -2;               // a sequence this front end never saw
constexpr uint64_t kMaxHoles = 1u << 16;    // a larger jump restarts the index
constexpr size_t kCachePackets = 1024, kCacheBytes = 32u << 20;
constexpr uint64_t kReadAhead = 32;            // packets asked for at once after a missed read
constexpr size_t kWindow = 256;            // puts in flight at most

std::string escape_name(std::string_view s) {
    std::string out;
    for (unsigned char c : s) {
        if (c > ' ' && c < 0x7f && c != '%') {
            out += char(c);
        } else {
            char b[4];
            std::snprintf(b, sizeof b, "%%%02X", c);
            out += b;
        }
    }
    return out;
}

std::string unescape_name(const char* s) {
    std::string out;
    for (; *s; s++) {
        unsigned v;
        if (*s == '%' && std::sscanf(s + 1, "%2x", &v) == 1 && std::isxdigit((unsigned char)s[1]) &&
            std::isxdigit((unsigned char)s[2])) {
            out += char(v);
            s += 2;
        } else {
            out += *s;
        }
    }
    return out;
}

std::string time_text(double t) {
    char b[64];
    auto r = std::to_chars(b, b + sizeof b, t);
    return std::string(b, r.ptr);
}

// The library's own account of the last failure on this thread, else the status.
std::string nats_text(natsStatus s) {
    natsStatus ls;
    const char* last = nats_GetLastError(&ls);
    std::string t = last && *last ? last : natsStatus_GetText(s);
    if (s == NATS_TIMEOUT) t += " (no answer in time: is the cluster without quorum?)";
    return t;
}

// NATS subject matching: "*" takes one token, ">" the rest.
bool subject_takes(std::string_view pattern, std::string_view subject) {
    while (true) {
        size_t pd = pattern.find('.'), sd = subject.find('.');
        std::string_view pt = pattern.substr(0, pd), st = subject.substr(0, sd);
        if (pt == ">") return !st.empty();
        if (pt != "*" && pt != st) return false;
        if (pd == std::string_view::npos || sd == std::string_view::npos) return pd == sd;
        pattern.remove_prefix(pd + 1);
        subject.remove_prefix(sd + 1);
    }
}

// Why the ring cannot use a stream with this configuration, or "".
std::string unusable(const jsStreamConfig& c, const std::string& subject) {
    std::string n = std::string("stream '") + c.Name + "' ";
    if (c.Retention != js_LimitsPolicy)
        return n + "keeps messages by " + (c.Retention == js_WorkQueuePolicy ? "work-queue" : "interest") +
               " retention (setting retention): a ring needs limits retention";
    if (c.Discard != js_DiscardOld)
        return n + "discards new messages when full (setting discard): a ring discards its oldest";
    if (c.Mirror) return n + "is a mirror (setting mirror): it takes no puts";
    if (c.Sealed) return n + "is sealed (setting sealed): it takes no puts";
    if (c.NoAck) return n + "does not acknowledge puts (setting no_ack)";
    for (int i = 0; i < c.SubjectsLen; i++)
        if (subject_takes(c.Subjects[i], subject)) return "";
    std::string list;
    for (int i = 0; i < c.SubjectsLen; i++) list += std::string(list.empty() ? "" : ", ") + c.Subjects[i];
    return n + "takes subjects [" + list + "], not '" + subject + "' (setting subjects)";
}

bool valid_stream_name(const std::string& s) {
    if (s.empty() || s.size() > 200) return false;
    return std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isalnum(c) || c == '_' || c == '-'; });
}

std::string limit_text(int64_t v) { return v < 0 ? "unlimited" : std::to_string(v); }

// One packet of the index mirror; the seq is its place in the deque.
struct Slot {
    double time;
    uint32_t size;
    int32_t src;            // source index, or kHole
    uint64_t next_same1;    // seq + 1 of the source's next packet, 0 for none
};

struct Src {
    std::string name;
    uint64_t npkts = 0, nbytes = 0, oldest = 0, latest = 0;
    double oldest_time = 0, latest_time = 0;
};

using Bytes = std::shared_ptr<const std::vector<char>>;

class JetStreamStore final : public TablesInRing {
public:
    JetStreamStore() = default;
    ~JetStreamStore() override;

    void open(const JetStreamOptions& o, std::string* limits);

    std::string describe() const override { return "stream '" + name_ + "' on " + urls_; }

    int64_t put(std::string_view srcname, double time, const void* data, size_t size, std::string* why) override;
    void put_async(std::string_view srcname, double time, const void* data, size_t size, PutDone done) override;
    void flush() override;

    uint64_t head() const override {
        std::lock_guard lk(mu_);
        return head_;
    }
    uint64_t tail() const override {
        std::lock_guard lk(mu_);
        return tail_;
    }
    int32_t maxpkts() const override { return maxpkts_; }
    std::optional<uint64_t> oldest() const override {
        std::lock_guard lk(mu_);
        if (tail_ >= head_) return {};
        return tail_;
    }
    std::optional<uint64_t> newest() const override {
        std::lock_guard lk(mu_);
        if (tail_ >= head_) return {};
        return head_ - 1;
    }
    std::optional<uint64_t> find(int32_t id) const override {
        std::lock_guard lk(mu_);
        auto s = seq_of_pktid(id, tail_, head_, maxpkts_);
        if (s && slot(*s).src == kHole) return {};
        return s;
    }
    std::optional<uint64_t> after_time(double t) const override;
    uint64_t next_seq(uint64_t at) const override {
        std::lock_guard lk(mu_);
        return std::max(at + 1, tail_);
    }
    std::optional<uint64_t> prev_seq(uint64_t at) const override {
        std::lock_guard lk(mu_);
        at = std::min(at, head_);
        if (at == 0 || at - 1 < tail_) return {};
        return at - 1;
    }

    bool entry(uint64_t seq, Entry* e) const override {
        std::lock_guard lk(mu_);
        return fill_entry(seq, e);
    }
    bool read(uint64_t seq, Entry* e, std::vector<char>& buf, size_t maxbytes) const override {
        Bytes b;
        if (!entry(seq, e) || !(b = fetch(seq))) return false;
        buf.assign(b->begin(), b->begin() + std::min(maxbytes, b->size()));
        return true;
    }
    bool view(uint64_t seq, Entry* e, const char** data) const override {
        // The copy is held for this thread until its next view: a fetched
        // packet cannot be discarded under the caller.
        thread_local Bytes held;
        Bytes b;
        if (!entry(seq, e) || !(b = fetch(seq))) return false;
        held = std::move(b);
        *data = held->data();
        return true;
    }
    bool still_valid(uint64_t) const override { return true; }

    uint32_t wake_count() const override {
        std::lock_guard lk(mu_);
        return wakes_;
    }
    bool wait_since(uint64_t seen_head, uint32_t since, int timeout_ms) const override {
        std::unique_lock lk(mu_);
        auto done = [&] { return head_ > seen_head || wakes_ != since || closing_; };
        if (timeout_ms < 0) cv_.wait(lk, done);
        else cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms), done);
        return head_ > seen_head;
    }
    void wake_all() const override {
        std::lock_guard lk(mu_);
        wakes_++;
        cv_.notify_all();
    }

    std::vector<Source> sources() const override;

    std::vector<Client> clients() override {
        std::vector<Client> all = local_->clients();
        if (board_) {
            std::vector<Client> more = board_->others();
            all.insert(all.end(), more.begin(), more.end());
        }
        return all;
    }

    Status status() const override;

private:
    Ring& tables() const override { return *local_; }
    static void on_msg(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
    static void on_ack(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
    void deliver();
    void release(bool all = false);
    void expire();
    void add(uint64_t seq, double time, uint32_t size, const std::string& name);
    void evict_front();
    void evict_to(uint64_t seq);
    const Slot& slot(uint64_t seq) const { return idx_[seq - tail_]; }
    Slot& slot(uint64_t seq) { return idx_[seq - tail_]; }
    bool fill_entry(uint64_t seq, Entry* e) const;
    Bytes fetch(uint64_t seq) const;
    void cache(uint64_t seq, Bytes b) const;
    void refresh_loop();
    void want_refresh() const {
        std::lock_guard lk(mu_);
        refresh_wanted_ = true;
        cv_.notify_all();
    }

    std::string name_, subject_, urls_;
    int32_t maxpkts_ = 0;
    int timeout_ms_ = 5000;
    bool direct_ = false;
    int64_t max_msgs_ = -1, max_bytes_ = -1;
    double orb_start_ = 0;
    natsOptions* opts_ = nullptr;
    natsConnection* nc_ = nullptr;
    jsCtx* js_ = nullptr;
    natsSubscription* sub_ = nullptr;
    std::unique_ptr<Ring> local_;   // clients and stash of this front end
    std::unique_ptr<ClientBoard> board_;   // and every other front end's clients
    std::thread refresher_;

    // The index mirror, guarded by mu_; cv_ wakes waiters, put() and the refresher.
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    std::deque<Slot> idx_;          // seqs [tail_, head_)
    uint64_t tail_ = 0, head_ = 0;
    uint64_t bytes_ = 0;
    uint64_t disorder_ = 0;         // 1 + latest seq whose time fell below its predecessor's (or a hole)
    double last_time_ = 0;
    mutable uint32_t wakes_ = 0;
    mutable bool refresh_wanted_ = false;
    bool closing_ = false;
    std::vector<Src> srcs_;
    std::vector<int32_t> free_src_;
    std::unordered_map<std::string, int32_t> src_by_name_;

    // Puts in flight, oldest first, guarded by pub_mu_; ids count the calls.
    struct Pending {
        uint64_t id;
        PutDone done;
        Bytes data;
        std::string src, time;  // header values, for a publication again
        std::chrono::steady_clock::time_point deadline;
        bool finished = false;
        bool held = false;      // to be published (again) once the stream has a leader
        int64_t seq = -1;
        std::string why;
    };
    // True while some put waits for a stream leader: later puts are held
    // too, and published one at a time, so the stream keeps their order.
    bool held_ = false;
    natsStatus publish(const Pending& p);   // under pub_mu_
    void republish();
    natsSubscription* ack_sub_ = nullptr;
    // Read-ahead: a missed read asks for the next kReadAhead packets at once
    // (direct gets answered to inbox_.r.<seq>), so a reader that streams
    // pays one round trip per batch rather than per packet.
    natsSubscription* ahead_sub_ = nullptr;
    mutable std::set<uint64_t> asked_;   // under cache_mu_
    static void on_ahead(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
    void read_ahead(uint64_t from) const;
    std::string inbox_;
    std::mutex pub_mu_, deliver_mu_;
    std::condition_variable pub_cv_;
    std::deque<Pending> inflight_;
    uint64_t next_put_ = 0;
    std::atomic<size_t> ninflight_{0};
    // Finished puts whose done waits until this front end's index has the
    // packet, so that a client sees its put once answered; in call order,
    // under deliver_mu_.
    struct Finished {
        PutDone done;
        int64_t seq;
        std::string why;
        std::chrono::steady_clock::time_point at;
    };
    std::deque<Finished> unseen_;
    std::atomic<bool> any_unseen_{false};

    mutable std::mutex cache_mu_;
    mutable std::map<uint64_t, Bytes> cache_;
    mutable size_t cache_bytes_ = 0;
};

void JetStreamStore::open(const JetStreamOptions& o, std::string* limits) {
    if (!valid_stream_name(o.name))
        throw Error("stream name '" + o.name + "' must be 1 to 200 letters, digits, '_' or '-'");
    if (o.urls.empty()) throw Error("no NATS server URL given for stream '" + o.name + "'");
    name_ = o.name;
    subject_ = "orb." + o.name;
    timeout_ms_ = o.timeout_ms > 0 ? o.timeout_ms : 5000;
    std::vector<std::string> urls;
    for (const auto& u : o.urls) {
        urls.push_back(u.find("://") == std::string::npos ? "nats://" + u : u);
        urls_ += (urls_.empty() ? "" : ",") + urls.back();
    }
    std::vector<const char*> up;
    for (const auto& u : urls) up.push_back(u.c_str());

    natsStatus s = natsOptions_Create(&opts_);
    if (s == NATS_OK) s = natsOptions_SetServers(opts_, up.data(), int(up.size()));
    if (s == NATS_OK) s = natsOptions_SetTimeout(opts_, timeout_ms_);
    if (s == NATS_OK) s = natsOptions_SetMaxReconnect(opts_, -1);
    if (s == NATS_OK) s = natsOptions_SetReconnectWait(opts_, 200);
    if (s == NATS_OK) s = natsOptions_SetPingInterval(opts_, 2000);
    if (s == NATS_OK) s = natsOptions_SetMaxPingsOut(opts_, 2);
    if (s == NATS_OK) s = natsConnection_Connect(&nc_, opts_);
    if (s != NATS_OK) throw Error("can't reach a NATS server at " + urls_ + ": " + nats_text(s));
    jsOptions jo;
    jsOptions_Init(&jo);
    jo.Wait = timeout_ms_;
    if ((s = natsConnection_JetStream(&js_, nc_, &jo)) != NATS_OK)
        throw Error("no JetStream context on " + urls_ + ": " + nats_text(s));

    Geometry g;
    g.data_bytes = o.size;
    g.nslots = uint32_t(std::min<uint64_t>(o.npkts, UINT32_MAX));
    g.maxpkts = o.maxpkts;
    g = resolve_geometry(g);

    jsStreamInfo* si = nullptr;
    jsErrCode jerr = jsErrCode(0);
    bool created = false;
    for (int attempt = 0; attempt < 2 && !si; attempt++) {
        s = js_GetStreamInfo(&si, js_, name_.c_str(), nullptr, &jerr);
        if (s == NATS_OK) break;
        if (jerr != JSStreamNotFoundErr && s != NATS_NOT_FOUND)
            throw Error("JetStream not available for stream '" + name_ + "' on " + urls_ + ": " + nats_text(s));
        jsStreamConfig c;
        jsStreamConfig_Init(&c);
        const char* subj[1] = {subject_.c_str()};
        std::string desc = kDescPrefix + std::to_string(g.maxpkts);
        c.Name = name_.c_str();
        c.Description = desc.c_str();
        c.Subjects = subj;
        c.SubjectsLen = 1;
        c.Retention = js_LimitsPolicy;
        c.Discard = js_DiscardOld;
        c.Storage = js_FileStorage;
        c.MaxBytes = int64_t(g.data_bytes);
        c.MaxMsgs = int64_t(g.nslots);
        c.Replicas = o.replicas > 0 ? o.replicas : std::min<int64_t>(3, int64_t(urls.size()));
        c.AllowDirect = true;
        jerr = jsErrCode(0);
        s = js_AddStream(&si, js_, &c, nullptr, &jerr);
        if (s == NATS_OK) created = true;
        else if (jerr != JSStreamNameExistErr)   // else made meanwhile by another front end: look again
            throw Error("can't create stream '" + name_ + "' on " + urls_ + ": " + nats_text(s));
    }
    if (!si) throw Error("stream '" + name_ + "' on " + urls_ + " neither found nor created");
    std::unique_ptr<jsStreamInfo, void (*)(jsStreamInfo*)> hold(si, jsStreamInfo_Destroy);
    const jsStreamConfig& c = *si->Config;
    if (std::string why = unusable(c, subject_); !why.empty()) throw Error(why);
    maxpkts_ = g.maxpkts;
    if (c.Description && std::strncmp(c.Description, kDescPrefix, sizeof kDescPrefix - 1) == 0) {
        long m = std::strtol(c.Description + sizeof kDescPrefix - 1, nullptr, 10);
        if (m < 1 || m > INT32_MAX) throw Error("stream '" + name_ + "' has a bad pktid modulus (setting description)");
        maxpkts_ = int32_t(m);
    }
    direct_ = c.AllowDirect;
    max_msgs_ = c.MaxMsgs;
    max_bytes_ = c.MaxBytes;
    orb_start_ = double(si->Created) / 1e9;
    if (limits)
        *limits = "stream '" + name_ + "' " + (created ? "created" : "in use") + ": max_bytes " +
                  limit_text(c.MaxBytes) + ", max_msgs " + limit_text(c.MaxMsgs) + ", max_age " +
                  (c.MaxAge > 0 ? std::to_string(c.MaxAge / 1000000000) + "s" : "unlimited") + ", replicas " +
                  std::to_string(c.Replicas) + ", " + (c.Storage == js_FileStorage ? "file" : "memory") +
                  " storage, pktid modulus " + std::to_string(maxpkts_);
    uint64_t last = si->State.LastSeq;
    tail_ = head_ = si->State.Msgs ? si->State.FirstSeq - 1 : last;

    // The private table of this front end's clients and stash.
    std::string tmpl = (std::filesystem::temp_directory_path() / "orbjs.XXXXXX").string();
    int fd = mkstemp(tmpl.data());
    if (fd < 0) throw Error("can't make a client table file in " + tmpl);
    close(fd);
    Geometry lg;
    lg.data_bytes = 4096;
    lg.nslots = 1;
    lg.maxclients = o.maxclients;
    try {
        local_ = Ring::create(tmpl, lg);
    } catch (...) {
        unlink(tmpl.c_str());
        throw;
    }
    unlink(tmpl.c_str());

    natsInbox* inbox = nullptr;
    if ((s = natsInbox_Create(&inbox)) == NATS_OK) {
        inbox_ = inbox;
        natsInbox_Destroy(inbox);
        s = natsConnection_Subscribe(&ack_sub_, nc_, (inbox_ + ".*").c_str(), on_ack, this);
        if (s == NATS_OK && direct_)
            s = natsConnection_Subscribe(&ahead_sub_, nc_, (inbox_ + ".r.*").c_str(), on_ahead, this);
    }
    if (s != NATS_OK) throw Error("can't take acknowledgements from " + urls_ + ": " + nats_text(s));

    jsSubOptions so;
    jsSubOptions_Init(&so);
    so.Stream = name_.c_str();
    so.Ordered = true;
    so.Config.HeadersOnly = true;
    so.Config.DeliverPolicy = js_DeliverAll;
    so.Config.Heartbeat = int64_t(1000) * 1000000;
    jerr = jsErrCode(0);
    if ((s = js_Subscribe(&sub_, js_, subject_.c_str(), on_msg, this, nullptr, &so, &jerr)) != NATS_OK)
        throw Error("can't follow stream '" + name_ + "' on " + urls_ + ": " + nats_text(s));

    // Serve only once the index has caught up with the stream as it was.
    std::unique_lock lk(mu_);
    uint64_t seen = head_;
    while (head_ < last) {
        cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms_), [&] { return head_ >= last || head_ != seen; });
        if (head_ == seen && head_ < last)
            throw Error("stream '" + name_ + "': index stalled at " + std::to_string(head_) + " of " +
                        std::to_string(last) + " packets");
        seen = head_;
    }
    lk.unlock();
    refresher_ = std::thread([this] { refresh_loop(); });
    board_ = std::make_unique<ClientBoard>(js_, name_, int(c.Replicas), [this] { return local_->clients(); });
}

JetStreamStore::~JetStreamStore() {
    board_.reset();
    {
        std::lock_guard lk(mu_);
        closing_ = true;
        cv_.notify_all();
    }
    if (refresher_.joinable()) refresher_.join();
    if (sub_) {
        // Drain so that no callback is still running once this returns.
        if (natsSubscription_Drain(sub_) == NATS_OK) natsSubscription_WaitForDrainCompletion(sub_, timeout_ms_);
        natsSubscription_Destroy(sub_);
    }
    for (natsSubscription* sub : {ahead_sub_, ack_sub_}) {
        if (!sub) continue;
        if (natsSubscription_Drain(sub) == NATS_OK) natsSubscription_WaitForDrainCompletion(sub, timeout_ms_);
        natsSubscription_Destroy(sub);
    }
    {
        std::lock_guard lk(pub_mu_);
        for (Pending& p : inflight_)
            if (!p.finished) p.finished = true, p.why = "stream '" + name_ + "' closed before the packet was stored";
    }
    deliver();
    release(true);
    if (js_) jsCtx_Destroy(js_);
    if (nc_) {
        natsConnection_Close(nc_);
        natsConnection_Destroy(nc_);
    }
    if (opts_) natsOptions_Destroy(opts_);
}

void JetStreamStore::on_msg(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    auto* self = static_cast<JetStreamStore*>(closure);
    jsMsgMetaData* meta = nullptr;
    if (natsMsg_GetMetaData(&meta, msg) == NATS_OK && meta->Sequence.Stream > 0) {
        const char* v = nullptr;
        std::string name;
        double time = double(meta->Timestamp) / 1e9;
        uint32_t size = 0;
        if (natsMsgHeader_Get(msg, kSrcHeader, &v) == NATS_OK) name = unescape_name(v);
        if (natsMsgHeader_Get(msg, kTimeHeader, &v) == NATS_OK) {
            char* end;
            double t = std::strtod(v, &end);
            if (end != v) time = t;
        }
        if (natsMsgHeader_Get(msg, "Nats-Msg-Size", &v) == NATS_OK) size = uint32_t(std::strtoul(v, nullptr, 10));
        else size = uint32_t(natsMsg_GetDataLength(msg));
        if (name.size() >= kNameBytes) name.resize(kNameBytes - 1);
        self->add(meta->Sequence.Stream - 1, time, size, name);
        if (self->any_unseen_) self->release();
    }
    if (meta) jsMsgMetaData_Destroy(meta);
    natsMsg_Destroy(msg);
}

void JetStreamStore::add(uint64_t seq, double time, uint32_t size, const std::string& name) {
    std::lock_guard lk(mu_);
    if (seq < head_) return;   // replayed after a consumer reset
    if (seq > head_) {
        // Sequences skipped: discarded before they reached us, or not ours.
        if (idx_.empty() || seq - head_ > kMaxHoles) {
            evict_to(seq);
        } else {
            while (head_ < seq) idx_.push_back({0, 0, kHole, 0}), head_++;
        }
        disorder_ = seq + 1;
    }
    int32_t si;
    if (auto it = src_by_name_.find(name); it != src_by_name_.end()) {
        si = it->second;
    } else {
        if (free_src_.empty()) {
            si = int32_t(srcs_.size());
            srcs_.emplace_back();
        } else {
            si = free_src_.back();
            free_src_.pop_back();
        }
        srcs_[si] = Src{};
        srcs_[si].name = name;
        src_by_name_[name] = si;
    }
    Src& r = srcs_[si];
    if (r.npkts == 0) {
        r.oldest = seq;
        r.oldest_time = time;
    } else {
        slot(r.latest).next_same1 = seq + 1;
    }
    r.npkts++;
    r.nbytes += size;
    r.latest = seq;
    r.latest_time = time;
    if (seq > tail_ && !(time >= last_time_)) disorder_ = seq + 1;
    last_time_ = time;
    idx_.push_back({time, size, si, 0});
    bytes_ += size;
    head_ = seq + 1;
    // The stream holds no more than max_msgs: drop what it has dropped.
    while (max_msgs_ > 0 && idx_.size() > uint64_t(max_msgs_)) evict_front();
    wakes_++;
    cv_.notify_all();
}

void JetStreamStore::evict_front() {
    const Slot s = idx_.front();
    if (s.src >= 0) {
        Src& r = srcs_[s.src];
        bytes_ -= std::min<uint64_t>(bytes_, s.size);
        r.nbytes -= std::min<uint64_t>(r.nbytes, s.size);
        if (--r.npkts == 0) {
            src_by_name_.erase(r.name);
            free_src_.push_back(s.src);
        } else {
            r.oldest = s.next_same1 - 1;
            r.oldest_time = slot(r.oldest).time;
        }
    }
    idx_.pop_front();
    tail_++;
}

void JetStreamStore::evict_to(uint64_t seq) {
    while (tail_ < seq && !idx_.empty()) evict_front();
    if (seq > head_) head_ = seq;   // all of those are gone: none will be read
    tail_ = std::max(tail_, seq);
}

bool JetStreamStore::fill_entry(uint64_t seq, Entry* e) const {
    if (seq < tail_ || seq >= head_) return false;
    const Slot& s = slot(seq);
    if (s.src == kHole) return false;
    e->seq = seq;
    e->pktid = fold_pktid(seq, maxpkts_);
    e->time = s.time;
    e->size = s.size;
    e->src = s.src;
    const std::string& n = srcs_[s.src].name;
    std::memcpy(e->srcname, n.data(), n.size());
    e->srcname[n.size()] = 0;
    return true;
}

std::optional<uint64_t> JetStreamStore::after_time(double t) const {
    std::lock_guard lk(mu_);
    auto later = [&](const Slot& s) { return s.src != kHole && s.time > t; };
    if (disorder_ <= tail_) {
        auto it = std::partition_point(idx_.begin(), idx_.end(), [&](const Slot& s) { return !(s.time > t); });
        if (it == idx_.end()) return {};
        return tail_ + uint64_t(it - idx_.begin());
    }
    auto it = std::find_if(idx_.begin(), idx_.end(), later);
    if (it == idx_.end()) return {};
    return tail_ + uint64_t(it - idx_.begin());
}

std::vector<Source> JetStreamStore::sources() const {
    std::lock_guard lk(mu_);
    std::vector<Source> out;
    for (size_t i = 0; i < srcs_.size(); i++) {
        const Src& r = srcs_[i];
        if (r.npkts == 0) continue;
        Source s;
        std::memcpy(s.srcname, r.name.data(), r.name.size());
        s.srcname[r.name.size()] = 0;
        s.index = int32_t(i);
        s.npkts = r.npkts;
        s.nbytes = r.nbytes;
        s.oldest_seq = r.oldest;
        s.latest_seq = r.latest;
        s.soldest = fold_pktid(r.oldest, maxpkts_);
        s.slatest = fold_pktid(r.latest, maxpkts_);
        s.soldest_time = r.oldest_time;
        s.slatest_time = r.latest_time;
        out.push_back(s);
    }
    return out;
}

int64_t JetStreamStore::put(std::string_view name, double time, const void* data, size_t size, std::string* why) {
    // Shared with the callback: it may still be in set_value when get() returns.
    auto result = std::make_shared<std::promise<std::pair<int64_t, std::string>>>();
    auto answer = result->get_future();
    put_async(name, time, data, size, [result](int64_t seq, const std::string& w) { result->set_value({seq, w}); });
    auto [seq, w] = answer.get();
    if (seq < 0) {
        if (why) *why = w;
        return -1;
    }
    // Readers of this front end see the packet once its index entry arrives.
    std::unique_lock lk(mu_);
    cv_.wait_for(lk, std::chrono::milliseconds(timeout_ms_), [&, seq = seq] { return head_ > uint64_t(seq) || closing_; });
    return seq;
}

// Each put is published with a reply subject of its own under inbox_; the
// cluster's acknowledgement comes back there (on_ack), or the deadline passes
// (expire). Publishing under pub_mu_ keeps the stream's order that of the ids.
void JetStreamStore::put_async(std::string_view name, double time, const void* data, size_t size, PutDone done) {
    std::string why;
    if (name.size() >= kNameBytes || std::memchr(name.data(), 0, name.size()))
        why = "source name longer than 63 bytes or containing NUL";
    else if (size > uint64_t(INT32_MAX) || (max_bytes_ > 0 && size > uint64_t(max_bytes_)))
        why = "packet of " + std::to_string(size) + " bytes exceeds the stream's byte limit";
    const auto limit = std::chrono::milliseconds(timeout_ms_);
    std::unique_lock lk(pub_mu_);
    if (why.empty() && !pub_cv_.wait_for(lk, limit, [&] { return inflight_.size() < kWindow; }))
        why = "stream '" + name_ + "' did not store the packet: " + std::to_string(kWindow) +
              " puts still wait for the cluster";
    uint64_t id = next_put_++;
    Pending& p = inflight_.emplace_back();
    ninflight_ = inflight_.size();
    p.id = id;
    p.done = std::move(done);
    p.deadline = std::chrono::steady_clock::now() + limit;
    if (why.empty()) {
        const char* bytes = static_cast<const char*>(data);
        p.data = std::make_shared<const std::vector<char>>(bytes, bytes + size);
        p.src = escape_name(name);
        p.time = time_text(time);
        p.held = held_;
        natsStatus s = held_ ? NATS_OK : publish(p);
        if (s != NATS_OK) why = "stream '" + name_ + "' did not store the packet: " + nats_text(s);
    }
    if (!why.empty()) p.finished = true, p.why = why;
    lk.unlock();
    want_refresh();   // the tail may move; and the refresher times out what stays unanswered
    deliver();
}

natsStatus JetStreamStore::publish(const Pending& p) {
    natsMsg* m = nullptr;
    std::string reply = inbox_ + "." + std::to_string(p.id);
    natsStatus s = natsMsg_Create(&m, subject_.c_str(), reply.c_str(), p.data->data(), int(p.data->size()));
    if (s == NATS_OK) s = natsMsgHeader_Set(m, kSrcHeader, p.src.c_str());
    if (s == NATS_OK) s = natsMsgHeader_Set(m, kTimeHeader, p.time.c_str());
    if (s == NATS_OK) s = natsMsgHeader_Set(m, "Nats-Expected-Stream", name_.c_str());
    if (s == NATS_OK) s = natsConnection_PublishMsg(nc_, m);
    natsMsg_Destroy(m);
    return s;
}

// Publishes the first held put once every put before it is answered; its
// answer (on_ack) lets the next one go.
void JetStreamStore::republish() {
    std::lock_guard lk(pub_mu_);
    if (!held_) return;
    for (Pending& p : inflight_) {
        if (p.finished) continue;
        if (!p.held) return;   // one is out already
        p.held = false;
        if (natsStatus s = publish(p); s != NATS_OK) {
            p.held = true;
            return;
        }
        return;
    }
    held_ = false;   // nothing held is left
}

void JetStreamStore::on_ack(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    auto* self = static_cast<JetStreamStore*>(closure);
    const char* subj = natsMsg_GetSubject(msg);
    const char* dot = std::strrchr(subj, '.');
    uint64_t id = std::strtoull(dot ? dot + 1 : "", nullptr, 10);
    std::string_view a(natsMsg_GetData(msg) ? natsMsg_GetData(msg) : "", size_t(natsMsg_GetDataLength(msg)));
    int64_t seq = -1;
    std::string why;
    size_t k;
    if (a.empty()) {
        why = "no server stores the stream now (no leader: is the cluster without quorum?)";
    } else if ((k = a.find("\"description\":\"")) != std::string_view::npos) {
        why = std::string(a.substr(k + 15, a.find('"', k + 15) - (k + 15)));
    } else if (a.find("\"error\"") == std::string_view::npos && (k = a.find("\"seq\":")) != std::string_view::npos) {
        seq = int64_t(std::strtoull(a.data() + k + 6, nullptr, 10)) - 1;
    } else {
        why = "unreadable acknowledgement: " + std::string(a.substr(0, 200));
    }
    natsMsg_Destroy(msg);
    {
        std::lock_guard lk(self->pub_mu_);
        if (self->inflight_.empty() || id < self->inflight_.front().id) return;   // timed out already
        Pending& p = self->inflight_[id - self->inflight_.front().id];
        if (p.finished) return;
        if (a.empty() && std::chrono::steady_clock::now() < p.deadline) {
            // Nobody took it (no leader now): publish it again, in order,
            // until the deadline.
            p.held = self->held_ = true;
            return;
        }
        p.finished = true;
        p.seq = seq;
        if (seq < 0) p.why = "stream '" + self->name_ + "' did not store the packet: " + why;
    }
    self->republish();
    self->deliver();
}

// Runs the done of every finished put at the front, in call order.
void JetStreamStore::deliver() {
    std::unique_lock order(deliver_mu_);
    while (true) {
        Pending p;
        {
            std::lock_guard lk(pub_mu_);
            if (inflight_.empty() || !inflight_.front().finished) break;
            p = std::move(inflight_.front());
            inflight_.pop_front();
            ninflight_ = inflight_.size();
            pub_cv_.notify_all();
        }
        if (p.seq >= 0) cache(uint64_t(p.seq), std::move(p.data));
        unseen_.push_back({std::move(p.done), p.seq, std::move(p.why), std::chrono::steady_clock::now()});
        any_unseen_ = true;   // before head_ is looked at: an index update from now on releases it
    }
    order.unlock();
    release();
}

// Runs the done of each finished put at the front that failed or that the
// index holds (or that has waited the time limit: the stream has it anyway).
void JetStreamStore::release(bool all) {
    std::lock_guard order(deliver_mu_);
    auto limit = std::chrono::steady_clock::now() - std::chrono::milliseconds(timeout_ms_);
    while (!unseen_.empty()) {
        Finished& f = unseen_.front();
        if (!all && f.seq >= 0 && f.at > limit) {
            std::lock_guard lk(mu_);
            if (uint64_t(f.seq) >= head_) break;
        }
        Finished done = std::move(f);
        unseen_.pop_front();
        done.done(done.seq, done.why);
    }
    any_unseen_ = !unseen_.empty();
}

void JetStreamStore::expire() {
    {
        std::lock_guard lk(pub_mu_);
        auto now = std::chrono::steady_clock::now();
        for (Pending& p : inflight_) {
            if (p.finished || now < p.deadline) continue;
            p.finished = true;
            p.why = "stream '" + name_ + "' did not store the packet: " +
                    (p.held ? "no server stored the stream within " : "no acknowledgement within ") +
                    std::to_string(timeout_ms_) + " ms (is the cluster without quorum?)";
        }
    }
    deliver();
}

void JetStreamStore::flush() {
    std::unique_lock lk(pub_mu_);
    pub_cv_.wait_for(lk, std::chrono::milliseconds(2 * timeout_ms_), [&] { return inflight_.empty(); });
    lk.unlock();
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms_);
    while (any_unseen_ && std::chrono::steady_clock::now() < end) {
        release();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    release(true);   // the last ones popped have run their done
}

Bytes JetStreamStore::fetch(uint64_t seq) const {
    {
        std::lock_guard lk(cache_mu_);
        if (auto it = cache_.find(seq); it != cache_.end()) return it->second;
    }
    natsMsg* m = nullptr;
    natsStatus s;
    jsErrCode jerr = jsErrCode(0);
    s = NATS_NOT_FOUND;
    if (direct_) {
        jsDirectGetMsgOptions o;
        jsDirectGetMsgOptions_Init(&o);
        o.Sequence = seq + 1;
        s = js_DirectGetMsg(&m, js_, name_.c_str(), nullptr, &o);
    }
    // A direct get may be answered by a replica that has not applied the
    // packet yet; only the leader's "not found" means it was discarded.
    if (s == NATS_NOT_FOUND) s = js_GetMsg(&m, js_, name_.c_str(), seq + 1, nullptr, &jerr);
    if (s != NATS_OK) {
        if (s == NATS_NOT_FOUND || jerr == JSNoMessageFoundErr) want_refresh();   // discarded: move the tail
        return nullptr;
    }
    const char* d = natsMsg_GetData(m);
    auto b = std::make_shared<const std::vector<char>>(d, d + natsMsg_GetDataLength(m));
    natsMsg_Destroy(m);
    cache(seq, b);
    if (direct_) read_ahead(seq + 1);
    return b;
}

void JetStreamStore::read_ahead(uint64_t from) const {
    uint64_t head;
    {
        std::lock_guard lk(mu_);
        head = head_;
    }
    std::string subject = "$JS.API.DIRECT.GET." + name_;
    std::lock_guard lk(cache_mu_);
    for (uint64_t seq = from; seq < std::min(head, from + kReadAhead); seq++) {
        if (cache_.count(seq) || !asked_.insert(seq).second) continue;
        std::string body = "{\"seq\":" + std::to_string(seq + 1) + "}";
        std::string reply = inbox_ + ".r." + std::to_string(seq);
        natsConnection_PublishRequest(nc_, subject.c_str(), reply.c_str(), body.data(), int(body.size()));
    }
    if (asked_.size() > 4 * kReadAhead) asked_.erase(asked_.begin(), asked_.lower_bound(from));
}

void JetStreamStore::on_ahead(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
    auto* self = static_cast<const JetStreamStore*>(closure);
    const char* subj = natsMsg_GetSubject(msg);
    const char* dot = std::strrchr(subj, '.');
    uint64_t seq = std::strtoull(dot ? dot + 1 : "", nullptr, 10);
    const char* status = nullptr;
    bool found = natsMsgHeader_Get(msg, "Status", &status) != NATS_OK;   // a status reply carries no packet
    Bytes b;
    if (found) {
        const char* d = natsMsg_GetData(msg);
        b = std::make_shared<const std::vector<char>>(d, d + natsMsg_GetDataLength(msg));
    }
    natsMsg_Destroy(msg);
    {
        std::lock_guard lk(self->cache_mu_);
        self->asked_.erase(seq);
    }
    if (b) self->cache(seq, std::move(b));
}

void JetStreamStore::cache(uint64_t seq, Bytes b) const {
    std::lock_guard lk(cache_mu_);
    if (b->size() > kCacheBytes / 4) return;
    cache_bytes_ += b->size();
    if (auto [it, fresh] = cache_.emplace(seq, std::move(b)); !fresh) cache_bytes_ -= it->second->size();
    while (!cache_.empty() && (cache_.size() > kCachePackets || cache_bytes_ > kCacheBytes)) {
        cache_bytes_ -= cache_.begin()->second->size();
        cache_.erase(cache_.begin());
    }
}

// The tail follows the stream's first sequence: asked for after puts and
// missed reads, at most ten times a second, and every few seconds anyway (age
// limits and purges discard without a put). Puts past their deadline fail here.
void JetStreamStore::refresh_loop() {
    std::unique_lock lk(mu_);
    while (!closing_) {
        auto nap = ninflight_ || any_unseen_ ? std::chrono::milliseconds(100) : std::chrono::milliseconds(3000);
        cv_.wait_for(lk, nap, [&] { return closing_ || refresh_wanted_; });
        if (closing_) break;
        refresh_wanted_ = false;
        lk.unlock();
        expire();
        republish();
        if (any_unseen_) release();
        jsStreamInfo* si = nullptr;
        jsErrCode jerr = jsErrCode(0);
        natsStatus s = js_GetStreamInfo(&si, js_, name_.c_str(), nullptr, &jerr);
        lk.lock();
        if (s == NATS_OK) {
            evict_to(si->State.Msgs ? si->State.FirstSeq - 1 : si->State.LastSeq);
            jsStreamInfo_Destroy(si);
        }
        cv_.wait_for(lk, std::chrono::milliseconds(100), [&] { return closing_; });
    }
}

Status JetStreamStore::status() const {
    Status st = local_->status();
    if (board_) st.nclients += uint32_t(board_->others().size());
    st.orb_start = orb_start_;
    st.data_bytes = max_bytes_ > 0 ? uint64_t(max_bytes_) : 0;
    st.nslots = max_msgs_ > 0 ? uint32_t(std::min<int64_t>(max_msgs_, UINT32_MAX)) : 0;
    st.maxpkts = maxpkts_;
    st.maxsrc = 0;
    st.recoveries = 0;
    std::lock_guard lk(mu_);
    st.head = head_;
    st.tail = tail_;
    st.bytes_used = bytes_;
    st.nsources = uint32_t(src_by_name_.size());
    st.puts = head_;
    return st;
}

}  // namespace

std::unique_ptr<RingStore> open_jetstream_store(const JetStreamOptions& o, std::string* limits) {
    auto s = std::make_unique<JetStreamStore>();
    s->open(o, limits);
    return s;
}

}  // namespace ring
