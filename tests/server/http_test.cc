// orbserver's status port against what a hostile or clumsy HTTP client does: wrong paths and
// methods, requests that are malformed or too large, clients that stall, addresses it must refuse,
// and source names that need escaping in JSON, in Prometheus labels and in HTML.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "ferrant/harness.h"
#include "orb/orb.h"
#include "support/http.h"

using testsupport::http_get;
using testsupport::OrbServer;

TEST(Http, RefusesEscapesAndOutlastsStalledClients) {
    OrbServer server(testsupport::with_status_port());
    OrbServer closed(testsupport::with_status_port("read_allow &Tbl{\n10.0.0.0/8\n}\n"));
    int port = testsupport::http_port(server.log()), closed_port = testsupport::http_port(closed.log());
    ASSERT_TRUE(port > 0 && closed_port > 0) << server.log() << closed.log();
    EXPECT_EQ(http_get(closed_port, "/status.json").code, 0);  // an address that may not read
    struct Case {
        std::string request;
        int code;  // 0: the connection closes without an answer
    } cases[] = {
        {"GET /nope HTTP/1.0\r\n\r\n", 404},
        {"GET /metrics/x HTTP/1.0\r\n\r\n", 404},
        {"POST /status.json HTTP/1.0\r\nContent-Length: 2\r\n\r\nhi", 405},
        {"GET / HTTP/1.1\r\n\r\n", 400},  // no Host
        {"GET / HTTP/1.0\r\nno colon here\r\n\r\n", 400},
        {"GET /" + std::string(20000, 'a') + " HTTP/1.0\r\n\r\n", 414},
        {"GET / HTTP/1.0\r\nX-Big: " + std::string(20000, 'a') + "\r\n\r\n", 431},
        {"GARBAGE\r\n\r\n", 0},
    };
    for (const auto& c : cases)
        EXPECT_EQ(testsupport::http_request(port, c.request).code, c.code) << c.request.substr(0, 40);

    // Source names that need escaping, in every output.
    const std::vector<std::string> names = {"q\"uote", "back\\slash", "<b>x</b>", "bad\xff\xfe", "new\nline"};
    int orb = orbopen(server.name().c_str(), "w");
    for (const auto& n : names) ASSERT_EQ(orbput(orb, n.c_str(), 1e9, "data", 4), 0) << n;
    orbclose(orb);
    nlohmann::json doc;
    ASSERT_TRUE(ferrant_test::eventually([&] {
        doc = nlohmann::json::parse(http_get(port, "/status.json").body, nullptr, false);
        return !doc.is_discarded() && doc["sources"].size() == names.size();
    }));
    std::string all = doc["sources"].dump();  // the names, escaped again for JSON
    for (const char* n : {"q\\\"uote", "back\\\\slash", "<b>x</b>", "bad\xef\xbf\xbd\xef\xbf\xbd\"", "new\\nline"})
        EXPECT_NE(all.find(n), std::string::npos) << n << all;
    std::string metrics = http_get(port, "/metrics").body, html = http_get(port, "/").body;
    for (const char* label :
         {"srcname=\"q\\\"uote\"", "srcname=\"back\\\\slash\"", "srcname=\"new\\nline\"", "srcname=\"<b>x</b>\""})
        EXPECT_NE(metrics.find(label), std::string::npos) << label;
    EXPECT_EQ(ferrant_test::count(metrics, "\norbserver_source_packets{"), names.size()) << metrics;
    EXPECT_NE(html.find("&lt;b&gt;x&lt;/b&gt;"), std::string::npos);
    EXPECT_NE(html.find("q&quot;uote"), std::string::npos);
    EXPECT_EQ(html.find("<b>x"), std::string::npos);
    for (const std::string& body : {metrics, html}) EXPECT_EQ(body.find('\xff'), std::string::npos);

    // Stalled HTTP clients hold neither the page nor packet service, and are dropped in the end.
    std::vector<int> stalled;
    for (int i = 0; i < 20; i++) {
        stalled.push_back(testsupport::connect_loopback(port));
        if (i % 2) send(stalled.back(), "GET / HTTP/1.0\r\nX-Slow: ", 24, MSG_NOSIGNAL);
    }
    int w = orbopen(server.name().c_str(), "w");
    ASSERT_GE(w, 0);
    EXPECT_GE(orbputx(w, "net_sta/xfer", 2e9, "hello", 5), 0);  // answered while they stall
    orbclose(w);
    EXPECT_EQ(http_get(port, "/metrics").code, 200);
    char c;
    timeval bound{120, 0};
    setsockopt(stalled[1], SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    EXPECT_EQ(recv(stalled[1], &c, 1, 0), 0);  // closed by the server's time-out
    for (int fd : stalled) close(fd);
    EXPECT_EQ(http_get(port, "/status.json").code, 200);
    EXPECT_TRUE(server.running()) << server.log();
}
