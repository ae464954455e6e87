// Owners of what the kernel and libc hand out: each releases in its destructor and leaves errno as it was.
#pragma once

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <unistd.h>
#include <utility>
#include <vela/core/internal/memory.h>

namespace vela
{

/// Puts errno back to what it was: for code that must not hide why it runs.
class errno_keeper
{
public:
    errno_keeper() = default;
    errno_keeper(const errno_keeper &) = delete;
    errno_keeper &operator=(const errno_keeper &) = delete;
    ~errno_keeper() { errno = saved_; }

private:
    int saved_ = errno;
};

/// A descriptor.
class unique_fd
{
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_{fd} {}
    unique_fd(unique_fd &&other) noexcept : fd_{other.release()} {}
    unique_fd &operator=(unique_fd &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    [[nodiscard]] bool ok() const { return fd_ >= 0; }
    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        const errno_keeper keep;
        if (fd_ >= 0) close(fd_); // 0 is a descriptor too; never retried, Linux frees it even on EINTR
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

inline void close_stream(FILE *stream)
{
    const errno_keeper keep;
    (void)fclose(stream); // what must reach the disk is checked by who wrote it
}
using file_ptr = std::unique_ptr<FILE, releaser<close_stream>>;

inline void close_directory(DIR *directory)
{
    const errno_keeper keep;
    (void)closedir(directory);
}
using dir_ptr = std::unique_ptr<DIR, releaser<close_directory>>;

/// A command started by popen ("re": no descriptor of ours reaches other commands). Who wants its status calls
/// pclose(pipe.release()).
inline void close_pipe(FILE *stream)
{
    const errno_keeper keep;
    (void)pclose(stream);
}
using pipe_ptr = std::unique_ptr<FILE, releaser<close_pipe>>;

} // namespace vela
