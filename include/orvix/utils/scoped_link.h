#pragma once

#include <orvix/utils/link.h>

namespace orvix {
namespace utils {

/// A link that ends its registration when it goes out of scope or is given
/// another one.
class scoped_link : public link {
public:
    scoped_link() = default;
    /// Shares the registration; the given link stays usable as well.
    scoped_link(link&& other);
    scoped_link(scoped_link&& other);
    ~scoped_link() override;

    scoped_link& operator=(const link& other);
    scoped_link& operator=(link&& other);
    scoped_link& operator=(scoped_link&& other);
};

} // namespace utils
} // namespace orvix
