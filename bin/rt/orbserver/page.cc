#include "page.h"

#include <cstdio>
#include <cstdlib>

#include "stock/epoch.h"

namespace {

using nlohmann::json;

std::string escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&#39;"; break;
            default: out += c;
        }
    }
    return out;
}

// A cell's text: strings escaped, numbers as they are, null as "-".
std::string cell(const json& v) {
    if (v.is_null()) return "-";
    if (v.is_string()) return escape(v.get<std::string>());
    if (v.is_number_float()) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.2f", v.get<double>());
        return buf;
    }
    return escape(v.dump());
}

std::string when(const json& t) {
    if (!t.is_number()) return "-";
    char* s = strtime(t.get<double>());
    std::string r = s ? s : "-";
    std::free(s);
    return r;
}

std::string row(std::initializer_list<std::string> cells, const char* tag = "td") {
    std::string out = "<tr>";
    for (const auto& c : cells) out += std::string("<") + tag + ">" + c + "</" + tag + ">";
    return out + "</tr>\n";
}

}  // namespace

std::string status_page(const json& doc, int refresh) {
    const json& r = doc["ring"];
    const json& sv = doc["server"];
    std::string name = cell(r["name"]);
    std::string out = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                      "<meta http-equiv=\"refresh\" content=\"" + std::to_string(refresh) + "\">\n"
                      "<title>ring " + name + "</title></head><body>\n<h1>Ring " + name + "</h1>\n";
    out += "<table id=\"ring\" border=\"1\">\n";
    out += row({"server", cell(sv["version"]) + " pid " + cell(sv["pid"]) + " on " + cell(sv["host"]) + " port " +
                              cell(sv["port"])});
    if (r.contains("store") && r["store"].is_string()) out += row({"kept in", cell(r["store"])});
    out += row({"started", when(r["server_start"])});
    out += row({"ring made", when(r["orb_start"])});
    out += row({"status at", when(r["when"])});
    out += row({"capacity", cell(r["size"]) + " bytes, packet ids 0.." + std::to_string(r["maxpkts"].get<int>() - 1)});
    out += row({"holding", cell(r["npkts"]) + " packets, " + cell(r["bytes"]) + " bytes from " + cell(r["nsources"]) +
                               " sources"});
    out += row({"oldest", "#" + cell(r["oldest"]["pktid"]) + " at " + when(r["oldest"]["time"])});
    out += row({"newest", "#" + cell(r["newest"]["pktid"]) + " at " + when(r["newest"]["time"])});
    out += row({"clients", cell(r["nclients"])});
    out += "</table>\n";

    out += "<h2>Sources</h2>\n<table id=\"sources\" border=\"1\">\n";
    out += row({"source", "packets", "bytes", "oldest", "latest", "latency (s)"}, "th");
    for (const json& s : doc["sources"])
        out += row({cell(s["srcname"]), cell(s["npkts"]), cell(s["nbytes"]), when(s["oldest"]["time"]),
                    when(s["latest"]["time"]), cell(s["latency"])});
    out += "</table>\n";

    out += "<h2>Clients</h2>\n<table id=\"clients\" border=\"1\">\n";
    out += row({"thread", "perm", "who", "what", "address", "pktid", "lag", "packets sent", "bytes sent",
                "packets received", "bytes received", "since"},
               "th");
    for (const json& c : doc["clients"])
        out += row({cell(c["thread"]), cell(c["perm"]), cell(c["who"]), cell(c["what"]),
                    cell(c["address"]) + ":" + cell(c["port"]), cell(c["pktid"]), cell(c["lag"]),
                    cell(c["packets_sent"]), cell(c["bytes_sent"]), cell(c["packets_received"]),
                    cell(c["bytes_received"]), when(c["started"])});
    out += "</table>\n</body></html>\n";
    return out;
}
