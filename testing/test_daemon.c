#include "orvix_testing/test_daemon.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static void sleep_ms(long ms) {
    struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) < 0 && errno == EINTR)
        ;
}

static bool socket_accepts(const char* path) {
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool ok;

    if (fd < 0)
        return false;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path);
    ok = connect(fd, (struct sockaddr*)&addr, sizeof(addr)) == 0;
    close(fd);
    return ok;
}

static bool reap(struct test_daemon* d, long wait_ms) {
    for (long waited = 0; waited <= wait_ms; waited += 10) {
        pid_t r = waitpid(d->pid, NULL, WNOHANG);
        if (r == d->pid || (r < 0 && errno == ECHILD)) {
            d->pid = 0;
            return true;
        }
        sleep_ms(10);
    }
    return false;
}

int test_daemon_restart(struct test_daemon* d) {
    pid_t pid;

    if (d->pid)
        return -1;
    pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        execl(d->exe, d->exe, "-s", d->socket, "-A", d->acl_dir, (char*)NULL);
        _exit(127);
    }
    d->pid = pid;
    for (int i = 0; i < 1000; i++) {
        if (socket_accepts(d->socket))
            return 0;
        if (waitpid(pid, NULL, WNOHANG) == pid) {
            d->pid = 0;
            return -1;
        }
        sleep_ms(5);
    }
    test_daemon_kill(d);
    return -1;
}

int test_daemon_start(struct test_daemon* d, const char* exe) {
    memset(d, 0, sizeof(*d));
    d->exe = exe;
    snprintf(d->dir, sizeof(d->dir), "/tmp/orvix-test-XXXXXX");
    if (!mkdtemp(d->dir))
        return -1;
    snprintf(d->socket, sizeof(d->socket), "%s/ubus.sock", d->dir);
    snprintf(d->acl_dir, sizeof(d->acl_dir), "%s/acl.d", d->dir);
    if (test_daemon_restart(d) < 0) {
        rmdir(d->dir);
        return -1;
    }
    return 0;
}

void test_daemon_stop(struct test_daemon* d) {
    if (!d->pid)
        return;
    kill(d->pid, SIGTERM);
    if (!reap(d, 5000))
        test_daemon_kill(d);
}

void test_daemon_kill(struct test_daemon* d) {
    if (!d->pid)
        return;
    kill(d->pid, SIGKILL);
    reap(d, 10000);
}

void test_daemon_cleanup(struct test_daemon* d) {
    test_daemon_stop(d);
    if (d->socket[0])
        unlink(d->socket);
    if (d->dir[0])
        rmdir(d->dir);
}

bool test_daemon_running(struct test_daemon* d) {
    if (!d->pid)
        return false;
    if (waitpid(d->pid, NULL, WNOHANG) == d->pid) {
        d->pid = 0;
        return false;
    }
    return true;
}
