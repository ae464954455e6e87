#include "tests/support/bus.h"
#include "tests/support/faults.h"
#include "tests/support/log_lines.h"
#include "tests/support/signal_storm.h"
#include "tests/support/table.h"

#include <fcntl.h>
#include <libubus.h>
#include <malloc.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <vela/core/log.h>

namespace bus = site::bus;
using site::bus_script;
using site::talk;
using step = bus_script::step;
using testing::ElementsAre;

namespace
{

constexpr const char *no_bus = "Failed to connect to ubus";
#ifdef LIBUBUS_STAND_IN
constexpr bool stand_in = true;
#else
constexpr bool stand_in = false;
#endif
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

int connects = 0, closes = 0;
void count_connect(vela_ubus_interface_t * /*iface*/) { ++connects; }
void count_close(vela_ubus_interface_t * /*iface*/) { ++closes; }

class Ubus : public bus_test
{
protected:
    void SetUp() override
    {
        bus_test::SetUp();
        daemon->offer("vt", {{"echo", [](auto values) { return site::bus_reply{0, {std::string(values)}}; }}});
        daemon->offer("vu", {});
    }
};

} // namespace

TEST_F(Ubus, WhatIsMissingIsRefusedAndLookupsStoreWhatTheyFind)
{
    log_lines log;
    EXPECT_EQ(nullptr, vela_ubus_create(nullptr, path, "vt", 2, nullptr, nullptr));
    EXPECT_EQ(nullptr, vela_ubus_create(base, nullptr, "vt", 2, nullptr, nullptr));
    EXPECT_EQ(nullptr, vela_ubus_create(base, path, nullptr, 2, nullptr, nullptr));
    EXPECT_EQ(3U, log.take().size());
    EXPECT_EQ(nullptr, open()) << "without a bus";
    EXPECT_THAT(log.take(), ElementsAre(log_line{"error", "libvela_ubus", "vela_ubus_create", no_bus}));
    {
        const bus_script secretive(path, talk({hello, lookup, ok}));
        EXPECT_EQ(-ENOSYS, vela_ubus_find_service(open(1, count_connect))) << "it is there, but shows nothing";
    }
    vela_ubus_shutdown();
    connects = 0;

    daemon->start();
    const iface_ptr iface = open(1, count_connect);
    ASSERT_NE(nullptr, iface);
    EXPECT_EQ(1, connects);
    EXPECT_EQ(0U, iface->id) << "flag 1: no lookup";
    EXPECT_EQ(FD_CLOEXEC, fcntl(iface->ctx->sock.fd, F_GETFD));
    EXPECT_EQ(0, vela_ubus_find_service(iface));
    const uint32_t vt = std::exchange(iface->id, 0);
    EXPECT_EQ(0, vela_ubus_find_object(iface, "vu"));
    const uint32_t vu = iface->id;
    EXPECT_NE(vt, vu);
    EXPECT_EQ(-ENOSYS, vela_ubus_find_object(iface, "nosuch"));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(iface, ""));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(iface, nullptr));
    iface->service = nullptr;
    EXPECT_EQ(-EINVAL, vela_ubus_find_service(iface));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(iface, "vt"));
    EXPECT_EQ(-EINVAL, vela_ubus_find_object(nullptr, "vt"));
    EXPECT_EQ(vu, iface->id);
}

TEST_F(Ubus, ARecordWaitsForItsBusAndRegainsIt)
{
    log_lines log;
    const iface_ptr iface = open(2, count_connect, count_close);
    ASSERT_NE(nullptr, iface);
    EXPECT_EQ(-EINVAL, vela_ubus_find_service(iface));
    vela_ubus_close(open(2, count_connect, count_close));
    EXPECT_EQ(0, closes) << "there was no connection to close";
    EXPECT_FALSE(runs_until([&] { return iface->ctx; }, retry_ms));
    daemon->start();
    EXPECT_TRUE(runs_until([] { return connects == 1; }));
    EXPECT_THAT(log.texts(), ElementsAre(no_bus, no_bus, "Failed to connect, trying again in 1s", "Reconnected!"));
    ubus_context *const ctx = iface->ctx;
    const uint32_t first_id = iface->id;
    EXPECT_NE(0U, first_id);

    daemon->kill();
    EXPECT_EQ(-ENOSYS, vela_ubus_find_service(iface)) << "and this process lives";
    EXPECT_TRUE(runs_until([&] { return iface->timer; }));
    EXPECT_EQ(nullptr, iface->read_event) << "the dead socket would keep the loop busy";
    EXPECT_FALSE(runs_until([&] { return iface->read_event; }, retry_ms));
    daemon->start();
    EXPECT_TRUE(runs_until([&] { return iface->read_event; }, 2000));
    EXPECT_EQ(nullptr, iface->timer);
    EXPECT_THAT(log.texts(), ElementsAre("ubus connection lost, reconnecting...",
                                         "Failed to reconnect, trying again in 1s", "Reconnected!"));
    EXPECT_EQ(ctx, iface->ctx);
    EXPECT_EQ(1, connects) << "the same context is no fresh connection";
    EXPECT_EQ(first_id, iface->id) << "stale, until it is looked up";
    EXPECT_EQ(0, vela_ubus_find_service(iface));
    EXPECT_NE(first_id, iface->id);

    ctx->connection_lost(nullptr); // whoever it was
    EXPECT_NE(nullptr, iface->timer);
    EXPECT_EQ(nullptr, iface->read_event);
    EXPECT_TRUE(runs_until([&] {
        if (iface->timer) ctx->connection_lost(ctx);
        log.take();
        return iface->read_event;
    })) << "told again and again";
}

TEST_F(Ubus, ABusThatDiesAnywhereIsRegained)
{
    // By turns with what was asked; the last of them is nonsense.
    const std::vector<std::string> last_words[] = {{},
                                                   {hello.substr(0, 5)},
                                                   {hello},
                                                   {hello, lookup},
                                                   {hello, lookup, found.substr(0, 30)},
                                                   {hello + found.substr(0, 7), lookup},
                                                   {hello, lookup, found},
                                                   {hello, lookup, found + ok},
                                                   {hello + "\1" + hello.substr(1)}};
    std::vector<iface_ptr> records;
    for (const auto &turns : last_words) {
        const bus_script peer(path, talk(turns, step::die));
        records.push_back(open(2, count_connect, count_close));
        ASSERT_NE(nullptr, records.back());
        EXPECT_TRUE(runs_until([&] { return records.back()->timer; })) << records.size();
        EXPECT_EQ(nullptr, records.back()->read_event) << records.size();
    }
    daemon->start();
    for (const iface_ptr iface : records) {
        EXPECT_TRUE(runs_until([&] { return iface->read_event; }));
        EXPECT_EQ(0, vela_ubus_find_service(iface));
    }
}

TEST_F(Ubus, CallbacksMayCloseAnyRecord)
{
    daemon->start();
    EXPECT_EQ(nullptr, open(0, vela_ubus_close, count_close));
    EXPECT_EQ(1, closes);

    static iface_ptr other;
    const auto close_both = [](iface_ptr iface) {
        ++closes;
        vela_ubus_close(iface); // once more
        vela_ubus_close(std::exchange(other, nullptr));
    };
    ASSERT_NE(nullptr, open(0, nullptr, close_both));
    other = open(0, nullptr, count_close);
    ASSERT_NE(nullptr, open(0, nullptr, count_close));
    vela_ubus_shutdown();
    EXPECT_EQ(4, closes);

    daemon->kill();
    connects = 0;
    const auto replace = [](iface_ptr old) {
        event_base *const same = old->base;
        vela_ubus_close(old);
        EXPECT_NE(nullptr, vela_ubus_create(same, path, "vt", 0, count_connect, count_close));
    };
    ASSERT_NE(nullptr, open(2, replace, nullptr));
    daemon->start();
    EXPECT_TRUE(runs_until([] { return connects == 1; })) << "in the retry, of the record it runs for";
    vela_ubus_close(nullptr);
}

TEST_F(Ubus, ReconnectionsAndRefusedMemoryLeaveNothingBehind)
{
    daemon->start();
    libvela_log_env_ready = 1; // not a word: a line that cannot be formatted would end the process
    libvela_log_level = 0;
    const json args{json_pack("{s:[s,b]}", "a", "b", 1)};
    const auto do_all = [&] {
        const iface_ptr iface = open();
        for (int i = 0; i < 1000; ++i) {
            shutdown(iface->ctx->sock.fd, SHUT_RDWR);
            event_base_loop(base, EVLOOP_ONCE);
            ASSERT_NE(nullptr, iface->timer);
            event_active(iface->timer, EV_TIMEOUT, 1); // a second later
            while (iface->timer) event_base_loop(base, EVLOOP_ONCE);
            ASSERT_EQ(0, vela_ubus_find_service(iface));
        }
        vela_ubus_close(iface);
        if (!faults::can_refuse_memory || !stand_in) return; // libubox does not survive it
        faults::for_each_allocation([&] {
            const iface_ptr whole = open();
            EXPECT_TRUE(!whole || whole->read_event) << "none, or a whole one";
            const auto ignore = [](iface_ptr, const char *, const json_t *, void *) {};
            (void)vela_ubus_subscribe(whole, "vu", ignore, nullptr);
            (void)vela_ubus_call(whole, "echo", args.get(), nullptr, 0);
            vela_ubus_close(whole);
        });
    };
    do_all(); // and what is allocated only once
    const size_t heap = mallinfo2().uordblks;
    do_all();
    if (stand_in) EXPECT_EQ(heap, mallinfo2().uordblks); // calloc() leaves what libubus gave back to malloc()
}

#ifdef LIBUBUS_STAND_IN // libubus waits for the rest of a frame without a limit, and goes on out of step
TEST_F(Ubus, BytesAreTakenInWhateverShapeTheyCome)
{
    const auto odd = [](std::string frame, size_t at, char with) {
        frame[at] = with;
        return frame;
    };
    const auto data = [](const std::string &attributes) { return bus::frame(bus::data, 1, 0, attributes); };
    const auto call = [](const std::string &attributes) { return bus::frame(bus::invoke, 7, 4096, attributes); };
    const auto status = [](uint32_t n, const std::string &attributes) {
        return bus::frame(bus::status, 7, 4096, bus::attr(bus::a_status, n) + attributes);
    };
    const std::string strangers = bus::frame(bus::data, 9, 0, bus::attr(bus::a_objid, 1)) + // of another request
                                  bus::frame(bus::status, 1, 5, bus::attr(bus::a_status, 5)) + bus::frame(99, 1, 0);
    const std::string id = bus::attr(bus::a_objid, found_id);
    const std::string open_end = ok.substr(0, 11); // without its length
    constexpr uint32_t none = 1;                   // as it was
    constexpr int refused = -1;                    // the greeting
    const struct {
        const char *what;
        std::vector<std::string> turns;
        int status; // 10: the connection is given up
        uint32_t id = none;
    } cases[] = {
        {"half a greeting", {hello.substr(0, 11)}, refused},
        {"one of another version", {odd(hello, 0, 1)}, refused},
        {"one without an id", {odd(odd(odd(odd(hello, 4, 0), 5, 0), 6, 0), 7, 0)}, refused},
        {"another message", {odd(hello, 1, 1)}, refused},
        {"captured, among others", {hello, lookup, strangers + found + strangers + ok}, 0, found_id},
        {"an id in the outer header", {hello, lookup, odd(found, 8, '\x8f') + ok}, 0, found_id},
        {"no match", {hello, lookup, odd(ok, 19, 4)}, 4},
        {"repeated", {hello, lookup, data(bus::attr(77, 1) + bus::attr(bus::a_objid, 7) + id) + ok}, 0, found_id},
        {"one of three bytes counts as none", {hello, lookup, data(id + bus::attr(3, "abc")) + ok}, 0, found_id},
        {"a cut attribute", {hello, lookup, data(id + bus::bytes("03 00 00 09 00 00 00 01")) + ok}, 0, found_id},
        {"a body that is not whole words", {hello, lookup, open_end + bus::bytes("05 00")}, 12},
        {"a megabyte", {hello, lookup, data(bus::attr(9, std::string((1 << 20) - 8, 'x'))) + found + ok}, 0, found_id},
        {"another version", {hello, lookup, odd(found, 0, 1) + ok}, 10},
        {"a body of 3 bytes", {hello, lookup, open_end + '\3'}, 10},
        {"beyond a megabyte", {hello, lookup, ok.substr(0, 8) + bus::bytes("00 10 00 04")}, 10},
        {"a greeting with a body", {bus::frame(bus::hello, 0, 0x9a449996, id), lookup, found + ok}, 0, found_id},
        {"a call to us is answered", {hello, lookup, call(id) + found + ok, status(4, id)}, 0, found_id},
        {"unless it wants none", {hello, lookup, call(bus::attr(10, {"\1", 1})) + call("") + ok, status(2, "")}, 0},
    };
    for (const auto &c : cases) {
        const auto how = c.turns.back().size() > 1000 ? step::send : step::crumbs;
        const bus_script peer(path, talk(c.turns, c.status == refused ? step::die : step::hang, how));
        const iface_ptr iface = open(VELA_UBUS_NO_LOOKUP);
        ASSERT_EQ(c.status == refused, !iface) << c.what;
        if (!iface) continue;
        ubus_context *const ctx = iface->ctx;
        EXPECT_EQ(0, memcmp(&ctx->local_id, &hello[4], 4)) << "as on the wire";
        static int losses;
        losses = 0;
        ctx->connection_lost = [](ubus_context *) { ++losses; };
        ctx->answer_ms = 5000;
        uint32_t result = none;
        EXPECT_EQ(c.status, ubus_lookup_id(ctx, "vt", &result)) << c.what;
        EXPECT_EQ(c.id, result) << c.what;
        EXPECT_EQ(c.status == 10 ? 1 : 0, losses) << c.what;
        ctx->sock.cb(&ctx->sock, ULOOP_READ); // calls to us are answered now; a loss is told again
        EXPECT_EQ(c.status == 10 ? 2 : 0, losses) << c.what;
        if (losses != 0) EXPECT_EQ(2, ubus_lookup_id(ctx, "vt", &result)) << c.what;
        EXPECT_EQ("", peer.complaint()) << c.what;
        vela_ubus_close(iface);
    }
    EXPECT_EQ(nullptr, vela_ubus_create(base, std::string(108, 'x').c_str(), "vt", 0, nullptr, nullptr));
}

#endif

TEST_F(Ubus, NoBusHoldsAnybodyForLong)
{
    const auto a_few = testing::AllOf(testing::Ge(2.9), testing::Le(6));
    daemon->start();
    const iface_ptr iface = open();
    ASSERT_NE(nullptr, iface);
    daemon->pause();
    const signal_storm storm;
    EXPECT_THAT(seconds([&] { EXPECT_EQ(-ENOSYS, vela_ubus_find_service(iface)); }), a_few);
    EXPECT_THAT(seconds([&] { EXPECT_FALSE(open()) << "accepted by the kernel"; }), a_few);
    std::vector<int> backlog; // full: connecting itself waits
    const sockaddr_un address{AF_UNIX, "/tmp/bus.sock"};
    do {
        backlog.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    } while (connect(backlog.back(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0);
    EXPECT_THAT(seconds([&] { EXPECT_FALSE(open()) << "not even accepted"; }), a_few);
    for (const int fd : backlog) close(fd);
    daemon->resume();
    EXPECT_EQ(0, vela_ubus_find_service(iface)) << "the late answer is passed over";
}

TEST_F(Ubus, ADaemonThatSaysNothingDoesNotHoldTheLoop)
{
    const std::vector<std::string> words[] = {{}, {hello.substr(0, 5)}};
    for (const auto &turns : words) {
        daemon->start();
        const iface_ptr iface = open();
        ASSERT_NE(nullptr, iface);
        daemon->kill();
        const bus_script silent(path, talk(turns));
        double longest = 0;
        EXPECT_FALSE(runs_until(
            [&] {
                longest = std::max(longest, seconds([&] { event_base_loop(base, EVLOOP_NONBLOCK); }));
                return !iface->timer;
            },
            3000));
        EXPECT_LT(longest, 1) << turns.size();
        EXPECT_EQ(-ENOTCONN, vela_ubus_call(iface, "echo", nullptr, nullptr, 0));
        vela_ubus_close(iface);
    }
}
