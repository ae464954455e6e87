#include "site/wire.h"

#include "site/world.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace site
{
namespace
{

void must_run(const std::string &commands)
{
    if (run("set -e; " + commands) == 0) return;
    fprintf(stderr, "the wire cannot be laid: %s\n", commands.c_str());
    exit(1);
}

void lay_bridge(const std::string &address, const std::string &port)
{
    must_run("ip link add br0 type bridge forward_delay 0 mcast_snooping 0; ip link set br0 up; ip link set " + port +
             " master br0 up; ip address add " + address + "/24 dev br0; ip route add 224.0.0.0/4 dev br0");
}

void await_byte(int fd)
{
    char byte = 0;
    if (read(fd, &byte, 1) != 1) _exit(1); // the other side is gone
}

} // namespace

second_device::second_device(std::function<void()> acts)
{
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(start_, O_CLOEXEC) != 0) exit(1);
    pid_ = fork();
    if (pid_ == 0) {
        close(start_[1]);
        leave_network();
        (void)!write(ready[1], "", 1);
        await_byte(start_[0]);
        lay_bridge(own_address, "far");
        // What is sent before the wire carries anything is lost.
        must_run("until ip -o link show br0 | grep -q 'state UP'; do sleep 0.05; done; sleep 0.3");
        acts();
        fflush(stdout);
        _exit(0);
    }
    await_byte(ready[0]);
    close(ready[0]), close(ready[1]), close(start_[0]);
    must_run("ip link add near type veth peer name far netns " + std::to_string(pid_));
    lay_bridge(our_address, "near");
}

second_device::~second_device()
{
    if (pid_ > 0) join();
    run("ip link del br0; ip link del near 2>/dev/null");
}

void second_device::go() { (void)!write(start_[1], "", 1); }

int second_device::join()
{
    close(start_[1]); // one that was never told to go ends here
    int status = 0;
    (void)waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace site
