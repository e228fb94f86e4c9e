// Framing and hostile input: fragments, batches, garbage, size limits, unknown types,
// clients that stop reading, and many connections.
#include "wire.h"

#include <unistd.h>

#include <memory>
#include <random>

using namespace wire;

namespace {

class Robustness : public DaemonTest {
protected:
    // The daemon survived and still serves a fresh client.
    void expect_daemon_serving() {
        EXPECT_TRUE(test_daemon_running(&daemon_));
        Client probe(socket());
        EXPECT_EQ(probe.ping(), 0);
    }
    static void expect_replies(Client& c, const std::vector<std::pair<uint8_t, uint16_t>>& want) {
        for (const auto& [type, seq] : want) {
            std::optional<Msg> m = c.recv();
            ASSERT_TRUE(m) << "seq " << seq;
            EXPECT_EQ(m->type, type);
            EXPECT_EQ(m->seq, seq);
        }
    }
};

TEST_F(Robustness, FragmentsAndBatches) {
    Client c(socket());
    Bytes three = cat({msg(ADD_OBJECT, 1, 0, {attr_str(A_OBJPATH, "frag"), demo_signature()}),
                       msg(LOOKUP, 2, 0, {attr_str(A_OBJPATH, "frag")}), msg(PING, 3, 7, {})});
    for (uint8_t b : three) {
        c.send(Bytes{b});
        usleep(200);
    }
    expect_replies(c, {{DATA, 1}, {STATUS, 1}, {DATA, 2}, {STATUS, 2}, {DATA, 3}, {STATUS, 3}});

    std::vector<Bytes> batch;
    std::vector<std::pair<uint8_t, uint16_t>> want;
    for (uint16_t i = 10; i < 60; i++) {
        batch.push_back(msg(PING, i, i, {attr_u32(A_STATUS, i)}));
        want.insert(want.end(), {{DATA, i}, {STATUS, i}});
    }
    c.send(cat(batch));
    expect_replies(c, want);
}

TEST_F(Robustness, BadHeadersDisconnectOnlyTheSender) {
    const char* heads[] = {
        "00 03 00 01 00 00 00 00 | 00 00 00 03", // blob shorter than its own header
        "00 03 00 01 00 00 00 00 | 00 10 00 01", // pads to beyond 1 MiB; no body needed
    };
    Client good(socket());
    for (const char* head : heads) {
        Client bad(socket());
        bad.send(hex(head));
        EXPECT_TRUE(bad.closed_by_peer()) << head;
        EXPECT_EQ(good.ping(), 0);
    }
    expect_daemon_serving();
}

TEST_F(Robustness, OddButWellFramedMessages) {
    Client c(socket());
    for (uint8_t type : {uint8_t(HELLO), uint8_t(MONITOR), uint8_t(12), uint8_t(255)}) {
        c.send(msg(type, 3, 0x99, {}));
        std::optional<Msg> s = c.recv();
        ASSERT_TRUE(s) << int(type);
        EXPECT_EQ(to_hex(s->raw), to_hex(msg(STATUS, 3, 0x99, {attr_u32(A_STATUS, 1)})));
    }
    Bytes ping = msg(PING, 5, 0, {});
    ping[0] = 1; // the version byte is not checked
    EXPECT_EQ(c.request(ping), 0);

    // Unknown ids, empty and wrong-size attributes count as absent: an anonymous object
    // whose empty signature still makes a type.
    std::vector<Msg> data;
    EXPECT_EQ(c.request(msg(ADD_OBJECT, 1, 0,
                            {attr(0x7f, {1, 2, 3}), attr(A_OBJPATH, {}), attr(A_OBJTYPE, {1}),
                             attr(A_SIGNATURE, {})}),
                        &data),
              0);
    ASSERT_EQ(data.size(), 1u);
    EXPECT_TRUE(data[0].has(A_OBJTYPE));
    EXPECT_TRUE(c.list(std::nullopt).empty());

    // A message of exactly the maximum size is served.
    Bytes at_limit = msg(PING, 1, 0, {attr(A_DATA, Bytes(1048576 - 8, 0x5a))});
    ASSERT_EQ(at_limit.size(), 8u + 1048576u);
    c.send(at_limit);
    std::optional<Msg> echo = c.recv(10000);
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->raw.size(), at_limit.size());
    ASSERT_TRUE(c.recv());
}

TEST_F(Robustness, RandomGarbageFromSeveralClients) {
    std::mt19937 rng(1234);
    Client good(socket());
    ASSERT_NE(good.add_object("survivor", demo_signature()), 0u);
    for (int round = 0; round < 20; round++) {
        Client bad(socket());
        Bytes junk(size_t(rng() % 4096 + 1));
        for (uint8_t& b : junk)
            b = uint8_t(rng());
        if (round % 2) { // plausible: a valid header with garbage attributes
            Bytes body(junk.begin(), junk.begin() + long(junk.size() & ~size_t(3)));
            junk = cat(
                {{0, uint8_t(rng() % 12), 0, 1}, be32(0), be32(uint32_t(4 + body.size())), body});
        }
        try {
            bad.send(junk);
        } catch (const std::exception&) {
            // Already thrown out by the daemon.
        }
        bad.recv(20);
        EXPECT_EQ(good.ping(uint16_t(round + 1)), 0);
    }
    EXPECT_EQ(good.list(std::string("survivor")).size(), 1u);
    expect_daemon_serving();
}

TEST_F(Robustness, ClientThatStopsReadingLosesWholeMessagesOnly) {
    Client flooder(socket()), other(socket());
    // 40 pings of 60 KB, none read until all are sent: the queue for this client is bounded,
    // so some echoes are dropped, but every reply that arrives is intact and in order.
    Bytes payload(60000, 0x11);
    for (uint16_t i = 1; i <= 40; i++)
        flooder.send(msg(PING, i, 0, {attr(A_DATA, payload)}));
    EXPECT_EQ(other.ping(), 0);
    usleep(300000);
    int data = 0, status = 0;
    while (status < 40) {
        std::optional<Msg> m = flooder.recv();
        ASSERT_TRUE(m) << "after " << status << " statuses";
        if (m->type == DATA) {
            data++;
            EXPECT_EQ(m->payload(A_DATA), payload);
        } else {
            EXPECT_EQ(m->seq, ++status);
        }
    }
    EXPECT_GT(data, 0);
    EXPECT_LT(data, 40);
    EXPECT_EQ(flooder.ping(77), 0);
}

TEST_F(Robustness, LargeListingIsStreamedWhileObjectsGo) {
    Client owner(socket()), reader(socket());
    // 300 objects with 8 KB signatures: about 2.4 MB of listing, more than the queue holds.
    std::vector<Bytes> methods;
    for (int i = 0; i < 200; i++)
        methods.push_back(
            table("method_with_a_long_name_" + std::to_string(i), {field_u32("a", 5)}));
    Bytes body = cat(methods);
    std::vector<uint32_t> ids;
    for (int i = 0; i < 300; i++)
        ids.push_back(owner.add_object("big." + std::to_string(1000 + i), attr(A_SIGNATURE, body)));
    reader.send(cat({msg(LOOKUP, 1, 0, {}), msg(PING, 2, 0, {})}));
    usleep(100000);
    for (size_t i = 0; i < ids.size(); i += 2)
        ASSERT_EQ(owner.remove(ids[i]), 0);
    int objects = 0;
    for (;;) {
        std::optional<Msg> m = reader.recv();
        ASSERT_TRUE(m);
        ASSERT_EQ(m->seq, 1) << "the ping is answered after the listing";
        if (m->type == STATUS)
            break;
        EXPECT_EQ(m->payload(A_SIGNATURE), body);
        objects++;
    }
    EXPECT_GE(objects, 150);
    EXPECT_LE(objects, 300);
    std::optional<Msg> echo = reader.recv();
    ASSERT_TRUE(echo);
    EXPECT_EQ(echo->seq, 2);
    EXPECT_EQ(reader.list(std::nullopt).size(), 150u);
}

TEST_F(Robustness, ManyConnectionsComeAndGo) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 200; i++) {
        clients.push_back(std::make_unique<Client>(socket()));
        ASSERT_NE(clients.back()->add_object("conn." + std::to_string(i), signature({})), 0u);
    }
    EXPECT_EQ(clients[0]->list(std::string("conn.*")).size(), 200u);
    clients.clear();
    Client c(socket());
    EXPECT_TRUE(c.wait_gone("conn.*"));
}

} // namespace
