#include "site/world.h"
#include "tests/support/log_lines.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <vela/mesh/afc.h>

namespace
{
constexpr const char *request_path = "/var/run/location_request_id";
} // namespace

TEST(Afc, StateIsTheNameInTheFile)
{
    constexpr struct {
        const char *text;
        int state;
    } cases[] = {{"active\r\nrest", 7}, {"unknown", 0}, {"ACTIVE", 0}, {"active ", 0}, {"", 9}};
    EXPECT_EQ(9, get_afc_state()) << "no file";
    for (const auto &c : cases) {
        site::put_file("/var/run/afc.state", c.text);
        EXPECT_EQ(c.state, get_afc_state()) << c.text;
    }
    for (int i = 0; i < AFC_STATES; ++i) {
        site::put_file("/var/run/afc.state", afc_state_strs[i]);
        EXPECT_EQ(i, get_afc_state());
    }
}

TEST(Afc, SettingRunsTheScriptAndForgetsTheRequest)
{
    site::put_program("/usr/bin/syswrapper.sh", R"([ -e /var/run/location_request_id ] && kept=kept
echo "$# $1 $2 $kept" >>/tmp/calls)");
    constexpr struct {
        unsigned state;
        const char *call;
    } cases[] = {{7, "2 set-afc-state active \n"},
                 {4, "2 set-afc-state location_unknown kept\n"},
                 {12, "2 set-afc-state unknown \n"}};
    for (const auto &c : cases) {
        site::remove_file("/tmp/calls");
        set_location_request_id("17");
        set_afc_state(c.state);
        EXPECT_EQ(c.call, site::read_file("/tmp/calls")) << c.state;
    }
}

TEST(Afc, RequestIdentifierLivesInItsFile)
{
    log_lines log;
    EXPECT_STREQ("", get_location_request_id());
    EXPECT_THAT(log.texts(), testing::ElementsAre("NULL pointer for default value"));
    errno = 0;
    EXPECT_EQ(-1, clear_location_request_id());
    EXPECT_EQ(ENOENT, errno);

    const std::string id(300, 'i');
    set_location_request_id(id.c_str());
    set_location_request_id(nullptr);
    EXPECT_EQ(id + "\n", site::read_file(request_path));
    EXPECT_EQ(id.substr(0, 255), get_location_request_id());
    EXPECT_EQ(0, clear_location_request_id());
    EXPECT_FALSE(site::exists(request_path));
}
