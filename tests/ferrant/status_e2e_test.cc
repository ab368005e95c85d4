// After a ferrant2 transfer through orbserver, its status port tells what
// orbstat tells about the same ring: in /status.json, in /metrics (which a
// Prometheus parser reads) and on the page a browser renders.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "harness.h"
#include "support/http.h"

using namespace ferrant_test;
using nlohmann::json;

namespace {

std::string output_of(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

std::string orbstat(const std::string& flags, const std::string& name) {
    return output_of(FERRANT_BUILD_DIR "/bin/orbstat " + flags + " " + name + " 2>/dev/null");
}

class StatusE2E : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.up()) << server.log();
        port = testsupport::http_port(server.log());
        ASSERT_GT(port, 0);
        std::string src = tmp / "src";
        pf = write_pf(tmp / "t.pf", {{"directory", tmp / "in"}});
        receiver = std::make_unique<Child>(std::vector<std::string>{ferrant2(), "-p", pf, server.name()}, tmp.path);
        ASSERT_TRUE(started(*receiver)) << receiver->err();
        make_old(src + "/a.bin", pattern(30000, 1));
        make_old(src + "/b.txt", "bee\n");
        Child s({ferrant2(), "-p", pf, "a.bin", "b.txt", server.name()}, tmp.path, src);
        ASSERT_EQ(s.wait(), 0) << s.err();
        ASSERT_TRUE(received(*receiver, 2)) << receiver->err();
        // The receiver has caught up once the page shows it at the newest packet.
        ASSERT_TRUE(eventually([&] {
            doc = json::parse(testsupport::http_get(port, "/status.json").body, nullptr, false);
            if (doc.is_discarded()) return false;
            for (const json& c : doc["clients"])
                if (c["perm"] == "r" && c["pktid"] == doc["ring"]["newest"]["pktid"]) return true;
            return false;
        }));
    }
    TempDir tmp;
    testsupport::OrbServer server{testsupport::with_status_port()};
    int port = 0;
    std::string pf;
    std::unique_ptr<Child> receiver;
    json doc;
};

TEST_F(StatusE2E, JsonAndMetricsAgreeWithOrbstat) {
    json theirs = json::parse(orbstat("-j", server.name()), nullptr, false);
    ASSERT_FALSE(theirs.is_discarded());
    for (const char* key : {"size", "maxpkts", "npkts", "bytes", "nsources", "oldest", "newest", "orb_start"})
        EXPECT_EQ(doc["ring"][key], theirs["ring"][key]) << key;
    auto without_latency = [](json sources) {
        for (json& s : sources) s.erase("latency");
        return sources;
    };
    EXPECT_EQ(without_latency(doc["sources"]), without_latency(theirs["sources"]));
    std::string text = orbstat("-s", server.name());
    for (const json& s : doc["sources"])
        EXPECT_NE(text.find(s["npkts"].dump() + " " + std::string(12 - s["nbytes"].dump().size(), ' ') +
                            s["nbytes"].dump()), std::string::npos) << text;
    const json* mine = nullptr;
    for (const json& c : theirs["clients"])
        if (c["perm"] == "r" && c["what"].get<std::string>().find("ferrant2") != std::string::npos) mine = &c;
    ASSERT_TRUE(mine) << theirs.dump(2);
    EXPECT_EQ((*mine)["lag"], 0.0);

    // Every sample as the parser read it: "name srcname value".
    std::string metrics = testsupport::http_get(port, "/metrics").body;
    spit(tmp / "metrics", metrics);
    std::string parsed = output_of(
        "/usr/bin/python3 -c 'import sys\nfrom prometheus_client.parser import text_string_to_metric_families as p\n"
        "for f in p(sys.stdin.read()):\n for s in f.samples: print(s.name, repr(s.labels.get(\"srcname\")), s.value)'"
        " < " + tmp / "metrics" + " 2>&1");
    if (parsed.find("No module named") != std::string::npos) GTEST_SKIP() << "no Prometheus parser: " << parsed;
    ASSERT_EQ(parsed.find("Traceback"), std::string::npos) << parsed << metrics;
    int npkts = 0;
    for (const json& s : doc["sources"]) {
        std::string name = s["srcname"], n = std::to_string(s["npkts"].get<int>());
        npkts += s["npkts"].get<int>();
        EXPECT_NE(parsed.find("orbserver_source_packets_written_total '" + name + "' " + n + ".0"), std::string::npos)
            << name << "\n" << parsed;
    }
    EXPECT_NE(parsed.find("orbserver_packets_written_total None " + std::to_string(npkts) + ".0"), std::string::npos)
        << parsed;
}

TEST_F(StatusE2E, BrowserShowsSourcesAndClients) {
    if (output_of("command -v chromium").empty()) GTEST_SKIP() << "chromium is not installed";
    std::string profile = tmp.sub("chromium");
    // A generous bound: a browser starts slowly on a busy machine.
    std::string dom = output_of("timeout 240 chromium --headless --no-sandbox --disable-gpu --disable-quic "
                                "--no-first-run --disable-background-networking --disable-component-update "
                                "--disable-sync --user-data-dir=" + profile + " --dump-dom http://127.0.0.1:" +
                                std::to_string(port) + "/ 2>/dev/null");
    auto table = [&](const std::string& id) {
        auto at = dom.find("<table id=\"" + id + "\"");
        return at == std::string::npos ? std::string() : dom.substr(at, dom.find("</table>", at) - at);
    };
    std::string sources = table("sources"), clients = table("clients");
    ASSERT_FALSE(sources.empty()) << dom;
    for (const json& s : doc["sources"])
        EXPECT_NE(sources.find("<td>" + s["srcname"].get<std::string>() + "</td>"), std::string::npos) << sources;
    EXPECT_NE(clients.find("ferrant2"), std::string::npos) << clients;
    EXPECT_NE(clients.find("<td>0.00</td>"), std::string::npos) << clients;  // the caught-up receiver's lag
}

}  // namespace
