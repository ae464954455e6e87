// Daemons on the device and services outside it.
#include "command.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <unistd.h>
#include <vela/ipc/ctrl-proto.h>
#include <vela/telemetry/crash.h>
#include <vela/telemetry/trace.h>

namespace velactl
{
namespace
{

constexpr int patience_s = 5;

json op(arguments given)
{
    const timeval timeout = {patience_s, 0};
    const auto start = std::chrono::steady_clock::now();
    errno = 0;
    json reply{service_simple_op(given[0], &timeout)};
    if (reply) return reply;
    const int reason = errno;
    if (access("/tmp/.mgrd", F_OK) != 0)
        throw trouble(status::unavailable, "the management daemon is not running", reason);
    if (std::chrono::steady_clock::now() - start >= std::chrono::seconds(patience_s)) {
        throw trouble(status::late, "the management daemon gave no answer in " + std::to_string(patience_s) + " s");
    }
    throw trouble(status::failed, "the management daemon gave no answer to this; velactl -v op ... says why", reason);
}

std::string read_dump(const char *path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream dump;
    if (file && file.peek() != std::ifstream::traits_type::eof()) dump << file.rdbuf();
    if (!file.is_open() || file.bad() || dump.bad()) throw trouble(status::misused, std::string("cannot read ") + path);
    std::string content = std::move(dump).str();
    if (content.size() > UINT32_MAX) throw trouble(status::misused, std::string(path) + " is 4 GiB or more");
    return content;
}

uint32_t crash_kind(const std::string &name)
{
    const auto *const found = std::find(std::begin(crash_type_strs), std::end(crash_type_strs), name);
    if (found != std::end(crash_type_strs)) return static_cast<uint32_t>(found - crash_type_strs);
    std::string known;
    for (const char *kind : crash_type_strs) known += std::string(" ") + kind;
    throw trouble(status::misused, "unknown kind \"" + name + "\"; known are" + known);
}

json crash(arguments given)
{
    crash_info info = {};
    info.type = crash_kind(given[0]);
    info.name = given[1];
    info.pid = static_cast<int32_t>(number(given[2], "PID", 0, INT32_MAX));
    info.signal = static_cast<int32_t>(number(given[3], "SIGNAL", 0, 64));
    info.number_of_crashes = 1;
    std::string dump;
    if (given.size() > 4) dump = read_dump(given[4]);
    info.data = dump.data();
    info.size = static_cast<uint32_t>(dump.size());
    if (const std::string held = held_back(crash_explain(&info)); !held.empty())
        throw trouble(status::failed, "held back: " + held + "; velactl why crash tells all of it");
    if (send_crash(&info) != 0)
        throw trouble(status::failed, "the report was not accepted; velactl -v crash ... says why");
    return nullptr;
}

json trace(arguments given)
{
    json_error_t error;
    json_t *payload = json_loads(given[2], 0, &error);
    if (!json_is_object(payload)) {
        json_decref(payload);
        throw trouble(status::misused,
                      std::string("PAYLOAD must be a JSON object") + (*error.text ? ": " : "") + error.text);
    }
    static const char *const outcomes[] = {"accepted",
                                           "the service was not reached, or refused; velactl -v trace ... says why",
                                           "too early after a failure", "given up", "analytics are off"};
    const int result = send_trace_simple(given[0], given[1], payload);
    if (result != 0) {
        throw trouble(status::failed,
                      std::string("not sent: ") + (result > 0 && result < 5 ? outcomes[result] : "no envelope"));
    }
    return nullptr;
}

constexpr command commands[] = {
    {"op", "NAME", "ask the management daemon", 1, 1, op, answer::any, {}, {}, "Its answer is shown as it is."},
    {"crash",
     "KIND NAME PID SIGNAL [DUMP]",
     "send a crash report, if any may be sent",
     4,
     5,
     crash,
     answer::nothing,
     {},
     {},
     "KIND is core-dump, app-crash, oom-kill, ram-dump or minidump."},
    {"trace",
     "NAMESPACE TYPE PAYLOAD",
     "send one telemetry trace",
     3,
     3,
     trace,
     answer::nothing,
     {},
     {},
     "PAYLOAD is a JSON object."},
};

} // namespace

const std::span<const command> service_commands{commands};

} // namespace velactl
