#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "json_input.h"

extern "C" {
#include <libubox/blobmsg.h>
}

namespace orvix {
namespace tool {

namespace {

// Objects and arrays together, the top-level object included.
constexpr int deepest_nesting = 31;

// The whole text is read before anything is written, so that a key given twice can take
// its last value at its first position.
struct value {
    enum class kind { object, array, string, int32, int64, real, boolean, null };

    kind type = kind::null;
    std::string text;
    std::int64_t integer = 0;
    double real = 0;
    std::vector<std::string> keys; // one per item for an object, none for an array
    std::vector<value> items;
};

class reader {
public:
    explicit reader(const std::string& text) : pos_(text.c_str()) {}

    // Reads the leading object; whatever follows it is none of its business.
    bool top(value& out) {
        if (!skip_blanks() || *pos_ != '{')
            return false;
        return parse_value(out);
    }

private:
    static bool is_space(char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
    }

    static bool is_digit(char c) { return c >= '0' && c <= '9'; }

    static char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

    static int hex_digit(char c) {
        if (is_digit(c))
            return c - '0';
        c = lower(c);
        return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    }

    // Blanks and comments between tokens; false for an unterminated comment or a stray `/`.
    bool skip_blanks() {
        for (;;) {
            if (is_space(*pos_)) {
                ++pos_;
            } else if (pos_[0] == '/' && pos_[1] == '*') {
                pos_ += 2;
                while (*pos_ && !(pos_[0] == '*' && pos_[1] == '/'))
                    ++pos_;
                if (!*pos_)
                    return false;
                pos_ += 2;
            } else if (pos_[0] == '/' && pos_[1] == '/') {
                while (*pos_ && *pos_ != '\n')
                    ++pos_;
            } else {
                return *pos_ != '/';
            }
        }
    }

    // Case-insensitive, as the device tool takes `True` or `NULL`.
    bool take_word(const char* word) {
        const char* p = pos_;
        for (; *word; ++word, ++p) {
            if (lower(*p) != *word)
                return false;
        }
        pos_ = p;
        return true;
    }

    bool parse_value(value& out) {
        switch (*pos_) {
        case '{':
        case '[':
            return parse_container(out, *pos_ == '[');
        case '"':
        case '\'':
            out.type = value::kind::string;
            return parse_string(out.text);
        case '-':
            if (is_digit(pos_[1]))
                return parse_number(out);
            ++pos_;
            if (!take_word("infinity"))
                return false;
            out.type = value::kind::real;
            out.real = -std::numeric_limits<double>::infinity();
            return true;
        default:
            break;
        }
        if (is_digit(*pos_))
            return parse_number(out);
        if (take_word("true")) {
            out.type = value::kind::boolean;
            out.integer = 1;
            return true;
        }
        if (take_word("false")) {
            out.type = value::kind::boolean;
            return true;
        }
        if (take_word("null")) {
            out.type = value::kind::null;
            return true;
        }
        if (take_word("nan")) {
            out.type = value::kind::real;
            out.real = std::numeric_limits<double>::quiet_NaN();
            return true;
        }
        if (take_word("infinity")) {
            out.type = value::kind::real;
            out.real = std::numeric_limits<double>::infinity();
            return true;
        }
        return false;
    }

    bool parse_container(value& out, bool array) {
        if (++depth_ > deepest_nesting)
            return false;
        out.type = array ? value::kind::array : value::kind::object;
        const char close = array ? ']' : '}';
        std::unordered_map<std::string, std::size_t> index;
        ++pos_;
        if (!skip_blanks())
            return false;
        // A trailing comma is fine, an empty member is not: `[1,]` but not `[,]`.
        while (*pos_ != close) {
            std::string key;
            if (!array) {
                if ((*pos_ != '"' && *pos_ != '\'') || !parse_string(key) || !skip_blanks() ||
                    *pos_ != ':')
                    return false;
                ++pos_;
                if (!skip_blanks())
                    return false;
            }
            value item;
            if (!parse_value(item) || !skip_blanks())
                return false;
            if (array) {
                out.items.push_back(std::move(item));
            } else {
                const auto known = index.emplace(key, out.items.size());
                if (known.second) {
                    out.keys.push_back(std::move(key));
                    out.items.push_back(std::move(item));
                } else {
                    out.items[known.first->second] = std::move(item);
                }
            }
            if (*pos_ == ',') {
                ++pos_;
                if (!skip_blanks())
                    return false;
            } else if (*pos_ != close) {
                return false;
            }
        }
        ++pos_;
        --depth_;
        return true;
    }

    // A string value ends at its first NUL, as does a key: both are C strings in the message.
    bool parse_string(std::string& out) {
        const char quote = *pos_++;
        out.clear();
        for (;;) {
            const char c = *pos_;
            if (!c)
                return false;
            ++pos_;
            if (c == quote)
                break;
            if (c != '\\') {
                out += c;
                continue;
            }
            const char escaped = *pos_++;
            switch (escaped) {
            case '"':
            case '\\':
            case '/':
                out += escaped;
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u':
                if (!parse_unicode(out))
                    return false;
                break;
            default:
                return false;
            }
        }
        out.resize(out.find('\0') == std::string::npos ? out.size() : out.find('\0'));
        return true;
    }

    // The four hex digits after `\u`, or -1.
    static long hex4(const char* p) {
        long code = 0;
        for (int i = 0; i < 4; ++i) {
            const int digit = hex_digit(p[i]);
            if (digit < 0)
                return -1;
            code = code * 16 + digit;
        }
        return code;
    }

    // A high surrogate pairs with a low one right after it; any other surrogate stands
    // for U+FFFD.
    bool parse_unicode(std::string& out) {
        long code = hex4(pos_);
        if (code < 0)
            return false;
        pos_ += 4;
        if (code >= 0xd800 && code <= 0xdfff) {
            const long low = pos_[0] == '\\' && pos_[1] == 'u' ? hex4(pos_ + 2) : -1;
            if (code <= 0xdbff && low >= 0xdc00 && low <= 0xdfff) {
                code = 0x10000 + ((code - 0xd800) << 10) + (low - 0xdc00);
                pos_ += 6;
            } else {
                code = 0xfffd;
            }
        }
        append_utf8(out, code);
        return true;
    }

    static void append_utf8(std::string& out, long code) {
        if (code < 0x80) {
            out += static_cast<char>(code);
        } else if (code < 0x800) {
            out += static_cast<char>(0xc0 | (code >> 6));
            out += static_cast<char>(0x80 | (code & 0x3f));
        } else if (code < 0x10000) {
            out += static_cast<char>(0xe0 | (code >> 12));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
            out += static_cast<char>(0x80 | (code & 0x3f));
        } else {
            out += static_cast<char>(0xf0 | (code >> 18));
            out += static_cast<char>(0x80 | ((code >> 12) & 0x3f));
            out += static_cast<char>(0x80 | ((code >> 6) & 0x3f));
            out += static_cast<char>(0x80 | (code & 0x3f));
        }
    }

    // `-`? digits, then an optional fraction and exponent whose digits may be missing
    // (`1.`, `1e`); leading zeros are fine. Integers beyond 64 bits are clamped.
    bool parse_number(value& out) {
        const char* start = pos_;
        const bool negative = *pos_ == '-';
        if (negative)
            ++pos_;
        std::uint64_t magnitude = 0;
        bool overflow = false;
        for (; is_digit(*pos_); ++pos_) {
            const unsigned digit = static_cast<unsigned>(*pos_ - '0');
            if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10)
                overflow = true;
            else
                magnitude = magnitude * 10 + digit;
        }
        bool real = false;
        if (*pos_ == '.') {
            real = true;
            for (++pos_; is_digit(*pos_);)
                ++pos_;
        }
        if (*pos_ == 'e' || *pos_ == 'E') {
            real = true;
            ++pos_;
            if (*pos_ == '+' || *pos_ == '-')
                ++pos_;
            while (is_digit(*pos_))
                ++pos_;
        }
        if (real) {
            out.type = value::kind::real;
            out.real = std::strtod(std::string(start, pos_).c_str(), nullptr);
            return true;
        }
        constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max();
        if (negative)
            out.integer = overflow || magnitude > largest ? std::numeric_limits<std::int64_t>::min()
                                                          : -static_cast<std::int64_t>(magnitude);
        else
            out.integer = overflow || magnitude > largest ? std::numeric_limits<std::int64_t>::max()
                                                          : static_cast<std::int64_t>(magnitude);
        const bool fits = out.integer >= std::numeric_limits<std::int32_t>::min() &&
                          out.integer <= std::numeric_limits<std::int32_t>::max();
        out.type = fits ? value::kind::int32 : value::kind::int64;
        return true;
    }

    const char* pos_;
    int depth_ = 0;
};

bool add_value(blob_buf* buf, const char* name, const value& v) {
    switch (v.type) {
    case value::kind::object:
    case value::kind::array: {
        const bool array = v.type == value::kind::array;
        void* cookie = blobmsg_open_nested(buf, name, array);
        if (!cookie)
            return false;
        for (std::size_t i = 0; i < v.items.size(); ++i) {
            if (!add_value(buf, array ? nullptr : v.keys[i].c_str(), v.items[i]))
                return false;
        }
        blob_nest_end(buf, cookie);
        return true;
    }
    case value::kind::string:
        return blobmsg_add_string(buf, name, v.text.c_str()) == 0;
    case value::kind::int32:
        return blobmsg_add_u32(buf, name, static_cast<std::uint32_t>(v.integer)) == 0;
    case value::kind::int64:
        return blobmsg_add_u64(buf, name, static_cast<std::uint64_t>(v.integer)) == 0;
    case value::kind::real:
        return blobmsg_add_double(buf, name, v.real) == 0;
    case value::kind::boolean:
        return blobmsg_add_u8(buf, name, v.integer ? 1 : 0) == 0;
    case value::kind::null:
        return blobmsg_add_field(buf, BLOBMSG_TYPE_UNSPEC, name, nullptr, 0) == 0;
    }
    return false;
}

} // namespace

bool add_json_members(blob_buf* buf, const std::string& text) {
    value top;
    if (!reader(text).top(top))
        return false;
    for (std::size_t i = 0; i < top.items.size(); ++i) {
        if (!add_value(buf, top.keys[i].c_str(), top.items[i]))
            return false;
    }
    return true;
}

} // namespace tool
} // namespace orvix
