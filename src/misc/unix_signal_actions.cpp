#include <orvix/misc/unix_signal_actions.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace orvix {
namespace misc {

namespace {

std::runtime_error sigaction_failure(const char* what, int signum) {
    const int err = errno;
    return std::runtime_error(std::string(what) + std::to_string(signum) + " [" +
                              std::to_string(err) + "]: " + std::strerror(err));
}

} // namespace

void unix_signal_actions::save(int signum) {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    if (sigaction(signum, nullptr, &action) != 0) {
        throw sigaction_failure("unix_signal_actions failed to get old action of signal ", signum);
    }
    actions.emplace(signum, action);
}

void unix_signal_actions::restore() {
    for (const auto& entry : actions) {
        struct sigaction current;
        std::memset(&current, 0, sizeof(current));
        if (sigaction(entry.first, nullptr, &current) != 0) {
            throw sigaction_failure("unix_signal_actions failed to get new action of signal ",
                                    entry.first);
        }
        // Only a replaced handler matters; setting it back also restores the
        // mask and flags that went with it.
        if (current.sa_handler == entry.second.sa_handler) {
            continue;
        }
        if (sigaction(entry.first, &entry.second, nullptr) != 0) {
            throw sigaction_failure("unix_signal_actions failed to set back old action for signal ",
                                    entry.first);
        }
    }
}

} // namespace misc
} // namespace orvix
