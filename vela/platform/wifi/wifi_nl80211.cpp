// The vendor's calls on plain nl80211. Each command is one exchange; its replies go to the caller's descriptor.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <linux/netlink.h>
#include <linux/nl80211.h>
#include <vela/core/internal/netlink.h>
#include <vela/platform/wifi/wifi_nl80211.h>
#include <vela/settings.h>

// Programs may keep these records; what follows the numbers starts where they end.
static_assert(offsetof(wifi_cfg80211_context, cmd_sock) == 0);
static_assert(offsetof(scan_result, age_ms) == 16 && offsetof(scan_result, ies_len) == 40);
static_assert(offsetof(scan_result, data) == 42);

namespace
{

constexpr const char *log_module = "wifi";

constexpr int large_receive_buffer = 1 << 20;
constexpr size_t request_overhead = 256; // headers and the small attributes
constexpr size_t data_max = 60000;       // an attribute's length has 16 bits, and this one is nested
constexpr int signal_reference_dbm = 96;

constexpr uint8_t element_ssid = 0;
constexpr size_t element_header = 2; // id and length
constexpr size_t essid_max = 32;

using attributes = vela::netlink::attribute_table<NL80211_ATTR_VENDOR_DATA>;
using bss_attributes = vela::netlink::attribute_table<NL80211_BSS_MAX>;
using bytes = std::span<const uint8_t>;

bytes first(bytes all, size_t n) { return {all.data(), std::min(n, all.size())}; }
bytes after(bytes all, size_t n)
{
    return {all.data() + std::min(n, all.size()), all.size() - std::min(n, all.size())};
}

int connect(wifi_cfg80211_context &context, bool large)
{
    // Both exist before either has its port: see vl_nl80211_service_init.
    context.cmd_sock = nl_socket_alloc();
    context.event_sock = nl_socket_alloc();
    if (!context.cmd_sock || !context.event_sock) return -ENOMEM;
    nl_socket_set_local_port(context.cmd_sock, context.cmd_sock_id);
    nl_socket_set_local_port(context.event_sock, context.event_sock_id);
    if (const int result = vela::netlink::connect_generic(context.cmd_sock); result < 0) return result;
    if (const int result = vela::netlink::connect_generic(context.event_sock); result < 0) return result;
    if (large) (void)nl_socket_set_buffer_size(context.cmd_sock, large_receive_buffer, 0); // as much as we may
    context.family = genl_ctrl_resolve(context.cmd_sock, "nl80211");
    return std::min(context.family, 0);
}

/// A request addressed to an interface, with room for `size` bytes beside the usual; null when out of memory.
vela::nl_msg_ptr request(const wifi_cfg80211_context &context, unsigned index, uint8_t command, int flags, size_t size)
{
    vela::nl_msg_ptr message{nlmsg_alloc_size(request_overhead + size)};
    if (!message || !genlmsg_put(message.get(), 0, 0, context.family, 0, flags, command, 0)) return {};
    if (nla_put_u32(message.get(), NL80211_ATTR_IFINDEX, index) < 0) return {};
    return message;
}

int exchange(wifi_cfg80211_context &context, const char *function, vela::nl_msg_ptr message,
             nl_recvmsg_msg_cb_t on_reply, void *arg)
{
    const vela::nl_cb_ptr of_socket{nl_socket_get_cb(context.cmd_sock)};
    const vela::nl_cb_ptr callbacks{nl_cb_clone(of_socket.get())};
    if (!callbacks) return -ENOMEM;
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, on_reply, arg);
    const int sent = nl_send_auto_complete(context.cmd_sock, message.get());
    if (sent < 0) return sent;
    int dump_error = 0;
    const int status =
        vela::netlink::await_answer(context.cmd_sock, callbacks.get(), {log_module, function}, &dump_error);
    return status == 0 ? dump_error : status;
}

struct command {
    uint32_t sub_command;
    uint32_t id;
    uint8_t link_id;
    uint32_t room;
    bytes data;
};

bool put(nl_msg *message, const command &c)
{
    if (nla_put_u32(message, NL80211_ATTR_VENDOR_ID, vela::settings::vendor_oui) < 0) return false;
    if (nla_put_u32(message, NL80211_ATTR_VENDOR_SUBCMD, c.sub_command) < 0) return false;
    nlattr *const nested = nla_nest_start(message, NL80211_ATTR_VENDOR_DATA | NLA_F_NESTED);
    if (!nested) return false;
    if (nla_put_u32(message, WIFI_VENDOR_ATTR_COMMAND, c.id) < 0) return false;
    if (nla_put_u8(message, WIFI_VENDOR_ATTR_LINK_ID, c.link_id) < 0) return false;
    if (nla_put_u32(message, WIFI_VENDOR_ATTR_ROOM, c.room) < 0) return false;
    const auto length = static_cast<int>(c.data.size());
    if (!c.data.empty() && nla_put(message, WIFI_VENDOR_ATTR_DATA, length, c.data.data()) < 0) return false;
    nla_nest_end(message, nested);
    return true;
}

/// Where replies go: to the callback one by one, else into the buffer one after the other.
struct answer {
    wifi_cfg80211_data *descriptor; // null: replies are not wanted
    uint32_t room;
    uint32_t received = 0;
};

int on_vendor_reply(nl_msg *message, void *arg)
{
    auto &taken = *static_cast<answer *>(arg);
    const auto data = attributes::of(message).bytes(NL80211_ATTR_VENDOR_DATA);
    if (!taken.descriptor) return NL_SKIP;
    if (taken.descriptor->callback) {
        wifi_cfg80211_data reply = *taken.descriptor;
        reply.data = const_cast<uint8_t *>(data.data()); // the message is ours, and private to it
        reply.length = static_cast<uint32_t>(data.size());
        taken.descriptor->callback(&reply);
        return NL_SKIP;
    }
    const auto fitting = first(data, taken.room - taken.received);
    if (!fitting.empty()) {
        memcpy(static_cast<uint8_t *>(taken.descriptor->data) + taken.received, fitting.data(), fitting.size());
    }
    taken.received += static_cast<uint32_t>(fitting.size());
    return NL_SKIP;
}

int run(wifi_cfg80211_context &context, const char *function, const char *ifname, const command &c,
        wifi_cfg80211_data *descriptor)
{
    const unsigned index = vela::netlink::interface_index(ifname);
    if (index == 0) return -ENODEV;
    if (c.data.size() > data_max) return -EMSGSIZE;
    auto message = request(context, index, NL80211_CMD_VENDOR, 0, c.data.size());
    if (!message || !put(message.get(), c)) return -ENOMEM;
    answer taken{descriptor, c.room};
    const int status = exchange(context, function, std::move(message), on_vendor_reply, &taken);
    if (status == 0 && descriptor) descriptor->length = taken.received;
    return status;
}

/// The part of the elements that ends with the last one that is whole and within `room` bytes.
bytes whole_elements(bytes elements, size_t room)
{
    size_t end = 0;
    while (elements.size() - end >= element_header) {
        const size_t next = end + element_header + elements[end + 1];
        if (next > elements.size() || next > room) break;
        end = next;
    }
    return first(elements, end);
}

bytes essid_in(bytes elements)
{
    while (!elements.empty()) { // whole ones only
        const auto body = first(after(elements, element_header), elements[1]);
        if (elements[0] == element_ssid) return first(body, essid_max);
        elements = after(elements, element_header + body.size());
    }
    return {};
}

uint8_t signal_of(const bss_attributes &bss)
{
    const auto mbm = bss.u32(NL80211_BSS_SIGNAL_MBM);
    if (!mbm) return 0;
    return static_cast<uint8_t>(std::clamp(static_cast<int32_t>(*mbm) / 100 + signal_reference_dbm, 0, UINT8_MAX));
}

/// Writes the record of one access point; the bytes written, 0 for one without address or frequency.
uint32_t put_record(const bss_attributes &bss, uint8_t *out, size_t room)
{
    const auto bssid = bss.bytes(NL80211_BSS_BSSID);
    const auto freq = bss.u32(NL80211_BSS_FREQUENCY);
    if (bssid.size() < sizeof scan_result::bssid || !freq || *freq > UINT16_MAX) return 0;

    auto heard = bss.bytes(NL80211_BSS_INFORMATION_ELEMENTS);
    if (heard.empty()) heard = bss.bytes(NL80211_BSS_BEACON_IES);
    const auto essid = essid_in(whole_elements(heard, heard.size()));
    const auto elements =
        whole_elements(heard, std::min<size_t>(room - offsetof(scan_result, data) - essid.size(), UINT16_MAX));
    const uint64_t tsf = bss.u64(NL80211_BSS_TSF).value_or(0);
    const uint64_t beacon_tsf = bss.u64(NL80211_BSS_BEACON_TSF).value_or(0);
    const auto status = bss.u32(NL80211_BSS_STATUS);

    scan_result record = {};
    memcpy(record.bssid, bssid.data(), sizeof record.bssid);
    record.essid_len = static_cast<uint8_t>(essid.size());
    record.signal = signal_of(bss);
    record.beacon_interval = bss.u16(NL80211_BSS_BEACON_INTERVAL).value_or(0);
    record.freq = static_cast<uint16_t>(*freq);
    record.capabilities = bss.u16(NL80211_BSS_CAPABILITY).value_or(0);
    record.flags = record.capabilities & (SCAN_RESULT_ESS | SCAN_RESULT_ADHOC | SCAN_RESULT_PRIVACY); // same bits
    record.age_ms = bss.u32(NL80211_BSS_SEEN_MS_AGO).value_or(0);
    record.tsf_low = static_cast<uint32_t>(tsf);
    record.tsf_high = static_cast<uint32_t>(tsf >> 32);
    record.beacon_tsf_low = static_cast<uint32_t>(beacon_tsf);
    record.beacon_tsf_high = static_cast<uint32_t>(beacon_tsf >> 32);
    record.status = status ? *status + 1 : 0;
    record.ies_len = static_cast<uint16_t>(elements.size());

    uint8_t *end = out;
    for (const bytes part :
         {bytes{reinterpret_cast<const uint8_t *>(&record), offsetof(scan_result, data)}, essid, elements}) {
        if (!part.empty()) memcpy(end, part.data(), part.size());
        end += part.size();
    }
    return static_cast<uint32_t>(end - out);
}

int on_bss(nl_msg *message, void *arg)
{
    const auto &descriptor = *static_cast<const wifi_cfg80211_data *>(arg);
    const auto table = vela::netlink::attribute_table<NL80211_ATTR_BSS>::of(message);
    wifi_cfg80211_data reply = descriptor;
    reply.length = put_record(bss_attributes::inside(table[NL80211_ATTR_BSS]), static_cast<uint8_t *>(descriptor.data),
                              descriptor.length);
    if (reply.length != 0) descriptor.callback(&reply);
    return NL_SKIP;
}

int list_scan_results(wifi_cfg80211_context &context, const char *function, const char *ifname,
                      wifi_cfg80211_data &data)
{
    if (!data.callback || data.length < sizeof(scan_result) + essid_max) return -EINVAL;
    const unsigned index = vela::netlink::interface_index(ifname);
    if (index == 0) return -ENODEV;
    auto message = request(context, index, NL80211_CMD_GET_SCAN, NLM_F_DUMP, 0);
    if (!message) return -ENOMEM;
    const int status = exchange(context, function, std::move(message), on_bss, &data);
    // A list that changed while it was read may lack or repeat an entry; what it has was heard all the same.
    return status == -EAGAIN ? 0 : status;
}

} // namespace

int wifi_init_nl80211_largebuf(wifi_cfg80211_context *context, int large)
{
    const int result = connect(*context, large != 0);
    if (result < 0) wifi_destroy_nl80211(context);
    return result;
}

void wifi_destroy_nl80211(wifi_cfg80211_context *context)
{
    if (context->event_sock) nl_socket_free(context->event_sock);
    if (context->cmd_sock) nl_socket_free(context->cmd_sock);
    context->cmd_sock = context->event_sock = nullptr;
    context->family = 0;
}

int wifi_cfg80211_send_getparam_command(wifi_cfg80211_context *context, uint32_t sub_command, uint32_t param,
                                        const char *ifname, void *buffer, uint32_t length)
{
    wifi_cfg80211_data taken = {};
    taken.data = buffer;
    taken.length = length;
    const int status = run(*context, __func__, ifname, {sub_command, param, WIFI_ANY_LINK, length, bytes{}}, &taken);
    if (status != 0) return status;
    return taken.length == length ? 0 : -ENODATA;
}

int wifi_cfg80211_send_setparam_command_linkid(wifi_cfg80211_context *context, uint32_t sub_command, uint32_t param,
                                               uint8_t link_id, const char *ifname, const void *value, uint32_t length,
                                               wifi_cfg80211_data *response)
{
    const bytes data{static_cast<const uint8_t *>(value), length};
    return run(*context, __func__, ifname, {sub_command, param, link_id, response ? response->length : 0, data},
               response);
}

int wifi_cfg80211_send_generic_command(wifi_cfg80211_context *context, uint32_t sub_command, uint32_t command,
                                       uint8_t link_id, const char *ifname, wifi_cfg80211_data *data)
{
    if (command == WIFI_COMMAND_SCAN_LIST) return list_scan_results(*context, __func__, ifname, *data);
    const bytes sent{static_cast<const uint8_t *>(data->data), data->length};
    return run(*context, __func__, ifname, {sub_command, command, link_id, data->length, sent}, data);
}
