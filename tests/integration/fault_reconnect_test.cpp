// The bus daemon killed again and again under load, with automatic reconnection.

#include "bus_fixture.h"

#include <orvix/error.h>
#include <orvix/utils/scoped_link.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <list>
#include <malloc.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;
using context = std::shared_ptr<orvix::client::exchange_ctx>;

constexpr std::size_t held_invokes = 200;
constexpr std::size_t racing_invokes = 50;
constexpr std::size_t invokes = held_invokes + racing_invokes;
constexpr int cycles = 12;
// Growth allowed from the warm-up cycle to the last: containers that keep their peak
// capacity settle over some cycles, while a leak of a few bytes per invoke exceeds it.
constexpr std::size_t slack = 32 * 1024;

// Filled anew each cycle, without reallocating, so that the leak check sees only the
// library's memory.
struct tally {
    std::vector<int> calls = std::vector<int>(invokes);
    std::vector<std::error_code> codes = std::vector<std::error_code>(invokes);
    bool inside = false;
    bool ran_inside = false;
    bool ran_elsewhere = false;

    void reset() {
        std::fill(calls.begin(), calls.end(), 0);
        std::fill(codes.begin(), codes.end(), std::error_code());
        ran_inside = false;
        ran_elsewhere = false;
    }

    bool all_called() const {
        return std::all_of(calls.begin(), calls.end(), [](int n) { return n > 0; });
    }
};

bool answers_again() {
    return call_over_bus("fault.client", "ping", "none") ==
           std::vector<std::string>{"reply", "field pong yes", "status 0"};
}

void invoke_silent(tally& t, std::size_t i) {
    t.inside = true;
    bus().invoke(
        "test.service", "silent", {},
        [&t, i](const std::list<attr>&, const std::error_code& ec) {
            ++t.calls[i];
            t.codes[i] = ec;
            t.ran_inside = t.ran_inside || t.inside;
            t.ran_elsewhere =
                t.ran_elsewhere || std::this_thread::get_id() != bus_environment::loop_thread;
        },
        std::chrono::seconds(0));
    t.inside = false;
}

// Returns once every earlier invoke has been handed to the daemon.
void flush_invokes() {
    auto result = std::make_shared<outcome>();
    invoke_into(result, "test.service", "none");
    ASSERT_TRUE(wait_called(result->where));
    ASSERT_EQ(result->ec.value(), 0) << result->ec.message();
}

TEST(fault_reconnect_test, killed_daemon_fails_every_pending_invoke_once_and_leaks_nothing) {
    int connections = 0;
    // Scoped: the handler refers to this frame, and the client outlives the test.
    const orvix::utils::scoped_link watch =
        bus().notify_on_state_change([&connections](orvix::client::state s) {
            connections += s == orvix::client::state::connected ? 1 : 0;
        });
    const orvix::utils::scoped_link reconnecting =
        bus().auto_connect([](long long) { return std::chrono::seconds(1); });
    ASSERT_TRUE(run_until([] { return bus().is_active(); }));

    std::vector<context> held;
    const auto added = add_object(
        "fault.client", {{"ping",
                          {[](const context& ctx) {
                               ctx->send({{"pong", attr(std::string("yes"))}}, {});
                               ctx->respond({});
                           },
                           {}}},
                         {"hold", {[&held](const context& ctx) { held.push_back(ctx); }, {}}}});
    ASSERT_TRUE(wait_called(added->where));
    ASSERT_TRUE(run_until(answers_again));

    tally t;
    std::size_t warm = 0;
    for (int cycle = 1; cycle <= cycles; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        // A late second call of an earlier cycle's handler would show in these counts.
        t.reset();
        {
            const auto service = start_service();
            const peer call(caller("fault.client", "hold", "none", "60000"));
            for (std::size_t i = 0; i < held_invokes; ++i) {
                invoke_silent(t, i);
            }
            flush_invokes();
            ASSERT_TRUE(run_until([&held] { return !held.empty(); }));
            for (std::size_t i = held_invokes; i < invokes; ++i) {
                invoke_silent(t, i);
            }
            test_daemon_kill(&bus_environment::daemon);
            ASSERT_EQ(test_daemon_restart(&bus_environment::daemon), 0);
        }

        ASSERT_TRUE(run_until([&t] { return t.all_called(); }));
        ASSERT_TRUE(run_until(answers_again));
        EXPECT_EQ(connections, cycle + 1);

        // The held call went with the old connection; answering it does nothing.
        ASSERT_EQ(held.size(), 1u);
        EXPECT_TRUE(held.front()->expired());
        held.front()->respond({});
        held.clear();

        EXPECT_FALSE(t.ran_inside) << "handler ran inside invoke";
        EXPECT_FALSE(t.ran_elsewhere) << "handler ran off the event loop's thread";
        for (std::size_t i = 0; i < invokes; ++i) {
            EXPECT_EQ(t.calls[i], 1) << "invoke " << i;
            const auto& ec = t.codes[i];
            const bool lost =
                ec == orvix::error::msg::timeout || ec == orvix::error::msg::connection_failed;
            EXPECT_TRUE(lost) << "invoke " << i << ": " << ec.message();
        }
        if (::testing::Test::HasFailure()) {
            return;
        }

        if (cycle == 1) {
            warm = mallinfo2().uordblks;
        }
    }
    const std::size_t last = mallinfo2().uordblks;
    EXPECT_LE(last, warm + slack) << "in use after the warm-up cycle: " << warm
                                  << " bytes, after the last: " << last;
}

} // namespace
