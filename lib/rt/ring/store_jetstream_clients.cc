#include "ring/store_jetstream_clients.h"

#include <unistd.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <random>

namespace ring {

namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

std::string text_of(const char* field, size_t n) { return std::string(field, strnlen(field, n)); }

template <size_t N>
void set_text(char (&field)[N], const json& j, const char* key) {
    std::string v = j.value(key, std::string());
    size_t n = std::min(v.size(), N - 1);
    std::memcpy(field, v.data(), n);
    field[n] = 0;
}

// A key this front end alone writes: host, process and a random part.
std::string own_key() {
    char host[256] = "host";
    gethostname(host, sizeof host - 1);
    std::string k = std::string(host) + "-" + std::to_string(getpid()) + "-" + std::to_string(std::random_device{}());
    for (char& c : k)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.') c = '_';
    return k;
}

}  // namespace

std::string ClientBoard::encode(const std::vector<Client>& list) {
    json a = json::array();
    for (const Client& c : list)
        a.push_back({{"pid", c.pid}, {"thread", c.thread}, {"fd", c.fd}, {"port", c.port},
                     {"address", {c.address[0], c.address[1], c.address[2], c.address[3]}},
                     {"perm", std::string(1, c.perm)}, {"who", text_of(c.who, sizeof c.who)},
                     {"what", text_of(c.what, sizeof c.what)}, {"host", text_of(c.host, sizeof c.host)},
                     {"select", text_of(c.select, sizeof c.select)}, {"reject", text_of(c.reject, sizeof c.reject)},
                     {"nselect", c.nselect}, {"nreject", c.nreject}, {"started", c.started},
                     {"lastpkt", c.lastpkt}, {"pktid", c.pktid}, {"read", c.read}, {"bytes", c.bytes},
                     {"packets", c.packets}, {"written", c.written}, {"nreads", c.nreads},
                     {"nwrites", c.nwrites}, {"nrequests", c.nrequests}, {"errors", c.errors},
                     {"priority", c.priority}, {"lastrequest", c.lastrequest}, {"mymessages", c.mymessages}});
    return json{{"clients", a}}.dump();
}

bool ClientBoard::decode(const std::string& text, std::vector<Client>* list) {
    json j = json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object() || !j.contains("clients") || !j["clients"].is_array()) return false;
    list->clear();
    try {
        for (const json& e : j["clients"]) {
            if (!e.is_object()) return false;
            Client c;
            c.pid = e.value("pid", -1);
            c.thread = e.value("thread", -1);
            c.fd = e.value("fd", -1);
            c.port = e.value("port", -1);
            if (e.contains("address") && e["address"].is_array() && e["address"].size() == 4)
                for (int i = 0; i < 4; i++) c.address[i] = e["address"][size_t(i)].get<uint8_t>();
            std::string perm = e.value("perm", std::string("n"));
            c.perm = perm.empty() ? 'n' : perm[0];
            set_text(c.who, e, "who");
            set_text(c.what, e, "what");
            set_text(c.host, e, "host");
            set_text(c.select, e, "select");
            set_text(c.reject, e, "reject");
            c.nselect = e.value("nselect", 0);
            c.nreject = e.value("nreject", 0);
            c.started = e.value("started", -1.0);
            c.lastpkt = e.value("lastpkt", -1.0);
            c.pktid = e.value("pktid", -1);
            c.read = e.value("read", 0u);
            c.bytes = e.value("bytes", 0u);
            c.packets = e.value("packets", 0u);
            c.written = e.value("written", 0u);
            c.nreads = e.value("nreads", 0u);
            c.nwrites = e.value("nwrites", 0u);
            c.nrequests = e.value("nrequests", 0u);
            c.errors = e.value("errors", 0);
            c.priority = e.value("priority", 0);
            c.lastrequest = e.value("lastrequest", 0);
            c.mymessages = e.value("mymessages", 0);
            list->push_back(c);
        }
    } catch (const json::exception&) {
        return false;   // a field of the wrong type
    }
    return true;
}

ClientBoard::ClientBoard(jsCtx* js, const std::string& stream, int replicas,
                         std::function<std::vector<Client>()> mine)
    : key_(own_key()), mine_(std::move(mine)) {
    std::string bucket = "orbclients_" + stream;
    natsStatus s = js_KeyValue(&kv_, js, bucket.c_str());
    if (s != NATS_OK) {
        kvConfig c;
        kvConfig_Init(&c);
        c.Bucket = bucket.c_str();
        c.History = 1;
        c.TTL = int64_t(kStaleMs) * 2 * 1000000;
        c.Replicas = replicas;
        s = js_CreateKeyValue(&kv_, js, &c);
        if (s != NATS_OK) s = js_KeyValue(&kv_, js, bucket.c_str());   // made meanwhile by another front end
    }
    if (s == NATS_OK) s = kvStore_WatchAll(&watch_, kv_, nullptr);
    if (s != NATS_OK) {
        kvStore_Destroy(kv_);
        throw Error("can't share clients through bucket '" + bucket + "': " + natsStatus_GetText(s));
    }
    thread_ = std::thread([this] { loop(); });
}

ClientBoard::~ClientBoard() {
    {
        std::lock_guard lk(mu_);
        closing_ = true;
    }
    thread_.join();
    kvStore_Delete(kv_, key_.c_str());
    kvWatcher_Destroy(watch_);
    kvStore_Destroy(kv_);
}

std::vector<Client> ClientBoard::others() const {
    std::lock_guard lk(mu_);
    std::vector<Client> all;
    auto now = Clock::now();
    for (const auto& [key, seen] : others_)
        if (now - seen.got < std::chrono::milliseconds(kStaleMs))
            all.insert(all.end(), seen.clients.begin(), seen.clients.end());
    return all;
}

void ClientBoard::publish() {
    std::string v = encode(mine_());
    kvStore_Put(nullptr, kv_, key_.c_str(), v.data(), int(v.size()));   // a failure shows as staleness elsewhere
}

void ClientBoard::loop() {
    auto next = Clock::now();
    for (;;) {
        {
            std::lock_guard lk(mu_);
            if (closing_) return;
        }
        if (Clock::now() >= next) {
            publish();
            next = Clock::now() + std::chrono::milliseconds(kPublishMs);
        }
        kvEntry* e = nullptr;
        if (kvWatcher_Next(&e, watch_, 200) != NATS_OK || !e) continue;
        std::string key = kvEntry_Key(e);
        if (key != key_) {
            std::lock_guard lk(mu_);
            std::vector<Client> list;
            const char* v = static_cast<const char*>(kvEntry_Value(e));
            if (kvEntry_Operation(e) != kvOp_Put) {
                others_.erase(key);
            } else if (v && decode(std::string(v, size_t(kvEntry_ValueLen(e))), &list)) {
                others_[key] = Seen{Clock::now(), std::move(list)};
            }
        }
        kvEntry_Destroy(e);
    }
}

}  // namespace ring
