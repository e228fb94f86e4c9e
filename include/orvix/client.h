#pragma once

#include <orvix/blob/attr.h>
#include <orvix/utils/event_loop.h>
#include <orvix/utils/link.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <typeindex>
#include <utility>

namespace orvix {

/// The process's one client of the ubus bus.
///
/// Every operation is called on the program's event loop (the one given to the first
/// get_instance), and every handler runs there later: never inside the call that
/// registered it, at most once for a completion handler, and not at all once the link
/// returned for it has been released. Bus outcomes reach handlers as std::error_code in
/// the categories of <orvix/error.h>; they are never thrown. A handler may release its own
/// link, or let a scoped_link holding it go, while it runs.
///
/// Signals and children stay the program's. libubox's uloop_init, which libubus runs on
/// every connection, installs handlers for SIGINT, SIGTERM and SIGCHLD and ignores
/// SIGPIPE wherever the program left the default; the client puts back every disposition
/// right after each such call, and never reaps children. What remains is the short moment
/// inside a connection attempt: a SIGINT or SIGTERM arriving just then stops the client's
/// loop thread (see below), and SIGPIPE or SIGCHLD arriving then is ignored.
///
/// Should the client's loop thread ever stop (work on it threw, or the program's event
/// loop is gone), every pending handler and every later one completes with an error:
/// invokes, adds, removals and sends with "Connection failed", connects with the generic
/// "Unknown error"; the state is then disconnected for good.
class client {
public:
    /// Connection state.
    enum class state : std::uint32_t {
        disconnected = 0, ///< no connection; the initial state
        connecting = 1,   ///< a connection attempt is under way
        connected = 2,    ///< connected; is_active() is true only here
        disconnecting = 3 ///< the connection is being closed
    };

    /// The context of one call of a published method. The method's handler reads the
    /// call's arguments, sends zero or more replies with send(), and completes the call
    /// with respond(), now or later. Dropping the last reference without respond()
    /// completes the call with success.
    class exchange_ctx {
    public:
        explicit exchange_ctx(std::multimap<std::string, blob::attr>&& args);
        virtual ~exchange_ctx();

        /// True once the call was answered, or its connection is gone.
        virtual bool expired() const = 0;

        /// Sends one reply message. `handler` gets the outcome (value 10, "Connection
        /// failed", when the call can no longer be answered).
        virtual utils::link send(const std::multimap<std::string, blob::attr>& data,
                                 const std::function<void(const std::error_code&)>& handler) = 0;

        /// Completes the call with `status`; later calls do nothing.
        virtual void respond(const std::error_code& status) = 0;

        /// Runs `then` with this context on the program's event loop once `delay` has
        /// passed, holding the context, and so the call, open until then: the call is
        /// answered later with no context or timer to keep. `then` runs once, or never if
        /// the link is released first, which lets the context go (the last reference
        /// dropped answers success). If the connection goes meanwhile, `then` still runs
        /// and finds the context expired().
        virtual utils::link
        after(std::chrono::milliseconds delay,
              const std::function<void(const std::shared_ptr<exchange_ctx>&)>& then) = 0;

        /// False exactly when expired().
        explicit operator bool() const { return !expired(); }

        /// The decoded arguments of the call.
        std::multimap<std::string, blob::attr> args;
    };

    /// Serves one call of a published method.
    using method_handler = std::function<void(const std::shared_ptr<exchange_ctx>&)>;
    /// A method's arguments: name to the value type it must carry (a value kind of
    /// blob::attr); empty to take every argument as sent.
    using method_policy = std::multimap<std::string, std::type_index>;
    /// A published object's methods: name to handler and policy.
    using method_table = std::map<std::string, std::pair<method_handler, method_policy>>;

    /// The process-wide client, bound for life to the first live event loop given.
    /// Later calls may pass an empty pointer. Throws std::runtime_error when the first
    /// loop is missing or expired, or when a different live loop is given later.
    static client& get_instance(const std::weak_ptr<utils::event_loop>& eloop);

    virtual ~client() = default;

    /// Connects once; ends automatic reconnection. `handler` gets success, or the
    /// generic "Unknown error" when the daemon cannot be reached.
    virtual utils::link connect(const std::function<void(const std::error_code&)>& handler) = 0;

    /// Connects now and again after every loss or failed attempt, waiting
    /// backoff(attempt) first (attempts counted from 1, reset once connected). A delay
    /// below one second ends reconnection. Releasing the link ends it too.
    virtual utils::link
    auto_connect(const std::function<std::chrono::seconds(long long)>& backoff) = 0;

    /// Disconnects; ends automatic reconnection.
    virtual utils::link disconnect(const std::function<void(const std::error_code&)>& handler) = 0;

    /// Calls `handler` with every change of state until the link is released.
    virtual utils::link notify_on_state_change(const std::function<void(state)>& handler) = 0;

    virtual state get_state() const = 0;

    /// True while connected.
    virtual bool is_active() const = 0;

    /// Calls `method` of the remote `object` with `args`. `handler` gets every reply
    /// (each a table) and the final status once; a `timeout` of zero waits for ever.
    /// Invokes still pending when the connection goes complete with an error: "Request
    /// timed out" when the connection is lost (as libubus reports requests outstanding
    /// on a lost connection), "Connection failed" after disconnect(), the generic
    /// "Aborted" after cancel().
    ///
    /// The id of `object` is looked up once per connection and kept until the daemon
    /// announces the object's removal (a path ending in '*' is looked up every time). A call
    /// that reaches the daemon after its object was removed, which no method can have run,
    /// is sent once more after a fresh lookup, within the same timeout, and `handler` gets
    /// only that outcome. One case is left: an announcement that this client cannot hear
    /// in time, because its loop thread is inside a synchronous bus call when the answer
    /// comes (such as publishing or removing an object, or a lookup), or because the
    /// daemon dropped it from a queue this client had let fill up, gives "Not found", the
    /// answer any call gets while a service restarts; the next call looks the object up.
    virtual utils::link
    invoke(const std::string& object, const std::string& method,
           const std::multimap<std::string, blob::attr>& args,
           const std::function<void(const std::list<blob::attr>&, const std::error_code&)>& handler,
           const std::chrono::seconds& timeout) = 0;

    /// Publishes an object under `name`: method name to its handler and its argument
    /// policy (argument name to the value type it must carry). A method with an empty
    /// policy gets every argument as sent. Against a policy, an argument of another type
    /// is left out (the handler runs without it), while a message libubox cannot parse,
    /// which includes one with no arguments at all, is refused with "Parsing message data
    /// failed" and the handler does not run. An object stays published
    /// until del_object: when the connection is lost it is registered again after the
    /// next connection. An add_object that fails (for instance while disconnected,
    /// "Connection failed") leaves nothing behind and may be retried.
    virtual utils::link add_object(const std::string& name, const method_table& methods,
                                   const std::function<void(const std::error_code&)>& handler) = 0;

    /// Withdraws the object `name`. `keep` decides only what happens when the connection
    /// ends before the removal is done: with `keep` true the object stays published and
    /// is registered again after the next connection; with `keep` false it is forgotten.
    /// An object that is published but not on the bus when the removal reaches it (a
    /// new connection has not registered it yet) answers "Not found" and is withdrawn
    /// all the same. cancel() aborts pending removals: their objects stay published.
    virtual utils::link del_object(const std::string& name, bool keep,
                                   const std::function<void(const std::error_code&)>& handler) = 0;

    /// Aborts everything pending and disconnects; the client stays usable. Handlers
    /// get the generic "Aborted", and aborted means not done: an object whose add was
    /// pending is forgotten (not served, not registered again, its name free at once),
    /// and an object whose removal was pending stays published and is registered again
    /// after the next connection. Pending disconnects are told they succeeded.
    virtual void cancel() = 0;

    /// Chooses the bus socket used by later connection attempts; an empty path means
    /// libubus's default socket.
    virtual void set_socket_path(const std::string& path) = 0;

    /// The socket chosen with set_socket_path; empty for the default.
    virtual std::string get_socket_path() const = 0;

    /// Receives events: their type and data.
    using event_handler = std::function<void(const std::string& type,
                                             const std::multimap<std::string, blob::attr>& data)>;

    /// Sends the event `type` with `data` to every listener of the bus whose pattern
    /// matches, except this client's own. `handler` gets the daemon's answer: success
    /// (also when nobody listens), "Permission denied" for a type beginning with "ubus."
    /// (the daemon's own events), "Connection failed" while not connected.
    virtual utils::link send_event(const std::string& type,
                                   const std::multimap<std::string, blob::attr>& data,
                                   const std::function<void(const std::error_code&)>& handler) = 0;

    /// Calls `handler` with every event whose type matches `pattern`, until the link is
    /// released. A pattern ending in '*' matches every type that begins with the rest
    /// ("*" matches all), any other pattern that type exactly. The daemon's own events
    /// ("ubus.object.add", "ubus.object.remove") reach listeners too, this client's own
    /// events do not. Like a published object, a listener is registered again after every
    /// new connection and stays through cancel(); events sent while it is not registered
    /// are missed. Throws std::invalid_argument for an empty pattern.
    virtual utils::link listen(const std::string& pattern, const event_handler& handler) = 0;

    /// An object on the bus.
    struct object_info {
        std::string path;
        std::uint32_t id = 0;
        /// Method name to its arguments, in the form add_object takes them; an argument
        /// of a blobmsg type without a value kind of its own is given as the kind it is
        /// read into (a cast to 64 bits as unsigned long long, an 8-bit one as bool).
        std::map<std::string, method_policy> methods;
    };
    using lookup_handler =
        std::function<void(const std::list<object_info>& objects, const std::error_code& ec)>;

    /// Lists the objects whose path matches `pattern` (a trailing '*' matches every path
    /// that begins with the rest, "*" all), in ascending byte order of their paths.
    /// `handler` gets them and the daemon's status: "Not found" when none matches,
    /// "Invalid argument" for an empty pattern, "Connection failed" while not connected.
    virtual utils::link lookup(const std::string& pattern, const lookup_handler& handler) = 0;

    /// Waits until an object is published under each of `paths`. `handler` gets success
    /// once they all are (at once if they are already), "Request timed out" if `timeout`
    /// (not zero) passes first, and "Connection failed" if the client is not connected
    /// or the connection ends first.
    virtual utils::link wait_for(const std::list<std::string>& paths,
                                 const std::function<void(const std::error_code&)>& handler,
                                 const std::chrono::seconds& timeout) = 0;

    /// Receives one notification: its type, and a context whose args are its data and
    /// through which it may be answered (send, respond) as a served call is; dropping the
    /// context answers success.
    using notification_handler = std::function<void(
        const std::string& type, const std::shared_ptr<exchange_ctx>& notification)>;

    /// Calls `handler` with every notification of the object published under `path`,
    /// until the link is released: from when the object is there, and again each time it
    /// is published anew, also after this client's own reconnections. Objects of this
    /// client cannot be subscribed to.
    virtual utils::link subscribe(const std::string& path, const notification_handler& handler) = 0;

    /// Sends the notification `type` with `data` to the subscribers of this client's
    /// published object `name`. With a negative `timeout` it is sent without asking for
    /// answers, and `handler` gets success once it is out; with zero `handler` gets
    /// success once every subscriber has answered, however long that takes; with a
    /// positive one "Request timed out" if they have not all answered by then (to the
    /// millisecond, unless the event loop's timers count whole seconds: then rounded up).
    /// "Not found" when `name` is not on the bus, "Connection failed" while not connected.
    /// A notification still waiting for answers when the connection goes completes as a
    /// pending invoke does. The subscribers' answers themselves are not reported, as with libubus's
    /// ubus_notify; libubus waits for the first 16 subscribers only.
    virtual utils::link notify(const std::string& name, const std::string& type,
                               const std::multimap<std::string, blob::attr>& data,
                               const std::function<void(const std::error_code&)>& handler,
                               const std::chrono::milliseconds& timeout) = 0;

    /// Calls `handler` with true when the published object `name` gets its first
    /// subscriber and with false when it has none any more (also when the connection
    /// goes, which takes every subscription with it), until the link is released.
    /// It may be registered before the object is published and outlives its removal.
    virtual utils::link notify_on_subscribers(const std::string& name,
                                              const std::function<void(bool)>& handler) = 0;
};

} // namespace orvix
