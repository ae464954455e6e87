#include "site/device.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/table.h"

#include <functional>
#include <vela/core/log.h>
#include <vela/net/curl_simple.h>
#include <vela/net/url.h>
#include <vela/services/webrtc.h>
#include <vela/telemetry/crash.h>
#include <vela/wireless/mld.h>
#include <vela/wireless/scan.h>

// Each call with its first, second, ... allocation refused: it comes back, leaves nothing behind, and does the same as
// before once there is memory again. A family's row is all that it needs to be held to this.
TEST(Memory, OneThatIsRefusedEndsNothingButTheCall)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    libvela_log_env_ready = 1;
    libvela_log_level = 0; // a line that cannot be formatted ends the process, as does a configuration
    site::lay_out_device();
    site::remove_file("/tmp/system.cfg");
    const crash_info crash = {"meshd", 733, 11, 3, 86400, CRASH_MINIDUMP, "dump", 4};
    const sdp_request asked = {};
    webrtc_inform offer = {};
    const scan_result heard = {};
    const table<const char *, std::function<int()>> calls = {
        {"url_parse", [] { return url_destroy(url_parse("http://u@host:81/p")), 0; }},
        {"url_copy",
         [source = url_parse("http://u@host:81/p")] { return url_destroy(url_copy(source)), 0; }}, // kept for good
        {"url_encode", [] { return free(url_encode("x")), 0; }},
        {"curl_simple_response", [] { return curl_simple_response_free(curl_simple_response_init(1)), 0; }},
        {"send_crash", [&] { return send_crash(&crash); }},
        {"get_next_sdp_offer", [&] { return get_next_sdp_offer("s", &asked, &offer); }},
        {"get_scanlist", [] { return free_scanlist(get_scanlist("lo")), 0; }},
        {"add_scan_entry",
         [&, list = get_scanlist("lo")] { return add_scan_entry(&heard, list), 0; }}, // grows while it runs
        {"add_if_mld_unique", [] { return reset_seen_mlds(), add_if_mld_unique("mld0"); }},
    };
    for (const auto &[name, call] : calls) {
        const leak_check leaks;
        const int result = call();
        int refused = -1;
        faults::for_each_allocation([&] { ++refused, call(); });
        EXPECT_GT(refused, 0) << name;
        EXPECT_EQ(result, call()) << name;
        leaks.expect_unchanged();
    }
}
