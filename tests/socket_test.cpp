// Beside ss in this world's own network, which holds what the test opens and nothing else.
#include "site/world.h"
#include "tests/support/json.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <gmock/gmock.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <regex>
#include <sstream>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vela/monitor/socket.h>

namespace
{

struct listing {
    explicit listing(uint32_t families = 0, uint32_t states = 0, uint32_t wants = 0)
        : result{vela_socket_foreach(families, states, wants, &missing, add, &sockets)}
    {
    }
    static int add(const vela_socket *s, void *into)
    {
        static_cast<decltype(sockets) *>(into)->push_back(*s);
        return 0;
    }
    const vela_socket &with(uint64_t inode) const
    {
        static const vela_socket none = {};
        const auto found =
            std::find_if(sockets.begin(), sockets.end(), [=](const auto &s) { return s.inode == inode; });
        return found == sockets.end() ? none : *found;
    }
    const vela_socket &of(int fd) const
    {
        struct stat status = {};
        fstat(fd, &status);
        return with(status.st_ino);
    }
    std::vector<vela_socket> sockets;
    uint32_t missing = ~0U;
    int result;
};

template <class Address> int open_bound(int type, const Address &address, size_t length = sizeof(Address))
{
    const auto *any = reinterpret_cast<const sockaddr *>(&address);
    const int fd = socket(any->sa_family, type | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, bind(fd, any, static_cast<socklen_t>(length))) << strerror(errno);
    return fd;
}
int open_inet(int type, const char *ip, uint16_t port)
{
    sockaddr_in v4 = {.sin_family = AF_INET, .sin_port = htons(port)};
    sockaddr_in6 v6 = {.sin6_family = AF_INET6, .sin6_port = htons(port)};
    if (inet_pton(AF_INET, ip, &v4.sin_addr) == 1) return open_bound(type, v4);
    inet_pton(AF_INET6, ip, &v6.sin6_addr);
    return open_bound(type, v6);
}
int open_local(int type, const std::string &path)
{
    sockaddr_un address = {.sun_family = AF_UNIX};
    path.copy(address.sun_path, sizeof address.sun_path);
    return open_bound(type, address, offsetof(sockaddr_un, sun_path) + path.size());
}
/// A socket connected to what `server` is bound to.
int connected(int server, int family, int type)
{
    sockaddr_storage address = {};
    socklen_t length = sizeof address;
    getsockname(server, reinterpret_cast<sockaddr *>(&address), &length);
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    EXPECT_EQ(0, connect(fd, reinterpret_cast<const sockaddr *>(&address), length)) << strerror(errno);
    return fd;
}

/// One of each kind, with something in its queues.
void open_all()
{
    const int v4 = open_inet(SOCK_STREAM, "127.0.0.1", 7001), v6 = open_inet(SOCK_STREAM, "::", 7002);
    listen(v4, 5);
    listen(v6, 6);
    const int near4 = connected(v4, AF_INET, SOCK_STREAM);
    (void)!write(near4, "12345", 5); // never accepted: both wait
    const int near6 = connected(v6, AF_INET6, SOCK_STREAM), far6 = accept4(v6, nullptr, nullptr, SOCK_CLOEXEC);
    (void)!write(near6, "123", 3);
    const int gone = connected(v6, AF_INET6, SOCK_STREAM), other = accept4(v6, nullptr, nullptr, SOCK_CLOEXEC);
    close(gone), usleep(20'000), close(other); // leaves a TIME_WAIT
    const int udp = open_inet(SOCK_DGRAM, "127.0.0.2", 7003);
    (void)!write(connected(udp, AF_INET, SOCK_DGRAM), "1234567", 7);
    (void)!fchown(open_inet(SOCK_DGRAM, "::1", 7004), 7, 7);
    const int path = open_local(SOCK_STREAM, "/tmp/a socket"), abstract = open_local(SOCK_SEQPACKET, {"\0x\0y", 4});
    listen(path, 7);
    listen(abstract, 8);
    connected(path, AF_UNIX, SOCK_STREAM);
    open_local(SOCK_DGRAM, "/tmp/" + std::string(103, 'n')); // 108 bytes, without a NUL
    int pair[2];
    socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair);
    (void)far6;
}

std::string host(const vela_socket &s, const uint8_t *address, uint16_t port)
{
    char text[64];
    inet_ntop(static_cast<int>(s.family), address, text, sizeof text);
    const std::string ip = s.family == AF_INET6 ? "[" + std::string(text) + "]" : text;
    return ip + ":" + (port != 0 ? std::to_string(port) : "*");
}

/// As ss -tuxanOH -e -p writes it, without what the record has not.
std::string as_ss(const vela_socket &s)
{
    static const char *const states[] = {"",          "ESTAB",  "SYN-SENT",   "SYN-RECV", "FIN-WAIT-1", "FIN-WAIT-2",
                                         "TIME-WAIT", "UNCONN", "CLOSE-WAIT", "LAST-ACK", "LISTEN",     "CLOSING"};
    static const char *const types[] = {"", "u_str", "u_dgr", "", "", "u_seq"};
    const bool is_local = s.family == AF_UNIX;
    std::ostringstream line;
    line << (is_local                    ? types[s.protocol]
             : s.protocol == IPPROTO_TCP ? "tcp"
                                         : "udp")
         << " " << states[s.state] << " " << s.receive_queue << " " << s.send_queue << " ";
    if (is_local) {
        line << (*s.path ? s.path : "*") << " " << s.inode << " * " << s.peer_inode;
    } else {
        line << host(s, s.local, s.local_port) << " " << host(s, s.remote, s.remote_port) << " " << s.inode;
    }
    if (!is_local && s.inode != 0 && s.uid != 0) line << " uid " << s.uid;
    if (s.pid != 0) line << " " << s.process << " " << s.pid;
    return line.str();
}

std::string normal(const std::string &ss_line)
{
    const std::string line = std::regex_replace(ss_line, std::regex(" +"), " ");
    const auto find = [&line](const char *what, const std::string &before = "") {
        std::smatch found;
        return std::regex_search(line, found, std::regex(what)) ? before + found[1].str() : "";
    };
    const std::string owner = find("\\(\\(\"([^\"]*)\"", " ") + find("pid=(\\d+)", " ");
    if (line[1] == '_') return find("^(\\S+ \\S+ \\d+ \\d+ .*? \\d+ \\* \\d+)") + owner;
    const std::string columns = find("^(\\S+ \\S+ \\d+ \\d+ \\S+ \\S+)");
    const std::string inode = find("ino:(\\d+)", " ");
    return std::regex_replace(columns, std::regex(" \\*:"), " [::]:") + inode + find("uid:(\\d+)", " uid ") + owner;
}

} // namespace

TEST(Socket, AgreesWithSs)
{
    ASSERT_EQ(0, mount("proc", "/proc", "proc", 0, ""));
    open_all();
    const std::string ss = site::output_of("ss -tuxanOH -e -p 2>/dev/null");
    const listing ours{VELA_SOCKET_TCP | VELA_SOCKET_UDP | VELA_SOCKET_UNIX, 0, VELA_SOCKET_OWNER};
    std::vector<std::string> expected, seen;
    std::istringstream lines(ss);
    for (std::string line; std::getline(lines, line);) expected.push_back(normal(line));
    for (const auto &s : ours.sockets) seen.push_back(as_ss(s));
    EXPECT_THAT(seen, testing::UnorderedElementsAreArray(expected)) << ss;
    EXPECT_EQ(seen.size(), static_cast<size_t>(ours.result));
    EXPECT_EQ(0U, ours.missing);
    EXPECT_GE(seen.size(), 16U);
}

TEST(Socket, TcpFiguresAgreeWithSs)
{
    const int server = open_inet(SOCK_STREAM, "127.0.0.1", 7001);
    listen(server, 5);
    EXPECT_EQ(UINT32_MAX, listing(VELA_SOCKET_TCP, 0, VELA_SOCKET_TCP_INFO).of(server).rtt_us) << "it has no peer";
    const int near = connected(server, AF_INET, SOCK_STREAM), far = accept(server, nullptr, nullptr);
    (void)!write(near, "1", 1);
    usleep(100'000);
    const std::string ss = site::output_of("ss -tinOH state established sport = 7001");
    const listing all{VELA_SOCKET_TCP, 1 << VELA_SOCKET_ESTABLISHED, VELA_SOCKET_TCP_INFO};
    const vela_socket &ours = all.of(far);
    EXPECT_EQ(2, all.result) << "not the server";
    std::smatch found;
    ASSERT_TRUE(std::regex_search(ss, found, std::regex("rtt:([0-9.]+)/"))) << ss;
    EXPECT_NEAR(std::stod(found[1]) * 1000, ours.rtt_us, 0.5);
    ASSERT_TRUE(std::regex_search(ss, found, std::regex("lastack:([0-9]+)"))) << ss;
    EXPECT_NEAR(std::stod(found[1]), ours.last_ack_ms, 60);
    EXPECT_EQ(0U, ours.retransmits);
    EXPECT_EQ(UINT32_MAX, listing(VELA_SOCKET_TCP).of(far).retransmits) << "not asked for";
}

TEST(Socket, WhatNoPeerShows)
{
    sockaddr_ll link = {.sll_family = AF_PACKET,
                        .sll_protocol = htons(ETH_P_LLDP),
                        .sll_ifindex = static_cast<int>(if_nametoindex("lo"))};
    const int packet = open_bound(SOCK_DGRAM, link);
    const sockaddr_nl nothing = {.nl_family = AF_NETLINK};
    const int route = open_bound(SOCK_RAW, nothing);
    const listing all{VELA_SOCKET_PACKET | VELA_SOCKET_NETLINK};
    EXPECT_EQ(std::make_tuple(AF_PACKET + 0U, ETH_P_LLDP + 0U, if_nametoindex("lo"), 0U, 0U),
              std::tie(all.of(packet).family, all.of(packet).protocol, all.of(packet).index, all.of(packet).uid,
                       all.of(packet).receive_queue));
    EXPECT_EQ(std::make_tuple(AF_NETLINK + 0U, UINT32_MAX), std::tie(all.of(route).family, all.of(route).uid));
    log_lines log("warn");
    const uint32_t open = ~(1U << VELA_SOCKET_CLOSED) & 0x1ffe;
    EXPECT_EQ(0, listing(VELA_SOCKET_PACKET | VELA_SOCKET_NETLINK, open).result) << "they are never open";
    for (const auto &[families, states, wants] : table<uint32_t, uint32_t, uint32_t>{{64, 0, 0}, {0, 1, 0}, {0, 0, 4}})
        EXPECT_EQ(-EINVAL, listing(families, states, wants).result);
    int count = 0;
    const auto stop = [](const vela_socket *, void *arg) { return ++*static_cast<int *>(arg) == 2 ? 1 : 0; };
    EXPECT_EQ(2, vela_socket_foreach(0, 0, 0, nullptr, stop, &count));
    EXPECT_EQ(2, count);

    const int raw = socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6);
    const listing first{VELA_SOCKET_RAW}, second{VELA_SOCKET_RAW};
    if (first.missing == 0) { // a kernel with this module
        EXPECT_EQ(IPPROTO_ICMPV6, first.of(raw).local_port);
        GTEST_SKIP() << "no module is missing";
    }
    EXPECT_EQ(std::make_tuple(0, VELA_SOCKET_RAW + 0U), std::tie(second.result, second.missing));
    EXPECT_THAT(log.texts(), testing::ElementsAre("this kernel lacks INET_RAW_DIAG")) << "once";
}

TEST(Socket, OwnersAsFarAsTheyAreOursToSee)
{
    ASSERT_EQ(0, mount("proc", "/proc", "proc", 0, ""));
    const leak_check leaks;
    const int shared = open_local(SOCK_DGRAM, "/tmp/\xff"), theirs = socket(AF_UNIX, SOCK_STREAM, 0);
    prctl(PR_SET_NAME, "child");
    const pid_t child = fork(); // inherits both, and its name
    if (child == 0) {
        for (;;) pause();
    }
    prctl(PR_SET_NAME, "two\nlines");
    const uint64_t inode = listing(VELA_SOCKET_UNIX).of(theirs).inode;
    close(theirs);
    const listing all{VELA_SOCKET_UNIX, 0, VELA_SOCKET_OWNER};
    EXPECT_EQ(std::make_pair(getpid(), std::string("two\nlines")),
              std::make_pair(all.of(shared).pid, std::string(all.of(shared).process)));
    EXPECT_EQ(std::make_pair(child, std::string("child")),
              std::make_pair(all.with(inode).pid, std::string(all.with(inode).process)));
    EXPECT_EQ(0, listing(VELA_SOCKET_UNIX).of(shared).pid) << "not asked for";
    if (seteuid(65534) == 0) {
        EXPECT_EQ(0, listing(VELA_SOCKET_UNIX, 0, VELA_SOCKET_OWNER).with(inode).pid);
        (void)!seteuid(0);
    }
    kill(child, SIGKILL);
    wait(nullptr);
    const vela::json_ref json{vela_socket_json(VELA_SOCKET_UNIX, 0, VELA_SOCKET_OWNER, nullptr)};
    json_t *one = json_array_get(json.get(), 0);
    EXPECT_EQ(json_integer_value(json_object_get(one, "inode")), static_cast<json_int_t>(all.of(shared).inode));
    json_object_del(one, "inode"), json_object_del(one, "pid");
    EXPECT_EQ(
        R"({"family":"unix","path":"/tmp/?","process":"two\nlines","protocol":"dgram","receive_queue":0,"send_queue":0,"state":"closed","uid":0})",
        dumped(one));

    const rlimit many = {70'000, 70'000};
    if (setrlimit(RLIMIT_NOFILE, &many) == 0) {
        for (int i = 0; i < 66'000; ++i) dup(shared);
        log_lines log("warn");
        EXPECT_EQ(1, listing(VELA_SOCKET_UNIX, 0, VELA_SOCKET_OWNER).result);
        EXPECT_THAT(log.texts(), testing::ElementsAre("more sockets than are looked up: owners are left out"));
        const vela::json_ref partial{vela_socket_json(VELA_SOCKET_UNIX, 0, VELA_SOCKET_OWNER, nullptr)};
        EXPECT_TRUE(json_is_true(json_object_get(json_array_get(partial.get(), 0), "partial")));
        close_range(static_cast<unsigned>(shared) + 1, ~0U, 0);
    }
    close(shared);
    unlink("/tmp/\xff");
    leaks.expect_unchanged();
}

TEST(Socket, TwoThousandOpenAndCloseWhileListed)
{
    ASSERT_EQ(0, mount("proc", "/proc", "proc", 0, ""));
    const int stays = open_inet(SOCK_DGRAM, "127.0.0.1", 7001);
    const pid_t child = fork();
    if (child == 0) {
        const rlimit many = {4096, 4096};
        setrlimit(RLIMIT_NOFILE, &many);
        for (;;) {
            int fds[2000];
            for (int &fd : fds) {
                fd = socket(AF_INET, SOCK_DGRAM, 0);
                sockaddr_in any = {.sin_family = AF_INET};
                (void)bind(fd, reinterpret_cast<const sockaddr *>(&any), sizeof any);
            }
            for (const int fd : fds) close(fd);
        }
    }
    const leak_check leaks;
    size_t most = 0;
    for (int i = 0; i < 40; ++i) {
        const listing all{0, 0, VELA_SOCKET_OWNER};
        ASSERT_GE(all.result, 1);
        EXPECT_EQ(getpid(), all.of(stays).pid);
        most = std::max(most, all.sockets.size());
    }
    EXPECT_GT(most, 500U);
    kill(child, SIGKILL);
    wait(nullptr);
    leaks.expect_unchanged();
}
