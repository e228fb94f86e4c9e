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

TEST_F(connection_test, each_state_is_reported_once_however_often_it_is_asked_for) {
    log->states.clear();
    std::vector<std::shared_ptr<completion>> results;
    const auto request = [&results](bool connect) {
        auto result = std::make_shared<completion>();
        result->where.around([&] {
            return connect ? bus().connect(recorder(result)) : bus().disconnect(recorder(result));
        });
        results.push_back(result);
    };
    const auto settle = [&results] {
        for (const auto& result : results) {
            ASSERT_TRUE(wait_called(result->where));
        }
    };
    // Two connects make one attempt; a connect while connected, or a disconnect while
    // disconnected, changes nothing.
    request(true);
    EXPECT_EQ(bus().get_state(), state::connecting);
    request(true);
    settle();
    EXPECT_TRUE(bus().is_active());
    request(true);
    settle();
    request(false);
    EXPECT_EQ(bus().get_state(), state::disconnecting);
    settle();
    EXPECT_FALSE(bus().is_active());
    request(false);
    settle();
    EXPECT_EQ(log->states, (std::vector<state>{state::connecting, state::connected,
                                               state::disconnecting, state::disconnected}));
    EXPECT_FALSE(log->where.ran_elsewhere);
    for (const auto& result : results) {
        expect_proper_calls(result->where, 1);
        EXPECT_FALSE(result->ec);
    }
}

TEST_F(connection_test, a_request_against_the_one_under_way_is_carried_out_after_it) {
    auto connected = std::make_shared<completion>();
    auto disconnected = std::make_shared<completion>();
    connected->where.around([&] { return bus().connect(recorder(connected)); });
    disconnected->where.around([&] { return bus().disconnect(recorder(disconnected)); });
    EXPECT_EQ(bus().get_state(), state::disconnecting);
    ASSERT_TRUE(wait_called(disconnected->where));
    EXPECT_EQ(bus().get_state(), state::disconnected);

    connect_client();
    auto disconnected_again = std::make_shared<completion>();
    auto connected_again = std::make_shared<completion>();
    disconnected_again->where.around(
        [&] { return bus().disconnect(recorder(disconnected_again)); });
    connected_again->where.around([&] { return bus().connect(recorder(connected_again)); });
    EXPECT_EQ(bus().get_state(), state::connecting);
    ASSERT_TRUE(wait_called(connected_again->where));
    EXPECT_TRUE(bus().is_active());
    for (const auto& c : {connected, disconnected, disconnected_again, connected_again}) {
        expect_proper_calls(c->where, 1);
        EXPECT_FALSE(c->ec);
    }
}

TEST_F(connection_test, an_unreachable_daemon_gives_the_generic_unknown_error) {
    const std::string missing = std::string(bus_environment::daemon.dir) + "/missing.sock";
    bus().set_socket_path(missing);
    EXPECT_EQ(bus().get_socket_path(), missing);
    auto result = std::make_shared<completion>();
    result->where.around([&] { return bus().connect(recorder(result)); });
    ASSERT_TRUE(wait_called(result->where));
    EXPECT_EQ(result->ec, orvix::error::generic::unknown_error);
    EXPECT_EQ(result->ec.message(), "Unknown error");
    EXPECT_EQ(bus().get_state(), state::disconnected);
    expect_proper_calls(result->where, 1);

    // A back-off below one second ends reconnection.
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

TEST_F(connection_test, cancel_aborts_a_connection_in_progress_and_leaves_the_client_usable) {
    auto aborted = std::make_shared<completion>();
    aborted->where.around([&] { return bus().connect(recorder(aborted)); });
    bus().cancel();
    EXPECT_EQ(aborted->ec, orvix::error::generic::aborted);
    EXPECT_EQ(bus().get_state(), state::disconnected);
    connect_client();
    // The aborted attempt's late outcome must not disturb the new connection.
    auto roundtrip = std::make_shared<outcome>();
    invoke_into(roundtrip, "test.no_such_object", "none");
    ASSERT_TRUE(wait_called(roundtrip->where));
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
    auto lnk = bus().auto_connect([attempts](long long attempt) {
        attempts->push_back(attempt);
        return std::chrono::seconds(1);
    });
    ASSERT_TRUE(run_until([] { return bus().is_active(); }));
    // An object of this client, which must answer again after the reconnection.
    const auto added = add_object("orvix.test.reconnect",
                                  {{"ping",
                                    {[](const std::shared_ptr<orvix::client::exchange_ctx>& ctx) {
                                         ctx->send({{"text", orvix::blob::attr("pong")}}, {});
                                     },
                                     {}}}});
    ASSERT_TRUE(wait_called(added->where));

    auto pending = std::make_shared<outcome>();
    invoke_into(pending, "test.service", "silent");
    // Let the invoke reach the service before the daemon goes.
    auto roundtrip = std::make_shared<outcome>();
    invoke_into(roundtrip, "test.service", "none");
    ASSERT_TRUE(wait_called(roundtrip->where));

    log->states.clear();
    service.reset();
    test_daemon_stop(&bus_environment::daemon);
    ASSERT_TRUE(wait_called(pending->where));
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
    lnk.release();
    EXPECT_FALSE(lnk.active());
}

TEST_F(connection_test, a_handler_that_asks_again_is_served_after_the_request_under_way) {
    // connect() from a connect handler while a disconnect is pending...
    auto again = std::make_shared<completion>();
    bus().connect([again](const std::error_code&) { bus().connect(recorder(again)); });
    bus().disconnect({});
    ASSERT_TRUE(wait_called(again->where));
    EXPECT_FALSE(again->ec);
    EXPECT_EQ(bus().get_state(), state::connected);

    // ...and disconnect() from a disconnect handler while a connect is pending.
    auto once_more = std::make_shared<completion>();
    bus().disconnect(
        [once_more](const std::error_code&) { bus().disconnect(recorder(once_more)); });
    bus().connect({});
    ASSERT_TRUE(wait_called(once_more->where));
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
