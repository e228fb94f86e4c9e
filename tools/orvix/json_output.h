#pragma once

#include <string>

// libubox declares its functions without C linkage; GoogleTest's headers must come before
// it (its __constructor macro breaks <cxxabi.h>).
extern "C" {
#include <libubox/blob.h>
}

namespace orvix {
namespace tool {

// The tool's JSON otherwise is the library's printer (orvix/blob/json.h); what follows is
// the tool's own: its signature and monitor lines.

/// One method entry of a signature as `list -v` prints it: `"name":{...}`, compact, with
/// every INT32 value replaced by the name of the value type it stands for ("Integer",
/// "String", ..., "(unknown)"); nothing for an invalid entry.
std::string format_signature_method(const blob_attr* method);

/// One MONITOR message as `monitor` prints it, without a final newline:
/// `-> 0000abcd #00000000         invoke: {...}`. `body` is the message's top attribute
/// (the one a monitor handler gets), holding the UBUS_MONITOR_* attributes; the observed
/// message's own attributes print in id order. "Invalid monitor msg" when CLIENT, PEER,
/// SEND, TYPE or DATA is missing or of the wrong size.
std::string format_monitor_report(const blob_attr* body);

/// The message type a MONITOR report carries, from the name `monitor -m` takes (hello,
/// status, data, ping, lookup, invoke, add_object, remove_object, subscribe, unsubscribe,
/// notify); -1 for any other name.
int monitor_type_from_name(const std::string& name);

} // namespace tool
} // namespace orvix
