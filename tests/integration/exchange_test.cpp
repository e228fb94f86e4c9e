#include "bus_fixture.h"

#include <orvix/error.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using namespace std::chrono_literals;
using orvix::blob::attr;
using context = std::shared_ptr<orvix::client::exchange_ctx>;
using lines = std::vector<std::string>;

class exchange_test : public connected_test {
protected:
    void TearDown() override {
        held->clear();
        connected_test::TearDown();
    }

    // Publishes `name` with one method "call" that runs `serve`.
    static void publish(const std::string& name, orvix::client::method_handler serve) {
        const auto added = add_object(name, {{"call", {std::move(serve), {}}}});
        ASSERT_TRUE(wait_called(added->where));
        ASSERT_FALSE(added->ec);
    }

    std::shared_ptr<std::vector<context>> held = std::make_shared<std::vector<context>>();
};

TEST_F(exchange_test, replies_after_the_handler_has_returned) {
    auto keep = held;
    publish("orvix.test.deferred", [keep](const context& ctx) { keep->push_back(ctx); });
    auto sent = std::make_shared<completion>();
    bool answered = false;
    // Answer once the call is held, from a task of the event loop.
    std::function<void()> answer = [&] {
        if (held->empty()) {
            bus_environment::loop->post(answer);
            return;
        }
        const auto ctx = held->front();
        EXPECT_TRUE(static_cast<bool>(*ctx));
        sent->where.around([&] { return ctx->send({{"text", attr("first")}}, recorder(sent)); });
        ctx->send({{"text", attr("second")}}, {});
        ctx->respond(orvix::error::msg::success);
        EXPECT_TRUE(ctx->expired());
        EXPECT_FALSE(static_cast<bool>(*ctx));
        answered = true;
    };
    bus_environment::loop->post(answer);
    EXPECT_EQ(call_over_bus("orvix.test.deferred", "call", "none"),
              (lines{"reply", "field text first", "reply", "field text second", "status 0"}));
    EXPECT_TRUE(answered);
    ASSERT_TRUE(wait_called(sent->where));
    EXPECT_FALSE(sent->ec);
    expect_proper_calls(sent->where, 1);
}

TEST_F(exchange_test, the_first_status_goes_out_and_a_dropped_context_answers_success) {
    probe served;
    publish("orvix.test.dropped", [&served](const context&) { served.hit(); });
    publish("orvix.test.denied", [](const context& ctx) {
        ctx->respond(orvix::error::msg::permission_denied);
        ctx->respond(orvix::error::msg::success);
    });
    publish("orvix.test.generic",
            [](const context& ctx) { ctx->respond(orvix::error::generic::aborted); });
    EXPECT_EQ(call_over_bus("orvix.test.dropped", "call", "none"), (lines{"status 0"}));
    EXPECT_EQ(call_over_bus("orvix.test.denied", "call", "none"), (lines{"status 6"}));
    EXPECT_EQ(call_over_bus("orvix.test.generic", "call", "none"), (lines{"status 9"}));
    expect_proper_calls(served, 1);
}

TEST_F(exchange_test, send_after_respond_reports_connection_failed_and_sends_nothing) {
    auto late = std::make_shared<completion>();
    orvix::utils::link empty;
    publish("orvix.test.late", [late, &empty](const context& ctx) {
        ctx->respond(orvix::error::msg::success);
        late->where.around([&] { return ctx->send({{"text", attr("late")}}, recorder(late)); });
        empty = ctx->send({{"text", attr("late")}}, {});
    });
    EXPECT_EQ(call_over_bus("orvix.test.late", "call", "none"), (lines{"status 0"}));
    ASSERT_TRUE(wait_called(late->where));
    EXPECT_EQ(late->ec, orvix::error::msg::connection_failed);
    EXPECT_FALSE(empty.active());
    expect_proper_calls(late->where, 1);
}

TEST_F(exchange_test, data_that_cannot_be_encoded_fails_the_send_and_nothing_else) {
    auto bad = std::make_shared<completion>();
    publish("orvix.test.unencodable", [bad](const context& ctx) {
        bad->where.around([&] { return ctx->send({{"empty", attr()}}, recorder(bad)); });
        ctx->send({{"text", attr("after")}}, {});
    });
    EXPECT_EQ(call_over_bus("orvix.test.unencodable", "call", "none"),
              (lines{"reply", "field text after", "status 0"}));
    ASSERT_TRUE(wait_called(bad->where));
    EXPECT_EQ(bad->ec, orvix::error::msg::parse_error);
    expect_proper_calls(bad->where, 1);
    // The client is still fully usable afterwards.
    EXPECT_EQ(call_over_bus("orvix.test.unencodable", "call", "none"),
              (lines{"reply", "field text after", "status 0"}));
}

TEST_F(exchange_test, a_released_send_link_silences_the_handler_but_the_reply_goes_out) {
    auto sent = std::make_shared<completion>();
    publish("orvix.test.released", [sent](const context& ctx) {
        auto lnk = ctx->send({{"text", attr("still sent")}}, recorder(sent));
        EXPECT_TRUE(lnk.active());
        lnk.release();
        EXPECT_FALSE(lnk.active());
    });
    EXPECT_EQ(call_over_bus("orvix.test.released", "call", "none"),
              (lines{"reply", "field text still sent", "status 0"}));
    // The send's outcome was handed over before the answer to this later invoke.
    auto roundtrip = std::make_shared<outcome>();
    invoke_into(roundtrip, "orvix.test.no_such_object", "none");
    ASSERT_TRUE(wait_called(roundtrip->where));
    EXPECT_EQ(sent->where.calls, 0);
}

TEST_F(exchange_test, after_answers_once_the_delay_has_passed_and_then_lets_the_context_go) {
    probe ran;
    std::weak_ptr<orvix::client::exchange_ctx> watched;
    orvix::utils::link pending;
    publish("orvix.test.after", [&](const context& ctx) {
        watched = ctx;
        pending = ran.around([&] {
            return ctx->after(300ms, [&](const context& later) {
                ran.hit();
                EXPECT_FALSE(pending.active());
                later->send({{"text", attr("late")}}, {});
            });
        });
        EXPECT_TRUE(pending.active());
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(call_over_bus("orvix.test.after", "call", "none"),
              (lines{"reply", "field text late", "status 0"}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    expect_proper_calls(ran, 1);
    EXPECT_TRUE(watched.expired()) << "the context outlived its after()";
    EXPECT_FALSE(pending.active());
}

TEST_F(exchange_test, a_released_after_never_runs_and_the_dropped_context_answers) {
    probe ran;
    std::weak_ptr<orvix::client::exchange_ctx> watched;
    publish("orvix.test.released_after", [&](const context& ctx) {
        watched = ctx;
        auto lnk = ctx->after(100ms, [&ran](const context&) { ran.hit(); });
        lnk.release();
        EXPECT_FALSE(lnk.active());
    });
    EXPECT_EQ(call_over_bus("orvix.test.released_after", "call", "none"), (lines{"status 0"}));
    EXPECT_TRUE(watched.expired());
    run_until([] { return false; }, std::chrono::seconds(1));
    EXPECT_EQ(ran.calls, 0);
}

TEST_F(exchange_test, after_runs_with_the_context_expired_once_the_connection_has_gone) {
    probe served, ran;
    bool expired_then = false;
    publish("orvix.test.after_lost", [&](const context& ctx) {
        served.hit();
        ctx->after(200ms, [&](const context& later) {
            ran.hit();
            expired_then = later->expired();
            later->respond(orvix::error::msg::success);
        });
    });
    peer call(caller("orvix.test.after_lost", "call", "none", "1000"));
    ASSERT_TRUE(wait_called(served));
    reset_client();
    ASSERT_TRUE(wait_called(ran));
    EXPECT_TRUE(expired_then);
    finish(call);
    expect_proper_calls(ran, 1);
}

} // namespace
