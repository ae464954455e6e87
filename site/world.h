// A private world for one simulated device: namespaces of its own, and file systems in which every path that the
// library knows can be laid out, so that the unmodified shared object runs at its real paths.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

namespace site
{

/// Moves this process (a fork of it) into a world of its own: private user (when not root), mount, network, UTS, IPC
/// and process namespaces; empty /run, /tmp, /var/log; /dev, /proc and /sys with their useful entries (links, so that
/// one can be replaced); writable /etc and /usr. Returns in the inner process only. The outer one waits and ends with
/// the same status; so does the whole world when either ends. Call it first, before any thread. Where the host does not
/// allow it, says why and exits with 1.
/// With `network::shared` the interfaces stay those of the caller's network: radios cannot all be moved.
enum class network { own, shared };
void enter_world(network which = network::own);

/// Joins a network namespace of its own from within a world (a second device on the same wire).
void leave_network();

// Files of the device. Parent directories are made; an existing file (or link) is replaced.
void put_file(const std::string &path, std::string_view content, mode_t mode = 0644);
void put_program(const std::string &path, std::string_view script);
void remove_file(const std::string &path);
std::string read_file(const std::string &path); ///< "" when it cannot be read
bool exists(const std::string &path);

/// Runs a shell command; its exit status, or 128 plus the signal.
int run(const std::string &command);
/// Runs a shell command and returns what it printed.
std::string output_of(const std::string &command);

} // namespace site
