#include "site/bus_daemon.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <list>
#include <poll.h>
#include <random>
#include <set>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace site
{

struct bus_process::record {
    std::atomic<unsigned> connections;
    std::atomic<unsigned> requests;
    char complaint[512];
};

namespace
{

constexpr size_t header_size = 12;
constexpr size_t body_max = 1 << 20;
constexpr size_t answers_awaited = 200;
constexpr size_t queue_max = 1 << 20; // bytes kept for a client that does not read; what does not fit is dropped

uint32_t be32(std::string_view bytes)
{
    uint32_t n = 0;
    for (int i = 0; i < 4; ++i) n = n << 8 | static_cast<uint8_t>(bytes[static_cast<size_t>(i)]);
    return n;
}

template <class T> std::string big_endian(T number)
{
    std::string bytes;
    for (size_t i = sizeof number; i-- > 0;) bytes += static_cast<char>(number >> (8 * i));
    return bytes;
}

std::string padded(std::string bytes)
{
    bytes.resize((bytes.size() + 3) / 4 * 4);
    return bytes;
}

/// Bits 31 to 24 of an attribute's first word, and its payload.
std::string encode(uint32_t id_bits, std::string_view payload)
{
    return padded(big_endian(id_bits << 24 | static_cast<uint32_t>(payload.size() + 4)).append(payload));
}

std::string hex(std::string_view bytes)
{
    std::string text;
    char digits[4];
    for (const unsigned char byte : bytes) text.append(digits, static_cast<size_t>(sprintf(digits, "%02x ", byte)));
    return text;
}

/// One attribute of a run, taken off its front; none when the run does not begin with a whole one whose padding is
/// zero.
struct taken_attribute {
    uint8_t id_bits;
    std::string_view payload;
};

std::optional<taken_attribute> take_attribute(std::string_view &run)
{
    if (run.size() < 4) return std::nullopt;
    const uint32_t word = be32(run);
    const size_t length = word & 0xffffff;
    const size_t whole = (length + 3) / 4 * 4;
    if (length < 4 || whole > run.size()) return std::nullopt;
    const auto padding = run.substr(length, whole - length);
    if (padding.find_first_not_of('\0') != std::string_view::npos) return std::nullopt;
    const taken_attribute a{static_cast<uint8_t>(word >> 24), run.substr(4, length - 4)};
    run.remove_prefix(whole);
    return a;
}

bool is_text(std::string_view payload) { return !payload.empty() && payload.find('\0') == payload.size() - 1; }

bool is_value(const taken_attribute &a, bool named);

bool are_values(std::string_view run, bool named)
{
    while (!run.empty()) {
        const auto a = take_attribute(run);
        if (!a || !is_value(*a, named)) return false;
    }
    return true;
}

/// Whether it is a value as a careful sender writes it: a name that ends in zeroes, a payload of its type's size.
bool is_value(const taken_attribute &a, bool named)
{
    if ((a.id_bits & 0x80) == 0 || a.payload.size() < 4) return false;
    const size_t name = static_cast<uint8_t>(a.payload[0]) << 8 | static_cast<uint8_t>(a.payload[1]);
    const size_t header = (2 + name + 1 + 3) / 4 * 4;
    if ((name != 0) != named || header > a.payload.size()) return false;
    if (a.payload.substr(2, header - 2).find('\0') != name) return false;
    if (a.payload.substr(2 + name, header - 2 - name).find_first_not_of('\0') != std::string_view::npos) return false;
    const auto payload = a.payload.substr(header);
    switch (a.id_bits & 0x7f) {
    case 0: return payload.empty();
    case bus::array: return are_values(payload, false);
    case bus::table: return are_values(payload, true);
    case bus::string: return is_text(payload);
    case bus::int64:
    case bus::float64: return payload.size() == 8;
    case bus::int32: return payload.size() == 4;
    case bus::int16: return payload.size() == 2;
    case bus::int8: return payload.size() == 1;
    default: return false;
    }
}

int listen_at(const std::string &path)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::remove(path);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0 || listen(fd, 16) < 0) {
        fprintf(stderr, "bus: cannot listen at %s: %s\n", path.c_str(), strerror(errno));
        abort();
    }
    return fd;
}

/// Ends this process as if from outside: nothing is flushed, nobody is told.
[[noreturn]] void die()
{
    raise(SIGKILL);
    abort();
}

/// Waits for a child of ours, also where signals rain.
void await(pid_t pid, int options)
{
    while (waitpid(pid, nullptr, options) < 0 && errno == EINTR) {}
}

} // namespace

namespace bus
{

std::string attr(uint8_t id, std::string_view payload) { return encode(id, payload); }
std::string attr(uint8_t id, uint32_t number) { return encode(id, big_endian(number)); }
std::string text(uint8_t id, std::string_view text) { return encode(id, std::string(text) + '\0'); }

std::string value(uint8_t type, std::string_view name, std::string_view payload)
{
    auto header = big_endian(static_cast<uint16_t>(name.size())).append(name) + '\0';
    return encode(0x80U | type, padded(std::move(header)).append(payload));
}

std::string int32_value(std::string_view name, uint32_t number) { return value(int32, name, big_endian(number)); }
std::string int64_value(std::string_view name, uint64_t number) { return value(int64, name, big_endian(number)); }

std::string frame(uint8_t type, uint16_t seq, uint32_t peer, std::string_view body)
{
    return std::string{'\0', static_cast<char>(type)} + big_endian(seq) + big_endian(peer) + encode(0, body);
}

std::string bytes(std::string_view hex)
{
    std::string digits;
    std::copy_if(hex.begin(), hex.end(), std::back_inserter(digits), [](char c) { return c > ' '; });
    std::string result;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        result += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return result;
}

} // namespace bus

bus_process::bus_process(std::string path) : path_{std::move(path)}
{
    void *const shared = mmap(nullptr, sizeof *record_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) abort();
    record_ = new (shared) record{};
}

bus_process::~bus_process()
{
    kill();
    unlink(path_.c_str());
    munmap(record_, sizeof *record_);
}

void bus_process::serve(const std::function<void(int)> &body)
{
    kill();
    const int listener = listen_at(path_);
    const pid_t parent = getpid();
    fflush(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) die();
        // None of the caller's descriptors: they may be connections to the bus, whose end this process would delay.
        dup2(listener, 3);
        close_range(4, ~0U, 0);
        body(3);
        _exit(0);
    }
    close(listener);
    if (pid_ < 0) abort();
}

void bus_process::kill()
{
    if (pid_ < 0) return;
    ::kill(pid_, SIGKILL);
    await(pid_, 0);
    pid_ = -1;
}

void bus_process::pause()
{
    ::kill(pid_, SIGSTOP);
    await(pid_, WUNTRACED);
}

void bus_process::resume() { ::kill(pid_, SIGCONT); }

std::string bus_process::complaint() const { return record_->complaint; }

namespace
{

struct object {
    const bus_daemon::offered *offered;
    uint32_t id; // 0: not there
    uint32_t type;

    [[nodiscard]] std::string signature() const
    {
        std::string tables;
        for (const auto &[name, run] : offered->methods) {
            tables += bus::value(bus::table, name, name == "echo" ? bus::int32_value("n", bus::int32) : "");
        }
        return tables;
    }
};

struct client {
    int fd = -1;
    std::string in;
    std::string out;
    std::optional<uint16_t> last_seq;
    std::map<uint32_t, std::set<std::string>> listeners = {}; // its objects by id, and their patterns
    std::multimap<uint32_t, uint32_t> targets = {};           // its objects, and what they are subscribed to
    std::set<uint16_t> owed = {};                             // calls to its objects that it has not answered
    bool gone = false;
};

/// Whether an event's name fits a pattern: the same, or its beginning before a "*".
bool fits(std::string_view name, std::string_view pattern)
{
    if (!pattern.ends_with('*')) return name == pattern;
    pattern.remove_suffix(1);
    return name.starts_with(pattern);
}

/// One life of the daemon.
class life
{
public:
    life(const std::map<std::string, bus_daemon::offered> &objects, std::function<void(std::string)> complain,
         std::atomic<unsigned> &connections, std::atomic<unsigned> &requests)
        : complain_{std::move(complain)}, connections_{connections}, requests_{requests}
    {
        for (const auto &[path, offered] : objects) {
            objects_[path] = {&offered, offered.hidden ? 0 : fresh_id(), fresh_id()};
        }
    }

    [[noreturn]] void run(int listener)
    {
        for (;;) {
            std::vector<pollfd> polled{{listener, POLLIN, 0}};
            for (const client &c : clients_) {
                polled.push_back({c.fd, static_cast<short>(c.out.empty() ? POLLIN : POLLIN | POLLOUT), 0});
            }
            if (poll(polled.data(), polled.size(), -1) < 0) continue;
            auto p = polled.begin() + 1;
            for (client &c : clients_) {
                if (p->revents & POLLOUT) flush(c);
                if (p->revents & (POLLIN | POLLHUP)) read_from(c);
                ++p;
            }
            if (polled.front().revents & POLLIN) accept_client(listener);
            clients_.remove_if([](const client &c) { return c.gone && close(c.fd) == 0; });
        }
    }

private:
    uint32_t fresh_id() { return std::uniform_int_distribution<uint32_t>{1024}(random_); }

    void accept_client(int listener)
    {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return;
        ++connections_;
        client &c = clients_.emplace_back();
        c.fd = fd;
        send_to(c, bus::frame(bus::hello, 0, fresh_id()));
    }

    void send_to(client &c, const std::string &frame)
    {
        if (c.out.size() + frame.size() > queue_max + header_size) return;
        c.out += frame;
        flush(c);
    }

    static void flush(client &c)
    {
        const ssize_t n = send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) c.out.erase(0, static_cast<size_t>(n));
    }

    void read_from(client &c)
    {
        char chunk[65536];
        const ssize_t n = recv(c.fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) return;
        if (n <= 0) {
            if (!c.in.empty()) complain_("a connection ended in the middle of a frame: " + hex(c.in));
            c.gone = true;
            return;
        }
        c.in.append(chunk, static_cast<size_t>(n));
        while (!c.gone && c.in.size() >= header_size) {
            const size_t length = be32(std::string_view(c.in).substr(8)) & 0xffffff;
            if (length < 4 || length > body_max) {
                complain_("a body of " + std::to_string(length) + " bytes");
                c.gone = true;
            }
            if (c.gone || c.in.size() < 8 + length) return;
            const std::string frame = c.in.substr(0, 8 + length);
            c.in.erase(0, 8 + length);
            handle(c, frame);
        }
    }

    struct request {
        uint8_t type;
        uint16_t seq;
        uint32_t peer;
        std::map<uint8_t, std::string_view> attributes; // the last of each id
        std::string order;                              // their ids, as they came

        [[nodiscard]] std::string_view operator[](uint8_t id) const
        {
            const auto found = attributes.find(id);
            return found == attributes.end() ? std::string_view{} : found->second;
        }
    };

    request parse(client &c, std::string_view frame)
    {
        request r{
            static_cast<uint8_t>(frame[1]), static_cast<uint16_t>(be32(frame) & 0xffff), be32(frame.substr(4)), {}, {}};
        if (frame[0] != 0 || frame[8] != 0 || frame.size() % 4 != 0) complain_("an odd header: " + hex(frame));
        if (r.type != bus::status) { // which has the number of what it answers
            if (c.last_seq && r.seq != static_cast<uint16_t>(*c.last_seq + 1)) complain_("a gap: " + hex(frame));
            c.last_seq = r.seq;
        }
        for (auto rest = frame.substr(header_size); !rest.empty();) {
            const auto taken = take_attribute(rest);
            if (!taken) {
                complain_("a broken attribute: " + hex(frame));
                break;
            }
            r.attributes[taken->id_bits] = taken->payload;
            r.order += std::to_string(taken->id_bits);
        }
        return r;
    }

    void handle(client &c, std::string_view frame)
    {
        ++requests_;
        const request r = parse(c, frame);
        const auto answer_status = [&](uint32_t code) {
            std::string body = bus::attr(bus::a_status, code);
            if (r.type == bus::invoke && !r[bus::a_objid].empty()) body += bus::attr(bus::a_objid, r[bus::a_objid]);
            send_to(c, bus::frame(bus::status, r.seq, r.peer, body));
        };
        switch (r.type) {
        case bus::ping:
            send_to(c, bus::frame(bus::data, r.seq, r.peer, frame.substr(header_size)));
            return answer_status(0);
        case bus::lookup: {
            const bool named = is_text(r[bus::a_objpath]);
            if (r.peer != 0 || r.order != (named ? "2" : "")) complain_("an odd lookup: " + hex(frame));
            return answer_status(look_up(c, r.seq, named ? r[bus::a_objpath].data() : "*"));
        }
        case bus::add_object: {
            if (r.peer != 0 || !r.order.empty()) complain_("an odd object: " + hex(frame));
            const uint32_t id = fresh_id();
            c.listeners[id] = {};
            send_to(c, bus::frame(bus::data, r.seq, 0, bus::attr(bus::a_objid, id)));
            return answer_status(0);
        }
        case bus::remove_object:
            if (r.order != "3" || c.listeners.erase(be32(r[bus::a_objid])) == 0) return answer_status(4);
            c.targets.erase(be32(r[bus::a_objid]));
            send_to(c, bus::frame(bus::data, r.seq, 0, bus::attr(bus::a_objid, r[bus::a_objid])));
            return answer_status(0);
        case bus::subscribe:
            if (r.order != "38" || !c.listeners.contains(be32(r[bus::a_objid]))) return answer_status(2);
            if (!path_of(be32(r[bus::a_target]))) return answer_status(4);
            c.targets.emplace(be32(r[bus::a_objid]), be32(r[bus::a_target]));
            return answer_status(0);
        case bus::status:
            // libubus forgets the number when it has forgotten the object.
            if (r.order != "13" || (r.seq != 0 && c.owed.erase(r.seq) == 0)) complain_("an odd answer: " + hex(frame));
            return;
        case bus::invoke:
            if (r.order != "347" || r[bus::a_objid].size() != 4 || be32(r[bus::a_objid]) != r.peer ||
                !is_text(r[bus::a_method]) || !are_values(r[bus::a_data], true)) {
                complain_("an odd call: " + hex(frame));
                return answer_status(2);
            }
            if (r.peer == events_id) {
                return answer_status(events_call(c, r[bus::a_method].data(), r[bus::a_data]));
            }
            if (const auto code = call(c, r.seq, r.peer, r[bus::a_method].data(), r[bus::a_data])) answer_status(*code);
            return;
        default: complain_("an odd message: " + hex(frame)); return answer_status(1);
        }
    }

    uint32_t look_up(client &c, uint16_t seq, std::string_view wanted)
    {
        if (wanted.empty()) return 2;
        uint32_t status = 4;
        for (const auto &[path, o] : objects_) {
            const bool prefix = wanted.back() == '*' && path.starts_with(wanted.substr(0, wanted.size() - 1));
            if (o.id == 0 || (!prefix && path != wanted)) continue;
            send_to(c, bus::frame(bus::data, seq, 0,
                                  bus::text(bus::a_objpath, path) + bus::attr(bus::a_objid, o.id) +
                                      bus::attr(bus::a_objtype, o.type) + bus::attr(bus::a_signature, o.signature())));
            status = 0;
        }
        return status;
    }

    std::optional<uint32_t> call(client &c, uint16_t seq, uint32_t id, const char *method, std::string_view values)
    {
        const auto *const path = path_of(id);
        if (!path) return 4;
        const auto &methods = objects_[*path].offered->methods;
        const auto found = methods.find(method);
        if (found == methods.end()) return 3;
        const bus_reply reply = found->second(values);
        for (const auto &action : reply.before) perform(action);
        for (const auto &part : reply.parts) {
            send_to(c, bus::frame(bus::data, seq, id, bus::attr(bus::a_objid, id) + bus::attr(bus::a_data, part)));
        }
        return reply.status;
    }

    const std::string *path_of(uint32_t id)
    {
        for (const auto &[path, o] : objects_) {
            if (o.id == id && id != 0) return &path;
        }
        return nullptr;
    }

    /// A call to the daemon's own object for events.
    uint32_t events_call(client &c, std::string_view method, std::string_view values)
    {
        const auto id = bus::int32_value("object", 0);
        const auto head = values.substr(0, id.size() - 4);
        if (method != "register") return 1;
        if (head != std::string_view(id).substr(0, head.size()) || values.size() < id.size() + 16) return 2;
        const uint32_t object = be32(values.substr(head.size()));
        auto rest = values.substr(id.size());
        const auto pattern = take_attribute(rest); // a text named "pattern": a header of 12 bytes
        if (!pattern || !rest.empty() || !is_text(pattern->payload.substr(12))) return 2;
        const auto owned = c.listeners.find(object);
        if (owned == c.listeners.end()) return 4;
        if (std::string_view(pattern->payload.data() + 12) == "forbidden") return 6;
        owned->second.insert(pattern->payload.data() + 12);
        return 0;
    }

    void perform(const bus_action &action)
    {
        object &o = objects_[action.object];
        switch (action.what) {
        case bus_action::event: return send_event(action.name, action.values);
        case bus_action::notify: return notify(o, action.name, action.values);
        case bus_action::add: o.id = fresh_id(); break;
        case bus_action::remove: remove(o); break;
        }
        send_event(action.what == bus_action::add ? "ubus.object.add" : "ubus.object.remove",
                   bus::int32_value("id", o.id) + bus::value(bus::string, "path", action.object + '\0'));
        if (action.what == bus_action::remove) o.id = 0;
    }

    void send_event(const std::string &name, const std::string &values)
    {
        for (client &c : clients_) {
            for (const auto &[id, patterns] : c.listeners) {
                if (std::none_of(patterns.begin(), patterns.end(), [&](const auto &p) { return fits(name, p); }))
                    continue;
                c.owed.insert(++event_seq_);
                if (c.owed.size() > answers_awaited) complain_("events that are never answered");
                send_to(c, bus::frame(bus::invoke, event_seq_, 0,
                                      bus::attr(bus::a_objid, id) + bus::text(bus::a_method, name) +
                                          bus::attr(bus::a_data, values)));
            }
        }
    }

    void notify(const object &o, const std::string &name, const std::string &values)
    {
        for (client &c : clients_) {
            for (const auto &[id, target] : c.targets) {
                if (target != o.id) continue;
                send_to(c, bus::frame(bus::invoke, ++event_seq_, fresh_id(),
                                      bus::attr(bus::a_no_reply, {"\1", 1}) + bus::attr(bus::a_objid, id) +
                                          bus::text(bus::a_method, name) + bus::text(bus::a_user, "root") +
                                          bus::text(bus::a_group, "root") + bus::attr(bus::a_data, values)));
            }
        }
    }

    void remove(const object &o)
    {
        for (client &c : clients_) {
            std::erase_if(c.targets, [&](const auto &subscription) {
                if (subscription.second != o.id) return false;
                send_to(c, bus::frame(bus::unsubscribe, ++event_seq_, 0,
                                      bus::attr(bus::a_objid, subscription.first) + bus::attr(bus::a_target, o.id)));
                return true;
            });
        }
    }

    static constexpr uint32_t events_id = 1;
    std::mt19937 random_{std::random_device{}()};
    std::map<std::string, object> objects_;
    std::list<client> clients_;
    uint16_t event_seq_ = 0;
    std::function<void(std::string)> complain_;
    std::atomic<unsigned> &connections_;
    std::atomic<unsigned> &requests_;
};

/// Keeps the first complaint, as much of it as fits.
template <size_t N> auto complain_into(char (&place)[N])
{
    return [&place](const std::string &text) {
        if (place[0] == '\0') snprintf(place, N, "%s", text.c_str());
    };
}

/// Plays a script to one client, until it ends or the client has gone.
void play(int fd, const std::vector<bus_script::step> &steps, const std::function<void(std::string)> &complain)
{
    using step = bus_script::step;
    for (const auto &[what, bytes] : steps) {
        switch (what) {
        case step::send: send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); break;
        case step::crumbs:
            for (const char crumb : bytes) {
                send(fd, &crumb, 1, MSG_NOSIGNAL);
                usleep(200);
            }
            break;
        case step::expect: {
            std::string got(bytes.size(), '\0');
            const ssize_t n = recv(fd, got.data(), got.size(), MSG_WAITALL);
            got.resize(n > 0 ? static_cast<size_t>(n) : 0);
            if (got != bytes) return complain("expected " + hex(bytes) + "got " + hex(got));
            break;
        }
        case step::hang: {
            char ignored;
            while (recv(fd, &ignored, 1, 0) > 0) {}
            break;
        }
        case step::die: die();
        }
    }
}

} // namespace

bus_daemon::bus_daemon(std::string path) : bus_process{std::move(path)} {}

void bus_daemon::offer(std::string name, std::map<std::string, bus_method> methods, bool hidden)
{
    objects_[std::move(name)] = {std::move(methods), hidden};
}

void bus_daemon::start()
{
    serve([this](int listener) {
        life{objects_, complain_into(record_->complaint), record_->connections, record_->requests}.run(listener);
    });
}

unsigned bus_daemon::connections() const { return record_->connections; }
unsigned bus_daemon::requests() const { return record_->requests; }

bus_script::bus_script(std::string path, std::vector<step> steps) : bus_process{std::move(path)}
{
    serve([this, steps = std::move(steps)](int listener) {
        for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0; close(fd)) {
            play(fd, steps, complain_into(record_->complaint));
        }
    });
}

std::vector<bus_script::step> talk(std::vector<std::string> turns, bus_script::action then, bus_script::action say)
{
    std::vector<bus_script::step> steps;
    steps.reserve(turns.size() + 1);
    for (auto &turn : turns) steps.push_back({steps.size() % 2 == 0 ? say : bus_script::step::expect, std::move(turn)});
    steps.push_back({then, ""});
    return steps;
}

} // namespace site
