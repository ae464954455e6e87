// Which process holds a socket: one look through /proc.
#pragma once

#include <cstdint>
#include <string_view>
#include <vela/core/internal/growing.h>

namespace vela
{

struct socket_owner {
    uint64_t inode;
    int32_t pid;
    char process[16];
};

class socket_owners
{
public:
    /// Reads the links of every descriptor that this process may see. 0; -ENOSPC when there are more than are held;
    /// another negative errno.
    int gather();
    /// The lowest pid that holds the socket; null for none.
    [[nodiscard]] const socket_owner *find(uint64_t inode) const;

private:
    static constexpr size_t most = 65'536;

    int note_process(int proc, const char *number);

    growing_list<socket_owner> list_{most};
};

/// "socket:[123]" gives 123; 0 for any other link.
uint64_t inode_of_link(std::string_view link);

} // namespace vela
