// A helper program (a peer, a daemon) run by a test, with its output on a pipe.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace orvix_testing {

class process {
public:
    /// Starts argv[0] (a path) with its standard output, and with `with_stderr` its
    /// standard error too, on the pipe.
    explicit process(const std::vector<std::string>& argv, bool with_stderr = false);
    /// SIGTERM if it still runs, then wait() as below.
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    /// Reads until `text` has appeared in the output, which it then returns true for.
    /// Empty `text`: to the end of the output. Between waits for more it runs `idle`, and
    /// then does not block, for a caller whose peer may be waiting on it.
    bool read_until(const std::string& text, int timeout_ms,
                    const std::function<void()>& idle = {});
    /// The output so far.
    const std::string& output() const { return output_; }
    /// The exit status, 128 + the signal when one ended it, -1 when it had to be killed
    /// after `timeout_ms`.
    int wait(int timeout_ms = 5000);
    void signal(int signo);

private:
    pid_t pid_ = 0;
    int status_ = -1;
    int out_ = -1;
    std::string output_;
};

} // namespace orvix_testing
