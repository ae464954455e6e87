// Every test program enters a device world first; listing the tests needs none.
#include "site/world.h"

#include <gmock/gmock.h>
#include <string_view>

int main(int argc, char **argv)
{
    bool listing = false;
    for (int i = 1; i < argc; ++i) listing |= std::string_view(argv[i]) == "--gtest_list_tests";
    if (!listing) site::enter_world();
    testing::GTEST_FLAG(death_test_style) = "fast";
    testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
