#include "tests/wifi/machine.h"

#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <thread>

namespace
{

std::string daemon_file(const std::string &ifname, const char *kind) { return "/tmp/" + ifname + "." + kind; }

void end_daemon(const std::string &ifname)
{
    const std::string pid_file = daemon_file(ifname, "pid");
    const std::string pid = site::read_file(pid_file);
    if (pid.empty()) return;
    site::run("kill " + pid);
    machine::eventually([&] { return !site::exists(pid_file); }, 5); // both remove it last
}

/// At 6 GHz there are no open networks.
constexpr const char *lines_for_6ghz = "op_class=131\nieee80211ax=1\nieee80211w=2\nwpa=2\nwpa_key_mgmt=SAE\n"
                                       "rsn_pairwise=CCMP\nsae_password=12345678\nsae_pwe=1\n";

bool link_is_up(const std::string &ifname)
{
    return site::read_file("/sys/class/net/" + ifname + "/operstate") == "up\n";
}

} // namespace

namespace machine
{

void fresh_radios(int count)
{
    site::run("modprobe -r mac80211_hwsim");
    ASSERT_EQ(0, site::run("modprobe mac80211_hwsim radios=" + std::to_string(count)));
    ASSERT_TRUE(eventually([&] { return site::exists("/sys/class/net/wlan" + std::to_string(count - 1)); }));
    set_country("US");
}

void set_country(const std::string &code)
{
    site::run("iw reg set " + code);
    ASSERT_TRUE(eventually([&] { return iw("reg get").find("country " + code) != std::string::npos; }));
}

bool eventually(const std::function<bool()> &holds, int seconds)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string iw(const std::string &arguments) { return site::output_of("iw " + arguments + " 2>&1"); }

void tell(const char *format, ...)
{
    const char *show = getenv("WIFI_SHOW");
    if (!show || !*show) return;
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    fflush(stdout);
}

access_point::access_point(const std::string &ifname, const settings &how) : ifname_{ifname}
{
    std::string config = "interface=" + ifname + "\ndriver=nl80211\nssid=" + how.ssid +
                         "\nhw_mode=" + (how.channel > 14 || how.at_6ghz ? "a" : "g") +
                         "\nchannel=" + std::to_string(how.channel) + "\n" + how.more +
                         (how.at_6ghz ? lines_for_6ghz : "");
    if (!how.vendor_elements.empty()) config += "\nvendor_elements=" + how.vendor_elements;
    const std::string path = daemon_file(ifname, "conf");
    site::put_file(path, config + "\n");
    const int status = site::run("hostapd -B -P " + daemon_file(ifname, "pid") + " -f " + daemon_file(ifname, "log") +
                                 " " + path + " >/dev/null");
    EXPECT_EQ(0, status) << log();
    EXPECT_TRUE(eventually([&] { return link_is_up(ifname); })) << log();
}

access_point::~access_point() { end_daemon(ifname_); }

std::string access_point::log() const { return site::read_file(daemon_file(ifname_, "log")); }

station::station(const std::string &ifname, const std::string &ssid, int freq) : ifname_{ifname}
{
    const std::string path = daemon_file(ifname, "conf");
    const std::string log = daemon_file(ifname, "log");
    const std::string only = freq != 0 ? "scan_freq=" + std::to_string(freq) + "\n" : "";
    site::put_file(path, "network={\nssid=\"" + ssid + "\"\nkey_mgmt=NONE\nscan_ssid=1\n" + only + "}\n");
    EXPECT_EQ(0, site::run("wpa_supplicant -B -D nl80211 -i " + ifname + " -P " + daemon_file(ifname, "pid") + " -f " +
                           log + " -c " + path + " >/dev/null"))
        << site::read_file(log);
    EXPECT_TRUE(eventually([&] { return link_is_up(ifname); })) << site::read_file(log);
}

station::~station() { end_daemon(ifname_); }

} // namespace machine
