// uloop: struct layouts, fd events and flags, batches, deletion from callbacks, timeouts,
// intervals, run/end semantics.
extern "C" {
#include <libubox/uloop.h>
}

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

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
    w->depth++;
    if (w->depth > w->max_depth)
        w->max_depth = w->depth;
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

struct FdPair {
    int a = -1, b = -1;
    ~FdPair() {
        close_a();
        close_b();
    }
    void close_a() {
        if (a >= 0)
            close(a);
        a = -1;
    }
    void close_b() {
        if (b >= 0)
            close(b);
        b = -1;
    }
};

// a: read end, b: write end, with one byte already written when `filled`.
struct Pipe : FdPair {
    explicit Pipe(bool filled = false) {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        a = fds[0];
        b = fds[1];
        if (filled)
            put();
    }
    void put() const { EXPECT_EQ(write(b, "x", 1), 1); }
};

struct SocketPair : FdPair {
    SocketPair() {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        a = fds[0];
        b = fds[1];
    }
};

bool nonblocking(int fd) {
    return fcntl(fd, F_GETFL) & O_NONBLOCK;
}

class Uloop : public ::testing::Test {
protected:
    void SetUp() override {
        trace.clear();
        ASSERT_EQ(uloop_init(), 0);
    }
    void TearDown() override { uloop_done(); }
};

// Programs built against the device's header share these structs with the library.
TEST(UloopLayout, MatchesTheDeviceOnLp64) {
    if (sizeof(void*) != 8)
        GTEST_SKIP() << "LP64 layout";
    const struct {
        const char* what;
        size_t got, want;
    } fields[] = {
        {"sizeof uloop_fd", sizeof(uloop_fd), 16},
        {"sizeof uloop_timeout", sizeof(uloop_timeout), 48},
        {"sizeof uloop_process", sizeof(uloop_process), 40},
        {"sizeof uloop_interval", sizeof(uloop_interval), 32},
        {"uloop_interval.cb", offsetof(uloop_interval, cb), 0},
        {"uloop_interval.expirations", offsetof(uloop_interval, expirations), 8},
        {"uloop_interval.priv", offsetof(uloop_interval, priv), 16},
        {"sizeof uloop_signal", sizeof(uloop_signal), 192},
        {"uloop_signal.list", offsetof(uloop_signal, list), 0},
        {"uloop_signal.orig", offsetof(uloop_signal, orig), 16},
        {"uloop_signal.pending", offsetof(uloop_signal, pending), 168},
        {"uloop_signal.cb", offsetof(uloop_signal, cb), 176},
        {"uloop_signal.signo", offsetof(uloop_signal, signo), 184},
    };
    for (const auto& f : fields)
        EXPECT_EQ(f.got, f.want) << f.what;
}

TEST_F(Uloop, ReadableFdGetsReadEvent) {
    Pipe p(true);
    Watch w = watch(p.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    EXPECT_TRUE(w.u.registered);
    EXPECT_EQ(w.u.flags, ULOOP_READ);
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);
    EXPECT_EQ(w.events, unsigned(ULOOP_READ));
    EXPECT_FALSE(w.eof);
    EXPECT_FALSE(w.error);
}

TEST_F(Uloop, DefaultSetsNonBlockingWhileBlockingFlagLeavesModeAlone) {
    Pipe p1, p2;
    Watch w1 = watch(p1.a), w2 = watch(p2.a);
    ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(&w2.u, ULOOP_READ | ULOOP_BLOCKING), 0);
    EXPECT_TRUE(nonblocking(p1.a));
    EXPECT_FALSE(nonblocking(p2.a));
    EXPECT_EQ(w2.u.flags, 0x9);
}

TEST_F(Uloop, AddWithoutReadOrWriteDeletesAndBadFdFails) {
    Pipe p;
    Watch w = watch(p.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_fd_add(&w.u, ULOOP_EDGE_TRIGGER), 0);
    EXPECT_FALSE(w.u.registered);
    EXPECT_EQ(w.u.flags, 0);
    EXPECT_EQ(uloop_fd_delete(&w.u), 0);

    Watch bad = watch(-1);
    EXPECT_EQ(uloop_fd_add(&bad.u, ULOOP_READ), -1);
    EXPECT_FALSE(bad.u.registered);
}

TEST_F(Uloop, ReAddChangesFlagsAndClearsEofAndError) {
    Pipe p;
    Watch w = watch(p.b);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    w.u.eof = w.u.error = true;
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_WRITE), 0);
    EXPECT_FALSE(w.u.eof);
    EXPECT_FALSE(w.u.error);
    EXPECT_EQ(w.u.flags, ULOOP_WRITE);
    uloop_run_timeout(5000);
    EXPECT_EQ(w.events, unsigned(ULOOP_WRITE));
}

TEST_F(Uloop, LevelTriggeredRepeatsButEdgeTriggeredReportsOnlyNewData) {
    Pipe level(true), edge(true);
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

TEST_F(Uloop, PeerCloseSetsEofAndErrorAndUnregistersBeforeCallback) {
    SocketPair s;
    Watch w = watch(s.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    s.close_b();
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);
    EXPECT_EQ(w.events, unsigned(ULOOP_READ));
    EXPECT_TRUE(w.eof);
    EXPECT_TRUE(w.error);
    EXPECT_FALSE(w.registered);
    EXPECT_EQ(w.u.flags, 0);
}

TEST_F(Uloop, PeerShutdownWriteSetsOnlyEof) {
    SocketPair s;
    Watch w = watch(s.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    ASSERT_EQ(shutdown(s.b, SHUT_WR), 0);
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);
    EXPECT_EQ(w.events, unsigned(ULOOP_READ));
    EXPECT_TRUE(w.eof);
    EXPECT_FALSE(w.error);
    EXPECT_TRUE(w.registered);
}

TEST_F(Uloop, ErrorCbKeepsClosedPeerRegistered) {
    SocketPair s;
    Watch w = watch(s.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ | ULOOP_ERROR_CB), 0);
    s.close_b();
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);
    EXPECT_TRUE(w.eof);
    EXPECT_TRUE(w.error);
    EXPECT_TRUE(w.registered);
}

TEST_F(Uloop, ClosedPipeWriterGivesErrorWithoutEvents) {
    Pipe p;
    Watch w = watch(p.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    p.close_b();
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);
    EXPECT_EQ(w.events, 0u);
    EXPECT_TRUE(w.error);
    EXPECT_FALSE(w.u.registered);
}

TEST_F(Uloop, ExactlyOneFdCallbackPerIteration) {
    Pipe p1(true), p2(true), p3(true);
    Watch w[3] = {watch(p1.a, drain), watch(p2.a, drain), watch(p3.a, drain)};
    for (Watch& x : w)
        ASSERT_EQ(uloop_fd_add(&x.u, ULOOP_READ), 0);
    for (int i = 1; i <= 3; i++) {
        uloop_run_timeout(5000);
        EXPECT_EQ(w[0].calls + w[1].calls + w[2].calls, i);
    }
    EXPECT_EQ(w[0].calls * w[1].calls * w[2].calls, 1);
}

TEST_F(Uloop, DeletedFdsPendingEventNeverRuns) {
    Pipe p1(true), p2(true);
    auto delete_other = [](Watch* w) {
        drain(w);
        EXPECT_EQ(uloop_fd_delete(&w->other->u), 0);
    };
    Watch w1 = watch(p1.a, delete_other), w2 = watch(p2.a, delete_other);
    w1.other = &w2;
    w2.other = &w1;
    ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(&w2.u, ULOOP_READ), 0);
    for (int i = 0; i < 3; i++)
        uloop_run_timeout(50);
    EXPECT_EQ(w1.calls + w2.calls, 1);
}

void write_and_run_nested(Watch* w) {
    if (w->calls > 1)
        return;
    drain(w);
    EXPECT_EQ(write(w->other->u.fd, "x", 1), 1);
    uloop_run_timeout(1000);
}

TEST_F(Uloop, EdgeTriggeredEventDuringOwnCallbackIsBufferedUntilItReturns) {
    Pipe p(true);
    Watch writer = watch(p.b);
    Watch w = watch(p.a, write_and_run_nested);
    w.other = &writer;
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ | ULOOP_EDGE_TRIGGER), 0);
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 2);
    EXPECT_EQ(w.max_depth, 1);
    EXPECT_EQ(w.events, unsigned(ULOOP_READ));
}

TEST_F(Uloop, FdDeletingItselfAfterBufferingIsNotCalledAgain) {
    Pipe p(true);
    Watch writer = watch(p.b);
    Watch w = watch(p.a, [](Watch* w) {
        write_and_run_nested(w);
        uloop_fd_delete(&w->u);
    });
    w.other = &writer;
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ | ULOOP_EDGE_TRIGGER), 0);
    uloop_run_timeout(5000);
    uloop_run_timeout(50);
    EXPECT_EQ(w.calls, 1);
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

TEST_F(Uloop, ExpiredTimeoutsRunBetweenFdCallbacks) {
    static Timer t;
    t = timer("timer");
    Pipe p1(true), p2(true);
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
    EXPECT_GT(uloop_interval_remaining(&iv.i), 80);
    EXPECT_LE(uloop_interval_remaining(&iv.i), 100);
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 5000);
    uloop_run();
    EXPECT_EQ(guard.fired, 0);
    EXPECT_EQ(iv.calls, 2);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_GE(iv.i.expirations, 2u);
    EXPECT_GT(iv.remaining_in_cb, 50);
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

TEST_F(Uloop, RunWithTimeoutReturnsAfterOneIdleIteration) {
    Timer later = timer("later");
    uloop_timeout_set(&later.t, 60000);
    EXPECT_EQ(uloop_run_timeout(20), 0);
    EXPECT_EQ(later.fired, 0);
    EXPECT_TRUE(later.t.pending);
    EXPECT_FALSE(uloop_cancelled);
}

TEST_F(Uloop, CancelledFromFdCallbackEndsRunWhenItReturns) {
    Pipe p1(true), p2(true);
    auto cancel = [](Watch*) { uloop_cancelled = true; };
    Watch w1 = watch(p1.a, cancel), w2 = watch(p2.a, cancel);
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);
    ASSERT_EQ(uloop_fd_add(&w1.u, ULOOP_READ), 0);
    ASSERT_EQ(uloop_fd_add(&w2.u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_run(), 0);
    EXPECT_EQ(w1.calls + w2.calls, 1);
    EXPECT_EQ(guard.fired, 0);
}

TEST_F(Uloop, EndBeforeRunIsForgotten) {
    Timer t = timer("t", end_loop);
    uloop_timeout_set(&t.t, 10);
    uloop_end();
    uloop_run();
    EXPECT_EQ(t.fired, 1);
}

TEST_F(Uloop, EndingNestedRunEndsOuterRun) {
    Timer nest = timer("nest", [](Timer*) {
        uloop_run();
        trace.push_back("nested returned");
    });
    Timer stop = timer("stop", end_loop);
    Timer guard = timer("guard", end_loop);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&nest.t, 0);
    uloop_timeout_set(&stop.t, 10);
    uloop_run();
    EXPECT_EQ(trace, (std::vector<std::string>{"nest", "stop", "nested returned"}));
    EXPECT_TRUE(guard.t.pending);
}

TEST_F(Uloop, CancellingIsTrueOnlyInsideACancelledRun) {
    static bool before, after;
    Timer t = timer("t", [](Timer*) {
        before = uloop_cancelling();
        uloop_end();
        after = uloop_cancelling();
    });
    uloop_timeout_set(&t.t, 0);
    uloop_run();
    EXPECT_FALSE(before);
    EXPECT_TRUE(after);
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_FALSE(uloop_cancelling());
}

TEST_F(Uloop, SecondInitKeepsRegistrations) {
    Pipe p(true);
    Watch w = watch(p.a);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_init(), 0);
    uloop_run_timeout(5000);
    EXPECT_EQ(w.calls, 1);
}

TEST_F(Uloop, DoneCancelsTimeoutsAndLeavesStaleFdRegistered) {
    Pipe p;
    Watch w = watch(p.a);
    Timer t = timer("t");
    uloop_timeout_set(&t.t, 1000);
    ASSERT_EQ(uloop_fd_add(&w.u, ULOOP_READ), 0);
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

TEST_F(Uloop, FdSetHookSeesEveryAddAndDelete) {
    static std::vector<unsigned int> seen;
    seen.clear();
    Pipe p;
    Watch w = watch(p.a);
    uloop_fd_set_cb = [](uloop_fd*, unsigned int flags) { seen.push_back(flags); };
    uloop_fd_add(&w.u, ULOOP_READ);
    uloop_fd_add(&w.u, ULOOP_READ | ULOOP_WRITE);
    uloop_fd_delete(&w.u);
    uloop_fd_delete(&w.u);
    uloop_fd_set_cb = nullptr;
    EXPECT_EQ(seen, (std::vector<unsigned int>{ULOOP_READ, ULOOP_READ | ULOOP_WRITE, 0}));
}

} // namespace
