#pragma once

#include <exception>
#include <functional>
#include <mutex>
#include <queue>
#include <string>

struct uloop_fd;

namespace orvix {

/// The library's own event loop: libubox's uloop, run by whichever thread calls
/// `run`. Every libubus call happens on that thread; other threads hand work to
/// it with `post`. There is one per process.
class uloop {
public:
    static uloop& get_instance();

    uloop(const uloop&) = delete;
    uloop& operator=(const uloop&) = delete;
    ~uloop() = default;

    /// Runs the loop on the calling thread until `exit`. Work posted before
    /// runs first. An exception captured by `exception_handler` is rethrown
    /// here; a loop that stops for any other reason throws
    /// std::runtime_error. Throws std::runtime_error if a loop is running.
    void run();

    /// Asks the running loop to stop; work still queued is dropped. Has no
    /// effect, and is not remembered, when no loop is running.
    void exit();

    /// Queues `task` to run on the loop thread, after all work posted before
    /// it. An empty function is ignored.
    void post(std::function<void()>&& task);
    void post(const std::function<void()>& task);

    /// To be called inside a `catch` on the loop thread: keeps the exception
    /// being handled for `run` to rethrow and stops the loop.
    void exception_handler();

    /// The uloop callback of the wake-up socket: runs the queued work, handing
    /// any exception that escapes to `exception_handler`.
    static void fd_callback(uloop_fd* fd, unsigned int events);

private:
    uloop();

    // Writes the wake-up byte if the queue is empty; the caller holds `mutex`.
    void notify();
    // Runs everything queued so far on the loop thread.
    void process(bool consume_wakeup);

    std::exception_ptr captured_exception;
    std::string prefix;
    int notify_fds[2];
    bool running;
    bool exiting;
    std::recursive_mutex mutex;
    std::queue<std::function<void()>> tasks;
};

} // namespace orvix
