#pragma once

#include <orvix/misc/unix_signal_actions.h>

#include <csignal>

namespace orvix {

/// Saves the dispositions of the signals that libubox's uloop_init takes over: SIGINT,
/// SIGTERM, SIGCHLD and SIGPIPE. uloop_init takes them again on every call, and libubus
/// calls it on every connection, so each such call is wrapped in a save and a restore.
inline misc::unix_signal_actions save_uloop_signals() {
    misc::unix_signal_actions actions;
    actions.set(SIGINT, SIGTERM, SIGCHLD, SIGPIPE);
    return actions;
}

} // namespace orvix
