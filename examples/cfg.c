/* A look at a configuration: ./example-cfg [FILE] */
#include <stdio.h>
#include <vela/config/cfg.h>

int main(int argc, char **argv)
{
    cfg_entry *cfg = parse(argc > 1 ? argv[1] : "/tmp/system.cfg");
    cfg_entry *radios = get_cfg_section(cfg, ".devname", NULL, "radio.");

    printf("%d entries, %d of %d vaps on\n", get_cfg_count(cfg), get_cfg_section_enabled_count(cfg, ".status", "vap."),
           get_cfg_section_count(cfg, ".status", NULL, "vap."));

    /* An element's number leads to the rest of what is said about it. */
    for (const cfg_entry *radio = radios; radio; radio = radio->next) {
        const int i = get_cfg_key_idx(radio->key, 1);
        printf("radio %d: %s, channel %d, %s\n", i, radio->value, get_int32(cfg, 0, "radio.%d.channel", i),
               get_bool(cfg, 0, "radio.%d.status", i) ? "on" : "off");
    }

    free_cfg_it(radios); /* first what borrows */
    free_cfg(cfg);
    return 0;
}
