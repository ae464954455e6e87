/* A report writer: facts about the device, gathered while no other process writes its report. */
#include <stdio.h>
#include <vela/board/model.h>
#include <vela/board/status.h>

int main(void)
{
    static const char *const stages[] = {"production", "staging", "development"};
    const char *version;
    char uptime[32], now[32];
    const int error = get_version(&version);

    if (report_lock() != 0) return 1; /* waits up to eleven seconds for another writer */
    if (error) fprintf(stderr, "no firmware version (error %d)\n", error);
    uptime2str(get_uptime_from_sysinfo(), uptime, sizeof uptime);
    if (get_system_time_str(now, sizeof now) != 0) now[0] = '\0';
    printf("%s: version %s, up %s, %s%s\n", now, version, uptime, stages[get_brix_env_limit_prod(NULL)],
           is_6ghz_supported() ? ", 6 GHz" : "");
    report_unlock();
    return 0;
}
