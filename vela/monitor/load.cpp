#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <vela/core/internal/record_json.h>
#include <vela/core/internal/text.h>
#include <vela/monitor/internal/load_text.h>
#include <vela/monitor/internal/proc.h>

namespace vela
{
namespace
{

static_assert(sizeof(vela_cpu_sample) == 8 + 65 * 64 && sizeof(vela_cpu_shares) == 4 + 65 * 24);
static_assert(sizeof(vela_memory) == 72 && sizeof(vela_pressure) == 6 * 24 && sizeof(vela_loadavg) == 20);

/// As /proc/stat has them.
constexpr std::array columns = {
    &vela_cpu_ticks::user,   &vela_cpu_ticks::nice, &vela_cpu_ticks::system,  &vela_cpu_ticks::idle,
    &vela_cpu_ticks::iowait, &vela_cpu_ticks::irq,  &vela_cpu_ticks::softirq, &vela_cpu_ticks::steal,
};

constexpr json_row cpu_rows[] = {
    {"busy_permille", VELA_MEMBER(vela_cpu_share, busy), shown::number, unknown::ones},
    {"user_permille", VELA_MEMBER(vela_cpu_share, user), shown::number, unknown::ones},
    {"system_permille", VELA_MEMBER(vela_cpu_share, system), shown::number, unknown::ones},
    {"iowait_permille", VELA_MEMBER(vela_cpu_share, iowait), shown::number, unknown::ones},
    {"irq_permille", VELA_MEMBER(vela_cpu_share, irq), shown::number, unknown::ones},
    {"steal_permille", VELA_MEMBER(vela_cpu_share, steal), shown::number, unknown::ones},
};
constexpr json_row memory_rows[] = {
    {"total_kb", VELA_MEMBER(vela_memory, total), shown::number, unknown::ones},
    {"free_kb", VELA_MEMBER(vela_memory, free), shown::number, unknown::ones},
    {"available_kb", VELA_MEMBER(vela_memory, available), shown::number, unknown::ones},
    {"buffers_kb", VELA_MEMBER(vela_memory, buffers), shown::number, unknown::ones},
    {"cached_kb", VELA_MEMBER(vela_memory, cached), shown::number, unknown::ones},
    {"reclaimable_kb", VELA_MEMBER(vela_memory, reclaimable), shown::number, unknown::ones},
    {"shmem_kb", VELA_MEMBER(vela_memory, shmem), shown::number, unknown::ones},
    {"swap_total_kb", VELA_MEMBER(vela_memory, swap_total), shown::number, unknown::ones},
    {"swap_free_kb", VELA_MEMBER(vela_memory, swap_free), shown::number, unknown::ones},
};
constexpr json_row stall_rows[] = {
    {"avg10_permille", VELA_MEMBER(vela_stall, avg10), shown::number, unknown::ones},
    {"avg60_permille", VELA_MEMBER(vela_stall, avg60), shown::number, unknown::ones},
    {"avg300_permille", VELA_MEMBER(vela_stall, avg300), shown::number, unknown::ones},
    {"total_us", VELA_MEMBER(vela_stall, total_us), shown::number, unknown::ones},
};
constexpr json_row loadavg_rows[] = {
    {"avg1_permille", VELA_MEMBER(vela_loadavg, avg1), shown::number, unknown::ones},
    {"avg5_permille", VELA_MEMBER(vela_loadavg, avg5), shown::number, unknown::ones},
    {"avg15_permille", VELA_MEMBER(vela_loadavg, avg15), shown::number, unknown::ones},
    {"running", VELA_MEMBER(vela_loadavg, running), shown::number, unknown::ones},
    {"threads", VELA_MEMBER(vela_loadavg, threads), shown::number, unknown::ones},
};

struct memory_line {
    std::string_view key;
    uint64_t vela_memory::*member;
};
constexpr memory_line memory_lines[] = {
    {"MemTotal:", &vela_memory::total},
    {"MemFree:", &vela_memory::free},
    {"MemAvailable:", &vela_memory::available},
    {"Buffers:", &vela_memory::buffers},
    {"Cached:", &vela_memory::cached},
    {"SReclaimable:", &vela_memory::reclaimable},
    {"Shmem:", &vela_memory::shmem},
    {"SwapTotal:", &vela_memory::swap_total},
    {"SwapFree:", &vela_memory::swap_free},
};

struct resource {
    const char *name;
    const char *path;
    vela_stalls vela_pressure::*member;
};
constexpr resource resources[] = {
    {"cpu", "/proc/pressure/cpu", &vela_pressure::cpu},
    {"memory", "/proc/pressure/memory", &vela_pressure::memory},
    {"io", "/proc/pressure/io", &vela_pressure::io},
};

template <class Record> void clear_to_unknown(Record &record) { memset(&record, 0xff, sizeof record); }

/// The next whole line; "" at the end, and for a line that was cut.
std::string_view take_line(std::string_view &text)
{
    const size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = end < text.size() ? first(text, end) : std::string_view{};
    text = after(text, end + 1);
    return line;
}

bool read_ticks(proc::words &row, vela_cpu_ticks &out)
{
    for (const auto column : columns) {
        const auto ticks = row.number<uint64_t>();
        if (!ticks) return false;
        out.*column = *ticks;
    }
    return true;
}

/// "12.34" as 1234.
std::optional<uint32_t> hundredths(std::string_view word)
{
    const size_t point = word.find('.');
    if (point == word.npos || word.size() - point != 3) return std::nullopt;
    const auto whole = proc::words{first(word, point)}.number<uint32_t>();
    const auto rest = proc::words{after(word, point + 1)}.number<uint32_t>();
    if (!whole || !rest || *whole > UINT32_MAX / 1000 - 1) return std::nullopt;
    return *whole * 100 + *rest;
}

/// "avg10=98.40": the share as permille.
std::optional<uint32_t> share_of(std::string_view word, std::string_view key)
{
    if (!starts_with(word, key)) return std::nullopt;
    const auto percent = hundredths(after(word, key.size()));
    if (!percent) return std::nullopt;
    return (*percent + 5) / 10;
}

bool read_stall(proc::words &line, vela_stall &out)
{
    const auto avg10 = share_of(line.next(), "avg10=");
    const auto avg60 = share_of(line.next(), "avg60=");
    const auto avg300 = share_of(line.next(), "avg300=");
    const std::string_view total = line.next();
    const auto total_us = proc::words{after(total, strlen("total="))}.number<uint64_t>();
    if (!avg10 || !avg60 || !avg300 || !starts_with(total, "total=") || !total_us) return false;
    out = {*avg10, *avg60, *avg300, *total_us};
    return true;
}

uint32_t permille(uint64_t part, uint64_t whole) { return static_cast<uint32_t>((part * 1000 + whole / 2) / whole); }

/// False when a counter that never falls fell, or no time passed.
bool compare(const vela_cpu_ticks &before, const vela_cpu_ticks &now, vela_cpu_share &out)
{
    vela_cpu_ticks passed = {};
    uint64_t whole = 0;
    for (const auto column : columns) {
        const bool fell = now.*column < before.*column;
        // The kernel's account of idle time is not exact: both of its columns may fall, and then count as 0.
        if (fell && column != &vela_cpu_ticks::idle && column != &vela_cpu_ticks::iowait) return false;
        passed.*column = fell ? 0 : now.*column - before.*column;
        if (__builtin_add_overflow(whole, passed.*column, &whole)) return false;
    }
    // No device runs so long: one of the two is a processor that was offline.
    constexpr uint64_t whole_max = UINT64_MAX / 2000;
    if (whole == 0 || whole > whole_max) return false;
    out = {
        .busy = permille(whole - passed.idle - passed.iowait, whole),
        .user = permille(passed.user + passed.nice, whole),
        .system = permille(passed.system, whole),
        .iowait = permille(passed.iowait, whole),
        .irq = permille(passed.irq + passed.softirq, whole),
        .steal = permille(passed.steal, whole),
    };
    return true;
}

/// Takes a part of an answer: an object without members is left out. False when memory is short.
bool put_part(json_t *object, const char *key, json_ref part)
{
    if (part && json_object_size(part.get()) == 0) return true;
    return put_json(object, key, std::move(part));
}

json_ref cpus_json(const vela_cpu_shares &shares)
{
    json_ref cpus{json_array()};
    for (uint32_t i = 0; i < shares.cpu_count; ++i) {
        if (shares.cpu[i].busy == UINT32_MAX) continue;
        json_ref cpu{json_object()};
        if (!put_json(cpu.get(), "cpu", number_json(i)) || !put_record(cpu.get(), cpu_rows, &shares.cpu[i])) return {};
        if (json_array_append_new(cpus.get(), cpu.release()) != 0) return {};
    }
    return cpus;
}

bool put_cpu(json_t *answer, const vela_cpu_sample *before, const vela_cpu_sample *now)
{
    vela_cpu_shares shares;
    if (vela_cpu_load(before, now, &shares) < 0) return true;
    json_ref cpu = record_json(cpu_rows, shares.total);
    return put_json(cpu.get(), "cpus", cpus_json(shares)) && put_part(answer, "cpu", std::move(cpu));
}

template <class Record>
bool put_reading(json_t *answer, const char *key, int read(Record *), std::span<const json_row> rows)
{
    Record record;
    return read(&record) < 0 || put_part(answer, key, record_json(rows, record));
}

bool put_pressure(json_t *answer)
{
    vela_pressure pressure;
    if (vela_pressure_get(&pressure) < 0) return true;
    json_ref parts{json_object()};
    for (const auto &resource : resources) {
        const vela_stalls &stalls = pressure.*resource.member;
        json_ref part{json_object()};
        if (!part || !put_part(part.get(), "some", record_json(stall_rows, stalls.some)) ||
            !put_part(part.get(), "full", record_json(stall_rows, stalls.full)) ||
            !put_part(parts.get(), resource.name, std::move(part))) {
            return false;
        }
    }
    return put_part(answer, "pressure", std::move(parts));
}

/// Reads a file and parses it into `out`, which is written only when both went well.
template <size_t Size, class Record>
int read_record(const char *path, bool parse(std::string_view, Record &), Record *out)
{
    if (!out) return -EINVAL;
    char text[Size];
    const ssize_t n = proc::read_at(AT_FDCWD, path, text);
    if (n < 0) return static_cast<int>(n);
    Record record;
    if (!parse({text, static_cast<size_t>(n)}, record)) return -EIO;
    *out = record;
    return 0;
}

} // namespace

bool parse_cpu_times(std::string_view text, vela_cpu_sample &out)
{
    clear_to_unknown(out);
    out.cpu_count = 0;
    proc::words all{take_line(text)};
    if (all.next() != "cpu" || !read_ticks(all, out.total)) return false;
    while (starts_with(text, "cpu")) {
        proc::words row{take_line(text)};
        const auto number = proc::words{after(row.next(), strlen("cpu"))}.number<uint32_t>();
        if (!number || *number >= VELA_CPU_MAX) continue;
        if (!read_ticks(row, out.cpu[*number])) return false;
        out.cpu_count = std::max(out.cpu_count, *number + 1);
    }
    return true;
}

bool parse_memory(std::string_view text, vela_memory &out)
{
    clear_to_unknown(out);
    while (!text.empty()) {
        proc::words line{take_line(text)};
        const std::string_view key = line.next();
        const auto *known = std::find_if(std::begin(memory_lines), std::end(memory_lines),
                                         [key](const memory_line &l) { return l.key == key; });
        if (known == std::end(memory_lines)) continue;
        out.*known->member = line.number<uint64_t>().value_or(UINT64_MAX);
    }
    return out.total != UINT64_MAX;
}

bool parse_stalls(std::string_view text, vela_stalls &out)
{
    clear_to_unknown(out);
    bool some = false;
    while (!text.empty()) {
        proc::words line{take_line(text)};
        const std::string_view kind = line.next();
        if (kind == "some") some = read_stall(line, out.some);
        if (kind == "full" && !read_stall(line, out.full)) return false;
    }
    return some;
}

bool parse_loadavg(std::string_view text, vela_loadavg &out)
{
    proc::words line{text};
    uint32_t *const averages[] = {&out.avg1, &out.avg5, &out.avg15};
    for (uint32_t *average : averages) {
        const auto load = hundredths(line.next());
        if (!load) return false;
        *average = *load * 10;
    }
    const std::string_view tasks = line.next(); // "1/597"
    const size_t slash = tasks.find('/');
    const auto running = proc::words{first(tasks, slash)}.number<uint32_t>();
    const auto threads = proc::words{after(tasks, std::min(slash, tasks.size()) + 1)}.number<uint32_t>();
    if (!running || !threads) return false;
    out.running = *running;
    out.threads = *threads;
    return true;
}

} // namespace vela

int vela_cpu_sample_take(vela_cpu_sample *out)
{
    // Room for every row at the full length of its numbers.
    return vela::read_record<VELA_CPU_MAX * 256>("/proc/stat", vela::parse_cpu_times, out);
}

int vela_cpu_load(const vela_cpu_sample *before, const vela_cpu_sample *now, vela_cpu_shares *out)
{
    if (!before || !now || !out) return -EINVAL;
    vela_cpu_share total;
    if (!vela::compare(before->total, now->total, total)) return -ENODATA;
    vela::clear_to_unknown(*out);
    out->total = total;
    out->cpu_count = std::min<uint32_t>(std::max(before->cpu_count, now->cpu_count), VELA_CPU_MAX);
    for (uint32_t i = 0; i < out->cpu_count; ++i) (void)vela::compare(before->cpu[i], now->cpu[i], out->cpu[i]);
    return 0;
}

int vela_memory_get(vela_memory *out) { return vela::read_record<4096>("/proc/meminfo", vela::parse_memory, out); }

int vela_pressure_get(vela_pressure *out)
{
    if (!out) return -EINVAL;
    vela_pressure pressure;
    for (const auto &resource : vela::resources) {
        const int result = vela::read_record<512>(resource.path, vela::parse_stalls, &(pressure.*resource.member));
        if (result == -ENOENT) return -EOPNOTSUPP;
        if (result < 0) return result;
    }
    *out = pressure;
    return 0;
}

int vela_loadavg_get(vela_loadavg *out) { return vela::read_record<128>("/proc/loadavg", vela::parse_loadavg, out); }

json_t *vela_load_json(const vela_cpu_sample *before, const vela_cpu_sample *now)
{
    vela::json_ref answer{json_object()};
    json_t *object = answer.get();
    const bool whole = object && vela::put_cpu(object, before, now) &&
                       vela::put_reading(object, "memory", vela_memory_get, vela::memory_rows) &&
                       vela::put_pressure(object) &&
                       vela::put_reading(object, "load", vela_loadavg_get, vela::loadavg_rows);
    if (!whole) errno = ENOMEM;
    return whole ? answer.release() : nullptr;
}
