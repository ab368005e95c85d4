#include "status/status.h"

#include <arpa/inet.h>

#include <cstring>

#include "orb/orb.h"

namespace status {

namespace {

using nlohmann::json;

// Fixed-size text fields of the protocol records may lack their NUL when a
// peer filled them to the brim.
template <size_t N>
std::string text(const char (&field)[N]) {
    return utf8_clean(std::string_view(field, strnlen(field, N)));
}

json time_or_null(double t) { return t > 0 ? json(t) : json(nullptr); }
json id_or_null(int id) { return id >= 0 ? json(id) : json(nullptr); }

std::string address(const unsigned char* a) {
    char buf[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, a, buf, sizeof buf);
    return buf;
}

// The oldest packet of the ring is the oldest of its source, and the newest
// the latest of its source, so the sources carry both times.
double time_of(const Snapshot& s, int pktid, bool oldest) {
    if (pktid < 0) return -1;
    for (const Orbsrc& o : s.sources)
        if ((oldest ? o.soldest : o.slatest) == pktid) return oldest ? o.soldest_time : o.slatest_time;
    return -1;
}

json source_json(const Orbsrc& o, double when) {
    return {
        {"srcname", text(o.srcname)},
        {"npkts", o.npkts},
        {"nbytes", o.nbytes},
        {"oldest", {{"pktid", id_or_null(o.soldest)}, {"time", time_or_null(o.soldest_time)}}},
        {"latest", {{"pktid", id_or_null(o.slatest)}, {"time", time_or_null(o.slatest_time)}}},
        {"latency", o.slatest_time > 0 ? json(when - o.slatest_time) : json(nullptr)},
    };
}

json client_json(const Orbclient& c, const Snapshot& s) {
    json lag = nullptr;
    if (c.perm == 'r' && s.newest >= 0) lag = lagvalue(c.pktid, s.oldest, s.newest, s.stat.maxpkts);
    return {
        {"thread", c.thread},
        {"pid", c.pid},
        {"who", text(c.who)},
        {"what", text(c.what)},
        {"perm", c.perm ? std::string(1, c.perm) : std::string("-")},
        {"host", text(c.host)},
        {"address", address(c.address)},
        {"port", c.port},
        {"pktid", id_or_null(c.pktid)},
        {"lag", lag},
        {"packets_sent", c.nreads},
        {"bytes_sent", c.read},
        {"packets_received", c.nwrites},
        {"bytes_received", c.written},
        {"requests", c.nrequests},
        {"errors", c.errors},
        {"started", time_or_null(c.started)},
        {"lastpkt", time_or_null(c.lastpkt)},
        {"select", text(c.select)},
        {"reject", text(c.reject)},
    };
}

json totals_json(const Totals& t) {
    json by = json::object();
    for (const auto& [name, n] : t.by_source)
        by[utf8_clean(name)] = {{"packets", n.packets}, {"bytes", n.bytes}};
    return {
        {"packets_written", t.packets_written}, {"bytes_written", t.bytes_written},
        {"packets_sent", t.packets_sent},       {"bytes_sent", t.bytes_sent},
        {"sources", by},
    };
}

// Length of the valid UTF-8 sequence at p (at most n bytes), 0 if invalid.
size_t utf8_length(const unsigned char* p, size_t n) {
    unsigned c = p[0];
    if (c < 0x80) return 1;
    size_t len = c >= 0xc2 && c <= 0xdf ? 2 : c >= 0xe0 && c <= 0xef ? 3 : c >= 0xf0 && c <= 0xf4 ? 4 : 0;
    if (len == 0 || len > n) return 0;
    for (size_t i = 1; i < len; i++)
        if ((p[i] & 0xc0) != 0x80) return 0;
    // Overlong forms, surrogates and code points past U+10FFFF.
    if (c == 0xe0 && p[1] < 0xa0) return 0;
    if (c == 0xed && p[1] > 0x9f) return 0;
    if (c == 0xf0 && p[1] < 0x90) return 0;
    if (c == 0xf4 && p[1] > 0x8f) return 0;
    return len;
}

}  // namespace

int ring_npkts(int oldest, int newest, int maxpkts) {
    if (oldest < 0 || newest < 0) return 0;
    return (newest >= oldest ? newest - oldest : maxpkts - oldest + newest) + 1;
}

std::string utf8_clean(std::string_view in) {
    std::string out;
    out.reserve(in.size());
    auto* p = reinterpret_cast<const unsigned char*>(in.data());
    for (size_t i = 0; i < in.size();) {
        size_t len = utf8_length(p + i, in.size() - i);
        if (len == 0) {
            out += "\xef\xbf\xbd";
            i++;
        } else {
            out.append(in.data() + i, len);
            i += len;
        }
    }
    return out;
}

nlohmann::json status_json(const Snapshot& s) {
    const Orbstat& st = s.stat;
    uint64_t bytes = 0;
    json sources = json::array(), clients = json::array();
    for (const Orbsrc& o : s.sources) {
        bytes += uint64_t(o.nbytes);
        sources.push_back(source_json(o, st.when));
    }
    for (const Orbclient& c : s.clients) clients.push_back(client_json(c, s));
    json doc = {
        {"ring",
         {
             {"name", utf8_clean(s.name)},
             {"store", s.store.empty() ? json(nullptr) : json(utf8_clean(s.store))},
             {"size", st.maxdata},
             {"maxpkts", st.maxpkts},
             {"npkts", ring_npkts(s.oldest, s.newest, st.maxpkts)},
             {"bytes", bytes},
             {"nsources", st.nsources},
             {"nclients", st.nclients},
             {"oldest", {{"pktid", id_or_null(s.oldest)}, {"time", time_or_null(time_of(s, s.oldest, true))}}},
             {"newest", {{"pktid", id_or_null(s.newest)}, {"time", time_or_null(time_of(s, s.newest, false))}}},
             {"orb_start", time_or_null(st.orb_start)},
             {"server_start", time_or_null(st.started)},
             {"when", st.when},
         }},
        {"server",
         {
             {"host", text(st.host)},
             {"who", text(st.who)},
             {"version", text(st.version)},
             {"pid", st.pid},
             {"address", address(st.address)},
             {"port", st.port},
             {"opens", st.opens},
             {"closes", st.closes},
             {"connections", st.connections},
             {"messages", st.messages},
             {"errors", st.errors},
             {"rejected", st.rejected},
         }},
        {"sources", sources},
        {"clients", clients},
    };
    if (s.totals) doc["totals"] = totals_json(*s.totals);
    return doc;
}

}  // namespace status
