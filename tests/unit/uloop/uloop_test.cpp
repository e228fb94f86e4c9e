#include <orvix/uloop.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

// Runs while the loop starts up, between setting itself running and running the work
// queued before it; set by a test, null otherwise.
static std::function<void()> during_uloop_init;

// Interposes libubox's uloop_init, which the loop calls while it starts up.
extern "C" int uloop_init(void) {
    static const auto real = reinterpret_cast<int (*)()>(dlsym(RTLD_NEXT, "uloop_init"));
    if (during_uloop_init) {
        during_uloop_init();
    }
    return real();
}

namespace {

using orvix::uloop;

struct test_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Runs the loop on a thread of its own, as the client does.
class loop_thread {
public:
    loop_thread()
        : thread([this] {
              try {
                  uloop::get_instance().run();
              } catch (...) {
                  failure = std::current_exception();
              }
          }) {}

    loop_thread(const loop_thread&) = delete;
    loop_thread& operator=(const loop_thread&) = delete;

    // Only reached with the thread still running when a test has failed.
    ~loop_thread() {
        if (thread.joinable()) {
            uloop::get_instance().post([] { uloop::get_instance().exit(); });
            thread.join();
        }
    }

    /// What `run` threw, or null when it returned.
    std::exception_ptr join() {
        thread.join();
        return failure;
    }

private:
    std::exception_ptr failure;
    std::thread thread;
};

/// Runs `work` on the loop thread and waits until it has run.
void on_loop(const std::function<void()>& work) {
    std::promise<void> done;
    uloop::get_instance().post([&] {
        work();
        done.set_value();
    });
    done.get_future().wait();
}

/// Holds the loop thread inside one piece of work until `release`, so that
/// whatever is posted meanwhile ends up in one batch.
class loop_holder {
public:
    loop_holder() {
        std::promise<void> held;
        auto released = release_promise.get_future().share();
        uloop::get_instance().post([&held, released] {
            held.set_value();
            released.wait();
        });
        held.get_future().wait();
    }
    void release() { release_promise.set_value(); }

private:
    std::promise<void> release_promise;
};

std::set<int> open_sockets() {
    std::set<int> sockets;
    for (int fd = 0; fd < 1024; ++fd) {
        struct stat status;
        if (fstat(fd, &status) == 0 && S_ISSOCK(status.st_mode)) {
            sockets.insert(fd);
        }
    }
    return sockets;
}

/// Bytes waiting to be read in the sockets opened since `before`: the wake-up
/// bytes that the loop has not consumed yet.
int unread_bytes_since(const std::set<int>& before) {
    int total = 0;
    for (int fd : open_sockets()) {
        int unread = 0;
        if (before.count(fd) == 0 && ioctl(fd, FIONREAD, &unread) == 0) {
            total += unread;
        }
    }
    return total;
}

std::string message_of(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const std::exception& e) {
        return e.what();
    }
}

void record_handler(int) {}

struct sigaction action_of(int signum) {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    sigaction(signum, nullptr, &action);
    return action;
}

TEST(uloop, work_posted_before_run_runs_first_in_posting_order_on_the_loop_thread) {
    auto& loop = uloop::get_instance();
    std::vector<int> order;
    std::thread::id worker;
    for (int i = 0; i < 3; ++i) {
        loop.post([&order, i] { order.push_back(i); });
    }
    loop.post([&] { worker = std::this_thread::get_id(); });
    loop_thread runner;
    loop.post([&order] { order.push_back(3); });
    on_loop([] {});
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
    EXPECT_NE(worker, std::thread::id());
    EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(uloop, a_batch_of_posts_writes_one_wakeup_byte_and_the_loop_reads_it) {
    auto& loop = uloop::get_instance();
    const auto before = open_sockets();
    loop_thread runner;
    on_loop([] {});
    EXPECT_EQ(unread_bytes_since(before), 0);

    loop_holder holder;
    std::vector<int> order;
    for (int i = 0; i < 10; ++i) {
        loop.post([&order, i] { order.push_back(i); });
    }
    EXPECT_EQ(unread_bytes_since(before), 1);
    // Measured before anything else is posted, which would write the next byte.
    std::promise<int> unread_in_batch;
    loop.post([&] { unread_in_batch.set_value(unread_bytes_since(before)); });
    holder.release();
    EXPECT_EQ(unread_in_batch.get_future().get(), 0);

    // Posted from the loop thread itself, into an empty queue.
    int unread_after_posting = -1;
    on_loop([&] {
        for (int i = 10; i < 15; ++i) {
            loop.post([&order, i] { order.push_back(i); });
        }
        unread_after_posting = unread_bytes_since(before);
    });
    on_loop([] {});
    const int unread_at_end = unread_bytes_since(before);
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);

    EXPECT_EQ(unread_after_posting, 1);
    EXPECT_EQ(unread_at_end, 0);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
}

TEST(uloop, work_posted_by_a_batch_runs_after_that_batch) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    std::vector<std::string> order;
    std::promise<void> last_ran;
    {
        loop_holder holder;
        loop.post([&] {
            order.push_back("a");
            loop.post([&] {
                order.push_back("c");
                last_ran.set_value();
            });
        });
        loop.post([&] { order.push_back("b"); });
        holder.release();
    }
    last_ran.get_future().wait();
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);
    EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(uloop, work_from_several_threads_keeps_each_threads_order) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    constexpr int threads = 4;
    constexpr int per_thread = 500;
    std::vector<std::vector<int>> seen(threads);
    std::vector<std::thread> posters;
    for (int t = 0; t < threads; ++t) {
        posters.emplace_back([&loop, &seen, t] {
            for (int i = 0; i < per_thread; ++i) {
                loop.post([&seen, t, i] { seen[t].push_back(i); });
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    on_loop([] {});
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);

    std::vector<int> expected;
    for (int i = 0; i < per_thread; ++i) {
        expected.push_back(i);
    }
    for (const auto& sequence : seen) {
        EXPECT_EQ(sequence, expected);
    }
}

TEST(uloop, empty_functions_are_not_queued) {
    auto& loop = uloop::get_instance();
    loop.post(std::function<void()>());
    loop_thread runner;
    const std::function<void()> empty;
    loop.post(empty);
    loop.post(std::function<void()>());
    on_loop([] {});
    loop.exit();
    // Calling a queued empty function would have thrown out of run.
    EXPECT_EQ(runner.join(), nullptr);
}

TEST(uloop, posting_a_const_function_copies_it) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    auto calls = std::make_shared<int>(0);
    const std::function<void()> work = [calls] { ++*calls; };
    loop.post(work);
    on_loop([] {});
    EXPECT_EQ(*calls, 1);
    ASSERT_TRUE(work);
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);
    work();
    EXPECT_EQ(*calls, 2);
}

TEST(uloop, exit_before_run_is_lost) {
    auto& loop = uloop::get_instance();
    loop.exit();
    loop_thread runner;
    on_loop([] {});
    bool ran = false;
    on_loop([&] { ran = true; });
    EXPECT_TRUE(ran);
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);
}

TEST(uloop, exit_from_work_lets_its_batch_finish_and_drops_later_work) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    auto token = std::make_shared<int>(0);
    bool same_batch_ran = false;
    bool dropped_ran = false;
    {
        loop_holder holder;
        loop.post([&, token] {
            loop.exit();
            loop.post([&dropped_ran, token] { dropped_ran = true; });
        });
        loop.post([&] { same_batch_ran = true; });
        holder.release();
    }
    EXPECT_EQ(runner.join(), nullptr);
    EXPECT_TRUE(same_batch_ran);
    EXPECT_FALSE(dropped_ran);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(uloop, exit_from_another_thread_drops_queued_work) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    auto token = std::make_shared<int>(0);
    bool queued_ran = false;
    bool late_ran = false;
    {
        loop_holder holder;
        loop.post([&queued_ran, token] { queued_ran = true; });
        loop.exit();
        loop.post([&late_ran, token] { late_ran = true; });
        holder.release();
    }
    EXPECT_EQ(runner.join(), nullptr);
    EXPECT_FALSE(queued_ran);
    EXPECT_FALSE(late_ran);
    EXPECT_EQ(token.use_count(), 1);
}

TEST(uloop, an_exception_from_work_is_rethrown_by_run_and_the_next_run_starts_cleanly) {
    auto& loop = uloop::get_instance();
    auto token = std::make_shared<int>(0);
    bool rest_of_batch_ran = false;
    {
        loop_thread runner;
        {
            loop_holder holder;
            loop.post([] { throw test_error("boom"); });
            loop.post([&rest_of_batch_ran, token] { rest_of_batch_ran = true; });
            holder.release();
        }
        const auto failure = runner.join();
        ASSERT_NE(failure, nullptr);
        EXPECT_THROW(std::rethrow_exception(failure), test_error);
        EXPECT_EQ(message_of(failure), "boom");
    }
    EXPECT_FALSE(rest_of_batch_ran);
    EXPECT_EQ(token.use_count(), 1);

    loop_thread runner;
    bool ran = false;
    on_loop([&] { ran = true; });
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);
    EXPECT_TRUE(ran);
}

TEST(uloop, exception_handler_stops_the_loop_after_the_current_callback_and_keeps_the_last) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    bool same_batch_ran = false;
    {
        loop_holder holder;
        loop.post([&loop] {
            try {
                throw std::logic_error("first");
            } catch (...) {
                loop.exception_handler();
            }
            try {
                throw test_error("second");
            } catch (...) {
                loop.exception_handler();
            }
        });
        loop.post([&] { same_batch_ran = true; });
        holder.release();
    }
    const auto failure = runner.join();
    ASSERT_NE(failure, nullptr);
    EXPECT_THROW(std::rethrow_exception(failure), test_error);
    EXPECT_EQ(message_of(failure), "second");
    EXPECT_TRUE(same_batch_ran);
}

TEST(uloop, a_loop_stopped_without_exit_reports_an_unexpected_exit) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    // Work that runs before the loop is entered cannot stop it this way.
    on_loop([] {});
    loop.post([] { uloop_end(); });
    const auto failure = runner.join();
    ASSERT_NE(failure, nullptr);
    EXPECT_THROW(std::rethrow_exception(failure), std::runtime_error);
    EXPECT_EQ(message_of(failure), "uloop: Unexptected uloop exit");
}

TEST(uloop, a_second_run_is_refused_while_one_runs) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    on_loop([] {});
    try {
        loop.run();
        ADD_FAILURE() << "a second run was accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "uloop: Can't run second uloop");
    }
    std::string from_loop_thread;
    on_loop([&] {
        try {
            loop.run();
        } catch (const std::runtime_error& e) {
            from_loop_thread = e.what();
        }
    });
    EXPECT_EQ(from_loop_thread, "uloop: Can't run second uloop");

    bool still_runs = false;
    on_loop([&] { still_runs = true; });
    EXPECT_TRUE(still_runs);
    loop.exit();
    EXPECT_EQ(runner.join(), nullptr);
}

TEST(uloop, signal_dispositions_are_the_same_after_run_as_before) {
    const int signals[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
    std::vector<struct sigaction> original;
    for (int signum : signals) {
        original.push_back(action_of(signum));
    }
    struct sigaction custom;
    std::memset(&custom, 0, sizeof(custom));
    custom.sa_handler = &record_handler;
    sigaction(SIGINT, &custom, nullptr);
    std::vector<void (*)(int)> before;
    for (int signum : signals) {
        before.push_back(action_of(signum).sa_handler);
    }

    std::vector<void (*)(int)> while_running;
    {
        auto& loop = uloop::get_instance();
        loop_thread runner;
        on_loop([&] {
            for (int signum : signals) {
                while_running.push_back(action_of(signum).sa_handler);
            }
        });
        loop.exit();
        EXPECT_EQ(runner.join(), nullptr);
    }
    std::vector<void (*)(int)> after;
    for (int signum : signals) {
        after.push_back(action_of(signum).sa_handler);
    }
    for (std::size_t i = 0; i < original.size(); ++i) {
        sigaction(signals[i], &original[i], nullptr);
    }

    EXPECT_EQ(before[0], &record_handler);
    EXPECT_EQ(while_running, before);
    EXPECT_EQ(after, before);
}

TEST(uloop, an_exit_while_starting_up_with_work_queued_stops_the_loop) {
    bool ran = false;
    uloop::get_instance().post([&ran] { ran = true; });
    during_uloop_init = [] { std::thread([] { uloop::get_instance().exit(); }).join(); };
    auto done = std::make_shared<std::promise<std::exception_ptr>>();
    auto finished = done->get_future();
    // Detached, so that a loop that missed the exit fails the test instead of hanging it.
    std::thread([done] {
        try {
            uloop::get_instance().run();
            done->set_value(nullptr);
        } catch (...) {
            done->set_value(std::current_exception());
        }
    }).detach();
    const auto status = finished.wait_for(std::chrono::seconds(10));
    during_uloop_init = nullptr;
    ASSERT_EQ(status, std::future_status::ready) << "the loop missed the exit";
    EXPECT_EQ(finished.get(), nullptr);
    EXPECT_FALSE(ran);
}

} // namespace
