#include "orvix_testing/hex.h"

#include "orvix_testing/wire.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace orvix_testing {

namespace {

int digit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

} // namespace

bytes from_hex(std::string_view text) {
    bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '|' || c == '\n') {
            if (high >= 0) {
                throw std::invalid_argument("odd hex digit in: " + std::string(text));
            }
            continue;
        }
        const int d = digit(c);
        if (d < 0) {
            throw std::invalid_argument("not hex: " + std::string(text));
        }
        if (high < 0) {
            high = d;
        } else {
            out.push_back(static_cast<std::uint8_t>(high << 4 | d));
            high = -1;
        }
    }
    if (high >= 0) {
        throw std::invalid_argument("odd hex digit in: " + std::string(text));
    }
    return out;
}

std::string to_hex(const void* data, std::size_t len) {
    std::string out;
    char pair[4];
    for (std::size_t i = 0; i < len; i++) {
        std::snprintf(pair, sizeof(pair), i ? " %02x" : "%02x",
                      static_cast<const std::uint8_t*>(data)[i]);
        out += pair;
    }
    return out;
}

bool matches_hex(const bytes& got, std::string_view pattern, hex_vars& vars) {
    std::size_t at = 0;
    for (std::size_t i = 0; i < pattern.size();) {
        const std::size_t open = std::min(pattern.find('{', i), pattern.size());
        bytes part = from_hex(pattern.substr(i, open - i));
        i = open;
        if (open < pattern.size()) {
            const std::size_t close = pattern.find('}', open);
            const std::string name(pattern.substr(open + 1, close - open - 1));
            const std::size_t var_at = at + part.size();
            if (!vars.count(name) && var_at + 4 <= got.size()) {
                vars[name] = bytes(got.begin() + long(var_at), got.begin() + long(var_at + 4));
            }
            part = part + vars[name];
            i = close + 1;
        }
        if (got.size() < at + part.size() ||
            !std::equal(part.begin(), part.end(), got.begin() + long(at))) {
            return false;
        }
        at += part.size();
    }
    return at == got.size();
}

bytes expand_hex(std::string_view pattern, const hex_vars& vars) {
    bytes out;
    for (std::size_t i = 0; i < pattern.size();) {
        const std::size_t open = std::min(pattern.find('{', i), pattern.size());
        out = out + from_hex(pattern.substr(i, open - i));
        i = open;
        if (open < pattern.size()) {
            const std::size_t close = pattern.find('}', open);
            out = out + vars.at(std::string(pattern.substr(open + 1, close - open - 1)));
            i = close + 1;
        }
    }
    return out;
}

bytes be32(std::uint32_t v) {
    bytes out(4);
    wire_put_be32(out.data(), v);
    return out;
}

std::uint32_t get_be32(const std::uint8_t* p) {
    return wire_get_be32(p);
}

bytes operator+(bytes a, const bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

} // namespace orvix_testing
