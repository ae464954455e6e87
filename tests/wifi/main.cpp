// Wireless tests load and rename radios, so they run in the Wi-Fi machine only: in a device world of their own (fresh
// /run and /tmp, a writable /proc) on the machine's network.
#include "site/world.h"

#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>

int main(int argc, char **argv)
{
    testing::InitGoogleMock(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) {
        if (!getenv("WIFI_MACHINE")) {
            fputs("These tests run in the Wi-Fi machine: ./dev wifi\n", stderr);
            return 2;
        }
        site::enter_world(site::network::shared);
    }
    testing::GTEST_FLAG(death_test_style) = "fast";
    return RUN_ALL_TESTS();
}
