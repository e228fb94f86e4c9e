// uloop and process-wide signal state: dispositions taken and given back, SIGINT/SIGTERM
// ending the loop, SIGCHLD reaping, signals routed to callbacks. Every test restores the
// dispositions it changed.
extern "C" {
#include <libubox/uloop.h>
}

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <iterator>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const int watched[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP, SIGUSR1};

// What a program can ask for in sa_flags (the C library adds flags of its own).
const int user_flags =
    SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_RESETHAND | SA_ONSTACK | SA_NOCLDSTOP | SA_NOCLDWAIT;

void user_handler(int) {}

struct sigaction disposition(int signo) {
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa;
}

void set_disposition(int signo, void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigaction(signo, &sa, nullptr);
}

struct Timer {
    uloop_timeout t;
    int fired;
    void (*action)();
    ~Timer() { uloop_timeout_cancel(&t); }
};

void timer_cb(uloop_timeout* t) {
    Timer* tm = reinterpret_cast<Timer*>(t);
    tm->fired++;
    tm->action();
}

Timer timer(void (*action)()) {
    Timer tm{};
    tm.t.cb = timer_cb;
    tm.action = action;
    return tm;
}

class UloopSignals : public ::testing::Test {
protected:
    struct sigaction saved[std::size(watched)];

    void SetUp() override {
        for (size_t i = 0; i < std::size(watched); i++) {
            sigaction(watched[i], nullptr, &saved[i]);
            set_disposition(watched[i], SIG_DFL);
        }
    }
    void TearDown() override {
        uloop_done();
        uloop_handle_sigchld = true;
        for (size_t i = 0; i < std::size(watched); i++)
            sigaction(watched[i], &saved[i], nullptr);
    }
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

TEST_F(UloopSignals, SigchldLeftAloneWhenNotHandled) {
    uloop_handle_sigchld = false;
    ASSERT_EQ(uloop_init(), 0);
    EXPECT_EQ(disposition(SIGCHLD).sa_handler, SIG_DFL);
}

TEST_F(UloopSignals, DoneKeepsHandlerInstalledByProgramAfterInit) {
    ASSERT_EQ(uloop_init(), 0);
    set_disposition(SIGINT, user_handler);
    uloop_done();
    EXPECT_EQ(disposition(SIGINT).sa_handler, user_handler);
    EXPECT_EQ(disposition(SIGTERM).sa_handler, SIG_DFL);
}

TEST_F(UloopSignals, SigintEndsRunWithStatus2AndNextRunStartsAtZero) {
    ASSERT_EQ(uloop_init(), 0);
    Timer fire = timer([] { raise(SIGINT); });
    Timer guard = timer(uloop_end);
    uloop_timeout_set(&guard.t, 10000);
    uloop_timeout_set(&fire.t, 0);
    EXPECT_EQ(uloop_run(), SIGINT);
    EXPECT_TRUE(uloop_cancelled);
    EXPECT_EQ(guard.fired, 0);

    Timer stop = timer(uloop_end);
    uloop_timeout_set(&stop.t, 0);
    EXPECT_EQ(uloop_run(), 0);
}

// Handled on another thread, the signal cannot interrupt the loop's wait: only the wake-up
// written by the handler can end it long before the guard is due.
TEST_F(UloopSignals, SigtermOnAnotherThreadWakesIdleLoop) {
    ASSERT_EQ(uloop_init(), 0);
    Timer guard = timer(uloop_end);
    uloop_timeout_set(&guard.t, 10000);
    std::thread sender([] {
        usleep(100 * 1000);
        raise(SIGTERM);
    });
    int status = uloop_run();
    sender.join();
    EXPECT_EQ(status, SIGTERM);
    EXPECT_GT(uloop_timeout_remaining64(&guard.t), 5000);
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
    Timer fire = timer([] {
        for (int signo : {SIGUSR1, SIGUSR1, SIGUSR1, SIGINT})
            raise(signo);
    });
    Timer guard = timer(uloop_end);
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
    Timer guard = timer(uloop_end);
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
}

TEST_F(UloopSignals, ProcessBookkeepingAndDoneCancels) {
    ASSERT_EQ(uloop_init(), 0);
    Child child{};
    child.p.pid = 1;
    EXPECT_EQ(uloop_process_delete(&child.p), -1);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    EXPECT_EQ(uloop_process_delete(&child.p), 0);
    ASSERT_EQ(uloop_process_add(&child.p), 0);
    uloop_done();
    EXPECT_FALSE(child.p.pending);
}

} // namespace
