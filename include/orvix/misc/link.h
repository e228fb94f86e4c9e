#pragma once

#include <orvix/utils/link.h>

#include <functional>
#include <memory>
#include <utility>

namespace orvix {
namespace misc {

/// A link that is active while `owner` lives and calls `on_release` to end the
/// registration. `on_release` must drop the last strong reference to `owner`.
utils::link create_link(const std::shared_ptr<void>& owner,
                        const std::function<void()>& on_release);

/// Builds a T by brace-initialisation from the given arguments, so that helpers
/// that construct their elements with parentheses can hold a T as well.
template <typename T>
class aggregate_adapter : public T {
public:
    template <typename... Args>
    aggregate_adapter(Args&&... args) : T{std::forward<Args>(args)...} {}
};

} // namespace misc
} // namespace orvix
