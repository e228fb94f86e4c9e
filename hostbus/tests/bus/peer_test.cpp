// The device-style peer against orvix-ubusd: every printed outcome is what the device's
// libubus and ubusd give for the same program.
#include <gtest/gtest.h>

#include <orvix_testing/process.h>
#include <orvix_testing/test_daemon.h>

namespace {

// Statuses per the device: NULL pattern 2, "" 6, ubus.* sends 6, unknown or system targets 4,
// a second unsubscribe 4. Handlers of one event in stripped-pattern order, none for the
// sender's own handler; the subscriber's DATA and STATUS 5 reach the notifier's callbacks
// before completion (0, 0); ACTIVE 0 for a removed object arrives too late to be seen, and
// the subscriber hears of the removal before the remove event.
const char* const expected = R"(add svc 0
register NULL 2
register "" 6
register * 0
register test.ev 0
register test.* 0
register own 0
sub: new object test.svc
register_subscriber 0
own: active 1
lookup: test.svc svc type same sig id 6 ping(n:5)
lookup test.* 0
lookup nope 4
lookup "" 2
lookup_id 0 svc
send test.ev 0
send ubus.x 6
sub *: event test.ev len 12 n=1
sub test.*: event test.ev len 12 n=1
sub test.ev: event test.ev len 12 n=1
notify_async 0
sub: notify n1 len 12 k=1
own: data_cb type 2 len 16 reply=n1
own: status_cb idx 1 ret 5
own: complete_cb idx 0 ret 0 code 0
notify no reply 0
sub: notify n2 len 0
unsubscribe 0
unsubscribe again 4
subscribe unknown 4
subscribe system 4
own: active 0
subscribe 0
own: active 1
remove svc 0
has_subscribers 1
sub: remove_cb svc
sub *: event ubus.object.remove len 40 id=svc path=test.svc
)";

TEST(BusPeer, EventsSubscriptionsNotificationsLookups) {
    struct test_daemon daemon {};
    ASSERT_EQ(test_daemon_start(&daemon, ORVIX_TEST_UBUSD), 0);
    orvix_testing::process peer({HOSTBUS_BUS_PEER, daemon.socket});
    peer.read_until("", 10000);
    EXPECT_EQ(peer.wait(), 0);
    test_daemon_cleanup(&daemon);
    EXPECT_EQ(peer.output(), expected);
}

} // namespace
