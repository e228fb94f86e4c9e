#include "json_mapping.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <typeindex>
#include <utility>
#include <vector>

namespace orvix {
namespace tool {
namespace {

using table = std::multimap<std::string, blob::attr>;

blob::attr to_attr(const nlohmann::json& json);

table members_of(const nlohmann::json& object) {
    table members;
    for (const auto& item : object.items()) {
        members.emplace(item.key(), to_attr(item.value()));
    }
    return members;
}

blob::attr integer_attr(std::int64_t value) {
    if (value >= std::numeric_limits<std::int32_t>::min() &&
        value <= std::numeric_limits<std::int32_t>::max()) {
        return blob::attr(static_cast<int>(value));
    }
    return blob::attr(static_cast<long long>(value));
}

blob::attr to_attr(const nlohmann::json& json) {
    using kind = nlohmann::json::value_t;
    switch (json.type()) {
    case kind::object:
        return blob::attr(members_of(json));
    case kind::array: {
        blob::array items;
        for (const auto& item : json) {
            items.push_back(to_attr(item));
        }
        return blob::attr(std::move(items));
    }
    case kind::string:
        return blob::attr(json.get_ref<const std::string&>());
    case kind::boolean:
        return blob::attr(json.get<bool>());
    case kind::number_integer:
        return integer_attr(json.get<std::int64_t>());
    case kind::number_unsigned: {
        // The ubus tool reads integers as signed 64 bits, saturating larger ones.
        const auto value = json.get<std::uint64_t>();
        constexpr auto largest =
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
        return integer_attr(static_cast<std::int64_t>(value > largest ? largest : value));
    }
    case kind::number_float:
        return blob::attr(json.get<double>());
    case kind::null:
        return blob::attr(std::vector<unsigned char>());
    default:
        throw std::invalid_argument(std::string("a JSON ") + json.type_name() +
                                    " value has no message form");
    }
}

// Strings reach the bus as C strings, so the ubus tool prints them up to the first NUL.
std::string_view c_string(const std::string& text) {
    return std::string_view(text.c_str());
}

class json_writer {
public:
    explicit json_writer(json_layout layout) : indented(layout == json_layout::indented) {}

    std::string take() { return std::move(text); }

    void write_table(const table& members) {
        write_list('{', '}', members, [this](const table::value_type& member) {
            const auto name = c_string(member.first);
            if (!name.empty()) {
                write_string(name);
                text += indented ? ": " : ":";
            }
            write_value(member.second);
        });
    }

private:
    template <typename List, typename Write>
    void write_list(char open, char close, const List& list, Write write_item) {
        text += open;
        ++depth;
        new_line();
        bool first = true;
        for (const auto& item : list) {
            if (!first) {
                text += ',';
                new_line();
            }
            write_item(item);
            first = false;
        }
        --depth;
        new_line();
        text += close;
    }

    void new_line() {
        if (indented) {
            text += '\n';
            text.append(depth, '\t');
        }
    }

    void write_value(const blob::attr& value) {
        const std::type_index kind = value.type();
        if (kind == typeid(bool)) {
            text += value.get<bool>() ? "true" : "false";
        } else if (kind == typeid(unsigned char)) {
            text += value.get<unsigned char>() != 0 ? "true" : "false";
        } else if (kind == typeid(unsigned short)) {
            text += std::to_string(value.get<short>());
        } else if (kind == typeid(unsigned int)) {
            text += std::to_string(value.get<int>());
        } else if (kind == typeid(unsigned long long)) {
            text += std::to_string(value.get<long long>());
        } else if (kind == typeid(double)) {
            write_double(value.get<double>());
        } else if (kind == typeid(std::string)) {
            write_string(c_string(value.get<std::string>()));
        } else if (kind == typeid(blob::array)) {
            write_list('[', ']', value.get<blob::array>(),
                       [this](const blob::attr& item) { write_value(item); });
        } else if (kind == typeid(table)) {
            write_table(value.get<table>());
        } else {
            text += "null";
        }
    }

    void write_double(double value) {
        // Room for the longest, -DBL_MAX: 309 digits, sign, point and six decimals.
        char digits[320];
        text.append(digits,
                    static_cast<std::size_t>(std::snprintf(digits, sizeof digits, "%f", value)));
    }

    void write_string(std::string_view value) {
        text += '"';
        for (const char c : value) {
            switch (c) {
            case '"':
                text += "\\\"";
                break;
            case '\\':
                text += "\\\\";
                break;
            case '\n':
                text += "\\n";
                break;
            case '\t':
                text += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char escaped[7];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
                    text += escaped;
                } else {
                    text += c;
                }
            }
        }
        text += '"';
    }

    const bool indented;
    std::size_t depth = 0;
    std::string text;
};

} // namespace

table to_table(const nlohmann::json& json) {
    if (!json.is_object()) {
        throw std::invalid_argument(std::string("the arguments must be a JSON object (got ") +
                                    json.type_name() + ")");
    }
    return members_of(json);
}

table parse_table(const std::string& text) {
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& error) {
        throw std::invalid_argument(std::string("the arguments are no valid JSON: ") +
                                    error.what());
    }
    return to_table(json);
}

std::string to_json_text(const table& members, json_layout layout) {
    json_writer writer(layout);
    writer.write_table(members);
    return writer.take();
}

} // namespace tool
} // namespace orvix
