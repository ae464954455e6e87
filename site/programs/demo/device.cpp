#include "site/device.h"
#include "scenes.h"
#include "site/world.h"

#include <algorithm>
#include <string>
#include <vela/board/board.h>
#include <vela/board/status.h>
#include <vela/config/cfg.h>
#include <vela/core/util.h>

namespace
{

// What the configuration of the site says.
constexpr struct {
    const char *device;
    int channel;
    const char *network;
} configured[] = {{"wifi0", 6, "Harbour Office"}, {"wifi1", 44, "Harbour Guests"}};

void tell_of_a_radio(site::story &story, const cfg_entry *config, int index)
{
    const std::string device = get_value(config, "?", "radio.%d.devname", index);
    const int channel = get_int32(config, 0, "radio.%d.channel", index);
    const std::string network = get_value(config, "?", "wireless.%d.ssid", index);
    const bool known = index >= 1 && index <= static_cast<int>(std::size(configured));
    const auto &c = configured[known ? index - 1 : 0];
    story.check(known && device == c.device && channel == c.channel && network == c.network,
                "radio %d: %s on channel %d, network \"%s\"", index, device.c_str(), channel, network.c_str());
}

} // namespace

void tell_of_the_device(site::story &story)
{
    story.scene("An access point that knows itself");
    const site::device_facts facts;
    site::lay_out_device(facts);

    story.tell("/proc/velahal says system id %u, revision %d, serial number %s.", facts.sysid, facts.revision,
               facts.serial.c_str());
    const board_record *board = board_identify();
    char serial[2 * sizeof board->serial + 1];
    uchar2lowerhex(board->serial, sizeof board->serial, serial, sizeof serial);
    story.check(board->system_id == facts.sysid && board->board_revision == facts.revision && board->radio_count == 3 &&
                    get_num_of_eth_ports() == 1 && facts.serial == serial,
                "the board is an %s (%s) with %u radios and %d Ethernet port, serial number %s", board->model_name,
                board->short_code, board->radio_count, get_num_of_eth_ports(), serial);
    const char *version = nullptr;
    const int unknown = get_version(&version);
    story.check(unknown == 0 && facts.version + "." + facts.build == version, "it runs firmware %s", version);

    cfg_entry *config = parse("/tmp/system.cfg");
    const std::string file = site::read_file("/tmp/system.cfg");
    story.check(get_cfg_count(config) == std::count(file.begin(), file.end(), '='), "/tmp/system.cfg has %d entries",
                get_cfg_count(config));
    cfg_entry *radios = get_cfg_section(config, ".mode", "ap", "radio.");
    for (const cfg_entry *radio = radios; radio; radio = radio->next) {
        tell_of_a_radio(story, config, get_cfg_key_idx(radio->key, 1));
    }
    free_cfg_it(radios);
    free_cfg(config);
}
