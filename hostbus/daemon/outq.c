/* Per-client output: write at once when nothing is waiting, otherwise queue in order.
 * The queue is bounded; a message that does not fit is dropped whole, so the stream
 * stays in step and a client that stops reading cannot exhaust the daemon's memory. */
#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include "ubusd.h"

#define OUTQ_LIMIT (1024 * 1024)

struct outmsg {
    struct list_head entry;
    size_t len; /* header and blob */
    size_t sent;
    int fd; /* still to be passed with the first byte, or -1 */
    uint8_t data[];
};

bool client_queue_empty(const struct client* cl) {
    return list_empty(&cl->outq);
}

/* Returns the bytes written, 0 when the socket is full, -1 on a broken connection. */
static ssize_t write_chunks(int sock, struct iovec* iov, int iovcnt, int fd) {
    char control[CMSG_SPACE(sizeof(int))];
    struct msghdr mh = {.msg_iov = iov, .msg_iovlen = (size_t)iovcnt};
    ssize_t n;

    if (fd >= 0) {
        struct cmsghdr* cmsg;

        memset(control, 0, sizeof(control));
        mh.msg_control = control;
        mh.msg_controllen = sizeof(control);
        cmsg = CMSG_FIRSTHDR(&mh);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    }
    do
        n = sendmsg(sock, &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    return n;
}

static void queue_tail(struct client* cl, const struct ubus_msghdr* hdr,
                       const struct blob_attr* body, size_t skip, int fd) {
    size_t body_len = blob_raw_len(body);
    size_t len = sizeof(*hdr) + body_len;
    struct outmsg* m = malloc(sizeof(*m) + len - skip);

    if (!m) {
        if (fd >= 0)
            close(fd);
        /* Part of this message may be on the wire already; the stream cannot recover. */
        if (skip)
            client_disconnect(cl);
        return;
    }
    m->len = len - skip;
    m->sent = 0;
    m->fd = fd;
    if (skip < sizeof(*hdr)) {
        memcpy(m->data, (const uint8_t*)hdr + skip, sizeof(*hdr) - skip);
        memcpy(m->data + sizeof(*hdr) - skip, body, body_len);
    } else {
        memcpy(m->data, (const uint8_t*)body + (skip - sizeof(*hdr)), len - skip);
    }
    list_add_tail(&m->entry, &cl->outq);
    cl->outq_bytes += m->len;
}

void client_send_unreported(struct client* cl, uint8_t type, uint16_t seq, uint32_t peer,
                            const struct blob_attr* body, int fd) {
    struct ubus_msghdr hdr = {
        .version = 0,
        .type = type,
        .seq = cpu_to_be16(seq),
        .peer = cpu_to_be32(peer),
    };
    size_t body_len = blob_raw_len(body);
    size_t len = sizeof(hdr) + body_len;
    bool was_empty = client_queue_empty(cl);
    struct iovec iov[2];
    ssize_t n;

    /* Outgoing sizes are not checked: what the daemon forwards may exceed the limit its
     * clients accept. Only the queue is bounded. */
    if (cl->dead || (!was_empty && cl->outq_bytes + len > OUTQ_LIMIT)) {
        if (fd >= 0)
            close(fd);
        return;
    }
    if (!was_empty) {
        queue_tail(cl, &hdr, body, 0, fd);
        return;
    }
    iov[0] = (struct iovec){.iov_base = &hdr, .iov_len = sizeof(hdr)};
    iov[1] = (struct iovec){.iov_base = (void*)body, .iov_len = body_len};
    n = write_chunks(cl->sock.fd, iov, 2, fd);
    if (n < 0) {
        if (fd >= 0)
            close(fd);
        client_disconnect(cl);
        return;
    }
    if (n > 0 && fd >= 0) {
        close(fd);
        fd = -1;
    }
    if ((size_t)n == len)
        return;
    queue_tail(cl, &hdr, body, (size_t)n, fd);
    client_update_events(cl);
}

void client_send(struct client* cl, uint8_t type, uint16_t seq, uint32_t peer,
                 const struct blob_attr* body, int fd) {
    monitor_report(cl, true, type, seq, peer, body);
    client_send_unreported(cl, type, seq, peer, body, fd);
}

static void outmsg_free(struct client* cl, struct outmsg* m) {
    list_del(&m->entry);
    cl->outq_bytes -= m->len;
    if (m->fd >= 0)
        close(m->fd);
    free(m);
}

bool client_flush(struct client* cl) {
    while (!client_queue_empty(cl)) {
        struct outmsg* m = list_first_entry(&cl->outq, struct outmsg, entry);
        struct iovec iov = {.iov_base = m->data + m->sent, .iov_len = m->len - m->sent};
        ssize_t n = write_chunks(cl->sock.fd, &iov, 1, m->sent ? -1 : m->fd);

        if (n < 0) {
            client_disconnect(cl);
            return false;
        }
        if (n == 0)
            return true;
        if (m->fd >= 0) {
            close(m->fd);
            m->fd = -1;
        }
        m->sent += (size_t)n;
        if (m->sent == m->len)
            outmsg_free(cl, m);
    }
    return true;
}

void client_queue_clear(struct client* cl) {
    while (!client_queue_empty(cl))
        outmsg_free(cl, list_first_entry(&cl->outq, struct outmsg, entry));
}
