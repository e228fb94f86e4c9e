// orvix: the device's ubus command-line tool for this bus, with its commands, options,
// output and exit statuses.
//
//   orvix [-s SOCKET] [-t SECONDS] [-S] [-v] [-m TYPE]... [-M r|t] COMMAND [ARGUMENTS...]
//
// It is written on the libubus C API rather than on liborvix, because it has to print
// members in the order they came, signatures as they are and the daemon's monitor
// reports.

#include <orvix/version.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string>

#include <libubus.h>

#include "commands.h"
#include "json_output.h"

namespace {

using orvix::tool::settings;

void print_usage(std::FILE* to, const char* self) {
    std::fprintf(to,
                 "Usage: %s [<options>] <command> [arguments...]\n"
                 "Options:\n"
                 " -s <socket>:\t\tSet the unix domain socket to connect to\n"
                 " -t <timeout>:\t\tSet the timeout (in seconds) for a command to complete\n"
                 " -S:\t\t\tUse simplified output (for scripts)\n"
                 " -v:\t\t\tMore verbose output\n"
                 " -m <type>:\t\t(for monitor): include a specific message type\n"
                 "\t\t\t(can be used more than once)\n"
                 " -M <r|t>\t\t(for monitor): only capture received or transmitted traffic\n"
                 "\n"
                 "Commands:\n"
                 " - list [<path>]\t\t\tList objects\n"
                 " - call <path> <method> [<message>]\tCall an object method\n"
                 " - subscribe <path> [<path>...]\tSubscribe to object(s) notifications\n"
                 " - listen [<path>...]\t\t\tListen for events\n"
                 " - send <type> [<message>]\t\tSend an event\n"
                 " - wait_for <object> [<object>...]\tWait for multiple objects to appear on "
                 "ubus\n"
                 " - monitor\t\t\t\tMonitor ubus traffic\n"
                 "\n",
                 self);
}

// The device tool has no long options; these two are answered before getopt would call
// them invalid. -1: neither was asked for.
int answer_help_or_version(int argc, char** argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; ++i) {
        if (std::strcmp(argv[i], "--help") == 0) {
            print_usage(stdout, argv[0]);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("orvix %s\n", orvix::version::get_string().c_str());
            return 0;
        }
    }
    return -1;
}

// False for a value the device tool refuses: an unknown -m type, an -M that does not
// start with r or t.
bool take_option(settings& s, int option, const char* value) {
    switch (option) {
    case 's':
        s.socket = value;
        return true;
    case 't':
        s.timeout = std::atoi(value);
        return true;
    case 'S':
        s.simple = true;
        return true;
    case 'v':
        ++s.verbose;
        return true;
    case 'm': {
        const int type = orvix::tool::monitor_type_from_name(value);
        if (type < 0 || type >= 32) {
            return false;
        }
        s.filter.types |= std::uint32_t{1} << type;
        return true;
    }
    case 'M':
        // Only the first character counts: "-M rx" is accepted.
        if (value[0] != 'r' && value[0] != 't') {
            return false;
        }
        s.filter.direction = value[0] == 't' ? 1 : 0;
        return true;
    default:
        return false;
    }
}

using command = int (*)(settings&, int, char**);

command find_command(const char* name) {
    static const struct {
        const char* name;
        command run;
    } commands[] = {
        {"list", orvix::tool::list},           {"call", orvix::tool::call},
        {"subscribe", orvix::tool::subscribe}, {"listen", orvix::tool::listen},
        {"send", orvix::tool::send},           {"wait_for", orvix::tool::wait_for},
        {"monitor", orvix::tool::monitor},
    };
    for (const auto& c : commands) {
        if (std::strcmp(c.name, name) == 0) {
            return c.run;
        }
    }
    return nullptr;
}

} // namespace

int main(int argc, char** argv) {
    const char* self = argv[0];
    if (const int answered = answer_help_or_version(argc, argv); answered >= 0) {
        return answered;
    }

    settings s;
    for (int option; (option = getopt(argc, argv, "m:M:vs:t:S")) != -1;) {
        if (!take_option(s, option, optarg)) {
            print_usage(stderr, self);
            return 1;
        }
    }
    argc -= optind;
    argv += optind;
    if (argc < 1) {
        print_usage(stderr, self);
        return 1;
    }

    // The device tool connects before it looks at the command: an unknown command on an
    // unreachable bus fails to connect.
    s.ctx = ubus_connect(s.socket);
    if (!s.ctx) {
        if (!s.simple) {
            std::fprintf(stderr, "Failed to connect to ubus\n");
        }
        return -1;
    }

    const command run = find_command(argv[0]);
    const int ret = run ? run(s, argc - 1, argv + 1) : orvix::tool::usage_error;
    if (ret > 0 && !s.simple) {
        std::fprintf(stderr, "Command failed: %s\n", ubus_strerror(ret));
    } else if (ret == orvix::tool::usage_error) {
        print_usage(stderr, self);
    }
    ubus_free(s.ctx);
    return ret;
}
