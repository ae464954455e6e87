// Bus connections: records, their loss and their return.
//
// A record is connected (context and read event), waiting (timer or greeting event, no read event) or closed. The loss
// of a connection makes it wait. An attempt opens a socket and leaves it to the event loop to wait for the daemon's
// greeting, so that a daemon that is stuck holds nobody; then the context takes the connection over. The library below
// is given no event loop of its own.
//
// Callbacks of the user's run in the middle of most functions here and may close any record. So closing only marks and
// sets aside; the outermost call of ours sweeps what was closed, with its context, when it ends.

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <event2/event.h>
#include <vela/core/internal/local_stream.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/pipe_signal.h>
#include <vela/ipc/internal/bus_library.h>
#include <vela/ipc/internal/ubus_record.h>

namespace
{

constexpr const char *log_module = "libvela_ubus";
constexpr timeval reconnect_interval{1, 0};
constexpr timeval greeting_patience{vela::bus_answer_ms / 1000, 0};
constexpr int restoring_ms = 1000; // for all listeners together

static_assert(offsetof(vela_ubus_interface_t, base) == 0);
static_assert(offsetof(vela_ubus_interface_t, on_connect) < offsetof(vela_ubus_interface_t, on_close));
static_assert(offsetof(vela_ubus_interface_t, on_close) < offsetof(vela_ubus_interface_t, link));

using vela::deadline;
using record = vela::ubus_record;
using call = vela::ubus_call;

/// Every record, in the order of creation. Emptied by vela_ubus_init, which also sets the flag.
constinit vela_ubus_links records{&records, &records};
constinit bool initialised = false;
/// Closed records, and the calls under way that may still use them; the last of these empties the list.
constinit vela_ubus_links closed_records{&closed_records, &closed_records};
constinit unsigned calls = 0;

record &owner(vela_ubus_links *link)
{
    constexpr size_t place = offsetof(vela_ubus_interface_t, link);
    return vela::inside(*reinterpret_cast<vela_ubus_interface_t *>(reinterpret_cast<char *>(link) - place));
}

void link_before(vela_ubus_links &place, vela_ubus_links &link)
{
    link = {&place, place.prev};
    link.prev->next = &link;
    place.prev = &link;
}

void unlink(vela_ubus_links &link)
{
    if (!link.next) return; // in no list
    link.prev->next = link.next;
    link.next->prev = link.prev;
    link = {};
}

void release(record &iface)
{
    unlink(iface.link);
    if (iface.ctx) ubus_free(iface.ctx);
    vela::free_listeners(iface);
    std::destroy_at(&iface);
    free(&iface);
}

/// libubus takes these signals for a loop of its own when it connects; they are the program's.
class signal_keeper
{
public:
    signal_keeper()
    {
        for (size_t i = 0; i < signals.size(); ++i) (void)sigaction(signals[i], nullptr, &saved_[i]);
    }
    signal_keeper(const signal_keeper &) = delete;
    signal_keeper &operator=(const signal_keeper &) = delete;
    ~signal_keeper()
    {
        for (size_t i = 0; i < signals.size(); ++i) (void)sigaction(signals[i], &saved_[i], nullptr);
    }

private:
    static constexpr std::array signals{SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
    std::array<struct sigaction, signals.size()> saved_{};
};

void release_event(event *&e)
{
    if (e) event_free(e); // which libevent does not accept without one
    e = nullptr;
}

/// Handles what has arrived on the bus.
void handle_messages(record &iface)
{
    const vela::pipe_signal_blocked quiet;
    iface.ctx->sock.cb(&iface.ctx->sock, ULOOP_READ);
}

void on_readable(evutil_socket_t /*fd*/, short /*what*/, void *arg)
{
    auto &iface = *static_cast<record *>(arg);
    const call here;
    handle_messages(iface);
    // A record that nobody restarts must not keep the loop busy: the end of a connection stays readable.
    if (iface.ctx->sock.eof) release_event(iface.read_event);
}

bool watch(record &iface)
{
    iface.read_event = event_new(iface.base, iface.ctx->sock.fd, EV_READ | EV_PERSIST, on_readable, &iface);
    if (!iface.read_event) return false;
    if (event_add(iface.read_event, nullptr) == 0) {
        vela::deliver_later(iface); // requests have been made before there was an event
        return true;
    }
    release_event(iface.read_event);
    return false;
}

void u_reconnect_timeout(evutil_socket_t fd, short what, void *arg);

void stop_greeting(record &iface)
{
    release_event(iface.greeting_event); // before its descriptor is closed
    iface.greeting.reset();
}

void arm(record &iface)
{
    if (iface.greeting_event) return;                                           // an attempt is under way
    if (iface.timer && event_pending(iface.timer, EV_TIMEOUT, nullptr)) return; // a second from the first loss
    if (!iface.timer) iface.timer = event_new(iface.base, -1, 0, u_reconnect_timeout, &iface);
    if (!iface.timer || event_add(iface.timer, &reconnect_interval) < 0) log_error("failed to arm the reconnect timer");
}

void restart(record &iface)
{
    release_event(iface.read_event); // first: its descriptor stays readable until it is replaced
    arm(iface);
}

/// Called by the bus library, also in the middle of a request and more than once for one loss.
void u_connection_lost(ubus_context *ctx)
{
    log_warn("ubus connection lost, reconnecting...");
    if (!initialised) return;
    for (vela_ubus_links *link = records.next; link != &records; link = link->next) {
        record &iface = owner(link);
        if (!ctx || iface.ctx == ctx) restart(iface);
    }
}

int find(record &iface, const char *name)
{
    const call here;
    const int result = vela::look_up(iface, name, iface.id, deadline::after_ms(vela::bus_answer_ms));
    vela::deliver_later(iface);
    return result == 0 ? 0 : -ENOSYS;
}

/// Makes a fresh connection, if there is a bus.
bool open_bus(record &iface)
{
    const deadline until = deadline::after_ms(vela::bus_answer_ms);
    vela::unique_fd socket = vela::connect_stream(iface.path, until);
    if (!socket.ok()) return false;
    if (vela::wait_through_signals(socket.get(), POLLIN, until) != vela::wait_result::ready) return false;
    const signal_keeper keep;
    iface.ctx = vela::open_context(std::move(socket), iface.path);
    return iface.ctx != nullptr;
}

void introduce(record &iface)
{
    iface.ctx->connection_lost = u_connection_lost;
    if ((iface.flags & VELA_UBUS_NO_LOOKUP) == 0) (void)vela_ubus_find_service(&iface); // the id tells
    if (iface.on_connect) iface.on_connect(&iface);
}

constexpr const char *attempt = "u_reconnect_timeout"; // the name of all its steps in the log

void try_again(record &iface)
{
    const char *const what =
        iface.ctx ? "Failed to reconnect, trying again in %ds" : "Failed to connect, trying again in %ds";
    log_warn_as(attempt, what, static_cast<int>(reconnect_interval.tv_sec));
    arm(iface);
}

/// Connects a record with a daemon that greets: in a context of its own at first, later in the one it has, which is
/// otherwise kept.
bool take_over(record &iface, vela::unique_fd greeted)
{
    const vela::pipe_signal_blocked quiet;
    const signal_keeper keep;
    if (iface.ctx) {
        vela::forget_listeners(iface);
        return vela::reopen_context(iface.ctx, std::move(greeted), iface.path);
    }
    iface.ctx = vela::open_context(std::move(greeted), iface.path);
    return iface.ctx != nullptr;
}

/// Resumes what a record had: its read event and its listeners.
void resume(record &iface, bool again)
{
    if (!watch(iface)) {
        log_error_as(attempt, "failed to create UBUS event");
        arm(iface); // the next attempt makes another connection
        return;
    }
    if (!vela::restore_listeners(iface, deadline::after_ms(restoring_ms))) {
        iface.ctx->sock.eof = true; // of no use
        release_event(iface.read_event);
        try_again(iface);
        return;
    }
    log_debug_as(attempt, "Reconnected!");
    release_event(iface.timer);
    vela::tell_gaps(iface);
    if (again && !iface.closed && iface.on_reconnect) iface.on_reconnect(&iface);
}

void on_greeting(evutil_socket_t /*fd*/, short what, void *arg)
{
    auto &iface = *static_cast<record *>(arg);
    const call here;
    const bool again = iface.ctx != nullptr;
    release_event(iface.greeting_event);
    vela::unique_fd greeted = std::move(iface.greeting);
    if ((what & EV_READ) == 0 || !take_over(iface, std::move(greeted))) {
        try_again(iface);
        return;
    }
    iface.ctx->sock.registered = true; // libubus leaves a registered descriptor out of its own loop
    if (!again) introduce(iface);
    if (!iface.closed) resume(iface, again);
}

void u_reconnect_timeout(evutil_socket_t /*fd*/, short /*what*/, void *arg)
{
    auto &iface = *static_cast<record *>(arg);
    const call here;
    iface.greeting = vela::connect_stream(iface.path, deadline::after_ms(0));
    if (iface.greeting.ok()) {
        iface.greeting_event = event_new(iface.base, iface.greeting.get(), EV_READ, on_greeting, &iface);
    }
    if (iface.greeting_event && event_add(iface.greeting_event, &greeting_patience) == 0) return;
    stop_greeting(iface);
    try_again(iface);
}

} // namespace

namespace vela
{

ubus_call::ubus_call() { ++calls; }

ubus_call::~ubus_call()
{
    if (--calls != 0) return;
    while (closed_records.next != &closed_records) release(owner(closed_records.next));
}

int request_error(const ubus_record &record, int status)
{
    // The library calls it an invalid argument when it cannot send.
    return status != UBUS_STATUS_OK && !connected(record) ? -ENOTCONN : bus_error(status);
}

bool connected(const ubus_record &record) { return record.ctx && record.ctx->sock.fd >= 0 && !record.ctx->sock.eof; }

int may_request(const ubus_record &record, const deadline &until)
{
    const pipe_signal_blocked quiet;
    if (connected(record) && limit_requests(record.ctx, until)) return 0;
    return connected(record) ? -ETIMEDOUT : -ENOTCONN;
}

int look_up(ubus_record &record, const char *name, uint32_t &id, const deadline &until)
{
    if (const int result = may_request(record, until); result < 0) return result;
    const pipe_signal_blocked quiet;
    uint32_t found = 0; // stays 0 where the daemon shows nothing of the object to this process
    const int status = ubus_lookup_id(record.ctx, name, &found);
    if (status != UBUS_STATUS_OK) return request_error(record, status);
    if (found == 0) return -ENOENT;
    id = found;
    return 0;
}

void deliver_later(ubus_record &record)
{
    if (record.read_event) event_active(record.read_event, EV_READ, 1);
}

} // namespace vela

int vela_ubus_init(void)
{
    while (records.next != &records) unlink(*records.next);
    initialised = true;
    return 0;
}

vela_ubus_interface_t *vela_ubus_create(struct event_base *base, const char *path, const char *service, uint32_t flags,
                                        vela_ubus_callback on_connect, vela_ubus_callback on_close)
{
    if (!base || !path || !service) {
        log_error("Bad parameters in initialization");
        return nullptr;
    }
    void *const memory = malloc(sizeof(record));
    if (!memory) {
        log_error("out of memory building vela_ubus_interface_t");
        return nullptr;
    }
    record *const iface = std::construct_at(static_cast<record *>(memory));
    iface->base = base;
    iface->service = service;
    iface->path = path;
    iface->flags = flags;
    iface->on_connect = on_connect;
    iface->on_close = on_close;

    const call here;
    if (!open_bus(*iface)) {
        log_error("Failed to connect to ubus");
        if ((flags & VELA_UBUS_KEEP_TRYING) == 0) {
            release(*iface);
            return nullptr;
        }
        arm(*iface);
        link_before(records, iface->link);
        return iface;
    }
    iface->ctx->sock.registered = true;
    introduce(*iface);
    if (iface->closed) return nullptr; // by the callback
    if (!watch(*iface)) {
        log_error("Failed to create event object for UBUS callback");
        vela_ubus_close(iface);
        return nullptr;
    }
    link_before(records, iface->link);
    return iface;
}

void vela_ubus_close(vela_ubus_interface_t *iface)
{
    if (!iface || vela::inside(*iface).closed) return;
    const call here;
    vela::inside(*iface).closed = true;
    unlink(iface->link);
    link_before(closed_records, iface->link);
    if (iface->ctx && iface->on_close) iface->on_close(iface);
    stop_greeting(vela::inside(*iface));
    release_event(iface->timer);
    release_event(iface->read_event);
}

void vela_ubus_shutdown(void)
{
    if (!initialised) return;
    // Records leave the list first: a callback may create new ones, which stay, or close others safely.
    vela_ubus_links leaving{&leaving, &leaving};
    while (records.next != &records) {
        vela_ubus_links &link = *records.next;
        unlink(link);
        link_before(leaving, link);
    }
    while (leaving.next != &leaving) vela_ubus_close(&owner(leaving.next));
}

void vela_ubus_set_reconnect_cb(vela_ubus_interface_t *iface, vela_ubus_callback on_reconnect)
{
    if (iface) vela::inside(*iface).on_reconnect = on_reconnect;
}

int vela_ubus_find_service(vela_ubus_interface_t *iface)
{
    if (!iface || !iface->ctx || !iface->service) return -EINVAL;
    const int result = find(vela::inside(*iface), iface->service);
    if (result == 0) vela::inside(*iface).object.reset();
    return result;
}

int vela_ubus_find_object(vela_ubus_interface_t *iface, const char *name)
{
    if (!iface || !iface->ctx || !iface->service || !name || *name == '\0') return -EINVAL;
    const int result = find(vela::inside(*iface), name);
    if (result == 0) vela::inside(*iface).object.reset(strdup(name)); // without memory: the service again
    return result;
}
