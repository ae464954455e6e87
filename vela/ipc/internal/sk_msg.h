// Messages from a peer that is not trusted with our memory.
#pragma once

#include <vela/ipc/sk_msg.h>

namespace vela
{

/// As sk_msg_recv(); refuses a message that is announced with more than `most` bytes.
int32_t receive_at_most(int fd, sk_msg *msg, int timeout_s, int32_t most);

} // namespace vela
