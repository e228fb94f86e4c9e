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
using orvix::blob::table;

class invoke_test : public connected_test {
protected:
    static void SetUpTestSuite() { service = start_service(); }
    static void TearDownTestSuite() { service.reset(); }

    static orvix::utils::link call(const std::shared_ptr<outcome>& result,
                                   const std::string& method, const table& args = {},
                                   std::chrono::seconds timeout = std::chrono::seconds(0)) {
        return invoke_into(result, "test.service", method, args, timeout);
    }

    static std::shared_ptr<outcome> call_and_wait(const std::string& method, const table& args = {},
                                                  const std::string& object = "test.service") {
        auto result = std::make_shared<outcome>();
        invoke_into(result, object, method, args);
        EXPECT_TRUE(wait_called(result->where)) << method;
        expect_proper_calls(result->where, 1);
        return result;
    }

    // Every earlier reply of the service has reached the client once this returns.
    static void flush() { call_and_wait("none"); }

    static std::unique_ptr<peer> service;
};

std::unique_ptr<peer> invoke_test::service;

TEST_F(invoke_test, collects_every_reply_in_order) {
    const auto none = call_and_wait("none");
    EXPECT_FALSE(none->ec);
    EXPECT_TRUE(none->replies.empty());

    const auto echo = call_and_wait("echo", {{"text", attr("hi")}, {"n", 7u}, {"n", 8u}});
    EXPECT_FALSE(echo->ec);
    ASSERT_EQ(echo->replies.size(), 1u);
    const auto& fields = echo->replies.front().get<table>();
    ASSERT_EQ(fields.size(), 3u);
    EXPECT_EQ(fields.find("text")->second.get<std::string>(), "hi");
    auto numbers = fields.equal_range("n");
    EXPECT_EQ(numbers.first->second.get<unsigned int>(), 7u);
    EXPECT_EQ(std::next(numbers.first)->second.get<unsigned int>(), 8u);

    const auto many = call_and_wait("many");
    EXPECT_FALSE(many->ec);
    ASSERT_EQ(many->replies.size(), 3u);
    unsigned int index = 0;
    for (const auto& reply : many->replies) {
        EXPECT_EQ(reply.get<table>().find("index")->second.get<unsigned int>(), index++);
    }

    // A reply the service sends after its handler has returned.
    const auto later = call_and_wait("later");
    EXPECT_FALSE(later->ec);
    ASSERT_EQ(later->replies.size(), 1u);
    EXPECT_EQ(later->replies.front().get<table>().find("late")->second.get<std::string>(), "yes");

    // An empty handler is accepted.
    bus().invoke("test.service", "many", {}, {}, std::chrono::seconds(0));
    flush();
}

TEST_F(invoke_test, failures_reach_the_handler_as_status_codes_with_the_replies_before_them) {
    const struct {
        const char* method;
        table args;
        const char* object;
        std::error_code ec;
        const char* message;
        std::size_t replies;
    } cases[] = {
        {"fail", {}, "test.service", orvix::error::msg::permission_denied, "Permission denied", 0},
        {"partial",
         {},
         "test.service",
         orvix::error::msg::not_supported,
         "Operation not supported",
         1},
        {"no_such_method",
         {},
         "test.service",
         orvix::error::msg::method_not_found,
         "Method not found",
         0},
        {"none", {}, "test.no_such_object", orvix::error::msg::not_found, "Not found", 0},
        // An undecodable reply counts as an empty one, and fails the call.
        {"garbled",
         {},
         "test.service",
         orvix::error::msg::parse_error,
         "Parsing message data failed",
         2},
        // Arguments that cannot be encoded are refused.
        {"echo",
         {{"empty", attr()}},
         "test.service",
         orvix::error::msg::parse_error,
         "Parsing message data failed",
         0},
    };
    std::map<std::string, std::list<attr>> replies;
    for (const auto& c : cases) {
        const auto result = call_and_wait(c.method, c.args, c.object);
        EXPECT_EQ(result->ec, c.ec) << c.method;
        EXPECT_EQ(result->ec.message(), c.message);
        ASSERT_EQ(result->replies.size(), c.replies) << c.method;
        replies[c.method] = result->replies;
    }
    EXPECT_EQ(replies["partial"].front().get<table>().find("partial")->second.get<std::string>(),
              "yes");
    EXPECT_TRUE(replies["garbled"].front().get<table>().empty());
    EXPECT_EQ(replies["garbled"].back().get<table>().find("fine")->second.get<std::string>(),
              "yes");
}

TEST_F(invoke_test, times_out_once_and_a_link_released_after_the_end_changes_nothing) {
    auto result = std::make_shared<outcome>();
    auto lnk = call(result, "silent", {}, std::chrono::seconds(1));
    EXPECT_TRUE(lnk.active());
    ASSERT_TRUE(wait_called(result->where));
    EXPECT_EQ(result->ec, orvix::error::msg::timeout);
    EXPECT_EQ(result->ec.message(), "Request timed out");
    EXPECT_FALSE(lnk.active());
    lnk.release();
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

TEST_F(invoke_test, cancel_aborts_pending_invokes_and_their_timers) {
    auto result = std::make_shared<outcome>();
    call(result, "silent");
    auto timed = std::make_shared<outcome>();
    call(timed, "silent", {}, std::chrono::seconds(1));
    bus().cancel();
    EXPECT_EQ(result->ec, orvix::error::generic::aborted);
    EXPECT_EQ(result->ec.message(), "Aborted");
    EXPECT_EQ(timed->ec, orvix::error::generic::aborted);
    // The aborted invoke's timer, armed earlier, would fire before this one's.
    connect_client();
    auto later = std::make_shared<outcome>();
    call(later, "silent", {}, std::chrono::seconds(1));
    ASSERT_TRUE(wait_called(later->where));
    EXPECT_EQ(later->ec, orvix::error::msg::timeout);
    expect_proper_calls(result->where, 1);
    expect_proper_calls(timed->where, 1);
}

TEST_F(invoke_test, fails_with_the_connection_and_at_once_while_disconnected) {
    auto pending = std::make_shared<outcome>();
    call(pending, "silent");
    bus().disconnect({});
    ASSERT_TRUE(wait_called(pending->where));
    ASSERT_TRUE(run_until([] { return bus().get_state() == orvix::client::state::disconnected; }));
    auto result = std::make_shared<outcome>();
    call(result, "none");
    ASSERT_TRUE(wait_called(result->where));
    for (const auto& failed : {pending, result}) {
        EXPECT_EQ(failed->ec, orvix::error::msg::connection_failed);
        EXPECT_EQ(failed->ec.message(), "Connection failed");
    }
    // Neither is kept for a later connection.
    connect_client();
    flush();
    expect_proper_calls(pending->where, 1);
    expect_proper_calls(result->where, 1);
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
            ASSERT_TRUE(wait_called(own->where));
            flush();
            expect_proper_calls(own->where, 1);
            EXPECT_FALSE(own->active_inside);
        }
    }
}

} // namespace
