// Policy-driven decoding. The input starts with the policy: a count byte (low
// three bits), then per entry a byte whose low nibble picks the value kind and
// whose high nibble is the length of the name that follows. The rest is the
// message body.
#include <orvix_testing/blob.h>

#include <orvix/blob/attr.h>
#include <orvix/blob/utils.h>

#include <map>
#include <stdexcept>
#include <string>
#include <typeindex>
#include <vector>

namespace {

const std::type_index kinds[] = {
    typeid(std::vector<unsigned char>),
    typeid(orvix::blob::array),
    typeid(orvix::blob::table),
    typeid(std::string),
    typeid(unsigned long long),
    typeid(unsigned int),
    typeid(unsigned short),
    typeid(unsigned char),
    typeid(bool),
    typeid(double),
};
constexpr std::size_t kind_count = sizeof(kinds) / sizeof(kinds[0]);

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return -1;
    }
    const std::uint8_t* end = data + size;
    std::size_t entries = *data++ & 7u;
    std::multimap<std::string, std::type_index> policy;
    while (entries-- > 0 && data < end) {
        const std::uint8_t spec = *data++;
        const std::size_t name_len = spec >> 4;
        if (static_cast<std::size_t>(end - data) < name_len) {
            return -1;
        }
        policy.emplace(std::string(reinterpret_cast<const char*>(data), name_len),
                       kinds[(spec & 0x0fu) % kind_count]);
        data += name_len;
    }
    const auto body = static_cast<std::size_t>(end - data);
    if (!orvix_testing::message_blob::fits(body)) {
        return -1;
    }
    orvix_testing::message_blob msg(data, body);
    try {
        orvix::blob::utils::to_table(msg.head(), policy);
    } catch (const std::runtime_error&) {
    } catch (const std::logic_error&) {
    }
    return 0;
}
