#include <orvix/version.h>

#include <gtest/gtest.h>

TEST(version, text_agrees_with_numbers) {
    const auto v = orvix::version::get();
    EXPECT_EQ(v.patch, 1u);
    EXPECT_EQ(v.minor, 0u);
    EXPECT_EQ(v.major, 0u);
    EXPECT_EQ(orvix::version::get_string(), "0.0.1");
    EXPECT_EQ(orvix::version::get_string(), std::to_string(v.major) + "." +
                                                std::to_string(v.minor) + "." +
                                                std::to_string(v.patch));
}
