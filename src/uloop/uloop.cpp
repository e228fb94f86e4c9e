#include "uloop/uloop_signals.h"

#include <orvix/uloop.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

extern "C" {
#include <libubox/uloop.h>
}

namespace orvix {

namespace {

std::string errno_text(int err) {
    return std::to_string(err) + "]: " + std::strerror(err);
}

void close_pair(int (&fds)[2]) {
    close(fds[0]);
    close(fds[1]);
    fds[0] = -1;
    fds[1] = -1;
}

} // namespace

uloop& uloop::get_instance() {
    static uloop instance;
    return instance;
}

uloop::uloop() : prefix("uloop: "), notify_fds{-1, -1}, running(false), exiting(false) {}

void uloop::run() {
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        if (running || exiting) {
            throw std::runtime_error(prefix + "Can't run second uloop");
        }
        // Released only once this call owns the loop: a refused second call
        // must not drop what the running loop has captured.
        captured_exception = nullptr;
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, notify_fds) != 0) {
            const int err = errno;
            throw std::runtime_error(prefix + "Can't create socketpair for post [" +
                                     errno_text(err));
        }
        running = true;
    }

    // uloop_init installs handlers for these signals; the application's own
    // dispositions must survive it.
    auto actions = save_uloop_signals();
    // Children belong to the program: a SIGCHLD caught by uloop, even in the moment
    // before the restore, would make the loop reap them all.
    uloop_handle_sigchld = false;
    if (uloop_init() < 0) {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        running = false;
        close_pair(notify_fds);
        throw std::runtime_error(prefix + "Can't init uloop");
    }
    actions.restore();

    struct uloop_fd wakeup {};
    wakeup.cb = &uloop::fd_callback;
    wakeup.fd = notify_fds[1];
    if (uloop_fd_add(&wakeup, ULOOP_READ) < 0) {
        const int err = errno;
        uloop_done();
        std::lock_guard<std::recursive_mutex> lock(mutex);
        running = false;
        close_pair(notify_fds);
        throw std::runtime_error(prefix + "Can't add fd to uloop [" + errno_text(err));
    }

    // No byte was written for work queued before the loop ran.
    process(false);
    // An exit that came while starting found that work queued and wrote no byte; the
    // flag it left is all there is to go by, since uloop_run_timeout clears
    // uloop_cancelled on entry.
    bool exit_requested;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        exit_requested = exiting;
    }
    if (!exit_requested) {
        uloop_run_timeout(-1);
    }

    uloop_fd_delete(&wakeup);
    uloop_done();

    bool was_exiting;
    std::queue<std::function<void()>> leftover;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        was_exiting = exiting;
        running = false;
        exiting = false;
        close_pair(notify_fds);
        tasks.swap(leftover);
    }
    if (captured_exception) {
        std::rethrow_exception(captured_exception);
    }
    if (!was_exiting) {
        throw std::runtime_error(prefix + "Unexptected uloop exit");
    }
}

void uloop::exit() {
    std::lock_guard<std::recursive_mutex> lock(mutex);
    if (running) {
        // The byte makes the loop look at `exiting` even when nothing else is
        // queued.
        notify();
        exiting = true;
    }
}

void uloop::post(std::function<void()>&& task) {
    if (!task) {
        return;
    }
    std::lock_guard<std::recursive_mutex> lock(mutex);
    notify();
    tasks.push(std::move(task));
}

void uloop::post(const std::function<void()>& task) {
    post(std::function<void()>(task));
}

void uloop::exception_handler() {
    try {
        throw;
    } catch (...) {
        uloop_cancelled = true;
        captured_exception = std::current_exception();
    }
}

void uloop::fd_callback(uloop_fd*, unsigned int events) {
    try {
        get_instance().process((events & ULOOP_READ) != 0);
    } catch (...) {
        get_instance().exception_handler();
    }
}

void uloop::notify() {
    // One byte per batch: a non-empty queue already has its byte on the way.
    if (!tasks.empty() || exiting || !running) {
        return;
    }
    const char byte = 1;
    while (write(notify_fds[0], &byte, 1) < 0) {
        const int err = errno;
        if (err != EINTR) {
            throw std::runtime_error(prefix + "Can't notify uloop: Can't write into socketpair [" +
                                     errno_text(err));
        }
    }
}

void uloop::process(bool consume_wakeup) {
    std::queue<std::function<void()>> batch;
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        if (exiting) {
            uloop_cancelled = true;
            return;
        }
        tasks.swap(batch);
        if (consume_wakeup) {
            char byte;
            while (read(notify_fds[1], &byte, 1) < 0) {
                const int err = errno;
                if (err != EINTR) {
                    throw std::runtime_error(
                        prefix + "Can't clean uloop notify buffer: Can't read from socketpair [" +
                        errno_text(err));
                }
            }
        } else {
            // Work posted after run() set `running` but before this first batch wrote a
            // byte for it: taken now, or the loop stays a byte ahead of its batches and
            // wakes once for nothing.
            char byte;
            (void)recv(notify_fds[1], &byte, 1, MSG_DONTWAIT);
        }
    }
    // Unlocked, so that work may post more work or call exit.
    while (!batch.empty()) {
        batch.front()();
        batch.pop();
    }
}

} // namespace orvix
