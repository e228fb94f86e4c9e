#pragma once

// The commands of the orvix tool. Each takes the arguments that follow its name and
// returns what main makes of it, as the device's ubus tool does: 0 for success, a
// positive ubus status that main reports as "Command failed: ...", -2 for a usage error,
// and any other value as the exit status without a word.

#include <cstdint>
#include <optional>

struct blob_attr;
struct ubus_context;

namespace orvix {
namespace tool {

/// Which MONITOR reports `monitor` prints (-m and -M).
struct monitor_filter {
    std::uint32_t types = 0; ///< bit n set: message type n; none set: every type
    int direction = -1;      ///< SEND value of the reports to print; -1: both
};

/// What the options ask of every command.
struct settings {
    const char* socket = nullptr; ///< -s; null: libubus's default
    ubus_context* ctx = nullptr;
    int timeout = 30;    ///< seconds, -t taken through atoi
    bool simple = false; ///< -S: compact output, no messages on stderr
    int verbose = 0;     ///< number of -v
    monitor_filter filter;
};

/// The status main turns into the usage text and exit status 254.
constexpr int usage_error = -2;

int list(settings& s, int argc, char** argv);
int call(settings& s, int argc, char** argv);
int listen(settings& s, int argc, char** argv);
int send(settings& s, int argc, char** argv);
int subscribe(settings& s, int argc, char** argv);
int wait_for(settings& s, int argc, char** argv);
int monitor(settings& s, int argc, char** argv);

/// `seconds` in milliseconds, wrapped to an int as the device's arithmetic wraps it.
int milliseconds(int seconds);

/// Runs the event loop on `ctx`'s connection until SIGTERM or SIGINT, or until
/// `timeout_ms` has passed (a negative one at once).
void run_loop(ubus_context* ctx, std::optional<int> timeout_ms);

/// The limit of listen and subscribe: -t 0 means none.
inline std::optional<int> loop_limit(int seconds) {
    return seconds != 0 ? std::optional<int>(milliseconds(seconds)) : std::nullopt;
}

/// Prints `{ "<name>": <data> }` for an event or a notification and flushes it at once,
/// for a reader that follows the stream.
void print_delivery(const char* name, const blob_attr* data);

} // namespace tool
} // namespace orvix
