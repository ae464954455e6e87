// The LLDP report: the daemon's client is run, and its JSON reduced to one small object per neighbour.
//
// The client prints an object where there is one of a thing and an array where there are several, at every level.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <span>
#include <sys/wait.h>
#include <vela/board/board.h>
#include <vela/board/model.h>
#include <vela/core/internal/json.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/numbers.h>
#include <vela/core/internal/own.h>
#include <vela/core/internal/text.h>
#include <vela/core/internal/wait.h>
#include <vela/core/json.h>
#include <vela/core/util.h>
#include <vela/net/bridge.h>
#include <vela/services/internal/lldp.h>
#include <vela/services/lldp.h>

namespace
{

constexpr const char *log_module = "lldp";
constexpr const char *step = "vela_get_lldp_json";

constexpr const char *const command[]{"lldpcli", "-f", "json", "show", "neigh", nullptr};
constexpr size_t output_size = 16384;
constexpr int silence_ms = 2000;
constexpr int64_t slow_s = 3;
constexpr int quiet_after = 5; // "no neighbours" is said so often in a row

constexpr const char *no_chassis_id = "00:00:00:00:00:00";
constexpr int no_port = -1;

enum failure {
    cannot_run = -1,
    no_memory = -2,
    no_array = -4,
    no_json = -5,
    no_lldp = -6,
    no_object = -8,
    poll_failed = -1000
};

/// Answers without a neighbour in a row; reset by one with neighbours.
constinit int empty_answers = 0;

void log_failure(int code) { log_error_as(step, "wireless/lldp error %d", code); }

/// The running client: its output, and its process group, which is killed unless the client was waited for.
class client
{
public:
    client() = default;
    client(const client &) = delete;
    client &operator=(const client &) = delete;
    ~client()
    {
        if (pid_ > 0) kill_group();
    }

    bool start()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) < 0) return false;
        output_.reset(ends[0]);
        const vela::unique_fd input{ends[1]};
        pid_ = fork();
        if (pid_ == 0) {
            (void)setpgid(0, 0);
            // Our own standard output may be closed and the pipe have its number: then dup2 keeps close-on-exec.
            if (dup2(input.get(), STDOUT_FILENO) >= 0 && fcntl(STDOUT_FILENO, F_SETFD, 0) == 0)
                execvp(command[0], const_cast<char *const *>(command));
            _exit(127);
        }
        if (pid_ > 0) (void)setpgid(pid_, pid_); // whoever comes first
        return pid_ > 0;
    }
    [[nodiscard]] int output() const { return output_.get(); }

    /// Waits until the client has ended.
    void finish()
    {
        while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {}
        pid_ = -1;
    }

private:
    // Killed before it is reaped: until then nobody else can get its number. What it left running goes too.
    void kill_group()
    {
        (void)kill(-pid_, SIGKILL);
        finish();
    }

    vela::unique_fd output_;
    pid_t pid_ = -1;
};

/// Reads until the client hangs up. What does not fit is read and dropped. 0, or what to log; 1 for a time-out.
int read_all(const client &running, std::span<char> text)
{
    size_t used = 0;
    for (;;) {
        const auto until = vela::deadline::after_ms(silence_ms);
        const auto ready = vela::wait_through_signals(running.output(), POLLIN, until);
        if (ready == vela::wait_result::timeout) return 1;
        if (ready == vela::wait_result::failed) return poll_failed - errno;
        char dropped[512];
        const bool room = used < text.size() - 1;
        const ssize_t n = room ? read(running.output(), text.data() + used, text.size() - 1 - used)
                               : read(running.output(), dropped, sizeof dropped);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            text[used] = '\0';
            return 0;
        }
        if (room) used += static_cast<size_t>(n);
    }
}

/// The client's output, or null after logging why.
vela::c_string client_output()
{
    const auto start_ns = vela::monotonic_ns();
    client running;
    if (!running.start()) {
        log_failure(cannot_run);
        return nullptr;
    }
    vela::c_string text{static_cast<char *>(malloc(output_size))};
    if (!text) {
        log_failure(no_memory);
        return nullptr;
    }
    const int result = read_all(running, {text.get(), output_size});
    if (result == 1) log_info_as(step, "Poll timeout");
    if (result < 0) log_failure(result);
    if (result != 0) return nullptr;
    running.finish();
    const auto end_ns = vela::monotonic_ns();
    const int64_t seconds = start_ns && end_ns ? (*end_ns - *start_ns) / 1'000'000'000 : 0;
    if (seconds >= slow_s) log_error_as(step, "Warning: lldpcli took %ld seconds!", static_cast<long>(seconds));
    return text;
}

bool is_wired(const char *port) { return vela::starts_with(port, "eth") || vela::starts_with(port, "bond"); }

/// "eth0" is port 1, "bond1" is port 2.
int port_number(const char *port)
{
    const size_t prefix = vela::starts_with(port, "bond") ? 4 : 3;
    return static_cast<int>(std::clamp<long>(strtol(port + prefix, nullptr, 10), INT_MIN, INT_MAX - 1) + 1);
}

bool is_named(const char *port, const phy_port &p) { return p.name && *p.name && vela::starts_with(port, p.name); }

/// The port id that the board's groups give a name.
const phy_port *find_port(const board_record &board, const char *port)
{
    for (const phy_group &group : vela::counted(board.phy_groups, board.phy_group_count)) {
        if (group.kind == PHY_GROUP_SINGLE && group.port_count != 1) break; // on purpose, whatever follows
        if (group.kind != PHY_GROUP_SINGLE && group.kind != PHY_GROUP_MULTI) continue;
        for (const phy_port &p : vela::counted(group.ports, group.port_count)) {
            if (is_named(port, p)) return &p;
        }
    }
    return nullptr;
}

int port_id(const board_record &board, const char *port, int fallback)
{
    if (const phy_port *found = find_port(board, port)) return found->port_id;
    return is_orb6_wallplate() && vela::starts_with(port, "eth0") ? 5 : fallback;
}

int local_port_id(const char *port, bool has_chassis_id, const char *neighbour_port_id)
{
    const board_record &board = *board_identify();
    const int number = port_number(port);

    int candidate = has_chassis_id ? port_id(board, port, number) : no_port;
    const bool is_address = neighbour_port_id && strchr(neighbour_port_id, ':');
    if (candidate < 0 && is_address && is_hbx_switch()) candidate = port_id(board, port, number);
    if (candidate < 0) candidate = number;
    return port_id(board, port, candidate);
}

/// Calls with the value when it is an object, or with each object of an array.
template <class Call> void each_object(json_t *value, Call call)
{
    if (json_is_object(value)) call(value);
    for (size_t i = 0; i < json_array_size(value); ++i) {
        if (json_is_object(json_array_get(value, i))) call(json_array_get(value, i));
    }
}

/// Shares a member under another name, where there is one.
void share(json_t *to, const char *key, json_t *value)
{
    if (value) (void)json_object_set(to, key, value); // short of memory, the member is missing
}

json_t *id_value(json_t *holder)
{
    json_t *value = nullptr;
    each_object(json_object_get(holder, "id"), [&value](json_t *id) { value = json_object_get(id, "value"); });
    return value;
}

void describe_chassis(json_t *neighbour, json_t *chassis)
{
    (void)json_object_set_new(neighbour, "chassis_id", json_string(no_chassis_id));
    each_object(chassis, [neighbour](json_t *named) {
        const char *name = nullptr;
        json_t *one = nullptr;
        json_object_foreach(named, name, one)
        {
            share(neighbour, "chassis_id", id_value(one));
            share(neighbour, "chassis_descr", json_object_get(one, "descr"));
        }
    });
}

bool has_chassis_id(json_t *chassis)
{
    bool found = false;
    each_object(chassis, [&found](json_t *named) {
        const char *name = nullptr;
        json_t *one = nullptr;
        json_object_foreach(named, name, one) { found |= id_value(one) != nullptr; }
    });
    return found;
}

/// One neighbour of a local port; null without memory.
json_t *neighbour_object(const char *port, json_t *heard)
{
    vela::json_ref neighbour{json_object()};
    if (!neighbour) return nullptr;
    json_t *chassis = json_object_get(heard, "chassis");
    (void)json_object_set_new(neighbour.get(), "local_port_name", json_string(port));
    (void)json_object_set_new(neighbour.get(), "is_wired", json_boolean(is_wired(port)));
    describe_chassis(neighbour.get(), chassis);
    each_object(json_object_get(heard, "port"), [&neighbour](json_t *far) {
        share(neighbour.get(), "port_id", id_value(far));
        share(neighbour.get(), "port_descr", json_object_get(far, "descr"));
    });
    if (is_wired(port)) {
        const char *far_id = json_string_value(json_object_get(neighbour.get(), "port_id"));
        const int id = local_port_id(port, has_chassis_id(chassis), far_id);
        (void)json_object_set_new(neighbour.get(), "local_port_idx", json_integer(id));
    }
    return neighbour.release();
}

/// Appends the neighbours of all ports; false when short of memory.
bool append_neighbours(json_t *result, json_t *interfaces)
{
    bool complete = true;
    each_object(interfaces, [&](json_t *ports) {
        const char *port = nullptr;
        json_t *heard = nullptr;
        json_object_foreach(ports, port, heard)
        {
            each_object(heard, [&](json_t *one) {
                if (!complete || !json_object_get(one, "chassis")) return;
                json_t *neighbour = neighbour_object(port, one);
                complete = neighbour && json_array_append_new(result, neighbour) == 0;
            });
        }
    });
    return complete;
}

void copy_description(char *out, int size, const char *description)
{
    if (!out || size <= 0) return;
    const std::string_view text = description;
    vela::copy_text(out, static_cast<size_t>(size), vela::first(text, text.find(',')));
}

void copy_oui(char *out, size_t size, const char *chassis_id)
{
    uint8_t id[6];
    if (!out || size <= 6 || strtomac(chassis_id, id) != 0) return;
    (void)snprintf(out, size, "%02x%02x%02x", id[0], id[1], id[2]); // seven bytes fit
}

void clear(char *out, size_t size)
{
    if (out) vela::copy_text(out, size, "");
}

} // namespace

json_t *vela::lldp_neighbours(const char *text)
{
    json_ref result{json_array()};
    if (!result) {
        log_failure(no_array);
        return nullptr;
    }
    const json_ref document{json_loads(text, 0, nullptr)};
    json_t *lldp = json_object_get(document.get(), "lldp");
    if (!document || !lldp) {
        log_failure(document ? no_lldp : no_json);
        return result.release();
    }
    json_t *interfaces = json_object_get(lldp, "interface");
    if (!interfaces) {
        if (empty_answers < quiet_after) {
            ++empty_answers;
            log_info_as(step, "No LLDP neighbors found");
        }
        return result.release();
    }
    empty_answers = 0;
    if (!append_neighbours(result.get(), interfaces)) log_failure(no_object);
    return result.release();
}

json_t *vela_get_lldp_json(void)
{
    const vela::c_string text = client_output();
    return text ? vela::lldp_neighbours(text.get()) : nullptr;
}

int vela_get_lldp_report(char *main_descr, int main_descr_len, char *oui, size_t oui_len, bool *uplink_flag,
                         char *uplink_descr, int uplink_descr_len)
{
    const phy_port *main = get_main_phy();
    clear(main_descr, static_cast<size_t>(std::max(main_descr_len, 0)));
    clear(oui, oui_len);
    clear(uplink_descr, static_cast<size_t>(std::max(uplink_descr_len, 0)));
    if (uplink_flag) *uplink_flag = false;

    char uplink[16];
    if (get_uplink_device(uplink, sizeof uplink) != 0) return -1;
    const bool other_uplink = !is_wired(uplink);
    if (uplink_flag) *uplink_flag = other_uplink;

    const vela::json_ref neighbours{vela_get_lldp_json()};
    if (!neighbours) return -ENOENT;
    for (size_t i = 0; i < json_array_size(neighbours.get()); ++i) {
        json_t *n = json_array_get(neighbours.get(), i);
        const char *description = vela_json_get_str(n, "chassis_descr", "");
        if (main && vela_json_read_long(n, "local_port_idx", no_port) == main->port_id) {
            copy_oui(oui, oui_len, vela_json_get_str(n, "chassis_id", ""));
            copy_description(main_descr, main_descr_len, description);
        } else if (other_uplink && vela::view(vela_json_get_str(n, "local_port_name", "")) == uplink) {
            copy_description(uplink_descr, uplink_descr_len, description);
        }
    }
    return 0;
}
