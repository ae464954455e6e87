#include <algorithm>
#include <fcntl.h>
#include <unistd.h>
#include <vela/core/internal/own.h>
#include <vela/monitor/internal/owners.h>
#include <vela/monitor/internal/proc.h>

namespace vela
{
namespace
{

constexpr std::string_view link_prefix = "socket:[";

bool before(const socket_owner &a, const socket_owner &b)
{
    return a.inode != b.inode ? a.inode < b.inode : a.pid < b.pid;
}

socket_owner owner_of(int proc, const char *number)
{
    socket_owner owner = {};
    owner.pid = proc::words{number}.number<int32_t>().value_or(0);
    char name[sizeof owner.process + 1];
    const ssize_t n = proc::read_at(proc, proc::path{number, "comm"}.c_str(), name);
    if (n > 0) copy_text(owner.process, {name, static_cast<size_t>(n) - 1}); // without its line feed
    return owner;
}

} // namespace

uint64_t inode_of_link(std::string_view link)
{
    if (!starts_with(link, link_prefix) || !link.ends_with(']')) return 0;
    link.remove_suffix(1);
    return proc::words{after(link, link_prefix.size())}.number<uint64_t>().value_or(0);
}

int socket_owners::note_process(int proc, const char *number)
{
    const unique_fd directory{openat(proc, proc::path{number, "fd"}.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!directory.ok()) return proc::gone(errno) || proc::hidden(errno) ? 0 : -errno;
    proc::numbered_entries descriptors{directory.get()};
    socket_owner owner = {};
    while (const char *descriptor = descriptors.next()) {
        char link[64];
        const ssize_t n = readlinkat(directory.get(), descriptor, link, sizeof link);
        const uint64_t inode = n > 0 ? inode_of_link({link, static_cast<size_t>(n)}) : 0;
        if (inode == 0) continue;
        if (owner.pid == 0) owner = owner_of(proc, number);
        owner.inode = inode;
        if (const int failed = list_.add(owner); failed < 0) return failed;
    }
    return 0;
}

int socket_owners::gather()
{
    const unique_fd proc{open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!proc.ok()) return -errno;
    proc::numbered_entries processes{proc.get()};
    int result = 0;
    while (const char *number = result == 0 ? processes.next() : nullptr) result = note_process(proc.get(), number);
    std::sort(list_.items().begin(), list_.items().end(), before);
    return result < 0 ? result : processes.error();
}

const socket_owner *socket_owners::find(uint64_t inode) const
{
    const auto owners = list_.items();
    const auto found = std::lower_bound(owners.begin(), owners.end(), inode,
                                        [](const socket_owner &o, uint64_t wanted) { return o.inode < wanted; });
    return found != owners.end() && found->inode == inode && inode != 0 ? &*found : nullptr;
}

} // namespace vela
