// A signal every millisecond or so, caught, and without restarting what it interrupts: every blocking call meets EINTR.
#pragma once

#include <csignal>
#include <sys/time.h>

class signal_storm
{
public:
    explicit signal_storm(int period_us = 1000)
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, &before_);
        set_period(period_us);
    }
    signal_storm(const signal_storm &) = delete;
    signal_storm &operator=(const signal_storm &) = delete;
    ~signal_storm()
    {
        set_period(0);
        sigaction(SIGALRM, &before_, nullptr);
    }

private:
    static void set_period(int microseconds)
    {
        const itimerval period = {{0, microseconds}, {0, microseconds}};
        setitimer(ITIMER_REAL, &period, nullptr);
    }
    struct sigaction before_ = {};
};
