#include <orvix/misc/link.h>

namespace orvix {
namespace misc {

namespace {

class link_impl : public utils::link::impl {
public:
    link_impl(const std::shared_ptr<void>& owner, const std::function<void()>& on_release)
        : owner(owner), on_release(on_release) {}

    // The owner is not checked here: utils::link::release only calls this
    // while the owner lives.
    void release() override { on_release(); }

    bool active() const override { return !owner.expired(); }

private:
    std::weak_ptr<void> owner;
    std::function<void()> on_release;
};

} // namespace

utils::link create_link(const std::shared_ptr<void>& owner,
                        const std::function<void()>& on_release) {
    return utils::link(std::make_shared<link_impl>(owner, on_release));
}

} // namespace misc
} // namespace orvix
