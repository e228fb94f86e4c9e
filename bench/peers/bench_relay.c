/* The floor of any bus daemon: a relay that only copies bytes between a caller's
 * connection and a service's, with the caller and service speaking a trivial
 * request/response of the sizes one ubus call puts on the wire.
 *   bench_relay CALLS INFLIGHT
 * prints "calls_per_s". The relay and the service run as processes of their own, as the
 * daemon and the service do. */
#define _GNU_SOURCE
#include <orvix_testing/wire.h>

#include "bench_message.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

/* ubus message header, and an attribute holding one 32-bit id or status. */
#define HDR_LEN 8
#define U32_ATTR_LEN 8

static size_t request_len, data_len, status_len;

/* Sizes of the invoke, the reply data and the status message of one benchmark call. */
static void measure_messages(void) {
    struct blob_buf b = {0};
    size_t body;

    bench_message(&b);
    body = blob_raw_len(b.head);
    blob_buf_free(&b);
    /* invoke: object id, method name "echo", data */
    request_len = HDR_LEN + sizeof(struct blob_attr) + U32_ATTR_LEN + BLOB_ATTR_ALIGN +
                  sizeof(struct blob_attr) + body + sizeof(struct blob_attr);
    /* data: object id, data */
    data_len = HDR_LEN + sizeof(struct blob_attr) + U32_ATTR_LEN + body + sizeof(struct blob_attr);
    /* status: status, object id */
    status_len = HDR_LEN + sizeof(struct blob_attr) + 2 * U32_ATTR_LEN;
}

static void relay(int a, int b) {
    struct epoll_event ev = {.events = EPOLLIN}, got[2];
    char buf[65536];
    const int ep = epoll_create1(0);

    ev.data.fd = a;
    epoll_ctl(ep, EPOLL_CTL_ADD, a, &ev);
    ev.data.fd = b;
    epoll_ctl(ep, EPOLL_CTL_ADD, b, &ev);
    for (;;) {
        const int n = epoll_wait(ep, got, 2, -1);

        for (int i = 0; i < n; i++) {
            const int from = got[i].data.fd, to = from == a ? b : a;
            const ssize_t r = read(from, buf, sizeof(buf));

            if (r <= 0 || wire_write_all(to, buf, (size_t)r) < 0)
                _exit(0);
        }
    }
}

static void serve(int fd) {
    char buf[4096];

    for (;;) {
        if (wire_read_all(fd, buf, request_len) < 0 || wire_write_all(fd, buf, data_len) < 0 ||
            wire_write_all(fd, buf, status_len) < 0)
            _exit(0);
    }
}

static double now_s(void) {
    struct timespec ts;

    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int main(int argc, char** argv) {
    int to_caller[2], to_service[2];
    pid_t relay_pid, service_pid;
    long calls, inflight, sent = 0;
    char buf[4096] = {0};
    double begin;

    if (argc != 3)
        return 2;
    calls = atol(argv[1]);
    inflight = atol(argv[2]);
    measure_messages();
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, to_caller) < 0 ||
        socketpair(AF_UNIX, SOCK_STREAM, 0, to_service) < 0)
        return 1;
    relay_pid = fork();
    if (relay_pid == 0) {
        close(to_caller[0]);
        close(to_service[0]);
        relay(to_caller[1], to_service[1]);
    }
    service_pid = fork();
    if (service_pid == 0) {
        close(to_caller[0]);
        close(to_caller[1]);
        close(to_service[1]);
        serve(to_service[0]);
    }
    close(to_caller[1]);
    close(to_service[0]);
    close(to_service[1]);

    begin = now_s();
    for (; sent < inflight && sent < calls; sent++)
        if (wire_write_all(to_caller[0], buf, request_len) < 0)
            return 1;
    for (long done = 0; done < calls; done++) {
        if (wire_read_all(to_caller[0], buf, data_len + status_len) < 0)
            return 1;
        if (sent < calls) {
            if (wire_write_all(to_caller[0], buf, request_len) < 0)
                return 1;
            sent++;
        }
    }
    printf("%.1f\n", (double)calls / (now_s() - begin));
    close(to_caller[0]);
    kill(relay_pid, SIGTERM);
    kill(service_pid, SIGTERM);
    waitpid(relay_pid, NULL, 0);
    waitpid(service_pid, NULL, 0);
    return 0;
}
