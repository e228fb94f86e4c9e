#include "bus_fixture.h"

#include <orvix/error.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace orvix_test;
using state = orvix::client::state;

struct completion {
    probe where;
    std::error_code ec;
};

// Shared with the handler, which may outlive the test's stack frame.
std::function<void(const std::error_code&)> recorder(const std::shared_ptr<completion>& c) {
    return [c](const std::error_code& ec) {
        c->where.hit();
        c->ec = ec;
    };
}

struct state_log {
    probe where;
    std::vector<state> states;
};

class connection_test : public ::testing::Test {
protected:
    void SetUp() override {
        reset_client();
        log = std::make_shared<state_log>();
        auto shared = log;
        subscription = log->where.around([&] {
            return bus().notify_on_state_change([shared](state s) {
                shared->where.hit();
                shared->states.push_back(s);
            });
        });
    }

    void TearDown() override {
        subscription.release();
        reset_client();
        bus().set_socket_path(bus_environment::daemon.socket);
    }

    std::shared_ptr<state_log> log;
    orvix::utils::link subscription;
};

TEST_F(connection_test, connect_and_disconnect_report_each_state) {
    log->states.clear();
    auto connected = std::make_shared<completion>();
    connected->where.around([&] { return bus().connect(recorder(connected)); });
    EXPECT_EQ(bus().get_state(), state::connecting);
    ASSERT_TRUE(run_until([&] { return connected->where.calls > 0; }));
    EXPECT_FALSE(connected->ec);
    EXPECT_TRUE(bus().is_active());
    expect_proper_calls(connected->where, 1);

    auto disconnected = std::make_shared<completion>();
    disconnected->where.around([&] { return bus().disconnect(recorder(disconnected)); });
    EXPECT_EQ(bus().get_state(), state::disconnecting);
    ASSERT_TRUE(run_until([&] { return disconnected->where.calls > 0; }));
    EXPECT_FALSE(disconnected->ec);
    EXPECT_FALSE(bus().is_active());
    expect_proper_calls(disconnected->where, 1);

    EXPECT_EQ(log->states, (std::vector<state>{state::connecting, state::connected,
                                               state::disconnecting, state::disconnected}));
    EXPECT_FALSE(log->where.ran_elsewhere);
}

TEST_F(connection_test, connect_while_connected_succeeds_without_a_state_change) {
    connect_client();
    log->states.clear();
    auto again = std::make_shared<completion>();
    again->where.around([&] { return bus().connect(recorder(again)); });
    ASSERT_TRUE(run_until([&] { return again->where.calls > 0; }));
    EXPECT_FALSE(again->ec);
    expect_proper_calls(again->where, 1);
    EXPECT_TRUE(log->states.empty());
}

TEST_F(connection_test, two_connects_make_one_attempt_with_one_result) {
    log->states.clear();
    auto first = std::make_shared<completion>();
    auto second = std::make_shared<completion>();
    first->where.around([&] { return bus().connect(recorder(first)); });
    second->where.around([&] { return bus().connect(recorder(second)); });
    ASSERT_TRUE(run_until([&] { return first->where.calls > 0 && second->where.calls > 0; }));
    expect_proper_calls(first->where, 1);
    expect_proper_calls(second->where, 1);
    EXPECT_FALSE(first->ec);
    EXPECT_FALSE(second->ec);
    EXPECT_EQ(log->states, (std::vector<state>{state::connecting, state::connected}));
}

TEST_F(connection_test, disconnect_while_disconnected_succeeds) {
    auto result = std::make_shared<completion>();
    result->where.around([&] { return bus().disconnect(recorder(result)); });
    ASSERT_TRUE(run_until([&] { return result->where.calls > 0; }));
    EXPECT_FALSE(result->ec);
    expect_proper_calls(result->where, 1);
}

TEST_F(connection_test, a_disconnect_while_connecting_is_carried_out_after_the_connection) {
    auto connected = std::make_shared<completion>();
    auto disconnected = std::make_shared<completion>();
    connected->where.around([&] { return bus().connect(recorder(connected)); });
    disconnected->where.around([&] { return bus().disconnect(recorder(disconnected)); });
    EXPECT_EQ(bus().get_state(), state::disconnecting);
    ASSERT_TRUE(run_until([&] { return disconnected->where.calls > 0; }));
    expect_proper_calls(connected->where, 1);
    expect_proper_calls(disconnected->where, 1);
    EXPECT_FALSE(connected->ec);
    EXPECT_FALSE(disconnected->ec);
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(connection_test, a_connect_while_disconnecting_follows_the_disconnect) {
    connect_client();
    auto disconnected = std::make_shared<completion>();
    auto connected = std::make_shared<completion>();
    disconnected->where.around([&] { return bus().disconnect(recorder(disconnected)); });
    connected->where.around([&] { return bus().connect(recorder(connected)); });
    EXPECT_EQ(bus().get_state(), state::connecting);
    ASSERT_TRUE(run_until([&] { return connected->where.calls > 0; }));
    expect_proper_calls(disconnected->where, 1);
    expect_proper_calls(connected->where, 1);
    EXPECT_TRUE(bus().is_active());
}

TEST_F(connection_test, an_unreachable_daemon_gives_the_generic_unknown_error) {
    bus().set_socket_path(std::string(bus_environment::daemon.dir) + "/missing.sock");
    EXPECT_EQ(bus().get_socket_path(), std::string(bus_environment::daemon.dir) + "/missing.sock");
    auto result = std::make_shared<completion>();
    result->where.around([&] { return bus().connect(recorder(result)); });
    ASSERT_TRUE(run_until([&] { return result->where.calls > 0; }));
    EXPECT_EQ(result->ec, orvix::error::generic::unknown_error);
    EXPECT_EQ(result->ec.message(), "Unknown error");
    EXPECT_EQ(bus().get_state(), state::disconnected);
    expect_proper_calls(result->where, 1);
}

TEST_F(connection_test, a_back_off_below_one_second_ends_reconnection) {
    bus().set_socket_path(std::string(bus_environment::daemon.dir) + "/missing.sock");
    auto attempts = std::make_shared<std::vector<long long>>();
    auto lnk = bus().auto_connect([attempts](long long attempt) {
        attempts->push_back(attempt);
        return std::chrono::seconds(0);
    });
    EXPECT_TRUE(lnk.active());
    ASSERT_TRUE(run_until([&] { return !attempts->empty(); }));
    EXPECT_EQ(*attempts, std::vector<long long>{1});
    EXPECT_FALSE(lnk.active());
    EXPECT_EQ(bus().get_state(), state::disconnected);
}

TEST_F(connection_test, releasing_the_auto_connect_link_ends_reconnection) {
    auto lnk = bus().auto_connect([](long long) { return std::chrono::seconds(1); });
    ASSERT_TRUE(run_until([] { return bus().is_active(); }));
    lnk.release();
    EXPECT_FALSE(lnk.active());
}

TEST_F(connection_test, disconnect_completes_pending_invokes_with_connection_failed) {
    const auto service = start_service();
    connect_client();
    auto result = std::make_shared<completion>();
    result->where.around([&] {
        return bus().invoke(
            "test.service", "silent", {},
            [result](const std::list<orvix::blob::attr>&, const std::error_code& ec) {
                result->where.hit();
                result->ec = ec;
            },
            std::chrono::seconds(0));
    });
    bool disconnected = false;
    bus().disconnect([&disconnected](const std::error_code&) { disconnected = true; });
    ASSERT_TRUE(run_until([&] { return disconnected; }));
    EXPECT_EQ(result->ec, orvix::error::msg::connection_failed);
    expect_proper_calls(result->where, 1);
}

TEST_F(connection_test, cancel_aborts_a_connection_in_progress_and_leaves_the_client_usable) {
    auto aborted = std::make_shared<completion>();
    aborted->where.around([&] { return bus().connect(recorder(aborted)); });
    bus().cancel();
    EXPECT_EQ(aborted->ec, orvix::error::generic::aborted);
    EXPECT_EQ(bus().get_state(), state::disconnected);
    connect_client();
    // The aborted attempt's late outcome must not disturb the new connection.
    auto roundtrip = std::make_shared<completion>();
    bus().invoke(
        "test.no_such_object", "none", {},
        [roundtrip](const std::list<orvix::blob::attr>&, const std::error_code& ec) {
            roundtrip->where.hit();
            roundtrip->ec = ec;
        },
        std::chrono::seconds(0));
    ASSERT_TRUE(run_until([&] { return roundtrip->where.calls > 0; }));
    EXPECT_EQ(roundtrip->ec, orvix::error::msg::not_found);
    EXPECT_TRUE(bus().is_active());
    expect_proper_calls(aborted->where, 1);
}

TEST_F(connection_test, a_state_handler_may_release_its_own_link) {
    auto calls = std::make_shared<int>(0);
    auto own = std::make_shared<orvix::utils::link>();
    *own = bus().notify_on_state_change([calls, own](state) {
        ++*calls;
        own->release();
    });
    connect_client();
    bus().disconnect({});
    ASSERT_TRUE(run_until([] { return bus().get_state() == state::disconnected; }));
    EXPECT_EQ(*calls, 1);
    EXPECT_FALSE(own->active());
}

TEST_F(connection_test, reconnects_after_the_daemon_returns) {
    auto service = start_service();
    auto attempts = std::make_shared<std::vector<long long>>();
    const auto lnk = bus().auto_connect([attempts](long long attempt) {
        attempts->push_back(attempt);
        return std::chrono::seconds(1);
    });
    ASSERT_TRUE(run_until([] { return bus().is_active(); }));
    // An object of this client, which must answer again after the reconnection.
    std::error_code added = orvix::error::generic::unknown_error;
    bus().add_object("orvix.test.reconnect",
                     {{"ping",
                       {[](const std::shared_ptr<orvix::client::exchange_ctx>& ctx) {
                            ctx->send({{"text", orvix::blob::attr("pong")}}, {});
                        },
                        {}}}},
                     [&added](const std::error_code& ec) { added = ec; });
    ASSERT_TRUE(run_until([&] { return !added; }));

    auto pending = std::make_shared<completion>();
    pending->where.around([&] {
        return bus().invoke(
            "test.service", "silent", {},
            [pending](const std::list<orvix::blob::attr>&, const std::error_code& ec) {
                pending->where.hit();
                pending->ec = ec;
            },
            std::chrono::seconds(0));
    });
    // Let the invoke reach the service before the daemon goes.
    auto roundtrip = std::make_shared<completion>();
    bus().invoke(
        "test.service", "none", {},
        [roundtrip](const std::list<orvix::blob::attr>&, const std::error_code& ec) {
            roundtrip->where.hit();
            roundtrip->ec = ec;
        },
        std::chrono::seconds(0));
    ASSERT_TRUE(run_until([&] { return roundtrip->where.calls > 0; }));

    log->states.clear();
    service.reset();
    test_daemon_stop(&bus_environment::daemon);
    ASSERT_TRUE(run_until([&] { return pending->where.calls > 0; }));
    EXPECT_EQ(pending->ec, orvix::error::msg::timeout);
    // Several attempts fail while the daemon is away.
    ASSERT_TRUE(run_until([&] { return attempts->size() >= 2; }));
    ASSERT_EQ(test_daemon_restart(&bus_environment::daemon), 0);
    ASSERT_TRUE(run_until([] { return bus().is_active(); }));
    for (std::size_t i = 0; i < attempts->size(); ++i) {
        EXPECT_EQ((*attempts)[i], static_cast<long long>(i + 1));
    }
    ASSERT_GE(log->states.size(), 4u);
    EXPECT_EQ(log->states.front(), state::disconnected);
    EXPECT_EQ(log->states.back(), state::connected);

    EXPECT_EQ(call_over_bus("orvix.test.reconnect", "ping", "none"),
              (std::vector<std::string>{"reply", "field text pong", "status 0"}));
    expect_proper_calls(pending->where, 1);
}

TEST_F(connection_test, a_handler_that_asks_again_is_served_after_the_request_under_way) {
    // connect() from a connect handler while a disconnect is pending...
    auto again = std::make_shared<completion>();
    bus().connect([again](const std::error_code&) { bus().connect(recorder(again)); });
    bus().disconnect({});
    ASSERT_TRUE(run_until([&again] { return again->where.calls > 0; }));
    EXPECT_FALSE(again->ec);
    EXPECT_EQ(bus().get_state(), state::connected);

    // ...and disconnect() from a disconnect handler while a connect is pending.
    auto once_more = std::make_shared<completion>();
    bus().disconnect(
        [once_more](const std::error_code&) { bus().disconnect(recorder(once_more)); });
    bus().connect({});
    ASSERT_TRUE(run_until([&once_more] { return once_more->where.calls > 0; }));
    EXPECT_FALSE(once_more->ec);
    EXPECT_EQ(bus().get_state(), state::disconnected);
    expect_proper_calls(again->where, 1);
    expect_proper_calls(once_more->where, 1);
}

TEST_F(connection_test, a_connected_program_keeps_its_signals_and_its_children) {
    const int signals[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
    struct sigaction original[4];
    for (int i = 0; i < 4; ++i) {
        sigaction(signals[i], nullptr, &original[i]);
        signal(signals[i], SIG_DFL);
    }
    // Every connection runs uloop_init again: a first one, and one after a disconnect.
    for (int round = 0; round < 2; ++round) {
        connect_client();
        for (const int signum : signals) {
            struct sigaction now {};
            sigaction(signum, nullptr, &now);
            EXPECT_EQ(now.sa_handler, SIG_DFL) << "signal " << signum << ", round " << round;
        }
        const pid_t child = fork();
        if (child == 0) {
            _exit(7);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child) << std::strerror(errno);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
        reset_client();
    }
    for (int i = 0; i < 4; ++i) {
        sigaction(signals[i], &original[i], nullptr);
    }
}

} // namespace
