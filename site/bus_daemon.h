// The system bus of a simulated site. A daemon that keeps to the protocol and complains when a client does not; and a
// peer that plays given bytes to a client, for everything that a real daemon would do only while it breaks. Each runs
// in a process of its own, so that it can be killed at any moment. What they send is put together here, byte by byte,
// by nothing the library uses.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace site
{

namespace bus
{

inline constexpr const char *default_path = "/var/run/ubus/ubus.sock";

enum message : uint8_t { hello, status, data, ping, lookup, invoke, add_object, remove_object, subscribe, unsubscribe };
enum attribute : uint8_t {
    a_status = 1,
    a_objpath,
    a_objid,
    a_method,
    a_objtype,
    a_signature,
    a_data,
    a_target,
    a_no_reply = 10,
    a_user = 12,
    a_group,
};
enum type : uint8_t { array = 1, table, string, int64, int32, int16, int8, float64 };

// Attributes with their padding. Run together they are the payload of a frame or of a nested one.
std::string attr(uint8_t id, std::string_view payload);
std::string attr(uint8_t id, uint32_t number);
std::string text(uint8_t id, std::string_view text); ///< with its NUL

/// A named value of a message.
std::string value(uint8_t type, std::string_view name, std::string_view payload);
std::string int32_value(std::string_view name, uint32_t number);
std::string int64_value(std::string_view name, uint64_t number);

std::string frame(uint8_t type, uint16_t seq, uint32_t peer, std::string_view body = {});

/// Bytes written as pairs of hexadecimal digits, with blanks where it reads better.
std::string bytes(std::string_view hex);

} // namespace bus

/// A process that serves a bus socket; killed and its socket file removed with the object.
class bus_process
{
public:
    bus_process(const bus_process &) = delete;
    bus_process &operator=(const bus_process &) = delete;

    void kill();  ///< with SIGKILL: its clients read an end of file, the socket file stays behind
    void pause(); ///< stops it as it stands; clients are accepted by the kernel only
    void resume();

    /// What the clients did wrong, in words; "" so far nothing.
    [[nodiscard]] std::string complaint() const;

protected:
    struct record; // shared with the process

    explicit bus_process(std::string path);
    ~bus_process();
    void serve(const std::function<void(int listener)> &body); ///< in a new process, listening before this returns

    std::string path_;
    record *record_;

private:
    pid_t pid_ = -1;
};

/// What the daemon does for an object: it sends an event to all, or a notification to those subscribed to the object,
/// or makes the object go away or appear (again).
struct bus_action {
    enum { event, notify, remove, add } what;
    std::string object;
    std::string name = {};
    std::string values = {};
};

/// What a method gives back: actions that come first, then values in any number of parts and a status; or nothing.
struct bus_reply {
    std::optional<uint32_t> status = 0;
    std::vector<std::string> parts = {};
    std::vector<bus_action> before = {};
};

/// Takes the values of a call. Runs in the daemon's process.
using bus_method = std::function<bus_reply(std::string_view values)>;

class bus_daemon : public bus_process
{
public:
    explicit bus_daemon(std::string path = bus::default_path);

    /// An object with its methods; before start(). One that is hidden appears by an action.
    void offer(std::string name, std::map<std::string, bus_method> methods, bool hidden = false);

    /// Starts it, or another in its place: with new ids, remembering nothing.
    void start();

    // Counted over all its lives.
    [[nodiscard]] unsigned connections() const;
    [[nodiscard]] unsigned requests() const;

    struct offered {
        std::map<std::string, bus_method> methods;
        bool hidden;
    };

private:
    std::map<std::string, offered> objects_;
};

/// A peer that serves one connection after another by the same script, and goes on to the next when the script ends.
class bus_script : public bus_process
{
public:
    struct step {
        enum { send, crumbs, expect, hang, die } what;
        std::string bytes; ///< crumbs: sent one at a time; expect: awaited, a difference is a complaint
    };
    using action = decltype(step::what);

    bus_script(std::string path, std::vector<step> steps);
};

/// What a peer says and what it awaits, by turns, and what it does then.
std::vector<bus_script::step> talk(std::vector<std::string> turns, bus_script::action then = bus_script::step::hang,
                                   bus_script::action say = bus_script::step::send);

} // namespace site
