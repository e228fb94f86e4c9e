#include "metrics.h"

#include <orvix_testing/process.h>
#include <orvix_testing/test_daemon.h>

#include <orvix/client.h>
#include <orvix/loops/simple_event_loop.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <malloc.h>
#include <memory>
#include <signal.h>
#include <sstream>
#include <string>
#include <vector>

namespace orvix_bench {
namespace {

using clock_type = std::chrono::steady_clock;
using orvix::blob::attr;
using orvix::blob::table;

constexpr const char* c_object = "bench.c";
constexpr const char* lib_object = "bench.lib";
constexpr long pending_count = 2000;

struct bus_setup {
    test_daemon daemon{};
    std::unique_ptr<orvix_testing::process> service;
    std::string caller;
    std::string relay;
    std::shared_ptr<orvix::loops::simple_event_loop> loop;
    orvix::client* client = nullptr;
    orvix::utils::link published;
};

bus_setup& setup() {
    static bus_setup s;
    return s;
}

// The message every call carries, as the C caller sends it.
const table& message() {
    static const table m{{"id", attr(7U)}, {"name", attr("bench")}, {"flag", attr(true)}};
    return m;
}

bool run_until(const std::function<bool()>& done) {
    const auto deadline = clock_type::now() + std::chrono::seconds(60);
    while (!done()) {
        if (clock_type::now() > deadline) {
            return false;
        }
        setup().loop->run_for(std::chrono::milliseconds(5));
    }
    return true;
}

double percentile(std::vector<double>& v, double p) {
    std::sort(v.begin(), v.end());
    return v[static_cast<std::size_t>(static_cast<double>(v.size() - 1) * p)];
}

void put(benchmark::State& state, const std::string& key, double value) {
    metrics()[key] = value;
    state.counters[key.substr(key.rfind('.') + 1)] = value;
}

// Throughput and latency of `calls` library invokes, `inflight` outstanding.
void invoke_lib(benchmark::State& state, long calls, long inflight) {
    auto& bus = *setup().client;
    std::vector<double> latencies;
    latencies.reserve(static_cast<std::size_t>(calls));
    long started = 0;
    long failed = 0;
    std::function<void()> start = [&] {
        ++started;
        const auto t0 = clock_type::now();
        bus.invoke(
            c_object, "echo", message(),
            [&, t0](const std::list<attr>& replies, const std::error_code& ec) {
                latencies.push_back(
                    std::chrono::duration<double, std::micro>(clock_type::now() - t0).count());
                if (ec || replies.size() != 1) {
                    ++failed;
                }
                if (started < calls) {
                    start();
                }
            },
            std::chrono::seconds(0));
    };
    for (auto _ : state) {
        const auto begin = clock_type::now();
        for (long i = 0; i < inflight; ++i) {
            start();
        }
        if (!run_until([&] { return static_cast<long>(latencies.size()) == calls; }) || failed) {
            state.SkipWithError("invokes failed");
            return;
        }
        const double secs = std::chrono::duration<double>(clock_type::now() - begin).count();
        const std::string key = "invoke" + std::to_string(inflight) + ".lib.";
        put(state, key + "calls_per_s", static_cast<double>(calls) / secs);
        put(state, key + "p50_us", percentile(latencies, 0.50));
        put(state, key + "p99_us", percentile(latencies, 0.99));
    }
}

// Runs a C peer to its end and returns the figures it printed, none when it failed. With
// `pump` the event loop runs meanwhile: the peer may be calling this process.
std::vector<double> figures(const std::vector<std::string>& argv, bool pump = false) {
    orvix_testing::process peer(argv);
    const auto run_loop = [] { setup().loop->run_for(std::chrono::milliseconds(2)); };
    peer.read_until("", 600000, pump ? std::function<void()>(run_loop) : nullptr);
    std::vector<double> values;
    if (peer.wait() == 0) {
        std::istringstream in(peer.output());
        for (double v; in >> v;) {
            values.push_back(v);
        }
    }
    return values;
}

std::vector<double> c_calls(const char* object, long calls, long inflight, bool pump = false) {
    return figures({setup().caller, setup().daemon.socket, object, "echo", std::to_string(calls),
                    std::to_string(inflight)},
                   pump);
}

// The same calls made by the raw libubus caller: also the daemon's side of daemon/relay.
void invoke_c(benchmark::State& state, long calls, long inflight) {
    for (auto _ : state) {
        const auto f = c_calls(c_object, calls, inflight);
        if (f.size() != 3) {
            state.SkipWithError("bench_caller failed");
            return;
        }
        const std::string key = "invoke" + std::to_string(inflight) + ".c.";
        put(state, key + "calls_per_s", f[0]);
        put(state, key + "p50_us", f[1]);
        put(state, key + "p99_us", f[2]);
        metrics()["daemon" + std::to_string(inflight) + ".ubusd.calls_per_s"] = f[0];
    }
}

// Calls served per second by `object`, driven by the raw C caller.
void served(benchmark::State& state, const char* object, const char* side, long calls,
            long inflight) {
    for (auto _ : state) {
        const auto f = c_calls(object, calls, inflight, true);
        if (f.size() != 3) {
            state.SkipWithError("bench_caller failed");
            return;
        }
        put(state, std::string("served.") + side + ".calls_per_s", f[0]);
    }
}

// Raw C calls through the byte relay.
void relayed(benchmark::State& state, long calls, long inflight) {
    for (auto _ : state) {
        const auto f = figures({setup().relay, std::to_string(calls), std::to_string(inflight)});
        if (f.size() != 1) {
            state.SkipWithError("bench_relay failed");
            return;
        }
        put(state, "daemon" + std::to_string(inflight) + ".relay.calls_per_s", f[0]);
    }
}

// Heap held per pending library invoke.
void pending_lib(benchmark::State& state) {
    auto& bus = *setup().client;
    for (auto _ : state) {
        std::vector<orvix::utils::link> links;
        links.reserve(pending_count);
        bool flushed = false;
        const auto before = mallinfo2();
        for (long i = 0; i < pending_count; ++i) {
            links.push_back(bus.invoke(
                c_object, "silent", message(),
                [](const std::list<attr>&, const std::error_code&) {}, std::chrono::seconds(0)));
        }
        // Answered only once every call before it has reached the service.
        bus.invoke(
            c_object, "echo", message(),
            [&](const std::list<attr>&, const std::error_code&) { flushed = true; },
            std::chrono::seconds(0));
        if (!run_until([&] { return flushed; })) {
            state.SkipWithError("echo after the pending invokes failed");
            return;
        }
        const auto after = mallinfo2();
        // The vector of links is the benchmark's own.
        const double held = static_cast<double>(after.uordblks - before.uordblks) -
                            static_cast<double>(links.capacity() * sizeof(orvix::utils::link));
        put(state, "pending.lib.bytes", held / pending_count);
        for (auto& l : links) {
            l.release();
        }
        setup().loop->run_for(std::chrono::milliseconds(50));
    }
}

void pending_c(benchmark::State& state) {
    for (auto _ : state) {
        const auto f = figures({setup().caller, "mem", setup().daemon.socket, c_object,
                                std::to_string(pending_count)});
        if (f.size() != 1) {
            state.SkipWithError("bench_caller failed");
            return;
        }
        put(state, "pending.c.bytes", f[0]);
    }
}

bool publish() {
    auto& s = setup();
    bool done = false;
    bool ok = false;
    const auto echo = [](const std::shared_ptr<orvix::client::exchange_ctx>& ctx) {
        ctx->send(ctx->args, [](const std::error_code&) {});
        ctx->respond({});
    };
    s.published =
        s.client->add_object(lib_object, {{"echo", {echo, {}}}}, [&](const std::error_code& ec) {
            ok = !ec;
            done = true;
        });
    return run_until([&] { return done; }) && ok;
}

void add(const std::string& name, std::function<void(benchmark::State&)> fn) {
    benchmark::RegisterBenchmark(name.c_str(), std::move(fn))
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
}

} // namespace

bool register_bus_benchmarks(const char* ubusd, const char* service, const char* caller,
                             const char* relay) {
    auto& s = setup();
    signal(SIGPIPE, SIG_IGN);
    if (test_daemon_start(&s.daemon, ubusd) != 0) {
        return false;
    }
    s.service = std::make_unique<orvix_testing::process>(
        std::vector<std::string>{service, s.daemon.socket, c_object});
    if (!s.service->read_until("ready\n", 10000)) {
        return false;
    }
    s.caller = caller;
    s.relay = relay;
    s.loop = orvix::loops::simple_event_loop::create();
    s.client = &orvix::client::get_instance(s.loop);
    s.client->set_socket_path(s.daemon.socket);
    bool connected = false;
    bool ok = false;
    auto lnk = s.client->connect([&](const std::error_code& ec) {
        ok = !ec;
        connected = true;
    });
    if (!run_until([&] { return connected; }) || !ok || !publish()) {
        return false;
    }

    const struct {
        long inflight;
        long calls;
    } invokes[] = {{1, 4000}, {16, 16000}, {64, 16000}};
    for (const auto& i : invokes) {
        const std::string suffix = "/inflight:" + std::to_string(i.inflight);
        add("invoke/lib" + suffix,
            [i](benchmark::State& st) { invoke_lib(st, i.calls, i.inflight); });
        add("invoke/c" + suffix, [i](benchmark::State& st) { invoke_c(st, i.calls, i.inflight); });
        // The relay is compared with the daemon as invoke/c measured it.
        if (i.inflight <= 16) {
            add("daemon/relay" + suffix,
                [i](benchmark::State& st) { relayed(st, i.calls, i.inflight); });
        }
    }
    add("served/lib/inflight:16",
        [](benchmark::State& st) { served(st, lib_object, "lib", 16000, 16); });
    add("served/c/inflight:16", [](benchmark::State& st) { served(st, c_object, "c", 16000, 16); });
    add("pending/lib", pending_lib);
    add("pending/c", pending_c);
    return true;
}

void finish_bus_benchmarks() {
    auto& s = setup();
    if (s.client) {
        s.client->cancel();
    }
    s.service.reset();
    test_daemon_cleanup(&s.daemon);
}

} // namespace orvix_bench
