// A message that decodes must survive encoding: decoding the encoded table
// gives the same table, and encoding that again gives the same bytes.
#include <orvix_testing/blob.h>

#include <orvix/blob/attr.h>
#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using orvix::blob::array;
using orvix::blob::attr;
using orvix::blob::table;

bool equal(const attr& a, const attr& b);

bool equal(const table& a, const table& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
        if (i->first != j->first || !equal(i->second, j->second)) {
            return false;
        }
    }
    return true;
}

bool equal(const array& a, const array& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
        if (!equal(*i, *j)) {
            return false;
        }
    }
    return true;
}

template <typename T>
bool same_value(const attr& a, const attr& b) {
    return a.get<T>() == b.get<T>();
}

bool equal(const attr& a, const attr& b) {
    if (a.type() != b.type()) {
        return false;
    }
    if (a.type() == typeid(table)) {
        return equal(a.get<table>(), b.get<table>());
    }
    if (a.type() == typeid(array)) {
        return equal(a.get<array>(), b.get<array>());
    }
    if (a.type() == typeid(double)) {
        // NaN payloads must survive too, so the bits are compared.
        const double x = a.get<double>();
        const double y = b.get<double>();
        return std::memcmp(&x, &y, sizeof(x)) == 0;
    }
    if (a.type() == typeid(std::string)) {
        return same_value<std::string>(a, b);
    }
    if (a.type() == typeid(std::vector<unsigned char>)) {
        return same_value<std::vector<unsigned char>>(a, b);
    }
    if (a.type() == typeid(unsigned long long)) {
        return same_value<unsigned long long>(a, b);
    }
    if (a.type() == typeid(unsigned int)) {
        return same_value<unsigned int>(a, b);
    }
    if (a.type() == typeid(unsigned short)) {
        return same_value<unsigned short>(a, b);
    }
    if (a.type() == typeid(unsigned char)) {
        return same_value<unsigned char>(a, b);
    }
    if (a.type() == typeid(bool)) {
        return same_value<bool>(a, b);
    }
    return false;
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "roundtrip: %s\n", what);
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!orvix_testing::message_blob::fits(size)) {
        return -1;
    }
    orvix_testing::message_blob msg(data, size);
    table first;
    try {
        first = orvix::blob::utils::to_table(msg.head());
    } catch (const std::runtime_error&) {
        return 0;
    } catch (const std::logic_error&) {
        return 0;
    }

    const orvix::blob::buf encoded(first);
    const blob_attr* encoded_head = encoded.native()->head;
    const table second = orvix::blob::utils::to_table(const_cast<blob_attr*>(encoded_head));
    if (!equal(first, second)) {
        fail("decoding the encoded message gives another table");
    }
    const orvix::blob::buf reencoded(second);
    const blob_attr* reencoded_head = reencoded.native()->head;
    if (blob_raw_len(encoded_head) != blob_raw_len(reencoded_head) ||
        std::memcmp(encoded_head, reencoded_head, blob_raw_len(encoded_head)) != 0) {
        fail("encoding the decoded table again gives other bytes");
    }
    return 0;
}
