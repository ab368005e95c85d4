// The clients of every front end of one JetStream ring, shared through a
// key-value bucket "orbclients_<stream>" on the same cluster: each front end
// writes its own client table under a key of its own every kPublishMs, and
// watches the bucket for the others'. A front end that dies without removing
// its key drops out once its entry is older than kStaleMs (the bucket's TTL
// discards the entry itself).
//
// Entries are JSON objects {"clients": [{...}, ...]} with the fields of
// ring::Client, so front ends of other builds read them too. Freshness is
// judged by this front end's clock at arrival, never by the writer's.
// A malformed entry is ignored, never trusted.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "ring/ring.h"

namespace ring {

class ClientBoard {
public:
    static constexpr int kPublishMs = 2000;
    static constexpr int kStaleMs = 3 * kPublishMs;

    // mine: this front end's clients, asked for from the board's thread.
    // Throws Error when the bucket can be neither found nor created.
    ClientBoard(jsCtx* js, const std::string& stream, int replicas, std::function<std::vector<Client>()> mine);
    ~ClientBoard();   // removes this front end's key
    ClientBoard(const ClientBoard&) = delete;
    ClientBoard& operator=(const ClientBoard&) = delete;

    // The clients the other front ends published last, fresh ones only.
    std::vector<Client> others() const;

    // For tests: the JSON text of one client table and back.
    static std::string encode(const std::vector<Client>& list);
    static bool decode(const std::string& text, std::vector<Client>* list);

private:
    void loop();
    void publish();

    kvStore* kv_ = nullptr;
    kvWatcher* watch_ = nullptr;
    std::string key_;
    std::function<std::vector<Client>()> mine_;
    std::thread thread_;
    mutable std::mutex mu_;
    bool closing_ = false;
    struct Seen {
        std::chrono::steady_clock::time_point got;
        std::vector<Client> clients;
    };
    std::map<std::string, Seen> others_;
};

}  // namespace ring
