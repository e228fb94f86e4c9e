#include "metrics.h"

#include "blob_c.h"

#include <orvix/blob/buf.h>
#include <orvix/blob/utils.h>

#include <benchmark/benchmark.h>

#include <typeindex>

namespace orvix_bench {
namespace {

using orvix::blob::attr;
using orvix::blob::table;

table flat_table() {
    return {{"id", attr(7U)},
            {"name", attr("bench")},
            {"flag", attr(true)},
            {"count", attr(123456789012ULL)},
            {"path", attr("/var/run/bench.sock")}};
}

table nested_table() {
    orvix::blob::array addrs{attr("10.0.0.1"), attr("10.0.0.2"), attr("fe80::1")};
    table config{{"mtu", attr(1500U)}, {"enabled", attr(true)}, {"addrs", attr(std::move(addrs))}};
    return {{"name", attr("eth0")}, {"config", attr(std::move(config))}};
}

const std::multimap<std::string, std::type_index> flat_policy{
    {"id", typeid(unsigned int)},          {"name", typeid(std::string)}, {"flag", typeid(bool)},
    {"count", typeid(unsigned long long)}, {"path", typeid(std::string)},
};

void encode_lib(benchmark::State& state, const table& fields) {
    for (auto _ : state) {
        orvix::blob::buf buf(fields);
        benchmark::DoNotOptimize(buf.native()->head);
    }
}

void encode_c(benchmark::State& state, void (*encode)(blob_buf*)) {
    for (auto _ : state) {
        blob_buf b{};
        encode(&b);
        benchmark::DoNotOptimize(b.head);
        blob_buf_free(&b);
    }
}

void decode_flat_lib(benchmark::State& state) {
    orvix::blob::buf buf(flat_table());
    for (auto _ : state) {
        auto fields = orvix::blob::utils::to_table(buf.native()->head, flat_policy);
        benchmark::DoNotOptimize(fields);
    }
}

void decode_nested_lib(benchmark::State& state) {
    orvix::blob::buf buf(nested_table());
    for (auto _ : state) {
        auto fields = orvix::blob::utils::to_table(buf.native()->head);
        benchmark::DoNotOptimize(fields);
    }
}

template <typename Msg>
void decode_c(benchmark::State& state, void (*encode)(blob_buf*), int (*decode)(blob_attr*, Msg*)) {
    blob_buf b{};
    encode(&b);
    for (auto _ : state) {
        Msg out{};
        if (decode(b.head, &out) != 0) {
            state.SkipWithError("decoding failed");
            break;
        }
        benchmark::DoNotOptimize(out);
    }
    blob_buf_free(&b);
}

} // namespace

void register_blob_benchmarks() {
    static const table flat = flat_table();
    static const table nested = nested_table();
    benchmark::RegisterBenchmark("encode_flat/lib", encode_lib, flat);
    benchmark::RegisterBenchmark("encode_flat/c", encode_c, c_encode_flat);
    benchmark::RegisterBenchmark("encode_nested/lib", encode_lib, nested);
    benchmark::RegisterBenchmark("encode_nested/c", encode_c, c_encode_nested);
    benchmark::RegisterBenchmark("decode_flat/lib", decode_flat_lib);
    benchmark::RegisterBenchmark("decode_flat/c", decode_c<flat_msg>, c_encode_flat, c_decode_flat);
    benchmark::RegisterBenchmark("decode_nested/lib", decode_nested_lib);
    benchmark::RegisterBenchmark("decode_nested/c", decode_c<nested_msg>, c_encode_nested,
                                 c_decode_nested);
}

} // namespace orvix_bench
