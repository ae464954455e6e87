// Where libubus and our own client in its place differ.
#pragma once

#include <libubus.h>
#include <vela/core/internal/wait.h>

namespace vela
{

/// To be called before requests that the library itself gives no time limit (all but ubus_invoke). Whether they may be
/// made: not when the daemon is silent.
inline bool limit_requests(ubus_context *ctx, const deadline &until)
{
#ifdef LIBUBUS_STAND_IN
    ctx->answer_ms = until.left_ms();
    return ctx->answer_ms > 0;
#else
    // libubus waits for ever. A call does have a limit: one that the daemon itself refuses shows that it answers.
    constexpr uint32_t events = 1; // the daemon's own object for events
    const int left_ms = until.left_ms();
    const int status = left_ms > 0 ? ubus_invoke(ctx, events, "", nullptr, nullptr, nullptr, left_ms) : 0;
    return status == UBUS_STATUS_INVALID_COMMAND || status == UBUS_STATUS_PERMISSION_DENIED;
#endif
}

} // namespace vela
