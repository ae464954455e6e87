// The events of an nl80211 service: their socket and groups, the list of registered callbacks, and the dispatch.

#include <cerrno>
#include <cstdlib>
#include <event2/event.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/netlink.h>
#include <vela/wireless/internal/nl80211_events.h>

namespace
{

constexpr const char *log_module = "nl80211";

constexpr const char *event_groups[] = {"config", "scan", "regulatory", "mlme", "vendor"};

// Local ports are offsets from the process id, out of the way of other libnl users in the process.
constexpr uint32_t cmd_port_offset = 0x1000;
constexpr uint32_t event_port_offset = 0x2000;
constexpr uint32_t port_mask = 0x3FFFFF;

// Sized for bursts of scan and station events.
constexpr size_t event_message_max = 1 << 20;
constexpr int event_receive_buffer = 2 << 20;
constexpr int events_per_wakeup = 1 << 14; // so that a flood of events cannot hold the loop

using entry = vl_nl80211_command_callback;
using attributes = vela::netlink::attribute_table<VL_NL80211_ATTR_MAX>;

void make_empty(vl_nl80211_service &service) { service.callbacks.next = service.callbacks.prev = &service.callbacks; }

/// False at the end of the list, and for the null links of a record whose list was never made.
bool is_entry(const vl_nl80211_service &service, const entry *e) { return e && e != &service.callbacks; }

/// One walk over a service's callbacks, newest first. Handlers may change the list or end the service meanwhile, so
/// who does either looks after the walks under way.
struct pass {
    explicit pass(vl_nl80211_service *over);
    pass(const pass &) = delete;
    pass &operator=(const pass &) = delete;
    ~pass();

    vl_nl80211_service *service; // null once it was deinitialised
    entry *next;
    pass *outer;
};

/// The innermost pass under way in this thread; each knows the one around it.
constinit thread_local pass *passes = nullptr;

pass::pass(vl_nl80211_service *over) : service{over}, next{over->callbacks.prev}, outer{passes} { passes = this; }
pass::~pass() { passes = outer; }

void remove(entry *e)
{
    for (pass *p = passes; p; p = p->outer) {
        if (p->next == e) p->next = e->prev;
    }
    e->prev->next = e->next;
    e->next->prev = e->prev;
    free(e);
}

int on_event(nl_msg *message, void *arg)
{
    auto &service = *static_cast<vl_nl80211_service *>(arg);
    const nlmsghdr *header = nlmsg_hdr(message);
    if (header->nlmsg_len < NLMSG_HDRLEN + GENL_HDRLEN) return NL_SKIP;
    const uint8_t command = static_cast<const genlmsghdr *>(NLMSG_DATA(header))->cmd;
    auto table = attributes::of(message);

    pass walk{&service};
    while (walk.service && is_entry(*walk.service, walk.next)) {
        entry *const e = walk.next;
        walk.next = e->prev;
        if (e->cmd == command && e->handler) e->handler(&service, table.slots(), command);
    }
    return walk.service ? NL_SKIP : NL_STOP;
}

// Events carry no sequence numbers.
int on_sequence_check(nl_msg *, void *) { return NL_OK; }

void set_port(nl_sock *socket, uint32_t offset)
{
    nl_socket_set_local_port(socket, (static_cast<uint32_t>(getpid()) + offset) & port_mask);
}

// Without privilege the kernel cuts the size short, and does not say so.
void insist_on_receive_buffer(nl_sock *socket)
{
    const int fd = nl_socket_get_fd(socket);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &event_receive_buffer, sizeof event_receive_buffer);
    int size = 0;
    socklen_t length = sizeof size;
    if (getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length) != 0) return;
    const int usable = size / 2; // the kernel counts its own overhead in
    if (usable < event_receive_buffer) {
        log_debug_as("vl_nl80211_event_init", "the receive buffer holds %d bytes, wanted %d", usable,
                     event_receive_buffer);
    }
}

// Groups are looked up over the command socket: on this one, events of a group just joined would come between.
int join(vl_nl80211_service &service, const char *group)
{
    constexpr const char *step = "vl_nl80211_event_init";
    const int id = genl_ctrl_resolve_grp(service.cmd_sock, vela::nl80211::family_name, group);
    if (id < 0) {
        log_error_as(step, "unable to find nl80211 %s multicast group, ret = %d", group, id);
        return id;
    }
    const int joined = nl_socket_add_membership(service.event_sock, id);
    if (joined < 0) {
        log_error_as(step, "unable to join nl80211 %s multicast group, ret = %d", group, joined);
        return joined;
    }
    return 0;
}

bool is_readable(int fd)
{
    pollfd wanted = {fd, POLLIN, 0};
    return poll(&wanted, 1, 0) > 0;
}

void log_receive_failure(int result)
{
    constexpr const char *step = "vl_nl80211_loop_event";
    log_error_as(step, "an error occurred while receiving messages: %s", nl_geterror(result));
    if (result == -vela::netlink::error_no_memory) log_debug_as(step, "events were lost, what they told must be asked");
}

} // namespace

namespace vela::nl80211
{

int open_event_socket(vl_nl80211_service &service)
{
    constexpr const char *step = "vl_nl80211_event_init";
    service.event_sock = nl_socket_alloc_cb(service.cb);
    if (!service.event_sock) {
        log_error_as(step, "failed to allocate netlink socket");
        return -ENOMEM;
    }
    // Only now: a port that is set frees the one the library had picked, and the next socket made would pick it again.
    set_port(service.cmd_sock, cmd_port_offset);

    const int connected = netlink::connect_generic(service.event_sock);
    if (connected < 0) {
        log_error_as(step, "failed to connect to netlink event, ret = %d", connected);
        return connected;
    }
    const int message_buffer = netlink::set_message_buffer(service.event_sock, event_message_max);
    if (message_buffer < 0) {
        log_error_as(step, "failed to set netlink socket message buffer size, ret = %d", message_buffer);
        return message_buffer;
    }
    const int receive_buffer = nl_socket_set_buffer_size(service.event_sock, event_receive_buffer, 0);
    if (receive_buffer < 0) {
        log_error_as(step, "failed to set netlink socket receive buffer size, ret = %d", receive_buffer);
        return receive_buffer;
    }
    insist_on_receive_buffer(service.event_sock);
    (void)nl_socket_set_nonblocking(service.event_sock); // libnl would wait for the rest of what calls itself a part
    for (const char *group : event_groups) {
        const int joined = join(service, group);
        if (joined < 0) return joined;
    }
    set_port(service.event_sock, event_port_offset);
    return 0;
}

int watch_events(vl_nl80211_service &service, event_base *base)
{
    constexpr const char *step = "vl_nl80211_loop_init";
    make_empty(service);
    nl_cb_set(service.cb, NL_CB_VALID, NL_CB_CUSTOM, on_event, &service);
    nl_cb_set(service.cb, NL_CB_SEQ_CHECK, NL_CB_CUSTOM, on_sequence_check, nullptr);
    service.event =
        event_new(base, nl_socket_get_fd(service.event_sock), EV_READ | EV_PERSIST, vl_nl80211_loop_event, &service);
    if (!service.event) {
        log_error_as(step, "failed to create new event");
        return -1;
    }
    const int added = event_add(service.event, nullptr);
    if (added != 0) log_error_as(step, "failed to add event to event base");
    return added;
}

void drop_callbacks(vl_nl80211_service &service)
{
    for (pass *p = passes; p; p = p->outer) {
        if (p->service == &service) p->service = nullptr;
    }
    while (is_entry(service, service.callbacks.prev)) remove(service.callbacks.prev);
}

} // namespace vela::nl80211

void vl_nl80211_loop_event(int, short, void *service)
{
    auto *const self = static_cast<vl_nl80211_service *>(service);
    const pass guard{self}; // visits nothing, but learns when a handler ends the service
    nl_sock *const socket = self->event_sock;
    const vela::nl_cb_ptr callbacks{nl_cb_get(self->cb)};

    // Receives before it looks, so that a socket that cannot be read says why.
    int received = 0;
    do {
        const int result = nl_recvmsgs(socket, callbacks.get());
        if (!guard.service) return;
        if (result < 0 && result != -vela::netlink::error_nothing_there) return log_receive_failure(result);
    } while (++received < events_per_wakeup && is_readable(nl_socket_get_fd(socket)));
}

int vl_nl80211_register_command_callback(vl_nl80211_service *service, uint32_t cmd, vl_nl80211_command_handler handler)
{
    auto *const added = static_cast<entry *>(malloc(sizeof(entry)));
    if (!added) {
        log_error("failed to allocate memory for %u nl80211 command callback", cmd);
        return -1;
    }
    if (!service->callbacks.next) make_empty(*service); // not initialised: still a list
    *added = {&service->callbacks, service->callbacks.prev, static_cast<uint8_t>(cmd), handler};
    added->prev->next = added;
    service->callbacks.prev = added;
    return 0;
}

void vl_nl80211_deregister_command_callback(vl_nl80211_service *service, uint32_t cmd,
                                            vl_nl80211_command_handler handler)
{
    if (service->family == 0) {
        log_error("already deinitialized");
        return;
    }
    entry *next = nullptr;
    for (entry *e = service->callbacks.prev; is_entry(*service, e); e = next) {
        next = e->prev;
        if (e->cmd == static_cast<uint8_t>(cmd) && e->handler == handler) remove(e);
    }
}
