#include "client/client_impl.h"

#include <utility>

namespace orvix {

client& client::get_instance(const std::weak_ptr<utils::event_loop>& eloop) {
    return client_impl::get_instance(eloop);
}

client::exchange_ctx::exchange_ctx(std::multimap<std::string, blob::attr>&& args)
    : args(std::move(args)) {}

client::exchange_ctx::~exchange_ctx() = default;

} // namespace orvix
