// The client's own logic against a fake libubus and a loop whose timers the test fires:
// connection states, back-off, timeouts and cancel() orderings, without a daemon.
// gtest and the standard headers first: libubox's __constructor macro breaks <cxxabi.h>.
#include <gtest/gtest.h>

#include <orvix/client.h>
#include <orvix/error.h>
#include <orvix/uloop.h>
#include <orvix/utils/scoped_link.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "fake_ubus.h"
#include "manual_loop.h"

namespace {

using orvix_test::manual_loop;
using state = orvix::client::state;
using namespace std::chrono_literals;

std::shared_ptr<manual_loop> loop = std::make_shared<manual_loop>();

orvix::client& bus() {
    return orvix::client::get_instance(loop);
}

class client_state : public ::testing::Test {
protected:
    void SetUp() override {
        bus().cancel();
        loop->settle();
        fake_ubus::on_loop([](fake_ubus::bus& b) {
            const auto context = b.context;
            const int peer = b.peer;
            b = fake_ubus::bus();
            b.context = context;
            b.peer = peer;
        });
    }
    void TearDown() override {
        bus().cancel();
        loop->settle();
    }

    // Appends what each handler was told to `log`, in the order the handlers ran.
    std::function<void(const std::error_code&)> note(const std::string& name) {
        return
            [this, name](const std::error_code& ec) { log.push_back(name + ": " + ec.message()); };
    }
    std::function<void(const std::list<orvix::blob::attr>&, const std::error_code&)>
    note_invoke(const std::string& name) {
        return
            [this, name](const std::list<orvix::blob::attr>& replies, const std::error_code& ec) {
                log.push_back(name + ": " + std::to_string(replies.size()) + " " + ec.message());
            };
    }
    void connect() {
        bus().connect(note("connect"));
        ASSERT_TRUE(loop->run_until([] { return bus().is_active(); }))
            << int(bus().get_state()) << " " << (log.empty() ? "" : log.back());
        log.clear();
    }
    std::vector<ubus_request*> requests() {
        std::vector<ubus_request*> result;
        fake_ubus::on_loop([&result](fake_ubus::bus& b) { result = b.requests; });
        return result;
    }

    std::vector<std::string> log;
};

TEST_F(client_state, back_off_paces_failed_attempts_and_a_short_delay_ends_it) {
    fake_ubus::on_loop([](fake_ubus::bus& b) { b.refuse_connections = true; });
    std::vector<long long> attempts;
    std::vector<state> states;
    orvix::utils::scoped_link watching =
        bus().notify_on_state_change([&states](state s) { states.push_back(s); });
    bus().auto_connect([&attempts](long long attempt) {
        attempts.push_back(attempt);
        return attempt < 3 ? std::chrono::seconds(attempt * 5) : 0s;
    });
    for (int expected = 1; expected <= 3; ++expected) {
        ASSERT_TRUE(loop->run_until([&] { return attempts.size() == std::size_t(expected); }));
        loop->settle();
        const auto armed = loop->armed();
        if (expected == 3) {
            EXPECT_TRUE(armed.empty());
            break;
        }
        ASSERT_EQ(armed.size(), 1u);
        EXPECT_EQ(armed[0]->delay, std::chrono::seconds(expected * 5));
        manual_loop::fire(armed[0]);
    }
    EXPECT_EQ(attempts, (std::vector<long long>{1, 2, 3}));
    EXPECT_EQ(bus().get_state(), state::disconnected);
    EXPECT_EQ(states,
              (std::vector<state>{state::connecting, state::disconnected, state::connecting,
                                  state::disconnected, state::connecting, state::disconnected}));

    // A connection resets the count: the next loss starts again at attempt 1.
    fake_ubus::on_loop([](fake_ubus::bus& b) { b.refuse_connections = false; });
    attempts.clear();
    bus().auto_connect([&attempts](long long attempt) {
        attempts.push_back(attempt);
        return 1s;
    });
    ASSERT_TRUE(loop->run_until([] { return bus().is_active(); }));
    fake_ubus::lose_connection();
    ASSERT_TRUE(loop->run_until([&attempts] { return !attempts.empty(); }));
    EXPECT_EQ(attempts, (std::vector<long long>{1}));
    manual_loop::fire(loop->armed().at(0));
    ASSERT_TRUE(loop->run_until([] { return bus().is_active(); }));
}

TEST_F(client_state, a_lost_connection_fails_pending_invokes_once_and_objects_come_back) {
    connect();
    bus().add_object("fake.object", {}, note("add"));
    ASSERT_TRUE(loop->run_until([this] { return log.size() == 1; }));
    bus().invoke("fake.object", "m", {}, note_invoke("invoke"), 0s);
    ASSERT_TRUE(loop->run_until([this] { return requests().size() == 1; }));

    fake_ubus::lose_connection();
    ASSERT_TRUE(loop->run_until([] { return bus().get_state() == state::disconnected; }));
    loop->settle();
    EXPECT_EQ(log, (std::vector<std::string>{"add: Success", "invoke: 0 Connection failed"}));

    connect();
    loop->settle();
    std::vector<std::string> added;
    fake_ubus::on_loop([&added](fake_ubus::bus& b) { added = b.added; });
    EXPECT_EQ(added, (std::vector<std::string>{"fake.object", "fake.object"}));
    bus().del_object("fake.object", false, note("del"));
    ASSERT_TRUE(loop->run_until([this] { return !log.empty(); }));
}

TEST_F(client_state, a_timeout_and_a_completion_end_an_invoke_once_whichever_comes_first) {
    connect();
    for (const bool timeout_first : {true, false}) {
        log.clear();
        bus().invoke("fake.object", "m", {}, note_invoke("invoke"), 5s);
        ASSERT_TRUE(loop->run_until([this] { return requests().size() == 1; }));
        if (timeout_first) {
            auto timer = loop->armed().at(0);
            EXPECT_EQ(timer->delay, 5s);
            manual_loop::fire(timer);
            loop->settle();
            EXPECT_TRUE(requests().empty()) << "the request is aborted";
        }
        fake_ubus::on_loop([](fake_ubus::bus& b) {
            if (!b.requests.empty()) {
                fake_ubus::complete(b.requests.front(), UBUS_STATUS_OK);
            }
        });
        loop->settle();
        EXPECT_TRUE(loop->armed().empty()) << "the timer is disarmed";
        EXPECT_EQ(log, (std::vector<std::string>{timeout_first ? "invoke: 0 Request timed out"
                                                               : "invoke: 0 Success"}));
    }
}

TEST_F(client_state, cancel_ends_everything_in_order_and_later_results_change_nothing) {
    connect();
    bus().invoke("fake.object", "first", {}, note_invoke("invoke 1"), 0s);
    bus().invoke("fake.object", "second", {}, note_invoke("invoke 2"), 0s);
    ASSERT_TRUE(loop->run_until([this] { return requests().size() == 2; }));
    // Replies to both invokes reach the loop thread while the cancel is under way.
    orvix::uloop::get_instance().post([started = requests()] {
        for (auto* request : started) {
            fake_ubus::complete(request, UBUS_STATUS_OK);
        }
    });
    bus().add_object("fake.adding", {}, note("add"));
    bus().disconnect(note("disconnect"));
    bus().connect(note("connect"));
    bus().cancel();
    std::sort(log.begin(), log.begin() + 2);
    EXPECT_EQ(
        log, (std::vector<std::string>{"invoke 1: 0 Aborted", "invoke 2: 0 Aborted", "add: Aborted",
                                       "disconnect: Success", "connect: Aborted"}));
    EXPECT_EQ(bus().get_state(), state::disconnected);

    // Neither those replies nor the registration that was under way reach a handler or
    // publish anything.
    loop->settle();
    EXPECT_EQ(log.size(), 5u);
    connect();
    loop->settle();
    std::vector<std::string> added;
    fake_ubus::on_loop([&added](fake_ubus::bus& b) { added = b.added; });
    EXPECT_LE(std::count(added.begin(), added.end(), "fake.adding"), 1);
}

TEST_F(client_state, a_listener_is_registered_on_every_connection_until_released) {
    auto lnk = bus().listen("fake.*", [](const std::string&, const orvix::blob::table&) {});
    const auto patterns = [] {
        std::vector<std::string> result;
        fake_ubus::on_loop([&result](fake_ubus::bus& b) { result = b.listening; });
        return result;
    };
    connect();
    EXPECT_EQ(patterns(), (std::vector<std::string>{"fake.*"}));
    // Neither a lost connection nor cancel() ends it; releasing its link does.
    fake_ubus::lose_connection();
    ASSERT_TRUE(loop->run_until([] { return bus().get_state() == state::disconnected; }));
    connect();
    bus().cancel();
    connect();
    loop->settle();
    EXPECT_EQ(patterns(), (std::vector<std::string>{"fake.*", "fake.*", "fake.*"}));
    lnk.release();
    bus().cancel();
    connect();
    loop->settle();
    EXPECT_EQ(patterns().size(), 3u);
}

} // namespace
