// An interface-information exchange beside the same exchange written on libnl alone, and a storm of events. The machine
// is simulated instruction by instruction: only the ratios mean something.
#include "tests/wifi/machine.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <event2/event.h>
#include <linux/nl80211.h>
#include <net/if.h>
#include <netlink/netlink.h>
//
#include <netlink/attr.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/msg.h>
#include <vela/wireless/nl80211.h>

namespace
{

constexpr int rounds = 40;
constexpr int exchanges_per_round = 100;
constexpr int events = 10000;
constexpr int events_per_burst = 200;
constexpr int handlers = 8;

double microseconds_each(const std::function<void()> &exchange)
{
    const auto begin = std::chrono::steady_clock::now();
    for (int n = 0; n < exchanges_per_round; ++n) exchange();
    const std::chrono::duration<double, std::micro> taken = std::chrono::steady_clock::now() - begin;
    return taken.count() / exchanges_per_round;
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

/// What a program does that uses libnl directly.
class bare
{
public:
    bare() : socket_{nl_socket_alloc()}
    {
        genl_connect(socket_);
        family_ = genl_ctrl_resolve(socket_, "nl80211");
    }
    ~bare() { nl_socket_free(socket_); }
    bare(const bare &) = delete;
    bare &operator=(const bare &) = delete;

    bool interface_info(const char *ifname)
    {
        nl_msg *message = nlmsg_alloc();
        genlmsg_put(message, 0, 0, family_, 0, 0, NL80211_CMD_GET_INTERFACE, 0);
        nla_put_u32(message, NL80211_ATTR_IFINDEX, if_nametoindex(ifname));
        nl_cb *callbacks = nl_cb_alloc(NL_CB_DEFAULT);
        int status = 1;
        nl_cb_err(
            callbacks, NL_CB_CUSTOM,
            [](sockaddr_nl *, nlmsgerr *error, void *arg) {
                *static_cast<int *>(arg) = error->error;
                return static_cast<int>(NL_STOP);
            },
            &status);
        nl_cb_set(
            callbacks, NL_CB_ACK, NL_CB_CUSTOM,
            [](nl_msg *, void *arg) {
                *static_cast<int *>(arg) = 0;
                return static_cast<int>(NL_STOP);
            },
            &status);
        nl_cb_set(callbacks, NL_CB_VALID, NL_CB_CUSTOM, on_reply, this);
        nl_send_auto(socket_, message);
        while (status > 0) nl_recvmsgs(socket_, callbacks);
        nl_cb_put(callbacks);
        nlmsg_free(message);
        return status == 0;
    }
    uint32_t wiphy = 0, freq = 0, width = 0, power = 0;

private:
    static int on_reply(nl_msg *message, void *arg)
    {
        auto &self = *static_cast<bare *>(arg);
        nlattr *table[NL80211_ATTR_MAX + 1];
        auto *generic = static_cast<genlmsghdr *>(nlmsg_data(nlmsg_hdr(message)));
        nla_parse(table, NL80211_ATTR_MAX, genlmsg_attrdata(generic, 0), genlmsg_attrlen(generic, 0), nullptr);
        const auto take = [&](int number, uint32_t &value) {
            if (table[number]) value = nla_get_u32(table[number]);
        };
        take(NL80211_ATTR_WIPHY, self.wiphy);
        take(NL80211_ATTR_WIPHY_FREQ, self.freq);
        take(NL80211_ATTR_CHANNEL_WIDTH, self.width);
        take(NL80211_ATTR_WIPHY_TX_POWER_LEVEL, self.power);
        return NL_SKIP;
    }

    nl_sock *socket_;
    int family_;
};

int compare_exchanges(vl_nl80211_service &service)
{
    bare peer;
    std::vector<double> ours, theirs;
    int failures = 0;
    for (int n = 0; n < rounds; ++n) {
        theirs.push_back(microseconds_each([&] { failures += !peer.interface_info("wlan0"); }));
        ours.push_back(microseconds_each([&] {
            uint32_t wiphy, freq, width, power;
            uint8_t mac[6];
            failures += vl_nl80211_interface_info(&service, "wlan0", &wiphy, mac, &freq, &width, &power) != 0;
        }));
    }
    printf("interface information: %.1f us, bare libnl %.1f us, ratio %.2f\n", median(ours), median(theirs),
           median(ours) / median(theirs));
    return failures;
}

std::array<int, handlers> calls;

template <int N> int count(vl_nl80211_service *, nlattr **, uint8_t)
{
    ++calls[N];
    return 0;
}

template <int... N> void register_all(vl_nl80211_service &service, std::integer_sequence<int, N...>)
{
    (vl_nl80211_register_command_callback(&service, NL80211_CMD_NEW_WIPHY, count<N>), ...);
}

int storm(vl_nl80211_service &service, event_base *base)
{
    register_all(service, std::make_integer_sequence<int, handlers>());
    std::chrono::duration<double, std::micro> dispatching{};
    for (int sent = 0; sent < events;) {
        for (int n = 0; n < events_per_burst; ++n, ++sent) {
            nl_msg *request = vl_nl80211_create_message(&service, "wlan0", NL80211_CMD_SET_WIPHY, 0);
            nla_put_string(request, NL80211_ATTR_WIPHY_NAME, ("radio" + std::to_string(sent)).c_str());
            if (vl_nl80211_send_recv(&service, request, nullptr, nullptr) != 0) return 1;
        }
        const auto begin = std::chrono::steady_clock::now();
        event_base_loop(base, EVLOOP_NONBLOCK);
        dispatching += std::chrono::steady_clock::now() - begin;
    }
    const int fewest = *std::min_element(calls.begin(), calls.end());
    printf("%d events to %d callbacks: %d lost, %.1f us each\n", events, handlers, events - fewest,
           dispatching.count() / events);
    return fewest == events ? 0 : 1;
}

} // namespace

int main()
{
    machine::fresh_radios();
    event_base *base = event_base_new();
    vl_nl80211_service service = {};
    if (vl_nl80211_service_init(&service, base) != 0) return 1;
    const int failures = compare_exchanges(service) + storm(service, base);
    vl_nl80211_service_deinit(&service);
    event_base_free(base);
    return failures != 0;
}
