// Bytes written and shown as hex text ("00 01 0a ..."), so that a failed comparison of
// wire data shows where the bytes differ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace orvix_testing {

using bytes = std::vector<std::uint8_t>;

/// Hex pairs; blanks and the '|' that may separate parts are skipped. Anything else, or an
/// odd digit, is a typo in the test and throws std::invalid_argument.
bytes from_hex(std::string_view text);

/// Lower-case pairs separated by single blanks.
std::string to_hex(const void* data, std::size_t len);
inline std::string to_hex(const bytes& b) {
    return to_hex(b.data(), b.size());
}
/// `text` as from_hex reads it, in to_hex's spelling.
inline std::string normalized_hex(std::string_view text) {
    return to_hex(from_hex(text));
}

/// Named bytes, for hex patterns: "{name}" in a pattern stands for the bytes of `name`.
using hex_vars = std::map<std::string, bytes>;
/// Whether `got` is `pattern`. Ids are random per run, so an unbound name takes the four
/// bytes found in its place, and must match wherever it comes again.
bool matches_hex(const bytes& got, std::string_view pattern, hex_vars& vars);
/// `pattern` with the bytes of every name put in.
bytes expand_hex(std::string_view pattern, const hex_vars& vars);

bytes be32(std::uint32_t v);
std::uint32_t get_be32(const std::uint8_t* p);

bytes operator+(bytes a, const bytes& b);

} // namespace orvix_testing
