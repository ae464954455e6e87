// A daemon with a bug: says what it does in the system log, then writes through a null pointer.
// usage: site-crasher LOGFILE
#include <cstdio>
#include <unistd.h>

namespace
{

struct uplink {
    int volatile state;
};

[[gnu::noinline]] void update(uplink *chosen) { chosen->state = 1; }

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) return 2;
    if (FILE *log = fopen(argv[1], "a")) {
        fprintf(log, "Oct  3 07:42:00 vela-ap daemon.info meshd[%d]: joining with password=s3cr3t-admin\n", getpid());
        fprintf(log, "Oct  3 07:42:01 vela-ap daemon.err meshd[%d]: no uplink chosen\n", getpid());
        fclose(log);
    }
    uplink *volatile none = nullptr;
    update(none);
    return 0;
}
