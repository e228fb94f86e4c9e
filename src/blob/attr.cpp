#include <orvix/blob/attr.h>

#include <stdexcept>

namespace orvix {
namespace blob {

namespace {

// Some type names begin with '*' to mark them as local to a translation unit.
std::string type_name(const std::type_info& type) {
    const char* name = type.name();
    return name[0] == '*' ? name + 1 : name;
}

} // namespace

attr::attr(const attr& other) : accessor(other.accessor), type_getter(other.type_getter) {}

attr::attr(attr& other) : attr(static_cast<const attr&>(other)) {}

attr::attr(attr&& other) noexcept
    : accessor(std::move(other.accessor)), type_getter(other.type_getter) {
    other.accessor = nullptr;
    other.type_getter = nullptr;
}

attr& attr::operator=(const attr& other) {
    // Copy first: `other` may live inside the value being replaced.
    std::function<void*()> fresh(other.accessor);
    const auto getter = other.type_getter;
    accessor.swap(fresh);
    type_getter = getter;
    return *this;
}

attr& attr::operator=(attr&& other) noexcept {
    if (this != &other) {
        std::function<void*()> fresh(std::move(other.accessor));
        const auto getter = other.type_getter;
        other.accessor = nullptr;
        other.type_getter = nullptr;
        accessor.swap(fresh);
        type_getter = getter;
    }
    return *this;
}

std::type_index attr::type() const {
    return accessor ? std::type_index(type_getter()) : std::type_index(typeid(void));
}

bool attr::has_value() const {
    return static_cast<bool>(accessor);
}

void attr::reset() {
    if (accessor) {
        accessor = nullptr;
        type_getter = nullptr;
    }
}

void attr::swap(attr& other) {
    accessor.swap(other.accessor);
    std::swap(type_getter, other.type_getter);
}

void* attr::value_of(const std::type_info& wanted) const {
    const std::type_info& stored = accessor ? type_getter() : typeid(void);
    if (stored != wanted) {
        throw std::runtime_error("orvix::blob::attr::get can't cast from " + type_name(stored) +
                                 " to " + type_name(wanted));
    }
    return accessor();
}

} // namespace blob
} // namespace orvix
