#pragma once

#include <cstdint>
#include <string>

namespace orvix {
namespace version {

/// The library's version; the least significant number comes first.
struct version_numbers {
    std::uint32_t patch;
    std::uint32_t minor;
    std::uint32_t major;
};

/// The version of the library the program runs against.
version_numbers get();

/// The same version as text, "major.minor.patch".
std::string get_string();

} // namespace version
} // namespace orvix
