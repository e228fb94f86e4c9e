#include <orvix/misc/link.h>
#include <orvix/misc/tracker.h>
#include <orvix/utils/link.h>
#include <orvix/utils/scoped_link.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

using orvix::misc::create_link;
using orvix::utils::link;
using orvix::utils::scoped_link;

// An emitter's record of one registration, ended by dropping `owner`.
struct registration {
    std::shared_ptr<void> owner = std::make_shared<int>(0);
    int releases = 0;

    link make_link() {
        return create_link(owner, [this] {
            ++releases;
            owner.reset();
        });
    }
};

TEST(link, release_ends_the_registration_once) {
    link empty;
    EXPECT_FALSE(empty);
    EXPECT_NO_THROW(empty.release());

    registration reg;
    link l = reg.make_link();
    const link copy = l;
    EXPECT_TRUE(l.active());
    l.release();
    l.release();
    EXPECT_EQ(reg.releases, 1);
    EXPECT_FALSE(copy.active());
}

TEST(link, dropping_or_moving_a_link_releases_nothing) {
    registration reg;
    link l = reg.make_link();
    { const link dropped = l; }
    const link taken(std::move(l));
    EXPECT_FALSE(l.active());
    l.release();
    EXPECT_EQ(reg.releases, 0);
    EXPECT_TRUE(taken.active());

    link moved;
    moved.assign(taken);
    moved.assign(std::move(moved));
    EXPECT_TRUE(moved.active());
}

TEST(link, dead_owner_is_inactive_and_not_released) {
    registration reg;
    link l = reg.make_link();
    reg.owner.reset();
    EXPECT_FALSE(l.active());
    l.release();
    EXPECT_EQ(reg.releases, 0);
}

TEST(link, broken_release_actions_throw) {
    const auto owner = std::make_shared<int>(0);
    link no_action = create_link(owner, {});
    EXPECT_THROW(no_action.release(), std::bad_function_call);

    int calls = 0;
    link keeps_owner = create_link(owner, [&calls] { ++calls; });
    try {
        keeps_owner.release();
        FAIL() << "release did not throw";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "orvix failed to release link");
    }
    EXPECT_EQ(calls, 1);
}

TEST(link, aggregate_adapter_shares_the_registration) {
    registration reg;
    const link l = reg.make_link();
    orvix::misc::aggregate_adapter<link> adapted(l);
    adapted.release();
    EXPECT_FALSE(l.active());
}

TEST(scoped_link, destruction_releases_and_source_link_sees_it) {
    registration reg;
    link l = reg.make_link();
    {
        scoped_link scoped(std::move(l));
        EXPECT_TRUE(l.active());
    }
    EXPECT_EQ(reg.releases, 1);
    EXPECT_FALSE(l.active());
}

TEST(scoped_link, moves_transfer_the_registration) {
    registration reg;
    {
        scoped_link target;
        {
            scoped_link source(reg.make_link());
            scoped_link moved(std::move(source));
            target = std::move(moved);
            scoped_link& alias = target;
            target = std::move(alias);
        }
        EXPECT_EQ(reg.releases, 0);
        EXPECT_TRUE(target.active());
    }
    EXPECT_EQ(reg.releases, 1);
}

TEST(scoped_link, assignment_releases_the_previous_registration_first) {
    registration first, second, third;
    scoped_link scoped(first.make_link());
    const link other = second.make_link();
    scoped = other;
    EXPECT_EQ(first.releases, 1);
    EXPECT_TRUE(scoped.active());
    scoped = third.make_link();
    EXPECT_EQ(second.releases, 1);
    scoped = scoped_link();
    EXPECT_EQ(third.releases, 1);
}

TEST(shared_ptr_tracker, expires_when_any_object_dies_and_stays_expired) {
    orvix::misc::shared_ptr_tracker tracker;
    EXPECT_TRUE(tracker);

    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<double>(2.0);
    tracker.add(first, std::weak_ptr<double>(second));
    EXPECT_FALSE(tracker.expired());
    second.reset();
    EXPECT_TRUE(tracker.expired());
    EXPECT_FALSE(tracker);

    orvix::misc::shared_ptr_tracker of_null;
    of_null.add(std::shared_ptr<int>());
    EXPECT_TRUE(of_null.expired());
}

} // namespace
