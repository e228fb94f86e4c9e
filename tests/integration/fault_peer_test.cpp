// Callers that vanish while the client still holds their calls.

#include "bus_fixture.h"

#include <orvix/error.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;
using context = std::shared_ptr<orvix::client::exchange_ctx>;

class fault_peer_test : public ::testing::Test {
protected:
    // Published once: the object stays published across the tests' reconnections.
    static void SetUpTestSuite() {
        connect_client();
        const auto added = add_object(
            "fault.deferred", {{"hold", {[](const context& ctx) { held.push_back(ctx); }, {}}},
                               {"echo",
                                {[](const context& ctx) {
                                     ctx->send({{"served", attr(std::string("yes"))}}, {});
                                     ctx->respond({});
                                 },
                                 {}}}});
        ASSERT_TRUE(wait_called(added->where));
        ASSERT_FALSE(added->ec) << added->ec.message();
    }

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
        std::vector<std::unique_ptr<peer>> callers;
        for (std::size_t i = 0; i < count; ++i) {
            callers.push_back(
                std::make_unique<peer>(caller("fault.deferred", "hold", "none", "250")));
        }
        ASSERT_TRUE(run_until([&] { return held.size() == count; }));
        for (const auto& call : callers) {
            EXPECT_EQ(finish(*call), std::vector<std::string>{"status 7"});
        }
    }

    static std::shared_ptr<completion> send(const context& ctx) {
        auto result = std::make_shared<completion>();
        result->where.around([&] {
            return ctx->send({{"late", attr(std::string("yes"))}}, recorder(result));
        });
        return result;
    }

    static std::vector<context> held;
};

std::vector<context> fault_peer_test::held;

TEST_F(fault_peer_test, calls_whose_callers_are_gone_are_answered_or_dropped_harmlessly) {
    vanished_callers(12);
    // The daemon has seen the callers go by the time it routes this newer exchange.
    EXPECT_TRUE(serving());

    // The first is answered twice and sent to after its answer; of the others, every
    // other one is left to the destructor, which completes it as well.
    const auto first = held.front();
    std::vector<std::shared_ptr<completion>> sends{send(first)};
    first->respond({});
    EXPECT_TRUE(first->expired());
    EXPECT_FALSE(*first);
    first->respond(orvix::error::msg::unknown_error);
    const auto after = send(first);
    for (std::size_t i = 2; i < held.size(); i += 2) {
        sends.push_back(send(held[i]));
        held[i]->respond(orvix::error::msg::not_supported);
    }
    std::reverse(held.begin(), held.end());
    held.clear();
    ASSERT_TRUE(run_until([&] {
        return after->where.calls > 0 && std::all_of(sends.begin(), sends.end(), [](const auto& s) {
                   return s->where.calls > 0;
               });
    }));
    EXPECT_TRUE(serving());
    // The daemon took each reply and dropped it, or the client learnt that it could not go.
    for (const auto& sent : sends) {
        expect_proper_calls(sent->where, 1);
        EXPECT_TRUE(!sent->ec || sent->ec == orvix::error::msg::connection_failed)
            << sent->ec.message();
    }
    expect_proper_calls(after->where, 1);
    EXPECT_EQ(after->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(after->ec.message(), "Connection failed");
}

TEST_F(fault_peer_test, a_call_outlives_both_its_caller_and_the_connection) {
    vanished_callers(1);
    const auto ctx = held.front();
    bus().disconnect({});
    ASSERT_TRUE(run_until([] { return bus().get_state() == orvix::client::state::disconnected; }));
    EXPECT_TRUE(ctx->expired());
    EXPECT_FALSE(*ctx);
    const auto sent = send(ctx);
    ctx->respond({});

    connect_client();
    ASSERT_TRUE(wait_called(sent->where));
    expect_proper_calls(sent->where, 1);
    EXPECT_EQ(sent->ec, orvix::error::msg::connection_failed);
    // Published objects come back with the connection.
    ASSERT_TRUE(run_until(serving));
    EXPECT_TRUE(ctx->expired());
}

} // namespace
