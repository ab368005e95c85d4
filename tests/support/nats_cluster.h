// A real NATS cluster with JetStream for tests: `nodes` nats-server processes on loopback ports of their own,
// routed to each other, their configuration and storage in a private temporary directory. Nodes can be
// SIGKILLed and started again on the same ports and storage. Everything is killed when the object goes.
// Programs including this link the NATS client (libnats).
#pragma once

#include <nats/nats.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/check.h"
#include "support/child.h"
#include "support/tempdir.h"

namespace nats_test {

// The server program (where Debian's package puts it), or "" when missing.
inline std::string server_binary() {
    return access("/usr/sbin/nats-server", X_OK) == 0 ? "/usr/sbin/nats-server" : "";
}

// A loopback port free at the moment of asking.
inline int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t n = sizeof a;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

class Cluster {
public:
    explicit Cluster(int nodes = 3) : dir_("ferrant_nats") {
        for (int i = 0; i < nodes; i++) nodes_.push_back({free_port(), free_port(), -1});
        for (int i = 0; i < nodes; i++) {
            std::string n = "n" + std::to_string(i), at = "127.0.0.1:", routes;
            for (int j = 0; j < nodes; j++)
                if (j != i) routes += "\n  nats-route://" + at + std::to_string(nodes_[j].route_port);
            dir_.file(n + ".conf", "server_name: " + n + "\nlisten: " + at + std::to_string(nodes_[i].port) +
                      "\njetstream { store_dir: \"" + dir_.sub(n) + "\", max_memory_store: 64MB, "
                      "max_file_store: 8GB }\ncluster { name: ferrant, listen: " + at +
                      std::to_string(nodes_[i].route_port) + ", routes: [" + routes + "\n] }\n");
            start(i);
        }
    }
    ~Cluster() { for (int i = 0; i < int(nodes_.size()); i++) kill(i); }
    Cluster(const Cluster&) = delete;
    Cluster& operator=(const Cluster&) = delete;

    // "127.0.0.1:port" of every node.
    std::vector<std::string> urls() const {
        std::vector<std::string> v;
        for (const auto& n : nodes_) v.push_back("127.0.0.1:" + std::to_string(n.port));
        return v;
    }
    // The same joined by commas, each after prefix ("nats://" for the client library).
    std::string url_list(const std::string& prefix = "") const {
        std::string list;
        for (const auto& u : urls()) list += (list.empty() ? "" : ",") + prefix + u;
        return list;
    }

    void start(int i) {
        if (nodes_[i].pid > 0) return;
        std::string n = dir_ / ("n" + std::to_string(i));
        nodes_[i].pid = child::spawn({server_binary(), "-js", "-c", n + ".conf"},
                                     {.out = n + ".log", .err = n + ".log", .die_with_parent = true});
    }

    void kill(int i) {
        if (nodes_[i].pid > 0) child::end(nodes_[i].pid, SIGKILL);
        nodes_[i].pid = -1;
    }

    // Waits (at most limit_s) until JetStream places a stream on every node: then the cluster has its leader
    // and all peers. "" or what is wrong.
    std::string wait_ready(int limit_s = 120) const {
        std::string list = url_list("nats://"), last = "no answer";
        bool ready = testsupport::eventually([&] {
            natsConnection* nc = nullptr;
            jsCtx* js = nullptr;
            jsStreamInfo* si = nullptr;
            jsStreamConfig c;
            jsStreamConfig_Init(&c);
            c.Name = "ready_probe";
            c.Storage = js_MemoryStorage;
            c.Replicas = int64_t(nodes_.size());
            natsStatus s = natsConnection_ConnectTo(&nc, list.c_str());
            if (s == NATS_OK && (s = natsConnection_JetStream(&js, nc, nullptr)) == NATS_OK &&
                (s = js_AddStream(&si, js, &c, nullptr, nullptr)) == NATS_OK) {
                jsStreamInfo_Destroy(si);
                js_DeleteStream(js, "ready_probe", nullptr, nullptr);
            }
            jsCtx_Destroy(js);
            natsConnection_Destroy(nc);
            if (s != NATS_OK) last = natsStatus_GetText(s);
            return s == NATS_OK;
        }, limit_s);
        return ready ? "" : "cluster not ready: " + last;
    }

private:
    struct Node { int port, route_port; pid_t pid; };
    TempDir dir_;
    std::vector<Node> nodes_;
};

}  // namespace nats_test
