// A daemon crashes; its core file reaches the crash-report service. Then everything that keeps a report back.
#include "scenes.h"
#include "site/collector.h"
#include "site/device.h"
#include "site/world.h"

#include <cstdlib>
#include <filesystem>
#include <jansson.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/settings.h>
#include <vela/telemetry/crash.h>

namespace
{

namespace fs = std::filesystem;

constexpr const char *core_directory = "/tmp/cores";
constexpr const char *programs = SITE_PROGRAMS_DIR;

struct crashed {
    pid_t pid = 0;
    int signal = 0;
    std::string core; // path
};

std::string host_of(const std::string &url) { return url.substr(url.find("//") + 2); }

// Where the kernel pipes cores to a collector of its own, the debugger writes the file instead.
void crash_under_debugger(const std::string &program, crashed &result)
{
    site::run("gdb -q -batch -ex run -ex 'generate-core-file core' -ex kill --args " + program +
              " /var/log/messages >/tmp/gdb.log 2>&1");
    result.signal = SIGSEGV;
    const std::string log = site::read_file("/tmp/gdb.log");
    const size_t at = log.find("process ");
    if (at != std::string::npos) result.pid = atoi(log.c_str() + at + 8);
}

crashed crash_a_daemon()
{
    fs::create_directories(core_directory);
    fs::current_path(core_directory);
    const std::string program = std::string(programs) + "/site-crasher";
    crashed result;
    const std::string pattern = site::read_file("/proc/sys/kernel/core_pattern");
    if (pattern.find_first_of("|/") != std::string::npos) {
        crash_under_debugger(program, result);
    } else {
        result.pid = fork();
        if (result.pid == 0) {
            const rlimit all = {RLIM_INFINITY, RLIM_INFINITY};
            setrlimit(RLIMIT_CORE, &all);
            execl(program.c_str(), "meshd", "/var/log/messages", nullptr);
            _exit(127);
        }
        int status = 0;
        waitpid(result.pid, &status, 0);
        if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    }
    for (const auto &entry : fs::directory_iterator(core_directory)) result.core = entry.path();
    fs::current_path("/");
    return result;
}

/// Runs the crash handler; what send_crash returned, and what the library logged meanwhile.
struct report {
    int result;
    std::string log;
};

report report_crash(const crashed &crash, const char *verbosity)
{
    const std::string command = std::string("LIBVELA_FACILITIES=stderr LIBVELA_VERBOSITY=") + verbosity + " " +
                                programs + "/site-crash-handler meshd " + std::to_string(crash.pid) + " " +
                                std::to_string(crash.signal) + " " + crash.core + " 2>/tmp/handler.log";
    const int result = atoi(site::output_of(command).c_str());
    return {result, site::read_file("/tmp/handler.log")};
}

std::string pretty(const std::string &body, bool whole_texts)
{
    json_t *document = json_loads(body.c_str(), 0, nullptr);
    if (!document) return "(no JSON)";
    if (!whole_texts) { // captured logs at full length would bury the rest
        const char *key = nullptr;
        json_t *value = nullptr;
        json_object_foreach(document, key, value)
        {
            const std::string text = json_is_string(value) ? json_string_value(value) : "";
            if (text.size() > 90) json_string_set(value, (text.substr(0, 80) + "...").c_str());
        }
    }
    char *dumped = json_dumps(document, JSON_INDENT(1));
    std::string text = dumped;
    free(dumped);
    json_decref(document);
    return text;
}

bool mentions_a_secret(const std::string &text)
{
    for (const char *secret : site::device_secrets) {
        if (text.find(secret) != std::string::npos) return true;
    }
    return false;
}

void tell_of_the_upload(site::story &story, site::collector &service, const crashed &crash)
{
    const report sent = report_crash(crash, "info");
    story.tell("the crash handler calls send_crash, which logs:");
    story.quote(sent.log);
    story.check(sent.result == 0, "send_crash returned %d", sent.result);

    const auto requests = service.requests();
    if (!story.check(requests.size() == 2, "the service saw %zu requests", requests.size())) return;
    story.tell("%s https://%s%s, over TLS that the library verified:", requests[0].method.c_str(),
               requests[0].host.c_str(), requests[0].path.c_str());
    story.quote(pretty(requests[0].body, false), 40);
    story.check(mentions_a_secret(site::read_file("/var/log/messages")) && !mentions_a_secret(requests[0].body),
                "the system log has secrets, the report has none");

    const std::string core = site::read_file(crash.core);
    story.tell("%s https://%s%s, %zu bytes", requests[1].method.c_str(), requests[1].host.c_str(),
               requests[1].path.c_str(), requests[1].body.size());
    story.check(requests[1].body == core && !core.empty(), "the uploaded dump is the core file, byte for byte");
}

/// What the library itself says of a report: the reason, and every step that led to it.
struct explanation {
    std::string reason, steps;
};

explanation explain(const crashed &crash)
{
    const crash_info info = {"meshd", crash.pid, crash.signal, 1, 42, CRASH_CORE_DUMP, "core", 4};
    json_t *why = crash_explain(&info);
    const auto word = [](const json_t *from, const char *key) {
        const char *value = json_string_value(json_object_get(from, key));
        return std::string(value ? value : "");
    };
    explanation result{word(why, "reason"), ""};
    size_t index = 0;
    json_t *step = nullptr;
    json_array_foreach(json_object_get(why, "steps"), index, step)
    {
        std::string line = word(step, "name");
        line.resize(16, ' ');
        result.steps += line + word(step, "verdict") + ", " + word(step, "reason") + "\n";
    }
    json_decref(why);
    return result;
}

/// One thing that holds a report back: nothing is sent and nothing is logged, but the library knows why.
void tell_of_a_hold(site::story &story, site::collector &service, const crashed &crash, const char *what,
                    const char *expected_reason)
{
    const report sent = report_crash(crash, "debug");
    const size_t requests = service.requests().size();
    story.tell("%s:", what);
    story.check(sent.result == 0 && requests == 0 && sent.log.empty(),
                "send_crash returned %d, the service saw %zu requests, nothing was logged", sent.result, requests);
    const explanation why = explain(crash);
    story.tell("velactl why crash, or crash_explain:");
    story.quote(why.steps);
    story.check(why.reason == expected_reason, "the reason is %s", why.reason.c_str());
}

/// One thing that lets a report fail.
void tell_of_a_failure(site::story &story, site::collector &service, const crashed &crash, const char *what,
                       size_t expected_requests, const char *expected_line)
{
    const report sent = report_crash(crash, "debug");
    const size_t requests = service.requests().size();
    story.tell("%s:", what);
    story.quote(sent.log);
    story.check(sent.result == -1 && requests == expected_requests && sent.log.find(expected_line) != std::string::npos,
                "send_crash returned %d, the service saw %zu request%s", sent.result, requests,
                requests == 1 ? "" : "s");
}

void tell_of_the_gates(site::story &story, site::collector &service, const crashed &crash, const std::string &name)
{
    story.scene("What keeps a report back");
    site::put_file("/var/run/system.analytics.mode", "0\n");
    tell_of_a_hold(story, service, crash, "analytics are off", "analytics_off");
    site::put_file("/var/run/system.analytics.mode", "2\n");

    site::remove_file("/var/run/ntp.ready");
    tell_of_a_hold(story, service, crash, "the clock is not set yet", "clock_not_set");
    site::put_file("/var/run/ntp.ready", "");

    service.on("/v1/crash", site::reply{500, "overloaded"});
    tell_of_a_failure(story, service, crash, "the service answers 500", 1, "failed: [500] overloaded");

    service.on("/v1/crash", site::reply{200, R"({"id": 7})"});
    tell_of_a_failure(story, service, crash, "the answer has no upload address", 1,
                      "Server did not return upload_url for core-dump");

    service.present(site::identity::untrusted_authority);
    tell_of_a_failure(story, service, crash, "the certificate is not trusted", 0,
                      ("POST 'https://" + name + "/v1/crash' failed: [60]").c_str());
    service.present(site::identity::trusted);
}

} // namespace

void tell_of_a_crash(site::story &story)
{
    story.scene("A crash report leaves the device");
    const std::string name = host_of(vela::settings::crash_url);
    site::collector service({.names = {name}});
    service.on("/v1/crash", site::reply{200, R"({"upload_url": "https://)" + name + R"(/dumps/4711?signature=abc"})"});
    service.on("/dumps/4711", site::reply{200, ""});
    site::put_file("/var/run/system.analytics.coredump", "1\n");

    const crashed crash = crash_a_daemon();
    const bool has_core = !crash.core.empty();
    story.check(has_core && crash.signal == SIGSEGV, "meshd[%d] died by signal %d and left %s (%zu bytes)", crash.pid,
                crash.signal, has_core ? crash.core.c_str() : "no core file",
                has_core ? static_cast<size_t>(fs::file_size(crash.core)) : 0);
    tell_of_the_upload(story, service, crash);
    tell_of_the_gates(story, service, crash, name);
}
