#include "site/world.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <gmock/gmock.h>
#include <vela/mesh/afc.h>

TEST(Afc, StateIsTheNameInTheFile)
{
    EXPECT_EQ(9, get_afc_state()) << "no file";
    const table<const char *, int> cases = {{"active\r\nrest", 7}, {"ACTIVE", 0}, {"active ", 0}, {"", 9}};
    for (const auto &[text, state] : cases) {
        site::put_file("/var/run/afc.state", text);
        EXPECT_EQ(state, get_afc_state()) << text;
    }
}

TEST(Afc, SettingRunsTheScriptAndForgetsTheRequest)
{
    site::put_program("/usr/bin/syswrapper.sh", R"([ -e /var/run/location_request_id ] && kept=kept
echo "$# $1 $2 $kept" >/tmp/call)");
    const table<unsigned, const char *> cases = {{7, "2 set-afc-state active \n"},
                                                 {4, "2 set-afc-state location_unknown kept\n"},
                                                 {10, "2 set-afc-state unknown \n"}};
    for (const auto &[state, call] : cases) {
        set_location_request_id("17");
        set_afc_state(state);
        EXPECT_EQ(call, site::read_file("/tmp/call")) << state;
    }
}

TEST(Afc, RequestIdentifierLivesInItsFile)
{
    log_lines log;
    EXPECT_STREQ("", get_location_request_id());
    EXPECT_THAT(log.texts(), testing::ElementsAre("NULL pointer for default value"));
    const std::string id(300, 'i');
    set_location_request_id(id.c_str());
    set_location_request_id(nullptr);
    EXPECT_EQ(id + "\n", site::read_file("/var/run/location_request_id"));
    EXPECT_EQ(id.substr(0, 255), get_location_request_id());
    EXPECT_EQ(0, clear_location_request_id());
    EXPECT_EQ(-1, clear_location_request_id()) << "there is none";
}
