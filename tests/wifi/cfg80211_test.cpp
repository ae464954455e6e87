#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/wifi/machine.h"

#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <vela/wireless/cfg80211.h>

using testing::ElementsAre;

namespace
{

int take_port(uint32_t port)
{
    sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_pid = port;
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address)) << port;
    return fd;
}

} // namespace

TEST(Cfg80211, ContextTakesTheFirstFreePairOfPorts)
{
    const leak_check leaks;
    vl_cfg80211_context first, second, third, fourth;
    ASSERT_EQ(0, vl_cfg80211_init(&first));
    EXPECT_EQ(877U, first.cmd_sock_id);
    EXPECT_EQ(878U, first.event_sock_id);
    const int taken = take_port(888);
    ASSERT_EQ(0, vl_cfg80211_init(&second));
    EXPECT_EQ(897U, second.cmd_sock_id);
    EXPECT_EQ(898U, second.event_sock_id);
    EXPECT_EQ(-EIO, vl_cfg80211_init(&third));
    vl_cfg80211_deinit(&first);
    ASSERT_EQ(0, vl_cfg80211_init(&fourth)) << "given back";
    vl_cfg80211_deinit(&fourth);
    vl_cfg80211_deinit(&second);
    close(taken);
    leaks.expect_unchanged();
}

TEST(Cfg80211, CommandsTheDriverDoesNotKnowFailWithoutATrace)
{
    machine::fresh_radios();
    log_lines log;
    const leak_check leaks;
    int32_t value = 5;
    uint8_t statistics[VL_ATHSTAT_SIZE] = {42};
    EXPECT_EQ(-1, vl_cfg80211_get_wifi_param_int("wlan0", 386, &value));
    EXPECT_EQ(-1, get_athstat("wlan0", statistics));
    EXPECT_EQ(5, value);
    EXPECT_EQ(42, statistics[0]);
    EXPECT_THAT(log.texts(),
                ElementsAre("couldn't send NL command, ret = -95", "send command failed, cmd = 501, ret = -95",
                            "unable to get ath_info, ret = -1"));
    leaks.expect_unchanged();
}
