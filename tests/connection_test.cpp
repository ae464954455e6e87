// Entries put into this world's own table with conntrack, and listed beside it.
#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/table.h"

#include <arpa/inet.h>
#include <ctime>
#include <gmock/gmock.h>
#include <regex>
#include <sstream>
#include <unistd.h>
#include <vela/monitor/connection.h>

namespace
{

using connections = std::vector<vela_connection>;

int list(const vela_connection_filter *filter, connections &into)
{
    into.clear();
    const auto add = [](const vela_connection *c, void *arg) {
        static_cast<connections *>(arg)->push_back(*c);
        return 0;
    };
    return vela_connection_foreach(filter, add, &into);
}

void insert(const std::string &entries) // the arguments of conntrack, a line each
{
    site::put_file("/tmp/entries", entries);
    ASSERT_EQ(0, site::run("sed 's/^/-A -t 300 /' /tmp/entries >/tmp/lines; conntrack -R /tmp/lines 2>/dev/null"));
}

std::string address(uint32_t family, const uint8_t *bytes)
{
    char text[64];
    return inet_ntop(static_cast<int>(family), bytes, text, sizeof text);
}

/// As conntrack -L -o extended,id writes it, without what only it tells.
std::string as_conntrack(const vela_connection &c)
{
    static const char *const states[] = {"NONE",       "SYN_SENT", "SYN_RECV",  "ESTABLISHED", "FIN_WAIT",
                                         "CLOSE_WAIT", "LAST_ACK", "TIME_WAIT", "CLOSE",       "SYN_SENT2"};
    std::ostringstream line;
    const auto direction = [&](const vela_tuple &t, uint64_t packets, uint64_t bytes) {
        line << " src=" << address(c.family, t.source) << " dst=" << address(c.family, t.destination);
        if (c.protocol == IPPROTO_ICMP || c.protocol == IPPROTO_ICMPV6) {
            line << " type=" << (t.destination_port >> 8) << " code=" << (t.destination_port & 0xff)
                 << " id=" << t.source_port;
        } else if (c.protocol == IPPROTO_TCP || c.protocol == IPPROTO_UDP) {
            line << " sport=" << t.source_port << " dport=" << t.destination_port;
        }
        if (packets != UINT64_MAX) line << " packets=" << packets << " bytes=" << bytes;
    };
    line << (c.family == AF_INET ? "ipv4 " : "ipv6 ") << c.family << " " << c.protocol;
    if (c.tcp_state != UINT32_MAX) line << " " << states[c.tcp_state];
    direction(c.original, c.original_packets, c.original_bytes);
    if (!(c.status & VELA_CONNECTION_SEEN_REPLY)) line << " [UNREPLIED]";
    direction(c.reply, c.reply_packets, c.reply_bytes);
    if (c.status & VELA_CONNECTION_ASSURED) line << " [ASSURED]";
    line << " mark=" << c.mark;
    if (c.zone != 0) line << " zone=" << c.zone;
    line << " id=" << c.id;
    return line.str();
}

constexpr const char *entries =
    "-p tcp -s 10.0.0.1 -d 10.0.0.2 --sport 1000 --dport 80 --state ESTABLISHED -u ASSURED,SEEN_REPLY -m 7\n"
    "-p icmp -s 10.1.0.1 -d 10.1.0.2 --icmp-type 8 --icmp-code 0 --icmp-id 300\n"
    "-p icmpv6 -s fd00::7 -d fd00::8 --icmpv6-type 128 --icmpv6-code 0 --icmpv6-id 78\n"
    "-p udp -s 192.168.1.9 -d 8.8.8.8 -r 8.8.8.8 -q 203.0.113.1 --sport 4000 --dport 53 --reply-port-src 53 "
    "--reply-port-dst 4001 -m 0x1f7\n"
    "-p udp -s 192.168.1.9 -d 8.8.4.4 -n 203.0.113.1 --sport 4000 --dport 54\n"
    "-p tcp -s fd00::1 -d fd00::2 --sport 5 --dport 6 --state LAST_ACK -w 3\n"
    "-p 99 -s 10.9.9.1 -d 10.9.9.3\n";

} // namespace

TEST(Connection, AgreesWithConntrackWithAndWithoutCounters)
{
    for (const std::string on : {"0", "1"}) {
        site::run("cd /proc/sys/net/netfilter; echo " + on + " >nf_conntrack_acct; echo " + on +
                  " >nf_conntrack_timestamp");
        insert(entries);
        std::istringstream lines(site::output_of("conntrack -L -o extended,id 2>/dev/null"));
        std::vector<std::string> expected, seen;
        for (std::string line; std::getline(lines, line);) {
            line = std::regex_replace(line, std::regex(" +"), " ");
            line = std::regex_replace(line, std::regex("^(\\S+ \\d+) \\S+ (\\d+) \\d+"), "$1 $2"); // name, timeout
            expected.push_back(std::regex_replace(line, std::regex(" (use|delta-time)=\\d+"), ""));
        }
        connections ours;
        EXPECT_EQ(7, list(nullptr, ours));
        for (const auto &c : ours) {
            seen.push_back(as_conntrack(c));
            EXPECT_NEAR(298, c.timeout_s, 2);
            if (on == "0") EXPECT_EQ(UINT64_MAX, c.start_ns);
            if (on == "1") EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(c.start_ns) / 1e9, 3);
        }
        EXPECT_THAT(seen, testing::UnorderedElementsAreArray(expected));
        site::run("conntrack -F 2>/dev/null");
    }
}

TEST(Connection, Filters)
{
    insert(entries);
    connections seen;
    const auto filtered = [&seen](uint32_t family, uint32_t protocol, uint32_t mark, uint32_t mask, uint32_t zone,
                                  const char *ip = nullptr) {
        vela_connection_filter f = {family, protocol, mark, mask, zone, {}};
        if (ip) inet_pton(strchr(ip, ':') ? AF_INET6 : AF_INET, ip, f.address);
        return list(&f, seen);
    };
    EXPECT_EQ(7, filtered(0, 0, 0, 0, 0));
    EXPECT_EQ(5, filtered(AF_INET, 0, 0, 0, 0));
    EXPECT_EQ(2, filtered(AF_INET6, 0, 0, 0, 0));
    EXPECT_EQ(2, filtered(0, IPPROTO_UDP, 0, 0, 0));
    EXPECT_EQ(2, filtered(0, 0, 7, 0xf, 0));
    EXPECT_EQ(1, filtered(0, 0, 7, 0xff, 0));
    EXPECT_EQ(5, filtered(0, 0, 0, UINT32_MAX, 0)) << "without a mark";
    EXPECT_EQ(1, filtered(0, 0, 0, 0, 3));
    EXPECT_EQ(2, filtered(0, 0, 0, 0, 0, "203.0.113.1")) << "of the reply alone";
    EXPECT_EQ(1, filtered(AF_INET6, 0, 0, 0, 0, "fd00::2"));
    EXPECT_EQ(0, filtered(AF_INET, 0, 0, 0, 0, "10.0.0.3"));
    EXPECT_EQ(-EINVAL, filtered(AF_UNIX, 0, 0, 0, 0));
    EXPECT_EQ(-EINVAL, filtered(0, 256, 0, 0, 0));
    EXPECT_EQ(-EINVAL, filtered(0, 0, 0, 0, 65536));
    EXPECT_EQ(-EINVAL, vela_connection_foreach(nullptr, nullptr, nullptr));

    const vela_connection_filter icmp = {0, IPPROTO_ICMP, 0, 0, 0, {}};
    const vela::json_ref json{vela_connection_json(&icmp)};
    json_t *one = json_array_get(json.get(), 0);
    json_object_del(one, "id"), json_object_del(one, "timeout_s");
    EXPECT_EQ(R"({"family":"inet","original":{"destination":"10.1.0.2","destination_port":2048,"source":"10.1.0.1",)"
              R"("source_port":300},"protocol":"icmp","reply":{"destination":"10.1.0.1","destination_port":0,)"
              R"("source":"10.1.0.2","source_port":300},"status":["confirmed"]})",
              dumped(one));
    if (seteuid(65534) == 0) {
        EXPECT_EQ(-EPERM, list(nullptr, seen));
        (void)!seteuid(0);
    }
}

TEST(Connection, SixtyFiveThousandInConstantMemory)
{
    std::string many;
    for (int i = 0; i < 65'536; ++i) {
        const std::string ip = "10." + std::to_string(i >> 8) + "." + std::to_string(i & 255) + ".1";
        many += "-p udp -s " + ip + " -d 10.0.0.2 --sport 1000 --dport 53 -m " + std::to_string(i) + "\n";
    }
    insert(many);
    const leak_check leaks;
    std::vector<bool> seen(65'536);
    const auto note = [](const vela_connection *c, void *arg) {
        (*static_cast<std::vector<bool> *>(arg))[c->mark] = true;
        return 0;
    };
    const auto with_allocations = [&](int n) { // and none after them
        const faults::refuse_memory others(n, true);
        return vela_connection_foreach(nullptr, note, &seen);
    };
    EXPECT_EQ(65'536, with_allocations(1));
    EXPECT_EQ(65'536, std::count(seen.begin(), seen.end(), true));
    if (faults::can_refuse_memory) EXPECT_EQ(-ENOMEM, with_allocations(0));
    int count = 0;
    const auto stop = [](const vela_connection *, void *arg) { return ++*static_cast<int *>(arg) == 3 ? 1 : 0; };
    EXPECT_EQ(3, vela_connection_foreach(nullptr, stop, &count));
    uint32_t used = 7, most = 7;
    ASSERT_EQ(0, vela_connection_count(&used, &most));
    EXPECT_EQ(65'536U, used);
    EXPECT_GE(most, used);
    remove("/proc/sys");
    EXPECT_EQ(-EOPNOTSUPP, vela_connection_count(&used, &most));
    EXPECT_EQ(-EINVAL, vela_connection_count(&used, nullptr));
    leaks.expect_unchanged();
}
