// Waiting for a descriptor, bounded by the monotonic clock. poll rather than select: a descriptor may have any number.
#pragma once

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <optional>
#include <poll.h>
#include <sys/time.h>

namespace vela
{

/// Nothing when the clock fails, errno says why.
inline std::optional<int64_t> monotonic_ns()
{
    timespec now = {};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return std::nullopt;
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

/// A moment that a wait must not outlast, however often it is interrupted.
class deadline
{
public:
    explicit deadline(int32_t seconds) : deadline{now_ns(), int64_t{seconds} * 1'000'000'000} {}
    static deadline after_ms(int32_t ms) { return {now_ns(), int64_t{ms} * 1'000'000}; }
    /// A time of more than a century, or less than none, keeps its meaning without overflow.
    static deadline after(const timeval &time)
    {
        const int64_t seconds = std::clamp<int64_t>(time.tv_sec, -4'000'000'000, 4'000'000'000);
        const int64_t microseconds = std::clamp<int64_t>(time.tv_usec, -1'000'000'000'000, 1'000'000'000'000);
        return {now_ns(), seconds * 1'000'000'000 + microseconds * 1'000};
    }
    static deadline never() { return {0, INT64_MAX}; }
    static deadline earlier(deadline a, deadline b) { return a.at_ns_ < b.at_ns_ ? a : b; }

    /// What is left, rounded up, as poll takes it; 0 once the moment has come (or the clock is gone).
    [[nodiscard]] int left_ms() const
    {
        const int64_t left_ns = at_ns_ - monotonic_ns().value_or(INT64_MAX);
        if (left_ns <= 0) return 0;
        const int64_t left = left_ns / 1'000'000 + (left_ns % 1'000'000 != 0 ? 1 : 0);
        return left < INT_MAX ? static_cast<int>(left) : INT_MAX;
    }
    [[nodiscard]] bool passed() const { return left_ms() == 0; }

private:
    deadline(int64_t from_ns, int64_t patience_ns) : at_ns_{from_ns + patience_ns} {}
    static int64_t now_ns() { return monotonic_ns().value_or(0); }

    int64_t at_ns_;
};

enum class wait_result { ready, timeout, failed };

/// Waits until the descriptor is ready for `events` (POLLIN, POLLOUT) or has an error or a hang-up to report, which the
/// call that follows will tell. `failed` leaves errno: EINTR after a signal, EBADF for what is not open.
inline wait_result wait_for(int fd, short events, const deadline &until)
{
    pollfd entry = {fd, events, 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, until.left_ms());
    } while (ready == 0 && !until.passed());
    if (ready > 0 && (entry.revents & POLLNVAL)) {
        errno = EBADF;
        return wait_result::failed;
    }
    if (ready < 0) return wait_result::failed;
    return ready == 0 ? wait_result::timeout : wait_result::ready;
}

/// The same, whatever signals come meanwhile.
inline wait_result wait_through_signals(int fd, short events, const deadline &until)
{
    auto result = wait_for(fd, events, until);
    while (result == wait_result::failed && errno == EINTR) {
        if (until.passed()) return wait_result::timeout; // signals that never stop must not hold it
        result = wait_for(fd, events, until);
    }
    return result;
}

} // namespace vela
