// Runs every benchmark, then prints each library figure next to its raw C counterpart.
#include "metrics.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

namespace orvix_bench {

std::map<std::string, double>& metrics() {
    static std::map<std::string, double> m;
    return m;
}

namespace {

// Records the time per iteration of the codec benchmarks too: CPU time, as the machine
// may be shared and wall time would count other programs.
class recording_reporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const auto& run : runs) {
            if (!run.error_occurred && run.run_type == Run::RT_Iteration) {
                metrics()[run.benchmark_name() + ".ns"] = run.GetAdjustedCPUTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

struct row {
    const char* label;
    std::string lib;
    std::string raw;
    const char* unit;
    const char* better;
};

void print_table() {
    const row rows[] = {
        {"encode flat message", "encode_flat/lib.ns", "encode_flat/c.ns", "ns", "lower"},
        {"encode nested message", "encode_nested/lib.ns", "encode_nested/c.ns", "ns", "lower"},
        {"decode flat message (policy)", "decode_flat/lib.ns", "decode_flat/c.ns", "ns", "lower"},
        {"decode nested message", "decode_nested/lib.ns", "decode_nested/c.ns", "ns", "lower"},
        {"invoke 1 in flight: p50", "invoke1.lib.p50_us", "invoke1.c.p50_us", "us", "lower"},
        {"invoke 1 in flight: p99", "invoke1.lib.p99_us", "invoke1.c.p99_us", "us", "lower"},
        {"invoke 1 in flight: calls/s", "invoke1.lib.calls_per_s", "invoke1.c.calls_per_s", "1/s",
         "higher"},
        {"invoke 16 in flight: p50", "invoke16.lib.p50_us", "invoke16.c.p50_us", "us", "lower"},
        {"invoke 16 in flight: p99", "invoke16.lib.p99_us", "invoke16.c.p99_us", "us", "lower"},
        {"invoke 16 in flight: calls/s", "invoke16.lib.calls_per_s", "invoke16.c.calls_per_s",
         "1/s", "higher"},
        {"invoke 64 in flight: p50", "invoke64.lib.p50_us", "invoke64.c.p50_us", "us", "lower"},
        {"invoke 64 in flight: p99", "invoke64.lib.p99_us", "invoke64.c.p99_us", "us", "lower"},
        {"invoke 64 in flight: calls/s", "invoke64.lib.calls_per_s", "invoke64.c.calls_per_s",
         "1/s", "higher"},
        {"served calls/s (16 in flight)", "served.lib.calls_per_s", "served.c.calls_per_s", "1/s",
         "higher"},
        {"heap per pending invoke", "pending.lib.bytes", "pending.c.bytes", "B", "lower"},
        {"daemon vs relay, 1 in flight", "daemon1.ubusd.calls_per_s", "daemon1.relay.calls_per_s",
         "1/s", "higher"},
        {"daemon vs relay, 16 in flight", "daemon16.ubusd.calls_per_s",
         "daemon16.relay.calls_per_s", "1/s", "higher"},
    };
    const auto& m = metrics();
    std::printf("\n%-32s %14s %14s %8s  %s\n", "measure", "library", "raw C", "ratio", "better");
    std::printf("%-32s %14s %14s %8s\n", "", "(ubusd)", "(relay)", "lib/C");
    for (const auto& r : rows) {
        const auto lib = m.find(r.lib);
        const auto raw = m.find(r.raw);
        if (lib == m.end() || raw == m.end()) {
            std::printf("%-32s %14s %14s %8s\n", r.label, "-", "-", "-");
            continue;
        }
        std::printf("%-32s %11.1f %-2s %11.1f %-2s %8.2f  %s\n", r.label, lib->second, r.unit,
                    raw->second, r.unit, lib->second / raw->second, r.better);
    }
}

} // namespace
} // namespace orvix_bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    orvix_bench::register_blob_benchmarks();
    const bool bus = orvix_bench::register_bus_benchmarks(ORVIX_TEST_UBUSD, ORVIX_BENCH_SERVICE,
                                                          ORVIX_BENCH_CALLER, ORVIX_BENCH_RELAY);
    if (!bus) {
        std::fprintf(stderr, "orvix_bench: cannot set up the bus; bus benchmarks skipped\n");
    }
    orvix_bench::recording_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    orvix_bench::finish_bus_benchmarks();
    orvix_bench::print_table();
    benchmark::Shutdown();
    return bus ? 0 : 1;
}
