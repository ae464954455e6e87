// Why something is as it is: the library's own explanations, with a sentence for each reason.
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>
#include <vela/board/board.h>
#include <vela/mesh/vwire.h>
#include <vela/net/gateway.h>
#include <vela/telemetry/crash.h>
#include <vela/telemetry/trace.h>

namespace velactl
{
namespace
{

constexpr int ports_max = 32;

struct meaning {
    const char *question, *reason, *sentence;
};
constexpr meaning meanings[] = {
    {"gateway", "neighbour", "the neighbour table has the gateway on this port"},
    {"gateway", "fdb", "the bridge learned the gateway's address on this port"},
    {"gateway", "no_default_route", "there is no IPv4 default route with a gateway"},
    {"gateway", "not_resolved", "the gateway's hardware address is not known: nobody has talked to it lately"},
    {"gateway", "not_learned", "the bridge has not learned the gateway's address on any port"},
    {"gateway", "no_candidate", "the gateway is behind a port that is none of the board's"},
    {"gateway", "no_link", "the port towards the gateway has no link"},
    {"crash", "ready", "it would be sent"},
    {"crash", "clock_not_set", "the clock is not set: /var/run/ntp.ready is missing"},
    {"crash", "no_bridge_address", "the bridge has no address: /var/run/ipready.br0 is missing"},
    {"crash", "analytics_off", "analytics are off: /var/run/system.analytics.mode holds 0"},
    {"crash", "no_crash_log", "the kernel left no crash log"},
    {"crash", "already_sent", "it was sent: /var/run/last-crashlog.sent is there"},
    {"crash", "url_too_long", "the service's URL is too long"},
    {"trace", "ready", "it would be sent"},
    {"trace", "analytics_off", "analytics are off: /var/run/system.analytics.mode holds 0"},
    {"trace", "too_early", "transfers failed, and the wait after them is not over"},
    {"trace", "given_up", "transfers failed for so long that the process has given up"},
    {"parent", "good_6ghz", "6 GHz is strong enough, whatever 5 GHz offers"},
    {"parent", "near_6ghz", "5 GHz is not clearly stronger than 6 GHz"},
    {"parent", "stronger_5ghz", "5 GHz is clearly stronger than 6 GHz"},
    {"parent", "only_6ghz", "only 6 GHz has a candidate"},
    {"parent", "only_5ghz", "only 5 GHz has a candidate that may be used"},
    {"parent", "no_candidate", "no access point that was heard can be a parent"},
};

std::string_view word(const json &why, const char *key)
{
    const char *value = json_string_value(json_object_get(why.get(), key));
    return value ? value : "";
}

const char *sentence(const json &why)
{
    const auto *const found = std::find_if(std::begin(meanings), std::end(meanings), [&](const meaning &m) {
        return word(why, "question") == m.question && word(why, "reason") == m.reason;
    });
    return found == std::end(meanings) ? nullptr : found->sentence;
}

/// An explanation with what its reason means.
json explained(json_t *why)
{
    if (!why) throw refused("it cannot be explained", -errno);
    json result{why};
    set(result, "meaning", sentence(result));
    return result;
}

json why_gateway(const arguments &)
{
    char ports[ports_max][16];
    const int count = gateway_enum_eth_all(board_identify(), ports, ports_max);
    if (count == 0) throw trouble(status::unavailable, "this device has no Ethernet port");
    return explained(gateway_explain("br0", ports, count));
}

json why_crash(const arguments &given)
{
    if (given.has("--kernel")) return explained(crash_explain(nullptr));
    crash_info crash = {};
    crash.type = CRASH_CORE_DUMP;
    crash.data = "";
    crash.size = 1; // whether a dump would go along
    return explained(crash_explain(&crash));
}

json why_trace(const arguments &) { return explained(trace_explain()); }

/// The uplink interfaces with what they heard last.
struct heard {
    uplink_table table = {};

    heard()
    {
        char wired[16];
        if (uplink_ifname_identify(&table, wired, sizeof wired) != 0)
            throw trouble(status::unavailable, "no wireless interface is configured");
        collect_uplink_wds_iface_scan_records(&table);
    }
    heard(const heard &) = delete;
    heard &operator=(const heard &) = delete;
    ~heard() { destroy_uplink_wds_iface_scan_records(&table); }
};

json why_parent(const arguments &given)
{
    const auto length = [](const char *text) { return text ? static_cast<int>(strlen(text)) : 0; };
    const char *essid = given.value("--essid"), *first = given.value("--serial"), *second = given.value("--second");
    heard h;
    return explained(vwire_explain(&h.table, essid, length(essid), first, length(first), second, length(second)));
}

constexpr struct {
    const char *name;
    json (*answer)(const arguments &given);
} questions[] = {{"gateway", why_gateway}, {"crash", why_crash}, {"trace", why_trace}, {"parent", why_parent}};

json why(arguments given)
{
    for (const auto &question : questions) {
        if (strcmp(given[0], question.name) == 0) return question.answer(given);
    }
    std::vector<const char *> known;
    for (const auto &question : questions) known.push_back(question.name);
    throw trouble(status::misused, std::string("nothing is known of \"") + given[0] + "\"" +
                                       suggestion(given[0], known) + "; velactl help why lists what is");
}

json show_payload()
{
    std::string bytes(VWIRE_PAYLOAD_MAX, '\0');
    const int length = get_vwire_payload(bytes.data(), bytes.size());
    if (length == -ENOENT) throw trouble(status::unavailable, "there is no payload; velactl payload TEXT sets one");
    if (length < 0) throw refused(std::string("the payload cannot be read: ") + strerror(-length), length);
    bytes.resize(static_cast<size_t>(length));
    json result = object();
    set(result, "size", length);
    if (bytes.find('\0') == std::string::npos) set(result, "text", bytes);
    std::string hex;
    for (const char byte : bytes) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        hex += digits;
    }
    set(result, "hex", hex);
    return result;
}

json payload(arguments given)
{
    if (given.has("--unset") && !given.empty()) throw trouble(status::misused, "either TEXT or --unset");
    if (!given.has("--unset") && given.empty()) return show_payload();
    const int result = given.has("--unset") ? unset_vwire_payload() : set_vwire_payload(given[0], strlen(given[0]));
    if (result == -EINVAL || result == -EMSGSIZE)
        throw trouble(status::misused, "a payload has 1 to " + std::to_string(VWIRE_PAYLOAD_MAX) + " bytes", -result);
    if (result != 0) throw refused(std::string("not changed: ") + strerror(-result), result);
    return nullptr;
}

constexpr field why_fields[] = {
    {"question", kind::text, "what was asked"},
    {"answer", kind::text, "the port, the parent's address, what would be sent; missing where there is none"},
    {"reason", kind::text, "a fixed word"},
    {"meaning", kind::text, "the same as a sentence"},
    {"steps", kind::rows, "what was looked at: name, verdict (chosen, passed, refused, skipped), reason, figures"},
};
constexpr option why_options[] = {
    {"--kernel", "", "crash: ask for the kernel's crash log, not a process's dump"},
    {"--essid", "NAME", "parent: of this network only"},
    {"--serial", "MAC", "parent: serial number of the preferred one"},
    {"--second", "MAC", "parent: of the second choice"},
};
constexpr field payload_fields[] = {
    {"size", kind::number, "bytes"},
    {"text", kind::text, "the payload, where it is a text"},
    {"hex", kind::text, "the payload"},
};
constexpr option payload_options[] = {{"--unset", "", "take it away"}};

constexpr command commands[] = {
    {"why", "QUESTION", "why there is no gateway, report, parent", 1, 1, why, answer::object, why_fields, why_options,
     "QUESTION is gateway (why this port leads to it, or none does), crash or trace (what holds a report back), parent "
     "(why this access point, from what was heard last). Nothing is sent and no scan is started."},
    {"payload", "[TEXT]", "what the mesh uplink announces, shown or set", 0, 1, payload, answer::object, payload_fields,
     payload_options},
};

} // namespace

std::string held_back(json_t *explanation)
{
    const json why{explanation};
    if (!why || json_object_get(why.get(), "answer")) return "";
    const char *text = sentence(why);
    return text ? text : std::string(word(why, "reason"));
}

const std::span<const command> why_commands{commands};

} // namespace velactl
