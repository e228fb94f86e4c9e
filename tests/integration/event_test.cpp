#include "bus_fixture.h"

#include <orvix/error.h>

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using orvix::blob::attr;

// Events as one listener heard them: "TYPE N", in arrival order.
struct heard {
    probe where;
    std::vector<std::string> events;
};

orvix::utils::link listen_into(const std::shared_ptr<heard>& log, const std::string& pattern) {
    return log->where.around([&] {
        return bus().listen(pattern, [log](const std::string& type,
                                           const orvix::blob::table& data) {
            log->where.hit();
            const auto n = data.find("n");
            log->events.push_back(type + " " +
                                  (n != data.end() ? std::to_string(n->second.get<unsigned int>())
                                                   : std::string("-")));
        });
    });
}

std::vector<std::string> sent(const std::string& type, int count) {
    peer sender(
        {ORVIX_TEST_EVENTS, bus_environment::daemon.socket, "send", type, std::to_string(count)});
    return finish(sender);
}

std::vector<std::string> numbered(const std::string& type, int count) {
    std::vector<std::string> events;
    for (int n = 0; n < count; ++n) {
        events.push_back(type + " " + std::to_string(n));
    }
    return events;
}

// Once a call has gone through the loop thread, every listener asked for before is
// registered with the daemon.
void round_trip() {
    const auto result = std::make_shared<outcome>();
    invoke_into(result, "orvix.test.nobody", "m");
    EXPECT_TRUE(wait_called(result->where));
}

class event_test : public connected_test {};

TEST_F(event_test, patterns_choose_the_events_and_each_arrives_once_in_order) {
    const std::map<std::string, std::vector<std::string>> expected{
        {"orvix.test.*", {"orvix.test.a 0", "orvix.test.a 1", "orvix.test.end 0"}},
        {"orvix.test.a", numbered("orvix.test.a", 2)},
        {"orvix.test", {}},
        {"orvix.test.a*b", {}},
    };
    std::map<std::string, std::shared_ptr<heard>> logs;
    std::vector<orvix::utils::link> links;
    for (const auto& entry : expected) {
        logs[entry.first] = std::make_shared<heard>();
        links.push_back(listen_into(logs[entry.first], entry.first));
    }
    round_trip();
    EXPECT_EQ(sent("orvix.test.a", 2), (std::vector<std::string>{"status 0"}));
    ASSERT_TRUE(run_until([&] { return logs["orvix.test.a"]->events.size() == 2; }));
    // An event sent after all others, heard by every listener of "*": nothing else comes.
    const auto last = std::make_shared<heard>();
    links.push_back(listen_into(last, "*"));
    round_trip();
    sent("orvix.test.end", 1);
    ASSERT_TRUE(run_until([&] { return !last->events.empty(); }));
    for (const auto& entry : expected) {
        EXPECT_EQ(logs[entry.first]->events, entry.second) << entry.first;
        expect_proper_calls(logs[entry.first]->where, int(entry.second.size()));
    }
    for (auto& lnk : links) {
        lnk.release();
    }
}

TEST_F(event_test, thousands_of_events_arrive_once_and_in_order) {
    const int count = 5000;
    const auto log = std::make_shared<heard>();
    auto lnk = listen_into(log, "orvix.bulk");
    round_trip();
    EXPECT_EQ(sent("orvix.bulk", count), (std::vector<std::string>{"status 0"}));
    ASSERT_TRUE(run_until([&] { return log->events.size() >= std::size_t(count); }));
    EXPECT_EQ(log->events, numbered("orvix.bulk", count));
    lnk.release();
}

TEST_F(event_test, a_released_listener_hears_nothing_more_and_a_new_connection_keeps_the_rest) {
    const auto gone = std::make_shared<heard>();
    const auto kept = std::make_shared<heard>();
    auto gone_link = listen_into(gone, "orvix.re");
    auto kept_link = listen_into(kept, "orvix.re");
    gone_link.release();
    EXPECT_FALSE(gone_link.active());
    reset_client();
    connect_client();
    round_trip();
    sent("orvix.re", 1);
    ASSERT_TRUE(run_until([&] { return !kept->events.empty(); }));
    EXPECT_EQ(kept->events, numbered("orvix.re", 1));
    EXPECT_TRUE(gone->events.empty());
    kept_link.release();
}

TEST_F(event_test, send_event_reaches_other_clients_but_not_its_own_listeners) {
    const auto own = std::make_shared<heard>();
    auto own_link = listen_into(own, "orvix.out");
    auto listener =
        start_peer({ORVIX_TEST_EVENTS, bus_environment::daemon.socket, "listen", "orvix.out", "1"});
    const struct {
        std::string type;
        bool connected;
        std::error_code expected;
    } cases[] = {
        {"ubus.object.add", true, orvix::error::msg::permission_denied},
        {"orvix.out", true, orvix::error::msg::success},
        {"orvix.out", false, orvix::error::msg::connection_failed},
    };
    for (const auto& c : cases) {
        if (!c.connected) {
            reset_client();
        }
        const auto result = std::make_shared<completion>();
        result->where.around([&] {
            return bus().send_event(c.type, {{"n", attr(7u)}}, recorder(result));
        });
        ASSERT_TRUE(wait_called(result->where));
        expect_proper_calls(result->where, 1);
        EXPECT_EQ(result->ec, c.expected) << c.type;
    }
    EXPECT_EQ(finish(*listener), (std::vector<std::string>{"ready", "event orvix.out 7"}));
    EXPECT_TRUE(own->events.empty());
    EXPECT_THROW(bus().listen("", {}), std::invalid_argument);
    own_link.release();
}

TEST_F(event_test, the_daemon_tells_listeners_of_objects_coming_and_going) {
    std::vector<std::string> seen;
    auto lnk = bus().listen(
        "ubus.object.*", [&seen](const std::string& type, const orvix::blob::table& data) {
            seen.push_back(type + " " + data.find("path")->second.get<std::string>());
        });
    ASSERT_TRUE(wait_called(add_object("orvix.test.watched", {})->where));
    const auto removed = std::make_shared<completion>();
    bus().del_object("orvix.test.watched", false, recorder(removed));
    ASSERT_TRUE(run_until([&] { return seen.size() == 2; }));
    EXPECT_EQ(seen, (std::vector<std::string>{"ubus.object.add orvix.test.watched",
                                              "ubus.object.remove orvix.test.watched"}));
    lnk.release();
}

TEST_F(event_test, lookup_lists_the_matching_objects_with_their_signatures) {
    const orvix::client::method_policy policy{{"n", typeid(unsigned int)},
                                              {"s", typeid(std::string)}};
    ASSERT_TRUE(wait_called(add_object("orvix.look.a", {{"m", {{}, policy}}})->where));
    ASSERT_TRUE(wait_called(add_object("orvix.look.b", {})->where));
    const struct {
        std::string pattern;
        std::vector<std::string> paths;
        std::error_code ec;
    } cases[] = {
        {"orvix.look.*", {"orvix.look.a", "orvix.look.b"}, orvix::error::msg::success},
        {"orvix.look.a", {"orvix.look.a"}, orvix::error::msg::success},
        {"orvix.look.nope", {}, orvix::error::msg::not_found},
        {"", {}, orvix::error::msg::invalid_argument},
    };
    for (const auto& c : cases) {
        const auto result = std::make_shared<completion>();
        std::list<orvix::client::object_info> objects;
        result->where.around([&] {
            return bus().lookup(c.pattern, [&objects, result](const auto& found, const auto& ec) {
                result->where.hit();
                result->ec = ec;
                objects = found;
            });
        });
        ASSERT_TRUE(wait_called(result->where));
        expect_proper_calls(result->where, 1);
        EXPECT_EQ(result->ec, c.ec) << c.pattern;
        std::vector<std::string> paths;
        for (const auto& object : objects) {
            paths.push_back(object.path);
            EXPECT_NE(object.id, 0u);
            if (object.path == "orvix.look.a") {
                EXPECT_EQ(object.methods,
                          (std::map<std::string, orvix::client::method_policy>{{"m", policy}}));
            }
        }
        EXPECT_EQ(paths, c.paths) << c.pattern;
    }
}

TEST_F(event_test, wait_for_ends_once_every_path_is_published_or_it_cannot_be) {
    ASSERT_TRUE(wait_called(add_object("orvix.wait.there", {})->where));
    const auto waited = std::make_shared<completion>();
    waited->where.around([&] {
        return bus().wait_for({"orvix.wait.there", "orvix.wait.later"}, recorder(waited),
                              std::chrono::seconds(20));
    });
    round_trip();
    EXPECT_EQ(waited->where.calls, 0);
    ASSERT_TRUE(wait_called(add_object("orvix.wait.later", {})->where));
    ASSERT_TRUE(wait_called(waited->where));
    EXPECT_FALSE(waited->ec);

    const auto timed = std::make_shared<completion>();
    timed->where.around([&] {
        return bus().wait_for({"orvix.wait.never"}, recorder(timed), std::chrono::seconds(1));
    });
    ASSERT_TRUE(wait_called(timed->where));
    EXPECT_EQ(timed->ec, orvix::error::msg::timeout);

    reset_client();
    const auto offline = std::make_shared<completion>();
    offline->where.around(
        [&] { return bus().wait_for({"orvix.wait.there"}, recorder(offline), {}); });
    ASSERT_TRUE(wait_called(offline->where));
    EXPECT_EQ(offline->ec, orvix::error::msg::connection_failed);
    run_until([] { return false; }, std::chrono::seconds(1));
    for (const auto* c : {waited.get(), timed.get(), offline.get()}) {
        expect_proper_calls(c->where, 1);
    }
}

TEST_F(event_test, a_subscription_follows_the_object_through_its_restarts) {
    std::vector<std::string> heard;
    auto lnk = bus().subscribe(
        "orvix.notifier",
        [&heard](const std::string& type,
                 const std::shared_ptr<orvix::client::exchange_ctx>& notification) {
            heard.push_back(
                type + " " +
                std::to_string(notification->args.find("n")->second.get<unsigned int>()));
            notification->respond(orvix::error::msg::success);
        });
    round_trip();
    // Published after the subscription, then gone, then published again.
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        heard.clear();
        auto notifier = start_peer(
            {ORVIX_TEST_EVENTS, bus_environment::daemon.socket, "notify", "orvix.notifier", "2"});
        EXPECT_EQ(finish(*notifier), (std::vector<std::string>{"ready", "status 0", "status 0"}));
        ASSERT_TRUE(run_until([&heard] { return heard.size() == 2; }));
        EXPECT_EQ(heard, (std::vector<std::string>{"tick 0", "tick 1"}));
    }
    lnk.release();
}

// The notifier waits for each answer before it sends the next notification.
TEST_F(event_test, a_notification_answered_after_a_delay_stays_open_until_then) {
    std::vector<std::string> order;
    auto lnk = bus().subscribe(
        "orvix.notifier.later",
        [&order](const std::string&,
                 const std::shared_ptr<orvix::client::exchange_ctx>& notification) {
            const auto n = std::to_string(notification->args.find("n")->second.get<unsigned int>());
            order.push_back("heard " + n);
            notification->after(
                std::chrono::milliseconds(200),
                [&order, n](const std::shared_ptr<orvix::client::exchange_ctx>& later) {
                    order.push_back("answered " + n);
                    later->respond(orvix::error::msg::success);
                });
        });
    round_trip();
    auto notifier = start_peer(
        {ORVIX_TEST_EVENTS, bus_environment::daemon.socket, "notify", "orvix.notifier.later", "2"});
    EXPECT_EQ(finish(*notifier), (std::vector<std::string>{"ready", "status 0", "status 0"}));
    ASSERT_TRUE(run_until([&order] { return order.size() == 4; }));
    EXPECT_EQ(order, (std::vector<std::string>{"heard 0", "answered 0", "heard 1", "answered 1"}));
    lnk.release();
}

TEST_F(event_test, notify_reaches_the_subscribers_of_a_published_object) {
    std::vector<bool> active;
    auto watching = bus().notify_on_subscribers("orvix.notified",
                                                [&active](bool now) { active.push_back(now); });
    ASSERT_TRUE(wait_called(add_object("orvix.notified", {})->where));
    auto subscriber = start_peer(
        {ORVIX_TEST_EVENTS, bus_environment::daemon.socket, "subscribe", "orvix.notified", "2"});
    ASSERT_TRUE(run_until([&active] { return !active.empty(); }));
    const struct {
        std::string name;
        int timeout_ms;
        std::error_code expected;
    } cases[] = {
        {"orvix.notified", 0, orvix::error::msg::success},
        {"orvix.notified", -1, orvix::error::msg::success},
        {"orvix.unpublished", 0, orvix::error::msg::not_found},
    };
    unsigned int n = 0;
    for (const auto& c : cases) {
        const auto result = std::make_shared<completion>();
        result->where.around([&] {
            return bus().notify(c.name, "tock", {{"n", attr(n++)}}, recorder(result),
                                std::chrono::milliseconds(c.timeout_ms));
        });
        ASSERT_TRUE(wait_called(result->where));
        expect_proper_calls(result->where, 1);
        EXPECT_EQ(result->ec, c.expected) << c.name << " " << c.timeout_ms;
    }
    EXPECT_EQ(finish(*subscriber),
              (std::vector<std::string>{"ready", "notify tock 0", "notify tock 1"}));
    ASSERT_TRUE(run_until([&active] { return active.size() == 2; }));
    EXPECT_EQ(active, (std::vector<bool>{true, false}));
    watching.release();
}

} // namespace
