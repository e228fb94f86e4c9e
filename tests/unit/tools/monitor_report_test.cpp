#include <orvix_testing/blob.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "json_input.h"
#include "json_output.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <ubusmsg.h>
}

namespace {

using orvix::tool::add_json_members;
using orvix::tool::format_monitor_report;
using orvix::tool::monitor_type_from_name;
using orvix_testing::from_hex;
using orvix_testing::message_blob;

// One attribute of the observed message.
struct field {
    enum kind { u32, u8, text, json, hex };
    int id;
    kind as;
    std::int64_t number;
    const char* content;
};

field u32(int id, std::int64_t v) {
    return {id, field::u32, v, nullptr};
}
field u8(int id, int v) {
    return {id, field::u8, v, nullptr};
}
field text(int id, const char* s) {
    return {id, field::text, 0, s};
}
field json(int id, const char* s) {
    return {id, field::json, 0, s};
}
// Raw payload bytes.
field hex(int id, const char* s) {
    return {id, field::hex, 0, s};
}

struct report {
    int send;
    std::uint32_t client;
    std::uint32_t peer;
    std::uint32_t type;
    std::vector<field> fields;
};

// The MONITOR message the daemon sends for `r`, in the daemon's attribute order.
std::string printed(const report& r) {
    blob_buf b{};
    blob_buf_init(&b, 0);
    blob_put_u32(&b, UBUS_MONITOR_CLIENT, r.client);
    blob_put_u32(&b, UBUS_MONITOR_PEER, r.peer);
    blob_put_u32(&b, UBUS_MONITOR_SEQ, 1);
    blob_put_u32(&b, UBUS_MONITOR_TYPE, r.type);
    blob_put_u8(&b, UBUS_MONITOR_SEND, static_cast<std::uint8_t>(r.send));
    void* data = blob_nest_start(&b, UBUS_MONITOR_DATA);
    for (const auto& f : r.fields) {
        switch (f.as) {
        case field::u32:
            blob_put_u32(&b, f.id, static_cast<std::uint32_t>(f.number));
            break;
        case field::u8:
            blob_put_u8(&b, f.id, static_cast<std::uint8_t>(f.number));
            break;
        case field::text:
            blob_put_string(&b, f.id, f.content);
            break;
        case field::json: {
            void* nested = blob_nest_start(&b, f.id);
            EXPECT_TRUE(add_json_members(&b, f.content)) << f.content;
            blob_nest_end(&b, nested);
            break;
        }
        case field::hex: {
            const auto bytes = from_hex(f.content);
            blob_put(&b, f.id, bytes.data(), static_cast<unsigned>(bytes.size()));
            break;
        }
        }
    }
    blob_nest_end(&b, data);
    std::string line = format_monitor_report(b.head);
    blob_buf_free(&b);
    return line;
}

TEST(monitor_report, prints_the_lines_the_device_tool_prints) {
    constexpr int rx = 0;
    constexpr int tx = 1;
    const std::int64_t echo_id = -397151820;
    const std::int64_t sub_id = -1675983632;
    const std::int64_t notifier = 1273965999;
    const std::int64_t listener = -417045307;
    const struct {
        report r;
        const char* line;
    } cases[] = {
        {{tx, 0x9fb030f9, 3, UBUS_MSG_STATUS, {u32(UBUS_ATTR_STATUS, 0)}},
         R"(-> 9fb030f9 #00000003         status: {"status":0})"},
        {{tx, 0x8bfa873f, 0x8bfa873f, UBUS_MSG_HELLO, {}},
         R"(-> 8bfa873f #8bfa873f          hello: {})"},
        {{rx, 0x8bfa873f, 0, UBUS_MSG_LOOKUP, {text(UBUS_ATTR_OBJPATH, "test")}},
         R"(<- 8bfa873f #00000000         lookup: {"objpath":"test"})"},
        {{tx,
          0x8bfa873f,
          0,
          UBUS_MSG_DATA,
          {json(UBUS_ATTR_SIGNATURE, R"({"echo":{"id":5,"msg":3},"empty":{}})"),
           u32(UBUS_ATTR_OBJTYPE, 1787023774), text(UBUS_ATTR_OBJPATH, "test"),
           u32(UBUS_ATTR_OBJID, echo_id)}},
         R"(-> 8bfa873f #00000000           data: {"objpath":"test","objid":-397151820,)"
         R"("objtype":1787023774,"signature":{"echo":{"id":5,"msg":3},"empty":{}}})"},
        {{rx,
          0x8bfa873f,
          0xe853f1b4,
          UBUS_MSG_INVOKE,
          {u32(UBUS_ATTR_OBJID, echo_id), text(UBUS_ATTR_METHOD, "echo"),
           json(UBUS_ATTR_DATA, R"({"id":1,"msg":"hi"})")}},
         R"(<- 8bfa873f #e853f1b4         invoke: {"objid":-397151820,"method":"echo",)"
         R"("data":{"id":1,"msg":"hi"}})"},
        {{tx,
          0xa7fdc6ce,
          0x8bfa873f,
          UBUS_MSG_INVOKE,
          {text(UBUS_ATTR_USER, "root"), text(UBUS_ATTR_GROUP, "root"),
           u32(UBUS_ATTR_OBJID, echo_id), text(UBUS_ATTR_METHOD, "echo"),
           json(UBUS_ATTR_DATA, R"({"id":1,"msg":"hi"})")}},
         R"(-> a7fdc6ce #8bfa873f         invoke: {"objid":-397151820,"method":"echo",)"
         R"("data":{"id":1,"msg":"hi"},"user":"root","group":"root"})"},
        {{rx,
          0xa7fdc6ce,
          0x8bfa873f,
          UBUS_MSG_DATA,
          {u32(UBUS_ATTR_OBJID, echo_id), json(UBUS_ATTR_DATA, R"({"id":1,"msg":"hi"})")}},
         R"(<- a7fdc6ce #8bfa873f           data: {"objid":-397151820,"data":{"id":1,"msg":"hi"}})"},
        {{rx,
          0xa7fdc6ce,
          0x8bfa873f,
          UBUS_MSG_STATUS,
          {u32(UBUS_ATTR_STATUS, 0), u32(UBUS_ATTR_OBJID, echo_id)}},
         R"(<- a7fdc6ce #8bfa873f         status: {"status":0,"objid":-397151820})"},
        {{rx,
          0x88656344,
          0,
          UBUS_MSG_SUBSCRIBE,
          {u32(UBUS_ATTR_OBJID, sub_id), u32(UBUS_ATTR_TARGET, notifier)}},
         R"(<- 88656344 #00000000      subscribe: {"objid":-1675983632})"},
        {{tx,
          0x3f4bdc6e,
          0,
          UBUS_MSG_NOTIFY,
          {u32(UBUS_ATTR_OBJID, notifier), u8(UBUS_ATTR_ACTIVE, 1)}},
         R"(-> 3f4bdc6e #00000000         notify: {"objid":1273965999,"active":true})"},
        {{rx,
          0x3f4bdc6e,
          0x4bef2daf,
          UBUS_MSG_NOTIFY,
          {u32(UBUS_ATTR_OBJID, notifier), text(UBUS_ATTR_METHOD, "my.type"),
           json(UBUS_ATTR_DATA, R"({"hello":"world","n":42})")}},
         R"(<- 3f4bdc6e #4bef2daf         notify: {"objid":1273965999,"method":"my.type",)"
         R"("data":{"hello":"world","n":42}})"},
        // NOTIFY's own STATUS lists the subscribers, which are never shown.
        {{tx,
          0x3f4bdc6e,
          0x4bef2daf,
          UBUS_MSG_STATUS,
          {u32(UBUS_ATTR_OBJID, notifier), hex(UBUS_ATTR_SUBSCRIBERS, "00 00 00 08 9c 1a 84 f0"),
           u32(UBUS_ATTR_STATUS, 0)}},
         R"(-> 3f4bdc6e #4bef2daf         status: {"status":0,"objid":1273965999})"},
        {{rx,
          0xa853d7d9,
          1,
          UBUS_MSG_INVOKE,
          {u32(UBUS_ATTR_OBJID, 1), text(UBUS_ATTR_METHOD, "send"),
           json(UBUS_ATTR_DATA, R"({"id":"foo.bar","data":{"x":[1,"a",true,null,1.5]}})")}},
         R"(<- a853d7d9 #00000001         invoke: {"objid":1,"method":"send",)"
         R"("data":{"id":"foo.bar","data":{"x":[1,"a",true,null,1.500000]}}})"},
        {{tx,
          0xd9a5e2a8,
          0,
          UBUS_MSG_INVOKE,
          {u32(UBUS_ATTR_OBJID, listener), text(UBUS_ATTR_METHOD, "foo.bar"),
           json(UBUS_ATTR_DATA, R"({"x":[1,"a",true,null,1.5]})")}},
         R"(-> d9a5e2a8 #00000000         invoke: {"objid":-417045307,"method":"foo.bar",)"
         R"("data":{"x":[1,"a",true,null,1.500000]}})"},
        {{tx, 0x88656344, 0, UBUS_MSG_UNSUBSCRIBE, {u32(UBUS_ATTR_OBJID, sub_id)}},
         R"(-> 88656344 #00000000    unsubscribe: {"objid":-1675983632})"},
        {{tx,
          0x3f4bdc6e,
          0,
          UBUS_MSG_NOTIFY,
          {u32(UBUS_ATTR_OBJID, notifier), u8(UBUS_ATTR_ACTIVE, 0)}},
         R"(-> 3f4bdc6e #00000000         notify: {"objid":1273965999,"active":false})"},
        // The monitor's own `remove`, whose DATA copies its OBJID and METHOD attributes.
        {{rx,
          0x9fb030f9,
          3,
          UBUS_MSG_INVOKE,
          {u32(UBUS_ATTR_OBJID, 3), text(UBUS_ATTR_METHOD, "remove"),
           hex(UBUS_ATTR_DATA, "03 00 00 08 00 00 00 03 | 04 00 00 0b 72 65 6d 6f 76 65 00 00")}},
         R"(<- 9fb030f9 #00000003         invoke: {"objid":3,"method":"remove","data":{,}})"},
        {{rx, 0x00b49f7c, 0x55, 20, {text(UBUS_ATTR_OBJPATH, "zz")}},
         R"(<- 00b49f7c #00000055             20: {"objpath":"zz"})"},
        {{rx, 0x00b49f7c, 0, UBUS_MSG_MONITOR, {}}, R"(<- 00b49f7c #00000000             11: {})"},
        {{tx, 1, 2, UBUS_MSG_PING, {}}, R"(-> 00000001 #00000002           ping: {})"},
        {{tx, 1, 2, UBUS_MSG_ADD_OBJECT, {}}, R"(-> 00000001 #00000002     add_object: {})"},
        {{tx, 1, 2, UBUS_MSG_REMOVE_OBJECT, {}}, R"(-> 00000001 #00000002  remove_object: {})"},
        // Anything but 0 is a message sent by the daemon.
        {{2, 1, 2, UBUS_MSG_PING, {}}, R"(-> 00000001 #00000002           ping: {})"},
        // Every attribute the tool shows, in id order whatever the wire order; one of the
        // wrong size is left out, and the last of an id wins.
        {{rx,
          1,
          2,
          UBUS_MSG_INVOKE,
          {text(UBUS_ATTR_GROUP, "g"), text(UBUS_ATTR_USER, "u\"\t"), u8(UBUS_ATTR_NO_REPLY, 1),
           u8(UBUS_ATTR_ACTIVE, 255), u32(UBUS_ATTR_TARGET, 9), json(UBUS_ATTR_DATA, "{}"),
           json(UBUS_ATTR_SIGNATURE, R"({"m":{}})"), u32(UBUS_ATTR_OBJTYPE, 0xffffffff),
           text(UBUS_ATTR_METHOD, "m"), u32(UBUS_ATTR_OBJID, 7), text(UBUS_ATTR_OBJPATH, "p"),
           u32(UBUS_ATTR_STATUS, 2), u32(UBUS_ATTR_STATUS, 3)}},
         R"(<- 00000001 #00000002         invoke: {"status":3,"objpath":"p","objid":7,)"
         R"("method":"m","objtype":-1,"signature":{"m":{}},"data":{},"active":true,)"
         R"("no_reply":true,"user":"u\"\t","group":"g"})"},
        {{rx,
          1,
          2,
          UBUS_MSG_INVOKE,
          {u8(UBUS_ATTR_STATUS, 0), hex(UBUS_ATTR_OBJPATH, "70"), text(UBUS_ATTR_OBJID, "abcdef"),
           hex(UBUS_ATTR_METHOD, ""), u32(UBUS_ATTR_ACTIVE, 1), u32(UBUS_ATTR_NO_REPLY, 1),
           u32(UBUS_ATTR_OBJTYPE, 5), u8(UBUS_ATTR_OBJTYPE, 6), text(UBUS_ATTR_USER, "u"),
           hex(UBUS_ATTR_MAX, "00")}},
         R"(<- 00000001 #00000002         invoke: {"objtype":5,"user":"u"})"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(printed(c.r), c.line);
}

TEST(monitor_report, reads_the_message_the_daemon_sends) {
    // The report of a PING from de677c87 (seq 9, peer 0x77) holding OBJPATH "p".
    message_blob ping("00 00 00 08 de 67 7c 87 | 01 00 00 08 00 00 00 77 | 03 00 00 08 00 00 00 09"
                      "| 04 00 00 08 00 00 00 03 | 02 00 00 05 00 00 00 00"
                      "| 05 00 00 0c 02 00 00 06 70 00 00 00");
    EXPECT_EQ(format_monitor_report(ping.head()),
              R"(<- de677c87 #00000077           ping: {"objpath":"p"})");

    // The monitor's own `add`, whose DATA copies its OBJID and METHOD attributes.
    message_blob add("00 00 00 08 9f b0 30 f9 | 01 00 00 08 00 00 00 03 | 03 00 00 08 00 00 00 01"
                     "| 04 00 00 08 00 00 00 05 | 02 00 00 05 00 00 00 00"
                     "| 05 00 00 28 03 00 00 08 00 00 00 03 | 04 00 00 08 61 64 64 00"
                     "| 07 00 00 14 03 00 00 08 00 00 00 03 04 00 00 08 61 64 64 00");
    EXPECT_EQ(format_monitor_report(add.head()),
              R"(<- 9fb030f9 #00000003         invoke: {"objid":3,"method":"add","data":{,}})");

    // A message attribute has no name header even with the extended flag set.
    message_blob flagged(
        "00 00 00 08 00 00 00 01 | 01 00 00 08 00 00 00 02 | 02 00 00 05 00 00 00 00"
        "| 04 00 00 08 00 00 00 05 | 05 00 00 14 87 00 00 10"
        "| 85 00 00 0c 00 01 61 00 00 00 00 01");
    EXPECT_EQ(format_monitor_report(flagged.head()),
              R"(<- 00000001 #00000002         invoke: {"data":{"a":1}})");
}

TEST(monitor_report, needs_client_peer_send_type_and_data) {
    const char* const client = "00 00 00 08 00 00 00 01";
    const char* const peer = "01 00 00 08 00 00 00 02";
    const char* const send = "02 00 00 05 01 00 00 00";
    const char* const type = "04 00 00 08 00 00 00 03";
    const char* const data = "05 00 00 04";
    const char* const valid = "-> 00000001 #00000002           ping: {}";
    const char* const invalid = "Invalid monitor msg";
    const struct {
        std::vector<const char*> attrs;
        const char* line;
    } cases[] = {
        {{client, peer, send, type, data}, valid},
        {{data, type, send, peer, client}, valid},
        {{peer, send, type, data}, invalid},
        {{client, send, type, data}, invalid},
        {{client, peer, type, data}, invalid},
        {{client, peer, send, data}, invalid},
        {{client, peer, send, type}, invalid},
        {{}, invalid},
        // Of the wrong size, an attribute counts as missing and leaves an earlier one be.
        {{"00 00 00 05 01 00 00 00", peer, send, type, data}, invalid},
        {{client, peer, "02 00 00 08 00 00 00 01", type, data}, invalid},
        {{client, peer, send, "04 00 00 06 00 03 00 00", data}, invalid},
        {{client, peer, send, type, "04 00 00 05 02 00 00 00", data}, valid},
        {{client, peer, send, "04 00 00 08 00 00 00 04", type, data}, valid},
        // A cut attribute ends the message.
        {{client, peer, send, type, "05 00 00 40"}, invalid},
    };
    for (const auto& c : cases) {
        std::string body;
        for (const char* attr : c.attrs)
            body += std::string(attr) + " ";
        message_blob message(body);
        EXPECT_EQ(format_monitor_report(message.head()), c.line) << body;
    }
}

TEST(monitor_report, knows_the_type_names_of_the_m_option) {
    const char* const names[] = {"hello",     "status",      "data",       "ping",
                                 "lookup",    "invoke",      "add_object", "remove_object",
                                 "subscribe", "unsubscribe", "notify"};
    for (int type = 0; type < 11; ++type)
        EXPECT_EQ(monitor_type_from_name(names[type]), type) << names[type];
    for (const char* other : {"monitor", "", "Invoke", "20", "5", "invoke "})
        EXPECT_EQ(monitor_type_from_name(other), -1) << other;
}

} // namespace
