#include <cstdio>

#include <libubus.h>

#include "commands.h"
#include "json_output.h"

namespace orvix {
namespace tool {
namespace {

void print_object(ubus_context*, ubus_object_data* obj, void* priv) {
    if (!*static_cast<const bool*>(priv)) {
        std::printf("%s\n", obj->path);
        return;
    }
    std::printf("'%s' @%08x\n", obj->path, obj->id);
    blob_attr* method;
    size_t rem;
    blob_for_each_attr(method, obj->signature, rem) {
        std::printf("\t%s\n", format_signature_method(method).c_str());
    }
}

} // namespace

int list(settings& s, int argc, char** argv) {
    if (argc > 1) {
        return usage_error;
    }
    // Scripts want the bare paths: -S overrides -v.
    bool verbose = s.verbose > 0 && !s.simple;
    return ubus_lookup(s.ctx, argc == 1 ? argv[0] : nullptr, print_object, &verbose);
}

} // namespace tool
} // namespace orvix
