#include "tests/wifi/machine.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

// What every other test here relies on: radios that hear one another, and daemons that end with their owners.
TEST(Machine, StationFindsAccessPointAndBothLeaveNothing)
{
    machine::fresh_radios();
    {
        const machine::access_point ap("wlan0", {.ssid = "here", .channel = 36, .vendor_elements = "dd0402564c01"});
        const machine::station sta("wlan1", "here", 5180);
        EXPECT_THAT(machine::iw("dev wlan1 link"), HasSubstr("Connected to 02:00:00:00:00:00"));
        EXPECT_EQ(0, site::run("ip link set wlan2 up"));
        EXPECT_THAT(machine::iw("dev wlan2 scan -u freq 5180"), HasSubstr("Vendor specific: OUI 02:56:4c"));
    }
    EXPECT_EQ("", site::output_of("pgrep 'hostapd|wpa_sup'"));
}
