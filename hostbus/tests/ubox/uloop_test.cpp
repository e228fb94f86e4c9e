// uloop: struct layouts, fd events and flags, batches, deletion from callbacks, timeouts,
// intervals, run/end semantics; and process-wide signal state: dispositions taken and given
// back, SIGINT/SIGTERM ending the loop, SIGCHLD reaping, signals routed to callbacks. Every
// test restores the dispositions it changed.
extern "C" {
#include <libubox/uloop.h>
}

#include <gtest/gtest.h>

#include <orvix_testing/signals.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <dirent.h>
#include <fcntl.h>
#include <iterator>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using orvix_testing::disposition;
using orvix_testing::saved_dispositions;
using orvix_testing::set_disposition;

std::vector<std::string> trace;

// Both wrappers keep the uloop struct first, so the callback can cast back to them, and
// unhook it when they go out of scope, as uloop keeps pointers to registered structs.
struct Watch {
    uloop_fd u;
    int calls;
    unsigned int events;
    bool eof, error, registered;
    int depth, max_depth;
    void (*action)(Watch*);
    Watch* other;
    ~Watch() { uloop_fd_delete(&u); }
};

void watch_cb(uloop_fd* u, unsigned int events) {
    Watch* w = reinterpret_cast<Watch*>(u);
    w->calls++;
    w->events = events;
    w->eof = u->eof;
    w->error = u->error;
    w->registered = u->registered;
    trace.push_back("fd");
    w->max_depth = std::max(w->max_depth, ++w->depth);
    if (w->action)
        w->action(w);
    w->depth--;
}

Watch watch(int fd, void (*action)(Watch*) = nullptr) {
    Watch w{};
    w.u.fd = fd;
    w.u.cb = watch_cb;
    w.action = action;
    return w;
}

struct Timer {
    uloop_timeout t;
    const char* name;
    int fired;
    bool pending_in_cb;
    void (*action)(Timer*);
    ~Timer() { uloop_timeout_cancel(&t); }
};

void timer_cb(uloop_timeout* t) {
    Timer* tm = reinterpret_cast<Timer*>(t);
    tm->fired++;
    tm->pending_in_cb = t->pending;
    trace.push_back(tm->name);
    if (tm->action)
        tm->action(tm);
}

Timer timer(const char* name, void (*action)(Timer*) = nullptr) {
    Timer tm{};
    tm.t.cb = timer_cb;
    tm.name = name;
    tm.action = action;
    return tm;
}

void end_loop(Timer*) {
    uloop_end();
}

void drain(Watch* w) {
    char buf[64];
    while (read(w->u.fd, buf, sizeof(buf)) > 0)
        ;
}

// a: the end watched, b: the other; a pipe's read end, or one of a socket pair. With
// `filled`, one byte waits at a.
struct Ends {
    int a = -1, b = -1;
    explicit Ends(bool filled = false, bool socket = false) {
        int fds[2];
        EXPECT_EQ(socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, fds) : pipe(fds), 0);
        a = fds[0];
        b = fds[1];
        if (filled)
            put();
    }
    ~Ends() {
        close_b();
        close(a);
    }
    void put() const { EXPECT_EQ(write(b, "x", 1), 1); }
    void close_b() {
        if (b >= 0)
            close(b);
        b = -1;
    }
};

class Uloop : public ::testing::Test {
protected:
    void SetUp() override {
        trace.clear();
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override { uloop_done(); }
};

TEST_F(Uloop, WhatTheCallbackSeesOfTheOtherEnd) {
    const struct {
        const char* what;
        bool socket;
        unsigned int flags;
        void (*act)(Ends&);
        const char* seen; // events, then the flags as the callback finds them
    } cases[] = {
        {"data", false, ULOOP_READ, [](Ends& e) { e.put(); }, "1 registered"},
        // A hang-up unregisters before the callback runs, unless it asked for errors.
        {"peer closed", true, ULOOP_READ, [](Ends& e) { e.close_b(); }, "1 eof error"},
        {"peer closed, ERROR_CB", true, ULOOP_READ | ULOOP_ERROR_CB, [](Ends& e) { e.close_b(); },
         "1 eof error registered"},
        {"peer shut down writing", true, ULOOP_READ, [](Ends& e) { shutdown(e.b, SHUT_WR); },
         "1 eof registered"},
        {"pipe writer closed", false, ULOOP_READ, [](Ends& e) { e.close_b(); }, "0 error"},
    };
    for (const auto& c : cases) {
        Ends e(false, c.socket);
        Watch w = watch(e.a);
        ASSERT_EQ(uloop_fd_add(&w.u, c.flags), 0);
        c.act(e);
        uloop_run_timeout(5000);
        EXPECT_EQ(w.calls, 1) << c.what;
        EXPECT_EQ(std::to_string(w.events) + (w.eof ? " eof" : "") + (w.error ? " error" : "") +
                      (w.registered ? " registered" : ""),
                  c.seen)
            << c.what;
        EXPECT_EQ(w.u.flags == 0, !w.registered) << c.what;
    }
}

TEST_F(Uloop, RegistrationFlagsAndModes) {
    static std::vector<unsigned int> seen;
    seen.clear();
    uloop_fd_set_cb = [](uloop_fd*, unsigned int flags) { seen.push_back(flags); };
    Ends p1, p2;
    Watch w1 = watch(p1.a), w2 = watch(p2.a);
    ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(&w2.u, ULOOP_READ | ULOOP_BLOCKING), 0);
    EXPECT_TRUE(fcntl(p1.a, F_GETFL) & O_NONBLOCK) << "made non-blocking by default";
    EXPECT_FALSE(fcntl(p2.a, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(w2.u.flags, 0x9);

    // Adding again changes the flags and clears eof and error; without READ or WRITE it
    // deletes.
    w1.u.eof = w1.u.error = true;
    ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ | ULOOP_WRITE), 0);
    EXPECT_FALSE(w1.u.eof || w1.u.error);
    EXPECT_EQ(w1.u.flags, ULOOP_READ | ULOOP_WRITE);
    EXPECT_EQ(uloop_fd_add(&w1.u, ULOOP_EDGE_TRIGGER), 0);
    EXPECT_FALSE(w1.u.registered);
    EXPECT_EQ(w1.u.flags, 0);
    EXPECT_EQ(uloop_fd_delete(&w1.u), 0);
    uloop_fd_set_cb = nullptr;
    EXPECT_EQ(seen, (std::vector<unsigned int>{ULOOP_READ, ULOOP_READ | ULOOP_BLOCKING,
                                               ULOOP_READ | ULOOP_WRITE, 0}));

    Watch bad = watch(-1);
    EXPECT_EQ(uloop_fd_add(&bad.u, ULOOP_READ), -1);
    EXPECT_FALSE(bad.u.registered);
}

TEST_F(Uloop, LevelTriggeredRepeatsButEdgeTriggeredReportsOnlyNewData) {
    Ends level(true), edge(true);
    Watch lw = watch(level.a), ew = watch(edge.a);
    ASSERT_EQ(uloop_fd_add(&lw.u, ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(&ew.u, ULOOP_READ | ULOOP_EDGE_TRIGGER), 0);
    for (int i = 0; i < 6; i++)
        uloop_run_timeout(50);
    EXPECT_EQ(ew.calls, 1);
    EXPECT_GE(lw.calls, 4);

    ASSERT_EQ(uloop_fd_delete(&lw.u), 0);
    edge.put();
    uloop_run_timeout(5000);
    EXPECT_EQ(ew.calls, 2);
}

// Two fds ready at once: the first callback deletes the other or cancels the run, and the
// other's pending event never runs.
TEST_F(Uloop, FirstOfTwoReadyFdsCanStopTheOther) {
    void (*const actions[])(Watch*) = {
        [](Watch* w) {
            drain(w);
            EXPECT_EQ(uloop_fd_delete(&w->other->u), 0);
        },
        [](Watch*) { uloop_cancelled = true; },
    };
    for (auto action : actions) {
        Ends p1(true), p2(true);
        Watch w1 = watch(p1.a, action), w2 = watch(p2.a, action);
        w1.other = &w2;
        w2.other = &w1;
        ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ), 0);
        ASSERT_EQ(uloop_fd_add(&w2.u, ULOOP_READ), 0);
        Timer guard = timer("guard", end_loop);
        uloop_timeout_set(&guard.t, 300);
        uloop_run();
        EXPECT_EQ(w1.calls + w2.calls, 1);
    }
}

void write_and_run_nested(Watch* w) {
    if (w->calls > 1)
        return;
    drain(w);
    EXPECT_EQ(write(w->other->u.fd, "x", 1), 1);
    uloop_run_timeout(1000);
}

// An edge-triggered event during the fd's own callback waits until it returns, and is
// dropped if the callback deleted the fd.
TEST_F(Uloop, EdgeTriggeredEventDuringOwnCallbackIsBuffered) {
    for (bool delete_itself : {false, true}) {
        Ends p(true);
        Watch writer = watch(p.b);
        Watch w = watch(p.a, delete_itself ? [](Watch* w) {
            write_and_run_nested(w);
            uloop_fd_delete(&w->u);
        }
                                           : write_and_run_nested);
        w.other = &writer;
        ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ | ULOOP_EDGE_TRIGGER), 0);
        uloop_run_timeout(5000);
        uloop_run_timeout(50);
        EXPECT_EQ(w.calls, delete_itself ? 1 : 2);
        EXPECT_EQ(w.max_depth, 1);
    }
}

TEST_F(Uloop, TimeoutsFireInExpiryOrderAndEqualOnesInInsertionOrder) {
    Timer a = timer("a", end_loop), b = timer("b"), c = timer("c"), d = timer("d");
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&a.t, 60);
    uloop_timeout_set(&d.t, 30);
    uloop_timeout_set(&b.t, 10);
    c.t.time = b.t.time;
    ASSERT_EQ(uloop_timeout_add(&c.t), 0);
    uloop_run();
    EXPECT_EQ(trace, (std::vector<std::string>{"b", "c", "d", "a"}));
    EXPECT_TRUE(guard.t.pending);
}

TEST_F(Uloop, TimeoutIsUnlinkedBeforeCallbackAndMayReArm) {
    Timer t = timer("t", [](Timer* t) {
        if (t->fired < 3)
            uloop_timeout_set(&t->t, 1);
        else
            uloop_end();
    });
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&t.t, 0);
    uloop_run();
    EXPECT_EQ(t.fired, 3);
    EXPECT_FALSE(t.pending_in_cb);
    EXPECT_FALSE(t.t.pending);
    EXPECT_EQ(guard.fired, 0);
}

TEST_F(Uloop, TimeoutBookkeeping) {
    Timer t = timer("t");
    EXPECT_EQ(uloop_timeout_remaining64(&t.t), -1);
    EXPECT_EQ(uloop_timeout_cancel(&t.t), -1);
    EXPECT_EQ(uloop_get_next_timeout(), -1);

    ASSERT_EQ(uloop_timeout_set(&t.t, 1000), 0);
    EXPECT_TRUE(t.t.pending);
    EXPECT_GT(uloop_timeout_remaining64(&t.t), 500);
    EXPECT_LE(uloop_timeout_remaining64(&t.t), 1000);
    EXPECT_GT(uloop_get_next_timeout(), 500);
    EXPECT_LE(uloop_get_next_timeout(), 1000);
    EXPECT_EQ(uloop_timeout_add(&t.t), -1);

    ASSERT_EQ(uloop_timeout_set(&t.t, 100000), 0);
    EXPECT_GT(uloop_timeout_remaining64(&t.t), 99000);

    ASSERT_EQ(uloop_timeout_set(&t.t, -5), 0);
    EXPECT_LE(uloop_timeout_remaining64(&t.t), 0);
    EXPECT_EQ(uloop_get_next_timeout(), 0);

    EXPECT_EQ(uloop_timeout_cancel(&t.t), 0);
    EXPECT_FALSE(t.t.pending);
    EXPECT_EQ(uloop_timeout_remaining64(&t.t), -1);
}

// One fd callback per iteration, and expired timeouts run before the next.
TEST_F(Uloop, ExpiredTimeoutsRunBetweenFdCallbacks) {
    static Timer t;
    t = timer("timer");
    Ends p1(true), p2(true);
    auto arm_timer = [](Watch* w) {
        drain(w);
        if (!t.fired && !t.t.pending)
            uloop_timeout_set(&t.t, -1);
    };
    Watch w1 = watch(p1.a, arm_timer), w2 = watch(p2.a, arm_timer);
    ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(&w2.u, ULOOP_READ), 0);
    uloop_run_timeout(5000);
    uloop_run_timeout(5000);
    EXPECT_EQ(trace, (std::vector<std::string>{"fd", "timer", "fd"}));
}

struct Interval {
    uloop_interval i;
    int calls;
    int64_t remaining_in_cb;
    ~Interval() { uloop_interval_cancel(&i); }
};

void interval_cb(uloop_interval* i) {
    Interval* iv = reinterpret_cast<Interval*>(i);
    iv->remaining_in_cb = uloop_interval_remaining(i);
    if (++iv->calls == 2)
        uloop_end();
}

TEST_F(Uloop, IntervalFiresEveryPeriodUntilCancelled) {
    Interval iv{};
    iv.i.cb = interval_cb;
    EXPECT_EQ(uloop_interval_remaining(&iv.i), -1);
    EXPECT_EQ(uloop_interval_cancel(&iv.i), -1);
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(uloop_interval_set(&iv.i, 100), 0);
    EXPECT_GT(uloop_interval_remaining(&iv.i), 0);
    EXPECT_LE(uloop_interval_remaining(&iv.i), 100);
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 5000);
    uloop_run();
    EXPECT_EQ(guard.fired, 0);
    EXPECT_EQ(iv.calls, 2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_GE(iv.i.expirations, 2u);
    EXPECT_GT(iv.remaining_in_cb, 0);
    EXPECT_LE(iv.remaining_in_cb, 100);

    EXPECT_EQ(uloop_interval_cancel(&iv.i), 0);
    EXPECT_EQ(uloop_interval_cancel(&iv.i), -1);
    EXPECT_EQ(uloop_interval_remaining(&iv.i), -1);
    EXPECT_FALSE(iv.i.priv.ufd.registered);
    EXPECT_EQ(iv.i.priv.ufd.fd, 0);
    uint64_t seen = iv.i.expirations;
    ASSERT_EQ(uloop_interval_set(&iv.i, 10), 0);
    EXPECT_EQ(iv.i.expirations, seen) << "never reset";

    uloop_interval_cancel(&iv.i);
    uloop_done();
    EXPECT_EQ(uloop_interval_set(&iv.i, 10), -1) << "no loop to register with";
    EXPECT_EQ(iv.i.priv.ufd.fd, 0);
    EXPECT_EQ(uloop_init(), 0);
}

// A run with a timeout returns after one idle iteration; an end before the run is forgotten;
// ending a nested run ends the outer one too; only a cancelled run is cancelling.
TEST_F(Uloop, RunsAndEnds) {
    Timer later = timer("later");
    uloop_timeout_set(&later.t, 60000);
    EXPECT_EQ(uloop_run_timeout(20), 0);
    EXPECT_EQ(later.fired, 0);
    EXPECT_FALSE(uloop_cancelled);

    static bool before, after;
    Timer first = timer("first", [](Timer*) {
        before = uloop_cancelling();
        uloop_run();
        trace.push_back("nested returned");
        after = uloop_cancelling();
    });
    Timer stop = timer("stop", end_loop);
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&first.t, 0);
    uloop_timeout_set(&stop.t, 10);
    uloop_end();
    uloop_run();
    EXPECT_EQ(trace, (std::vector<std::string>{"first", "stop", "nested returned"}));
    EXPECT_TRUE(guard.t.pending);
    EXPECT_FALSE(before);
    EXPECT_TRUE(after);
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_FALSE(uloop_cancelling());
}

TEST_F(Uloop, InitAgainKeepsRegistrationsDoneCancelsTimeoutsAndLeavesFdsStale) {
    Ends p(true);
    Watch w = watch(p.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_init(), 0);
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);

    Timer t = timer("t");
    uloop_timeout_set(&t.t, 1000);
    uloop_done();
    EXPECT_FALSE(t.t.pending);
    EXPECT_TRUE(w.u.registered);
    ASSERT_EQ(uloop_init(), 0);
    errno = 0;
    int ret = uloop_fd_add(&w.u, ULOOP_READ);
    int add_errno = errno;
    EXPECT_EQ(ret, -1);
    EXPECT_EQ(add_errno, ENOENT);
    w.u.registered = false;
    EXPECT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
}

// What a program can ask for in sa_flags (the C library adds flags of its own).
const int user_flags =
    SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_RESETHAND | SA_ONSTACK | SA_NOCLDSTOP | SA_NOCLDWAIT;

void user_handler(int) {}

class UloopSignals : public ::testing::Test {
protected:
    void SetUp() override { saved_.set_defaults(); }
    void TearDown() override {
        uloop_done();
        uloop_handle_sigchld = true;
    }

    saved_dispositions saved_{SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP, SIGUSR1};
};

// uloop's handlers, told apart by what they are installed for: the one that ends the loop
// (SIGINT, SIGTERM) and the one that only wakes it (SIGCHLD, uloop_signal).
void (*stop_handler)(int);
void (*wake_handler)(int);

std::string kind(int signo) {
    void (*h)(int) = disposition(signo).sa_handler;
    return h == SIG_DFL        ? "DFL"
           : h == SIG_IGN      ? "IGN"
           : h == user_handler ? "user"
           : h == stop_handler ? "stop"
           : h == wake_handler ? "wake"
                               : "other";
}

int open_fds() {
    int n = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dir && readdir(dir))
        n++;
    if (dir)
        closedir(dir);
    return n;
}

// Each call starts from INT, TERM, CHLD and PIPE at their defaults, as the probe did.
TEST_F(UloopSignals, EveryInitTakesWhatIsDefaultAtThatMoment) {
    ASSERT_EQ(uloop_init(), 0);
    stop_handler = disposition(SIGINT).sa_handler;
    wake_handler = disposition(SIGCHLD).sa_handler;
    ASSERT_NE(stop_handler, wake_handler);
    for (int signo : {SIGINT, SIGTERM, SIGCHLD})
        EXPECT_EQ(disposition(signo).sa_flags & user_flags, 0) << signo;
    uloop_done();

    const struct {
        const char* what;
        void (*setup)();
        void (*call)();
        const char* after; // INT TERM CHLD PIPE
        int fds;
    } probes[] = {
        {"first init", [] {}, [] { uloop_init(); }, "stop stop wake IGN", 3},
        {"second init", [] {}, [] { uloop_init(); }, "stop stop wake IGN", 0},
        {"init over a user handler and an ignored signal",
         [] {
             set_disposition(SIGINT, user_handler);
             set_disposition(SIGTERM, SIG_IGN);
         },
         [] { uloop_init(); }, "user IGN wake IGN", 0},
        {"init then done", [] { uloop_init(); }, uloop_done, "DFL DFL DFL IGN", -3},
        // An init that finds a foreign handler must not save it as what done gives back.
        {"done after an init that found a user handler",
         [] {
             uloop_init();
             set_disposition(SIGINT, user_handler);
             uloop_init();
             set_disposition(SIGINT, stop_handler);
         },
         uloop_done, "DFL DFL DFL IGN", -3},
        // What the program installs after the init is its own.
        {"done after the program took SIGINT",
         [] {
             uloop_init();
             set_disposition(SIGINT, user_handler);
         },
         uloop_done, "user DFL DFL IGN", -3},
        {"init told to leave SIGCHLD alone", [] { uloop_handle_sigchld = false; },
         [] { uloop_init(); }, "stop stop DFL IGN", 3},
    };
    for (const auto& p : probes) {
        for (int signo : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE})
            set_disposition(signo, SIG_DFL);
        p.setup();
        int fds = open_fds();
        p.call();
        EXPECT_EQ(kind(SIGINT) + " " + kind(SIGTERM) + " " + kind(SIGCHLD) + " " + kind(SIGPIPE),
                  p.after)
            << p.what;
        EXPECT_EQ(open_fds() - fds, p.fds) << p.what;
    }
}

// SIGINT and SIGTERM end the run with their number; the next run starts afresh. Handled on
// another thread, a signal cannot interrupt the loop's wait: only the wake-up written by the
// handler ends it long before the guard is due.
TEST_F(UloopSignals, SigintAndSigtermEndTheRun) {
    ASSERT_EQ(uloop_init(), 0);
    for (int signo : {SIGINT, SIGTERM}) {
        Timer guard = timer("guard", end_loop);
        uloop_timeout_set(&guard.t, 10000);
        std::thread sender([signo] {
            usleep(100 * 1000);
            raise(signo);
        });
        EXPECT_EQ(uloop_run(), signo);
        sender.join();
        EXPECT_TRUE(uloop_cancelled);
        EXPECT_GT(uloop_timeout_remaining64(&guard.t), 5000);

        Timer stop = timer("stop", end_loop);
        uloop_timeout_set(&stop.t, 0);
        EXPECT_EQ(uloop_run(), 0);
    }
}

std::vector<int> caught;

struct Routed {
    uloop_signal s;
    ~Routed() { uloop_signal_delete(&s); }
};

Routed routed(int signo) {
    Routed r{};
    r.s.signo = signo;
    r.s.cb = [](uloop_signal* s) {
        caught.push_back(s->signo);
        if (s->signo == SIGUSR1)
            uloop_end();
    };
    return r;
}

TEST_F(UloopSignals, RoutedSignalsCallBackLowestFirstOncePerDrain) {
    ASSERT_EQ(uloop_init(), 0);
    void (*stop)(int) = disposition(SIGINT).sa_handler;
    void (*wake)(int) = disposition(SIGCHLD).sa_handler;
    Routed usr1 = routed(SIGUSR1), intr = routed(SIGINT), chld = routed(SIGCHLD);
    for (Routed* r : {&usr1, &intr, &chld})
        ASSERT_EQ(uloop_signal_add(&r->s), 0);
    EXPECT_EQ(uloop_signal_add(&intr.s), -1);
    EXPECT_EQ(disposition(SIGINT).sa_handler, wake);
    EXPECT_EQ(disposition(SIGUSR1).sa_handler, wake);

    caught.clear();
    Timer fire = timer("fire", [](Timer*) {
        for (int signo : {SIGUSR1, SIGUSR1, SIGUSR1, SIGINT})
            raise(signo);
    });
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&fire.t, 0);
    EXPECT_EQ(uloop_run(), 0) << "SIGINT no longer ends the loop";
    EXPECT_FALSE(guard.fired);
    EXPECT_EQ(caught, (std::vector<int>{SIGINT, SIGUSR1}));

    // What was there before comes back, unless it was the wake-up handler.
    const struct {
        Routed* r;
        void (*after)(int);
    } deletes[] = {{&intr, stop}, {&usr1, SIG_DFL}, {&chld, wake}};
    for (const auto& d : deletes) {
        EXPECT_EQ(uloop_signal_delete(&d.r->s), 0) << d.r->s.signo;
        EXPECT_EQ(uloop_signal_delete(&d.r->s), -1) << d.r->s.signo;
        EXPECT_EQ(disposition(d.r->s.signo).sa_handler, d.after) << d.r->s.signo;
    }
}

struct Child {
    uloop_process p;
    int calls;
    int status;
    ~Child() { uloop_process_delete(&p); }
};

pid_t exited_child(int code) {
    pid_t pid = fork();
    if (pid == 0)
        _exit(code);
    siginfo_t info;
    // Wait for the exit without reaping, so SIGCHLD is pending before the loop runs.
    waitid(P_PID, pid, &info, WEXITED | WNOWAIT);
    return pid;
}

TEST_F(UloopSignals, ExitedChildrenAreReapedAndMatchingProcessCalledBack) {
    ASSERT_EQ(uloop_init(), 0);
    Child child{};
    child.p.cb = [](uloop_process* p, int ret) {
        Child* c = reinterpret_cast<Child*>(p);
        c->calls++;
        c->status = ret;
        uloop_end();
    };
    child.p.pid = exited_child(7);
    pid_t stranger = exited_child(0);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    EXPECT_EQ(uloop_process_add(&child.p), -1);
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);

    uloop_run();
    EXPECT_EQ(guard.fired, 0);
    EXPECT_EQ(child.calls, 1);
    EXPECT_FALSE(child.p.pending);
    EXPECT_TRUE(WIFEXITED(child.status));
    EXPECT_EQ(WEXITSTATUS(child.status), 7);
    errno = 0;
    pid_t reaped = waitpid(stranger, nullptr, WNOHANG);
    int wait_errno = errno;
    EXPECT_EQ(reaped, -1);
    EXPECT_EQ(wait_errno, ECHILD);

    child.p.pid = 1;
    EXPECT_EQ(uloop_process_delete(&child.p), -1);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    EXPECT_EQ(uloop_process_delete(&child.p), 0);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    uloop_done();
    EXPECT_FALSE(child.p.pending) << "done cancels";
}

} // namespace
