#include "tests/support/bus.h"
#include "tests/support/table.h"

namespace bus = site::bus;
using site::bus_action;
using site::bus_reply;
using testing::ElementsAre, testing::IsEmpty;

namespace
{

/// A method whose call makes the daemon do something.
site::bus_method doing(bus_action action)
{
    return [action](std::string_view) { return bus_reply{0, {}, {action}}; };
}

std::vector<std::string> heard;
void hear(vela_ubus_interface_t * /*iface*/, const char *name, const json_t *data, void *arg)
{
    heard.push_back(std::string(arg ? static_cast<const char *>(arg) : "") + name + text_of(data));
}

class UbusListen : public bus_test
{
protected:
    iface_ptr iface = nullptr;
    char second[3] = "2 ";

    void SetUp() override
    {
        bus_test::SetUp();
        const std::string n7 = bus::int32_value("n", 7);
        daemon->offer("vt", {{"ifup", doing({bus_action::event, "vt", "network.interface", n7})},
                             {"other", doing({bus_action::event, "vt", "other", n7})},
                             {"broken", doing({bus_action::event, "vt", "other", bus::value(bus::int32, "n", "1")})},
                             {"tell", doing({bus_action::notify, "vu", "outlet", n7})},
                             {"hide", doing({bus_action::remove, "vu"})},
                             {"show", doing({bus_action::add, "vu"})}});
        daemon->offer("vu", {});
        daemon->start();
        heard.clear();
        iface = open();
        ASSERT_NE(nullptr, iface);
    }
    /// What is heard after each of some calls.
    std::vector<std::string> after(std::initializer_list<const char *> methods) const
    {
        for (const char *method : methods) {
            const size_t before = heard.size();
            EXPECT_EQ(0, vela_ubus_call_object(iface, "vt", method, nullptr, nullptr, 0)) << method;
            EXPECT_EQ(before, heard.size()) << "not in the middle of the call";
            event_base_loop(base, EVLOOP_NONBLOCK);
        }
        return std::exchange(heard, {});
    }
};

} // namespace

TEST_F(UbusListen, EventsComeToWhomTheyFit)
{
    vela_ubus_listener *const exact = vela_ubus_listen(iface, "other", hear, nullptr);
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "network.*", hear, second));
    EXPECT_THAT(after({"ifup", "other", "broken"}), ElementsAre(R"(2 network.interface{"n":7})", R"(other{"n":7})"));
    vela_ubus_unlisten(exact);
    vela_ubus_unlisten(nullptr);
    EXPECT_THAT(after({"ifup", "other"}), ElementsAre(R"(2 network.interface{"n":7})"));

    const table<iface_ptr, const char *, vela_ubus_event_callback, int> refused = {
        {nullptr, "other", hear, EINVAL},  {iface, nullptr, hear, EINVAL},     {iface, "", hear, EINVAL},
        {iface, "other", nullptr, EINVAL}, {iface, "forbidden", hear, EACCES},
    };
    for (const auto &[record, pattern, callback, reason] : refused) {
        errno = 0;
        EXPECT_EQ(nullptr, vela_ubus_listen(record, pattern, callback, nullptr));
        EXPECT_EQ(reason, errno);
    }
    for (int i = 1; i < 64; ++i) ASSERT_NE(nullptr, vela_ubus_subscribe(iface, "vu", hear, second)) << i;
    EXPECT_EQ(nullptr, vela_ubus_subscribe(iface, "vu", hear, nullptr));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_THAT(after({"tell"}), testing::AllOf(testing::SizeIs(63), testing::Each(R"(2 outlet{"n":7})")));
}

TEST_F(UbusListen, ASubscriptionFollowsItsObject)
{
    ASSERT_NE(nullptr, vela_ubus_subscribe(iface, "vu", hear, nullptr));
    EXPECT_THAT(after({"tell", "ifup"}), ElementsAre(R"(outlet{"n":7})")) << "there from the beginning: no gap";
    EXPECT_THAT(after({"hide", "tell"}), IsEmpty());
    ASSERT_NE(nullptr, vela_ubus_subscribe(iface, "vu", hear, second));
    EXPECT_THAT(after({"show"}), testing::UnorderedElementsAre("-", "2 -"));
    EXPECT_THAT(after({"tell", "tell"}), testing::SizeIs(4));
    EXPECT_THAT(after({"hide", "show"}), testing::SizeIs(2)) << "once more";
}

TEST_F(UbusListen, ReconnectionsAreToldToAllWhoHeardNothingMeanwhile)
{
    static int reconnections;
    vela_ubus_set_reconnect_cb(iface, [](iface_ptr) { ++reconnections; });
    vela_ubus_set_reconnect_cb(nullptr, nullptr);
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "network.*", hear, nullptr));
    ASSERT_NE(nullptr, vela_ubus_subscribe(iface, "vu", hear, second));
    for (int i = 1; i <= 2; ++i) {
        restart(iface);
        EXPECT_THAT(std::exchange(heard, {}), ElementsAre("-", "2 -"));
        EXPECT_EQ(i, reconnections);
        EXPECT_THAT(after({"ifup", "tell"}), ElementsAre(R"(network.interface{"n":7})", R"(2 outlet{"n":7})"));
    }
    daemon->kill();
    ASSERT_TRUE(runs_until([&] { return iface->timer; }));
    vela_ubus_listener *const gone = vela_ubus_listen(iface, "other", hear, nullptr);
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "other", hear, second));
    vela_ubus_unlisten(gone);
    restart(iface);
    EXPECT_THAT(std::exchange(heard, {}), ElementsAre("-", "2 -", "2 -"));
    EXPECT_THAT(after({"other"}), ElementsAre(R"(2 other{"n":7})"));
}

TEST_F(UbusListen, ACallbackMayDoAnything)
{
    static vela_ubus_listener *listeners[3];
    const auto call_and_end_all = [](iface_ptr record, const char *name, const json_t *, void *) {
        heard.emplace_back(name);
        EXPECT_EQ(0, vela_ubus_call(record, "other", nullptr, nullptr, 0));
        for (auto *&listener : listeners) vela_ubus_unlisten(std::exchange(listener, nullptr));
        EXPECT_NE(nullptr, vela_ubus_listen(record, "other", hear, nullptr)) << "too late for the one before";
    };
    for (auto *&listener : listeners) listener = vela_ubus_listen(iface, "*", call_and_end_all, nullptr);
    EXPECT_THAT(after({"ifup", "other"}), ElementsAre("network.interface", R"(other{"n":7})"));

    const auto close = [](iface_ptr record, const char *name, const json_t *, void *) {
        heard.emplace_back(name);
        vela_ubus_close(record);
    };
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "other", close, nullptr));
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "other", close, nullptr));
    const auto told = after({"other"});
    EXPECT_EQ(1, std::count(told.begin(), told.end(), "other")) << "the record was closed then";

    iface = open();
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "other", close, nullptr));
    ASSERT_NE(nullptr, vela_ubus_listen(iface, "other", close, nullptr));
    daemon->start();
    EXPECT_TRUE(runs_until([] { return !heard.empty(); }));
    EXPECT_THAT(heard, ElementsAre("")) << "closed when the first of them is told of the gap";
}
