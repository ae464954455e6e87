// The ten-field statistics reply of the management agent: read into its record, beside the same figures read from JSON
// and beside a walk over the attributes that looks at nothing but lengths. And the reply built, beside the JSON text.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <jansson.h>
#include <libubox/blobmsg.h>
#include <vela/ipc/ubus.h>

namespace
{

constexpr const char *names[] = {"satisfaction",   "num_satisfaction_sta", "wifi_tx_lat_avg", "rx_tcp_lat_avg",
                                 "tx_tcp_lat_avg", "client_signal_avg",    "tx_rate_avg",     "rx_rate_avg",
                                 "rxtx_tp_avg",    "phy_link_speed"};

bool is_long(size_t i) { return i > 1 && i < 9; }

void build(blob_buf &b)
{
    blob_buf_init(&b, 0);
    for (size_t i = 0; i < std::size(names); ++i) {
        if (is_long(i))
            blobmsg_add_u64(&b, names[i], 100'000 * i);
        else
            blobmsg_add_u32(&b, names[i], static_cast<uint32_t>(100 * i));
    }
}

json_t *build_json()
{
    json_t *const object = json_object();
    for (size_t i = 0; i < std::size(names); ++i) {
        json_object_set_new(object, names[i], json_integer(static_cast<json_int_t>((is_long(i) ? 100'000 : 100) * i)));
    }
    return object;
}

void BM_parse(benchmark::State &state)
{
    blob_buf b{};
    build(b);
    mgragent_ap_stats stats;
    for (auto _ : state) {
        if (mgragent_stats_parse_ap_stats(&stats, b.head) != 0) abort();
        benchmark::DoNotOptimize(stats);
    }
    blob_buf_free(&b);
}

void BM_parse_peer_walk(benchmark::State &state)
{
    blob_buf b{};
    build(b);
    for (auto _ : state) {
        size_t left = blob_len(b.head);
        size_t sum = 0;
        for (const auto *attr = static_cast<const blob_attr *>(blob_data(b.head)); blob_fits(attr, left);) {
            sum += blob_len(attr);
            left -= blob_pad_len(attr);
            attr = blob_next(attr);
        }
        benchmark::DoNotOptimize(sum);
    }
    blob_buf_free(&b);
}

void BM_parse_peer_json(benchmark::State &state)
{
    json_t *const object = build_json();
    char *const text = json_dumps(object, JSON_COMPACT);
    json_decref(object);
    uint32_t stats[std::size(names)];
    for (auto _ : state) {
        json_t *const reply = json_loads(text, 0, nullptr);
        for (size_t i = 0; i < std::size(names); ++i) {
            stats[i] = static_cast<uint32_t>(json_integer_value(json_object_get(reply, names[i])));
        }
        json_decref(reply);
        benchmark::DoNotOptimize(stats);
    }
    free(text);
}

void BM_build(benchmark::State &state)
{
    blob_buf b{};
    for (auto _ : state) {
        build(b);
        benchmark::DoNotOptimize(b.head);
    }
    blob_buf_free(&b);
}

void BM_build_peer_json(benchmark::State &state)
{
    for (auto _ : state) {
        json_t *const object = build_json();
        char *const text = json_dumps(object, JSON_COMPACT);
        benchmark::DoNotOptimize(text);
        free(text);
        json_decref(object);
    }
}

BENCHMARK(BM_parse)->Name("bus message, read/vela");
BENCHMARK(BM_parse_peer_walk)->Name("bus message, read/scale:bare walk");
BENCHMARK(BM_parse_peer_json)->Name("bus message, read/jansson");
BENCHMARK(BM_build)->Name("bus message, built/vela");
BENCHMARK(BM_build_peer_json)->Name("bus message, built/jansson");

} // namespace

BENCHMARK_MAIN();
