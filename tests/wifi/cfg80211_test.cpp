#include "tests/support/leaks.h"
#include "tests/wifi/machine.h"

#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <vela/wireless/cfg80211.h>

TEST(Cfg80211, ContextTakesTheFirstFreePairOfPorts)
{
    const leak_check leaks;
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = 888; // what the second pair's event socket wants
    const int taken = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    ASSERT_EQ(0, bind(taken, reinterpret_cast<const sockaddr *>(&address), sizeof address));

    vl_cfg80211_context first, second, third;
    ASSERT_EQ(0, vl_cfg80211_init(&first));
    EXPECT_EQ(877U, first.cmd_sock_id);
    ASSERT_EQ(0, vl_cfg80211_init(&second));
    EXPECT_EQ(897U, second.cmd_sock_id);
    EXPECT_EQ(-EIO, vl_cfg80211_init(&third));
    vl_cfg80211_deinit(&first);
    ASSERT_EQ(0, vl_cfg80211_init(&third)) << "given back";
    machine::fresh_radios();
    int32_t value = 5;
    EXPECT_EQ(-EOPNOTSUPP, vl_cfg80211_get_wifi_param_int_ctx(&third, "wlan0", 386, &value));
    vl_cfg80211_deinit(&third);
    vl_cfg80211_deinit(&second);
    close(taken);
    leaks.expect_unchanged();
}
