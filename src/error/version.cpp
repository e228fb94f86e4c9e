#include <orvix/version.h>

namespace orvix {
namespace version {

version_numbers get() {
    return {ORVIX_VERSION_PATCH, ORVIX_VERSION_MINOR, ORVIX_VERSION_MAJOR};
}

std::string get_string() {
    return ORVIX_VERSION_STRING;
}

} // namespace version
} // namespace orvix
