#pragma once

#include <orvix/misc/link.h>
#include <orvix/misc/tracker.h>
#include <orvix/utils/link.h>
#include <orvix/utils/scoped_link.h>

#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace orvix {
namespace misc {

namespace linkhandlerdetail {

template <typename R, typename... Args>
struct signature_traits {
    using return_type = R;
    using type = std::function<R(Args...)>;
};

// Empty for anything without a single call signature, so that callable_traits
// can be used to enable overloads.
template <typename F, typename = void>
struct call_traits {};

template <typename R, typename... Args>
struct call_traits<R(Args...)> : signature_traits<R, Args...> {};

template <typename R, typename... Args>
struct call_traits<R (*)(Args...)> : signature_traits<R, Args...> {};

template <typename C, typename R, typename... Args>
struct call_traits<R (C::*)(Args...)> : signature_traits<R, Args...> {};

template <typename C, typename R, typename... Args>
struct call_traits<R (C::*)(Args...) const> : signature_traits<R, Args...> {};

template <typename C, typename R, typename... Args>
struct call_traits<R (C::*)(Args...) noexcept> : signature_traits<R, Args...> {};

template <typename C, typename R, typename... Args>
struct call_traits<R (C::*)(Args...) const noexcept> : signature_traits<R, Args...> {};

template <typename F>
struct call_traits<F, std::void_t<decltype(&F::operator())>>
    : call_traits<decltype(&F::operator())> {};

} // namespace linkhandlerdetail

/// The return type (`return_type`) and call signature, as a std::function
/// (`type`), of a callable with exactly one call signature.
template <typename F>
struct callable_traits
    : linkhandlerdetail::call_traits<std::remove_cv_t<std::remove_reference_t<F>>> {};

/// True when F has one call signature and it returns R.
template <typename F, typename R, typename = void>
struct is_callable : std::false_type {};

template <typename F, typename R>
struct is_callable<F, R, std::void_t<typename callable_traits<F>::return_type>>
    : std::is_same<typename callable_traits<F>::return_type, R> {};

namespace linkhandlerdetail {

template <typename F, typename Signature>
class tied_handler;

template <typename F, typename... Args>
class tied_handler<F, std::function<void(Args...)>> {
public:
    tied_handler(const F& handler, shared_ptr_tracker&& tracker)
        : handler(handler), tracker(std::move(tracker)) {}

    void operator()(Args... args) {
        if (tracker.expired()) {
            return;
        }
        handler(std::forward<Args>(args)...);
    }

private:
    F handler;
    shared_ptr_tracker tracker;
};

} // namespace linkhandlerdetail

/// A callable with the signature of `handler` that calls it only while every
/// one of `objs` (shared or weak pointers) is alive.
template <typename F, typename... Objs>
auto tie_handler(const F& handler, Objs&&... objs)
    -> std::enable_if_t<is_callable<F, void>::value,
                        linkhandlerdetail::tied_handler<F, typename callable_traits<F>::type>> {
    shared_ptr_tracker tracker;
    tracker.add(std::forward<Objs>(objs)...);
    return {handler, std::move(tracker)};
}

namespace linkhandlerdetail {

template <typename H>
class link_ctx : public utils::link::impl {
public:
    void release() override { holder.reset(); }
    bool active() const override { return static_cast<bool>(holder); }

    // The only strong reference to the stored handler.
    std::shared_ptr<H> holder;
};

template <typename H>
class wrapped_call {
public:
    wrapped_call(const std::shared_ptr<link_ctx<H>>& ctx, bool once,
                 const std::shared_ptr<utils::scoped_link>& guard)
        : ctx(ctx), once(once), guard(guard) {}

    template <typename... Args>
    decltype(auto) operator()(Args&&... args) const {
        // A copy, so that a one-shot call can drop the stored handler before it
        // runs and the handler may release its own link.
        H handler = ctx->holder ? *ctx->holder : H();
        if (once) {
            ctx->holder.reset();
        }
        return handler(std::forward<Args>(args)...);
    }

private:
    std::shared_ptr<link_ctx<H>> ctx;
    bool once;
    // Releases the link when the emitter drops its last copy of this callable.
    std::shared_ptr<utils::scoped_link> guard;
};

/// Makes `handler` cancellable: returns the callable to give to the emitter,
/// a token that expires when the handler is no longer to run, and the link
/// that cancels it. With `once`, the first call ends the registration.
template <typename H, typename F = H>
std::tuple<F, std::weak_ptr<void>, utils::link> wrap_handler(const H& handler, bool once) {
    auto ctx = std::make_shared<link_ctx<H>>();
    ctx->holder = std::make_shared<H>(handler);
    const utils::link lnk(ctx);
    auto guard = std::make_shared<utils::scoped_link>(utils::link(lnk));
    return std::tuple<F, std::weak_ptr<void>, utils::link>(F(wrapped_call<H>(ctx, once, guard)),
                                                           std::weak_ptr<void>(ctx->holder),
                                                           aggregate_adapter<utils::link>(lnk));
}

} // namespace linkhandlerdetail

/// `handler` made cancellable through the returned link and, with `once`,
/// one-shot. The returned callable does nothing once the link is released or
/// the handler has run as a one-shot.
template <typename H, typename = std::enable_if_t<is_callable<H, void>::value>>
std::pair<typename callable_traits<H>::type, utils::link> link_handler(const H& handler,
                                                                       bool once) {
    using function_type = typename callable_traits<H>::type;
    auto wrapped =
        linkhandlerdetail::wrap_handler<function_type, function_type>(function_type(handler), once);
    return {tie_handler(std::get<0>(wrapped), std::get<1>(wrapped)), std::get<2>(wrapped)};
}

} // namespace misc
} // namespace orvix
