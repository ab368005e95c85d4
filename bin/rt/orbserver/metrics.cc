#include "metrics.h"

#include <cstdio>
#include <utility>
#include <vector>

namespace {

using nlohmann::json;
using Labels = std::vector<std::pair<const char*, std::string>>;

std::string label_value(const std::string& v) {
    std::string out;
    for (char c : v) {
        if (c == '\\') out += "\\\\";
        else if (c == '"') out += "\\\"";
        else if (c == '\n') out += "\\n";
        else out += c;
    }
    return out;
}

std::string number(const json& v) {
    if (v.is_number_unsigned()) return std::to_string(v.get<uint64_t>());
    if (v.is_number_integer()) return std::to_string(v.get<int64_t>());
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.17g", v.get<double>());
    return buf;
}

// Writes one metric family: its help and type once, then its samples.
class Family {
public:
    Family(std::string& out, const char* name, const char* type, const char* help) : out_(out), name_(name) {
        out_ += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
    }
    // A null value (an unknown time, a writer's lag) gives no sample.
    void sample(const json& v, const Labels& labels = {}) {
        if (!v.is_number()) return;
        out_ += name_;
        if (!labels.empty()) {
            out_ += "{";
            for (size_t i = 0; i < labels.size(); i++)
                out_ += std::string(i ? "," : "") + labels[i].first + "=\"" + label_value(labels[i].second) + "\"";
            out_ += "}";
        }
        out_ += " " + number(v) + "\n";
    }

private:
    std::string& out_;
    const char* name_;
};

}  // namespace

std::string metrics_text(const json& doc) {
    std::string out;
    const json& ring = doc["ring"];
    const json& totals = doc.contains("totals") ? doc["totals"] : json::object();
    auto total = [&](const char* key) { return totals.value(key, json(0)); };

    Family(out, "orbserver_packets_written_total", "counter",
           "Packets this server put into the ring since it started.").sample(total("packets_written"));
    Family(out, "orbserver_bytes_written_total", "counter",
           "Packet bytes this server put into the ring since it started.").sample(total("bytes_written"));
    Family(out, "orbserver_packets_sent_total", "counter",
           "Packets this server sent to its readers since it started.").sample(total("packets_sent"));
    Family(out, "orbserver_bytes_sent_total", "counter",
           "Packet bytes this server sent to its readers since it started.").sample(total("bytes_sent"));
    Family src_packets(out, "orbserver_source_packets_written_total", "counter",
                       "Packets of one source this server put into the ring since it started.");
    const json& by = totals.value("sources", json::object());
    for (const auto& [name, n] : by.items()) src_packets.sample(n["packets"], {{"srcname", name}});
    Family src_bytes(out, "orbserver_source_bytes_written_total", "counter",
                     "Packet bytes of one source this server put into the ring since it started.");
    for (const auto& [name, n] : by.items()) src_bytes.sample(n["bytes"], {{"srcname", name}});

    Family(out, "orbserver_clients", "gauge", "Clients of the ring, through every front end.").sample(ring["nclients"]);
    if (ring.contains("store") && ring["store"].is_string())
        Family(out, "orbserver_ring_info", "gauge", "The ring served and what keeps it (a file, a stream).")
            .sample(1, {{"name", ring["name"]}, {"store", ring["store"]}});
    Family(out, "orbserver_ring_size_bytes", "gauge", "Data bytes the ring holds at most.").sample(ring["size"]);
    Family(out, "orbserver_ring_bytes", "gauge", "Packet bytes the ring holds now.").sample(ring["bytes"]);
    Family(out, "orbserver_ring_packets", "gauge", "Packets the ring holds now.").sample(ring["npkts"]);
    double size = ring["size"].get<double>();
    Family(out, "orbserver_ring_fill_ratio", "gauge", "Share of the ring's data bytes in use.")
        .sample(size > 0 ? json(ring["bytes"].get<double>() / size) : json(0));
    Family(out, "orbserver_ring_sources", "gauge", "Sources with packets in the ring.").sample(ring["nsources"]);
    Family(out, "orbserver_start_time_seconds", "gauge", "When this server started, in epoch seconds.")
        .sample(ring["server_start"]);
    Family(out, "orbserver_ring_start_time_seconds", "gauge", "When the ring was made, in epoch seconds.")
        .sample(ring["orb_start"]);

    Family held(out, "orbserver_source_packets", "gauge", "Packets of one source the ring holds now.");
    for (const json& s : doc["sources"]) held.sample(s["npkts"], {{"srcname", s["srcname"]}});
    Family held_bytes(out, "orbserver_source_bytes", "gauge", "Packet bytes of one source the ring holds now.");
    for (const json& s : doc["sources"]) held_bytes.sample(s["nbytes"], {{"srcname", s["srcname"]}});
    Family latency(out, "orbserver_source_latency_seconds", "gauge",
                   "Seconds since the time of the latest packet of one source.");
    for (const json& s : doc["sources"]) latency.sample(s["latency"], {{"srcname", s["srcname"]}});

    Family lag(out, "orbserver_client_lag_ratio", "gauge",
               "How far a reader is behind, as the lag throttle computes it (0 caught up, 1 at the oldest).");
    for (const json& c : doc["clients"]) {
        std::string address = c["address"].get<std::string>() + ":" + std::to_string(c["port"].get<int>());
        lag.sample(c["lag"], {{"thread", std::to_string(c["thread"].get<int>())},
                              {"who", c["who"]},
                              {"what", c["what"]},
                              {"address", address}});
    }
    return out;
}
