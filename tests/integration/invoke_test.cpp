#include "bus_fixture.h"

#include <orvix/error.h>
#include <orvix/utils/scoped_link.h>

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace {

using namespace orvix_test;
using orvix::blob::attr;
using table = std::multimap<std::string, attr>;

class invoke_test : public ::testing::Test {
protected:
    static void SetUpTestSuite() { service = start_service(); }
    static void TearDownTestSuite() { service.reset(); }

    void SetUp() override {
        reset_client();
        connect_client();
    }
    void TearDown() override { reset_client(); }

    // Shared with the handler, which may outlive the test's stack frame.
    static orvix::utils::link call(const std::shared_ptr<outcome>& result,
                                   const std::string& method, const table& args = {},
                                   std::chrono::seconds timeout = std::chrono::seconds(0),
                                   const std::string& object = "test.service") {
        return result->where.around([&] {
            return bus().invoke(
                object, method, args,
                [result](const std::list<attr>& replies, const std::error_code& ec) {
                    result->where.hit();
                    result->replies = replies;
                    result->ec = ec;
                },
                timeout);
        });
    }

    static std::shared_ptr<outcome> call_and_wait(const std::string& method, const table& args = {},
                                                  const std::string& object = "test.service") {
        auto result = std::make_shared<outcome>();
        call(result, method, args, std::chrono::seconds(0), object);
        EXPECT_TRUE(run_until([&result] { return result->where.calls > 0; })) << method;
        return result;
    }

    // Every earlier reply of the service has reached the client once this returns.
    static void flush() { call_and_wait("none"); }

    static std::unique_ptr<peer_process> service;
};

std::unique_ptr<peer_process> invoke_test::service;

TEST_F(invoke_test, collects_every_reply_in_order) {
    const auto none = call_and_wait("none");
    expect_proper_calls(none->where, 1);
    EXPECT_FALSE(none->ec);
    EXPECT_TRUE(none->replies.empty());

    table args{{"text", attr("hi")}, {"n", attr(7u)}, {"n", attr(8u)}};
    const auto echo = call_and_wait("echo", args);
    expect_proper_calls(echo->where, 1);
    EXPECT_FALSE(echo->ec);
    ASSERT_EQ(echo->replies.size(), 1u);
    const auto& fields = echo->replies.front().get<table>();
    ASSERT_EQ(fields.size(), 3u);
    EXPECT_EQ(fields.find("text")->second.get<std::string>(), "hi");
    auto numbers = fields.equal_range("n");
    EXPECT_EQ(numbers.first->second.get<unsigned int>(), 7u);
    EXPECT_EQ(std::next(numbers.first)->second.get<unsigned int>(), 8u);

    const auto many = call_and_wait("many");
    expect_proper_calls(many->where, 1);
    EXPECT_FALSE(many->ec);
    ASSERT_EQ(many->replies.size(), 3u);
    unsigned int index = 0;
    for (const auto& reply : many->replies) {
        EXPECT_EQ(reply.get<table>().find("index")->second.get<unsigned int>(), index++);
    }
}

TEST_F(invoke_test, a_reply_sent_later_by_the_service_arrives) {
    const auto later = call_and_wait("later");
    expect_proper_calls(later->where, 1);
    EXPECT_FALSE(later->ec);
    ASSERT_EQ(later->replies.size(), 1u);
    EXPECT_EQ(later->replies.front().get<table>().find("late")->second.get<std::string>(), "yes");
}

TEST_F(invoke_test, failures_reach_the_handler_as_status_codes) {
    const auto fail = call_and_wait("fail");
    EXPECT_EQ(fail->ec, orvix::error::msg::permission_denied);
    EXPECT_EQ(fail->ec.message(), "Permission denied");
    expect_proper_calls(fail->where, 1);

    const auto partial = call_and_wait("partial");
    EXPECT_EQ(partial->ec, orvix::error::msg::not_supported);
    ASSERT_EQ(partial->replies.size(), 1u);
    EXPECT_EQ(partial->replies.front().get<table>().find("partial")->second.get<std::string>(),
              "yes");

    const auto no_method = call_and_wait("no_such_method");
    EXPECT_EQ(no_method->ec, orvix::error::msg::method_not_found);
    EXPECT_TRUE(no_method->replies.empty());

    const auto no_object = call_and_wait("none", {}, "test.no_such_object");
    EXPECT_EQ(no_object->ec, orvix::error::msg::not_found);
    EXPECT_EQ(no_object->ec.message(), "Not found");
    expect_proper_calls(no_object->where, 1);
}

TEST_F(invoke_test, an_undecodable_reply_counts_as_empty_and_fails_the_call) {
    const auto garbled = call_and_wait("garbled");
    expect_proper_calls(garbled->where, 1);
    EXPECT_EQ(garbled->ec, orvix::error::msg::parse_error);
    ASSERT_EQ(garbled->replies.size(), 2u);
    EXPECT_TRUE(garbled->replies.front().get<table>().empty());
    EXPECT_EQ(garbled->replies.back().get<table>().find("fine")->second.get<std::string>(), "yes");
}

TEST_F(invoke_test, arguments_that_cannot_be_encoded_are_refused) {
    const auto result = call_and_wait("echo", table{{"empty", attr()}});
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec, orvix::error::msg::parse_error);
    EXPECT_EQ(result->ec.message(), "Parsing message data failed");
    EXPECT_TRUE(result->replies.empty());
}

TEST_F(invoke_test, times_out_once) {
    auto result = std::make_shared<outcome>();
    const auto lnk = call(result, "silent", {}, std::chrono::seconds(1));
    EXPECT_TRUE(lnk.active());
    ASSERT_TRUE(run_until([&result] { return result->where.calls > 0; }));
    EXPECT_EQ(result->ec, orvix::error::msg::timeout);
    EXPECT_EQ(result->ec.message(), "Request timed out");
    EXPECT_FALSE(lnk.active());
    flush();
    expect_proper_calls(result->where, 1);
}

TEST_F(invoke_test, releasing_the_link_cancels_the_handler) {
    auto silent = std::make_shared<outcome>();
    auto silent_link = call(silent, "silent");
    auto echo = std::make_shared<outcome>();
    auto echo_link = call(echo, "echo", table{{"text", attr("x")}});
    // Released before the reply can have been handled, though it is on its way.
    echo_link.release();
    silent_link.release();
    EXPECT_FALSE(echo_link.active());
    EXPECT_FALSE(silent_link.active());
    flush();
    EXPECT_EQ(echo->where.calls, 0);
    EXPECT_EQ(silent->where.calls, 0);
}

TEST_F(invoke_test, releasing_after_completion_changes_nothing) {
    auto result = std::make_shared<outcome>();
    auto lnk = call(result, "none");
    ASSERT_TRUE(run_until([&result] { return result->where.calls > 0; }));
    EXPECT_FALSE(lnk.active());
    lnk.release();
    expect_proper_calls(result->where, 1);
}

TEST_F(invoke_test, cancel_aborts_pending_invokes) {
    auto result = std::make_shared<outcome>();
    call(result, "silent");
    auto timed = std::make_shared<outcome>();
    call(timed, "silent", {}, std::chrono::seconds(1));
    bus().cancel();
    EXPECT_EQ(result->ec, orvix::error::generic::aborted);
    EXPECT_EQ(result->ec.message(), "Aborted");
    EXPECT_EQ(timed->ec, orvix::error::generic::aborted);
    // The aborted invoke's timer must not fire any more.
    connect_client();
    flush();
    run_until([] { return false; }, std::chrono::seconds(2));
    expect_proper_calls(result->where, 1);
    expect_proper_calls(timed->where, 1);
}

TEST_F(invoke_test, fails_at_once_while_disconnected) {
    reset_client();
    auto result = std::make_shared<outcome>();
    call(result, "none");
    ASSERT_TRUE(run_until([&result] { return result->where.calls > 0; }));
    EXPECT_EQ(result->ec, orvix::error::msg::connection_failed);
    EXPECT_EQ(result->ec.message(), "Connection failed");
    // Not kept for a later connection.
    connect_client();
    flush();
    expect_proper_calls(result->where, 1);
}

TEST_F(invoke_test, an_empty_handler_is_accepted) {
    bus().invoke("test.service", "many", {}, {}, std::chrono::seconds(0));
    flush();
}

TEST_F(invoke_test, a_handler_may_release_its_own_link) {
    // The link has ended by the time its handler runs, on every way an invoke ends.
    const struct {
        const char* method;
        int timeout;
        bool cancel;
    } endings[] = {{"none", 0, false}, {"silent", 1, false}, {"silent", 0, true}};
    for (const auto& ending : endings) {
        for (const bool scoped : {false, true}) {
            SCOPED_TRACE(std::string(ending.method) + (scoped ? " scoped" : " plain"));
            struct own_link {
                orvix::utils::link plain;
                std::optional<orvix::utils::scoped_link> scoped;
                probe where;
                bool active_inside = true;
            };
            auto own = std::make_shared<own_link>();
            auto lnk = bus().invoke(
                "test.service", ending.method, {},
                [own](const std::list<attr>&, const std::error_code&) {
                    own->where.hit();
                    own->active_inside = own->plain.active();
                    own->plain.release();
                    own->scoped.reset();
                },
                std::chrono::seconds(ending.timeout));
            if (scoped) {
                own->scoped.emplace(std::move(lnk));
            } else {
                own->plain = lnk;
            }
            if (ending.cancel) {
                bus().cancel();
                connect_client();
            }
            ASSERT_TRUE(run_until([&own] { return own->where.calls > 0; }));
            flush();
            expect_proper_calls(own->where, 1);
            EXPECT_FALSE(own->active_inside);
        }
    }
}

} // namespace
