// Framing and hostile input: fragments, batches, garbage, size limits, unknown types,
// and clients that stop reading.
#include "daemon_test.h"

#include <unistd.h>

#include <random>

namespace {

class Robustness : public DaemonTest {
protected:
    // The daemon survived and still serves a fresh client.
    void expect_daemon_serving() {
        EXPECT_TRUE(test_daemon_running(&daemon_));
        bus_client probe(socket());
        EXPECT_EQ(probe.ping(), 0);
    }
};

TEST_F(Robustness, FragmentsAndBatches) {
    bus_client c(socket());
    std::vector<std::pair<unsigned, uint16_t>> want;
    const bytes three =
        msg(UBUS_MSG_ADD_OBJECT, 1, 0, attr_str(UBUS_ATTR_OBJPATH, "frag") + demo_signature()) +
        msg(UBUS_MSG_LOOKUP, 2, 0, attr_str(UBUS_ATTR_OBJPATH, "frag")) + msg(UBUS_MSG_PING, 3, 7);
    for (uint8_t b : three) {
        c.send(bytes{b});
        usleep(200);
    }
    bytes batch;
    for (uint16_t i = 1; i < 60; i++) {
        if (i > 3)
            batch = batch + msg(UBUS_MSG_PING, i, i, attr_u32(UBUS_ATTR_STATUS, i));
        want.insert(want.end(), {{UBUS_MSG_DATA, i}, {UBUS_MSG_STATUS, i}});
    }
    c.send(batch);
    for (const auto& [type, seq] : want) {
        std::optional<frame> m = c.recv();
        ASSERT_TRUE(m) << "seq " << seq;
        EXPECT_EQ(m->type, type);
        EXPECT_EQ(m->seq, seq);
    }
}

TEST_F(Robustness, BadHeadersDisconnectOnlyTheSenderOddMessagesAreServed) {
    bus_client c(socket());
    for (const char* head : {
             "00 03 00 01 00 00 00 00 | 00 00 00 03", // blob shorter than its own header
             "00 03 00 01 00 00 00 00 | 00 10 00 01", // pads to beyond 1 MiB; no body needed
         }) {
        bus_client bad(socket());
        bad.send(from_hex(head));
        EXPECT_TRUE(bad.closed_by_peer()) << head;
        EXPECT_EQ(c.ping(), 0);
    }

    for (unsigned type : {unsigned(UBUS_MSG_HELLO), unsigned(UBUS_MSG_MONITOR), 12u, 255u}) {
        c.send(msg(type, 3, 0x99));
        std::optional<frame> s = c.recv();
        ASSERT_TRUE(s) << type;
        EXPECT_EQ(to_hex(s->raw),
                  to_hex(msg(UBUS_MSG_STATUS, 3, 0x99,
                             attr_u32(UBUS_ATTR_STATUS, UBUS_STATUS_INVALID_COMMAND))));
    }
    bytes ping = msg(UBUS_MSG_PING, 5, 0);
    ping[0] = 1; // the version byte is not checked
    EXPECT_EQ(c.request(ping), 0);

    // Unknown ids, empty and wrong-size attributes count as absent: an anonymous object
    // whose empty signature still makes a type.
    std::vector<frame> data;
    EXPECT_EQ(c.request(msg(UBUS_MSG_ADD_OBJECT, 1, 0,
                            attr(0x7f, {1, 2, 3}) + attr(UBUS_ATTR_OBJPATH, {}) +
                                attr(UBUS_ATTR_OBJTYPE, {1}) + attr(UBUS_ATTR_SIGNATURE, {})),
                        &data),
              0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_TRUE(data[0].has(UBUS_ATTR_OBJTYPE));
    EXPECT_TRUE(c.list(std::nullopt).empty());

    // A message of exactly the maximum size is served.
    bytes at_limit = msg(UBUS_MSG_PING, 1, 0, attr(UBUS_ATTR_DATA, bytes(1048576 - 8, 0x5a)));
    ASSERT_EQ(at_limit.size(), 8u + 1048576u);
    c.send(at_limit);
    std::optional<frame> echo = c.recv(10000);
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->raw.size(), at_limit.size());
    ASSERT_TRUE(c.recv());
    expect_daemon_serving();
}

TEST_F(Robustness, RandomGarbageFromSeveralClients) {
    std::mt19937 rng(1234);
    bus_client good(socket());
    ASSERT_NE(good.add_object("survivor", demo_signature()), 0u);
    for (int round = 0; round < 20; round++) {
        bus_client bad(socket());
        bytes junk(size_t(rng() % 4096 + 1));
        for (uint8_t& b : junk)
            b = uint8_t(rng());
        if (round % 2) { // plausible: a valid header with garbage attributes
            bytes body(junk.begin(), junk.begin() + long(junk.size() & ~size_t(3)));
            junk = bytes{0, uint8_t(rng() % 12), 0, 1} + be32(0) + be32(uint32_t(4 + body.size())) +
                   body;
        }
        bad.send(junk); // the daemon may have thrown it out already
        bad.recv(20);
        EXPECT_EQ(good.ping(uint16_t(round + 1)), 0);
    }
    EXPECT_EQ(good.list(std::string("survivor")).size(), 1u);
    expect_daemon_serving();
}

TEST_F(Robustness, ClientThatStopsReadingLosesWholeMessagesOnly) {
    bus_client flooder(socket()), other(socket());
    // 40 pings of 60 KB, none read until all are sent: the queue for this client is bounded,
    // so some echoes are dropped, but every reply that arrives is intact and in order.
    bytes payload(60000, 0x11);
    for (uint16_t i = 1; i <= 40; i++)
        flooder.send(msg(UBUS_MSG_PING, i, 0, attr(UBUS_ATTR_DATA, payload)));
    EXPECT_EQ(other.ping(), 0);
    usleep(300000);
    int data = 0, status = 0;
    while (status < 40) {
        std::optional<frame> m = flooder.recv();
        ASSERT_TRUE(m) << "after " << status << " statuses";
        if (m->type == UBUS_MSG_DATA) {
            data++;
            EXPECT_EQ(m->payload(UBUS_ATTR_DATA), payload);
        } else {
            EXPECT_EQ(m->seq, ++status);
        }
    }
    EXPECT_GT(data, 0);
    EXPECT_LT(data, 40);
    EXPECT_EQ(flooder.ping(77), 0);
}

TEST_F(Robustness, LargeListingIsStreamedWhileObjectsGo) {
    bus_client owner(socket()), reader(socket());
    // 300 objects with 8 KB signatures: about 2.4 MB of listing, more than the queue holds.
    bytes methods;
    for (int i = 0; i < 200; i++)
        methods =
            methods + table("method_with_a_long_name_" + std::to_string(i), field_u32("a", 5));
    std::vector<uint32_t> ids;
    for (int i = 0; i < 300; i++)
        ids.push_back(owner.add_object("big." + std::to_string(1000 + i),
                                       attr(UBUS_ATTR_SIGNATURE, methods)));
    reader.send(msg(UBUS_MSG_LOOKUP, 1, 0) + msg(UBUS_MSG_PING, 2, 0));
    usleep(100000);
    for (size_t i = 0; i < ids.size(); i += 2)
        ASSERT_EQ(owner.remove(ids[i]), 0);
    int objects = 0;
    for (;;) {
        std::optional<frame> m = reader.recv();
        ASSERT_TRUE(m);
        ASSERT_EQ(m->seq, 1) << "the ping is answered after the listing";
        if (m->type == UBUS_MSG_STATUS)
            break;
        EXPECT_EQ(m->payload(UBUS_ATTR_SIGNATURE), methods);
        objects++;
    }
    EXPECT_GE(objects, 150);
    EXPECT_LE(objects, 300);
    std::optional<frame> echo = reader.recv();
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->seq, 2);
    EXPECT_EQ(reader.list(std::nullopt).size(), 150u);
}

} // namespace
