#include <orvix/misc/tracker.h>

namespace orvix {
namespace misc {

bool shared_ptr_tracker::expired() const {
    if (expired_latch) {
        return true;
    }
    for (const auto& obj : tracked) {
        if (obj.expired()) {
            expired_latch = true;
            return true;
        }
    }
    return false;
}

} // namespace misc
} // namespace orvix
