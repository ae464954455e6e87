// Scanning: requests to the radio, and the list of access points made from the driver's results.
//
// A driver result becomes one entry of one allocation. Information elements are walked once; the callback bounds its
// own reads.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <linux/nl80211.h>
#include <unistd.h>
#include <vela/core/internal/bytes.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/netlink.h>
#include <vela/core/internal/text.h>
#include <vela/settings.h>
#include <vela/wireless/cfg80211.h>
#include <vela/wireless/nl80211.h>
#include <vela/wireless/scan.h>

namespace
{

constexpr const char *log_module = "libvela";

constexpr uint32_t reply_max = 3072;
constexpr size_t element_header = 2; // id and length
constexpr size_t element_max = element_header + UINT8_MAX;
constexpr size_t request_overhead = 256;
constexpr size_t request_max = 60000; // a nested attribute's length has 16 bits

constexpr const char *busy_markers[] = {
    "/var/run/hostapd_reload.start", "/var/run/hostapd_reload",        "/var/run/hostapd_initiating",
    "/var/run/scheduler.reload",     "/var/run/provision.in_progress",
};

// The maker's vendor element.
constexpr uint8_t element_vendor = 0xDD;
constexpr uint8_t maker_type = 1;
constexpr uint8_t maker_prefix[] = {vela::settings::maker_oui >> 16 & 0xFF, vela::settings::maker_oui >> 8 & 0xFF,
                                    vela::settings::maker_oui & 0xFF, maker_type};
enum class field : uint8_t { serial = 1, flags = 2, mesh = 3 };

/// Who gets the results of this thread's collection: set and cleared by parse_scan_results, as the driver's replies
/// carry no argument of ours.
constinit thread_local struct {
    scan_result_callback per_result;
    void *ctx;
} collection = {};

using bytes = std::span<const uint8_t>;

// The list's head closes the circle like an entry, but has nothing beyond the two links.
static_assert(offsetof(scan_list, first) == offsetof(scan_entry, next));
static_assert(offsetof(scan_list, last) == offsetof(scan_entry, prev));

scan_entry *head_of(scan_list &list) { return reinterpret_cast<scan_entry *>(&list); }
scan_entry *&next_of(scan_list &list, scan_entry *e) { return e == head_of(list) ? list.first : e->next; }

void append(scan_list &list, scan_entry *e)
{
    e->next = head_of(list);
    e->prev = list.last;
    next_of(list, e->prev) = e;
    list.last = e;
}

void take_field(uint8_t id, bytes value, scan_entry &entry)
{
    const auto known = static_cast<field>(id);
    if (known == field::serial && value.size() == sizeof entry.serial) {
        memcpy(entry.serial, value.data(), sizeof entry.serial);
    } else if (known == field::flags && value.size() == 1) {
        entry.mesh[2] = (value[0] & VELA_IE_CONNECTED) != 0;
        entry.mesh[3] = (value[0] & VELA_IE_ACCEPTS_UPLINKS) != 0;
    } else if (known == field::mesh) {
        entry.mesh[1] = 1;
    } else {
        log_debug_as("parse_vela_ie", "VELA_IE unknown field %#02x len %u", id, static_cast<unsigned>(value.size()));
    }
}

void parse_vela_ie(bytes fields, scan_entry &entry)
{
    entry.mesh[0] = 1;
    vela::byte_reader rest{fields};
    while (const auto id = rest.u8()) {
        const auto length = rest.u8();
        const auto value = length ? rest.bytes(*length) : std::nullopt;
        if (!value) return; // cut short
        take_field(*id, *value, entry);
    }
}

/// `ctx` is where the elements end: what an element announces beyond is not read.
void parse_element(void *ctx, const uint8_t *element, scan_entry *entry)
{
    vela::byte_reader rest{bytes{element, static_cast<const uint8_t *>(ctx)}};
    const auto id = rest.u8();
    const auto length = rest.u8();
    if (!length || *id != element_vendor) return;
    vela::byte_reader body{bytes{rest.rest().data(), std::min<size_t>(*length, rest.remaining())}};
    const auto prefix = body.bytes(sizeof maker_prefix);
    if (prefix && std::ranges::equal(*prefix, maker_prefix)) parse_vela_ie(body.rest(), *entry);
}

/// A vendor element in the making. VELA_IE_MAX holds all that is ever put.
class element_writer
{
public:
    void put(bytes data)
    {
        memcpy(element_ + length_, data.data(), data.size());
        length_ += data.size();
    }
    void put(field id, bytes value)
    {
        const uint8_t header[] = {static_cast<uint8_t>(id), static_cast<uint8_t>(value.size())};
        put(header);
        put(value);
    }
    [[nodiscard]] bytes whole()
    {
        element_[1] = static_cast<uint8_t>(length_ - element_header);
        return {element_, length_};
    }

private:
    uint8_t element_[VELA_IE_MAX] = {element_vendor};
    size_t length_ = element_header;
};

void copy_numbers(const scan_result &result, scan_entry &entry)
{
    entry.rssi = result.signal;
    entry.noise = result.noise;
    entry.beacon_interval = result.beacon_interval;
    entry.freq = result.freq;
    entry.capabilities = result.capabilities;
    entry.age_ms = result.age_ms;
    entry.tsf_low = result.tsf_low;
    entry.tsf_high = result.tsf_high;
    entry.privacy = result.flags & SCAN_RESULT_PRIVACY;
    entry.beacon_tsf_low = result.beacon_tsf_low;
    entry.beacon_tsf_high = result.beacon_tsf_high;
    entry.status = result.status;
    entry.adhoc = result.flags & SCAN_RESULT_ADHOC;
}

// The lengths that a result announces count only where the reply is as long.
void on_reply(wifi_cfg80211_data *reply)
{
    const auto *result = static_cast<const scan_result *>(reply->data);
    if (reply->length < offsetof(scan_result, data)) return;
    const size_t announced = offsetof(scan_result, data) + size_t{result->essid_len} + result->ies_len;
    if (announced <= reply->length && collection.per_result) collection.per_result(result, collection.ctx);
}

/// An attribute that nests others, numbered from 1.
class nested
{
public:
    nested(nl_msg *message, int type) : message_{message}, start_{nla_nest_start(message, type)} {}
    [[nodiscard]] bool put(const void *data, size_t size)
    {
        return start_ && nla_put(message_, ++count_, static_cast<int>(size), data) >= 0;
    }
    [[nodiscard]] bool end() { return start_ && nla_nest_end(message_, start_) >= 0; }

private:
    nl_msg *message_;
    nlattr *start_;
    int count_ = 0;
};

bool put_scan(nl_msg *message, int family, const char *ifname, const char *ssid, std::span<const uint32_t> freqs)
{
    if (!genlmsg_put(message, 0, 0, family, 0, 0, NL80211_CMD_TRIGGER_SCAN, 0)) return false;
    // Index 0 for an interface that does not exist: the kernel refuses it with its own error.
    if (nla_put_u32(message, NL80211_ATTR_IFINDEX, vela::netlink::interface_index(ifname)) < 0) return false;
    if (ssid) {
        nested ssids{message, NL80211_ATTR_SCAN_SSIDS};
        if (!ssids.put(ssid, strlen(ssid)) || !ssids.end()) return false;
    }
    if (!freqs.empty()) {
        nested list{message, NL80211_ATTR_SCAN_FREQUENCIES};
        for (const uint32_t freq : freqs) {
            if (!list.put(&freq, sizeof freq)) return false;
        }
        if (!list.end()) return false;
    }
    return true;
}

vela::nl_msg_ptr scan_message(int family, const char *ifname, const char *ssid, std::span<const uint32_t> freqs)
{
    const size_t size = request_overhead + vela::view(ssid).size() + freqs.size() * (NLA_HDRLEN + sizeof(uint32_t));
    vela::nl_msg_ptr message{nlmsg_alloc_size(std::min(size, request_max))};
    if (!message || !put_scan(message.get(), family, ifname, ssid, freqs)) return {};
    return message;
}

} // namespace

int vela_scan_request_freqs(const char *ifname, const char *ssid, const uint32_t *freqs, int count)
{
    vl_cfg80211_context context;
    const int opened = vl_cfg80211_init(&context);
    if (opened != 0) return opened;
    const std::span wanted{freqs, freqs && count > 0 ? static_cast<size_t>(count) : 0};
    auto message = scan_message(context.family, ifname, ssid, wanted);
    const int result = message ? vl_nl80211_send(&context, message.release(), nullptr, nullptr) : -ENOMEM;
    vl_cfg80211_deinit(&context);
    return result;
}

int vela_scan_request(const char *ifname, const char *ssid, ...)
{
    return vela_scan_request_freqs(ifname, ssid, nullptr, 0);
}

scan_list *get_scanlist(const char *ifname)
{
    auto *const list = static_cast<scan_list *>(malloc(sizeof(scan_list)));
    if (!list) {
        log_error("unable to allocate memory for scan list head!");
        return nullptr;
    }
    *list = {head_of(*list), head_of(*list)};
    if (parse_scan_results(ifname, add_scan_entry, list) != 0) log_error("unable to parse scan results");
    return list;
}

int parse_scan_results(const char *ifname, scan_result_callback per_result, void *ctx)
{
    // Zeroes behind the room that is used: a walk over a record's elements may look past its last one.
    const vela::heap<uint8_t> reply{static_cast<uint8_t *>(calloc(1, reply_max + element_max))};
    if (!reply) {
        log_error("unable to allocate memory to query scan list!");
        return -1;
    }
    collection = {per_result, ctx};
    const int result =
        vl_cfg80211_send_generic_set_command(ifname, WIFI_COMMAND_SCAN_LIST, reply.get(), reply_max, 0, on_reply);
    collection = {};
    if (result != 0) log_debug("unable to query scan list, ret = %d, ifname=%s", result, ifname ? ifname : "");
    return result;
}

void add_scan_entry(const scan_result *result, void *list)
{
    if (!list) return;
    auto entry = vela::make_zeroed<scan_entry>();
    if (!entry) return;
    memcpy(entry->bssid, result->bssid, sizeof entry->bssid);
    memcpy(entry->essid, result->data, std::min<size_t>(result->essid_len, sizeof entry->essid - 1));
    copy_numbers(*result, *entry);

    const uint8_t *const elements = result->data + result->essid_len;
    const uint8_t *const end = elements + result->ies_len;
    parse_scan_result_ies(const_cast<uint8_t *>(end), elements, result->ies_len, parse_element, entry.get());
    append(*static_cast<scan_list *>(list), entry.release());
}

int parse_scan_result_ies(void *ctx, const uint8_t *ies, int len, scan_element_callback callback, scan_entry *entry)
{
    while (len > 0) {
        // On purpose: an element that does not fit is shown all the same, which keeps the walk to one pass.
        if (callback) callback(ctx, ies, entry);
        if (len < static_cast<int>(element_header)) break; // its length byte is not ours to read
        const int size = static_cast<int>(element_header) + ies[1];
        if (size >= len) break;
        ies += size;
        len -= size;
    }
    return 0;
}

void free_scanlist(scan_list *list)
{
    if (!list) return;
    for (scan_entry *e = list->last; e != head_of(*list);) {
        scan_entry *const next = e->prev;
        free(e);
        e = next;
    }
    free(list);
}

int hostapd_or_provision_busy(void)
{
    return std::ranges::any_of(busy_markers, [](const char *path) { return access(path, F_OK) == 0; });
}

int vela_ie_build(const vela_ie *ie, uint8_t *out, size_t size)
{
    element_writer element;
    element.put(maker_prefix);
    element.put(field::serial, ie->serial);
    element.put(field::flags, {&ie->flags, 1});
    if (ie->mesh) element.put(field::mesh, {&ie->hops, 1});
    const auto whole = element.whole();
    if (whole.size() > size) return -1;
    memcpy(out, whole.data(), whole.size());
    return static_cast<int>(whole.size());
}
