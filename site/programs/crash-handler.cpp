// A device's crash handler, as small as it can be: reports a crashed process with its core file.
// usage: site-crash-handler NAME PID SIGNAL CORE     prints what send_crash returned
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>
#include <vela/telemetry/crash.h>

int main(int argc, char **argv)
{
    if (argc != 5) {
        fprintf(stderr, "usage: %s NAME PID SIGNAL CORE\n", argv[0]);
        return 2;
    }
    std::ifstream file(argv[4], std::ios::binary);
    std::vector<char> core{std::istreambuf_iterator<char>(file), {}};

    crash_info crash = {};
    crash.name = argv[1];
    crash.pid = atoi(argv[2]);
    crash.signal = atoi(argv[3]);
    crash.number_of_crashes = 1;
    crash.process_uptime = 42;
    crash.type = 0; // a core dump
    crash.data = reinterpret_cast<decltype(crash.data)>(core.data());
    crash.size = static_cast<uint32_t>(core.size());
    printf("%d\n", send_crash(&crash));
    return 0;
}
