#pragma once

#include "client/object_id_cache.h"

#include <libubus.h>

#include <orvix/blob/attr.h>
#include <orvix/client.h>
#include <orvix/misc/link_handler.h>
#include <orvix/misc/signal.h>
#include <orvix/utils/event_loop.h>
#include <orvix/utils/link.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <typeindex>
#include <utility>
#include <vector>

namespace orvix {

/// The one client of the process. Public operations, the handler lists and the
/// published objects belong to the caller's event loop; the bus context, the
/// requests handed to libubus and the registered objects belong to the loop thread,
/// where every `_sync` member runs. The two sides meet only through posted tasks.
class client_impl : public client {
public:
    class invoke_ctx;
    class object_ctx;
    class ubus_object_ctx;
    class exchange_ctx;
    class listener_ctx;
    class ubus_listener_ctx;
    struct wait_ctx;
    class subscription_ctx;
    class ubus_subscription_ctx;

    using error_handler = std::function<void(const std::error_code&)>;
    using error_handler_list = std::list<std::shared_ptr<error_handler>>;
    using invoke_handler =
        std::function<void(const std::list<blob::attr>&, const std::error_code&)>;
    using client::event_handler;
    using client::method_handler;
    using client::method_policy;
    using client::method_table;
    using client::notification_handler;

    static client_impl& get_instance(const std::weak_ptr<utils::event_loop>& eloop);

    explicit client_impl(const std::weak_ptr<utils::event_loop>& eloop);
    ~client_impl() override;

    client_impl(const client_impl&) = delete;
    client_impl& operator=(const client_impl&) = delete;

    utils::link connect(const error_handler& handler) override;
    utils::link
    auto_connect(const std::function<std::chrono::seconds(long long)>& backoff) override;
    utils::link disconnect(const error_handler& handler) override;
    utils::link notify_on_state_change(const std::function<void(state)>& handler) override;
    state get_state() const override;
    bool is_active() const override;
    utils::link invoke(const std::string& object, const std::string& method,
                       const std::multimap<std::string, blob::attr>& args,
                       const invoke_handler& handler, const std::chrono::seconds& timeout) override;
    utils::link add_object(const std::string& name, const method_table& methods,
                           const error_handler& handler) override;
    utils::link del_object(const std::string& name, bool keep,
                           const error_handler& handler) override;
    void cancel() override;
    void set_socket_path(const std::string& path) override;
    std::string get_socket_path() const override;
    utils::link send_event(const std::string& type,
                           const std::multimap<std::string, blob::attr>& data,
                           const error_handler& handler) override;
    utils::link listen(const std::string& pattern, const event_handler& handler) override;
    utils::link lookup(const std::string& pattern, const lookup_handler& handler) override;
    utils::link wait_for(const std::list<std::string>& paths, const error_handler& handler,
                         const std::chrono::seconds& timeout) override;
    utils::link subscribe(const std::string& path, const notification_handler& handler) override;
    utils::link notify(const std::string& name, const std::string& type,
                       const std::multimap<std::string, blob::attr>& data,
                       const error_handler& handler,
                       const std::chrono::milliseconds& timeout) override;
    utils::link notify_on_subscribers(const std::string& name,
                                      const std::function<void(bool)>& handler) override;

    void disable_auto_connect();

    /// The bound event loop; std::runtime_error once it has gone.
    utils::event_loop* get_eloop();
    /// Expires when the client is cancelled or destroyed.
    std::weak_ptr<void> get_tracker() const;

    /// Runs `fn` on the caller's event loop, unless the client has gone by then.
    void post(const std::function<void()>& fn);
    /// Runs `fn` on the loop thread.
    void post_to_uloop(std::function<void()>&& fn);
    /// Queues `fn` for the caller's event loop, from any thread.
    void schedule_task(std::function<void()>&& fn);
    /// Queues `fn` for the caller's event loop from the loop thread, subject to the
    /// drain hold.
    void post_from_uloop(std::function<void()>&& fn);
    void process_task_queue();

    /// The error code for a status that libubus reports.
    static std::error_code to_msg_error(int status);
    /// The status to send on the bus for the outcome of a served call.
    static int to_ubus_msg_status(const std::error_code& ec);

private:
    /// An invoke handed to libubus, on the loop thread.
    struct sent_invoke {
        std::shared_ptr<ubus_request> request;
        /// The call as sent, while the cache is in use: for the one more try, and for the
        /// path whose entry a "Not found" may show to be stale.
        retained_call call;
        /// The object id it is in flight through; 0 while it is not.
        std::uint32_t target = 0;
        /// Set once the removal of `target` has run while the invoke was in flight.
        bool target_removed = false;
        bool retried = false;
    };
    using request_map = std::map<ubus_request*, sent_invoke>;
    using registration_map = std::map<ubus_object*, std::shared_ptr<ubus_object_ctx>>;
    using object_map = std::map<ubus_object*, std::shared_ptr<object_ctx>>;
    using listener_registration_map =
        std::map<ubus_event_handler*, std::shared_ptr<ubus_listener_ctx>>;
    /// A notification waiting for its subscribers' answers, on the loop thread.
    struct active_notify {
        std::shared_ptr<ubus_notify_request> request;
        error_handler_list::iterator pos;
        std::weak_ptr<error_handler> handler;
    };
    using subscription_registration_map =
        std::map<ubus_subscriber*, std::shared_ptr<ubus_subscription_ctx>>;

    /// What went with a freed bus context: its requests and registered objects.
    struct freed_context {
        request_map requests;
        registration_map objects;
        listener_registration_map listeners;
        subscription_registration_map subscriptions;
        std::map<ubus_notify_request*, active_notify> notifies;
        /// Published objects that had subscribers: with the connection they have none.
        std::vector<std::string> subscribed;
    };

    /// Calls every subscriber of `handlers` with `args`, in subscription order. Each is
    /// called through a copy and found through a weak reference, so that handlers may add
    /// links or release any link, their own included, while being called.
    template <typename... Args>
    static void notify_all(misc::signal<void, Args...>& handlers, const Args&... args) {
        std::vector<std::weak_ptr<std::function<void(Args...)>>> weak(
            handlers.subscribers().begin(), handlers.subscribers().end());
        for (const auto& entry : weak) {
            std::function<void(Args...)> handler;
            if (const auto subscriber = entry.lock()) {
                handler = *subscriber;
            }
            if (handler) {
                handler(args...);
            }
        }
    }

    /// Calls `handler` with `args` from the task queue; the link cancels the call.
    template <typename... Args>
    utils::link schedule_result(const std::function<void(Args...)>& handler,
                                std::decay_t<Args>... args) {
        if (!handler) {
            return {};
        }
        auto wrapped = misc::link_handler(handler, false);
        schedule_task([call = std::move(wrapped.first), args...]() mutable { call(args...); });
        return wrapped.second;
    }

    // Connection.
    void connect_impl();
    void request_connection();
    void request_disconnect();
    void on_state_change(state s);
    void on_req_done(misc::signal<void, const std::error_code&>& done, state s,
                     const std::error_code& ec);
    void connect_sync(const std::string& path);
    void on_connect_done(bool connected);
    void disconnect_sync();
    void lost_context_sync(ubus_context* lost);
    void lose_context_sync();
    freed_context free_context_sync();
    void on_context_freed(const freed_context& freed);
    void on_disconnect_done();
    void on_connection_lost();
    /// Ends every pending operation with `ec`, as if it had never been asked for: the
    /// objects of pending adds are forgotten, those of pending removals stay published.
    void abandon_pending(const std::error_code& ec);
    /// The loop thread has stopped for good: everything pending and everything asked
    /// for later fails, and the client stays disconnected.
    void on_loop_failed(const freed_context& freed);
    /// The bus context when it can carry traffic, else null.
    ubus_context* live_context_sync() const;
    static void connection_lost_handler(ubus_context* ctx);

    // Invocation.
    void invoke_sync(const std::string& object, const std::string& method,
                     const std::multimap<std::string, blob::attr>& args,
                     const std::shared_ptr<ubus_request>& request, std::weak_ptr<invoke_ctx>& ctx);
    /// ubus_lookup_id, whose answer the cache keeps.
    int lookup_id_sync(ubus_context* bus, const std::string& path, std::uint32_t& id);
    /// Sends the call to `id` and lists it; libubus's status.
    int start_invoke_sync(ubus_context* bus, const std::shared_ptr<ubus_request>& request,
                          std::uint32_t id, const char* method, blob_attr* message,
                          retained_call&& call);
    /// Sends again, after a fresh lookup, a call the daemon found no object for.
    void retry_invoke_sync(const std::shared_ptr<ubus_request>& request);
    void on_object_removed_sync(std::uint32_t id);
    static void invoke_req_data_handler(ubus_request* req, int type, blob_attr* msg);
    static void invoke_req_done_handler(ubus_request* req, int ret);
    void on_invoke_reply(ubus_request* request, blob::attr&& reply, const std::error_code& ec);
    void on_invoke_done(ubus_request* request, const std::error_code& ec);
    /// The call is being sent again: what its first try brought is void.
    void on_invoke_retried(ubus_request* request);
    void on_invoke_timeout(ubus_request* request);
    enum class invoke_completion {
        plain,              ///< the handler gets `ec`
        with_replies_error, ///< a success becomes the first reply's decoding error
        handler_required    ///< an empty handler is called all the same
    };
    /// Ends a pending invoke: takes it out of the table, then calls its handler once.
    /// False when it had already ended.
    bool finish_invoke(ubus_request* request, const std::error_code& ec,
                       invoke_completion how = invoke_completion::plain);
    void cancel_invoke(const std::weak_ptr<invoke_ctx>& ctx);
    void abort_request_sync(const std::shared_ptr<ubus_request>& request);

    // Publishing and dispatch.
    void add_object_sync(const std::weak_ptr<object_ctx>& ctx,
                         const error_handler_list::iterator& handler_pos,
                         const std::weak_ptr<error_handler>& handler);
    void del_object_sync(const std::shared_ptr<object_ctx>& ctx,
                         const error_handler_list::iterator& handler_pos,
                         const std::weak_ptr<error_handler>& handler);
    std::error_code register_object_sync(const std::shared_ptr<object_ctx>& ctx);
    void register_published_objects();
    void on_object_added(const std::weak_ptr<object_ctx>& ctx, const std::error_code& ec);
    void on_object_deleted(const std::shared_ptr<object_ctx>& ctx, const std::error_code& ec);
    /// A removal cut short by the end of the connection: the object is forgotten or
    /// stays published, as del_object's `keep` asked.
    void settle_removal(const object_map::iterator& it);
    std::shared_ptr<object_ctx> find_published(const std::string& name) const;
    utils::link pending_handler_link(error_handler_list& list,
                                     const error_handler_list::iterator& pos);
    void finish_pending(error_handler_list& list, const error_handler_list::iterator& pos,
                        const std::weak_ptr<error_handler>& handler, const std::error_code& ec);
    static int method_callable(ubus_context* ctx, ubus_object* obj, ubus_request_data* req,
                               const char* method, blob_attr* msg);
    void dispatch(ubus_object* obj, const std::string& method,
                  std::multimap<std::string, blob::attr>&& args,
                  const std::shared_ptr<ubus_request_data>& request);
    /// Sends one reply of a served call, then reports the outcome to the pending send
    /// handler at `pos`, if it is still there.
    void send_reply_sync(const std::weak_ptr<void>& connection,
                         const std::shared_ptr<ubus_request_data>& request,
                         const std::multimap<std::string, blob::attr>& data,
                         const error_handler_list::iterator& pos,
                         const std::weak_ptr<error_handler>& handler);
    void complete_request_sync(const std::weak_ptr<void>& connection,
                               const std::shared_ptr<ubus_request_data>& request, int status);

    // Events.
    void send_event_sync(const std::string& type,
                         const std::multimap<std::string, blob::attr>& data,
                         const error_handler_list::iterator& pos,
                         const std::weak_ptr<error_handler>& handler);
    void stop_listening(listener_ctx* key);
    void listen_sync(const std::shared_ptr<ubus_listener_ctx>& registration);
    void register_listeners();
    static void event_callable(ubus_context* ctx, ubus_event_handler* ev, const char* type,
                               blob_attr* msg);

    // Discovery.
    static void lookup_callable(ubus_context* ctx, ubus_object_data* obj, void* priv);
    /// Ends a wait_for and calls its handler once with `ec`; nothing if it has ended.
    void finish_wait(wait_ctx* key, const std::error_code& ec);
    /// Ends a wait_for without calling its handler.
    void end_wait(wait_ctx* key);

    // Subscriptions and notifications.
    void unsubscribe(subscription_ctx* key);
    void subscribe_sync(const std::shared_ptr<ubus_subscription_ctx>& registration);
    void register_subscriptions();
    static bool new_object_callable(ubus_context* ctx, ubus_subscriber* sub, const char* path);
    static int notification_callable(ubus_context* ctx, ubus_object* obj, ubus_request_data* req,
                                     const char* type, blob_attr* msg);
    void dispatch_notification(const std::weak_ptr<subscription_ctx>& owner,
                               const std::string& type,
                               std::multimap<std::string, blob::attr>&& data,
                               const std::shared_ptr<ubus_request_data>& request);
    void notify_sync(const std::shared_ptr<ubus_object_ctx>& registration, const std::string& type,
                     const std::multimap<std::string, blob::attr>& data,
                     const std::shared_ptr<ubus_notify_request>& request, bool wait,
                     const error_handler_list::iterator& pos,
                     const std::weak_ptr<error_handler>& handler);
    static void notify_done_callable(ubus_notify_request* req, int idx, int ret);
    void abort_notify_sync(ubus_notify_request* request);
    static void subscribers_callable(ubus_context* ctx, ubus_object* obj);
    /// Tells the watchers of the published object `name` whether it has subscribers.
    void on_subscribers(const std::string& name, bool active);

    void run_loop();

    std::string prefix;
    std::weak_ptr<utils::event_loop> eloop;
    state current_state;
    misc::signal<void, state> state_handlers;
    misc::signal<void, const std::error_code&> connect_handlers;
    misc::signal<void, const std::error_code&> disconnect_handlers;
    std::mutex task_mutex;
    std::deque<std::function<void()>> task_queue;
    std::map<ubus_request*, std::shared_ptr<invoke_ctx>> pending_invokes;
    request_map active_requests;
    object_id_cache object_ids;
    error_handler_list add_handlers;
    error_handler_list del_handlers;
    error_handler_list send_handlers;
    error_handler_list event_handlers;
    error_handler_list lookup_handlers;
    error_handler_list notify_handlers;
    std::map<wait_ctx*, std::shared_ptr<wait_ctx>> waits;
    std::thread loop_thread;
    std::mutex gate_mutex;
    bool drain_hold;
    long long attempts;
    std::shared_ptr<utils::timer> reconnect_timer;
    std::shared_ptr<std::function<std::chrono::seconds(long long)>> backoff;
    ubus_context* bus_context;
    object_map published_objects;
    registration_map registered_objects;
    std::map<listener_ctx*, std::shared_ptr<listener_ctx>> listeners;
    listener_registration_map registered_listeners;
    std::map<subscription_ctx*, std::shared_ptr<subscription_ctx>> subscriptions;
    subscription_registration_map registered_subscriptions;
    std::map<ubus_notify_request*, active_notify> active_notifies;
    std::map<std::string, misc::signal<void, bool>> subscriber_watchers;
    std::shared_ptr<void> token;
    // Socket of later connection attempts; empty for libubus's default.
    std::string socket_path;
    // Held while connected; served calls watch it to know whether their connection
    // is still the one that delivered them.
    std::shared_ptr<void> connection;
    // Set once the loop thread has stopped for good.
    std::atomic<bool> loop_failed;
    // The liveness token as the loop thread knows it: what it posts back is dropped
    // once that token has gone, since cancel() has already ended what was pending.
    std::weak_ptr<void> epoch_sync;
};

} // namespace orvix
