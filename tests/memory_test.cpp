// Every family short of memory: each allocation that a call makes is refused in turn. A family's calls are rows here.
#include "site/device.h"
#include "site/mgrd.h"
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"

#include <vela/board/board.h>
#include <vela/config/cfg.h>
#include <vela/config/xkv.h>
#include <vela/core/file.h>
#include <vela/core/internal/buffer.h>
#include <vela/core/json.h>
#include <vela/core/log.h>
#include <vela/core/util.h>
#include <vela/exec/exec.h>
#include <vela/ipc/ctrl-proto.h>
#include <vela/net/bridge.h>
#include <vela/net/curl_simple.h>
#include <vela/net/netif.h>
#include <vela/net/url.h>
#include <vela/services/lldp.h>
#include <vela/services/webrtc.h>
#include <vela/telemetry/crash.h>
#include <vela/telemetry/trace.h>
#include <vela/wireless/mld.h>
#include <vela/wireless/scan.h>

namespace
{

using vela::json_ref;
template <auto Release> using owner = vela::releaser<Release>;

/// What a call does when one of its allocations is refused.
enum class then {
    fails, // says so, whichever it is
    ends,  // the process with status 1
    varies // either, or goes on with less
};

struct row {
    const char *name;
    then expected;
    const char *told;           // on standard error, somewhere; a regular expression
    std::function<bool()> call; // whether it did all; it gives back what it made
    std::function<void()> prepare = [] {};
    bool in_threads = false; // libcurl's, which free what another allocated: blocks left are not counted
};

bool text(char *made) { return vela::c_string{made} != nullptr; }
bool document(json_t *made) { return json_ref{made} != nullptr; }

/// Under a name that is not there yet, and is not afterwards.
template <class Set> bool member(Set set)
{
    static json_t *const object = json_object();
    const bool done = set(object, "new") == 0;
    json_object_del(object, "new");
    return done;
}

constexpr const char *config_path = "/tmp/any.cfg";

void lay_out_config() { site::put_file(config_path, "# misc\na=$\n"); }

bool use_config()
{
    static FILE *const stream = fopen(config_path, "re");
    rewind(stream);
    const std::unique_ptr<cfg_entry, owner<free_cfg>> all{parse_stream(stream)};
    esc_value(all.get());
    const std::unique_ptr<cfg_entry, owner<free_cfg_it>> difference{get_cfg_diff_it(nullptr, all.get())};
    return difference != nullptr;
}

template <class Use> bool used_buffer(Use use)
{
    const vela::buffer_ptr b{buffer_create2(4)};
    return b && b->append(b.get(), "full", 4) == 4 && use(b.get());
}

bool read_array()
{
    static const json_ref object = parsed(R"({"a": [1, 2]})");
    int64_t *values = nullptr;
    size_t count = 0;
    const bool done = vela_json_read_array(object.get(), "a", &values, &count) == 0;
    free(values);
    return done;
}

bool join_array()
{
    static const json_ref object = parsed(R"({"a": ["b", "c"]})");
    return text(vela_json_array_to_csv(object.get(), "a"));
}

bool copy_command()
{
    static exec_record *const source = exec_create("/bin/true", "a", "b", NULL);
    return std::unique_ptr<exec_record, owner<exec_destroy>>{exec_copy(source)} != nullptr;
}

bool build_message()
{
    return std::unique_ptr<ctrl_msg, owner<ctrl_msg_destroy>>{ctrl_msg_build("/tmp/there", 1, "x", 1)} != nullptr;
}

void start_daemon()
{
    static site::mgrd daemon{[](const std::string &) { return site::json_answer("[7]"); }};
}

bool ask_daemon()
{
    constexpr timeval limit = {2, 0};
    return document(service_simple_op("status", &limit));
}

using url_ptr = std::unique_ptr<url, owner<url_destroy>>;

bool copy_url()
{
    const url_ptr source{url_parse("http://u@host:81/p")};
    return source && url_ptr{url_copy(source.get())};
}

bool make_response()
{
    return std::unique_ptr<curl_simple_response, owner<curl_simple_response_free>>{curl_simple_response_init(9)} !=
           nullptr;
}

// Nobody listens: a server of ours would be a thread, which no child of ours has.

void lay_out_device() { site::lay_out_device(); }

bool report_crash()
{
    static const crash_info crash = {"meshd", 733, 11, 3, 86400, CRASH_MINIDUMP, nullptr, 0};
    return send_crash(&crash) == -1;
}

bool tell_trace()
{
    static const json_ref trace = parsed(R"({"type": "t"})");
    return send_trace_with_meta(trace.get(), nullptr) != 0;
}

bool ask_for_offer()
{
    static const sdp_request request = {};
    webrtc_inform offer = {};
    return get_next_sdp_offer("s", &request, &offer) == -1;
}

bool add_to_list()
{
    static const scan_result heard = {};
    const std::unique_ptr<scan_list, owner<free_scanlist>> list{get_scanlist("lo")};
    if (list) add_scan_entry(&heard, list.get());
    return list != nullptr;
}

bool note_mld()
{
    const bool done = add_if_mld_unique("mld0") == 1;
    reset_seen_mlds();
    return done;
}

void PrintTo(const row &r, std::ostream *out) { *out << r.name; }

const row rows[] = {
    {"malloc_printf", then::fails, "", [] { return text(malloc_printf("%d", 1)); }},
    {"vl_recursive_mkdir", then::ends, "^util:1399: Out of memory\n$",
     [] { return vl_recursive_mkdir("/tmp/a/b", 0700) == 0; }},
    {"load_file_base64", then::ends, "^util:674: Out of memory\n$",
     [] {
         static FILE *const file = fopen("/etc/hosts", "re");
         return text(load_file_base64(file));
     }},
    {"buffer_append", then::fails, "", [] { return used_buffer([](buffer *b) { return b->append(b, "x", 1) == 1; }); }},
    {"buffer_printf", then::fails, "",
     [] { return used_buffer([](buffer *b) { return (b->printf)(b, "%d", 1) == 1; }); }},
    {"buffer_append_zeroed", then::fails, "",
     [] { return used_buffer([](buffer *b) { return b->append_zeroed(b, 1) != nullptr; }); }},
    {"buffer_clone", then::fails, "",
     [] { return used_buffer([](buffer *b) { return vela::buffer_ptr{b->clone(b)} != nullptr; }); }},
    {"vela_json_read_array", then::fails, "Failed to allocate memory", read_array},
    {"vela_json_array_to_csv", then::fails, "", join_array},
    {"vela_json_append_array", then::fails, "",
     [] { return member([](json_t *o, const char *key) { return vela_json_append_array(o, key, 1); }); }},
    {"vela_json_add_i64", then::fails, "",
     [] { return member([](json_t *o, const char *key) { return vela_json_add_i64(o, key, 1); }); }},
    {"mac_str_to_oui_json_string", then::fails, "", [] { return document(mac_str_to_oui_json_string("2:0:5e")); }},
    {"cfg", then::ends, "^cfg:[0-9]+: Out of memory\n$", use_config, lay_out_config},
    {"xkv_file_to_buff", then::ends, "^xkv:(78|89): Out of memory\n$",
     [] { return text(xkv_file_to_buff(config_path)); }, lay_out_config},
    {"exec_copy", then::varies, "", copy_command},
    {"popen_alloc_output", then::varies, "", [] { return text(popen_alloc_output("printf '%5000s' ''", 5001)); }},
    {"json_object_capture_popen", then::varies, "",
     [] { return member([](json_t *o, const char *key) { return json_object_capture_popen(o, key, "true"); }); }},
    {"get_board", then::varies, "", [] { return vela::heap<board_record>{get_board()} != nullptr; }, lay_out_device},
    {"prepare_accelerometer_status", then::fails, "", [] { return document(prepare_accelerometer_status()); }},
    {"ctrl_msg_build", then::ends, "^ctrl-proto:[0-9]+: Out of memory\n$", build_message},
    {"service_simple_op", then::varies, "", ask_daemon, start_daemon},
    {"url_copy", then::fails, "", copy_url},
    {"url_encode", then::fails, "", [] { return text(url_encode("x")); }},
    {"curl_simple_response_init", then::fails, "", make_response},
    {"vela_netif_json", then::varies, "", [] { return document(vela_netif_json(nullptr)); }},
    {"send_crash", then::varies, "", report_crash, lay_out_device, true},
    {"send_trace_with_meta", then::varies, "", tell_trace, lay_out_device, true},
    {"vela_get_lldp_json", then::varies, "", [] { return document(vela_get_lldp_json()); },
     [] { site::put_program("/usr/local/bin/lldpcli", R"(echo '{"lldp":{"interface":{"eth0":{"chassis":{}}}}}')"); }},
    {"get_next_sdp_offer", then::varies, "", ask_for_offer},
    {"get_scanlist", then::varies, "", add_to_list},
    {"add_if_mld_unique", then::varies, "", note_mld},
};
constexpr int most_refused = 60; // of one call: those that use libcurl make thousands

enum status { whole, ended, failed, something_left };

class Memory : public testing::TestWithParam<row>
{
};

} // namespace

TEST_P(Memory, EachAllocationMayBeRefused)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    const auto &[name, expected, told, call, prepare, in_threads] = GetParam();
    prepare();
    libvela_log_env_ready = libvela_log_use_stderr = 1;
    libvela_log_use_syslog = libvela_log_use_kmsg = 0;
    libvela_log_level = 1U << LIBVELA_LOG_ERROR;
    bool done = false;
    const auto run = [&] { done = call(); };
    run(); // makes what is kept
    const auto undisturbed = faults::count_allocations(run);
    EXPECT_TRUE(done);
    EXPECT_NE(0, undisturbed.made);

    for (int n = 0; n < std::min(undisturbed.made, most_refused); ++n) {
        const auto run_without = [&] { faults::refuse_memory{n}, run(); };
        const auto run_twice = [&] {
            const leak_check leaks;
            run_without(); // makes what is kept then
            const auto disturbed = faults::count_allocations(run_without);
            leaks.expect_unchanged();
            if (!in_threads) EXPECT_LE(disturbed.left, undisturbed.left) << "blocks";
            _exit(HasFailure() ? something_left : done ? whole : failed);
        };
        const auto as_expected = [expected](int result) {
            if (!WIFEXITED(result) || WEXITSTATUS(result) == something_left) return false;
            if (expected == then::varies) return true;
            return WEXITSTATUS(result) == (expected == then::ends ? ended : failed);
        };
        EXPECT_EXIT(run_twice(), as_expected, told) << "allocation " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(Families, Memory, testing::ValuesIn(rows),
                         [](const auto &one) { return std::string(one.param.name); });
