// Client tables as front ends share them through the cluster: what one front
// end writes another reads back field for field, and what no front end
// would write is refused rather than half read.
#include <gtest/gtest.h>

#include <cstring>

#include "ring/store_jetstream_clients.h"

namespace {

TEST(ClientBoard, TablesRoundTripAndHostileEntriesAreRefused) {
    ring::Client c;
    c.pid = 77, c.thread = 3, c.fd = 9, c.port = 6510, c.perm = 'w', c.pktid = 123456;
    std::memcpy(c.address, "\x0a\x01\x02\x03", 4);
    std::strcpy(c.who, "op");
    std::strcpy(c.what, "ferrant2 -p x \"quoted\" \\ \xc3\xa9");
    std::string long_host(200, 'h');
    std::strcpy(c.select, "vm/xfer/.*");
    c.nselect = 11, c.started = 1.5e9, c.lastpkt = 1.5e9 + 0.25, c.written = 4000000000u, c.errors = -2;
    std::vector<ring::Client> back;
    ASSERT_TRUE(ring::ClientBoard::decode(ring::ClientBoard::encode({c, ring::Client{}}), &back));
    ASSERT_EQ(back.size(), 2u);
    EXPECT_EQ(std::memcmp(&back[0].pid, &c.pid, offsetof(ring::Client, who) - offsetof(ring::Client, pid)), 0);
    EXPECT_STREQ(back[0].what, c.what);
    EXPECT_STREQ(back[0].select, c.select);
    EXPECT_EQ(back[0].nselect, 11);
    EXPECT_EQ(back[0].lastpkt, c.lastpkt);
    EXPECT_EQ(back[0].written, c.written);
    EXPECT_EQ(back[0].errors, -2);
    EXPECT_EQ(back[1].pktid, -1);

    // Over-long text is cut, always terminated.
    ASSERT_TRUE(ring::ClientBoard::decode("{\"clients\":[{\"host\":\"" + long_host + "\"}]}", &back));
    EXPECT_EQ(std::strlen(back[0].host), sizeof back[0].host - 1);
    for (const char* bad : {"", "null", "[]", "{\"clients\":7}", "{\"clients\":[1]}", "{\"clients\":[{\"pid\":\"x\"}]}",
                            "{\"clients\":[{\"who\":5}]}", "{\"clients\":[", "\xff\xfe"})
        EXPECT_FALSE(ring::ClientBoard::decode(bad, &back)) << bad;
}

}  // namespace
