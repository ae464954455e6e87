// For calls into libraries that write without MSG_NOSIGNAL: a peer that went away must not end the program.
#pragma once

#include <csignal>
#include <ctime>

namespace vela
{

/// Keeps SIGPIPE from this thread while it lives. One that was pending before stays so, one of ours is taken back.
class pipe_signal_blocked
{
public:
    pipe_signal_blocked()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        was_pending_ = pending();
        (void)pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    pipe_signal_blocked(const pipe_signal_blocked &) = delete;
    pipe_signal_blocked &operator=(const pipe_signal_blocked &) = delete;
    ~pipe_signal_blocked()
    {
        constexpr timespec at_once{};
        if (!was_pending_ && pending()) (void)sigtimedwait(&pipe_, nullptr, &at_once);
        (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

private:
    static bool pending()
    {
        sigset_t signals;
        return sigpending(&signals) == 0 && sigismember(&signals, SIGPIPE) == 1;
    }

    sigset_t pipe_{};
    sigset_t before_{};
    bool was_pending_;
};

} // namespace vela
