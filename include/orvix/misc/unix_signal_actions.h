#pragma once

#include <map>
#include <signal.h>
#include <utility>

namespace orvix {
namespace misc {

/// Records the actions of process signals so that they can be put back after
/// code that installs handlers of its own. Destruction does not restore.
class unix_signal_actions {
public:
    /// Saves the current action of `signum`, then of each of `rest` (signal
    /// numbers). A signal saved before keeps its first saved action.
    template <typename... Args>
    void set(int signum, Args&&... rest) {
        save(signum);
        set(std::forward<Args>(rest)...);
    }
    void set() {}

    /// Puts back every saved action whose handler has since been replaced.
    void restore();

private:
    void save(int signum);

    std::map<int, struct sigaction> actions;
};

} // namespace misc
} // namespace orvix
