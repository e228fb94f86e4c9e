// Blob bytes as hex text ("00 00 00 1c 85 ..."), so a failed comparison shows where they differ.
#pragma once

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
}

inline std::string hex_of(const void* data, size_t len) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < len; i++) {
        std::snprintf(byte, sizeof(byte), i ? " %02x" : "%02x",
                      static_cast<const uint8_t*>(data)[i]);
        out += byte;
    }
    return out;
}

// The message built so far: the head through its raw length.
inline std::string hex_of(const blob_buf& b) {
    return hex_of(b.head, blob_raw_len(b.head));
}

// Hex pairs; spaces and the '|' between attributes are skipped. Vector storage is aligned
// well enough to be read as blob_attr.
inline std::vector<uint8_t> bytes_of(const char* text) {
    std::vector<uint8_t> out;
    for (const char* p = text; *p; p++) {
        if (std::isxdigit(static_cast<unsigned char>(*p)))
            out.push_back(static_cast<uint8_t>(std::stoul(std::string(p++, 2), nullptr, 16)));
    }
    return out;
}

inline std::string normalized(const char* text) {
    std::vector<uint8_t> bytes = bytes_of(text);
    return hex_of(bytes.data(), bytes.size());
}

inline blob_attr* attr_of(std::vector<uint8_t>& bytes) {
    return reinterpret_cast<blob_attr*>(bytes.data());
}
