// Two access points on one wire announce themselves to the site's multicast group.
#include "scenes.h"
#include "site/device.h"
#include "site/wire.h"
#include "site/world.h"

#include <event2/event.h>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>
#include <vela/discovery/protocol.h>
#include <vela/net/gateway.h>

namespace
{

constexpr uint16_t announce = 1;
constexpr uint16_t mesh_halt = 6;
constexpr const char *refused = "failed to decrypt";

struct announcement {
    std::string from;
    uint16_t method;
    std::string text;
};

std::vector<announcement> heard;
event_base *base = nullptr;

void on_packet(const vela_packet *pkt, const uint8_t *payload, uint32_t method)
{
    char from[18];
    (void)gateway_mac_to_str(pkt->device_id, from, sizeof from); // it fits
    heard.push_back({from, static_cast<uint16_t>(method), {reinterpret_cast<const char *>(payload), pkt->length}});
    if (method == mesh_halt) event_base_loopbreak(base);
}

void send(const std::string &text, uint16_t sequence)
{
    vela_protocol_ctrl.tx_seq = sequence;
    vela_protocol_send(text.data(), static_cast<uint32_t>(text.size()), announce, 1, 1);
}

/// The first line that holds a text; "" without one.
std::string line_of(const std::string &text, const char *part)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(part) != std::string::npos) return line;
    }
    return "";
}

void speak()
{
    site::put_file("/var/run/ipready.br0", std::string(site::second_device::own_address) + "\n");
    if (vela_protocol_init(1) != 0) _exit(1);
    vela_protocol_ctrl.device_id[5] = 0x77; // another serial number than ours
    send("attic access point, channel 36", 1);
    send("attic access point, channel 36", 1);
    vela_protocol_ctrl.key[0] ^= 0xFF;
    send("a stranger", 2);
    vela_protocol_deinit();
    if (vela_protocol_client_init() != 0) _exit(2);
    vela_protocol_ctrl.tx_seq = 3;
    vela_protocol_client_event_mesh_halt_send();
}

} // namespace

void tell_of_discovery(site::story &story)
{
    story.scene("Two access points on one wire");
    const site::overheard log; // of both devices
    const site::device_facts facts;
    site::lay_out_device(facts);
    site::put_file("/var/run/vela_protocol.info",
                   "corvo.key=" + facts.site_key + "\ncorvo.mcip=" + facts.site_group + "\n");
    site::second_device attic(speak);
    site::put_file("/var/run/ipready.br0", std::string(site::second_device::our_address) + "\n");
    story.check(vela_protocol_init(1) == 0, "joined the group %s on br0 (%s)", facts.site_group.c_str(),
                site::second_device::our_address);

    base = event_base_new();
    static const vela_handler_entry handlers[] = {{on_packet, announce}, {on_packet, mesh_halt}, {nullptr, 0}};
    vela_protocol_init_recv(base, handlers);
    attic.go();
    const timeval limit = {5, 0};
    event_base_loopexit(base, &limit);
    event_base_dispatch(base);
    const int status = attic.join();

    story.tell("the other one announces itself, repeats itself, then a stranger without the site's key speaks:");
    for (const auto &a : heard) {
        const std::string text = a.method == mesh_halt ? "(mesh operation halts)" : a.text;
        story.quote(a.from + " method " + std::to_string(a.method) + ": " + text);
    }
    const std::string refusal = line_of(log.text(), refused);
    story.tell("of the stranger the library logs:");
    story.quote(refusal);
    story.check(status == 0 && heard.size() == 2 && !refusal.empty(),
                "its announcement was heard once, decrypted; the stranger was refused");
    story.check(heard.size() == 2 && heard[1].method == mesh_halt && heard[1].text.size() == 14,
                "its short-lived client on br0 announced the halt of the mesh");
    vela_protocol_deinit();
    event_base_free(base);
}
