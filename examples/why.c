/* Why nothing is sent, no gateway found, no parent chosen: ./example-why crash|trace|gateway|parent */
#include <stdio.h>
#include <string.h>
#include <vela/mesh/vwire.h>
#include <vela/net/gateway.h>
#include <vela/telemetry/crash.h>
#include <vela/telemetry/trace.h>

#define PORTS_MAX 32

static json_t *why_gateway(void)
{
    char ports[PORTS_MAX][16];
    const int count = gateway_enum_eth_all(board_identify(), ports, PORTS_MAX);
    return gateway_explain("br0", ports, count);
}

static json_t *why_parent(void)
{
    uplink_table uplinks = {.active = -1};
    char wired[16];
    if (uplink_ifname_identify(&uplinks, wired, sizeof wired) != 0) return NULL;
    collect_uplink_wds_iface_scan_records(&uplinks);
    json_t *why = vwire_explain(&uplinks, NULL, 0, NULL, 0, NULL, 0);
    destroy_uplink_wds_iface_scan_records(&uplinks);
    return why;
}

static const char *word(const json_t *object, const char *key)
{
    const char *text = json_string_value(json_object_get(object, key));
    return text ? text : "-";
}

int main(int argc, char **argv)
{
    const char *question = argc > 1 ? argv[1] : "crash";
    const crash_info crash = {.name = "meshd", .type = CRASH_CORE_DUMP};
    json_t *why = strcmp(question, "trace") == 0     ? trace_explain()
                  : strcmp(question, "gateway") == 0 ? why_gateway()
                  : strcmp(question, "parent") == 0  ? why_parent()
                                                     : crash_explain(&crash);
    if (!why) return 1;
    printf("%s: %s, because %s\n", word(why, "question"), word(why, "answer"), word(why, "reason"));

    size_t index;
    json_t *step;
    json_array_foreach(json_object_get(why, "steps"), index, step)
    {
        printf("  %-18s %-8s %s\n", word(step, "name"), word(step, "verdict"), word(step, "reason"));
    }
    json_decref(why); /* the caller's */
    return 0;
}
