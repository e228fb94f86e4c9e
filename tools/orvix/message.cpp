#include <cstdio>
#include <cstring>
#include <string>

#include "message.h"

#include "json_input.h"

namespace orvix {
namespace tool {

bool add_message(blob_buf* buf, const char* argument) {
    if (std::strcmp(argument, "-") != 0) {
        return add_json_members(buf, argument);
    }
    // A message too long for a command line, or one a script produces, comes on stdin.
    std::string text;
    char chunk[4096];
    for (std::size_t n; (n = std::fread(chunk, 1, sizeof chunk, stdin)) > 0;) {
        text.append(chunk, n);
    }
    return add_json_members(buf, text);
}

} // namespace tool
} // namespace orvix
