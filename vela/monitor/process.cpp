// A process is read from several files of its directory, by name. Its "stat" is opened first and read while the
// directory is known by its inode: that is the same afterwards unless the process has ended, whoever has taken its
// number.
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/record_json.h>
#include <vela/core/util.h>
#include <vela/monitor/internal/proc.h>
#include <vela/monitor/internal/process_stat.h>

namespace vela
{
namespace
{

static_assert(sizeof(vela_process) == 328);

constexpr json_row rows[] = {
    {"pid", VELA_MEMBER(vela_process, pid), shown::number, unknown::never},
    {"ppid", VELA_MEMBER(vela_process, ppid), shown::number, unknown::never},
    {"uid", VELA_MEMBER(vela_process, uid), shown::number, unknown::never},
    {"threads", VELA_MEMBER(vela_process, threads), shown::number, unknown::never},
    {"fds", VELA_MEMBER(vela_process, fds), shown::number, unknown::ones},
    {"state", VELA_MEMBER(vela_process, state), shown::text, unknown::never},
    {"name", VELA_MEMBER(vela_process, name), shown::text, unknown::never},
    {"cmdline", VELA_MEMBER(vela_process, cmdline), shown::text, unknown::zero},
    {"rss_kb", VELA_MEMBER(vela_process, rss_kb), shown::number, unknown::never},
    {"virtual_kb", VELA_MEMBER(vela_process, virtual_kb), shown::number, unknown::never},
    {"cpu_ms", VELA_MEMBER(vela_process, cpu_ms), shown::number, unknown::never},
    {"start_ms", VELA_MEMBER(vela_process, start_ms), shown::number, unknown::never},
};

constexpr uint32_t all_wants = VELA_PROCESS_CMDLINE | VELA_PROCESS_FDS;

uint64_t milliseconds(uint64_t ticks)
{
    static_assert(sizeof(long) <= sizeof ticks);
    const auto ticks_per_second = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
    return ticks * 1000 / ticks_per_second;
}

int read_figures(int stat_file, vela_process &out)
{
    char text[1024]; // the figures looked for stand in its first half
    const ssize_t n = read(stat_file, text, sizeof text);
    if (n < 0) return -errno;
    return parse_process_stat({text, static_cast<size_t>(n)}, out) ? 0 : -ENOENT;
}

// "stat" has this figure too, but there it lags behind by up to a few hundred KiB (Linux 6.2 and later).
int read_memory(int proc, const char *number, vela_process &out)
{
    char text[128];
    const ssize_t n = proc::read_at(proc, proc::path{number, "statm"}.c_str(), text);
    if (n < 0) return static_cast<int>(n);
    proc::words figures{{text, static_cast<size_t>(n)}};
    figures.skip(1);
    out.rss_kb = figures.number<uint64_t>().value_or(0) * (static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) / 1024);
    return 0;
}

int read_command_line(int proc, const char *number, vela_process &out)
{
    char text[sizeof out.cmdline + 4]; // a character more than fits, so that a cut shows, and a NUL
    const ssize_t n = proc::read_at(proc, proc::path{number, "cmdline"}.c_str(), {text, sizeof text - 1});
    if (n < 0) return static_cast<int>(n);
    write_command_line(text, static_cast<size_t>(n), out.cmdline);
    return 0;
}

uint32_t count_descriptors(int proc, const char *number)
{
    struct stat list;
    const proc::path directory{number, "fd"};
    if (fstatat(proc, directory.c_str(), &list, 0) < 0) return UINT32_MAX;
    if (list.st_size > 0) return static_cast<uint32_t>(list.st_size); // Linux 6.2 and later tell it here
    const unique_fd descriptors{openat(proc, directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!descriptors.ok()) return UINT32_MAX;
    proc::numbered_entries entries{descriptors.get()};
    uint32_t count = 0;
    while (entries.next()) ++count;
    return entries.error() == 0 ? count : UINT32_MAX;
}

int read_more(int proc, const char *number, uint32_t wants, vela_process &out)
{
    // A kernel thread, or a process that has ended.
    const bool is_bare = out.virtual_kb == 0;
    out.fds = (wants & VELA_PROCESS_FDS) && is_bare ? 0 : UINT32_MAX;
    out.rss_kb = 0;
    out.cmdline[0] = '\0';
    if (is_bare) return 0;
    int result = read_memory(proc, number, out);
    if (result == 0 && (wants & VELA_PROCESS_CMDLINE)) result = read_command_line(proc, number, out);
    if (result == 0 && (wants & VELA_PROCESS_FDS)) out.fds = count_descriptors(proc, number);
    return result;
}

int read_process(int proc, const char *number, uint32_t wants, vela_process &out)
{
    const unique_fd stat_file{openat(proc, proc::path{number, "stat"}.c_str(), O_RDONLY | O_CLOEXEC)};
    struct stat before, after;
    if (!stat_file.ok() || fstatat(proc, number, &before, 0) < 0) return -errno;
    if (const int failed = read_figures(stat_file.get(), out); failed < 0) return failed; // else it was there until now
    out.uid = before.st_uid;
    if (const int failed = read_more(proc, number, wants, out); failed < 0) return failed;
    if (out.virtual_kb == 0) return 0;
    if (fstatat(proc, number, &after, 0) < 0) return -errno;
    // The kernel may also have forgotten the inode, for want of memory. Then only the process itself can tell.
    char byte;
    return after.st_ino == before.st_ino || pread(stat_file.get(), &byte, 1, 0) == 1 ? 0 : -ENOENT;
}

int open_proc() { return open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }

} // namespace

bool parse_process_stat(std::string_view text, vela_process &out)
{
    // The name may hold anything, brackets included; behind it there are none.
    const size_t open = text.find(" (");
    const size_t close = text.rfind(')');
    if (open == text.npos || close == text.npos || close < open + 2) return false;
    copy_text(out.name, after(first(text, close), open + 2));

    const auto pid = proc::words{first(text, open)}.number<int32_t>();
    proc::words figures{after(text, close + 1)};
    const std::string_view state = figures.next();
    const auto ppid = figures.number<int32_t>();
    figures.skip(9); // process group, session, terminal, its group, flags, four kinds of page faults
    const auto user_ticks = figures.number<uint64_t>();
    const auto system_ticks = figures.number<uint64_t>();
    figures.skip(4); // both of ended children, priority, niceness
    const auto threads = figures.number<uint32_t>();
    figures.skip(1);
    const auto start_ticks = figures.number<uint64_t>();
    const auto address_space = figures.number<uint64_t>();
    if (!pid || state.size() != 1 || !ppid || !user_ticks || !system_ticks || !threads || !start_ticks ||
        !address_space)
        return false;

    out.pid = *pid;
    out.ppid = *ppid;
    out.state = state[0];
    out.threads = *threads;
    out.cpu_ms = milliseconds(*user_ticks + *system_ticks);
    out.start_ms = milliseconds(*start_ticks);
    out.virtual_kb = *address_space / 1024;
    return true;
}

void write_command_line(char *text, size_t size, char (&out)[sizeof vela_process::cmdline])
{
    while (size != 0 && text[size - 1] == '\0') --size;
    for (char &c : std::span{text, size}) {
        if (c == '\0') {
            c = ' ';
        } else if (static_cast<unsigned char>(c) < ' ' || c == 0x7f) {
            c = '?';
        }
    }
    text[size] = '\0';
    copy_text(out, {text, utf8_truncate_len(text, SIZE_MAX, sizeof out - 1)});
}

} // namespace vela

int vela_process_foreach(uint32_t wants, vela_process_callback each, void *arg)
{
    if (!each || (wants & ~vela::all_wants)) return -EINVAL;
    const vela::unique_fd proc{vela::open_proc()};
    if (!proc.ok()) return -errno;
    vela::proc::numbered_entries processes{proc.get()};
    int delivered = 0;
    while (const char *number = processes.next()) {
        vela_process process = {};
        const int result = vela::read_process(proc.get(), number, wants, process);
        if (vela::proc::gone(-result) || vela::proc::hidden(-result)) continue;
        if (result < 0) return result;
        ++delivered;
        if (each(&process, arg) != 0) return delivered;
    }
    return processes.error() < 0 ? processes.error() : delivered;
}

int vela_process_get(int32_t pid, uint32_t wants, vela_process *out)
{
    if (pid < 1 || !out || (wants & ~vela::all_wants)) return -EINVAL;
    const vela::unique_fd proc{vela::open_proc()};
    if (!proc.ok()) return -errno;
    vela_process process = {};
    const int result = vela::read_process(proc.get(), vela::formatted<12>{"%d", pid}.c_str(), wants, process);
    if (vela::proc::gone(-result)) return -ENOENT;
    if (vela::proc::hidden(-result)) return -EPERM;
    if (result == 0) *out = process;
    return result;
}

json_t *vela_process_json(uint32_t wants)
{
    const auto walk = [wants](vela_process_callback each, void *arg) { return vela_process_foreach(wants, each, arg); };
    return vela::list_json<vela_process>(walk, [](const vela_process &p) { return vela::record_json(vela::rows, p); });
}
