// Rules of stations on a real kernel's traffic control: what `tc` says of them, and what gets through. The station is
// the far end of a pair of virtual cables, in a network of its own.
#include "tests/support/json.h"
#include "tests/wifi/machine.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vela/core/internal/own.h>
#include <vela/wireless/qos.h>

using testing::AllOf;
using testing::HasSubstr;

namespace
{

using clock_type = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint8_t far_mac[6] = {2, 0, 0, 0, 0, 0x0f};

/// A socket in the far network, or in this one.
vela::unique_fd open_socket(bool far, int type)
{
    vela::unique_fd fd;
    std::thread([&] {
        const vela::unique_fd there{open("/run/netns/far", O_RDONLY | O_CLOEXEC)};
        if (far && setns(there.get(), CLONE_NEWNET) != 0) return;
        fd.reset(socket(AF_INET, type | SOCK_CLOEXEC, 0));
    }).join();
    return fd;
}

sockaddr_in address_at(bool far, uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, far ? "10.9.0.2" : "10.9.0.1", &address.sin_addr);
    return address;
}

/// Counts what a socket receives until it is closed down.
class counter
{
public:
    explicit counter(int fd) : fd_{fd}, thread_{[this] { run(); }} {}
    counter(const counter &) = delete;
    counter &operator=(const counter &) = delete;
    ~counter()
    {
        done_ = true;
        thread_.join();
    }
    /// kbit/s over a time, of whole packets with `overhead` bytes around what is received.
    double rate_kbps(std::chrono::milliseconds over, double overhead)
    {
        const auto bytes = [&] { return static_cast<double>(bytes_) + overhead * static_cast<double>(packets_); };
        const double before = bytes();
        const auto begin = clock_type::now();
        std::this_thread::sleep_for(over);
        const std::chrono::duration<double, std::milli> taken = clock_type::now() - begin;
        return (bytes() - before) * 8 / taken.count();
    }

private:
    void run()
    {
        const timeval patience = {0, 100000};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        static thread_local char block[65536];
        while (!done_) {
            const ssize_t n = recv(fd_, block, sizeof block, 0);
            if (n <= 0) continue;
            bytes_ += n;
            ++packets_;
        }
    }
    int fd_;
    std::atomic<int64_t> bytes_ = 0, packets_ = 0;
    std::atomic<bool> done_ = false;
    std::thread thread_;
};

class Qos : public testing::Test
{
protected:
    vela_qos_rule rule = {.mac = {2, 0, 0, 0, 0, 0x0f}, .priority = -1};

    Qos()
    {
        site::run("mkdir -p /run/netns; ip netns add far");
        site::run("ip link add q0 type veth peer name q1 netns far address 02:00:00:00:00:0f");
        site::run("ip addr add 10.9.0.1/24 dev q0; ip link set q0 up");
        site::run("ip -n far addr add 10.9.0.2/24 dev q1; ip -n far link set q1 up");
    }
    ~Qos() override { site::run("ip link del q0; ip netns del far"); }

    static std::string tc(const std::string &arguments) { return site::output_of("tc " + arguments + " 2>&1"); }
    static std::string rules()
    {
        vela::json_ref list{vela_qos_json("q0")};
        for (size_t i = 0; i < json_array_size(list.get()); ++i) { // counters are another matter
            for (const char *key : {"to_bytes", "to_drops", "from_bytes", "from_drops"}) {
                json_object_del(json_array_get(list.get(), i), key);
            }
        }
        return dumped(list);
    }
    /// What arrives of a UDP flood while a rule is in force, behind its burst.
    static double flood_kbps(bool towards_far)
    {
        const vela::unique_fd sink = open_socket(towards_far, SOCK_DGRAM),
                              source = open_socket(!towards_far, SOCK_DGRAM);
        const sockaddr_in to = address_at(towards_far, 5000);
        EXPECT_EQ(0, bind(sink.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to));
        EXPECT_EQ(0, connect(source.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to));
        std::atomic<bool> done = false;
        std::thread flood([&] {
            char packet[1400] = {};
            for (auto next = clock_type::now(); !done; next += 1ms) { // 22 Mbit/s, where the machine is fast enough
                (void)!send(source.get(), packet, sizeof packet, 0);
                (void)!send(source.get(), packet, sizeof packet, 0);
                std::this_thread::sleep_until(next);
            }
        });
        counter received(sink.get());
        std::this_thread::sleep_for(1s); // 200 ms of the rate pass at once
        const double kbps = received.rate_kbps(4s, 14 + 20 + 8);
        done = true;
        flood.join();
        return kbps;
    }
};

} // namespace

TEST_F(Qos, AgreesWithTcAndChangesOnlyWhatIsNew)
{
    EXPECT_EQ("[]", rules());
    EXPECT_EQ(0, vela_qos_clear("q0", nullptr)) << "no queue yet";
    rule.priority = 5;
    rule.to_station_kbps = 5000;
    rule.from_station_kbps = 20000;
    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    EXPECT_EQ(R"([{"from_station_kbps":20000,"mac":"02:00:00:00:00:0f","priority":5,"to_station_kbps":5000}])",
              rules());
    const std::string egress = tc("filter show dev q0 egress"), ingress = tc("filter show dev q0 ingress");
    EXPECT_THAT(egress, AllOf(HasSubstr("pref 22092 flower"), HasSubstr("dst_mac 02:00:00:00:00:0f"),
                              HasSubstr("skbedit  priority :105 pipe"), HasSubstr("rate 5Mbit burst 128Kb"),
                              HasSubstr("mtu 64Kb action drop/continue")));
    EXPECT_THAT(ingress, AllOf(HasSubstr("src_mac 02:00:00:00:00:0f"), HasSubstr("rate 20Mbit burst 500000b"),
                               testing::Not(HasSubstr("skbedit"))));

    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    EXPECT_EQ(egress, tc("filter show dev q0 egress")) << "not even made anew: the action has its number";
    rule.to_station_kbps = 0; // the priority stays
    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    EXPECT_EQ(R"([{"from_station_kbps":20000,"mac":"02:00:00:00:00:0f","priority":5}])", rules());
    EXPECT_EQ(ingress, tc("filter show dev q0 ingress"));
    rule.priority = -1;
    rule.from_station_kbps = 0;
    ASSERT_EQ(0, vela_qos_set("q0", &rule)) << "nothing is wanted any more";
    EXPECT_EQ("[]", rules());
    EXPECT_THAT(tc("qdisc show dev q0"), HasSubstr("clsact"));
}

TEST_F(Qos, HealsAndLeavesForeignFiltersAlone)
{
    rule.to_station_kbps = rule.from_station_kbps = 1000;
    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    const auto foreign = [] { return tc("filter show dev q0 egress pref 7"); };
    ASSERT_EQ("", tc("filter add dev q0 egress pref 7 protocol ip flower dst_ip 10.9.0.2 action skbedit mark 1"));
    const std::string before = foreign();

    // Killed in the middle, and changed by another program.
    tc("filter del dev q0 ingress pref 22092");
    EXPECT_EQ(R"([{"mac":"02:00:00:00:00:0f","to_station_kbps":1000}])", rules());
    tc("filter replace dev q0 egress handle 1 pref 22092 protocol all flower dst_mac 02:00:00:00:00:0f action police "
       "rate "
       "1mbit burst 9k conform-exceed drop/pass");
    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    EXPECT_EQ(R"([{"from_station_kbps":1000,"mac":"02:00:00:00:00:0f","to_station_kbps":1000}])", rules());
    EXPECT_THAT(tc("filter show dev q0 egress pref 22092"), HasSubstr("burst 128Kb"));

    // Another program holds the priority on one side, for IPv4 only: that direction fails, and the other is as before.
    vela_qos_rule other = {.mac = {2, 0, 0, 0, 0, 1}, .priority = -1, .to_station_kbps = 64, .from_station_kbps = 64};
    tc("filter del dev q0 ingress pref 22092");
    ASSERT_EQ("", tc("filter add dev q0 ingress pref 22092 protocol ip flower dst_ip 10.9.0.1 action skbedit mark 1"));
    const std::string kept = rules();
    EXPECT_EQ(-EINVAL, vela_qos_set("q0", &other));
    EXPECT_EQ(kept, rules());
    rule.to_station_kbps = 2000;
    EXPECT_EQ(-EINVAL, vela_qos_set("q0", &rule));
    EXPECT_EQ(kept, rules());

    EXPECT_EQ(0, vela_qos_clear("q0", other.mac));
    EXPECT_EQ(0, vela_qos_clear("q0", nullptr));
    EXPECT_EQ("[]", rules());
    EXPECT_EQ(before, foreign());

    site::run("tc qdisc del dev q0 clsact; tc qdisc add dev q0 ingress");
    EXPECT_EQ(-EBUSY, vela_qos_set("q0", &rule)) << "the older queue would take a filter of either side for both";
}

TEST_F(Qos, TwoHundredAndFiftySixRules)
{
    rule.from_station_kbps = 64;
    for (int n = 0; n < VELA_QOS_RULES_MAX; ++n) {
        rule.mac[4] = static_cast<uint8_t>(n);
        ASSERT_EQ(0, vela_qos_set("q0", &rule)) << n;
    }
    rule.mac[3] = 1;
    EXPECT_EQ(-ENOSPC, vela_qos_set("q0", &rule));
    rule.mac[3] = 0;
    rule.from_station_kbps = 4000000;
    EXPECT_EQ(0, vela_qos_set("q0", &rule)) << "one that is there";
    EXPECT_EQ(VELA_QOS_RULES_MAX, vela_qos_foreach(
                                      "q0", [](const vela_qos_rule *, void *) { return 0; }, nullptr));
    EXPECT_EQ(0, vela_qos_clear("q0", rule.mac));
    EXPECT_EQ(1, vela_qos_foreach(
                     "q0", [](const vela_qos_rule *, void *) { return 1; }, nullptr))
        << "told to stop";
    EXPECT_EQ(0, vela_qos_clear("q0", nullptr));
    EXPECT_EQ("[]", rules());
}

TEST_F(Qos, LimitsHoldInBothDirections)
{
    rule.to_station_kbps = rule.from_station_kbps = 5000;
    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    for (const bool towards_far : {true, false}) {
        const double kbps = flood_kbps(towards_far);
        machine::tell("%s the station: %.0f of 5000 kbit/s", towards_far ? "to" : "from", kbps);
        EXPECT_NEAR(5000, kbps, 500) << (towards_far ? "to" : "from");
    }
    vela_qos_rule counted = {};
    const auto take = [](const vela_qos_rule *r, void *out) { return *static_cast<vela_qos_rule *>(out) = *r, 0; };
    EXPECT_EQ(1, vela_qos_foreach("q0", take, &counted));
    EXPECT_GT(counted.to_drops, 100U);
    EXPECT_GT(counted.from_drops, 100U);
    EXPECT_GT(counted.to_bytes, 3000000U);
    EXPECT_THAT(tc("-s filter show dev q0 egress"), HasSubstr("dropped " + std::to_string(counted.to_drops)));
}

TEST_F(Qos, OneTcpFlowReachesItsLimit)
{
    rule.to_station_kbps = 5000;
    ASSERT_EQ(0, vela_qos_set("q0", &rule));
    const vela::unique_fd listener = open_socket(true, SOCK_STREAM), source = open_socket(false, SOCK_STREAM);
    const sockaddr_in to = address_at(true, 5001);
    ASSERT_EQ(0, bind(listener.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to));
    ASSERT_EQ(0, listen(listener.get(), 1));
    ASSERT_EQ(0, connect(source.get(), reinterpret_cast<const sockaddr *>(&to), sizeof to));
    const vela::unique_fd sink{accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC)};
    std::thread flow([&] {
        static char block[65536];
        while (send(source.get(), block, sizeof block, MSG_NOSIGNAL) > 0) {}
    });
    {
        counter received(sink.get());
        std::this_thread::sleep_for(2s);
        const double kbps = received.rate_kbps(6s, 0);
        machine::tell("one TCP flow: %.0f of 5000 kbit/s", kbps);
        EXPECT_GT(kbps, 0.85 * 5000);
        EXPECT_LT(kbps, 1.1 * 5000);
    }
    shutdown(source.get(), SHUT_RDWR);
    flow.join();
}
