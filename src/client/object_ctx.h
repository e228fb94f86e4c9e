#pragma once

#include "client/client_impl.h"

#include <memory>
#include <string>

namespace orvix {

/// An object published with add_object, as the caller's event loop knows it.
class client_impl::object_ctx {
public:
    object_ctx(const std::string& name, const method_table& methods);

    /// Forget the object if the connection ends before its removal is done: the
    /// negation of del_object's `keep`.
    bool keep = false;
    /// Set until the add's outcome is known; cancel() forgets such an object.
    bool adding = true;
    /// Set by del_object; the name is then free for a new object.
    bool removing = false;
    std::string name;
    method_table methods;
    /// The libubus record, touched only on the loop thread. The address of its object
    /// keys this record among the published objects, for the object's whole life.
    std::shared_ptr<ubus_object_ctx> registration;
};

} // namespace orvix
