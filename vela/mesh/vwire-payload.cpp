// The uplink payload: a small file that is always seen whole, the old one or the new one.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <vela/core/internal/own.h>
#include <vela/mesh/vwire.h>

namespace
{

constexpr const char *payload_path = "/var/run/vwire.payload";
constexpr auto fresh_pattern = std::to_array("/var/run/vwire.payload.XXXXXX"); // beside it, until it is renamed
constexpr mode_t payload_mode = 0600;

/// 0 for a file, -ENOENT where there is nothing, and what keeps anything else from being the payload.
int look(int result, const struct stat &status)
{
    if (result != 0) return -errno;
    if (S_ISLNK(status.st_mode)) return -ELOOP;
    if (S_ISDIR(status.st_mode)) return -EISDIR;
    return S_ISREG(status.st_mode) ? 0 : -EINVAL;
}

int look_at_path()
{
    struct stat status = {};
    return look(lstat(payload_path, &status), status);
}

/// A file that goes away again unless it is renamed.
class fresh_file
{
public:
    fresh_file() : fd_{mkostemp(path_.data(), O_CLOEXEC)} {}
    fresh_file(const fresh_file &) = delete;
    fresh_file &operator=(const fresh_file &) = delete;
    ~fresh_file()
    {
        if (fd_.ok() && !renamed_) (void)unlink(path_.data());
    }

    /// 0, or a negative errno.
    int become(const char *path, const void *data, size_t size)
    {
        if (!fd_.ok() || fchmod(fd_.get(), payload_mode) != 0) return -errno;
        const ssize_t written = write(fd_.get(), data, size);
        if (written < 0) return -errno;
        if (static_cast<size_t>(written) != size) return -ENOSPC;
        renamed_ = rename(path_.data(), path) == 0;
        return renamed_ ? 0 : -errno;
    }

private:
    std::array<char, fresh_pattern.size()> path_ = fresh_pattern;
    vela::unique_fd fd_;
    bool renamed_ = false;
};

} // namespace

int set_vwire_payload(const void *data, size_t len)
{
    if (!data || len == 0) return -EINVAL;
    if (len > VWIRE_PAYLOAD_MAX) return -EMSGSIZE;
    if (const int there = look_at_path(); there != 0 && there != -ENOENT) return there;
    fresh_file file;
    return file.become(payload_path, data, len);
}

int get_vwire_payload(void *out, size_t size)
{
    if (!out && size != 0) return -EINVAL;
    const vela::unique_fd fd{open(payload_path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)};
    if (!fd.ok()) return -errno; // ELOOP for a symbolic link
    struct stat status = {};
    if (const int there = look(fstat(fd.get(), &status), status); there != 0) return there;
    uint8_t payload[VWIRE_PAYLOAD_MAX + 1];
    const ssize_t length = read(fd.get(), payload, sizeof payload);
    if (length < 0) return -errno;
    if (length == 0) return -ENOENT;
    if (length > VWIRE_PAYLOAD_MAX) return -EMSGSIZE;
    if (size != 0) memcpy(out, payload, std::min(size, static_cast<size_t>(length)));
    return static_cast<int>(length);
}

int unset_vwire_payload(void)
{
    const int there = look_at_path();
    if (there == -ENOENT) return 0;
    if (there != 0) return there;
    return unlink(payload_path) == 0 || errno == ENOENT ? 0 : -errno;
}
