/* The daemon's handling of one client: the input is everything the client sends. The
 * client is torn down before the next input, so whatever it leaves behind is a leak. */
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ubusd.h"

/* Far longer than any input takes; reaching it means the daemon holds on to the client. */
#define STUCK_MS 10000

struct peer {
    struct uloop_fd sock;
    const uint8_t* data;
    size_t left;
};

static void stuck(struct uloop_timeout* t) {
    (void)t;
    fprintf(stderr, "daemon_stream: the daemon did not let go of the client\n");
    abort();
}

/* Writes the input as the socket takes it, reads whatever the daemon answers, and ends
 * the loop once the daemon has closed its side: the client is then freed. */
static void peer_cb(struct uloop_fd* u, unsigned int events) {
    struct peer* p = container_of(u, struct peer, sock);
    char sink[4096];
    ssize_t n;

    if ((events & ULOOP_WRITE) && p->left) {
        n = send(u->fd, p->data, p->left, MSG_NOSIGNAL);
        if (n > 0) {
            p->data += n;
            p->left -= (size_t)n;
        } else if (errno != EAGAIN && errno != EINTR) {
            p->left = 0;
        }
        if (!p->left) {
            shutdown(u->fd, SHUT_WR);
            uloop_fd_add(u, ULOOP_READ);
        }
    }
    for (;;) {
        n = recv(u->fd, sink, sizeof(sink), MSG_DONTWAIT);
        if (n > 0)
            continue;
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
            uloop_end();
        return;
    }
}

int LLVMFuzzerInitialize(int* argc, char*** argv) {
    (void)argc;
    (void)argv;
    signal(SIGPIPE, SIG_IGN);
    if (id_init() < 0 || uloop_init() < 0 || blob_buf_init(&msg_buf, 0) < 0) {
        perror("daemon_stream: initialisation");
        exit(1);
    }
    clients_init();
    objects_init();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    struct peer p = {.sock.cb = peer_cb, .data = data, .left = size};
    struct uloop_timeout guard = {.cb = stuck};
    int sv[2];

    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, sv) < 0) {
        perror("daemon_stream: socketpair");
        abort();
    }
    client_new(sv[0]);
    p.sock.fd = sv[1];
    if (!size)
        shutdown(sv[1], SHUT_WR);
    uloop_fd_add(&p.sock, size ? ULOOP_READ | ULOOP_WRITE : ULOOP_READ);
    uloop_timeout_set(&guard, STUCK_MS);
    uloop_run();
    uloop_timeout_cancel(&guard);
    uloop_fd_delete(&p.sock);
    close(sv[1]);
    return 0;
}
