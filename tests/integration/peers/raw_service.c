/* A bus service that speaks the wire protocol itself, so that it can answer calls with
 * messages no libubus would produce. Publishes "fault.raw" on the bus whose socket is
 * argv[1], prints "ready" once published, and serves until its connection ends.
 *
 * Every method answers with the replies named after it:
 *   ok           DATA {"ok": "yes"}, STATUS 0
 *   bad_type     DATA {an attribute of blobmsg type 9}, STATUS 0
 *   bad_int      DATA {"n": an INT32 of three bytes}, STATUS 0
 *   bad_string   DATA {"s": a STRING without its NUL}, STATUS 0
 *   bad_name     DATA {an attribute whose name runs past its end}, STATUS 0
 *   bad_nested   DATA {"t": a TABLE holding an INT64 of four bytes}, STATUS 0
 *   garbage      DATA of bytes that are no blobmsg at all, STATUS 0
 *   truncated    DATA {"a": 1, then an attribute longer than what is left}, STATUS 0
 *   bad_and_fail DATA {an attribute of blobmsg type 9}, STATUS 6
 *   odd_status   STATUS 4711
 *   dup_status   DATA {"n": 1}, STATUS 0, STATUS 0, DATA {"n": 2}, STATUS 8
 *   unsolicited  DATA and STATUS for requests the caller never made, then as "ok"
 *   spray        as "ok", then malformed DATA and STATUS for requests never made */
#include <libubox/blobmsg.h>
#include <ubusmsg.h>

#include <orvix_testing/peer.h>
#include <orvix_testing/wire.h>

#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#define EXTENDED 0x80000000u

static const char* const methods[] = {
    "ok",        "bad_type",     "bad_int",    "bad_string", "bad_name",    "bad_nested", "garbage",
    "truncated", "bad_and_fail", "odd_status", "dup_status", "unsolicited", "spray",
};

static int sock = -1;

static int publish(uint32_t* obj_id) {
    struct wire_buf msg = {0}, signature = {0};
    struct wire_msg reply = {0};
    const unsigned char* id;
    size_t len;

    for (size_t i = 0; i < sizeof(methods) / sizeof(methods[0]); i++)
        wire_add_field(&signature, BLOBMSG_TYPE_TABLE, methods[i], NULL, 0);
    wire_add_attr(&msg, UBUS_ATTR_OBJPATH, "fault.raw", sizeof("fault.raw"));
    wire_add_attr(&msg, UBUS_ATTR_SIGNATURE, signature.data, signature.len);
    if (wire_send_msg(sock, UBUS_MSG_ADD_OBJECT, 1, 0, &msg) < 0)
        return -1;
    *obj_id = 0;
    do {
        if (wire_read_msg(sock, &reply) < 0)
            return -1;
        if (reply.type == UBUS_MSG_DATA &&
            (id = wire_find_attr(&reply.body, UBUS_ATTR_OBJID, &len)) && len == 4)
            *obj_id = wire_get_be32(id);
    } while (reply.type != UBUS_MSG_STATUS);
    return *obj_id ? 0 : -1;
}

static int send_data(unsigned seq, uint32_t caller, uint32_t obj, const struct wire_buf* payload) {
    struct wire_buf msg = {0};
    int rc;

    wire_add_u32(&msg, UBUS_ATTR_OBJID, obj);
    wire_add_attr(&msg, UBUS_ATTR_DATA, payload->data, payload->len);
    rc = wire_send_msg(sock, UBUS_MSG_DATA, seq, caller, &msg);
    wire_buf_free(&msg);
    return rc;
}

static int send_status(unsigned seq, uint32_t caller, uint32_t obj, uint32_t status) {
    struct wire_buf msg = {0};
    int rc;

    wire_add_u32(&msg, UBUS_ATTR_STATUS, status);
    wire_add_u32(&msg, UBUS_ATTR_OBJID, obj);
    rc = wire_send_msg(sock, UBUS_MSG_STATUS, seq, caller, &msg);
    wire_buf_free(&msg);
    return rc;
}

static int answer(const char* method, unsigned seq, uint32_t caller, uint32_t obj) {
    static const unsigned char garbage[] = {0xc1, 0x00, 0x00, 0x0c, 0xde, 0xad, 0xbe, 0xef,
                                            0x01, 0x02, 0x03, 0x04, 0x7f, 0xff, 0xff, 0xff};
    struct wire_buf p = {0}, ok = {0}, other = {0};
    uint32_t status = 0;
    int rc = 0;

    wire_add_string(&ok, "ok", "yes");
    if (!strcmp(method, "ok")) {
        wire_add_bytes(&p, ok.data, ok.len);
    } else if (!strcmp(method, "bad_type") || !strcmp(method, "bad_and_fail")) {
        wire_add_field(&p, 9, "x", "abcd", 4);
        status = !strcmp(method, "bad_and_fail") ? 6 : 0;
    } else if (!strcmp(method, "bad_int")) {
        wire_add_field(&p, BLOBMSG_TYPE_INT32, "n", "\0\0\1", 3);
    } else if (!strcmp(method, "bad_string")) {
        wire_add_field(&p, BLOBMSG_TYPE_STRING, "s", "abc", 3);
    } else if (!strcmp(method, "bad_name")) {
        /* A name length of 200 in an attribute of eight payload bytes. */
        static const unsigned char name[] = {0x00, 0xc8, 'x', 0x00, 'a', 'b', 'c', 0x00};
        wire_add_raw(&p, EXTENDED | (uint32_t)BLOBMSG_TYPE_STRING << 24, 4 + sizeof(name), name,
                     sizeof(name));
    } else if (!strcmp(method, "bad_nested")) {
        wire_add_field(&other, BLOBMSG_TYPE_INT64, "v", "\0\0\0\1", 4);
        wire_add_field(&p, BLOBMSG_TYPE_TABLE, "t", other.data, other.len);
    } else if (!strcmp(method, "garbage")) {
        wire_add_bytes(&p, garbage, sizeof(garbage));
    } else if (!strcmp(method, "truncated")) {
        wire_add_int32(&p, "a", 1);
        /* Claims 64 bytes where only 12 follow. */
        wire_add_raw(&p, EXTENDED | (uint32_t)BLOBMSG_TYPE_STRING << 24, 64, "\0\1b\0xyz", 8);
    } else if (!strcmp(method, "dup_status")) {
        wire_add_int32(&other, "n", 1);
        rc |= send_data(seq, caller, obj, &other);
        rc |= send_status(seq, caller, obj, 0);
        rc |= send_status(seq, caller, obj, 0);
        wire_add_int32(&p, "n", 2);
        status = 8;
    } else if (!strcmp(method, "unsolicited")) {
        /* Far from every sequence number the caller can have in use. */
        for (unsigned i = 1; i <= 8; i++) {
            rc |= send_data((seq + 0x4000 + i) & 0xffff, caller, obj, &ok);
            rc |= send_status((seq + 0x4000 + i) & 0xffff, caller, obj, 5);
        }
        wire_add_bytes(&p, ok.data, ok.len);
    } else if (!strcmp(method, "spray")) {
        rc |= send_data(seq, caller, obj, &ok);
        rc |= send_status(seq, caller, obj, 0);
        wire_add_field(&other, 9, "x", "abcd", 4);
        for (unsigned i = 1; i <= 8; i++) {
            rc |= send_data((seq + 0x8000 + i) & 0xffff, caller, obj, &other);
            rc |= send_status((seq + 0x8000 + i) & 0xffff, caller, obj, 4711);
        }
    } else {
        rc = send_status(seq, caller, obj, !strcmp(method, "odd_status") ? 4711 : 3);
    }
    /* Those that answered by themselves left no payload. */
    if (p.len) {
        rc |= send_data(seq, caller, obj, &p);
        rc |= send_status(seq, caller, obj, status);
    }
    wire_buf_free(&p);
    wire_buf_free(&ok);
    wire_buf_free(&other);
    return rc;
}

int main(int argc, char** argv) {
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    struct wire_msg m = {0};
    uint32_t obj_id;

    if (argc != 2)
        return 2;
    sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", argv[1]);
    if (sock < 0 || connect(sock, (struct sockaddr*)&addr, sizeof(addr)) < 0)
        return 1;
    if (wire_read_msg(sock, &m) < 0 || m.type != UBUS_MSG_HELLO || publish(&obj_id) < 0)
        return 1;
    peer_ready();
    while (wire_read_msg(sock, &m) == 0) {
        char method[64] = "";
        const unsigned char* name;
        size_t len;

        if (m.type != UBUS_MSG_INVOKE)
            continue;
        name = wire_find_attr(&m.body, UBUS_ATTR_METHOD, &len);
        if (name && len > 0 && len < sizeof(method))
            memcpy(method, name, len);
        method[sizeof(method) - 1] = '\0';
        if (answer(method, m.seq, m.peer, obj_id) < 0)
            return 1;
    }
    return 0;
}
