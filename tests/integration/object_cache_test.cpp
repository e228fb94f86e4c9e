// Remembered object ids: calls to a service whose object is removed and published again under
// the same path, at the moments that matter on the client's loop thread.

#include "bus_fixture.h"

#include <orvix/error.h>
#include <orvix/uloop.h>
#include <orvix/utils/scoped_link.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace orvix_test;
using namespace std::chrono_literals;
using orvix::blob::attr;
using orvix::blob::table;
using lines = std::vector<std::string>;

constexpr const char* path = "orvix.test.restarting";
constexpr int calls_in_flight = 16;

/// Holds the client's loop thread in a task of its own until ended: nothing is read from the
/// bus meanwhile, and what is posted to that thread meanwhile runs after it in one batch,
/// with nothing read in between.
class loop_hold {
public:
    loop_hold() : released(release.get_future().share()) {
        auto running = std::make_shared<std::promise<void>>();
        started = running->get_future();
        orvix::uloop::get_instance().post([running, wait = released] {
            running->set_value();
            wait.wait();
        });
    }
    ~loop_hold() { end(); }
    loop_hold(const loop_hold&) = delete;
    loop_hold& operator=(const loop_hold&) = delete;

    void wait_started() { started.wait(); }
    void end() {
        if (!ended) {
            ended = true;
            release.set_value();
        }
    }

private:
    std::promise<void> release;
    std::shared_future<void> released;
    std::future<void> started;
    bool ended = false;
};

/// The restarting service, and what its methods did.
class service {
public:
    service()
        : process(start_peer({ORVIX_TEST_RESTARTING, bus_environment::daemon.socket, path})) {}

    /// Publishes the object anew, through another client; once it says so, the daemon has
    /// written the removal on every listener's connection.
    void swap() {
        EXPECT_EQ(call_over_bus(path, "swap", "none"), lines{"status 0"});
        ASSERT_TRUE(process->read_until("\nswapped " + std::to_string(++generation) + "\n", 20000));
    }

    /// How many times each tag ran, up to `last`, which the service ran after all others.
    std::map<unsigned int, int> runs(unsigned int last) {
        EXPECT_TRUE(process->read_until("\nran " + std::to_string(last) + "\n", 20000));
        std::map<unsigned int, int> count;
        const std::string& out = process->output();
        for (auto at = out.find("\nran "); at != std::string::npos;
             at = out.find("\nran ", at + 1)) {
            ++count[static_cast<unsigned int>(std::stoul(out.substr(at + 5)))];
        }
        return count;
    }

    std::unique_ptr<peer> process;
    unsigned int generation = 1;
};

struct call {
    unsigned int tag = 0;
    std::shared_ptr<outcome> result = std::make_shared<outcome>();
    orvix::utils::link link;
};

unsigned int next_tag = 1;

call start_call(const std::string& method, std::chrono::seconds timeout = 0s) {
    call c;
    c.tag = next_tag++;
    c.link = invoke_into(c.result, path, method, {{"tag", attr(c.tag)}}, timeout);
    return c;
}

unsigned int generation_of(const outcome& o) {
    if (o.replies.size() != 1) {
        return 0;
    }
    const auto& fields = o.replies.front().get<table>();
    const auto generation = fields.find("generation");
    return generation != fields.end() ? generation->second.get<unsigned int>() : 0;
}

/// A call that succeeds, from the object of `generation`; its tag.
unsigned int expect_served(unsigned int generation) {
    const auto c = start_call("run");
    EXPECT_TRUE(wait_called(c.result->where));
    expect_proper_calls(c.result->where, 1);
    EXPECT_FALSE(c.result->ec) << c.result->ec.message();
    EXPECT_EQ(generation_of(*c.result), generation);
    return c.tag;
}

enum class expect { served, served_or_not_found, timed_out };

/// Calls on their way while the object is replaced, arranged around the client's loop thread.
struct replacement {
    const char* name;
    const char* method;
    std::chrono::seconds timeout;
    /// A synchronous call of the loop thread (publishing an object), just before or after
    /// the calls go out.
    bool sync_before;
    bool sync_after;
    /// Every other call's link released as soon as the calls are out.
    bool release_half;
    expect expected;
};

// The calls go out through the cached id after the removal but before the loop thread has
// read the daemon's announcement of it: the daemon answers each "Not found".
void replace_under_calls(service& svc, const replacement& r) {
    SCOPED_TRACE(r.name);
    // The first call of a connection registers the client's listener, and the id is cached.
    expect_served(svc.generation);
    std::vector<call> calls;
    std::shared_ptr<completion> added;
    const auto publish = [&] { added = add_object(std::string("orvix.test.sync.") + r.name, {}); };
    {
        loop_hold outer;
        outer.wait_started();
        loop_hold inner;
        if (r.sync_before) {
            publish();
        }
        for (int i = 0; i < calls_in_flight; ++i) {
            calls.push_back(start_call(r.method, r.timeout));
        }
        if (r.sync_after) {
            publish();
        }
        outer.end();
        inner.wait_started();
        svc.swap();
    }
    if (r.release_half) {
        for (std::size_t i = 0; i < calls.size(); i += 2) {
            calls[i].link.release();
        }
    }
    for (std::size_t i = r.release_half ? 1 : 0; i < calls.size(); i += r.release_half ? 2 : 1) {
        ASSERT_TRUE(wait_called(calls[i].result->where)) << "call " << calls[i].tag;
    }
    const unsigned int last = expect_served(svc.generation);
    const auto runs = svc.runs(last);
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const auto& c = calls[i];
        const auto ran = runs.count(c.tag) ? runs.at(c.tag) : 0;
        SCOPED_TRACE("call " + std::to_string(c.tag) + ": " + c.result->ec.message());
        EXPECT_LE(ran, 1);
        if (r.release_half && i % 2 == 0) {
            EXPECT_EQ(c.result->where.calls, 0);
            continue;
        }
        expect_proper_calls(c.result->where, 1);
        const auto& ec = c.result->ec;
        if (r.expected == expect::timed_out) {
            EXPECT_EQ(ec, orvix::error::msg::timeout);
        } else if (!ec) {
            EXPECT_EQ(ran, 1);
            EXPECT_EQ(generation_of(*c.result), svc.generation);
        } else {
            EXPECT_EQ(r.expected, expect::served_or_not_found);
            EXPECT_EQ(ec, orvix::error::msg::not_found);
            EXPECT_EQ(ran, 0);
        }
    }
    if (added) {
        ASSERT_TRUE(wait_called(added->where));
        EXPECT_FALSE(added->ec);
    }
}

class object_cache_test : public connected_test {};

TEST_F(object_cache_test, a_call_that_finds_its_object_gone_is_sent_again_and_runs_once) {
    // Only a removal announcement held back by a synchronous call that the answers reach
    // first leaves a call with "Not found".
    const replacement cases[] = {
        {"loop_idle", "run", 0s, false, false, false, expect::served},
        {"sync_call_before", "run", 0s, true, false, false, expect::served},
        {"sync_call_after", "run", 0s, false, true, false, expect::served_or_not_found},
        {"half_released", "run", 0s, false, false, true, expect::served},
        // The timeout runs on through the second try.
        {"never_answered", "hold", 1s, false, false, false, expect::timed_out},
    };
    service svc;
    for (const auto& c : cases) {
        replace_under_calls(svc, c);
    }
}

TEST_F(object_cache_test, a_methods_own_not_found_is_not_sent_again) {
    // With the object replaced right after the answer, the announcement follows it.
    const struct {
        const char* method;
        bool replaced;
    } cases[] = {{"gone", false}, {"gone_swap", true}};
    service svc;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method);
        expect_served(svc.generation);
        call gone;
        {
            loop_hold outer;
            outer.wait_started();
            gone = start_call(c.method);
            // Right after the call has gone out, so that the loop thread reads the answer
            // and the announcement after it at once.
            loop_hold inner;
            outer.end();
            inner.wait_started();
            const std::string done = c.replaced ? "swapped " + std::to_string(++svc.generation)
                                                : "ran " + std::to_string(gone.tag);
            ASSERT_TRUE(svc.process->read_until("\n" + done + "\n", 20000));
        }
        ASSERT_TRUE(wait_called(gone.result->where));
        expect_proper_calls(gone.result->where, 1);
        EXPECT_EQ(gone.result->ec, orvix::error::msg::not_found);
        EXPECT_EQ(svc.runs(expect_served(svc.generation))[gone.tag], 1);
    }
}

TEST_F(object_cache_test, a_removal_announcement_lost_to_a_full_queue_costs_one_not_found) {
    service svc;
    expect_served(svc.generation);
    int flood = 0;
    std::vector<std::string> removed;
    const orvix::utils::scoped_link flooding =
        bus().listen("orvix.test.flood", [&flood](const std::string&, const table&) { ++flood; });
    const orvix::utils::scoped_link watching =
        bus().listen("ubus.object.remove", [&removed](const std::string&, const table& data) {
            removed.push_back(data.find("path")->second.get<std::string>());
        });
    expect_served(svc.generation);
    {
        // The daemon queues for this client what it cannot write, up to its limit, and
        // drops what does not fit then: the removal among it.
        loop_hold hold;
        hold.wait_started();
        peer flooder(caller(path, "flood", "none", "60000"));
        EXPECT_EQ(finish(flooder), lines{"status 0"});
        svc.swap();
    }
    const auto stale = start_call("run");
    ASSERT_TRUE(wait_called(stale.result->where));
    // Whatever the daemon had queued came before the answer.
    EXPECT_GT(flood, 0);
    ASSERT_EQ(removed, lines{}) << "the daemon had room for the removal";
    expect_proper_calls(stale.result->where, 1);
    EXPECT_EQ(stale.result->ec, orvix::error::msg::not_found);
    const unsigned int last = expect_served(svc.generation);
    const auto runs = svc.runs(last);
    EXPECT_EQ(runs.count(stale.tag), 0u);
    EXPECT_EQ(runs.at(last), 1);
}

TEST_F(object_cache_test, a_new_connection_starts_with_no_ids_and_hears_removals_again) {
    const struct {
        const char* name;
        bool new_daemon;
    } cases[] = {{"daemon_restarted", true}, {"reconnected", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto svc = std::make_unique<service>();
        expect_served(svc->generation);
        if (c.new_daemon) {
            test_daemon_kill(&bus_environment::daemon);
            ASSERT_EQ(test_daemon_restart(&bus_environment::daemon), 0);
            svc = std::make_unique<service>();
        } else {
            bus().disconnect({});
        }
        ASSERT_TRUE(
            run_until([] { return bus().get_state() == orvix::client::state::disconnected; }));
        connect_client();
        // An id of the old daemon names nothing on the new one.
        expect_served(svc->generation);
        replace_under_calls(*svc, {"loop_idle", "run", 0s, false, false, false, expect::served});
    }
}

} // namespace
