// Events and subscriptions through orvix-ubusd, byte for byte as the device's daemon
// exchanges them: registration and delivery, subscription, notification with its reply
// routing, and what an object's removal sends to whom, in order.
#include <gtest/gtest.h>

extern "C" {
#include <ubusmsg.h>
}

#include <orvix_testing/test_daemon.h>
#include <orvix_testing/wire.h>

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <vector>

namespace {

using namespace orvix_testing;

enum { L, S, O }; // event listener; subscriber and event sender; object owner

// Ids are bound as they first appear. "{inv}"/"{inv_nr}" are the lengths of the forwarded
// notifications, which hold the account names.
const std::vector<script_line> script = {
    // An anonymous handler object, then its pattern; "" is refused.
    {L, '>', "00 06 00 01 00 00 00 00 | 00 00 00 04"},
    {L, '<', "00 02 00 01 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {lobj}"},
    {L, '<', "00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {L, '>',
     "00 05 00 02 00 00 00 01 | 00 00 00 48 | 03 00 00 08 00 00 00 01"
     "04 00 00 0d 72 65 67 69 73 74 65 72 00 00 00 00 | 07 00 00 2c"
     "85 00 00 14 00 06 6f 62 6a 65 63 74 00 00 00 00 {lobj}"
     "83 00 00 14 00 07 70 61 74 74 65 72 6e 00 00 00 66 6f 6f 00"},
    {L, '<', "00 01 00 02 00 00 00 01 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {L, '>',
     "00 05 00 03 00 00 00 01 | 00 00 00 48 | 03 00 00 08 00 00 00 01"
     "04 00 00 0d 72 65 67 69 73 74 65 72 00 00 00 00 | 07 00 00 2c"
     "85 00 00 14 00 06 6f 62 6a 65 63 74 00 00 00 00 {lobj}"
     "83 00 00 11 00 07 70 61 74 74 65 72 6e 00 00 00 00 00 00 00"},
    {L, '<', "00 01 00 03 00 00 00 01 | 00 00 00 0c | 01 00 00 08 00 00 00 06"},
    // "foo" sent twice: the daemon-wide delivery counter numbers each copy.
    {S, '>',
     "00 05 00 01 00 00 00 01 | 00 00 00 58 | 03 00 00 08 00 00 00 01"
     "04 00 00 09 73 65 6e 64 00 00 00 00 | 07 00 00 40"
     "83 00 00 10 00 02 69 64 00 00 00 00 66 6f 6f 00 82 00 00 2c 00 04 64 61 74 61 00 00"
     "85 00 00 0c 00 01 6e 00 00 00 00 01 82 00 00 14 00 01 74 00"
     "83 00 00 0a 00 01 73 00 78 00 00 00"},
    {L, '<',
     "00 05 00 01 00 00 00 00 | 00 00 00 38 | 03 00 00 08 {lobj} | 04 00 00 08 66 6f 6f 00"
     "07 00 00 24 85 00 00 0c 00 01 6e 00 00 00 00 01 82 00 00 14 00 01 74 00"
     "83 00 00 0a 00 01 73 00 78 00 00 00"},
    {S, '<', "00 01 00 01 00 00 00 01 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {L, '>',
     "00 01 00 01 00 00 00 00 | 00 00 00 14 | 01 00 00 08 00 00 00 00 | 03 00 00 08 {lobj}"},
    {S, '>',
     "00 05 00 02 00 00 00 01 | 00 00 00 58 | 03 00 00 08 00 00 00 01"
     "04 00 00 09 73 65 6e 64 00 00 00 00 | 07 00 00 40"
     "83 00 00 10 00 02 69 64 00 00 00 00 66 6f 6f 00 82 00 00 2c 00 04 64 61 74 61 00 00"
     "85 00 00 0c 00 01 6e 00 00 00 00 01 82 00 00 14 00 01 74 00"
     "83 00 00 0a 00 01 73 00 78 00 00 00"},
    {L, '<',
     "00 05 00 02 00 00 00 00 | 00 00 00 38 | 03 00 00 08 {lobj} | 04 00 00 08 66 6f 6f 00"
     "07 00 00 24 85 00 00 0c 00 01 6e 00 00 00 00 01 82 00 00 14 00 01 74 00"
     "83 00 00 0a 00 01 73 00 78 00 00 00"},
    {S, '<', "00 01 00 02 00 00 00 01 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    // The subscriber's object; the owner listens to everything, then publishes "svc" and
    // hears of it before its own reply.
    {S, '>', "00 06 00 03 00 00 00 00 | 00 00 00 04"},
    {S, '<', "00 02 00 03 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {sobj}"},
    {S, '<', "00 01 00 03 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {O, '>', "00 06 00 01 00 00 00 00 | 00 00 00 04"},
    {O, '<', "00 02 00 01 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {oev}"},
    {O, '<', "00 01 00 01 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {O, '>',
     "00 05 00 02 00 00 00 01 | 00 00 00 48 | 03 00 00 08 00 00 00 01"
     "04 00 00 0d 72 65 67 69 73 74 65 72 00 00 00 00 | 07 00 00 2c"
     "85 00 00 14 00 06 6f 62 6a 65 63 74 00 00 00 00 {oev}"
     "83 00 00 12 00 07 70 61 74 74 65 72 6e 00 00 00 2a 00 00 00"},
    {O, '<', "00 01 00 02 00 00 00 01 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {O, '>', "00 06 00 03 00 00 00 00 | 00 00 00 10 | 02 00 00 08 73 76 63 00 | 06 00 00 04"},
    {O, '<',
     "00 05 00 03 00 00 00 00 | 00 00 00 44 | 03 00 00 08 {oev}"
     "04 00 00 14 75 62 75 73 2e 6f 62 6a 65 63 74 2e 61 64 64 00 | 07 00 00 24"
     "85 00 00 10 00 02 69 64 00 00 00 00 {obj} 83 00 00 10 00 04 70 61 74 68 00 00 73 76 63 00"},
    {O, '<', "00 02 00 03 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {obj} | 05 00 00 08 {otype}"},
    {O, '<', "00 01 00 03 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    // Subscribing twice: only the first one makes the object active. Unknown target: 4.
    {S, '>', "00 08 00 04 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {sobj} | 08 00 00 08 {obj}"},
    {O, '<', "00 0a 00 01 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {obj} | 09 00 00 05 01 00 00 00"},
    {S, '<', "00 01 00 04 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {S, '>', "00 08 00 05 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {sobj} | 08 00 00 08 {obj}"},
    {S, '<', "00 01 00 05 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
    {S, '>',
     "00 09 00 06 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {sobj} | 08 00 00 08 12 34 56 78"},
    {S, '<', "00 01 00 06 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 04"},
    // A notification: the list comes back first, then each subscription gets its copy,
    // and the answers reach the owner under the subscriber object's id.
    {O, '>',
     "00 0a 00 04 {obj} | 00 00 00 24 | 03 00 00 08 {obj} | 04 00 00 07 6e 31 00 00"
     "07 00 00 10 85 00 00 0c 00 01 6b 00 00 00 00 01"},
    {O, '<',
     "00 01 00 04 {obj} | 00 00 00 28 | 03 00 00 08 {obj}"
     "0b 00 00 14 00 00 00 08 {sobj} 00 00 00 08 {sobj} | 01 00 00 08 00 00 00 00"},
    {S, '<',
     "00 05 00 04 {ocl} | {inv} | 03 00 00 08 {sobj} | 04 00 00 07 6e 31 00 00 | {names}"
     "07 00 00 10 85 00 00 0c 00 01 6b 00 00 00 00 01"},
    {S, '<',
     "00 05 00 04 {ocl} | {inv} | 03 00 00 08 {sobj} | 04 00 00 07 6e 31 00 00 | {names}"
     "07 00 00 10 85 00 00 0c 00 01 6b 00 00 00 00 01"},
    {S, '>',
     "00 02 00 04 {ocl} | 00 00 00 20 | 03 00 00 08 {sobj}"
     "07 00 00 14 83 00 00 0f 00 05 72 65 70 6c 79 00 6e 31 00 00"},
    {O, '<',
     "00 02 00 04 {sobj} | 00 00 00 20 | 03 00 00 08 {sobj}"
     "07 00 00 14 83 00 00 0f 00 05 72 65 70 6c 79 00 6e 31 00 00"},
    {S, '>', "00 01 00 04 {ocl} | 00 00 00 14 | 01 00 00 08 00 00 00 05 | 03 00 00 08 {sobj}"},
    {O, '<', "00 01 00 04 {sobj} | 00 00 00 14 | 01 00 00 08 00 00 00 05 | 03 00 00 08 {sobj}"},
    // Without replies: no list for the owner, NO_REPLY leads the copies.
    {O, '>',
     "00 0a 00 05 {obj} | 00 00 00 20 | 03 00 00 08 {obj} | 04 00 00 08 65 76 32 00"
     "07 00 00 04 | 0a 00 00 05 01 00 00 00"},
    {S, '<',
     "00 05 00 05 {ocl} | {inv_nr} | 0a 00 00 05 01 00 00 00 | 03 00 00 08 {sobj}"
     "04 00 00 08 65 76 32 00 | {names} | 07 00 00 04"},
    {S, '<',
     "00 05 00 05 {ocl} | {inv_nr} | 0a 00 00 05 01 00 00 00 | 03 00 00 08 {sobj}"
     "04 00 00 08 65 76 32 00 | {names} | 07 00 00 04"},
    // Removal: DATA, UNSUBSCRIBE per subscription (numbered per subscriber object),
    // ACTIVE 0, the remove event, STATUS.
    {O, '>', "00 07 00 06 00 00 00 00 | 00 00 00 0c | 03 00 00 08 {obj}"},
    {O, '<', "00 02 00 06 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {obj} | 05 00 00 08 {otype}"},
    {S, '<', "00 09 00 01 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {sobj} | 08 00 00 08 {obj}"},
    {S, '<', "00 09 00 02 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {sobj} | 08 00 00 08 {obj}"},
    {O, '<', "00 0a 00 02 00 00 00 00 | 00 00 00 14 | 03 00 00 08 {obj} | 09 00 00 05 00 00 00 00"},
    {O, '<',
     "00 05 00 04 00 00 00 00 | 00 00 00 48 | 03 00 00 08 {oev}"
     "04 00 00 17 75 62 75 73 2e 6f 62 6a 65 63 74 2e 72 65 6d 6f 76 65 00 00 | 07 00 00 24"
     "85 00 00 10 00 02 69 64 00 00 00 00 {obj} 83 00 00 10 00 04 70 61 74 68 00 00 73 76 63 00"},
    {O, '<', "00 01 00 06 00 00 00 00 | 00 00 00 0c | 01 00 00 08 00 00 00 00"},
};

TEST(BusWire, EventsSubscriptionsNotificationsRemoval) {
    struct test_daemon daemon {};
    ASSERT_EQ(test_daemon_start(&daemon, ORVIX_TEST_UBUSD), 0);
    {
        bus_client clients[] = {bus_client(daemon.socket), bus_client(daemon.socket),
                                bus_client(daemon.socket)};
        struct passwd* pw = getpwuid(geteuid());
        struct group* gr = getgrgid(getegid());
        bytes names = attr_str(UBUS_ATTR_USER, pw ? pw->pw_name : std::to_string(geteuid())) +
                      attr_str(UBUS_ATTR_GROUP, gr ? gr->gr_name : std::to_string(getegid()));
        hex_vars vars = {{"ocl", be32(clients[O].id)},
                         {"names", names},
                         {"inv", be32(uint32_t(4 + 8 + 8 + names.size() + 16))},
                         {"inv_nr", be32(uint32_t(4 + 8 + 8 + 8 + names.size() + 4))}};

        EXPECT_EQ(play_script(script, {&clients[L], &clients[S], &clients[O]}, vars), "");
        for (auto& c : clients)
            EXPECT_FALSE(c.recv(100)) << "nothing else arrives";
    }
    test_daemon_cleanup(&daemon);
}

} // namespace
