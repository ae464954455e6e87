#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vela/core/internal/own.h>
#include <vela/monitor/internal/proc.h>

namespace vela::proc
{
namespace
{

/// One entry as the kernel writes it (getdents64(2)); libc's readdir would allocate its block.
struct entry {
    uint64_t inode;
    int64_t offset;
    uint16_t size;
    uint8_t type;
    char name[];
};
constexpr size_t name_offset = offsetof(entry, name);

bool is_number(const char *name)
{
    const char *end = name;
    while (is_digit(*end)) ++end;
    return end != name && *end == '\0';
}

} // namespace

ssize_t read_at(int directory, const char *path, std::span<char> into)
{
    const unique_fd file{openat(directory, path, O_RDONLY | O_CLOEXEC)};
    if (!file.ok()) return -errno;
    const ssize_t n = read(file.get(), into.data(), into.size());
    return n < 0 ? -errno : n;
}

bool gone(int error) { return error == ENOENT || error == ESRCH || error == ENOTDIR; }

bool hidden(int error) { return error == EACCES || error == EPERM; }

bool numbered_entries::refill()
{
    const long n = syscall(SYS_getdents64, directory_, block_, sizeof block_);
    if (n < 0) error_ = -errno;
    at_ = 0;
    size_ = n > 0 ? static_cast<size_t>(n) : 0;
    return n > 0;
}

const char *numbered_entries::next()
{
    while (at_ < size_ || refill()) {
        uint16_t size;
        memcpy(&size, block_ + at_ + offsetof(entry, size), sizeof size);
        const char *name = block_ + at_ + name_offset;
        at_ += size;
        if (is_number(name)) return name;
    }
    return nullptr;
}

} // namespace vela::proc
