#include "orvix_testing/wire.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#define EXTENDED 0x80000000u
#define LEN_MASK 0xffffffu
/* Version, type, seq, peer. */
#define HEADER_LEN 8

static size_t padded(size_t len) {
    return (len + 3) & ~(size_t)3;
}

static unsigned char* reserve(struct wire_buf* b, size_t n) {
    if (!n)
        return b->data;
    if (b->len + n > b->cap) {
        size_t cap = b->cap ? b->cap : 256;

        while (cap < b->len + n)
            cap *= 2;
        b->data = realloc(b->data, cap);
        if (!b->data)
            abort();
        b->cap = cap;
    }
    b->len += n;
    return b->data + b->len - n;
}

void wire_buf_free(struct wire_buf* b) {
    free(b->data);
    memset(b, 0, sizeof(*b));
}

void wire_add_bytes(struct wire_buf* b, const void* data, size_t len) {
    if (len)
        memcpy(reserve(b, len), data, len);
}

void wire_put_be32(void* p, uint32_t v) {
    unsigned char* q = p;

    q[0] = (unsigned char)(v >> 24);
    q[1] = (unsigned char)(v >> 16);
    q[2] = (unsigned char)(v >> 8);
    q[3] = (unsigned char)v;
}

uint32_t wire_get_be32(const void* p) {
    const unsigned char* q = p;

    return (uint32_t)q[0] << 24 | (uint32_t)q[1] << 16 | (uint32_t)q[2] << 8 | q[3];
}

void wire_add_raw(struct wire_buf* b, uint32_t flags_id, size_t raw_len, const void* data,
                  size_t len) {
    unsigned char* p = reserve(b, padded(4 + len));

    wire_put_be32(p, flags_id | (uint32_t)raw_len);
    if (len)
        memcpy(p + 4, data, len);
    memset(p + 4 + len, 0, padded(4 + len) - 4 - len);
}

void wire_add_attr(struct wire_buf* b, unsigned id, const void* data, size_t len) {
    wire_add_raw(b, (uint32_t)id << 24, 4 + len, data, len);
}

void wire_add_u32(struct wire_buf* b, unsigned id, uint32_t v) {
    unsigned char be[4];

    wire_put_be32(be, v);
    wire_add_attr(b, id, be, sizeof(be));
}

void wire_add_field(struct wire_buf* b, unsigned type, const char* name, const void* value,
                    size_t len) {
    const size_t namelen = strlen(name), hdrlen = padded(2 + namelen + 1);
    struct wire_buf payload = {0};
    unsigned char* hdr = reserve(&payload, hdrlen);

    memset(hdr, 0, hdrlen);
    hdr[0] = (unsigned char)(namelen >> 8);
    hdr[1] = (unsigned char)namelen;
    memcpy(hdr + 2, name, namelen);
    wire_add_bytes(&payload, value, len);
    wire_add_raw(b, EXTENDED | (uint32_t)type << 24, 4 + payload.len, payload.data, payload.len);
    wire_buf_free(&payload);
}

void wire_add_string(struct wire_buf* b, const char* name, const char* value) {
    /* BLOBMSG_TYPE_STRING, with its NUL */
    wire_add_field(b, 3, name, value, strlen(value) + 1);
}

void wire_add_int32(struct wire_buf* b, const char* name, uint32_t value) {
    unsigned char be[4];

    wire_put_be32(be, value);
    /* BLOBMSG_TYPE_INT32 */
    wire_add_field(b, 5, name, be, sizeof(be));
}

void wire_add_msg(struct wire_buf* b, unsigned type, unsigned seq, uint32_t peer, const void* attrs,
                  size_t len) {
    unsigned char* head = reserve(b, HEADER_LEN);

    head[0] = 0;
    head[1] = (unsigned char)type;
    head[2] = (unsigned char)(seq >> 8);
    head[3] = (unsigned char)seq;
    wire_put_be32(head + 4, peer);
    wire_add_raw(b, 0, 4 + len, attrs, len);
}

static ssize_t send_some(int fd, void* data, size_t len) {
    return send(fd, data, len, MSG_NOSIGNAL);
}

/* Moves all `len` bytes by `io`, which may take several calls. */
static int all(ssize_t (*io)(int, void*, size_t), int fd, unsigned char* p, size_t len) {
    while (len > 0) {
        const ssize_t n = io(fd, p, len);

        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return -1;
        p += n;
        len -= (size_t)n;
    }
    return 0;
}

int wire_write_all(int fd, const void* data, size_t len) {
    return all(send_some, fd, (unsigned char*)data, len);
}

int wire_read_all(int fd, void* data, size_t len) {
    return all(read, fd, data, len);
}

int wire_send_msg(int fd, unsigned type, unsigned seq, uint32_t peer,
                  const struct wire_buf* attrs) {
    struct wire_buf m = {0};
    int rc;

    wire_add_msg(&m, type, seq, peer, attrs->data, attrs->len);
    rc = wire_write_all(fd, m.data, m.len);
    wire_buf_free(&m);
    return rc;
}

int wire_read_msg(int fd, struct wire_msg* m) {
    unsigned char head[HEADER_LEN + 4];
    uint32_t raw;

    if (wire_read_all(fd, head, sizeof(head)) < 0)
        return -1;
    m->type = head[1];
    m->seq = (unsigned)head[2] << 8 | head[3];
    m->peer = wire_get_be32(head + 4);
    raw = wire_get_be32(head + HEADER_LEN) & LEN_MASK;
    if (raw < 4)
        return -1;
    m->body.len = 0;
    return wire_read_all(fd, reserve(&m->body, raw - 4), raw - 4);
}

size_t wire_next_attr(const unsigned char* attrs, size_t len, size_t pos, unsigned* id) {
    size_t raw;

    if (pos > len || len - pos < 4)
        return 0;
    raw = wire_get_be32(attrs + pos) & LEN_MASK;
    if (raw < 4 || raw > len - pos)
        return 0;
    *id = attrs[pos] & 0x7f;
    return pos + padded(raw);
}

const unsigned char* wire_find_attr(const struct wire_buf* attrs, unsigned id, size_t* len) {
    unsigned got;

    for (size_t pos = 0, next; (next = wire_next_attr(attrs->data, attrs->len, pos, &got));
         pos = next) {
        if (got == id) {
            *len = (wire_get_be32(attrs->data + pos) & LEN_MASK) - 4;
            return attrs->data + pos + 4;
        }
    }
    return NULL;
}
