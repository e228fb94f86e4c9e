#pragma once

#include <orvix/utils/link.h>

#include <functional>
#include <iterator>
#include <list>
#include <memory>

namespace orvix {
namespace misc {

/// A list of subscribers, each of which gets a link to unsubscribe with. How
/// and in which order subscribers are called is up to the emitting code.
template <typename R, typename... Args>
class signal {
public:
    using function_type = std::function<R(Args...)>;
    using subscriber_list = std::list<std::shared_ptr<function_type>>;

    signal() = default;
    // Links point into this object's list, so it must stay where it is.
    signal(const signal&) = delete;
    signal& operator=(const signal&) = delete;

    /// Subscribes a copy of `handler`.
    utils::link connect(const function_type& handler);

    /// The subscribers in subscription order. The list holds the only strong
    /// reference to each; while an emitter holds a copy, releasing that
    /// subscriber's link fails. A link erases its own node from this list, so
    /// a node taken out by other means must not outlive its link's function.
    subscriber_list& subscribers() { return handlers; }
    const subscriber_list& subscribers() const { return handlers; }

private:
    subscriber_list handlers;
};

template <typename R, typename... Args>
utils::link signal<R, Args...>::connect(const function_type& handler) {
    class link_ctx : public utils::link::impl {
    public:
        link_ctx(subscriber_list* list, typename subscriber_list::iterator node,
                 const std::weak_ptr<function_type>& function)
            : list(list), node(node), function(function) {}

        void release() override {
            // The node is gone after the first erase even if an emission still
            // holds the function, so a retried release must not erase again.
            if (list) {
                list->erase(node);
                list = nullptr;
            }
        }

        bool active() const override { return !function.expired(); }

    private:
        subscriber_list* list;
        typename subscriber_list::iterator node;
        std::weak_ptr<function_type> function;
    };

    handlers.push_back(std::make_shared<function_type>(handler));
    const auto node = std::prev(handlers.end());
    return utils::link(std::make_shared<link_ctx>(&handlers, node, *node));
}

} // namespace misc
} // namespace orvix
