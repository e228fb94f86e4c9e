// A private orvix-ubusd per test, spoken to in raw bytes.
#pragma once

// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg.h>
#include <ubusmsg.h>
}

#include <orvix_testing/test_daemon.h>
#include <orvix_testing/wire.h>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <string>
#include <vector>

using namespace orvix_testing;
using Paths = std::vector<std::string>;

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(test_daemon_start(&daemon_, ORVIX_TEST_UBUSD), 0) << ORVIX_TEST_UBUSD;
    }
    void TearDown() override { test_daemon_cleanup(&daemon_); }
    std::string socket() const { return daemon_.socket; }

    struct test_daemon daemon_ {};
};

// A SIGNATURE with one method per name, each without arguments.
inline bytes signature(const std::vector<std::string>& methods) {
    bytes entries;
    for (const std::string& m : methods)
        entries = entries + table(m, {});
    return attr(UBUS_ATTR_SIGNATURE, entries);
}

// The "demo" signature of the reference captures: hello{id: INT32, msg: STRING}, status{}.
inline bytes demo_signature() {
    return attr(UBUS_ATTR_SIGNATURE, table("hello", field_u32("id", BLOBMSG_TYPE_INT32) +
                                                        field_u32("msg", BLOBMSG_TYPE_STRING)) +
                                         table("status", {}));
}

// The names the daemon reports for the test's account (numeric when there is no entry).
inline std::string user_name() {
    struct passwd* pw = getpwuid(geteuid());
    return pw ? pw->pw_name : std::to_string(geteuid());
}
inline std::string group_name() {
    struct group* gr = getgrgid(getegid());
    return gr ? gr->gr_name : std::to_string(getegid());
}
