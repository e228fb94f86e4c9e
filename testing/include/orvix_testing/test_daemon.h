/* A bus daemon on a private socket, owned by a test. */
#ifndef ORVIX_TESTING_TEST_DAEMON_H
#define ORVIX_TESTING_TEST_DAEMON_H

#include <stdbool.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

struct test_daemon {
    const char* exe; /* the daemon's executable */
    pid_t pid;       /* 0 while not running */
    char dir[64];    /* private directory holding the socket */
    char socket[96];
    char acl_dir[96]; /* never created: no access rules, whatever the machine has */
};

/* Creates a private directory and starts `exe -s <dir>/ubus.sock -A <dir>/acl.d`; returns once the
 * socket accepts connections. Returns 0, or -1 with nothing left running. */
int test_daemon_start(struct test_daemon* d, const char* exe);

/* Starts the daemon again on the same socket after a stop or kill. */
int test_daemon_restart(struct test_daemon* d);

/* SIGTERM and wait (SIGKILL after a few seconds). No-op when not running. */
void test_daemon_stop(struct test_daemon* d);

/* SIGKILL and wait: the daemon vanishes without cleaning up. */
void test_daemon_kill(struct test_daemon* d);

/* Stops the daemon and removes its socket and directory. */
void test_daemon_cleanup(struct test_daemon* d);

/* True while the daemon process runs. */
bool test_daemon_running(struct test_daemon* d);

#ifdef __cplusplus
}
#endif

#endif
