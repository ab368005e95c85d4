// ferrant2 through a real orbserver on loopback, over TLS through named ports, writing with signed opens and
// reading unsigned: files arrive whole; the status port shows the ring, its sources and the caught-up
// receiver in /status.json, in /metrics (which a Prometheus parser reads) and on the page a browser renders;
// and a server restarted under a running sender and receiver loses nothing, repeats nothing.
#include <nlohmann/json.hpp>

#include "harness.h"
#include "support/http.h"
#include "support/pki.h"

using namespace ferrant_test;
using nlohmann::json;

namespace {

TEST(FerrantOrbserver, SignedFilesArriveWholeTheStatusAgreesAndARestartLosesNothing) {
    Pki pki;
    ASSERT_TRUE(pki.ok) << slurp(pki / "log");
    auto options =
        testsupport::with_status_port("signers &Tbl{\nalice " + pki / "alice.pub" + "\n}\nsigned_opens w\n");
    for (auto& a : pki.serve("server")) options.args.push_back(a);
    testsupport::OrbServer server(options);
    ASSERT_TRUE(server.up()) << server.log();
    TempDir tmp;
    std::string port = std::to_string(server.port());
    spit(tmp.sub("pf") + "/orbserver_names.pf", "send " + port + " alice tls\nrecv " + port + " tls\n");
    // Reconnection waits at least a second; keep the client's time-out short too.
    std::map<std::string, std::string> env = {{"PFPATH", tmp / "pf:" FERRANT_BUILD_DIR "/data/pf"},
        {"ORB_TLS_CA", pki / "ca.pem"}, {"ORB_KEYS", pki.dir.path}, {"BNS_TIMEOUT", "2000"}};
    std::string in = tmp / "in", spool = tmp.sub("spool"), src = tmp / "src";
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"starting_position", "newest"}});
    Child r({ferrant2(), "-p", pf, "127.0.0.1:recv"}, tmp.path, tmp.path, "", env);
    ASSERT_TRUE(started(r)) << r.err();
    // The watching sender deletes what it sent, so the copies are kept here.
    Child w({ferrant2(), "-p", pf, "-w", spool, "127.0.0.1:send"}, tmp.path, tmp.path, "", env);
    std::map<std::string, std::string> sent;
    auto drop = [&](const std::string& name, const std::string& data) {
        sent[name] = data;
        ASSERT_EQ(rename(make_old(src + "/" + name, data).c_str(), (spool + "/" + name).c_str()), 0);
    };
    drop("before", pattern(300000, 1));
    ASSERT_TRUE(received(r, 1)) << r.err() << w.err();
    // The receiver has caught up once the page shows it at the newest packet.
    int http = testsupport::http_port(server.log());
    json doc;
    ASSERT_TRUE(eventually([&] {
        doc = json::parse(testsupport::http_get(http, "/status.json").body, nullptr, false);
        for (const json& c : doc.is_discarded() ? json::array() : doc["clients"])
            if (c["perm"] == "r" && c["pktid"] == doc["ring"]["newest"]["pktid"]) return true;
        return false;
    })) << doc.dump(2);
    EXPECT_EQ(doc["ring"]["oldest"]["pktid"], 0);  // the very first packet, whose time is known too
    for (auto end : {"oldest", "newest"}) EXPECT_GT(doc["ring"][end]["time"].get<double>(), 1e9) << end;
    // A generous bound: a browser starts slowly on a busy machine.
    auto output_of = [&](const std::vector<std::string>& argv, const std::string& input = "") {
        Child c(argv, tmp.path, tmp.path, input, env);
        EXPECT_EQ(c.wait(300), 0) << c.err();
        return c.out();
    };
    std::string dom = output_of({"/usr/bin/chromium", "--headless", "--no-sandbox", "--disable-gpu",
        "--disable-quic", "--no-first-run", "--disable-background-networking", "--disable-component-update",
        "--disable-sync", "--user-data-dir=" + tmp.sub("chromium"), "--dump-dom",
        "http://127.0.0.1:" + std::to_string(http) + "/"});
    auto at = dom.find("<table id=\"sources\""), clients = dom.find("<table id=\"clients\"");
    ASSERT_NE(at, std::string::npos) << dom;
    EXPECT_LT(dom.find("</table>", at), dom.find("<h2>Clients</h2>")) << dom;
    for (const json& s : doc["sources"]) {
        std::string cell = "<td>" + s["srcname"].get<std::string>() + "</td>";
        EXPECT_LT(dom.find(cell, at), dom.find("</table>", at)) << cell << "\n" << dom;
    }
    // The caught-up receiver, with its lag.
    for (const char* cell : {"ferrant2", "<td>0.00</td>"})
        EXPECT_LT(dom.find(cell, clients), dom.find("</table>", clients)) << cell << "\n" << dom;
    // Every sample as the parser read it: "name srcname value".
    std::string parsed = output_of({"/usr/bin/python3", "-c", "import sys\n"
        "from prometheus_client.parser import text_string_to_metric_families as p\n"
        "for f in p(sys.stdin.read()):\n"
        " for s in f.samples: print(s.name, repr(s.labels.get(\"srcname\")), s.value)"},
        testsupport::http_get(http, "/metrics").body);
    int npkts = 0;
    for (const json& s : doc["sources"]) {
        npkts += s["npkts"].get<int>();
        std::string sample = "'" + s["srcname"].get<std::string>() + "' " + s["npkts"].dump() + ".0";
        EXPECT_SAID(parsed, "orbserver_source_packets_written_total " + sample);
    }
    EXPECT_SAID(parsed, "orbserver_packets_written_total None " + std::to_string(npkts) + ".0");
    ASSERT_TRUE(server.restart()) << server.log();
    drop("after1", pattern(200000, 2));
    drop("after2", pattern(1, 3));
    ASSERT_TRUE(received(r, 3)) << r.err() << "\n---\n" << w.err() << server.log();
    EXPECT_TRUE(r.running() && w.running());
    for (auto& [name, data] : sent) {
        EXPECT_EQ(slurp(in + "/" + name), data) << name;
        EXPECT_EQ(count(r.err(), "ferrant2: received ./" + name + " "), 1u) << r.err();
    }
    EXPECT_EQ(r.err().find("out of sequence"), std::string::npos) << r.err();
    EXPECT_EQ(server.log().find("refused"), std::string::npos) << server.log();
    EXPECT_EQ(server.sanitizer_report(), "");
}

}  // namespace
