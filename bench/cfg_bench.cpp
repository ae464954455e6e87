// The configuration store beside inih filling a vector, GLib's key files, and a strcasecmp scan of the same list.
#include <benchmark/benchmark.h>
#include <cstring>
#include <glib.h>
#include <ini.h>
#include <string>
#include <utility>
#include <vector>
#include <vela/config/cfg.h>

namespace
{

enum keys { early, late }; ///< where most keys differ from a wanted one

std::string key(keys kind, int i)
{
    char text[64];
    if (kind == early) {
        snprintf(text, sizeof text, "%c%c.%d.devname", 'a' + i % 26, 'a' + i / 26 % 26, i);
    } else {
        snprintf(text, sizeof text, "wireless.1.vap.station.%d.devname", i);
    }
    return text;
}

/// A file of `entries` lines; its first line is a comment, or a group's header for GLib.
const char *file(keys kind, int entries, const char *first_line)
{
    static const char *const path = "/tmp/cfg_bench.cfg";
    FILE *out = fopen(path, "w");
    fprintf(out, "%s\n", first_line);
    for (int i = 1; i <= entries; ++i) fprintf(out, "%s=value of entry %d\n", key(kind, i).c_str(), i);
    fclose(out);
    return path;
}

void parse_ours(benchmark::State &state)
{
    const char *path = file(early, static_cast<int>(state.range(0)), "# CFG Start");
    for (auto _ : state) free_cfg(parse(path));
}

void parse_inih(benchmark::State &state)
{
    using entries = std::vector<std::pair<std::string, std::string>>;
    const char *path = file(early, static_cast<int>(state.range(0)), "# CFG Start");
    const auto take = [](void *list, const char *, const char *name, const char *value) {
        static_cast<entries *>(list)->emplace_back(name, value);
        return 1;
    };
    for (auto _ : state) {
        entries list;
        if (ini_parse(path, take, &list) != 0) state.SkipWithError("inih does not parse");
        benchmark::DoNotOptimize(list.data());
    }
}

void parse_glib(benchmark::State &state)
{
    const char *path = file(early, static_cast<int>(state.range(0)), "[cfg]");
    for (auto _ : state) {
        GKeyFile *keys = g_key_file_new();
        if (!g_key_file_load_from_file(keys, path, G_KEY_FILE_NONE, nullptr))
            state.SkipWithError("GLib does not parse");
        g_key_file_free(keys);
    }
}

BENCHMARK(parse_ours)->Name("configuration, parse/vela")->Arg(500)->Arg(5000);
BENCHMARK(parse_inih)->Name("configuration, parse/inih")->Arg(500)->Arg(5000);
BENCHMARK(parse_glib)->Name("configuration, parse/GLib")->Arg(500)->Arg(5000);

void last_ours(benchmark::State &state, keys kind)
{
    cfg_entry *cfg = parse(file(kind, static_cast<int>(state.range(0)), "#"));
    const std::string wanted = key(kind, static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(get_value(cfg, nullptr, "%s", wanted.c_str()));
    free_cfg(cfg);
}

__attribute__((noinline)) const char *scan(const cfg_entry *cfg, const char *format, ...)
{
    char wanted[256];
    va_list args;
    va_start(args, format);
    vsnprintf(wanted, sizeof wanted, format, args);
    va_end(args);
    for (; cfg; cfg = cfg->next) {
        if (strcasecmp(cfg->key, wanted) == 0) return cfg->value;
    }
    return nullptr;
}

void last_strcasecmp(benchmark::State &state, keys kind)
{
    cfg_entry *cfg = parse(file(kind, static_cast<int>(state.range(0)), "#"));
    const std::string wanted = key(kind, static_cast<int>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(scan(cfg, "%s", wanted.c_str()));
    free_cfg(cfg);
}

BENCHMARK_CAPTURE(last_ours, early, early)->Name("last value, keys differ early/vela")->Arg(50)->Arg(500)->Arg(5000);
BENCHMARK_CAPTURE(last_strcasecmp, early, early)
    ->Name("last value, keys differ early/strcasecmp scan")
    ->Arg(50)
    ->Arg(500)
    ->Arg(5000);
BENCHMARK_CAPTURE(last_ours, late, late)->Name("last value, keys differ late/vela")->Arg(50)->Arg(500)->Arg(5000);
BENCHMARK_CAPTURE(last_strcasecmp, late, late)
    ->Name("last value, keys differ late/strcasecmp scan")
    ->Arg(50)
    ->Arg(500)
    ->Arg(5000);

} // namespace

BENCHMARK_MAIN();
