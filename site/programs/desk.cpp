// ./dev site: a shell, or one command, on a simulated access point with its daemons, its services and a neighbour.
#include "site/bus_daemon.h"
#include "site/collector.h"
#include "site/device.h"
#include "site/mgrd.h"
#include "site/wire.h"
#include "site/world.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vela/core/log.h>
#include <vela/discovery/protocol.h>
#include <vela/settings.h>

namespace
{

using namespace std::chrono_literals;

constexpr const char *received_path = "/var/log/collector.log";
constexpr const char *neighbour_ready = "/run/.world/neighbour";

std::string host_of(const std::string &url) { return url.substr(url.find("//") + 2); }

/// The services outside the device; what they receive goes to a file.
class services
{
public:
    services()
        : crash_(host_of(vela::settings::crash_url)), trace_(host_of(vela::settings::trace_url)),
          collector_({.names = {crash_, trace_}, .unlisted = {}, .addresses = {"127.0.0.1"}})
    {
        const std::string upload = R"({"upload_url": "https://)" + crash_ + R"(/dumps/1"})";
        for (const char *path : {"/v1/crash", "/v1/kernel_crash"}) collector_.on(path, site::reply{200, upload});
        collector_.on("/dumps/1", site::reply{200, ""});
        collector_.on(trace_, site::reply{200, "{}"});
        site::put_file(received_path, "");
        recorder_ = std::thread([this] { record(); });
    }
    services(const services &) = delete;
    services &operator=(const services &) = delete;
    ~services()
    {
        over_ = true;
        recorder_.join();
    }

private:
    void record()
    {
        std::ofstream log(received_path, std::ios::app);
        while (!over_) {
            for (const auto &r : collector_.requests()) {
                const bool is_text = r.body.find('\0') == std::string::npos;
                log << r.method << " https://" << r.host << r.path << " (" << r.body.size() << " bytes)\n";
                if (is_text && !r.body.empty()) log << "    " << r.body << '\n';
            }
            log.flush();
            std::this_thread::sleep_for(100ms);
        }
    }

    std::string crash_, trace_;
    site::collector collector_;
    std::atomic<bool> over_ = false;
    std::thread recorder_;
};

/// The neighbour: another access point of the site on the wire, which announces itself every two seconds.
void announce()
{
    libvela_log_level = 0; // the terminal is the user's
    site::put_file("/var/run/ipready.br0", std::string(site::second_device::own_address) + "\n");
    if (vela_protocol_init(1) != 0) _exit(1);
    vela_protocol_ctrl.device_id[5] = 0x77; // another serial number than ours
    site::put_file(neighbour_ready, "");
    const std::string text = "attic access point, channel 36";
    for (uint16_t sequence = 1;; ++sequence) {
        vela_protocol_ctrl.tx_seq = sequence;
        vela_protocol_send(text.data(), static_cast<uint32_t>(text.size()), 1, 1, 1);
        std::this_thread::sleep_for(2s);
    }
}

void lay_out_discovery(const site::device_facts &facts, site::second_device &attic)
{
    site::put_file("/var/run/vela_protocol.info",
                   "corvo.key=" + facts.site_key + "\ncorvo.mcip=" + facts.site_group + "\n");
    attic.go();
    for (int i = 0; i < 500 && !site::exists(neighbour_ready); ++i) std::this_thread::sleep_for(10ms);
    site::put_file("/var/run/ipready.br0", std::string(site::second_device::our_address) + "\n");
    site::run(std::string("ip route add default via ") + site::second_device::own_address);
}

site::mgrd_answer manage(const std::string &request)
{
    if (request.find("\"status\"") != std::string::npos) {
        return site::json_answer(R"({"state": "connected", "stations": 7})");
    }
    return site::json_answer(R"({"rc": "unknown operation"})");
}

void greet()
{
    printf("A simulated access point: its files, its daemons and its network are its own; \"exit\" ends it.\n"
           "  velactl status, velactl board     who it is\n"
           "  velactl lldp, velactl gateway     what is around it\n"
           "  velactl op status                 its management daemon answers\n"
           "  velactl crash app-crash meshd 733 11; cat %s\n"
           "                                    a crash report, and what the service received\n"
           "  rm /var/run/ntp.ready             a clock that is not set keeps reports back\n"
           "  velactl help                      the rest\n\n",
           received_path);
}

/// Runs the shell, or a command in one, as this terminal's own.
int run_shell(int count, char **words)
{
    fflush(stdout);
    const pid_t shell = fork();
    if (shell == 0) {
        setenv("PS1", "[simulated \\h] \\w # ", 1);
        setenv("PATH", (SITE_TOOLS_DIR ":" + std::string(getenv("PATH"))).c_str(), 1);
        if (count == 0) execlp("bash", "bash", "--norc", "-i", nullptr);
        if (count == 1) execlp("sh", "sh", "-c", words[0], nullptr);
        execvp(words[0], words);
        fprintf(stderr, "%s: %s\n", count ? words[0] : "bash", strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(shell, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int main(int argc, char **argv)
{
    site::enter_world();
    const site::device_facts facts;
    site::lay_out_device(facts);
    site::second_device attic(announce);
    lay_out_discovery(facts, attic);

    site::bus_daemon bus;
    bus.offer("mgragent", {{"stats", [](std::string_view) { return site::bus_reply{}; }}});
    bus.start();
    int status = 0;
    {
        const services outside;
        const site::mgrd manager(manage);
        if (argc == 1) greet();
        status = run_shell(argc - 1, argv + 1);
    }
    fflush(stdout);
    _exit(status); // the world ends with this process, and the neighbour with the world
}
