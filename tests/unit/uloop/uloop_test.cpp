#include <orvix/uloop.h>

#include <gtest/gtest.h>

#include <csignal>
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

    /// The text of what `run` threw, or "" when it returned.
    std::string join() {
        thread.join();
        if (!failure) {
            return "";
        }
        try {
            std::rethrow_exception(failure);
        } catch (const test_error& e) {
            return std::string("test_error: ") + e.what();
        } catch (const std::exception& e) {
            return e.what();
        }
    }

    /// Stops the loop once everything posted so far has run; what `run` threw.
    std::string finish();

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

std::string loop_thread::finish() {
    on_loop([] {});
    uloop::get_instance().exit();
    return join();
}

/// Holds the loop thread inside one piece of work until destroyed, so that whatever
/// is posted meanwhile ends up in one batch.
class loop_holder {
public:
    loop_holder() {
        std::promise<void> held;
        auto released = release.get_future().share();
        uloop::get_instance().post([&held, released] {
            held.set_value();
            released.wait();
        });
        held.get_future().wait();
    }
    ~loop_holder() { release.set_value(); }

private:
    std::promise<void> release;
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

/// Bytes waiting to be read in the sockets opened since `before`: the wake-up bytes that
/// the loop has not consumed yet.
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

TEST(uloop, work_runs_on_the_loop_thread_in_posting_order_batch_by_batch) {
    auto& loop = uloop::get_instance();
    std::string order;
    std::thread::id worker;
    // Posted before run; empty functions are not queued, as calling one would throw out of run.
    loop.post([&] { order += 'a'; });
    loop.post(std::function<void()>());
    loop.post([&] { worker = std::this_thread::get_id(); });
    loop_thread runner;
    const std::function<void()> empty;
    loop.post(empty);
    {
        loop_holder holder;
        loop.post([&] {
            order += 'b';
            loop.post([&] { order += 'd'; });
        });
        loop.post([&] { order += 'c'; });
    }
    // What the batch holding 'b' posts runs after it, and after any work it shared that
    // batch with.
    on_loop([] {});
    // A const function is copied.
    auto calls = std::make_shared<int>(0);
    const std::function<void()> work = [calls] { ++*calls; };
    loop.post(work);
    EXPECT_EQ(runner.finish(), "");
    EXPECT_EQ(order, "abcd");
    EXPECT_NE(worker, std::thread::id());
    EXPECT_NE(worker, std::this_thread::get_id());
    work();
    EXPECT_EQ(*calls, 2);
}

TEST(uloop, a_batch_of_posts_writes_one_wakeup_byte_and_the_loop_reads_it) {
    auto& loop = uloop::get_instance();
    const auto before = open_sockets();
    loop_thread runner;
    on_loop([] {});
    EXPECT_EQ(unread_bytes_since(before), 0);

    std::vector<int> order;
    std::promise<int> unread_in_batch;
    {
        loop_holder holder;
        for (int i = 0; i < 10; ++i) {
            loop.post([&order, i] { order.push_back(i); });
        }
        EXPECT_EQ(unread_bytes_since(before), 1);
        // Measured before anything else is posted, which would write the next byte.
        loop.post([&] { unread_in_batch.set_value(unread_bytes_since(before)); });
    }
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
    EXPECT_EQ(runner.finish(), "");
    EXPECT_EQ(unread_after_posting, 1);
    EXPECT_EQ(unread_at_end, 0);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
}

TEST(uloop, work_posted_while_starting_up_leaves_no_wakeup_byte_behind) {
    auto& loop = uloop::get_instance();
    const auto before = open_sockets();
    std::promise<int> unread;
    // The loop already counts as running, so this post writes a byte; the startup batch
    // runs the work, and must take the byte with it.
    during_uloop_init = [&] { loop.post([&] { unread.set_value(unread_bytes_since(before)); }); };
    loop_thread runner;
    const int unread_in_first_batch = unread.get_future().get();
    during_uloop_init = nullptr;
    EXPECT_EQ(runner.finish(), "");
    EXPECT_EQ(unread_in_first_batch, 0);
}

TEST(uloop, work_from_several_threads_keeps_each_threads_order) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    constexpr int per_thread = 500;
    std::vector<std::vector<int>> seen(4);
    std::vector<std::thread> posters;
    for (std::size_t t = 0; t < seen.size(); ++t) {
        posters.emplace_back([&loop, &seen, t] {
            for (int i = 0; i < per_thread; ++i) {
                loop.post([&seen, t, i] { seen[t].push_back(i); });
            }
        });
    }
    for (auto& poster : posters) {
        poster.join();
    }
    EXPECT_EQ(runner.finish(), "");
    for (const auto& sequence : seen) {
        ASSERT_EQ(sequence.size(), static_cast<std::size_t>(per_thread));
        for (int i = 0; i < per_thread; ++i) {
            ASSERT_EQ(sequence[i], i);
        }
    }
}

TEST(uloop, exit_before_run_is_lost) {
    uloop::get_instance().exit();
    loop_thread runner;
    bool ran = false;
    on_loop([] {});
    on_loop([&] { ran = true; });
    EXPECT_TRUE(ran);
    EXPECT_EQ(runner.finish(), "");
}

TEST(uloop, exit_drops_the_work_queued_after_the_current_batch) {
    auto& loop = uloop::get_instance();
    auto token = std::make_shared<int>(0);
    std::string ran;
    {
        // From work: the rest of its batch runs, what it posts does not.
        loop_thread runner;
        {
            loop_holder holder;
            loop.post([&, token] {
                loop.exit();
                loop.post([&ran, token] { ran += "dropped"; });
            });
            loop.post([&] { ran += "same batch "; });
        }
        EXPECT_EQ(runner.join(), "");
    }
    {
        // From another thread: nothing queued runs.
        loop_thread runner;
        {
            loop_holder holder;
            loop.post([&ran, token] { ran += "queued"; });
            loop.exit();
            loop.post([&ran, token] { ran += "late"; });
        }
        EXPECT_EQ(runner.join(), "");
    }
    EXPECT_EQ(ran, "same batch ");
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
        }
        EXPECT_EQ(runner.join(), "test_error: boom");
    }
    EXPECT_FALSE(rest_of_batch_ran);
    EXPECT_EQ(token.use_count(), 1);

    // exception_handler stops the loop after the current callback and keeps the last.
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
    }
    EXPECT_EQ(runner.join(), "test_error: second");
    EXPECT_TRUE(same_batch_ran);
}

TEST(uloop, a_loop_stopped_without_exit_reports_an_unexpected_exit) {
    loop_thread runner;
    // Work that runs before the loop is entered cannot stop it this way.
    on_loop([] {});
    uloop::get_instance().post([] { uloop_end(); });
    EXPECT_EQ(runner.join(), "uloop: Unexptected uloop exit");
}

TEST(uloop, a_second_run_is_refused_while_one_runs) {
    auto& loop = uloop::get_instance();
    loop_thread runner;
    on_loop([] {});
    const auto second_run = [&loop] {
        try {
            loop.run();
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(second_run(), "uloop: Can't run second uloop");
    std::string from_loop_thread;
    on_loop([&] { from_loop_thread = second_run(); });
    EXPECT_EQ(from_loop_thread, "uloop: Can't run second uloop");
    // The refusals leave the running loop as it was.
    bool still_runs = false;
    on_loop([&] { still_runs = true; });
    EXPECT_TRUE(still_runs);
    EXPECT_EQ(runner.finish(), "");
}

void record_handler(int) {}

TEST(uloop, signal_dispositions_are_the_same_while_and_after_it_runs) {
    const int signals[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
    struct sigaction original[4];
    const auto handlers = [&signals] {
        std::vector<void (*)(int)> now;
        for (int signum : signals) {
            struct sigaction action {};
            sigaction(signum, nullptr, &action);
            now.push_back(action.sa_handler);
        }
        return now;
    };
    for (int i = 0; i < 4; ++i) {
        sigaction(signals[i], nullptr, &original[i]);
    }
    signal(SIGINT, &record_handler);
    const auto before = handlers();

    std::vector<void (*)(int)> while_running;
    {
        loop_thread runner;
        on_loop([&] { while_running = handlers(); });
        EXPECT_EQ(runner.finish(), "");
    }
    const auto after = handlers();
    for (int i = 0; i < 4; ++i) {
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
