// Where libubus and our own client in its place differ.
#pragma once

#include <libubus.h>
#include <sys/socket.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/wait.h>

namespace vela
{

constexpr uint32_t bus_events = 1; // the daemon's own object for events

#ifdef LIBUBUS_STAND_IN

/// How long the rest of a greeting may take that has begun to arrive.
constexpr int greeting_rest_ms = 250;

/// Makes a context of a connection on which the daemon's greeting has begun to arrive; null without a proper one.
inline ubus_context *open_context(unique_fd greeted, const char * /*path*/)
{
    return ubus_connect_socket(greeted.release(), greeting_rest_ms);
}

/// The same for a context that has lost its connection.
inline bool reopen_context(ubus_context *ctx, unique_fd greeted, const char * /*path*/)
{
    return ubus_reconnect_socket(ctx, greeted.release(), greeting_rest_ms) == UBUS_STATUS_OK;
}

/// To be called before requests that the library gives no time limit itself (all but ubus_invoke). Whether they may be
/// made: not when the daemon is silent.
inline bool limit_requests(ubus_context *ctx, const deadline &until)
{
    ctx->answer_ms = until.left_ms();
    return ctx->answer_ms > 0;
}

/// Forgets an object without asking the daemon.
inline void forget_object(ubus_context *ctx, ubus_object &object) { ubus_forget(ctx, &object); }

#else

// libubus makes its own connections, and waits for a greeting without a limit. A daemon that has greeted another
// connection of ours just now is awake.

/// Whether the whole greeting has arrived. Closes the connection: a daemon may serve one after the other.
inline bool has_greeted(unique_fd connection)
{
    char greeting[12];
    const ssize_t n = recv(connection.get(), greeting, sizeof greeting, MSG_DONTWAIT);
    connection.reset();
    return n == sizeof greeting;
}

inline ubus_context *open_context(unique_fd greeted, const char *path)
{
    return has_greeted(std::move(greeted)) ? ubus_connect(path) : nullptr;
}

inline bool reopen_context(ubus_context *ctx, unique_fd greeted, const char *path)
{
    if (!has_greeted(std::move(greeted))) return false;
    if (ubus_reconnect(ctx, path) == UBUS_STATUS_OK) return true;
    ctx->sock.fd = -1; // libubus may leave a closed number, and close it again
    return false;
}

// It waits for other answers without a limit too. A call does have one: that the daemon refuses this one shows that it
// answers.
inline bool limit_requests(ubus_context *ctx, const deadline &until)
{
    const int left_ms = until.left_ms();
    if (left_ms == 0) return false;
    const int status = ubus_invoke(ctx, bus_events, "", nullptr, nullptr, nullptr, left_ms);
    return status == UBUS_STATUS_INVALID_COMMAND || status == UBUS_STATUS_PERMISSION_DENIED;
}

// It would make its objects known again by itself when it reconnects, again without a limit.
inline void forget_object(ubus_context *ctx, ubus_object &object)
{
    if (object.id == 0) return;
    avl_delete(&ctx->objects, &object.avl);
    object.id = 0;
}

#endif

} // namespace vela
