#include <orvix/utils/scoped_link.h>

#include <utility>

namespace orvix {
namespace utils {

scoped_link::scoped_link(link&& other) : link(static_cast<const link&>(other)) {}

scoped_link::scoped_link(scoped_link&& other) : link(std::move(other)) {}

scoped_link::~scoped_link() {
    release();
}

scoped_link& scoped_link::operator=(const link& other) {
    release();
    assign(other);
    return *this;
}

scoped_link& scoped_link::operator=(link&& other) {
    release();
    assign(std::move(other));
    return *this;
}

scoped_link& scoped_link::operator=(scoped_link&& other) {
    if (this == &other) {
        return *this;
    }
    release();
    assign(std::move(other));
    return *this;
}

} // namespace utils
} // namespace orvix
