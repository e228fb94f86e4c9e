/* Clients: accepting, credentials and account names, HELLO, reassembling incoming
 * messages, and taking a client off the bus. */
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ubusd.h"

/* Reads per wake-up while the peer is connected: a busy client cannot starve the others,
 * and the level-triggered socket brings us back for the rest. */
#define READ_BUDGET 64
/* Larger receive buffers are released after each message. */
#define KEEP_BUFFER (64 * 1024)
#define MAX_PASSED_FDS 8
#define ACCEPT_BUDGET 16
#define ACCEPT_RETRY_MS 100
#define NAME_BUFFER_MAX (1024 * 1024)

static struct avl_tree clients_by_id;
static LIST_HEAD(dead_clients);
static struct uloop_timeout reaper;
static struct uloop_fd listener;
static struct uloop_timeout listener_retry;
static uid_t own_uid;

struct client* client_find(uint32_t id) {
    struct ubus_id* found = id_find(&clients_by_id, id);
    struct client* cl = found ? container_of(found, struct client, id) : NULL;

    return cl && !cl->dead ? cl : NULL;
}

/* Freed from a timeout, never in the middle of handling another client's message. */
static void client_free(struct client* cl) {
    lookup_cancel(cl);
    /* Last created first, so listeners hear of removals in reverse order of creation. */
    while (!list_empty(&cl->objects))
        object_destroy(list_last_entry(&cl->objects, struct object, owner_entry));
    id_free(&clients_by_id, &cl->id);
    client_queue_clear(cl);
    close(cl->sock.fd);
    if (cl->in_fd >= 0)
        close(cl->in_fd);
    free(cl->in_body);
    free(cl->user);
    free(cl->group);
    free(cl);
}

static void reap_clients(struct uloop_timeout* t) {
    (void)t;
    while (!list_empty(&dead_clients)) {
        struct client* cl = list_first_entry(&dead_clients, struct client, dead_entry);

        list_del(&cl->dead_entry);
        client_free(cl);
    }
}

void client_disconnect(struct client* cl) {
    if (cl->dead)
        return;
    cl->dead = true;
    monitor_remove(cl);
    uloop_fd_delete(&cl->sock);
    list_add_tail(&cl->dead_entry, &dead_clients);
    uloop_timeout_set(&reaper, 0);
}

void client_update_events(struct client* cl) {
    unsigned int flags = 0;

    if (cl->dead)
        return;
    if (!cl->lookup)
        flags |= ULOOP_READ;
    if (!client_queue_empty(cl))
        flags |= ULOOP_WRITE;
    if (cl->sock.registered && cl->sock.flags == flags)
        return;
    if (!flags)
        uloop_fd_delete(&cl->sock);
    else if (uloop_fd_add(&cl->sock, flags) < 0)
        client_disconnect(cl);
}

static void keep_fds(struct client* cl, struct msghdr* mh) {
    struct cmsghdr* cmsg;

    for (cmsg = CMSG_FIRSTHDR(mh); cmsg; cmsg = CMSG_NXTHDR(mh, cmsg)) {
        size_t n = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);

        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t i = 0; i < n; i++) {
            int fd;

            memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
            /* One descriptor per message; extra ones are not ours to keep. */
            if (cl->in_fd < 0)
                cl->in_fd = fd;
            else
                close(fd);
        }
    }
}

/* Returns the bytes read, 0 when nothing is available, -1 on end of stream or error. */
static ssize_t receive(struct client* cl, void* dst, size_t want) {
    char control[CMSG_SPACE(MAX_PASSED_FDS * sizeof(int))];
    struct iovec iov = {.iov_base = dst, .iov_len = want};
    struct msghdr mh = {
        .msg_iov = &iov,
        .msg_iovlen = 1,
        .msg_control = control,
        .msg_controllen = sizeof(control),
    };
    ssize_t n;

    do
        n = recvmsg(cl->sock.fd, &mh, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    keep_fds(cl, &mh);
    return n ? n : -1;
}

static size_t incoming_blob_len(const struct client* cl) {
    return blob_raw_len((const struct blob_attr*)(cl->in_head + sizeof(struct ubus_msghdr)));
}

/* Room for the next bytes of the blob, grown as they arrive so that an announced size
 * costs nothing until it is actually sent. */
static bool reserve_body(struct client* cl, size_t have, size_t total) {
    size_t cap;
    void* body;

    if (have < cl->in_cap)
        return true;
    cap = cl->in_cap * 2;
    if (cap < KEEP_BUFFER)
        cap = KEEP_BUFFER;
    if (cap > total)
        cap = total;
    body = realloc(cl->in_body, cap);
    if (!body)
        return false;
    cl->in_body = body;
    cl->in_cap = cap;
    return true;
}

/* One read towards the current message. Returns -1 to disconnect, 0 when no data is
 * waiting, 1 after progress. */
static int read_some(struct client* cl) {
    const size_t head_len = sizeof(cl->in_head);
    size_t have = cl->in_have;
    uint8_t* dst;
    size_t want;
    ssize_t n;

    if (have < head_len) {
        dst = cl->in_head + have;
        want = head_len - have;
    } else {
        size_t total = incoming_blob_len(cl);
        size_t got = have - sizeof(struct ubus_msghdr);

        if (!reserve_body(cl, got, total))
            return -1;
        dst = (uint8_t*)cl->in_body + got;
        want = (cl->in_cap < total ? cl->in_cap : total) - got;
    }
    n = receive(cl, dst, want);
    if (n <= 0)
        return (int)n;
    cl->in_have += (size_t)n;
    if (have < head_len && cl->in_have == head_len) {
        size_t total = incoming_blob_len(cl);

        if (total < sizeof(struct blob_attr) ||
            ((total + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1)) > UBUS_MAX_MSGLEN)
            return -1;
        if (!reserve_body(cl, 0, total))
            return -1;
        memcpy(cl->in_body, cl->in_head + sizeof(struct ubus_msghdr), sizeof(struct blob_attr));
    }
    return 1;
}

static bool message_complete(const struct client* cl) {
    return cl->in_have >= sizeof(cl->in_head) &&
           cl->in_have - sizeof(struct ubus_msghdr) == incoming_blob_len(cl);
}

static void dispatch(struct client* cl) {
    const struct ubus_msghdr* hdr = (const struct ubus_msghdr*)cl->in_head;
    struct inmsg msg = {
        .type = hdr->type,
        .seq = be16_to_cpu(hdr->seq),
        .peer = be32_to_cpu(hdr->peer),
        .body = cl->in_body,
        .body_len = incoming_blob_len(cl),
        .fd = cl->in_fd,
    };

    cl->in_fd = -1;
    cl->in_have = 0;
    /* Monitors see what arrived as it arrived, whatever the daemon then makes of it. */
    monitor_report(cl, false, msg.type, msg.seq, msg.peer, msg.body);
    proto_dispatch(cl, &msg);
    if (cl->in_cap > KEEP_BUFFER) {
        free(cl->in_body);
        cl->in_body = NULL;
        cl->in_cap = 0;
    }
}

static void client_read(struct client* cl, bool drain) {
    for (int reads = 0; drain || reads < READ_BUDGET; reads++) {
        int r;

        if (cl->dead || cl->lookup)
            return;
        r = read_some(cl);
        if (r < 0) {
            client_disconnect(cl);
            return;
        }
        if (r == 0)
            return;
        if (message_complete(cl))
            dispatch(cl);
    }
}

static void client_cb(struct uloop_fd* u, unsigned int events) {
    struct client* cl = container_of(u, struct client, sock);
    /* The loop has already dropped a hung-up socket: read what is left, then let go. */
    bool hung_up = u->error;

    if ((events & ULOOP_WRITE) && client_flush(cl) && client_queue_empty(cl) && cl->lookup)
        lookup_continue(cl);
    if ((events & ULOOP_READ) || hung_up)
        client_read(cl, hung_up);
    if (hung_up)
        client_disconnect(cl);
    else
        client_update_events(cl);
}

static char* number_name(unsigned int id) {
    char buf[16];

    snprintf(buf, sizeof(buf), "%u", id);
    return strdup(buf);
}

static char* account_name(bool group, unsigned int id) {
    size_t size = 1024;

    for (;;) {
        char* buf = malloc(size);
        struct passwd pw, *pw_found = NULL;
        struct group gr, *gr_found = NULL;
        char* name = NULL;
        int err;

        if (!buf)
            return NULL;
        if (group)
            err = getgrgid_r(id, &gr, buf, size, &gr_found);
        else
            err = getpwuid_r(id, &pw, buf, size, &pw_found);
        if (err == ERANGE && size < NAME_BUFFER_MAX) {
            free(buf);
            size *= 2;
            continue;
        }
        if (gr_found)
            name = strdup(gr.gr_name);
        else if (pw_found)
            name = strdup(pw.pw_name);
        free(buf);
        return name;
    }
}

/* A daemon run by an ordinary user trusts that user as root is trusted; run by root it
 * trusts root alone, exactly as the device's daemon does. */
static bool own_user(uid_t uid) {
    return own_uid != 0 && uid == own_uid;
}

/* The daemon's own user is served even without an account entry (as in containers):
 * its numeric ids then stand in for the names. */
static bool resolve_names(struct client* cl, gid_t gid) {
    cl->user = account_name(false, cl->uid);
    cl->group = account_name(true, gid);
    if (own_user(cl->uid)) {
        if (!cl->user)
            cl->user = number_name(cl->uid);
        if (!cl->group)
            cl->group = number_name(gid);
    }
    return cl->user && cl->group;
}

/* Clients keep the id in wire byte order; a value that reads as 0 or 1 there would be
 * taken for a failed or a channel connection. */
static bool client_id_usable(uint32_t id) {
    return cpu_to_be32(id) > UBUS_CLIENT_ID_CHANNEL;
}

void client_new(int fd) {
    struct blob_attr empty = {.id_len = cpu_to_be32(sizeof(struct blob_attr))};
    struct ucred cred;
    socklen_t len = sizeof(cred);
    struct client* cl;

    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) < 0 ||
        !(cl = calloc(1, sizeof(*cl)))) {
        close(fd);
        return;
    }
    cl->sock.fd = fd;
    cl->sock.cb = client_cb;
    cl->in_fd = -1;
    cl->uid = cred.uid;
    cl->gid = cred.gid;
    cl->privileged = cred.uid == 0 || own_user(cred.uid);
    if (!cl->privileged)
        cl->n_groups = acl_read_groups(cred.pid, cl->groups, ACL_MAX_GROUPS);
    INIT_LIST_HEAD(&cl->objects);
    INIT_LIST_HEAD(&cl->outq);
    INIT_LIST_HEAD(&cl->monitor_entry);
    /* Unknown accounts are turned away before HELLO, which their library reports as a
     * failed connection. */
    if (!resolve_names(cl, cred.gid) || !id_alloc(&clients_by_id, &cl->id, client_id_usable)) {
        free(cl->user);
        free(cl->group);
        free(cl);
        close(fd);
        return;
    }
    client_send(cl, UBUS_MSG_HELLO, 0, cl->id.id, &empty, -1);
    client_update_events(cl);
}

static void listener_cb(struct uloop_fd* u, unsigned int events) {
    (void)events;
    for (int i = 0; i < ACCEPT_BUDGET; i++) {
        int fd = accept4(u->fd, NULL, NULL, SOCK_NONBLOCK | SOCK_CLOEXEC);

        if (fd >= 0) {
            client_new(fd);
            continue;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return;
        /* Out of descriptors or memory: a level-triggered listener would spin, so pause. */
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            uloop_fd_delete(u);
            uloop_timeout_set(&listener_retry, ACCEPT_RETRY_MS);
            return;
        }
    }
}

static void listener_resume(struct uloop_timeout* t) {
    (void)t;
    uloop_fd_add(&listener, ULOOP_READ);
}

void listener_start(int fd) {
    listener.fd = fd;
    listener.cb = listener_cb;
    uloop_fd_add(&listener, ULOOP_READ);
}

void clients_init(void) {
    id_space_init(&clients_by_id);
    own_uid = geteuid();
    reaper.cb = reap_clients;
    listener_retry.cb = listener_resume;
}
