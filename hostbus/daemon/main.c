/* orvix-ubusd: command line, listening socket, signals and the main loop. */
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ubusd.h"

#define ACL_DIR_DEFAULT "/usr/share/acl.d"

static const char* acl_dir = ACL_DIR_DEFAULT;

static void reload_acl(struct uloop_signal* s) {
    (void)s;
    acl_load(acl_dir);
}

static struct uloop_signal hangup = {.signo = SIGHUP, .cb = reload_acl};

static void usage(const char* prog) {
    fprintf(stderr,
            "Usage: %s [<options>]\n"
            "Options:\n"
            "  -A <path>:\t\tSet the path to ACL files\n"
            "  -s <socket>:\t\tSet the unix domain socket to listen on\n"
            "\n",
            prog);
}

/* The default location's directory is made whatever -s says; a socket given with -s
 * lives in a directory its caller provides. */
static void create_default_dir(void) {
    char dir[] = UBUS_UNIX_SOCKET;
    char* slash = strrchr(dir, '/');

    if (!slash || slash == dir)
        return;
    *slash = '\0';
    mkdir(dir, 0755);
}

static int listen_socket(const char* path) {
    struct sockaddr_un addr = {.sun_family = AF_UNIX};
    int fd;

    if (strlen(path) >= sizeof(addr.sun_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    strcpy(addr.sun_path, path);
    unlink(path);
    /* Any local user may connect; access is decided per client. */
    umask(0111);
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, (struct sockaddr*)&addr, sizeof(addr)) < 0 || listen(fd, SOMAXCONN) < 0) {
        int err = errno;

        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int main(int argc, char** argv) {
    const char* path = UBUS_UNIX_SOCKET;
    int fd, opt;

    while ((opt = getopt(argc, argv, "A:s:")) != -1) {
        switch (opt) {
        case 's':
            path = optarg;
            break;
        case 'A':
            acl_dir = optarg;
            break;
        default:
            usage(argv[0]);
            return 1;
        }
    }

    signal(SIGPIPE, SIG_IGN);

    if (id_init() < 0 || uloop_init() < 0 || blob_buf_init(&msg_buf, 0) < 0) {
        fprintf(stderr, "orvix-ubusd: initialisation failed: %s\n", strerror(errno));
        return 1;
    }
    /* The rules are there before the first client is. */
    uloop_signal_add(&hangup);
    acl_load(acl_dir);
    create_default_dir();
    fd = listen_socket(path);
    if (fd < 0) {
        fprintf(stderr, "usock: %s\n", strerror(errno));
        return 255;
    }
    clients_init();
    objects_init();
    listener_start(fd);
    uloop_run();
    unlink(path);
    return 0;
}
