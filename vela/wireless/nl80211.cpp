// The nl80211 service: opening and closing it, requests to the kernel, and what is asked of interfaces with them.
//
// Both sockets share one set of libnl callbacks: its valid-message handler dispatches events. An exchange works on a
// clone with handlers of its own, so that neither can get what belongs to the other.

#include <cerrno>
#include <event2/event.h>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <sys/socket.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/netlink.h>
#include <vela/wireless/internal/channel_width.h>
#include <vela/wireless/internal/nl80211_events.h>

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

constexpr const char *radio_names[] = {"wifi0", "wifi1", "wifi2", "wifi3"};

constexpr uint32_t power_setting = 2; // on purpose: drivers are told a fixed level, not an upper limit (1)
constexpr uint32_t absent = UINT32_MAX;
constexpr size_t mac_size = 6;

/// 0 for the narrow widths and for what the kernel may invent.
constexpr uint32_t width_mhz(uint32_t width)
{
    const uint32_t mhz = vela::channel_width_mhz(width);
    return mhz < 20 ? 0 : mhz;
}
static_assert(width_mhz(NL80211_CHAN_WIDTH_5) == 0 && width_mhz(13) == 320 && width_mhz(14) == 0);

using attributes = vela::netlink::attribute_table<VL_NL80211_ATTR_MAX>;

int on_unwanted_reply(nl_msg *, void *) { return NL_SKIP; }

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
    service.family = genl_ctrl_resolve(service.cmd_sock, vela::nl80211::family_name);
    if (service.family < 0) {
        log_error_as(step, "failed to resolve nl80211 driver id, ret = %d", service.family);
        return service.family;
    }
    return 0;
}

int open(vl_nl80211_service &service, event_base *base)
{
    service.cb = nl_cb_alloc(NL_CB_DEFAULT);
    if (!service.cb) {
        log_error_as("vl_nl80211_service_init", "failed to allocate netlink callbacks");
        return -ENOMEM;
    }
    if (const int result = open_command_socket(service); result != 0) return result;
    if (const int result = vela::nl80211::open_event_socket(service); result != 0) return result;
    return vela::nl80211::watch_events(service, base);
}

/// Releases what a service holds, wherever its opening stopped, and clears the record.
void close(vl_nl80211_service &service)
{
    if (service.event) {
        event_del(service.event);
        event_free(service.event);
    }
    if (service.event_sock) nl_socket_free(service.event_sock);
    if (service.cmd_sock) nl_socket_free(service.cmd_sock);
    if (service.cb) nl_cb_put(service.cb);
    vela::nl80211::drop_callbacks(service);
    service = {};
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
