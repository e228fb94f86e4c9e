// Listeners, subscriptions and notifications through a bus daemon killed and restarted,
// with automatic reconnection.

#include "bus_fixture.h"

#include <orvix/error.h>
#include <orvix/utils/scoped_link.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;

constexpr int cycles = 3;
constexpr int held_notifies = 20;
constexpr int events = 200;

std::vector<std::string> numbered(const std::string& type, int count) {
    std::vector<std::string> lines;
    for (int n = 0; n < count; ++n) {
        lines.push_back(type + " " + std::to_string(n));
    }
    return lines;
}

std::string with_n(const std::string& type, const orvix::blob::table& data) {
    const auto n = data.find("n");
    return type + " " + (n != data.end() ? std::to_string(n->second.get<unsigned int>()) : "-");
}

std::vector<std::string> events_peer(const std::vector<std::string>& args) {
    std::vector<std::string> argv{ORVIX_TEST_EVENTS, bus_environment::daemon.socket};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

// Once a call has gone through the loop thread, what the client registers after a new
// connection is with the daemon.
void round_trip() {
    const auto result = std::make_shared<outcome>();
    invoke_into(result, "orvix.test.nobody", "m");
    ASSERT_TRUE(wait_called(result->where));
}

TEST(fault_events_test, listeners_subscriptions_and_notifications_outlive_a_killed_daemon) {
    std::vector<std::string> heard_events, heard_notifications;
    std::vector<bool> subscribed;
    const orvix::utils::scoped_link reconnecting =
        bus().auto_connect([](long long) { return std::chrono::seconds(1); });
    const orvix::utils::scoped_link listening = bus().listen(
        "orvix.fault.ev", [&](const std::string& type, const orvix::blob::table& data) {
            heard_events.push_back(with_n(type, data));
        });
    const orvix::utils::scoped_link subscription = bus().subscribe(
        "orvix.fault.src",
        [&](const std::string& type, const std::shared_ptr<orvix::client::exchange_ctx>& n) {
            heard_notifications.push_back(with_n(type, n->args));
        });
    const orvix::utils::scoped_link watching = bus().notify_on_subscribers(
        "orvix.fault.dst", [&](bool active) { subscribed.push_back(active); });
    ASSERT_TRUE(run_until([] { return bus().is_active(); }));
    ASSERT_TRUE(wait_called(add_object("orvix.fault.dst", {})->where));

    for (int cycle = 1; cycle <= cycles; ++cycle) {
        SCOPED_TRACE("cycle " + std::to_string(cycle));
        subscribed.clear();
        std::vector<std::shared_ptr<completion>> notified;
        {
            // Never answers, so every notification waits until the connection goes.
            const auto holder = start_peer(events_peer({"hold", "orvix.fault.dst", "0"}));
            ASSERT_TRUE(run_until([&] { return !subscribed.empty(); }));
            for (int n = 0; n < held_notifies; ++n) {
                notified.push_back(std::make_shared<completion>());
                notified.back()->where.around([&] {
                    return bus().notify("orvix.fault.dst", "tock", {{"n", attr(n)}},
                                        recorder(notified.back()), std::chrono::milliseconds(0));
                });
            }
            ASSERT_TRUE(holder->read_until(
                "notify tock " + std::to_string(held_notifies - 1) + "\n", 20000,
                [] { bus_environment::loop->run_for(std::chrono::milliseconds(5)); }));
            test_daemon_kill(&bus_environment::daemon);
            ASSERT_EQ(test_daemon_restart(&bus_environment::daemon), 0);
        }
        for (const auto& n : notified) {
            ASSERT_TRUE(wait_called(n->where));
        }
        ASSERT_TRUE(run_until([] { return bus().is_active(); }));
        wait_published({"orvix.fault.dst"});
        round_trip();

        heard_events.clear();
        heard_notifications.clear();
        auto sender = peer(events_peer({"send", "orvix.fault.ev", std::to_string(events)}));
        EXPECT_EQ(finish(sender), std::vector<std::string>{"status 0"});
        auto notifier = start_peer(events_peer({"notify", "orvix.fault.src", "2"}));
        EXPECT_EQ(finish(*notifier), (std::vector<std::string>{"ready", "status 0", "status 0"}));
        ASSERT_TRUE(run_until([&] {
            return heard_events.size() >= std::size_t(events) && heard_notifications.size() >= 2;
        }));

        EXPECT_EQ(heard_events, numbered("orvix.fault.ev", events));
        EXPECT_EQ(heard_notifications, numbered("tick", 2));
        EXPECT_EQ(subscribed, (std::vector<bool>{true, false}));
        for (const auto& n : notified) {
            expect_proper_calls(n->where, 1);
            EXPECT_TRUE(n->ec == orvix::error::msg::timeout ||
                        n->ec == orvix::error::msg::connection_failed)
                << n->ec.message();
        }
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
}

} // namespace
