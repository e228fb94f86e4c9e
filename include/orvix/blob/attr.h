#pragma once

#include <functional>
#include <list>
#include <map>
#include <string>
#include <type_traits>
#include <typeindex>
#include <typeinfo>
#include <utility>
#include <vector>

namespace orvix {
namespace blob {

class attr;

/// A message body: named values, equal names allowed.
using table = std::multimap<std::string, attr>;
using array = std::list<attr>;

/// One value of a message, of one of ten kinds: unsigned char, unsigned short,
/// unsigned int, unsigned long long, bool, double, std::string,
/// std::vector<unsigned char>, array and table. Signed integers are stored as
/// the unsigned integer of the same width. A value is read back only as the
/// kind it was stored as; nothing is converted.
class attr {
    // The kind each accepted type is stored as; absent for any other type.
    template <typename T, typename = void>
    struct storage {};
    template <typename D>
    struct storage<signed char, D> {
        using type = unsigned char;
    };
    template <typename D>
    struct storage<unsigned char, D> {
        using type = unsigned char;
    };
    template <typename D>
    struct storage<short, D> {
        using type = unsigned short;
    };
    template <typename D>
    struct storage<unsigned short, D> {
        using type = unsigned short;
    };
    template <typename D>
    struct storage<int, D> {
        using type = unsigned int;
    };
    template <typename D>
    struct storage<unsigned int, D> {
        using type = unsigned int;
    };
    template <typename D>
    struct storage<long long, D> {
        using type = unsigned long long;
    };
    template <typename D>
    struct storage<unsigned long long, D> {
        using type = unsigned long long;
    };
    template <typename D>
    struct storage<bool, D> {
        using type = bool;
    };
    template <typename D>
    struct storage<double, D> {
        using type = double;
    };
    template <typename D>
    struct storage<std::string, D> {
        using type = std::string;
    };
    template <typename D>
    struct storage<std::vector<unsigned char>, D> {
        using type = std::vector<unsigned char>;
    };
    template <typename D>
    struct storage<array, D> {
        using type = array;
    };
    template <typename D>
    struct storage<table, D> {
        using type = table;
    };

    template <typename T>
    using storage_t = typename storage<std::remove_cv_t<std::remove_reference_t<T>>>::type;

    template <typename T, typename = void>
    struct is_storable : std::false_type {};
    template <typename T>
    struct is_storable<T, std::void_t<storage_t<T>>> : std::true_type {};

    template <typename T>
    static constexpr bool is_c_string = std::is_same<std::decay_t<T>, const char*>::value ||
                                        std::is_same<std::decay_t<T>, char*>::value;

    template <typename T>
    static constexpr bool is_signed_kind =
        std::conjunction_v<is_storable<T>, std::is_integral<T>, std::is_signed<T>>;

public:
    attr() = default;
    attr(const attr& other);
    /// Makes copying a non-const attr pick the copy, not the forwarding constructor.
    attr(attr& other);
    attr(attr&& other) noexcept;
    ~attr() = default;

    template <typename T, typename = std::enable_if_t<is_storable<T>::value || is_c_string<T>>>
    attr(T&& value) {
        set(std::forward<T>(value));
    }

    attr& operator=(const attr& other);
    attr& operator=(attr&& other) noexcept;

    /// typeid(void) when empty, else the kind of the stored value.
    std::type_index type() const;
    bool has_value() const;
    void reset();
    void swap(attr& other);

    template <typename T, typename = std::enable_if_t<is_storable<T>::value>>
    void set(T&& value) {
        store<storage_t<T>>(std::forward<T>(value));
    }

    template <typename T, typename = std::enable_if_t<is_storable<T>::value>>
    void set(const T& value) {
        store<storage_t<T>>(value);
    }

    template <typename T, typename = std::enable_if_t<std::is_same<T, char>::value>>
    void set(const T* value) {
        set(std::string(value));
    }

    /// The stored value; std::runtime_error if the attr holds another kind or
    /// none. Signed integers read the unsigned storage of the same width.
    template <typename T, typename = std::enable_if_t<is_storable<T>::value &&
                                                      std::is_same<T, std::decay_t<T>>::value>>
    const T& get() const {
        return *static_cast<const T*>(value_of(typeid(storage_t<T>)));
    }

    /// Signed integers can also be written through the returned reference.
    template <typename T, typename = std::enable_if_t<is_signed_kind<T>>>
    T& get() {
        return *static_cast<T*>(value_of(typeid(storage_t<T>)));
    }

private:
    template <typename S>
    static const std::type_info& type_of() {
        return typeid(S);
    }

    template <typename S, typename V>
    void store(V&& value) {
        // The new closure exists before the old one goes, so a failure leaves
        // the previous value in place.
        std::function<void*()> fresh(
            [stored = S(std::forward<V>(value))]() mutable -> void* { return &stored; });
        accessor.swap(fresh);
        type_getter = &type_of<S>;
    }

    /// Address of the stored value if it is of kind `wanted`, else throws.
    void* value_of(const std::type_info& wanted) const;

    std::function<void*()> accessor;
    const std::type_info& (*type_getter)() = nullptr;
};

} // namespace blob
} // namespace orvix
