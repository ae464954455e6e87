// Vendor commands over the chip vendor's wrapper, each in a context of the caller's or of its own; private ioctls.

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <sys/ioctl.h>
#include <sys/socket.h>
//
#include <linux/wireless.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/wireless/cfg80211.h>

namespace
{

constexpr const char *log_module = "nl80211";

constexpr uint32_t socket_ids[] = {877, 887, 897}; // the event socket has the next number

// Sub-commands of the wrapper's calls.
constexpr uint32_t sub_params = 200;
constexpr uint32_t sub_generic = 74;

constexpr int command_station_list = 476;
constexpr int command_radio_statistics = 501;

/// A context for one command.
class own_context
{
public:
    own_context() : status_{vl_cfg80211_init(&context_)} {}
    own_context(const own_context &) = delete;
    own_context &operator=(const own_context &) = delete;
    ~own_context()
    {
        if (status_ == 0) vl_cfg80211_deinit(&context_);
    }
    [[nodiscard]] int status() const { return status_; }
    vl_cfg80211_context *get() { return &context_; }

private:
    vl_cfg80211_context context_;
    int status_;
};

void ignore_event(wifi_cfg80211_context *, uint32_t, const void *, uint32_t) {}

struct generic_result {
    int status; // the wrapper's
    int value;  // what callers get for a status of 0
};

generic_result send_generic(vl_cfg80211_context *context, const char *ifname, int command, void *buffer,
                            uint32_t length, vl_cfg80211_reply_callback callback)
{
    wifi_cfg80211_data descriptor = {};
    descriptor.data = buffer;
    descriptor.length = length;
    descriptor.callback = callback;
    const int status = wifi_cfg80211_send_generic_command(context, sub_generic, static_cast<uint32_t>(command),
                                                          WIFI_ANY_LINK, ifname, &descriptor);
    return {status, command == command_station_list ? static_cast<int>(descriptor.length) : 0};
}

// The first two private ioctls carry data inside the request, behind the driver's sub-ioctl number.
constexpr int request_inline_set = SIOCIWFIRSTPRIV;
constexpr int request_inline_get = SIOCIWFIRSTPRIV + 1;
static_assert(request_inline_set == 0x8BE0);
constexpr int inline_max = sizeof(iwreq_data) - sizeof(uint32_t);
static_assert(inline_max == 12);

bool is_inline(int request) { return request == request_inline_set || request == request_inline_get; }

void put_inline(iwreq_data &u, int param, const void *data, int len)
{
    auto *const bytes = reinterpret_cast<uint8_t *>(&u);
    memcpy(bytes, &param, sizeof param);
    if (data && len > 0) memcpy(bytes + sizeof param, data, static_cast<size_t>(std::min(len, inline_max)));
}

/// The request as the kernel leaves it, or -1.
int issue(iwreq &wanted, int sock, const char *ifname, int request, int param, int flags, void *data, int len)
{
    if (len < 0) return -1;
    wanted = {};
    vela::copy_text(wanted.ifr_name, vela::view(ifname));
    if (is_inline(request)) {
        put_inline(wanted.u, param, data, len);
    } else {
        wanted.u.data.pointer = data;
        wanted.u.data.length = static_cast<uint16_t>(len);
        wanted.u.data.flags = static_cast<uint16_t>(flags);
    }
    // musl's ioctl takes an int, glibc's an unsigned long.
    return ioctl(sock, static_cast<unsigned>(request), &wanted) < 0 ? -1 : 0;
}

} // namespace

int vl_cfg80211_init(vl_cfg80211_context *context)
{
    *context = {};
    context->event_callback = ignore_event;
    int result = 0;
    for (const uint32_t id : socket_ids) {
        context->cmd_sock_id = id;
        context->event_sock_id = id + 1;
        result = wifi_init_nl80211_largebuf(context, 1);
        if (result == 0) return 0;
    }
    log_error("unable to create NL socket after %d tries, ret = %d\n", static_cast<int>(std::size(socket_ids)), result);
    return -EIO;
}

void vl_cfg80211_deinit(vl_cfg80211_context *context) { wifi_destroy_nl80211(context); }

int vl_cfg80211_get_wifi_param_int_ctx(vl_cfg80211_context *context, const char *ifname, int param, int32_t *out)
{
    int32_t value = 0;
    const int result = wifi_cfg80211_send_getparam_command(context, sub_params, static_cast<uint32_t>(param), ifname,
                                                           &value, sizeof value);
    if (result >= 0) *out = value; // a failed call may have filled a part of it
    return result;
}

int vl_cfg80211_get_wifi_param_int(const char *ifname, int param, int32_t *out)
{
    own_context context;
    if (context.status() != 0) return context.status();
    const int result = vl_cfg80211_get_wifi_param_int_ctx(context.get(), ifname, param, out);
    if (result < 0) {
        log_debug("couldn't send NL command, ret = %d\n", result);
        return -1;
    }
    return result;
}

int vl_cfg80211_send_command_no_response(vl_cfg80211_context *context, const char *ifname, int param, int32_t value)
{
    return wifi_cfg80211_send_setparam_command_linkid(context, sub_params, static_cast<uint32_t>(param), WIFI_ANY_LINK,
                                                      ifname, &value, sizeof value, nullptr);
}

int vl_cfg80211_send_generic_set_command_ctx(vl_cfg80211_context *context, const char *ifname, void *buffer,
                                             uint32_t length, vl_cfg80211_reply_callback callback, int command)
{
    const auto [status, value] = send_generic(context, ifname, command, buffer, length, callback);
    if (status != 0) {
        log_debug("send command ctx failed, cmd = %d, ret = %d\n", command, status);
        return -1;
    }
    return value;
}

int vl_cfg80211_send_generic_set_command(const char *ifname, int command, void *buffer, uint32_t length, int,
                                         vl_cfg80211_reply_callback callback)
{
    own_context context;
    if (context.status() != 0) return context.status();
    const auto [status, value] = send_generic(context.get(), ifname, command, buffer, length, callback);
    if (status != 0) {
        log_debug("send command failed, cmd = %d, ret = %d\n", command, status);
        return -1;
    }
    return value;
}

int get_athstat(const char *ifname, void *out)
{
    uint8_t block[VL_ATHSTAT_SIZE];
    memcpy(block, out, sizeof block);
    const int result =
        vl_cfg80211_send_generic_set_command(ifname, command_radio_statistics, block, sizeof block, 0, nullptr);
    if (result < 0) {
        log_at(LIBVELA_LOG_DEBUG, "libvela", __func__, "unable to get ath_info, ret = %d", result);
        return result;
    }
    memcpy(out, block, sizeof block);
    return result;
}

int set80211priv(int sock, const char *ifname, int request, int param, int flags, void *data, int len)
{
    if (request == request_inline_set && len > inline_max) return -1;
    iwreq wanted;
    return issue(wanted, sock, ifname, request, param, flags, data, len);
}

int get80211priv(int sock, const char *ifname, int request, int param, int flags, void *data, int len)
{
    if (request == request_inline_get && len > static_cast<int>(sizeof(iwreq_data))) return -1;
    iwreq wanted;
    if (issue(wanted, sock, ifname, request, param, flags, data, len) < 0) return -1;
    if (request != request_inline_get) return wanted.u.data.length;
    if (data && len > 0) memcpy(data, &wanted.u, static_cast<size_t>(len)); // answers fill the whole union
    return len;
}
