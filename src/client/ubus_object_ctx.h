#pragma once

#include "client/client_impl.h"

#include <list>
#include <string>
#include <vector>

namespace orvix {

/// The libubus side of a published object. libubus keeps pointers into it while the
/// object is registered, so it never moves and is built once; `prepare` readies it for
/// each registration.
class client_impl::ubus_object_ctx {
public:
    /// Throws std::logic_error for an argument type that is not a value kind.
    ubus_object_ctx(const std::string& name, const method_table& described);

    ubus_object_ctx(const ubus_object_ctx&) = delete;
    ubus_object_ctx& operator=(const ubus_object_ctx&) = delete;

    /// Lays out the object and its type afresh, as a new connection needs them: ids
    /// that an earlier connection gave are void.
    void prepare();

    std::string name;
    ubus_object object;
    ubus_object_type type;
    std::vector<ubus_method> methods;
    // A list, so that each vector stays where its method's policy points.
    std::list<std::vector<blobmsg_policy>> policies;
    method_table table;
};

} // namespace orvix
