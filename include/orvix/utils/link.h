#pragma once

#include <memory>

namespace orvix {
namespace utils {

/// The caller's handle on a registration kept by an emitter. It observes the
/// registration weakly and can end it; dropping a link ends nothing.
class link {
public:
    /// What the emitter provides to observe and end one registration.
    class impl {
    public:
        virtual ~impl() = default;
        virtual void release() = 0;
        virtual bool active() const = 0;
    };

    link() = default;
    link(const std::shared_ptr<impl>& ptr);
    link(const link&) = default;
    link(link&&) = default;
    link& operator=(const link&) = default;
    link& operator=(link&&) = default;
    virtual ~link();

    void assign(const link& other);
    /// Takes over the other link's registration; the other becomes empty.
    void assign(link&& other);

    bool active() const;
    explicit operator bool() const { return active(); }

    /// Ends the registration. Releasing an ended or empty link does nothing;
    /// an emitter that keeps the registration alive makes this throw
    /// std::logic_error.
    void release();

private:
    std::shared_ptr<impl> pimpl;
};

} // namespace utils
} // namespace orvix
