#include "site/device.h"
#include "scenes.h"
#include "site/world.h"

#include <vela/board/board.h>
#include <vela/board/status.h>
#include <vela/config/cfg.h>

void tell_of_the_device(site::story &story)
{
    story.scene("An access point that knows itself");
    const site::device_facts facts;
    site::lay_out_device(facts);

    const board_record *board = board_identify();
    story.tell("/proc/velahal says system id %u, revision %d.", facts.sysid, facts.revision);
    story.check(board->system_id == facts.sysid && board->radio_count != 0,
                "the board is an %s (%s): %u radios, %d Ethernet ports, serial %02x:%02x:%02x:%02x:%02x:%02x",
                board->model_name, board->short_code, board->radio_count, get_num_of_eth_ports(), board->serial[0],
                board->serial[1], board->serial[2], board->serial[3], board->serial[4], board->serial[5]);
    const char *version = nullptr;
    const bool known = get_version(&version) == 0;
    story.check(known, "it runs firmware %s", version);

    cfg_entry *config = parse("/tmp/system.cfg");
    story.check(config != nullptr, "/tmp/system.cfg has %d entries", static_cast<int>(get_cfg_count(config)));
    cfg_entry *radios = get_cfg_section(config, ".mode", "ap", "radio.");
    for (const cfg_entry *radio = radios; radio; radio = radio->next) {
        const int index = get_cfg_key_idx(radio->key, 1);
        story.tell("radio %d: %s on channel %d, network \"%s\"", index,
                   get_value(config, "?", "radio.%d.devname", index), get_int32(config, 0, "radio.%d.channel", index),
                   get_value(config, "?", "wireless.%d.ssid", index));
    }
    free_cfg_it(radios);
    free_cfg(config);
}
