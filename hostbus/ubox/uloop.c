/* The event loop: epoll for file descriptors, a sorted list of timeouts, timerfd intervals,
 * child reaping on SIGCHLD, and a self-pipe through which signal handlers wake the loop,
 * one byte per signal so that the loop knows which arrived. */
#include "libubox/uloop.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define ULOOP_MAX_EVENTS 10

struct fd_event {
    struct uloop_fd* fd;
    unsigned int events;
};

/* An edge-triggered fd whose callback is running; events arriving meanwhile are collected
 * in `events` (marked ULOOP_EVENT_BUFFERED) and delivered once the callback returns. */
struct fd_stack {
    struct fd_stack* next;
    struct uloop_fd* fd;
    unsigned int events;
};

bool uloop_cancelled;
bool uloop_handle_sigchld = true;
uloop_fd_handler uloop_fd_set_cb;

static int poll_fd = -1;
static int waker_pipe[2] = {-1, -1};
static struct uloop_fd waker_fd;

static LIST_HEAD(timeouts);
static LIST_HEAD(processes);
static LIST_HEAD(signals); /* struct uloop_signal, by ascending signo */

static struct fd_event cur_fds[ULOOP_MAX_EVENTS];
static int cur_fd;
static int cur_nfds;
static struct fd_stack* fd_stack;

static int run_depth;
static volatile sig_atomic_t run_status;
static volatile sig_atomic_t reap_pending;

static struct sigaction saved_sigint;
static struct sigaction saved_sigterm;
static struct sigaction saved_sigchld;

static void get_time(struct timeval* tv) {
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = ts.tv_nsec / 1000;
}

/* Whole milliseconds from b to a, truncated towards zero: under 1 ms counts as due. */
static int64_t tv_diff_ms(const struct timeval* a, const struct timeval* b) {
    return ((int64_t)(a->tv_sec - b->tv_sec) * 1000000 + (a->tv_usec - b->tv_usec)) / 1000;
}

static void wake_loop(int signo) {
    int saved_errno = errno;
    unsigned char byte = (unsigned char)signo;
    ssize_t written = write(waker_pipe[1], &byte, 1);

    (void)written; /* a full pipe already guarantees a wake-up */
    errno = saved_errno;
}

/* A signal may be handled on any thread of the process, so the flags it sets are
 * accessed atomically wherever the loop meets them. */
#define flag_set(flag, value) __atomic_store_n(&(flag), (value), __ATOMIC_RELAXED)
#define flag_get(flag) __atomic_load_n(&(flag), __ATOMIC_RELAXED)

static void handle_stop_signal(int signo) {
    flag_set(run_status, signo);
    flag_set(uloop_cancelled, true);
    wake_loop(signo);
}

/* SIGCHLD and every signal given to uloop_signal_add. */
static void handle_wake_signal(int signo) {
    if (signo == SIGCHLD && uloop_handle_sigchld)
        flag_set(reap_pending, 1);
    wake_loop(signo);
}

/* Each signal seen since the last drain calls back its registrations once, lowest first. */
static void drain_waker(struct uloop_fd* u, unsigned int events) {
    bool seen[NSIG] = {false};
    struct uloop_signal *s, *tmp;
    unsigned char buf[64];
    ssize_t n;

    (void)events;
    while ((n = read(u->fd, buf, sizeof(buf))) > 0) {
        for (ssize_t i = 0; i < n; i++)
            if (buf[i] < NSIG)
                seen[buf[i]] = true;
    }
    list_for_each_entry_safe(s, tmp, &signals, list) {
        if (s->signo > 0 && s->signo < NSIG && seen[s->signo])
            s->cb(s);
    }
}

/* Installs `handler` only where the disposition is the default at this moment, which is
 * then what release_signal gives back; anything else stays, and so does the earlier save. */
static void take_signal(int signo, void (*handler)(int), struct sigaction* saved) {
    struct sigaction cur;

    if (sigaction(signo, NULL, &cur) < 0 || cur.sa_handler != SIG_DFL)
        return;
    if (saved)
        *saved = cur;
    cur.sa_handler = handler;
    cur.sa_flags = 0;
    sigaction(signo, &cur, NULL);
}

/* Gives the signal back only if nobody replaced our handler in the meantime. */
static void release_signal(int signo, void (*handler)(int), const struct sigaction* saved) {
    struct sigaction cur;

    if (sigaction(signo, NULL, &cur) == 0 && cur.sa_handler == handler)
        sigaction(signo, saved, NULL);
}

static void take_signals(void) {
    take_signal(SIGINT, handle_stop_signal, &saved_sigint);
    take_signal(SIGTERM, handle_stop_signal, &saved_sigterm);
    if (uloop_handle_sigchld)
        take_signal(SIGCHLD, handle_wake_signal, &saved_sigchld);
    take_signal(SIGPIPE, SIG_IGN, NULL);
}

static void release_signals(void) {
    release_signal(SIGINT, handle_stop_signal, &saved_sigint);
    release_signal(SIGTERM, handle_stop_signal, &saved_sigterm);
    release_signal(SIGCHLD, handle_wake_signal, &saved_sigchld);
}

static int create_poll_and_waker(void) {
    poll_fd = epoll_create1(EPOLL_CLOEXEC);
    if (poll_fd < 0)
        return -1;

    if (pipe2(waker_pipe, O_NONBLOCK | O_CLOEXEC) < 0)
        goto fail_poll;
    waker_fd.fd = waker_pipe[0];
    waker_fd.cb = drain_waker;
    if (uloop_fd_add(&waker_fd, ULOOP_READ) < 0)
        goto fail_pipe;
    return 0;

fail_pipe:
    close(waker_pipe[0]);
    close(waker_pipe[1]);
    waker_pipe[0] = waker_pipe[1] = -1;
fail_poll:
    close(poll_fd);
    poll_fd = -1;
    return -1;
}

/* The descriptors are made once, but the signals are looked at again on every call: a
 * default disposition restored since then is taken over anew. */
int uloop_init(void) {
    if (poll_fd < 0 && create_poll_and_waker() < 0)
        return -1;

    take_signals();
    return 0;
}

static unsigned int epoll_flags(unsigned int flags) {
    unsigned int events = 0;

    if (flags & ULOOP_READ)
        events |= EPOLLIN | EPOLLRDHUP;
    if (flags & ULOOP_WRITE)
        events |= EPOLLOUT;
    if (flags & ULOOP_EDGE_TRIGGER)
        events |= EPOLLET;
    return events;
}

static void set_nonblocking(int fd) {
    int fl = fcntl(fd, F_GETFL);

    if (fl >= 0)
        fcntl(fd, F_SETFL, fl | O_NONBLOCK);
}

int uloop_fd_add(struct uloop_fd* sock, unsigned int flags) {
    struct epoll_event ev;
    int op = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;

    if (!(flags & ULOOP_EVENT_MASK))
        return uloop_fd_delete(sock);

    if (!sock->registered && !(flags & ULOOP_BLOCKING))
        set_nonblocking(sock->fd);

    memset(&ev, 0, sizeof(ev));
    ev.events = epoll_flags(flags);
    ev.data.ptr = sock;
    if (epoll_ctl(poll_fd, op, sock->fd, &ev) < 0)
        return -1;

    sock->flags = flags;
    sock->registered = true;
    sock->eof = false;
    sock->error = false;
    if (uloop_fd_set_cb)
        uloop_fd_set_cb(sock, flags);
    return 0;
}

static int unregister_fd(struct uloop_fd* sock) {
    int ret;

    if (!sock->registered)
        return 0;

    sock->registered = false;
    sock->flags = 0;
    ret = epoll_ctl(poll_fd, EPOLL_CTL_DEL, sock->fd, NULL);
    if (uloop_fd_set_cb)
        uloop_fd_set_cb(sock, 0);
    return ret;
}

int uloop_fd_delete(struct uloop_fd* sock) {
    struct fd_stack* s;
    int i;

    /* The struct may be freed right after this, so forget every reference to it. */
    for (i = cur_fd; i < cur_nfds; i++)
        if (cur_fds[i].fd == sock)
            cur_fds[i].fd = NULL;
    for (s = fd_stack; s; s = s->next)
        if (s->fd == sock)
            s->fd = NULL;

    return unregister_fd(sock);
}

static int fetch_events(int timeout) {
    struct epoll_event events[ULOOP_MAX_EVENTS];
    int n = epoll_wait(poll_fd, events, ULOOP_MAX_EVENTS, timeout);
    int i;

    for (i = 0; i < n; i++) {
        struct uloop_fd* u = events[i].data.ptr;
        unsigned int ev = 0;

        if (events[i].events & (EPOLLERR | EPOLLHUP)) {
            u->error = true;
            if (!(u->flags & ULOOP_ERROR_CB))
                unregister_fd(u);
        }
        if (events[i].events & EPOLLRDHUP)
            u->eof = true;
        if (events[i].events & EPOLLIN)
            ev |= ULOOP_READ;
        if (events[i].events & EPOLLOUT)
            ev |= ULOOP_WRITE;
        cur_fds[i].fd = u;
        cur_fds[i].events = ev;
    }
    return n < 0 ? 0 : n;
}

/* Returns true if `u`'s callback is already running, after queueing `events` for it. */
static bool buffer_if_running(struct uloop_fd* u, unsigned int events) {
    struct fd_stack* s;

    for (s = fd_stack; s; s = s->next) {
        if (s->fd == u) {
            s->events |= events | ULOOP_EVENT_BUFFERED;
            return true;
        }
    }
    return false;
}

static void dispatch(struct uloop_fd* u, unsigned int events) {
    struct fd_stack entry = {.next = fd_stack, .fd = u};

    if (buffer_if_running(u, events))
        return;

    if (!(u->flags & ULOOP_EDGE_TRIGGER)) {
        u->cb(u, events);
        return;
    }

    fd_stack = &entry;
    for (;;) {
        u->cb(u, events);
        if (!entry.fd || !(entry.events & ULOOP_EVENT_BUFFERED))
            break;
        events = entry.events & ULOOP_EVENT_MASK;
        entry.events = 0;
    }
    fd_stack = entry.next;
}

static void run_one_event(int timeout) {
    if (cur_fd >= cur_nfds) {
        cur_fd = cur_nfds = 0;
        cur_nfds = fetch_events(timeout);
    }

    while (cur_fd < cur_nfds) {
        struct fd_event* cur = &cur_fds[cur_fd++];

        if (cur->fd) {
            dispatch(cur->fd, cur->events);
            return;
        }
    }
}

static void insert_timeout(struct uloop_timeout* t) {
    struct uloop_timeout* tmp;

    /* Equal expiries keep insertion order: insert before the first later one only. */
    list_for_each_entry(tmp, &timeouts, list) {
        if (timercmp(&tmp->time, &t->time, >))
            break;
    }
    list_add_tail(&t->list, &tmp->list);
}

int uloop_timeout_add(struct uloop_timeout* timeout) {
    if (timeout->pending)
        return -1;

    insert_timeout(timeout);
    timeout->pending = true;
    return 0;
}

int uloop_timeout_set(struct uloop_timeout* timeout, int msecs) {
    struct timeval* expiry = &timeout->time;

    if (timeout->pending)
        uloop_timeout_cancel(timeout);

    get_time(expiry);
    expiry->tv_sec += msecs / 1000;
    expiry->tv_usec += (msecs % 1000) * 1000;
    if (expiry->tv_usec >= 1000000) {
        expiry->tv_sec++;
        expiry->tv_usec -= 1000000;
    } else if (expiry->tv_usec < 0) {
        expiry->tv_sec--;
        expiry->tv_usec += 1000000;
    }

    return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout* timeout) {
    if (!timeout->pending)
        return -1;

    list_del(&timeout->list);
    timeout->pending = false;
    return 0;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout* timeout) {
    struct timeval now;

    if (!timeout->pending)
        return -1;

    get_time(&now);
    return tv_diff_ms(&timeout->time, &now);
}

int uloop_timeout_remaining(struct uloop_timeout* timeout) {
    int64_t ms = uloop_timeout_remaining64(timeout);

    if (ms > INT_MAX)
        return INT_MAX;
    if (ms < INT_MIN)
        return INT_MIN;
    return (int)ms;
}

int uloop_get_next_timeout(void) {
    struct uloop_timeout* first;
    struct timeval now;
    int64_t ms;

    if (list_empty(&timeouts))
        return -1;

    first = list_first_entry(&timeouts, struct uloop_timeout, list);
    get_time(&now);
    ms = tv_diff_ms(&first->time, &now);
    if (ms < 0)
        return 0;
    return ms > INT_MAX ? INT_MAX : (int)ms;
}

static void run_expired_timeouts(void) {
    struct timeval now;

    /* One snapshot of the clock, so a callback re-arming itself with 0 ms cannot keep
     * this pass going for long. */
    get_time(&now);
    while (!list_empty(&timeouts)) {
        struct uloop_timeout* t = list_first_entry(&timeouts, struct uloop_timeout, list);

        if (tv_diff_ms(&t->time, &now) > 0)
            break;
        uloop_timeout_cancel(t);
        t->cb(t);
    }
}

int uloop_process_add(struct uloop_process* p) {
    if (p->pending)
        return -1;

    list_add_tail(&p->list, &processes);
    p->pending = true;
    return 0;
}

int uloop_process_delete(struct uloop_process* p) {
    if (!p->pending)
        return -1;

    list_del(&p->list);
    p->pending = false;
    return 0;
}

static void interval_expired(struct uloop_fd* u, unsigned int events) {
    struct uloop_interval* timer = container_of(u, struct uloop_interval, priv.ufd);
    uint64_t count;

    (void)events;
    if (read(u->fd, &count, sizeof(count)) != (ssize_t)sizeof(count))
        return;
    timer->expirations += count;
    timer->cb(timer);
}

/* The first expiry is one period away; re-setting an active interval re-arms its timerfd. */
int uloop_interval_set(struct uloop_interval* timer, unsigned int msecs) {
    struct uloop_fd* u = &timer->priv.ufd;
    struct itimerspec spec = {
        .it_value = {.tv_sec = msecs / 1000, .tv_nsec = (long)(msecs % 1000) * 1000000},
    };

    spec.it_interval = spec.it_value;
    if (!u->registered) {
        u->fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        if (u->fd < 0)
            goto fail;
        u->cb = interval_expired;
    }
    if (timerfd_settime(u->fd, 0, &spec, NULL) < 0 || uloop_fd_add(u, ULOOP_READ) < 0)
        goto fail;
    return 0;

fail:
    if (u->fd >= 0) {
        uloop_fd_delete(u);
        close(u->fd);
    }
    memset(u, 0, sizeof(*u));
    return -1;
}

int uloop_interval_cancel(struct uloop_interval* timer) {
    struct uloop_fd* u = &timer->priv.ufd;

    if (!u->registered)
        return -1;
    uloop_fd_delete(u);
    close(u->fd);
    memset(u, 0, sizeof(*u));
    return 0;
}

int64_t uloop_interval_remaining(struct uloop_interval* timer) {
    struct itimerspec spec;

    if (!timer->priv.ufd.registered || timerfd_gettime(timer->priv.ufd.fd, &spec) < 0)
        return -1;
    return (int64_t)spec.it_value.tv_sec * 1000 + spec.it_value.tv_nsec / 1000000;
}

int uloop_signal_add(struct uloop_signal* s) {
    struct uloop_signal* tmp;
    struct sigaction sa;

    if (s->pending)
        return -1;

    list_for_each_entry(tmp, &signals, list) {
        if (tmp->signo > s->signo)
            break;
    }
    list_add_tail(&s->list, &tmp->list);
    s->pending = true;

    sigaction(s->signo, NULL, &s->orig);
    if (s->orig.sa_handler != handle_wake_signal) {
        memset(&sa, 0, sizeof(sa));
        sa.sa_handler = handle_wake_signal;
        sigemptyset(&sa.sa_mask);
        sigaction(s->signo, &sa, NULL);
    }
    return 0;
}

/* The handler found by uloop_signal_add comes back, unless it was the wake-up handler that
 * SIGCHLD or another registration still relies on. */
int uloop_signal_delete(struct uloop_signal* s) {
    if (!s->pending)
        return -1;

    list_del(&s->list);
    s->pending = false;
    if (s->orig.sa_handler != handle_wake_signal)
        sigaction(s->signo, &s->orig, NULL);
    return 0;
}

static void notify_exit(pid_t pid, int status) {
    struct uloop_process *p, *tmp;
    LIST_HEAD(exited);

    /* Collected first so callbacks may add or delete processes while we go through them. */
    list_for_each_entry_safe(p, tmp, &processes, list) {
        if (p->pid == pid)
            list_move_tail(&p->list, &exited);
    }
    while (!list_empty(&exited)) {
        p = list_first_entry(&exited, struct uloop_process, list);
        uloop_process_delete(p);
        p->cb(p, status);
    }
}

static void reap_children(void) {
    pid_t pid;
    int status;

    flag_set(reap_pending, 0);
    for (;;) {
        pid = waitpid(-1, &status, WNOHANG);
        if (pid < 0 && errno == EINTR)
            continue;
        if (pid <= 0)
            break;
        notify_exit(pid, status);
    }
}

bool uloop_cancelling(void) {
    return run_depth > 0 && flag_get(uloop_cancelled);
}

int uloop_run_timeout(int timeout) {
    int next;

    run_depth++;
    flag_set(run_status, 0);
    flag_set(uloop_cancelled, false);
    do {
        run_expired_timeouts();
        if (flag_get(reap_pending))
            reap_children();
        if (flag_get(uloop_cancelled))
            break;

        next = uloop_get_next_timeout();
        if (timeout >= 0 && (next < 0 || next > timeout))
            next = timeout;
        run_one_event(next);
    } while (!flag_get(uloop_cancelled) && timeout < 0);
    run_depth--;

    return flag_get(run_status);
}

void uloop_done(void) {
    release_signals();

    if (poll_fd >= 0) {
        uloop_fd_delete(&waker_fd);
        close(poll_fd);
        poll_fd = -1;
    }
    if (waker_pipe[0] >= 0) {
        close(waker_pipe[0]);
        close(waker_pipe[1]);
        waker_pipe[0] = waker_pipe[1] = -1;
    }
    /* Events of the closed epoll instance must not reach a later run. */
    cur_fd = cur_nfds = 0;

    while (!list_empty(&timeouts))
        uloop_timeout_cancel(list_first_entry(&timeouts, struct uloop_timeout, list));
    while (!list_empty(&processes))
        uloop_process_delete(list_first_entry(&processes, struct uloop_process, list));
}
