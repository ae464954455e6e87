/* A statistics document: counters, a time series, and reading them back. */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <vela/core/json.h>

int main(void)
{
    json_t *stats =
        json_loads("{\"model\": \"AP\", \"tx_power\": \"0x14\", \"dns\": [\"192.0.2.1\", \"192.0.2.2\"]}", 0, NULL);
    if (!stats) return 1;

    vela_grab_ts(); /* the series goes by this reading */
    vela_json_add_long(stats, "reboots", 1);
    if (vela_json_maybe_append_array(stats, "cpu", 37) != 0) fputs("too soon\n", stderr);
    json_object_set_new(stats, "oui", mac_str_to_oui_json_string("02:56:4C:00:00:01"));

    int32_t power_dbm = 0;
    if (vela_json_integer_value_from_obj(stats, "stats", "tx_power", 1, &power_dbm) == 0) return 1;
    char *servers = vela_json_array_to_csv(stats, "dns");
    printf("%s: %" PRId32 " dBm, name servers %s\n", vela_json_get_str(stats, "model", "?"), power_dbm,
           servers ? servers : "none");
    free(servers);

    int64_t *load;
    size_t count;
    if (vela_json_read_array(stats, "cpuArray", &load, &count) == 0) {
        printf("%zu values, the last %" PRId64 " %%\n", count, load[count - 1]);
        free(load);
    }
    json_dumpf(stats, stdout, JSON_INDENT(2));
    putchar('\n');
    json_decref(stats);
    return 0;
}
