// Replies that break the rules, from a service that writes the wire protocol itself.

#include "bus_fixture.h"

#include <orvix/error.h>

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;
using table = std::multimap<std::string, attr>;

class fault_malformed_test : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        raw = std::make_unique<peer_process>(
            std::vector<std::string>{ORVIX_TEST_RAW_SERVICE, bus_environment::daemon.socket});
        ASSERT_TRUE(raw->wait_for_line("ready", std::chrono::seconds(20)));
    }
    static void TearDownTestSuite() { raw.reset(); }

    void SetUp() override {
        reset_client();
        connect_client();
    }
    void TearDown() override { reset_client(); }

    // Waits for the handler, then settles the client with a good call, so that a stray
    // second call of the handler would have happened by the time it is counted.
    static std::shared_ptr<outcome> call(const std::string& method) {
        auto result = std::make_shared<outcome>();
        result->where.around([&] {
            return bus().invoke(
                "fault.raw", method, {},
                [result](const std::list<attr>& replies, const std::error_code& ec) {
                    result->where.hit();
                    result->replies = replies;
                    result->ec = ec;
                },
                std::chrono::seconds(0));
        });
        EXPECT_TRUE(run_until([&result] { return result->where.calls > 0; })) << method;
        expect_still_usable();
        return result;
    }

    static void expect_still_usable() {
        bool done = false;
        std::list<attr> replies;
        std::error_code ec;
        bus().invoke(
            "fault.raw", "ok", {},
            [&](const std::list<attr>& r, const std::error_code& e) {
                replies = r;
                ec = e;
                done = true;
            },
            std::chrono::seconds(0));
        ASSERT_TRUE(run_until([&done] { return done; }));
        EXPECT_EQ(ec.value(), 0) << ec.message();
        ASSERT_EQ(replies.size(), 1u);
        EXPECT_EQ(replies.front().get<table>().find("ok")->second.get<std::string>(), "yes");
        EXPECT_TRUE(bus().is_active());
    }

    // An undecodable reply counts as one empty table, and the call as a parse failure.
    static void expect_undecodable(const std::string& method) {
        const auto result = call(method);
        expect_proper_calls(result->where, 1);
        EXPECT_EQ(result->ec, orvix::error::msg::parse_error) << method;
        EXPECT_EQ(result->ec.message(), "Parsing message data failed");
        ASSERT_EQ(result->replies.size(), 1u) << method;
        EXPECT_TRUE(result->replies.front().get<table>().empty()) << method;
    }

    static std::unique_ptr<peer_process> raw;
};

std::unique_ptr<peer_process> fault_malformed_test::raw;

TEST_F(fault_malformed_test, a_good_reply_from_the_raw_service_decodes) {
    expect_still_usable();
}

TEST_F(fault_malformed_test, an_unknown_value_type_is_a_parse_failure) {
    expect_undecodable("bad_type");
}

TEST_F(fault_malformed_test, an_integer_of_the_wrong_size_is_a_parse_failure) {
    expect_undecodable("bad_int");
}

TEST_F(fault_malformed_test, a_string_without_its_terminator_is_a_parse_failure) {
    expect_undecodable("bad_string");
}

TEST_F(fault_malformed_test, a_name_longer_than_its_field_is_a_parse_failure) {
    expect_undecodable("bad_name");
}

TEST_F(fault_malformed_test, a_bad_value_inside_a_nested_table_is_a_parse_failure) {
    expect_undecodable("bad_nested");
}

TEST_F(fault_malformed_test, bytes_that_are_no_message_are_a_parse_failure) {
    expect_undecodable("garbage");
}

TEST_F(fault_malformed_test, a_truncated_tail_is_ignored_like_libubox_iteration_does) {
    const auto result = call("truncated");
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec.value(), 0) << result->ec.message();
    ASSERT_EQ(result->replies.size(), 1u);
    const auto& reply = result->replies.front().get<table>();
    ASSERT_EQ(reply.size(), 1u);
    EXPECT_EQ(reply.find("a")->second.get<unsigned int>(), 1u);
}

TEST_F(fault_malformed_test, a_failure_status_wins_over_an_undecodable_reply) {
    const auto result = call("bad_and_fail");
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec, orvix::error::msg::permission_denied);
    ASSERT_EQ(result->replies.size(), 1u);
    EXPECT_TRUE(result->replies.front().get<table>().empty());
}

TEST_F(fault_malformed_test, a_status_outside_the_known_codes_is_an_unknown_error) {
    const auto result = call("odd_status");
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec, orvix::error::msg::unknown_error);
    EXPECT_TRUE(result->replies.empty());
}

TEST_F(fault_malformed_test, only_the_first_status_counts) {
    const auto result = call("dup_status");
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec.value(), 0) << result->ec.message();
    ASSERT_EQ(result->replies.size(), 1u);
    EXPECT_EQ(result->replies.front().get<table>().find("n")->second.get<unsigned int>(), 1u);
}

TEST_F(fault_malformed_test, replies_to_requests_never_made_are_ignored) {
    const auto result = call("unsolicited");
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec.value(), 0) << result->ec.message();
    ASSERT_EQ(result->replies.size(), 1u);
    EXPECT_EQ(result->replies.front().get<table>().find("ok")->second.get<std::string>(), "yes");
}

TEST_F(fault_malformed_test, stray_malformed_replies_after_the_answer_are_ignored) {
    const auto result = call("spray");
    expect_proper_calls(result->where, 1);
    EXPECT_EQ(result->ec.value(), 0) << result->ec.message();
    ASSERT_EQ(result->replies.size(), 1u);
}

TEST_F(fault_malformed_test, many_malformed_calls_in_flight_each_complete_once) {
    static const char* const methods[] = {"bad_type", "garbage",    "dup_status",
                                          "spray",    "odd_status", "unsolicited"};
    std::vector<std::shared_ptr<outcome>> results;
    for (int round = 0; round < 20; ++round) {
        for (const char* method : methods) {
            auto result = std::make_shared<outcome>();
            result->where.around([&] {
                return bus().invoke(
                    "fault.raw", method, {},
                    [result](const std::list<attr>& replies, const std::error_code& ec) {
                        result->where.hit();
                        result->replies = replies;
                        result->ec = ec;
                    },
                    std::chrono::seconds(0));
            });
            results.push_back(result);
        }
    }
    ASSERT_TRUE(run_until([&results] {
        for (const auto& result : results) {
            if (result->where.calls == 0) {
                return false;
            }
        }
        return true;
    }));
    expect_still_usable();
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto& result = results[i];
        const std::string method = methods[i % (sizeof(methods) / sizeof(methods[0]))];
        expect_proper_calls(result->where, 1);
        if (method == "bad_type" || method == "garbage") {
            EXPECT_EQ(result->ec, orvix::error::msg::parse_error) << method;
        } else if (method == "odd_status") {
            EXPECT_EQ(result->ec, orvix::error::msg::unknown_error) << method;
        } else {
            EXPECT_EQ(result->ec.value(), 0) << method << ": " << result->ec.message();
        }
    }
}

} // namespace
