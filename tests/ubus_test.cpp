#include "site/bus_daemon.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <chrono>
#include <csignal>
#include <event2/event.h>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <libubus.h>
#include <list>
#include <malloc.h>
#include <map>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <vela/core/log.h>
#include <vela/ipc/ubus.h>

namespace bus = site::bus;
using step = site::bus_script::step;
using testing::ElementsAre;

namespace
{

constexpr const char *path = "/tmp/bus.sock";
constexpr int retry_ms = 1100; // a second, and a little: one attempt

// Captured on a bus: the greeting, the lookup of "vt", and its answers.
const std::string hello = bus::bytes("00 00 00 00 9a 44 99 96 00 00 00 04");
const std::string lookup = bus::bytes("00 04 00 01 00 00 00 00 00 00 00 0c 02 00 00 07 76 74 00 00");
const std::string found = bus::bytes(R"(
    00 02 00 01 00 00 00 00 00 00 00 44 02 00 00 07 76 74 00 00 03 00 00 08 46 c4 39 df 05 00 00 08 86 95 22 53
    06 00 00 28 82 00 00 18 00 03 67 65 74 00 00 00 85 00 00 0c 00 01 6e 00 00 00 00 05 82 00 00 0c 00 04 66 61 69 6c
    00 00)");
const std::string ok = bus::bytes("00 01 00 01 00 00 00 00 00 00 00 0c 01 00 00 08 00 00 00 00");
constexpr uint32_t found_id = 0x46c439df;

class event_loop
{
public:
    event_base *const base = event_base_new();
    event_loop() { vela_ubus_init(); }
    ~event_loop()
    {
        vela_ubus_shutdown();
        event_base_free(base);
    }

    template <class Condition> bool runs_until(Condition condition, int ms = 5000) const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!condition() && std::chrono::steady_clock::now() < end) {
            event_base_loop(base, EVLOOP_NONBLOCK);
            usleep(500);
        }
        return condition();
    }
};

int connects = 0;
int closes = 0;
void count_connect(vela_ubus_interface_t * /*iface*/) { ++connects; }
void count_close(vela_ubus_interface_t * /*iface*/) { ++closes; }

int losses = 0;

struct client {
    ubus_context *ctx;
    explicit client(const char *at = path) : ctx{ubus_connect(at)}
    {
        if (ctx) ctx->connection_lost = [](ubus_context * /*ctx*/) { ++losses; };
    }
    ~client() { ubus_free(ctx); }
};

/// Signals that interrupt every wait, a thousand a second.
struct signal_storm {
    signal_storm()
    {
        struct sigaction ignore = {};
        ignore.sa_handler = [](int) {};
        sigaction(SIGALRM, &ignore, nullptr);
        const itimerval often{{0, 1000}, {0, 1000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~signal_storm()
    {
        const itimerval never{};
        setitimer(ITIMER_REAL, &never, nullptr);
    }
};

template <class Body> auto seconds_of(Body body)
{
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

const auto a_few = testing::AllOf(testing::Ge(2.9), testing::Le(6)); // seconds

std::string payload(const blob_attr *msg) { return {static_cast<const char *>(blob_data(msg)), blob_len(msg)}; }

long descriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator{});
}

/// Keeps a reply in the std::string that priv points to.
void keep(ubus_request *req, int type, blob_attr *msg)
{
    EXPECT_EQ(2, type);
    *static_cast<std::string *>(req->priv) += payload(msg);
}

} // namespace

TEST(Ubus, MissingArgumentsAreRefused)
{
    const event_loop loop;
    log_lines log;
    EXPECT_EQ(nullptr, vela_ubus_create(nullptr, path, "vt", 0, nullptr, nullptr));
    EXPECT_EQ(nullptr, vela_ubus_create(loop.base, nullptr, "vt", 2, nullptr, nullptr));
    EXPECT_EQ(nullptr, vela_ubus_create(loop.base, path, nullptr, 2, nullptr, nullptr));
    const log_line refused{"error", "libvela_ubus", "vela_ubus_create", "Bad parameters in initialization"};
    EXPECT_THAT(log.take(), ElementsAre(refused, refused, refused));

    vela_ubus_interface_t unconnected{};
    unconnected.service = "vt";
    EXPECT_EQ(-EINVAL, vela_ubus_find_service(nullptr));
    EXPECT_EQ(-EINVAL, vela_ubus_find_service(&unconnected));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(nullptr, "vt"));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(&unconnected, "vt"));
    vela_ubus_close(nullptr);
}

TEST(Ubus, WithoutABusOnlyFlag2MakesARecordThatWaitsForOne)
{
    const leak_check leaks;
    {
        const event_loop loop;
        log_lines log;
        EXPECT_EQ(nullptr, vela_ubus_create(loop.base, path, "vt", 0, count_connect, count_close));
        const log_line failed{"error", "libvela_ubus", "vela_ubus_create", "Failed to connect to ubus"};
        EXPECT_THAT(log.take(), ElementsAre(failed));
        vela_ubus_shutdown(); // nothing is in the list

        vela_ubus_interface_t *const iface = vela_ubus_create(loop.base, path, "vt", 2, count_connect, count_close);
        ASSERT_NE(nullptr, iface);
        EXPECT_THAT(log.take(), ElementsAre(failed));
        EXPECT_EQ(nullptr, iface->ctx);
        EXPECT_FALSE(loop.runs_until([&] { return iface->ctx; }, retry_ms));
        EXPECT_THAT(log.take(), ElementsAre(log_line{"warn", "libvela_ubus", "u_reconnect_timeout",
                                                     "Failed to connect, trying again in 1s"}));
        site::bus_daemon daemon(path);
        daemon.offer("vt", {});
        daemon.start();
        EXPECT_TRUE(loop.runs_until([] { return connects == 1; }));
        EXPECT_THAT(log.take(), ElementsAre(log_line{"debug", "libvela_ubus", "u_reconnect_timeout", "Reconnected!"}));
        EXPECT_NE(0U, iface->id);
        EXPECT_EQ(nullptr, iface->timer);
        vela_ubus_close(iface);
        EXPECT_EQ(1, closes);

        vela_ubus_close(vela_ubus_create(loop.base, "/tmp/nothing", "vt", 2, count_connect, count_close));
        EXPECT_FALSE(loop.runs_until([] { return connects != 1; }, retry_ms)) << "the timer of a closed record";
        EXPECT_EQ(1, closes) << "there was no connection to close";
        EXPECT_EQ("", daemon.complaint());
    }
    leaks.expect_unchanged();
}

TEST(Ubus, LookupsStoreWhatTheyFindAndNothingElse)
{
    site::bus_daemon daemon(path);
    daemon.offer("vt", {});
    daemon.offer("other", {});
    daemon.start();
    const event_loop loop;
    auto *const iface = vela_ubus_create(loop.base, path, "vt", 1, count_connect, nullptr);
    ASSERT_NE(nullptr, iface);
    EXPECT_EQ(1, connects);
    EXPECT_EQ(0U, iface->id) << "flag 1: no lookup";
    EXPECT_TRUE(iface->ctx->sock.registered);
    EXPECT_EQ(FD_CLOEXEC, fcntl(iface->ctx->sock.fd, F_GETFD));

    EXPECT_EQ(0, vela_ubus_find_service(iface));
    const uint32_t vt = iface->id;
    EXPECT_NE(0U, vt);
    EXPECT_EQ(0, vela_ubus_find_object(iface, "other"));
    const uint32_t other = iface->id;
    EXPECT_NE(vt, other);
    EXPECT_EQ(-ENOSYS, vela_ubus_find_object(iface, "nosuch"));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(iface, ""));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(iface, nullptr));
    EXPECT_EQ(other, iface->id);
    iface->service = nullptr;
    EXPECT_EQ(-EINVAL, vela_ubus_find_service(iface));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(iface, "vt"));
    EXPECT_EQ("", daemon.complaint());
}

TEST(Ubus, AKilledBusIsRegainedInASecond)
{
    site::bus_daemon daemon(path);
    daemon.offer("vt", {});
    daemon.start();
    const event_loop loop;
    log_lines log;
    auto *const iface = vela_ubus_create(loop.base, path, "vt", 0, count_connect, count_close);
    ASSERT_NE(nullptr, iface);
    EXPECT_THAT(log.take(), ElementsAre());
    ubus_context *const ctx = iface->ctx;
    const uint32_t first_id = iface->id;

    daemon.kill();
    EXPECT_TRUE(loop.runs_until([&] { return iface->timer; }));
    EXPECT_EQ(nullptr, iface->read_event) << "the dead socket would keep the loop busy";
    EXPECT_FALSE(loop.runs_until([&] { return iface->read_event; }, retry_ms));
    EXPECT_EQ(-1, ctx->sock.fd);
    EXPECT_EQ(-ENOSYS, vela_ubus_find_service(iface));
    EXPECT_THAT(log.take(), ElementsAre(log_line{"warn", "libvela_ubus", "u_connection_lost",
                                                 "ubus connection lost, reconnecting..."},
                                        log_line{"warn", "libvela_ubus", "u_reconnect_timeout",
                                                 "Failed to reconnect, trying again in 1s"}));
    daemon.start();
    EXPECT_LT(seconds_of([&] { EXPECT_TRUE(loop.runs_until([&] { return iface->read_event; })); }), 2);
    EXPECT_THAT(log.texts(), ElementsAre("Reconnected!"));
    EXPECT_EQ(ctx, iface->ctx);
    EXPECT_TRUE(ctx->sock.registered);
    EXPECT_EQ(nullptr, iface->timer);
    EXPECT_EQ(1, connects) << "the same context is no fresh connection";
    EXPECT_EQ(first_id, iface->id) << "stale, until it is looked up";
    EXPECT_EQ(0, vela_ubus_find_service(iface));
    EXPECT_NE(first_id, iface->id);

    ctx->connection_lost(nullptr); // whoever it was
    ASSERT_NE(nullptr, iface->timer);
    EXPECT_TRUE(loop.runs_until([&] {
        if (iface->timer) ctx->connection_lost(ctx);
        log.take();
        return iface->read_event;
    })) << "told again and again";
    EXPECT_EQ(3U, daemon.connections());
    EXPECT_EQ("", daemon.complaint());
}

TEST(Ubus, ABusThatDiesAnywhereIsRegained)
{
    const auto half = [](const std::string &bytes) { return bytes.substr(0, bytes.size() / 2); };
    const struct {
        const char *when;
        std::vector<step> steps;
    } cases[] = {
        {"on accepting", {{step::die, ""}}},
        {"in the greeting", {{step::send, half(hello)}, {step::die, ""}}},
        {"before a request", {{step::send, hello}, {step::die, ""}}},
        {"on a request", {{step::send, hello}, {step::expect, lookup}, {step::die, ""}}},
        {"in an answer", {{step::send, hello}, {step::expect, lookup}, {step::send, half(found)}, {step::die, ""}}},
        {"in a header", {{step::send, hello + found.substr(0, 7)}, {step::expect, lookup}, {step::die, ""}}},
        {"between two answers", {{step::send, hello}, {step::expect, lookup}, {step::send, found}, {step::die, ""}}},
        {"not at all, but talks nonsense", {{step::send, hello + "\1" + hello.substr(1)}, {step::hang, ""}}},
        {"when all was said", {{step::send, hello}, {step::expect, lookup}, {step::send, found + ok}, {step::die, ""}}},
    };
    const event_loop loop;
    std::map<const char *, std::string> paths; // several records at once, each with a bus of its own
    std::map<const char *, vela_ubus_interface_t *> records;
    for (const auto &c : cases) {
        paths[c.when] = "/tmp/bus." + std::to_string(records.size());
        const site::bus_script peer(paths[c.when], c.steps);
        auto *const iface = records[c.when] =
            vela_ubus_create(loop.base, paths[c.when].c_str(), "vt", 2, nullptr, nullptr);
        ASSERT_NE(nullptr, iface) << c.when;
        EXPECT_TRUE(loop.runs_until([&] { return iface->timer; })) << c.when;
        EXPECT_EQ(nullptr, iface->read_event) << c.when;
        EXPECT_EQ("", peer.complaint()) << c.when;
    }
    std::list<site::bus_daemon> daemons;
    for (const auto &[when, at] : paths) {
        daemons.emplace_back(at).offer("vt", {});
        daemons.back().start();
    }
    for (const auto &[when, iface] : records) {
        EXPECT_TRUE(loop.runs_until([&] { return iface->read_event; })) << when;
        EXPECT_EQ(0, vela_ubus_find_service(iface)) << when;
    }
    for (const auto &daemon : daemons) EXPECT_EQ("", daemon.complaint());
}

TEST(Ubus, CallbacksMayCloseAnyRecord)
{
    const leak_check leaks;
    {
        site::bus_daemon daemon(path);
        daemon.offer("vt", {});
        daemon.start();
        const event_loop loop;
        const auto close_it = [](vela_ubus_interface_t *iface) { vela_ubus_close(iface); };
        static vela_ubus_interface_t *other;
        const auto close_both = [](vela_ubus_interface_t *iface) {
            ++closes;
            vela_ubus_close(iface); // once more
            vela_ubus_close(std::exchange(other, nullptr));
        };

        EXPECT_EQ(nullptr, vela_ubus_create(loop.base, path, "vt", 0, close_it, count_close));
        EXPECT_EQ(1, closes);

        auto *const a = vela_ubus_create(loop.base, path, "vt", 0, nullptr, close_both);
        other = vela_ubus_create(loop.base, path, "vt", 0, nullptr, count_close);
        vela_ubus_close(a);
        EXPECT_EQ(3, closes);

        vela_ubus_create(loop.base, path, "vt", 0, nullptr, close_both);
        other = vela_ubus_create(loop.base, path, "vt", 0, nullptr, count_close);
        vela_ubus_create(loop.base, path, "vt", 0, nullptr, count_close);
        vela_ubus_shutdown();
        EXPECT_EQ(6, closes);
        vela_ubus_shutdown();
        EXPECT_EQ(6, closes);

        daemon.kill();
        static event_base *base;
        base = loop.base;
        const auto replace = [](vela_ubus_interface_t *iface) {
            ++connects;
            vela_ubus_close(iface);
            vela_ubus_create(base, path, "vt", 0, nullptr, count_close);
        };
        vela_ubus_create(loop.base, path, "vt", 2, replace, nullptr);
        daemon.start();
        EXPECT_TRUE(loop.runs_until([] { return connects == 1; })) << "in the retry, of the record it runs for";
        vela_ubus_shutdown();
        EXPECT_EQ(7, closes);
    }
    leaks.expect_unchanged();
}

TEST(Ubus, AThousandReconnectionsLeaveNothingBehind)
{
    site::bus_daemon daemon(path);
    daemon.offer("vt", {});
    daemon.start();
    const event_loop loop;
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    auto *const iface = vela_ubus_create(loop.base, path, "vt", 0, nullptr, nullptr);
    ASSERT_NE(nullptr, iface);
    const auto lose_and_regain = [&] {
        shutdown(iface->ctx->sock.fd, SHUT_RDWR);
        event_base_loop(loop.base, EVLOOP_ONCE);
        ASSERT_NE(nullptr, iface->timer);
        event_active(iface->timer, EV_TIMEOUT, 1); // a second later
        event_base_loop(loop.base, EVLOOP_ONCE);
        ASSERT_NE(nullptr, iface->read_event);
        ASSERT_EQ(0, vela_ubus_find_service(iface));
    };
    lose_and_regain();
    const long open = descriptors();
    const size_t heap = mallinfo2().uordblks;
    for (int i = 0; i < 1000 && !HasFatalFailure(); ++i) lose_and_regain();
    EXPECT_EQ(heap, mallinfo2().uordblks);
    EXPECT_EQ(open, descriptors());
    EXPECT_EQ("", daemon.complaint());
}

TEST(Ubus, RefusedMemoryMakesNoRecordOrAWholeOne)
{
    if (!faults::can_refuse_memory) GTEST_SKIP() << "no allocation faults under the address sanitizer";
    site::bus_daemon daemon(path);
    daemon.offer("vt", {});
    daemon.start();
    const event_loop loop;
    libvela_log_env_ready = 1; // a line that cannot be formatted would end the process
    libvela_log_level = 0;
    int records = 0;
    const auto try_all = [&] {
        faults::for_each_allocation([&] {
            auto *const iface = vela_ubus_create(loop.base, path, "vt", 0, nullptr, nullptr);
            if (!iface) return;
            ++records;
            EXPECT_NE(nullptr, iface->read_event);
            vela_ubus_close(iface);
        });
    };
    try_all(); // and what is allocated only once
    EXPECT_GT(records, 1) << "without memory for the lookup the record is there";
    const long open = descriptors();
    const size_t heap = mallinfo2().uordblks;
    try_all();
    EXPECT_EQ(heap, mallinfo2().uordblks);
    EXPECT_EQ(open, descriptors());
}

TEST(Ubus, SignalsKeepTheirDispositions)
{
    site::bus_daemon daemon(path);
    daemon.start();
    const event_loop loop;
    constexpr int signals[] = {SIGINT, SIGTERM, SIGCHLD, SIGPIPE};
    struct sigaction ours = {};
    ours.sa_handler = [](int) {};
    ours.sa_flags = SA_RESTART;
    for (const int s : signals) sigaction(s, &ours, nullptr);
    auto *const iface = vela_ubus_create(loop.base, path, "vt", 0, nullptr, nullptr);
    ASSERT_NE(nullptr, iface);
    for (const int s : signals) {
        struct sigaction now;
        sigaction(s, nullptr, &now);
        EXPECT_EQ(ours.sa_handler, now.sa_handler) << s;
        EXPECT_TRUE(now.sa_flags & SA_RESTART) << s;
    }
    signal(SIGPIPE, SIG_DFL);
    daemon.kill();
    EXPECT_EQ(-ENOSYS, vela_ubus_find_service(iface)) << "and this process lives";
}

TEST(UbusClient, GreetingsThatAreNoneAreRefused)
{
    const struct {
        const char *what;
        std::vector<step> steps;
        bool accepted;
    } cases[] = {
        {"captured", {{step::send, hello}, {step::hang, ""}}, true},
        {"in crumbs", {{step::crumbs, hello}, {step::hang, ""}}, true},
        {"nothing", {}, false},
        {"half of it", {{step::send, hello.substr(0, 11)}}, false},
        {"another version", {{step::send, "\1" + hello.substr(1)}, {step::hang, ""}}, false},
        {"another type", {{step::send, bus::frame(bus::status, 0, 4096)}, {step::hang, ""}}, false},
        {"a private channel", {{step::send, bus::frame(bus::hello, 0, 1)}, {step::hang, ""}}, false},
        {"a body", {{step::send, bus::frame(bus::hello, 0, 4096, bus::attr(1, 0))}, {step::hang, ""}}, false},
    };
    const leak_check leaks;
    for (const auto &c : cases) {
        const site::bus_script peer(path, c.steps);
        const client k;
        EXPECT_EQ(c.accepted, k.ctx != nullptr) << c.what;
        if (!k.ctx) continue;
        EXPECT_EQ(0, memcmp(&k.ctx->local_id, "\x9a\x44\x99\x96", 4)) << "as on the wire";
    }
    EXPECT_EQ(nullptr, ubus_connect(std::string(108, 'x').c_str())) << "a path that does not fit";
    leaks.expect_unchanged();
}

TEST(UbusClient, AnswersAreTakenInWhateverShapeTheyCome)
{
    const auto odd = [](const std::string &frame, size_t at, const char *with) {
        std::string copy = frame;
        copy.replace(at, 1, with, 1);
        return copy;
    };
    const std::string strangers = bus::frame(bus::data, 9, 0, bus::attr(bus::a_objid, 1)) + // of another request
                                  bus::frame(bus::status, 1, 5, bus::attr(bus::a_status, 5)) + bus::frame(99, 1, 0) +
                                  bus::frame(bus::hello, 1, 0);
    const std::string other_id = bus::attr(bus::a_objid, found_id + 1);
    const std::string id = bus::attr(bus::a_objid, found_id);
    const std::string path_and_type = bus::text(bus::a_objpath, "vt") + bus::attr(bus::a_objtype, 2);
    const std::string broken = bus::frame(bus::data, 1, 0, "\1\2\3");
    constexpr uint32_t untouched = 1;
    const struct {
        const char *what;
        std::string answer;
        int status;
        uint32_t id;
        bool lost;
    } cases[] = {
        {"captured", found + ok, 0, found_id, false},
        {"among others", strangers + found + strangers + ok, 0, found_id, false},
        {"an id in the outer header", odd(found, 8, "\x8f") + ok, 0, found_id, false},
        {"no match", bus::bytes("00 01 00 01 00 00 00 00 00 00 00 0c 01 00 00 08 00 00 00 04"), 4, untouched, false},
        {"no data", ok, 0, untouched, false},
        {"unknown and repeated attributes", bus::frame(bus::data, 1, 0, bus::attr(77, 1) + other_id + id) + ok, 0,
         found_id, false},
        {"an id of three bytes counts as none",
         bus::frame(bus::data, 1, 0, id + bus::attr(bus::a_objid, "abc") + path_and_type) + ok, 0, found_id, false},
        {"a status without a number", bus::frame(bus::status, 1, 0), 12, untouched, false},
        {"a cut attribute", bus::frame(bus::data, 1, 0, id + bus::bytes("03 00 00 09 00 00 00 01")) + ok, 0, found_id,
         false},
        {"another version", odd(found, 0, "\1") + ok, 10, untouched, true},
        {"a body of 3 bytes", bus::bytes("00 01 00 01 00 00 00 00 00 00 00 03"), 10, untouched, true},
        {"a body that is not whole words", bus::bytes("00 01 00 01 00 00 00 00 00 00 00 05 00"), 12, untouched, false},
        {"a body beyond a megabyte", bus::bytes("00 01 00 01 00 00 00 00 00 10 00 04"), 10, untouched, true},
        {"a body of a megabyte",
         bus::frame(bus::data, 1, 0, bus::attr(9, std::string((1 << 20) - 8, 'x'))) + found + ok, 0, found_id, false},
    };
    for (const auto &c : cases) {
        for (const auto how : {step::send, step::crumbs}) {
            if (how == step::crumbs && c.answer.size() > 1000) continue;
            const site::bus_script peer(
                path, {{step::send, hello}, {step::expect, lookup}, {how, c.answer}, {step::hang, ""}});
            const client k;
            ASSERT_NE(nullptr, k.ctx) << c.what;
            losses = 0;
            uint32_t result = untouched;
            EXPECT_EQ(c.status, ubus_lookup_id(k.ctx, "vt", &result)) << c.what;
            EXPECT_EQ(c.id, result) << c.what;
            EXPECT_EQ(c.lost, k.ctx->sock.eof) << c.what;
            EXPECT_EQ(c.lost ? 1 : 0, losses) << c.what;
            if (c.lost) {
                EXPECT_EQ(2, ubus_lookup_id(k.ctx, "vt", &result)) << c.what;
                ubus_handle_event(k.ctx);
                EXPECT_EQ(2, losses) << "told again until there is a new connection";
            }
            EXPECT_EQ("", peer.complaint()) << c.what;
        }
    }
}

TEST(UbusClient, CallsAreAnsweredPolitely)
{
    const std::string call = bus::frame(bus::invoke, 7, 4096,
                                        bus::attr(bus::a_objid, 5000) + bus::text(bus::a_method, "get") +
                                            bus::attr(bus::a_data, std::string_view{}));
    const std::string no_reply = bus::frame(bus::invoke, 8, 4096, bus::attr(10, std::string_view("\1", 1)));
    const std::string nameless = bus::frame(bus::invoke, 9, 4096);
    const std::string answers =
        bus::frame(bus::status, 7, 4096, bus::attr(bus::a_status, 4) + bus::attr(bus::a_objid, 5000)) +
        bus::frame(bus::status, 9, 4096, bus::attr(bus::a_status, 2));
    const std::string first_answer = answers.substr(0, answers.size() / 2 + 4);
    const site::bus_script peer(path, {{step::send, hello + call + no_reply + nameless},
                                       {step::expect, answers + lookup},
                                       {step::send, call}, // while the client waits for its own answer
                                       {step::expect, first_answer},
                                       {step::send, found + ok},
                                       {step::hang, ""}});
    const client k;
    ASSERT_NE(nullptr, k.ctx);
    ubus_handle_event(k.ctx); // all three in one event
    uint32_t id = 0;
    EXPECT_EQ(0, ubus_lookup_id(k.ctx, "vt", &id));
    EXPECT_EQ(found_id, id);
    EXPECT_EQ("", peer.complaint());
}

TEST(UbusClient, LookupsAndCallsMeetTheirObjects)
{
    site::bus_daemon daemon;
    const auto echo = [](std::string_view values) { return site::bus_reply{0, std::string(values)}; };
    const auto slow = [](std::string_view /*values*/) {
        usleep(200000);
        return site::bus_reply{0, bus::int32_value("late", 1)};
    };
    daemon.offer("vela.a", {{"echo", echo}, {"slow", slow}, {"fail", [](auto) { return site::bus_reply{6, {}}; }}});
    daemon.offer("vela.b", {});
    daemon.start();
    const client k(nullptr); // the default path
    ASSERT_NE(nullptr, k.ctx);

    static std::vector<std::string> seen;
    static int depth;
    const auto note = [](ubus_context *ctx, ubus_object_data *object, void *priv) {
        EXPECT_EQ(1, ++depth) << "the next match waits";
        uint32_t id = 0; // a request within a request
        EXPECT_EQ(0, ubus_lookup_id(ctx, object->path, &id));
        EXPECT_EQ(object->id, id);
        EXPECT_NE(nullptr, object->signature);
        seen.emplace_back(object->path);
        if (seen.back() == "vela.a") *static_cast<uint32_t *>(priv) = id;
        --depth;
    };
    uint32_t id = 0;
    EXPECT_EQ(0, ubus_lookup(k.ctx, "vela.*", note, &id));
    EXPECT_EQ(0, ubus_lookup(k.ctx, nullptr, note, &id));
    EXPECT_THAT(seen, ElementsAre("vela.a", "vela.b", "vela.a", "vela.b"));
    EXPECT_EQ(4, ubus_lookup(k.ctx, "none.*", note, &id));
    EXPECT_EQ(2, ubus_lookup(k.ctx, "", note, &id));

    std::string reply;
    EXPECT_EQ(0, ubus_invoke(k.ctx, id, "echo", nullptr, keep, &reply, 0));
    EXPECT_EQ("", reply);
    EXPECT_EQ(6, ubus_invoke(k.ctx, id, "fail", nullptr, keep, &reply, 1000));
    EXPECT_EQ(3, ubus_invoke(k.ctx, id, "none", nullptr, nullptr, nullptr, 1000));
    EXPECT_EQ(4, ubus_invoke(k.ctx, id + 1, "echo", nullptr, nullptr, nullptr, 1000));
    EXPECT_EQ(7, ubus_invoke(k.ctx, id, "slow", nullptr, keep, &reply, 50));
    usleep(300000); // its answer comes now, to nobody

    // As large as a frame may be, and larger; in many pieces each way, among signals.
    const signal_storm storm;
    blob_buf b{};
    for (const size_t over : {0U, 4U}) {
        blob_buf_init(&b, 0);
        const std::string text((1 << 20) - 4 - 8 - 12 - 4 - 8 - 4 + over, 't');
        blobmsg_add_string(&b, "t", text.c_str());
        reply.clear();
        EXPECT_EQ(over ? 2 : 0, ubus_invoke(k.ctx, id, "echo", b.head, keep, &reply, 5000)) << over;
        EXPECT_TRUE(reply == (over ? "" : payload(b.head)));
    }
    blob_buf_free(&b);
    EXPECT_STREQ("Not found", ubus_strerror(4));
    EXPECT_STREQ("Unknown error", ubus_strerror(-1));
    EXPECT_EQ("", daemon.complaint());
}

TEST(UbusClient, AStoppedBusHoldsNobodyForLong)
{
    site::bus_daemon daemon(path);
    daemon.offer("vt", {});
    daemon.start();
    const client k;
    ASSERT_NE(nullptr, k.ctx);
    daemon.pause();
    uint32_t id = 0;
    const signal_storm storm;
    EXPECT_THAT(seconds_of([&] { EXPECT_EQ(7, ubus_lookup_id(k.ctx, "vt", &id)); }), a_few);
    EXPECT_THAT(seconds_of([] { EXPECT_EQ(nullptr, ubus_connect(path)); }), a_few) << "accepted by the kernel";

    std::vector<int> backlog; // full: connecting itself waits
    for (int n = 0; n < 64; ++n) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        backlog.push_back(fd);
        const sockaddr_un address{AF_UNIX, "/tmp/bus.sock"};
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) < 0) break;
    }
    EXPECT_THAT(seconds_of([] { EXPECT_EQ(nullptr, ubus_connect(path)); }), a_few) << "not even accepted";
    for (const int fd : backlog) close(fd);
    daemon.resume();
    EXPECT_EQ(0, ubus_lookup_id(k.ctx, "vt", &id)) << "the late answer is passed over";
}

TEST(UbusClient, AFrameThatStopsHalfwayEndsTheConnection)
{
    const std::string call = bus::frame(bus::invoke, 1, found_id,
                                        bus::attr(bus::a_objid, found_id) + bus::text(bus::a_method, "m") +
                                            bus::attr(bus::a_data, std::string_view{}));
    const site::bus_script peer(
        path, {{step::send, hello}, {step::expect, call}, {step::send, found.substr(0, 30)}, {step::hang, ""}});
    const client k;
    ASSERT_NE(nullptr, k.ctx);
    const auto invoke = [&] { EXPECT_EQ(10, ubus_invoke(k.ctx, found_id, "m", nullptr, nullptr, nullptr, 0)); };
    EXPECT_THAT(seconds_of(invoke), a_few) << "although the call itself has no limit";
    EXPECT_EQ(1, losses);
}

TEST(UbusStats, FieldsComeFromTheReplyOrTakeTheirDefaults)
{
    const auto parse = [](std::string payload, mgragent_ap_stats &stats) {
        const std::string msg = bus::attr(7, payload);
        return mgragent_stats_parse_ap_stats(&stats, reinterpret_cast<const blob_attr *>(msg.data()));
    };
    mgragent_ap_stats stats;
    const auto number = [&](size_t i) { return reinterpret_cast<const uint32_t *>(&stats)[i]; };
    constexpr const char *names[] = {"satisfaction",   "num_satisfaction_sta", "wifi_tx_lat_avg", "rx_tcp_lat_avg",
                                     "tx_tcp_lat_avg", "client_signal_avg",    "tx_rate_avg",     "rx_rate_avg",
                                     "rxtx_tp_avg",    "phy_link_speed"};
    static_assert(sizeof stats == sizeof(uint32_t) * std::size(names));

    // All ten, and one at a time: 64-bit ones lose their upper half, the others take their defaults.
    std::string all;
    for (size_t i = 0; i < std::size(names); ++i) {
        const bool is_long = i > 1 && i < 9;
        const auto value = is_long ? bus::int64_value(names[i], (uint64_t{1} << 32) + i + 5)
                                   : bus::int32_value(names[i], static_cast<uint32_t>(i + 5));
        const auto other_type = is_long ? bus::int32_value(names[i], 99) : bus::int64_value(names[i], 99);
        all += value;
        ASSERT_EQ(0, parse(value, stats)) << names[i];
        for (size_t j = 0; j < std::size(names); ++j) {
            EXPECT_EQ(j == i ? i + 5 : (j == 0 || j == 9 ? UINT32_MAX : 0), number(j)) << names[i] << ' ' << names[j];
        }
        ASSERT_EQ(0, parse(other_type, stats));
        EXPECT_NE(99U, number(i)) << names[i] << " of another type";
    }
    ASSERT_EQ(0, parse(all, stats));
    for (size_t i = 0; i < std::size(names); ++i) EXPECT_EQ(i + 5, number(i)) << names[i];

    log_lines log;
    memset(&stats, 0x5a, sizeof stats);
    EXPECT_EQ(-1, parse("", stats));
    EXPECT_EQ(-1, parse(all + bus::value(bus::int32, "satisfaction", "1"), stats));
    EXPECT_EQ(-1, mgragent_stats_parse_ap_stats(&stats, nullptr));
    const auto line = [](const char *text) {
        return log_line{"error", "ubus_mgragent_stats", "mgragent_stats_parse_ap_stats", text};
    };
    const auto failed = line("Failed to parse satisfaction");
    EXPECT_THAT(log.take(), ElementsAre(failed, failed, failed));
    for (size_t i = 0; i < std::size(names); ++i) EXPECT_EQ(0x5a5a5a5aU, number(i)) << "untouched on failure";
    EXPECT_EQ(-1, mgragent_stats_parse_ap_stats(nullptr, nullptr));
    EXPECT_THAT(log.take(), ElementsAre(line("Satisfaction is NULL")));
}
