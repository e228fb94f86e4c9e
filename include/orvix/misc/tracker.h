#pragma once

#include <list>
#include <memory>
#include <utility>

namespace orvix {
namespace misc {

/// Tells whether any of a set of objects has been destroyed. Once it has
/// reported so it keeps reporting so.
class shared_ptr_tracker {
public:
    /// Tracks each of `objs` (shared or weak pointers) after those tracked so far.
    template <typename T, typename... Rest>
    void add(const T& obj, Rest&&... rest) {
        tracked.emplace_back(std::weak_ptr<void>(obj));
        add(std::forward<Rest>(rest)...);
    }
    void add() const {}

    bool expired() const;
    explicit operator bool() const { return !expired(); }

private:
    mutable bool expired_latch = false;
    std::list<std::weak_ptr<void>> tracked;
};

} // namespace misc
} // namespace orvix
