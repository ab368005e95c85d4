// ferrant2 through two orbservers on one JetStream stream of a real 3-node cluster: sent through one front
// end, received through the other. Mid-run the stream's leader node and the receiver's front end are
// SIGKILLed; the receiver moves to the other front end. Every file arrives whole, once, and no interim file
// is left behind.
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "ferrant/harness.h"
#include "support/http.h"
#include "support/nats_cluster.h"

using namespace ferrant_test;

namespace {

// The node ("n0".."n2") leading the stream, or -1.
int stream_leader(const nats_test::Cluster& cluster, const char* stream) {
    natsConnection* nc = nullptr;
    jsCtx* js = nullptr;
    jsStreamInfo* si = nullptr;
    int leader = -1;
    if (natsConnection_ConnectTo(&nc, cluster.url_list("nats://").c_str()) == NATS_OK &&
        natsConnection_JetStream(&js, nc, nullptr) == NATS_OK &&
        js_GetStreamInfo(&si, js, stream, nullptr, nullptr) == NATS_OK && si->Cluster && si->Cluster->Leader)
        leader = si->Cluster->Leader[1] - '0';
    jsStreamInfo_Destroy(si);
    jsCtx_Destroy(js);
    natsConnection_Destroy(nc);
    return leader;
}

TEST(JetStreamFerrant, FilesCrossTwoFrontEndsWhileALeaderNodeAndAFrontEndDie) {
    if (nats_test::server_binary().empty()) GTEST_SKIP() << "nats-server is not installed (scripts/deps.sh)";
    nats_test::Cluster cluster;
    ASSERT_EQ(cluster.wait_ready(), "");
    testsupport::OrbServer::Options o{"", {"-J", cluster.url_list()}, "127.0.0.1", "e2e"}, with_page = o;
    with_page.args.insert(with_page.args.end(), {"-H", "127.0.0.1:0"});
    testsupport::OrbServer sending(with_page), receiving(o);
    ASSERT_TRUE(sending.up() && receiving.up()) << sending.log() << receiving.log();
    TempDir tmp;
    std::string in = tmp / "in", spool = tmp.sub("spool"), src = tmp.sub("src");
    std::string pf = write_pf(tmp / "t.pf", {{"directory", in}, {"starting_position", "newest"},
                                             {"bytes_per_packet", "20000"}, {"use_orbputx", "yes"}});
    std::map<std::string, std::string> env = {{"BNS_TIMEOUT", "2000"}};
    Child r({ferrant2(), "-p", pf, receiving.name() + "," + sending.name()}, tmp.path, tmp.path, "", env);
    ASSERT_TRUE(started(r)) << r.err();
    Child w({ferrant2(), "-p", pf, "-w", spool, sending.name()}, tmp.path, tmp.path, "", env);

    std::map<std::string, std::string> sent;
    auto drop = [&](int from, int to) {
        for (int i = from; i < to; i++) {
            std::string name = "f" + std::to_string(i);
            sent[name] = pattern(size_t(i) * 7919 % 90000, unsigned(i));
            std::string old = make_old(src + "/" + name, sent[name]);
            ASSERT_EQ(rename(old.c_str(), (spool + "/" + name).c_str()), 0);
        }
    };
    drop(0, 20);
    ASSERT_TRUE(received(r, 20)) << r.err() << w.err();
    // The sender's front end lists the reader attached to the other one (so the sender's lag throttle sees
    // it), beside the stream that keeps the ring.
    int http = testsupport::http_port(sending.log());
    nlohmann::json doc;
    auto reader = [&](const nlohmann::json& c) {
        return c["perm"] == "r" && c["what"].get<std::string>().find(receiving.name()) != std::string::npos;
    };
    EXPECT_TRUE(eventually([&] {
        doc = nlohmann::json::parse(testsupport::http_get(http, "/status.json").body, nullptr, false);
        return doc.is_object() && std::any_of(doc["clients"].begin(), doc["clients"].end(), reader);
    })) << doc.dump();
    EXPECT_EQ(doc["ring"]["store"], "stream 'e2e' on " + cluster.url_list("nats://"));
    int leader = stream_leader(cluster, "e2e");
    ASSERT_GE(leader, 0);
    drop(20, 40);
    cluster.kill(leader);
    receiving.kill();
    drop(40, 60);
    auto all_in = [&] {
        std::string log = r.err();
        for (auto& [name, data] : sent)
            if (log.find("ferrant2: received ./" + name + " ") == std::string::npos) return false;
        return true;
    };
    ASSERT_TRUE(eventually(all_in, 90)) << r.err() << "\n---\n" << w.err() << "\n---\n" << sending.log();
    EXPECT_TRUE(r.running() && w.running());
    for (auto& [name, data] : sent) {
        EXPECT_TRUE(slurp(in + "/" + name) == data) << name;
        EXPECT_EQ(count(r.err(), "ferrant2: received ./" + name + " "), 1u) << name;
    }
    auto files = std::distance(std::filesystem::directory_iterator(in), {});
    EXPECT_EQ(size_t(files), sent.size()) << r.err() << sending.log();  // no interim file left
}

// What stops a front end on a stream at start, and says why.
TEST(JetStreamFrontEnd, BadStartsAreFatalWithTheReason) {
    struct { const char *urls, *stream, *says; } cases[] = {
        {"127.0.0.1:1,127.0.0.1:2", "r", "can't reach a NATS server at nats://127.0.0.1:1,nats://127.0.0.1:"},
        {"", "r", "bad JetStream URL list ''"},
        {"127.0.0.1:1,", "r", "bad JetStream URL list"},
        {"127.0.0.1:1", "no.dots", "stream name 'no.dots' must be 1 to 200 letters"},
    };
    for (const auto& c : cases) {
        TempDir tmp;
        Child s({FERRANT_BUILD_DIR "/bin/orbserver", "-P", "127.0.0.1:0", "-J", c.urls, c.stream}, tmp.path);
        EXPECT_EQ(s.wait(), 1) << c.says;
        EXPECT_SAID(s.err(), c.says);
    }
}

}  // namespace
