// What needs no kernel with traffic control by address; the rest is tests/wifi/qos_test.cpp.
#include "site/world.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <vela/wireless/qos.h>

using testing::ElementsAre;
using testing::StartsWith;

TEST(Qos, RefusesImpossibleRules)
{
    const struct {
        const char *what;
        vela_qos_rule rule;
        int result;
    } cases[] = {
        {"group address", {.mac = {1}, .priority = -1, .to_station_kbps = 64}, -EINVAL},
        {"no address", {.mac = {}, .priority = -1, .to_station_kbps = 64}, -EINVAL},
        {"priority 8", {.mac = {2}, .priority = 8}, -EINVAL},
        {"priority -2", {.mac = {2}, .priority = -2}, -EINVAL},
        {"63 kbit/s", {.mac = {2}, .priority = -1, .to_station_kbps = 63}, -EINVAL},
        {"more than 4 Gbit/s", {.mac = {2}, .priority = -1, .from_station_kbps = 4000001}, -EINVAL},
        {"nothing wanted", {.mac = {2}, .priority = -1}, 0},
    };
    for (const auto &c : cases) EXPECT_EQ(c.result, vela_qos_set("lo", &c.rule)) << c.what;
    const vela_qos_rule good = {.mac = {2}, .priority = 7};
    EXPECT_EQ(-EINVAL, vela_qos_set(nullptr, &good));
    EXPECT_EQ(-EINVAL, vela_qos_set("lo", nullptr));
    EXPECT_EQ(-ENODEV, vela_qos_set("nowhere", &good));
    EXPECT_EQ(-ENODEV, vela_qos_clear("nowhere", nullptr));
    EXPECT_EQ(-EINVAL, vela_qos_clear("lo", cases[0].rule.mac));
    EXPECT_EQ(-EINVAL, vela_qos_foreach("lo", nullptr, nullptr));
    EXPECT_EQ(nullptr, vela_qos_json("nowhere"));
    EXPECT_EQ(ENODEV, errno);
}

TEST(Qos, SaysOnceWhatTheKernelLacks)
{
    ASSERT_EQ(0, site::run("ip link add q0 type veth peer name q1"));
    const vela_qos_rule rule = {.mac = {2}, .priority = -1, .to_station_kbps = 64};
    log_lines log;
    if (vela_qos_set("q0", &rule) == 0) GTEST_SKIP() << "this kernel has it all";
    EXPECT_EQ(-EOPNOTSUPP, vela_qos_set("q0", &rule));
    EXPECT_THAT(log.texts(), ElementsAre(StartsWith("this kernel lacks NET_")));
    EXPECT_EQ(0, vela_qos_clear("q0", nullptr));
}
