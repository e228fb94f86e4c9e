// Objects as an owner: publishing, removing, serving calls, replies and passed descriptors.
#include "fake_daemon.h"

#include <signal.h>
#include <unistd.h>

namespace {

bytes owner_status(uint16_t seq, uint32_t peer, uint32_t status, uint32_t object) {
    return status_msg(seq, peer, status, objid(object));
}

// Publishing, serving a call and removing, byte for byte as the reference client did.
TEST_F(UbusTest, ObjectLifecycleMatchesTheCaptures) {
    add_demo_object();
    on_call = [&](ubus_context* c, ubus_request_data* req, const char* method, blob_attr* args) {
        EXPECT_STREQ(method, "hello");
        EXPECT_EQ(req->object, 0x8debad38u);
        EXPECT_EQ(req->peer, 0xd328f707u);
        EXPECT_EQ(req->seq, 2);
        EXPECT_STREQ(req->acl.user, "root");
        EXPECT_STREQ(req->acl.group, "root");
        EXPECT_STREQ(req->acl.object, "demo");
        EXPECT_EQ(req->fd, -1);
        EXPECT_EQ(req->req_fd, -1);
        blob_attr* tb[2];
        blobmsg_parse(demo_policy, 2, tb, blob_data(args), blob_len(args));
        EXPECT_EQ(tb[0] ? blobmsg_get_u32(tb[0]) : 0, 1u);
        EXPECT_STREQ(blobmsg_get_string(tb[1]), "hi");
        blob_buf b = {};
        blobmsg_buf_init(&b);
        blobmsg_add_string(&b, "reply", "hi");
        EXPECT_EQ(ubus_send_reply(c, req, b.head), 0);
        blob_buf_free(&b);
        return 0;
    };
    daemon.client.send(invoke_hello_to_owner);
    ubus_handle_event(ctx);
    EXPECT_EQ(daemon.next(), to_hex(from_hex("00 02 00 02 d3 28 f7 07") + reply_data_blob));
    EXPECT_EQ(daemon.next(), to_hex(from_hex("00 01 00 02 d3 28 f7 07") + reply_status_blob));

    ubus_object other = demo, anonymous = {};
    other.name = "demo2";
    daemon.client.send(msg(UBUS_MSG_DATA, 2, 0, objid(0x77)) + status_msg(2, 0, 0) +
                       status_msg(3, 0, UBUS_STATUS_INVALID_ARGUMENT) + status_msg(4, 0, 0) +
                       msg(UBUS_MSG_DATA, 5, 0, objid(0x99)) + status_msg(5, 0, 0));
    ASSERT_EQ(ubus_add_object(ctx, &other), 0);
    EXPECT_EQ(daemon.next(), to_hex(msg(UBUS_MSG_ADD_OBJECT, 2, 0,
                                        attr_str(UBUS_ATTR_OBJPATH, "demo2") +
                                            attr_u32(UBUS_ATTR_OBJTYPE, 0x15646072))))
        << "a known type is referred to by id";
    other.id = 0;
    EXPECT_EQ(ubus_add_object(ctx, &other), UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_EQ(other.id, 0u);
    EXPECT_EQ(ubus_add_object(ctx, &other), UBUS_STATUS_NO_DATA);
    EXPECT_EQ(ubus_add_object(ctx, &anonymous), 0);
    EXPECT_EQ(anonymous.id, 0x99u);
    daemon.next();
    daemon.next();
    EXPECT_EQ(daemon.next(), to_hex(msg(UBUS_MSG_ADD_OBJECT, 5, 0)));

    // The last object of its type gone, the daemon names the type and the id is forgotten.
    daemon.client.send(
        msg(UBUS_MSG_DATA, 6, 0, objid(0x8debad38) + attr_u32(UBUS_ATTR_OBJTYPE, 0x15646072)) +
        status_msg(6, 0, 0) + status_msg(7, 0, UBUS_STATUS_NOT_FOUND));
    EXPECT_EQ(ubus_remove_object(ctx, &demo), 0);
    EXPECT_EQ(daemon.next(), "00 07 00 06 00 00 00 00 00 00 00 0c 03 00 00 08 8d eb ad 38");
    EXPECT_EQ(demo.id, 0u);
    EXPECT_EQ(demo_type.id, 0u);
    EXPECT_EQ(ubus_remove_object(ctx, &demo), UBUS_STATUS_NOT_FOUND);
    daemon.next();
    // No longer served: refused with seq, peer and object 0.
    daemon.client.send(invoke_demo(8, "hello"));
    ubus_handle_event(ctx);
    EXPECT_EQ(to_hex(daemon.client.drain()), to_hex(owner_status(0, 0, UBUS_STATUS_NOT_FOUND, 0)));
}

TEST_F(UbusTest, SignatureHonoursTheMaskAndEmptyNames) {
    static const blobmsg_policy policy[] = {
        {"a", BLOBMSG_TYPE_INT32}, {nullptr, BLOBMSG_TYPE_STRING}, {"c", BLOBMSG_TYPE_BOOL}};
    static const ubus_method methods[] = {
        UBUS_METHOD_MASK("m", demo_dispatch, policy, 0x5),
        UBUS_METHOD("n", demo_dispatch, policy),
        UBUS_METHOD_NOARG(nullptr, demo_dispatch),
    };
    static ubus_object_type type = UBUS_OBJECT_TYPE("t", methods);
    ubus_object obj = {};
    obj.name = "x";
    obj.type = &type;
    daemon.client.send(status_msg(1, 0, UBUS_STATUS_INVALID_ARGUMENT));
    ubus_add_object(ctx, &obj);
    EXPECT_EQ(
        daemon.next(),
        to_hex(msg(UBUS_MSG_ADD_OBJECT, 1, 0,
                   attr_str(UBUS_ATTR_OBJPATH, "x") +
                       from_hex("06 00 00 58 | 82 00 00 20 00 01 6d 00"
                                "85 00 00 0c 00 01 61 00 00 00 00 05"
                                "85 00 00 0c 00 01 63 00 00 00 00 07 | 82 00 00 2c 00 01 6e 00"
                                "85 00 00 0c 00 01 61 00 00 00 00 05"
                                "85 00 00 0c 00 00 00 00 00 00 00 03"
                                "85 00 00 0c 00 01 63 00 00 00 00 07 | 82 00 00 08 00 00 00 00"))));
}

int wildcard(ubus_context*, ubus_object*, ubus_request_data* req, const char* method, blob_attr*) {
    on_call(nullptr, req, (std::string("* ") + method).c_str(), nullptr);
    return 0;
}

TEST_F(UbusTest, DispatchRefusesBadCallsAndFallsBackToTheNamelessMethod) {
    add_demo_object();
    int calls = 0;
    on_call = [&](ubus_context*, ubus_request_data*, const char*, blob_attr*) {
        calls++;
        return UBUS_STATUS_PERMISSION_DENIED;
    };
    const bytes method = attr_str(UBUS_ATTR_METHOD, "hello"), data = attr(UBUS_ATTR_DATA, {});
    const struct {
        bytes call, reply;
    } cases[] = {
        {msg(UBUS_MSG_INVOKE, 7, 0x55, objid(0x1234) + method + data),
         owner_status(0, 0, UBUS_STATUS_NOT_FOUND, 0)},
        {msg(UBUS_MSG_INVOKE, 7, 0x55, objid(0x8debad38) + data),
         owner_status(0, 0, UBUS_STATUS_INVALID_ARGUMENT, 0)},
        {invoke_demo(7, "nope"), owner_status(7, 0x55, UBUS_STATUS_METHOD_NOT_FOUND, 0x8debad38)},
        {msg(UBUS_MSG_INVOKE, 7, 0x55, objid(0x8debad38) + method),
         owner_status(7, 0x55, UBUS_STATUS_INVALID_ARGUMENT, 0x8debad38)},
        {msg(UBUS_MSG_INVOKE, 7, 0x55, attr(UBUS_ATTR_OBJID, {0x8d, 0xeb}) + method + data), {}},
        // A truncated DATA ends parsing: as if there were none.
        {msg(UBUS_MSG_INVOKE, 7, 0x55, objid(0x8debad38) + method + from_hex("07 00 01 00")),
         owner_status(7, 0x55, UBUS_STATUS_INVALID_ARGUMENT, 0x8debad38)},
        // The handler's return value becomes the status.
        {invoke_demo(8, "hello"), owner_status(8, 0x55, UBUS_STATUS_PERMISSION_DENIED, 0x8debad38)},
    };
    for (const auto& c : cases) {
        daemon.client.send(c.call);
        ubus_handle_event(ctx);
        EXPECT_EQ(to_hex(daemon.client.drain()), to_hex(c.reply)) << to_hex(c.call);
    }
    EXPECT_EQ(calls, 1);

    static const ubus_method methods[] = {UBUS_METHOD_NOARG("a", demo_dispatch),
                                          UBUS_METHOD_NOARG(nullptr, wildcard),
                                          UBUS_METHOD_NOARG("b", demo_dispatch)};
    ubus_object obj = {};
    obj.methods = methods;
    obj.n_methods = 3;
    daemon.client.send(msg(UBUS_MSG_DATA, 2, 0, objid(0x42)) + status_msg(2, 0, 0));
    ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
    daemon.client.drain();
    on_call = [&](ubus_context*, ubus_request_data* req, const char* method, blob_attr*) {
        log.push_back(std::string(method) + (req->acl.user ? " with acl" : " without acl"));
        return 0;
    };
    for (const char* m : {"a", "b", "zzz"}) {
        daemon.client.send(msg(UBUS_MSG_INVOKE, 1, 0x55,
                               objid(0x42) + attr_str(UBUS_ATTR_METHOD, m) +
                                   attr_str(UBUS_ATTR_USER, "u") + attr(UBUS_ATTR_DATA, {})));
        ubus_handle_event(ctx);
    }
    // Entries are tried in order, so the nameless one takes "b" too; user and group come
    // only together.
    EXPECT_EQ(log, (Log{"a without acl", "* b without acl", "* zzz without acl"}));
}

TEST_F(UbusTest, DeferredAndNoReplyCallsSendNothingOnReturn) {
    add_demo_object();
    ubus_request_data later;
    on_call = [&](ubus_context* c, ubus_request_data* req, const char* method, blob_attr*) {
        if (std::string(method) == "hello")
            ubus_defer_request(c, req, &later);
        return UBUS_STATUS_UNKNOWN_ERROR;
    };
    daemon.client.send(invoke_hello_to_owner +
                       invoke_demo(3, "status", attr(UBUS_ATTR_NO_REPLY, {1})));
    ubus_handle_event(ctx);
    EXPECT_EQ(daemon.client.drain().size(), 0u);
    EXPECT_EQ(ubus_send_reply(ctx, &later, nullptr), 0);
    ubus_complete_deferred_request(ctx, &later, 0);
    EXPECT_EQ(daemon.next(), to_hex(msg(UBUS_MSG_DATA, 2, 0xd328f707,
                                        objid(0x8debad38) + attr(UBUS_ATTR_DATA, {}))));
    EXPECT_EQ(daemon.next(), to_hex(from_hex("00 01 00 02 d3 28 f7 07") + reply_status_blob));
}

bool pipe_has_reader(int write_end) {
    return write(write_end, "x", 1) == 1;
}

TEST_F(UbusTest, DescriptorsGoWithTheFirstBytesAndAreClosedUnlessClaimed) {
    signal(SIGPIPE, SIG_IGN);
    add_demo_object();
    int out[2], back[2], unclaimed[2], claimed[2];
    for (int* p : {out, back, unclaimed, claimed})
        ASSERT_EQ(pipe(p), 0);

    // A caller's descriptor leaves with the INVOKE and is closed by the client.
    ubus_request req;
    ASSERT_EQ(ubus_invoke_async_fd(ctx, 0x10, "m", nullptr, &req, out[0]), 0);
    int sent = -1;
    daemon.next(&sent);
    ASSERT_GE(sent, 0);
    close(sent);
    EXPECT_FALSE(pipe_has_reader(out[1]));
    // One arriving with the final STATUS goes to fd_cb.
    static int received;
    received = -1;
    req.fd_cb = [](ubus_request*, int fd) { received = fd; };
    ubus_complete_request_async(ctx, &req);
    daemon.client.send(status_msg(2, 0x10, 0), back[0]);
    ubus_handle_event(ctx);
    ASSERT_GE(received, 0);
    close(back[0]);
    EXPECT_TRUE(pipe_has_reader(back[1])) << "fd_cb owns the received one";
    close(received);

    // An owner's: closed after the handler unless taken; a taken one can go with the reply.
    int taken = -1;
    ubus_request_data later;
    on_call = [&](ubus_context* c, ubus_request_data* r, const char* method, blob_attr*) {
        if (std::string(method) == "hello") {
            taken = ubus_request_get_caller_fd(r);
            ubus_defer_request(c, r, &later);
        }
        return 0;
    };
    daemon.client.send(invoke_demo(4, "status"), unclaimed[0]);
    ubus_handle_event(ctx);
    daemon.client.drain();
    daemon.client.send(invoke_demo(5, "hello"), claimed[0]);
    ubus_handle_event(ctx);
    ASSERT_GE(taken, 0);
    ubus_request_set_fd(ctx, &later, taken);
    ubus_complete_deferred_request(ctx, &later, 0);
    int got = -1;
    EXPECT_EQ(daemon.next(&got), to_hex(owner_status(5, 0x55, 0, 0x8debad38)));
    ASSERT_GE(got, 0);
    close(got);
    for (int fd : {unclaimed[0], claimed[0]})
        close(fd);
    EXPECT_FALSE(pipe_has_reader(unclaimed[1])) << "closed after the handler";
    EXPECT_FALSE(pipe_has_reader(claimed[1])) << "the client's copy went with the reply";
    for (int fd : {out[1], back[1], unclaimed[1], claimed[1]})
        close(fd);
}

} // namespace
