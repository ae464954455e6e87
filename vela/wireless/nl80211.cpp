// Both sockets share one set of libnl callbacks: its valid-message handler dispatches events. An exchange works on a
// clone with handlers of its own, so that neither can get what belongs to the other. The local ports are offsets from
// the process id, out of the way of other libnl users in the process.

#include <cerrno>
#include <cstddef>
#include <event2/event.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/netlink.h>
#include <vela/core/internal/text.h>
#include <vela/wireless/nl80211.h>

#ifndef SOL_NETLINK
#define SOL_NETLINK 270
#endif
#ifndef NETLINK_CAP_ACK
#define NETLINK_CAP_ACK 10
#endif
#ifndef NETLINK_EXT_ACK
#define NETLINK_EXT_ACK 11
#endif

namespace
{

constexpr const char *log_module = "nl80211";

constexpr const char *family_name = "nl80211";
constexpr const char *event_groups[] = {"config", "scan", "regulatory", "mlme", "vendor"};
constexpr const char *radio_names[] = {"wifi0", "wifi1", "wifi2", "wifi3"};

constexpr uint32_t cmd_port_offset = 0x1000;
constexpr uint32_t event_port_offset = 0x2000;
constexpr uint32_t port_mask = 0x3FFFFF;

// Sized for bursts of scan and station events.
constexpr size_t event_message_max = 1 << 20;
constexpr int event_receive_buffer = 2 << 20;
constexpr int events_per_wakeup = 1 << 14; // more than that buffer holds: what is pending is read, a flood is not

constexpr uint32_t power_setting = 2; // on purpose: drivers are told a fixed level, not an upper limit (1)
constexpr uint32_t absent = UINT32_MAX;
constexpr size_t mac_size = 6;

constexpr struct {
    uint32_t width;
    uint32_t mhz;
} channel_widths[] = {
    {NL80211_CHAN_WIDTH_20_NOHT, 20}, {NL80211_CHAN_WIDTH_20, 20},   {NL80211_CHAN_WIDTH_40, 40},
    {NL80211_CHAN_WIDTH_80, 80},      {NL80211_CHAN_WIDTH_160, 160}, {NL80211_CHAN_WIDTH_320, 320},
    {NL80211_CHAN_WIDTH_80P80, 160}, // two halves, 160 in all
};

/// 0 for the narrow widths and for what the kernel may invent.
constexpr uint32_t width_mhz(uint32_t width)
{
    for (const auto &known : channel_widths) {
        if (known.width == width) return known.mhz;
    }
    return 0;
}
static_assert(width_mhz(NL80211_CHAN_WIDTH_5) == 0 && width_mhz(13) == 320 && width_mhz(14) == 0);

using entry = vl_nl80211_command_callback;
using attributes = vela::netlink::attribute_table<VL_NL80211_ATTR_MAX>;

// The list's head stands in its circle as an entry of which only the two links exist.
static_assert(offsetof(entry, next) == 0 && offsetof(entry, prev) == sizeof(entry *));

entry *head_of(vl_nl80211_service &service) { return reinterpret_cast<entry *>(&service.callbacks); }
entry *&next_of(vl_nl80211_service &service, entry *e)
{
    return e == head_of(service) ? service.callbacks.next : e->next;
}
entry *&prev_of(vl_nl80211_service &service, entry *e)
{
    return e == head_of(service) ? service.callbacks.prev : e->prev;
}

void make_empty(vl_nl80211_service &service) { service.callbacks = {head_of(service), head_of(service)}; }

// Null at the end of the list, and in a record whose list was never made.
entry *or_end(vl_nl80211_service &service, entry *e) { return e == head_of(service) ? nullptr : e; }
entry *newest(vl_nl80211_service &service) { return or_end(service, service.callbacks.prev); }
entry *older_than(vl_nl80211_service &service, const entry *e) { return or_end(service, e->prev); }

/// One pass over a service's callbacks, newest first. Handlers may change the list or end the service meanwhile, so
/// who does either looks after the passes under way.
struct pass {
    explicit pass(vl_nl80211_service *over);
    pass(const pass &) = delete;
    pass &operator=(const pass &) = delete;
    ~pass();

    vl_nl80211_service *service; // null once it was deinitialised
    entry *next;
    pass *outer;
};

/// The innermost pass under way; each knows the one around it.
constinit pass *passes = nullptr;

pass::pass(vl_nl80211_service *over) : service{over}, next{newest(*over)}, outer{passes} { passes = this; }
pass::~pass() { passes = outer; }

void remove(vl_nl80211_service &service, entry *e)
{
    for (pass *p = passes; p; p = p->outer) {
        if (p->next == e) p->next = older_than(service, e);
    }
    next_of(service, e->prev) = e->next;
    prev_of(service, e->next) = e->prev;
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
    while (walk.service && walk.next) {
        entry *const e = walk.next;
        walk.next = older_than(service, e);
        if (e->cmd == command && e->handler) e->handler(&service, table.slots(), command);
    }
    return walk.service ? NL_SKIP : NL_STOP;
}

int on_unwanted_reply(nl_msg *, void *) { return NL_SKIP; }

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

int open_command_socket(vl_nl80211_service &service)
{
    constexpr const char *step = "vl_nl80211_socket_init";
    service.cmd_sock = nl_socket_alloc_cb(service.cb);
    if (!service.cmd_sock) {
        log_error_as(step, "failed to allocate netlink socket");
        return -ENOMEM;
    }
    const int connected = vela::netlink::connect_generic(service.cmd_sock);
    if (connected < 0) {
        log_error_as(step, "failed to connect to netlink socket, ret = %d", connected);
        return connected;
    }
    service.family = genl_ctrl_resolve(service.cmd_sock, family_name);
    if (service.family < 0) {
        log_error_as(step, "failed to resolve nl80211 driver id, ret = %d", service.family);
        return service.family;
    }
    return 0;
}

// Groups are looked up over the command socket: on this one, events of a group just joined would come between.
int join(vl_nl80211_service &service, const char *group)
{
    constexpr const char *step = "vl_nl80211_event_init";
    const int id = genl_ctrl_resolve_grp(service.cmd_sock, family_name, group);
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

    const int connected = vela::netlink::connect_generic(service.event_sock);
    if (connected < 0) {
        log_error_as(step, "failed to connect to netlink event, ret = %d", connected);
        return connected;
    }
    const int message_buffer = vela::netlink::set_message_buffer(service.event_sock, event_message_max);
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

int open(vl_nl80211_service &service, event_base *base)
{
    service.cb = nl_cb_alloc(NL_CB_DEFAULT);
    if (!service.cb) {
        log_error_as("vl_nl80211_service_init", "failed to allocate netlink callbacks");
        return -ENOMEM;
    }
    if (const int result = open_command_socket(service); result != 0) return result;
    if (const int result = open_event_socket(service); result != 0) return result;
    nl_cb_set(service.cb, NL_CB_VALID, NL_CB_CUSTOM, on_event, &service);
    nl_cb_set(service.cb, NL_CB_SEQ_CHECK, NL_CB_CUSTOM, on_sequence_check, nullptr);
    return watch_events(service, base);
}

/// Releases what a service holds, wherever its opening stopped, and clears the record.
void close(vl_nl80211_service &service)
{
    for (pass *p = passes; p; p = p->outer) {
        if (p->service == &service) p->service = nullptr;
    }
    if (service.event) event_free(service.event); // deletes it first
    if (service.event_sock) nl_socket_free(service.event_sock);
    if (service.cmd_sock) nl_socket_free(service.cmd_sock);
    if (service.cb) nl_cb_put(service.cb);
    while (entry *e = newest(service)) remove(service, e);
    service = {};
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
    if (result == -vela::netlink::error_no_memory) log_warn_as(step, "events were lost, what they told must be asked");
}

/// What an interface's driver reports.
struct interface_record {
    uint32_t wiphy = absent;
    uint8_t mac[mac_size] = {};
    uint32_t freq_mhz = absent;
    uint32_t width_mhz = absent;
    uint32_t power_mbm = absent;
};

int on_interface(nl_msg *message, void *arg)
{
    auto &record = *static_cast<interface_record *>(arg);
    const auto table = attributes::of(message);
    const auto width = table.u32(NL80211_ATTR_CHANNEL_WIDTH);
    record.wiphy = table.u32(NL80211_ATTR_WIPHY).value_or(absent);
    record.freq_mhz = table.u32(NL80211_ATTR_WIPHY_FREQ).value_or(absent);
    record.width_mhz = width ? width_mhz(*width) : absent;
    record.power_mbm = table.u32(NL80211_ATTR_WIPHY_TX_POWER_LEVEL).value_or(absent);
    const auto mac = table.bytes(NL80211_ATTR_MAC);
    if (mac.size() >= mac_size) memcpy(record.mac, mac.data(), mac_size);
    return NL_SKIP;
}

} // namespace

int vl_nl80211_service_init(vl_nl80211_service *service, event_base *event_base)
{
    if (!event_base) {
        log_error("event base can't be NULL");
        return -EINVAL;
    }
    *service = {};
    make_empty(*service);
    const int result = open(*service, event_base);
    if (result != 0) close(*service);
    return result;
}

void vl_nl80211_service_deinit(vl_nl80211_service *service)
{
    if (service->family == 0) {
        log_error("already deinitialized");
        return;
    }
    close(*service);
}

void vl_nl80211_loop_event(int, short, void *service)
{
    auto *const self = static_cast<vl_nl80211_service *>(service);
    const pass guard{self}; // visits nothing, but learns when a handler ends the service
    nl_sock *const socket = self->event_sock;
    const vela::nl_cb_ptr callbacks{nl_cb_get(self->cb)};

    for (int n = 0; n < events_per_wakeup && is_readable(nl_socket_get_fd(socket)); ++n) {
        const int result = nl_recvmsgs(socket, callbacks.get());
        if (!guard.service) return;
        if (result < 0 && result != -vela::netlink::error_nothing_there) return log_receive_failure(result);
    }
}

int vl_nl80211_register_command_callback(vl_nl80211_service *service, uint32_t cmd, vl_nl80211_command_handler handler)
{
    auto *const added = static_cast<entry *>(malloc(sizeof(entry)));
    if (!added) {
        log_error("failed to allocate memory for %u nl80211 command callback", cmd);
        return -1;
    }
    if (!service->callbacks.next) make_empty(*service); // not initialised: still a list
    *added = {head_of(*service), service->callbacks.prev, static_cast<uint8_t>(cmd), handler};
    next_of(*service, added->prev) = added;
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
    for (entry *e = newest(*service); e; e = next) {
        next = older_than(*service, e);
        if (e->cmd == static_cast<uint8_t>(cmd) && e->handler == handler) remove(*service, e);
    }
}

nl_msg *vl_nl80211_create_message(vl_nl80211_service *service, const char *ifname, uint8_t cmd, int flags)
{
    const unsigned index = vela::netlink::interface_index(ifname);
    if (index == 0) {
        log_error("couldn't get interface index %s", ifname ? ifname : "");
        return nullptr;
    }
    vela::nl_msg_ptr message{nlmsg_alloc()};
    if (!message) {
        log_error("unable to allocate memory for netlink message");
        return nullptr;
    }
    // Port and sequence 0: filled in when it is sent.
    if (!genlmsg_put(message.get(), 0, 0, service->family, 0, flags, cmd, 0)) {
        log_error("unable to reserve netlink message header");
        return nullptr;
    }
    if (nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, index) < 0) {
        log_error("unable to put ifindex");
        return nullptr;
    }
    return message.release();
}

int vl_nl80211_send_recv(vl_nl80211_service *service, nl_msg *message, vl_nl80211_reply_handler handler, void *arg)
{
    const vela::nl_msg_ptr owned{message};
    const vela::nl_cb_ptr callbacks{nl_cb_clone(service->cb)};
    if (!callbacks) {
        log_error("unable to clone netlink callbacks");
        return -EIO;
    }
    constexpr int on = 1;
    const int fd = nl_socket_get_fd(service->cmd_sock);
    (void)setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on); // an older kernel has neither
    (void)setsockopt(fd, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);

    const int sent = message ? nl_send_auto_complete(service->cmd_sock, message) : -EINVAL;
    if (sent < 0) {
        log_error("auto complete failed, ret = %d", sent);
        return sent;
    }
    // A clone still dispatches events; replies that nobody wants must not be taken for some.
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, handler ? handler : on_unwanted_reply, arg);
    return vela::netlink::await_answer(service->cmd_sock, callbacks.get(), {log_module, __func__});
}

int vl_nl80211_interface_info(vl_nl80211_service *service, const char *ifname, uint32_t *wiphy, uint8_t *mac,
                              uint32_t *freq, uint32_t *width, uint32_t *txpower)
{
    nl_msg *const request = vl_nl80211_create_message(service, ifname, NL80211_CMD_GET_INTERFACE, 0);
    if (!request) return -EIO;
    interface_record record;
    const int status = vl_nl80211_send_recv(service, request, on_interface, &record);
    if (status != 0) return status;
    if (wiphy) *wiphy = record.wiphy;
    if (mac) memcpy(mac, record.mac, mac_size);
    if (freq) *freq = record.freq_mhz;
    if (width) *width = record.width_mhz;
    if (txpower) *txpower = record.power_mbm;
    return 0;
}

int vl_nl80211_interface_power(vl_nl80211_service *service, const char *ifname, uint32_t *power)
{
    uint32_t reported = absent;
    const int status = vl_nl80211_interface_info(service, ifname, nullptr, nullptr, nullptr, nullptr, &reported);
    if (status != 0) {
        log_error("couldn't obtain TX power of the interface %s", ifname ? ifname : "");
        return status;
    }
    if (reported == absent) {
        log_error("TX power handler isn't implemented for interface %s", ifname);
        return -1;
    }
    *power = reported;
    return 0;
}

char *vl_nl80211_parent_interface(vl_nl80211_service *service, const char *ifname, char *out)
{
    uint32_t wiphy = absent;
    const int status = vl_nl80211_interface_info(service, ifname, &wiphy, nullptr, nullptr, nullptr, nullptr);
    if (status != 0) {
        log_error("couldn't obtain interface PHY index, ret = %d", status);
        return nullptr;
    }
    for (const char *radio : radio_names) {
        uint32_t candidate = absent;
        if (if_nametoindex(radio) == 0) continue; // nothing to complain about: most devices have fewer
        if (vl_nl80211_interface_info(service, radio, &candidate, nullptr, nullptr, nullptr, nullptr) != 0) continue;
        if (candidate != wiphy) continue;
        return strncpy(out, radio, IFNAMSIZ);
    }
    return nullptr;
}

int vl_nl80211_interface_set_power(vl_nl80211_service *service, const char *ifname, uint32_t power)
{
    vela::nl_msg_ptr request{vl_nl80211_create_message(service, ifname, NL80211_CMD_SET_WIPHY, 0)};
    if (!request) return -EIO;
    int put = nla_put_u32(request.get(), NL80211_ATTR_WIPHY_TX_POWER_SETTING, power_setting);
    if (put < 0) {
        log_error("unable to put TX power type");
        return put;
    }
    put = nla_put_u32(request.get(), NL80211_ATTR_WIPHY_TX_POWER_LEVEL, power);
    if (put < 0) {
        log_error("unable to put TX power level");
        return put;
    }
    return vl_nl80211_send_recv(service, request.release(), nullptr, nullptr);
}

int vl_nl80211_send(void *socket_holder, nl_msg *message, vl_nl80211_reply_handler handler, void *arg)
{
    const vela::nl_msg_ptr owned{message};
    const vela::nl_cb_ptr callbacks{nl_cb_alloc(NL_CB_DEFAULT)};
    constexpr vela::netlink::log_origin origin{"libvela", "vl_nl80211_send"};
    if (!callbacks) {
        log_at(LIBVELA_LOG_ERROR, origin.module, origin.function, "failed to allocate netlink callbacks");
        return -1;
    }
    if (!message) return -1;
    if (handler) nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, handler, arg);
    nl_sock *const socket = *static_cast<nl_sock *const *>(socket_holder);
    const int sent = nl_send_auto_complete(socket, message);
    if (sent < 0) return sent;
    return vela::netlink::await_answer(socket, callbacks.get(), origin);
}
