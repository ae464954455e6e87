#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/wireless/mld.h>

using testing::ElementsAre;

namespace
{
void must_run(const char *commands) { ASSERT_EQ(0, site::run(commands)) << commands; }
} // namespace

TEST(Mld, InterfacesGoUp)
{
    must_run("ip link add ath0 type veth peer name far");
    const leak_check leaks;
    EXPECT_EQ(0, vela_if_is_up("ath0"));
    EXPECT_EQ(0, vela_if_set_up("ath0"));
    EXPECT_EQ(1, vela_if_is_up("ath0"));
    EXPECT_EQ(0, vela_if_set_up("ath0")) << "up already";
    for (const char *name : {"", "missing", "a-name-longer-than-any-interface", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(0, vela_if_is_up(name)) << (name ? name : "null");
        EXPECT_EQ(-1, vela_if_set_up(name)) << (name ? name : "null");
    }
    const faults::refuse none(faults::call::socket, EMFILE);
    EXPECT_EQ(0, vela_if_is_up("ath0"));
    EXPECT_EQ(-1, vela_if_set_up("ath0"));
    leaks.expect_unchanged();
}

TEST(Mld, IndexHasThreeDigits)
{
    must_run("ip link add ath0 index 1234 type veth peer name far");
    EXPECT_EQ(123, vela_get_ifindex("ath0"));
    log_lines log;
    EXPECT_EQ(0, vela_get_ifindex("missing"));
    EXPECT_THAT(log.texts(), ElementsAre("NULL pointer for default value"));
}

// The kernel gives a lower device an "upper_NAME" link for every device stacked on it.
TEST(Mld, LinksKnowTheirMultiLinkDevice)
{
    log_lines log;
    must_run("ip link add ath0 type veth peer name far && ip link add link ath0 name mld10 type macvlan");
    for (const auto &[ifname, size, result, expected] :
         table<const char *, size_t, int, const char *>{{"ath0", 6, 0, "mld10"},
                                                        {"ath0", 4, 0, "mld"},
                                                        {"ath0", 1, 0, ""},
                                                        {"ath0", 0, 0, "old"},
                                                        {"far", 6, -1, ""}}) {
        char name[16] = "old";
        EXPECT_EQ(result, get_iface_upper_mld_ifname(ifname, name, size)) << ifname << size;
        EXPECT_STREQ(expected, name) << ifname << " size " << size;
    }
    EXPECT_TRUE(log.take().empty());
    char name[16];
    EXPECT_EQ(-1, get_iface_upper_mld_ifname("missing", name, sizeof name));
    EXPECT_THAT(log.shown(), ElementsAre(std::string("[error] wireless.get_iface_upper_mld_ifname(): unable to open "
                                                     "'/sys/class/net/missing': ") +
                                         strerror(ENOENT)));
}

TEST(Mld, VlanComesFromTheBridgesName)
{
    log_lines log;
    must_run("ip link add ath0 type veth peer name far");
    for (const auto &[bridge, vlan] : table<std::string, int>{{"br0.20", 20}, {"br0", 1}, {"lan.3", 1}}) {
        must_run(("ip link add " + bridge + " type bridge && ip link set ath0 master " + bridge).c_str());
        EXPECT_EQ(vlan, get_mld_vlan_id("ath0")) << bridge;
    }
    EXPECT_TRUE(log.take().empty());
    EXPECT_EQ(-1, get_mld_vlan_id("far"));
    EXPECT_THAT(log.shown(), ElementsAre(std::string("[error] wireless.get_mld_vlan_id(): unable to readlink "
                                                     "'/sys/class/net/far/master': ") +
                                         strerror(ENOENT)));
}

TEST(Mld, ConfiguredDeviceIsThatOfTheHighestIndex)
{
    site::put_file("/tmp/system.cfg", "wireless.10.devname=ath0\nwireless.10.mld=mld10\n"
                                      "wireless.9.devname=ath0\nwireless.9.mld=mld9\n"
                                      "wireless.1.devname=ath1\nwireless.2.devname=ath0x\nwireless.2.mld=mld2\n");
    cfg_entry *config = parse("/tmp/system.cfg");
    EXPECT_STREQ("mld10", get_mld_iface_cfg(config, "ath0"));
    EXPECT_EQ(nullptr, get_mld_iface_cfg(config, "ath1")) << "no mld key";
    EXPECT_EQ(nullptr, get_mld_iface_cfg(config, nullptr));
    EXPECT_EQ(nullptr, get_mld_iface_cfg(nullptr, "ath0"));
    free_cfg(config);
}

TEST(Mld, SeenDevicesAreRememberedUpToSixteen)
{
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 18; ++i) {
            const std::string name = "mld" + std::to_string(i);
            EXPECT_EQ(1, add_if_mld_unique(name.c_str())) << name;
            EXPECT_EQ(i < 16 ? 0 : 1, add_if_mld_unique(name.c_str())) << name;
        }
        reset_seen_mlds();
    }
    EXPECT_EQ(0, add_if_mld_unique(nullptr));
}
