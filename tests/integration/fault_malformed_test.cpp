// Replies that break the rules, from a service that writes the wire protocol itself.

#include "bus_fixture.h"

#include <orvix/error.h>

#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;
using orvix::blob::table;

class fault_malformed_test : public connected_test {
protected:
    static void SetUpTestSuite() {
        raw = start_peer({ORVIX_TEST_RAW_SERVICE, bus_environment::daemon.socket});
    }
    static void TearDownTestSuite() { raw.reset(); }

    static void expect_still_usable() {
        auto result = std::make_shared<outcome>();
        invoke_into(result, "fault.raw", "ok");
        ASSERT_TRUE(wait_called(result->where));
        EXPECT_EQ(result->ec.value(), 0) << result->ec.message();
        ASSERT_EQ(result->replies.size(), 1u);
        EXPECT_EQ(result->replies.front().get<table>().find("ok")->second.get<std::string>(),
                  "yes");
        EXPECT_TRUE(bus().is_active());
    }

    static std::unique_ptr<peer> raw;
};

std::unique_ptr<peer> fault_malformed_test::raw;

// How each misbehaving reply ends its call: an undecodable reply counts as one empty
// table, and the call as a parse failure unless its status says otherwise.
const struct {
    const char* method;
    std::error_code ec;
    std::vector<std::string> replies; // the one field each reply holds, or "" for none
} endings[] = {
    {"bad_type", orvix::error::msg::parse_error, {""}},   // an unknown value type
    {"bad_int", orvix::error::msg::parse_error, {""}},    // an integer of the wrong size
    {"bad_string", orvix::error::msg::parse_error, {""}}, // a string without its NUL
    {"bad_name", orvix::error::msg::parse_error, {""}},   // a name longer than its field
    {"bad_nested", orvix::error::msg::parse_error, {""}}, // a bad value in a nested table
    {"garbage", orvix::error::msg::parse_error, {""}},    // bytes that are no message
    {"truncated", {}, {"a"}}, // the tail ignored, as libubox iteration does
    {"bad_and_fail", orvix::error::msg::permission_denied, {""}},
    {"odd_status", orvix::error::msg::unknown_error, {}}, // outside the known codes
    {"dup_status", {}, {"n"}},                            // only the first status counts
    {"unsolicited", {}, {"ok"}}, // replies to requests never made are ignored
    {"spray", {}, {"ok"}},       // stray malformed replies after the answer too
};

// A success may come in any category.
bool same(const std::error_code& got, const std::error_code& expected) {
    return expected ? got == expected : !got;
}

std::vector<std::string> fields_of(const std::list<attr>& replies) {
    std::vector<std::string> fields;
    for (const auto& reply : replies) {
        const auto& t = reply.get<table>();
        fields.push_back(t.empty() ? "" : t.begin()->first);
        EXPECT_LE(t.size(), 1u);
    }
    return fields;
}

TEST_F(fault_malformed_test, each_misbehaving_reply_completes_its_call_once_as_it_should) {
    for (const auto& ending : endings) {
        SCOPED_TRACE(ending.method);
        auto result = std::make_shared<outcome>();
        invoke_into(result, "fault.raw", ending.method);
        ASSERT_TRUE(wait_called(result->where));
        // A stray second call of the handler would have come by the time this is answered.
        expect_still_usable();
        expect_proper_calls(result->where, 1);
        EXPECT_TRUE(same(result->ec, ending.ec)) << result->ec.message();
        EXPECT_EQ(fields_of(result->replies), ending.replies);
    }
}

TEST_F(fault_malformed_test, many_malformed_calls_in_flight_each_complete_once) {
    std::vector<std::shared_ptr<outcome>> results;
    for (int round = 0; round < 10; ++round) {
        for (const auto& ending : endings) {
            results.push_back(std::make_shared<outcome>());
            invoke_into(results.back(), "fault.raw", ending.method);
        }
    }
    for (const auto& result : results) {
        ASSERT_TRUE(wait_called(result->where));
    }
    expect_still_usable();
    for (std::size_t i = 0; i < results.size(); ++i) {
        const auto& ending = endings[i % std::size(endings)];
        expect_proper_calls(results[i]->where, 1);
        EXPECT_TRUE(same(results[i]->ec, ending.ec)) << ending.method;
        EXPECT_EQ(fields_of(results[i]->replies), ending.replies) << ending.method;
    }
}

} // namespace
