// A Unix datagram socket and the thread that serves it: what the site's local daemons are made of.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <vector>

namespace site
{

using bytes = std::vector<uint8_t>;

struct local_address {
    sockaddr_un address = {};
    socklen_t length = 0;
};

local_address path_address(const std::string &path);
/// The name in the abstract namespace, padded with zero bytes to the full 110.
local_address abstract_address(const std::string &name);

class local_peer
{
public:
    struct datagram {
        bytes content;
        local_address from;
    };

    /// Binds, in place of a stale socket; an empty address leaves it without a name. Throws std::system_error.
    explicit local_peer(const local_address &at);
    local_peer(const local_peer &) = delete;
    local_peer &operator=(const local_peer &) = delete;
    ~local_peer();

    /// Starts the thread; signals of the process do not go to it.
    void serve(std::function<void()> body);
    /// Ends receive() for good and waits for the thread. The path of the socket goes with it.
    void stop();

    /// The next datagram, however long; nothing once stopped, or when none came in time (below 0: no limit).
    std::optional<datagram> receive(int timeout_ms = -1);
    void send(const local_address &to, const bytes &content);

    /// What the peer on the other side did wrong, for a test to read.
    void complain(const std::string &fault);
    std::vector<std::string> faults();

private:
    int fd_;
    local_address at_;
    std::atomic<bool> stopped_ = false;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<std::string> faults_;
};

} // namespace site
