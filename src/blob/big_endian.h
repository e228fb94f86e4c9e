#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orvix {
namespace blob {
namespace detail {

/// The unsigned integer stored big-endian at `data`, which need not be aligned.
template <typename T>
T from_big_endian(const void* data) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    T value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        value = static_cast<T>((value << 8) | bytes[i]);
    }
    return value;
}

/// The double whose bits are stored big-endian at `data`.
inline double double_from_big_endian(const void* data) {
    static_assert(sizeof(double) == sizeof(std::uint64_t), "double must be 64 bits");
    const auto bits = from_big_endian<std::uint64_t>(data);
    double number;
    std::memcpy(&number, &bits, sizeof(number));
    return number;
}

} // namespace detail
} // namespace blob
} // namespace orvix
