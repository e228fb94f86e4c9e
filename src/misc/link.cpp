#include <orvix/utils/link.h>

#include <stdexcept>
#include <utility>

namespace orvix {
namespace utils {

link::link(const std::shared_ptr<impl>& ptr) : pimpl(ptr) {}

link::~link() = default;

void link::assign(const link& other) {
    pimpl = other.pimpl;
}

void link::assign(link&& other) {
    if (this != &other) {
        pimpl = std::move(other.pimpl);
        other.pimpl.reset();
    }
}

bool link::active() const {
    return pimpl && pimpl->active();
}

void link::release() {
    if (!active()) {
        return;
    }
    pimpl->release();
    // Every emitter must end the registration synchronously; one that merely
    // schedules it would leave callers believing it is gone.
    if (active()) {
        throw std::logic_error("orvix failed to release link");
    }
}

} // namespace utils
} // namespace orvix
