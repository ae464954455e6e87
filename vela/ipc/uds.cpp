// A handle is filled step by step and taken back whole when a step fails, so that closing it then does nothing.

#include <cstddef>
#include <cstring>
#include <vela/core/internal/log.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/ipc/uds.h>

namespace
{

constexpr const char *log_module = "uds";

constexpr const char *client_format = "/var/run/uds_client-%d-%d";
constexpr int client_number_mask = 0xFFFF;

const sockaddr *as_sockaddr(const sockaddr_un &address) { return reinterpret_cast<const sockaddr *>(&address); }

/// Of the path as it stands in the address, cut or not.
socklen_t length_of(const sockaddr_un &address)
{
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(address.sun_path));
}

void set_path(sockaddr_un &address, const char *path)
{
    address.sun_family = AF_UNIX;
    vela::copy_text(address.sun_path, path);
}

/// A server's own path, or a new one for a client.
void set_local(sockaddr_un &local, const char *server_path)
{
    if (server_path) return set_path(local, server_path);
    const vela::formatted<sizeof local.sun_path> path(client_format, getpid(), rand() & client_number_mask);
    set_path(local, path.c_str());
}

bool bind_local(int fd, const sockaddr_un &local)
{
    (void)unlink(local.sun_path); // left by an earlier run, or nothing
    return bind(fd, as_sockaddr(local), length_of(local)) == 0;
}

/// Takes the local path back, from the disk and from the handle.
void forget_local(uds_sock &h)
{
    const vela::errno_keeper keep;
    (void)unlink(h.local.sun_path);
    h.local = {};
}

} // namespace

int uds_socket_create(const char *path, uds_sock *h, int server)
{
    if (h) {
        *h = {};
        h->fd = -1;
    }
    if (!h || !path) {
        log_error("invalid parameter");
        return -1;
    }
    vela::unique_fd sock{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!sock.ok()) {
        log_error("uds socket error, errno:%d/%s", errno, strerror(errno));
        return -1;
    }
    set_local(h->local, server ? path : nullptr);
    if (!bind_local(sock.get(), h->local)) {
        log_error("bind error, path:%s, errno:%d/%s", h->local.sun_path, errno, strerror(errno));
        forget_local(*h);
        return -1;
    }
    if (server) return h->fd = sock.release();

    set_path(h->remote, path);
    if (connect(sock.get(), as_sockaddr(h->remote), length_of(h->remote)) != 0) {
        log_error("connect error, path:%s, errno:%d/%s", h->remote.sun_path, errno, strerror(errno));
        forget_local(*h);
        return -1;
    }
    return h->fd = sock.release();
}

int uds_sock_open_server(const char *path, uds_sock *h) { return uds_socket_create(path, h, 1); }

int uds_sock_open_client(const char *server_path, uds_sock *h) { return uds_socket_create(server_path, h, 0); }

int uds_get_sock(const uds_sock *h) { return h ? h->fd : -1; }

void uds_sock_close(uds_sock *h)
{
    if (!h) return;
    if (*h->local.sun_path) (void)unlink(h->local.sun_path); // somebody else may have removed it
    if (h->fd >= 0) (void)close(h->fd);
}
