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
#include <arpa/inet.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { MSG_STATUS = 1, MSG_DATA = 2, MSG_INVOKE = 5, MSG_ADD_OBJECT = 6 };
enum { ATTR_STATUS = 1, ATTR_OBJPATH = 2, ATTR_OBJID = 3, ATTR_METHOD = 4, ATTR_SIGNATURE = 6 };
enum { ATTR_DATA = 7 };
enum { BM_TABLE = 2, BM_STRING = 3, BM_INT64 = 4, BM_INT32 = 5 };

#define EXTENDED 0x80000000u
#define MAX_MSG 65536

static const char* const methods[] = {
    "ok",        "bad_type",     "bad_int",    "bad_string", "bad_name",    "bad_nested", "garbage",
    "truncated", "bad_and_fail", "odd_status", "dup_status", "unsolicited", "spray",
};

struct bytes {
    unsigned char b[MAX_MSG];
    size_t len;
};

static int sock = -1;

static void put_be32(unsigned char* p, uint32_t v) {
    v = htonl(v);
    memcpy(p, &v, 4);
}

static uint32_t get_be32(const unsigned char* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return ntohl(v);
}

static size_t padded(size_t len) {
    return (len + 3) & ~(size_t)3;
}

/* Appends an attribute header claiming `raw_len`, then `len` bytes of `data`, padded. */
static void add_raw(struct bytes* out, uint32_t flags_id, size_t raw_len, const void* data,
                    size_t len) {
    put_be32(out->b + out->len, flags_id | (uint32_t)raw_len);
    memcpy(out->b + out->len + 4, data, len);
    memset(out->b + out->len + 4 + len, 0, padded(4 + len) - 4 - len);
    out->len += padded(4 + len);
}

static void add_attr(struct bytes* out, unsigned id, const void* data, size_t len) {
    add_raw(out, (uint32_t)id << 24, 4 + len, data, len);
}

static void add_u32(struct bytes* out, unsigned id, uint32_t v) {
    unsigned char be[4];
    put_be32(be, v);
    add_attr(out, id, be, sizeof(be));
}

/* A blobmsg field: name header, then `len` value bytes. */
static void add_field(struct bytes* out, unsigned type, const char* name, const void* value,
                      size_t len) {
    unsigned char payload[512] = {0};
    const size_t namelen = strlen(name);
    const size_t hdrlen = padded(2 + namelen + 1);

    payload[0] = (unsigned char)(namelen >> 8);
    payload[1] = (unsigned char)namelen;
    memcpy(payload + 2, name, namelen);
    if (len)
        memcpy(payload + hdrlen, value, len);
    add_raw(out, EXTENDED | (uint32_t)type << 24, 4 + hdrlen + len, payload, hdrlen + len);
}

static void add_string(struct bytes* out, const char* name, const char* value) {
    add_field(out, BM_STRING, name, value, strlen(value) + 1);
}

static void add_int32(struct bytes* out, const char* name, uint32_t value) {
    unsigned char be[4];
    put_be32(be, value);
    add_field(out, BM_INT32, name, be, sizeof(be));
}

static int write_all(const unsigned char* p, size_t len) {
    while (len > 0) {
        const ssize_t n = send(sock, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        p += n;
        len -= (size_t)n;
    }
    return 0;
}

static int send_msg(unsigned type, unsigned seq, uint32_t peer, const struct bytes* body) {
    unsigned char head[12];

    head[0] = 0;
    head[1] = (unsigned char)type;
    head[2] = (unsigned char)(seq >> 8);
    head[3] = (unsigned char)seq;
    put_be32(head + 4, peer);
    put_be32(head + 8, (uint32_t)(4 + body->len));
    return write_all(head, sizeof(head)) == 0 ? write_all(body->b, body->len) : -1;
}

static int read_all(unsigned char* p, size_t len) {
    while (len > 0) {
        const ssize_t n = read(sock, p, len);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        p += n;
        len -= (size_t)n;
    }
    return 0;
}

/* Reads one message: its type, seq and peer, and its attributes into `body`. */
static int read_msg(unsigned* type, unsigned* seq, uint32_t* peer, struct bytes* body) {
    unsigned char head[12];
    uint32_t raw;

    if (read_all(head, sizeof(head)) < 0)
        return -1;
    *type = head[1];
    *seq = (unsigned)head[2] << 8 | head[3];
    *peer = get_be32(head + 4);
    raw = get_be32(head + 8) & 0xffffffu;
    if (raw < 4 || raw - 4 > sizeof(body->b))
        return -1;
    body->len = raw - 4;
    return read_all(body->b, body->len);
}

/* The payload of the first message attribute `id`, or NULL. */
static const unsigned char* find_attr(const struct bytes* body, unsigned id, size_t* len) {
    size_t pos = 0;

    while (pos + 4 <= body->len) {
        const uint32_t word = get_be32(body->b + pos);
        const size_t raw = word & 0xffffffu;
        if (raw < 4 || pos + raw > body->len)
            return NULL;
        if ((word >> 24 & 0x7f) == id) {
            *len = raw - 4;
            return body->b + pos + 4;
        }
        pos += padded(raw);
    }
    return NULL;
}

static int publish(uint32_t* obj_id) {
    struct bytes msg = {.len = 0}, signature = {.len = 0}, reply;
    unsigned type, seq;
    uint32_t peer;
    const unsigned char* id;
    size_t len;

    for (size_t i = 0; i < sizeof(methods) / sizeof(methods[0]); i++)
        add_field(&signature, BM_TABLE, methods[i], NULL, 0);
    add_attr(&msg, ATTR_OBJPATH, "fault.raw", sizeof("fault.raw"));
    add_attr(&msg, ATTR_SIGNATURE, signature.b, signature.len);
    if (send_msg(MSG_ADD_OBJECT, 1, 0, &msg) < 0)
        return -1;
    *obj_id = 0;
    do {
        if (read_msg(&type, &seq, &peer, &reply) < 0)
            return -1;
        if (type == MSG_DATA && (id = find_attr(&reply, ATTR_OBJID, &len)) && len == 4)
            *obj_id = get_be32(id);
    } while (type != MSG_STATUS);
    return *obj_id ? 0 : -1;
}

static int send_data(unsigned seq, uint32_t caller, uint32_t obj, const struct bytes* payload) {
    struct bytes msg = {.len = 0};

    add_u32(&msg, ATTR_OBJID, obj);
    add_attr(&msg, ATTR_DATA, payload->b, payload->len);
    return send_msg(MSG_DATA, seq, caller, &msg);
}

static int send_status(unsigned seq, uint32_t caller, uint32_t obj, uint32_t status) {
    struct bytes msg = {.len = 0};

    add_u32(&msg, ATTR_STATUS, status);
    add_u32(&msg, ATTR_OBJID, obj);
    return send_msg(MSG_STATUS, seq, caller, &msg);
}

static void bad_type(struct bytes* p) {
    add_field(p, 9, "x", "abcd", 4);
}

static int answer(const char* method, unsigned seq, uint32_t caller, uint32_t obj) {
    static const unsigned char garbage[] = {0xc1, 0x00, 0x00, 0x0c, 0xde, 0xad, 0xbe, 0xef,
                                            0x01, 0x02, 0x03, 0x04, 0x7f, 0xff, 0xff, 0xff};
    struct bytes p = {.len = 0}, ok = {.len = 0};
    int rc = 0;

    add_string(&ok, "ok", "yes");
    if (!strcmp(method, "ok")) {
        p = ok;
    } else if (!strcmp(method, "bad_type") || !strcmp(method, "bad_and_fail")) {
        bad_type(&p);
    } else if (!strcmp(method, "bad_int")) {
        add_field(&p, BM_INT32, "n", "\0\0\1", 3);
    } else if (!strcmp(method, "bad_string")) {
        add_field(&p, BM_STRING, "s", "abc", 3);
    } else if (!strcmp(method, "bad_name")) {
        /* A name length of 200 in an attribute of eight payload bytes. */
        static const unsigned char name[] = {0x00, 0xc8, 'x', 0x00, 'a', 'b', 'c', 0x00};
        add_raw(&p, EXTENDED | (uint32_t)BM_STRING << 24, 4 + sizeof(name), name, sizeof(name));
    } else if (!strcmp(method, "bad_nested")) {
        struct bytes inner = {.len = 0};
        add_field(&inner, BM_INT64, "v", "\0\0\0\1", 4);
        add_field(&p, BM_TABLE, "t", inner.b, inner.len);
    } else if (!strcmp(method, "garbage")) {
        memcpy(p.b, garbage, sizeof(garbage));
        p.len = sizeof(garbage);
    } else if (!strcmp(method, "truncated")) {
        add_int32(&p, "a", 1);
        /* Claims 64 bytes where only 12 follow. */
        add_raw(&p, EXTENDED | (uint32_t)BM_STRING << 24, 64, "\0\1b\0xyz", 8);
    } else if (!strcmp(method, "odd_status")) {
        return send_status(seq, caller, obj, 4711);
    } else if (!strcmp(method, "dup_status")) {
        struct bytes second = {.len = 0};
        add_int32(&p, "n", 1);
        add_int32(&second, "n", 2);
        rc |= send_data(seq, caller, obj, &p);
        rc |= send_status(seq, caller, obj, 0);
        rc |= send_status(seq, caller, obj, 0);
        rc |= send_data(seq, caller, obj, &second);
        return rc | send_status(seq, caller, obj, 8);
    } else if (!strcmp(method, "unsolicited")) {
        /* Far from every sequence number the caller can have in use. */
        for (unsigned i = 1; i <= 8; i++) {
            rc |= send_data((seq + 0x4000 + i) & 0xffff, caller, obj, &ok);
            rc |= send_status((seq + 0x4000 + i) & 0xffff, caller, obj, 5);
        }
        p = ok;
    } else if (!strcmp(method, "spray")) {
        rc |= send_data(seq, caller, obj, &ok);
        rc |= send_status(seq, caller, obj, 0);
        bad_type(&p);
        for (unsigned i = 1; i <= 8; i++) {
            rc |= send_data((seq + 0x8000 + i) & 0xffff, caller, obj, &p);
            rc |= send_status((seq + 0x8000 + i) & 0xffff, caller, obj, 4711);
        }
        return rc;
    } else {
        return send_status(seq, caller, obj, 3);
    }
    rc |= send_data(seq, caller, obj, &p);
    return rc | send_status(seq, caller, obj, !strcmp(method, "bad_and_fail") ? 6 : 0);
}

int main(int argc, char** argv) {
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    struct bytes body;
    unsigned type, seq;
    uint32_t peer, obj_id;

    if (argc != 2)
        return 2;
    sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", argv[1]);
    if (sock < 0 || connect(sock, (struct sockaddr*)&addr, sizeof(addr)) < 0)
        return 1;
    /* The daemon's HELLO. */
    if (read_msg(&type, &seq, &peer, &body) < 0 || type != 0)
        return 1;
    if (publish(&obj_id) < 0)
        return 1;
    printf("ready\n");
    fflush(stdout);
    while (read_msg(&type, &seq, &peer, &body) == 0) {
        char method[64] = "";
        const unsigned char* name;
        size_t len;

        if (type != MSG_INVOKE)
            continue;
        name = find_attr(&body, ATTR_METHOD, &len);
        if (name && len > 0 && len < sizeof(method))
            memcpy(method, name, len);
        method[sizeof(method) - 1] = '\0';
        if (answer(method, seq, peer, obj_id) < 0)
            return 1;
    }
    return 0;
}
