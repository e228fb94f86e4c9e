// Callers that vanish while the client still holds their calls.

#include "bus_fixture.h"

#include <orvix/error.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;
using context = std::shared_ptr<orvix::client::exchange_ctx>;

struct send_outcome {
    probe where;
    std::error_code ec;
};

class fault_peer_test : public ::testing::Test {
protected:
    // Published once: the object stays published across the tests' reconnections.
    static void SetUpTestSuite() {
        connect_client();
        bool added = false;
        std::error_code ec;
        published =
            bus().add_object("fault.deferred",
                             {{"hold", {[](const context& ctx) { held.push_back(ctx); }, {}}},
                              {"echo",
                               {[](const context& ctx) {
                                    ctx->send({{"served", attr(std::string("yes"))}}, {});
                                    ctx->respond({});
                                },
                                {}}}},
                             [&](const std::error_code& e) {
                                 ec = e;
                                 added = true;
                             });
        ASSERT_TRUE(run_until([&added] { return added; }));
        ASSERT_EQ(ec.value(), 0) << ec.message();
    }

    static void TearDownTestSuite() { published = {}; }

    void SetUp() override {
        reset_client();
        connect_client();
        ASSERT_TRUE(run_until(serving));
    }

    void TearDown() override {
        held.clear();
        reset_client();
    }

    static bool serving() {
        return call_over_bus("fault.deferred", "echo", "none") ==
               std::vector<std::string>{"reply", "field served yes", "status 0"};
    }

    // Callers of "hold" that leave, a quarter of a second after calling, while the
    // object's handler still holds their calls.
    static void vanished_callers(std::size_t count) {
        const auto before = held.size();
        std::vector<std::unique_ptr<peer_process>> callers;
        for (std::size_t i = 0; i < count; ++i) {
            callers.push_back(std::make_unique<peer_process>(
                std::vector<std::string>{ORVIX_TEST_CALLER, bus_environment::daemon.socket,
                                         "fault.deferred", "hold", "none", "250"}));
        }
        ASSERT_TRUE(run_until([&] { return held.size() == before + count; }));
        for (const auto& caller : callers) {
            ASSERT_TRUE(caller->wait_exit());
            EXPECT_EQ(caller->lines(), std::vector<std::string>{"status 7"});
        }
    }

    static std::shared_ptr<send_outcome> send(const context& ctx) {
        auto result = std::make_shared<send_outcome>();
        result->where.around([&] {
            return ctx->send({{"late", attr(std::string("yes"))}},
                             [result](const std::error_code& ec) {
                                 result->where.hit();
                                 result->ec = ec;
                             });
        });
        return result;
    }

    static void expect_serving() { EXPECT_TRUE(serving()); }

    static orvix::utils::link published;
    static std::vector<context> held;
};

orvix::utils::link fault_peer_test::published;
std::vector<context> fault_peer_test::held;

TEST_F(fault_peer_test, answering_a_call_whose_caller_is_gone_is_harmless) {
    vanished_callers(1);
    // The daemon has seen the caller go by the time it routes this newer exchange.
    expect_serving();

    const auto ctx = held.front();
    const auto sent = send(ctx);
    ctx->respond({});
    EXPECT_TRUE(ctx->expired());
    EXPECT_FALSE(*ctx);
    ctx->respond(orvix::error::msg::unknown_error);

    const auto after = send(ctx);
    ASSERT_TRUE(run_until([&] { return sent->where.calls > 0 && after->where.calls > 0; }));
    expect_serving();
    // The daemon took the reply and dropped it, or the client learnt that it could not go.
    expect_proper_calls(sent->where, 1);
    EXPECT_TRUE(sent->ec.value() == 0 || sent->ec == orvix::error::msg::connection_failed)
        << sent->ec.message();
    expect_proper_calls(after->where, 1);
    EXPECT_EQ(after->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(after->ec.message(), "Connection failed");
}

TEST_F(fault_peer_test, many_vanished_callers_answered_or_dropped_late) {
    vanished_callers(12);
    expect_serving();

    std::vector<std::shared_ptr<send_outcome>> sends;
    for (std::size_t i = 0; i < held.size(); ++i) {
        // Every other call is left to the destructor, which completes it as well.
        if (i % 2 == 0) {
            sends.push_back(send(held[i]));
            held[i]->respond(orvix::error::msg::not_supported);
        }
    }
    std::reverse(held.begin(), held.end());
    held.clear();
    ASSERT_TRUE(run_until([&] {
        return std::all_of(sends.begin(), sends.end(),
                           [](const auto& s) { return s->where.calls > 0; });
    }));
    expect_serving();
    for (const auto& sent : sends) {
        expect_proper_calls(sent->where, 1);
        EXPECT_TRUE(sent->ec.value() == 0 || sent->ec == orvix::error::msg::connection_failed)
            << sent->ec.message();
    }
}

TEST_F(fault_peer_test, a_call_outlives_both_its_caller_and_the_connection) {
    vanished_callers(1);
    const auto ctx = held.front();

    bool disconnected = false;
    bus().disconnect([&disconnected](const std::error_code&) { disconnected = true; });
    ASSERT_TRUE(run_until([&disconnected] { return disconnected; }));
    EXPECT_TRUE(ctx->expired());
    EXPECT_FALSE(*ctx);
    const auto sent = send(ctx);
    ctx->respond({});

    connect_client();
    ASSERT_TRUE(run_until([&sent] { return sent->where.calls > 0; }));
    expect_proper_calls(sent->where, 1);
    EXPECT_EQ(sent->ec, orvix::error::msg::connection_failed);

    // Published objects come back with the connection.
    ASSERT_TRUE(run_until(serving));
    EXPECT_TRUE(ctx->expired());
}

} // namespace
