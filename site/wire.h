// A second device on the same wire: a process in a network of its own, joined to this world's by a veth pair, a bridge
// br0 on either side. Files are shared with this world.
#pragma once

#include <functional>
#include <sys/types.h>

namespace site
{

class second_device
{
public:
    static constexpr const char *own_address = "192.168.9.2";
    static constexpr const char *our_address = "192.168.9.1";

    /// Lays the wire; the second device acts once told to go().
    explicit second_device(std::function<void()> acts);
    second_device(const second_device &) = delete;
    second_device &operator=(const second_device &) = delete;
    ~second_device();

    void go();
    /// Waits for its end; what it exits with, 0 when its acts return.
    int join();

private:
    int start_[2] = {-1, -1};
    pid_t pid_ = -1;
};

} // namespace site
