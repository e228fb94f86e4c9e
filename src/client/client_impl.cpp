#include "client/client_impl.h"
#include "error/status_mapping.h"

#include <orvix/misc/link_handler.h>
#include <orvix/uloop.h>

#include <cstdint>
#include <stdexcept>
#include <utility>

namespace orvix {

client_impl& client_impl::get_instance(const std::weak_ptr<utils::event_loop>& eloop) {
    static client_impl instance(eloop);
    const auto requested = eloop.lock();
    if (!requested) {
        return instance;
    }
    const auto bound = instance.eloop.lock();
    if (!bound || bound != requested) {
        throw std::runtime_error(instance.prefix + "Instance of event loop can't be changed");
    }
    return instance;
}

client_impl::client_impl(const std::weak_ptr<utils::event_loop>& eloop)
    : prefix("orvix_impl::client: "), eloop(eloop), current_state(state::disconnected),
      object_ids([this](std::uint32_t id) { on_object_removed_sync(id); }), drain_hold(true),
      attempts(0), bus_context(nullptr), loop_failed(false) {
    reconnect_timer = get_eloop()->make_timer();
    token = std::make_shared<char>(0);
    epoch_sync = token;
    if (eloop.expired()) {
        throw std::runtime_error(prefix + "Missing/expired event loop");
    }
    reconnect_timer->wait([this] { connect_impl(); });
    // A loop left running by an earlier owner is stopped before this client's thread
    // takes it over.
    uloop::get_instance().exit();
    loop_thread = std::thread([this] { run_loop(); });
}

client_impl::~client_impl() {
    std::atomic_store(&token, std::shared_ptr<void>());
    uloop::get_instance().post([this] {
        if (bus_context) {
            uloop_fd_delete(&bus_context->sock);
            ubus_free(bus_context);
            bus_context = nullptr;
        }
        uloop::get_instance().exit();
    });
    loop_thread.join();
}

void client_impl::run_loop() {
    try {
        uloop::get_instance().run();
        return;
    } catch (...) {
        // Not rethrown: an exception leaving this thread would end the process.
    }
    // The loop has gone, and with it whatever work it had not run yet. Nothing else
    // touches the bus from now on, so the context is freed here, and the caller's side
    // ends everything still pending, since no result will ever come for it.
    freed_context freed = free_context_sync();
    loop_failed = true;
    try {
        schedule_task([this, freed] { on_loop_failed(freed); });
    } catch (...) {
        // The program's event loop has gone: no handler can run any more.
    }
}

utils::event_loop* client_impl::get_eloop() {
    const auto loop = eloop.lock();
    if (!loop) {
        throw std::runtime_error(prefix + "No event loop");
    }
    return loop.get();
}

std::weak_ptr<void> client_impl::get_tracker() const {
    return token;
}

void client_impl::post(const std::function<void()>& fn) {
    // Called from the loop thread too, while cancel() may replace the token.
    const auto current = std::atomic_load(&token);
    if (!current) {
        return;
    }
    get_eloop()->post(misc::tie_handler(fn, current));
}

void client_impl::post_to_uloop(std::function<void()>&& fn) {
    {
        std::lock_guard<std::mutex> lock(gate_mutex);
        if (drain_hold) {
            drain_hold = false;
            post([this] { process_task_queue(); });
        }
    }
    if (loop_failed) {
        // Whatever asked for this work is pending on the caller's side; it fails there.
        schedule_task([this] { on_loop_failed({}); });
        return;
    }
    uloop::get_instance().post(std::move(fn));
}

void client_impl::schedule_task(std::function<void()>&& fn) {
    bool was_empty = false;
    {
        std::lock_guard<std::mutex> lock(task_mutex);
        was_empty = task_queue.empty();
        task_queue.push_back(std::move(fn));
    }
    // Tasks held back by the drain hold have no drain of their own, so this task
    // would wait with them: it releases the hold, as the next hop to the loop thread
    // would.
    std::lock_guard<std::mutex> lock(gate_mutex);
    if (was_empty || drain_hold) {
        drain_hold = false;
        post([this] { process_task_queue(); });
    }
}

void client_impl::post_from_uloop(std::function<void()>&& fn) {
    bool was_empty = false;
    {
        std::lock_guard<std::mutex> lock(task_mutex);
        was_empty = task_queue.empty();
        // Results of work asked for before a cancel() are void: cancel() has already
        // ended what was pending.
        task_queue.push_back([epoch = epoch_sync, fn = std::move(fn)] {
            if (!epoch.expired()) {
                fn();
            }
        });
    }
    if (!was_empty) {
        return;
    }
    std::lock_guard<std::mutex> lock(gate_mutex);
    if (!drain_hold) {
        post([this] { process_task_queue(); });
    }
}

void client_impl::process_task_queue() {
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(task_mutex);
        batch.swap(task_queue);
    }
    for (auto& task : batch) {
        task();
    }
}

std::error_code client_impl::to_msg_error(int status) {
    return error::from_ubus_status(status);
}

int client_impl::to_ubus_msg_status(const std::error_code& ec) {
    return error::to_ubus_status(ec);
}

} // namespace orvix
