#include "site/device.h"

#include "site/world.h"

#include <cstdarg>
#include <cstdio>

namespace site
{
namespace
{

constexpr const char *hal = "/proc/velahal/";

// Both filters read text and write it with secrets struck out: values of configuration keys that name one, and in log
// lines the word behind such a name.
constexpr const char *wrapper_script = R"(
words='pass(word|phrase|wd)?|psk|secret|token|key'
case $1 in
systemcfg-sensitive-data-filter)
    exec sed -E "s/^([^#=]*($words)[^=.]*)=.*/\1=*****/"
    ;;
sensitive-data-filter)
    exec sed -E "s/(($words)[a-z_]*)([=: ]+)[^ ]+/\1\4*****/g"
    ;;
*)
    echo "$SYSWRAPPER_PPID $*" >>"$calls"
    ;;
esac
)";

constexpr const char *log_lines =
    "Oct  3 07:41:11 vela-ap daemon.info hostapd[611]: ath1: STA 02:56:4c:00:00:07 authorized\n"
    "Oct  3 07:41:12 vela-ap daemon.info mgrd[402]: inform accepted, password=s3cr3t-admin\n"
    "Oct  3 07:41:12 vela-ap user.err meshd[733]: uplink lost, trying 02:56:4c:00:00:31\n"
    "Oct  3 07:41:13 vela-ap daemon.info hostapd[611]: radius secret hunter2-radius in use\n";

__attribute__((format(printf, 1, 2))) std::string text(const char *format, ...)
{
    char buffer[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

std::string line_unless_empty(const char *key, const std::string &value)
{
    return value.empty() ? "" : std::string(key) + "=" + value + "\n";
}

void put_or_remove(const std::string &path, bool present, const std::string &content)
{
    if (present) {
        put_file(path, content);
    } else {
        remove_file(path);
    }
}

std::string with_colons(const std::string &serial)
{
    std::string mac;
    for (size_t i = 0; i < serial.size(); i += 2) {
        if (i != 0) mac += ':';
        mac.append(serial, i, 2);
    }
    return mac;
}

void lay_out_hal(const device_facts &f)
{
    put_file(hal + std::string("system.info"),
             text("systemid=%04x\nboardrevision=%d\ncpuid=%08x\nserialno=%s\nmanufid=%s\nmfgweek=%s\n", f.sysid,
                  f.revision, f.cpuid, f.serial.c_str(), f.manufid.c_str(), f.mfgweek.c_str()) +
                 line_unless_empty("device.anonid", f.anonid));
    put_file(hal + std::string("board"),
             text("systemid=%04x\nboardrevision=%d\ncpuid=%08x\nserialno=%s\nqrid=%s\nregdmn[0]=0x%04x\n"
                  "countrycode=%u\n",
                  f.sysid, f.revision, f.cpuid, with_colons(f.serial).c_str(), f.qrid.c_str(), 0x37u, f.country));
    put_file(hal + std::string("status/IsDefault"), f.factory_default ? "1\n" : "0\n");
}

std::string configuration(const device_facts &f)
{
    return "# managed by the controller\n"
           "radio.1.devname=wifi0\nradio.1.mode=ap\nradio.1.channel=6\n"
           "radio.2.devname=wifi1\nradio.2.mode=ap\nradio.2.channel=44\n"
           "wireless.1.ssid=Harbour Office\nwireless.1.security.psk=correct-horse-battery\n"
           "wireless.2.ssid=Harbour Guests\nwireless.2.radius.secret=hunter2-radius\n"
           "users.1.name=admin\nusers.1.password=s3cr3t-admin\n"
           "bridge.1.devname=br0\nbridge.1.port.1.devname=eth0\nsystem.timezone=UTC\n" +
           line_unless_empty("corvo.version", f.controller_version) +
           line_unless_empty("corvo.anonymous_controller_id", f.controller_id) +
           line_unless_empty("corvo.anonymous_site_id", f.site_id) + line_unless_empty("corvo.key", f.site_key) +
           line_unless_empty("corvo.mcip", f.site_group) + line_unless_empty("mgmt.brix.env", f.stage) + f.more_config;
}

} // namespace

void lay_out_device(const device_facts &facts)
{
    lay_out_hal(facts);
    put_file("/tmp/system.cfg", configuration(facts));
    put_or_remove("/usr/etc/.version", !facts.version.empty(), facts.version + "\n");
    put_or_remove("/usr/etc/.build", !facts.build.empty(), facts.build + "\n");
    put_or_remove("/usr/lib/build.properties", !facts.reftype.empty(),
                  "scm_branch=harbour\nscm_reftype=" + facts.reftype + "\n");
    put_program("/usr/bin/syswrapper.sh", std::string("calls=") + syswrapper_calls + wrapper_script);
    put_file("/var/log/messages", log_lines);
    put_or_remove("/var/run/ntp.ready", facts.clock_ready, "");
    put_or_remove("/var/run/ipready.br0", !facts.bridge_address.empty(), facts.bridge_address + "\n");
}

} // namespace site
