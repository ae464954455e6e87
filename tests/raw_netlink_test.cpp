// A kernel that answers as a test tells it: this program's own sendto and recvmsg stand before libc's.
#include "tests/support/leaks.h"
#include "tests/support/table.h"

#include <cerrno>
#include <chrono>
#include <deque>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <thread>
#include <vela/core/internal/raw_netlink.h>
#include <vela/net/internal/internet_view.h>
#include <vela/net/internal/links.h>

namespace raw_netlink = vela::raw_netlink;

namespace
{

using bytes = std::vector<uint8_t>;

struct datagram {
    bytes content;
    uint32_t from = 0;
    int flags = 0;
};

/// What the next receives give; without a script, the kernel itself answers.
bool scripted = false;
std::deque<datagram> script;
std::chrono::milliseconds pause_before{0};
bytes recorded;      // what the kernel answered
nlmsghdr asked = {}; // the last request's header

void append(bytes &to, const void *data, size_t n)
{
    const auto *first = static_cast<const uint8_t *>(data);
    to.insert(to.end(), first, first + n);
    to.resize(NLMSG_ALIGN(to.size()));
}

/// A message of the answer to the next question, which has number 1 and whatever port the socket got: 0 stands for it.
bytes message(uint16_t type, const bytes &payload, uint16_t flags = NLM_F_MULTI, uint32_t sequence = 1,
              uint32_t port = 0)
{
    const nlmsghdr header = {static_cast<uint32_t>(sizeof header + payload.size()), type, flags, sequence, port};
    bytes whole;
    append(whole, &header, sizeof header);
    append(whole, payload.data(), payload.size());
    return whole;
}

bytes number(int32_t n)
{
    bytes b;
    append(b, &n, sizeof n);
    return b;
}

bytes operator+(bytes a, const bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const bytes text_attribute = [] {
    bytes b;
    const nlattr header = {4 + 9, NLMSGERR_ATTR_MSG};
    append(b, &header, sizeof header);
    append(b, "no such\xff", 9);
    return b;
}();

void fill_in_port(bytes &content)
{
    for (size_t at = 0; at + sizeof(nlmsghdr) <= content.size();) {
        nlmsghdr header;
        memcpy(&header, content.data() + at, sizeof header);
        if (header.nlmsg_pid == 0) header.nlmsg_pid = asked.nlmsg_pid;
        memcpy(content.data() + at, &header, sizeof header);
        at += std::max<size_t>(NLMSG_ALIGN(header.nlmsg_len), sizeof header);
    }
}

} // namespace

extern "C" {

ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to, socklen_t length)
{
    static auto *const next = reinterpret_cast<decltype(&sendto)>(dlsym(RTLD_NEXT, "sendto"));
    if (size >= sizeof asked) memcpy(&asked, data, sizeof asked);
    return scripted ? static_cast<ssize_t>(size) : next(fd, data, size, flags, to, length);
}

ssize_t recvmsg(int fd, msghdr *header, int flags)
{
    static auto *const next = reinterpret_cast<decltype(&recvmsg)>(dlsym(RTLD_NEXT, "recvmsg"));
    if (!scripted) {
        const ssize_t n = next(fd, header, flags);
        const auto *first = static_cast<const uint8_t *>(header->msg_iov->iov_base);
        if (n > 0) recorded.insert(recorded.end(), first, first + n);
        return n;
    }
    if (script.empty()) {
        errno = EAGAIN;
        return -1;
    }
    std::this_thread::sleep_for(pause_before);
    datagram d = script.front();
    script.pop_front();
    fill_in_port(d.content);
    const size_t n = std::min(d.content.size(), header->msg_iov->iov_len);
    memcpy(header->msg_iov->iov_base, d.content.data(), n);
    static_cast<sockaddr_nl *>(header->msg_name)->nl_pid = d.from;
    header->msg_flags = d.flags | (n < d.content.size() ? MSG_TRUNC : 0);
    return static_cast<ssize_t>(n);
}
}

namespace
{

struct walked {
    int delivered;
    int result;
    std::string reason;
    bool operator==(const walked &) const = default;
};

std::ostream &operator<<(std::ostream &out, const walked &w)
{
    return out << w.delivered << " delivered, result " << w.result << " \"" << w.reason << '"';
}

walked walk(raw_netlink::channel &kernel, size_t limit = SIZE_MAX)
{
    raw_netlink::request question{RTM_GETLINK, ifinfomsg{}};
    kernel.ask(question, raw_netlink::how_much::all, limit);
    int count = 0;
    while (kernel.next()) ++count;
    return {count, kernel.result(), kernel.reason()};
}

walked walk_script(std::deque<datagram> datagrams, size_t limit = SIZE_MAX)
{
    scripted = true;
    script = std::move(datagrams);
    raw_netlink::channel kernel{NETLINK_ROUTE};
    const auto result = walk(kernel, limit);
    scripted = false;
    return result;
}

const bytes one_link = message(RTM_NEWLINK, bytes(40));
const bytes done = message(NLMSG_DONE, number(0));

} // namespace

TEST(RawNetlink, TellsApartHowAnAnswerEnds)
{
    const bytes acknowledged = number(0) + bytes(16);
    bytes malformed = one_link;
    malformed[0] = 255;
    bytes echoed = number(-EPERM);
    const nlmsghdr request = {sizeof request + 8, RTM_GETLINK, 0, 1, 0};
    append(echoed, &request, sizeof request);
    echoed = echoed + bytes(8) + text_attribute;
    const leak_check leaks;
    for (const auto &[what, datagrams, expected] : table<const char *, std::deque<datagram>, walked>{
             {"two datagrams", {{one_link + one_link}, {one_link + done}}, {3, 0, ""}},
             {"foreign sender", {{one_link + done, 77}, {one_link + done}}, {1, 0, ""}},
             {"another's number", {{message(RTM_NEWLINK, bytes(40), 2, 9) + one_link + done}}, {1, 0, ""}},
             {"another's port", {{message(RTM_NEWLINK, bytes(40), 2, 1, 9) + one_link + done}}, {1, 0, ""}},
             {"no payload", {{message(NLMSG_NOOP, {}) + message(NLMSG_DONE, {})}}, {0, 0, ""}},
             {"changed",
              {{message(RTM_NEWLINK, bytes(40), NLM_F_MULTI | NLM_F_DUMP_INTR) + one_link}, {done}},
              {2, -EAGAIN, ""}},
             {"changed at the end", {{one_link + message(NLMSG_DONE, number(0), NLM_F_DUMP_INTR)}}, {1, -EAGAIN, ""}},
             {"cut", {{one_link, 0, MSG_TRUNC}, {one_link + done}}, {0, -EMSGSIZE, ""}},
             {"failed dump", {{one_link + message(NLMSG_DONE, number(-ENOENT))}}, {1, -ENOENT, ""}},
             {"failed dump with words",
              {{message(NLMSG_DONE, number(-ENOENT) + text_attribute, NLM_F_ACK_TLVS)}},
              {0, -ENOENT, "no such?"}},
             {"refused", {{message(NLMSG_ERROR, number(-EPERM) + bytes(16))}}, {0, -EPERM, ""}},
             {"refused with words",
              {{message(NLMSG_ERROR, number(-EPERM) + bytes(16) + text_attribute, NLM_F_CAPPED | NLM_F_ACK_TLVS)}},
              {0, -EPERM, "no such?"}},
             {"with the request and words", {{message(NLMSG_ERROR, echoed, NLM_F_ACK_TLVS)}}, {0, -EPERM, "no such?"}},
             {"malformed", {{one_link + malformed + done}, {one_link + done}}, {1, -EBADMSG, ""}}}) {
        EXPECT_EQ(expected, walk_script(datagrams)) << what;
    }
    EXPECT_EQ((walked{2, 0, ""}), walk_script({{one_link + one_link}, {one_link + done}}, 2 * one_link.size()))
        << "as much as is wanted";
    EXPECT_EQ((walked{1, 0, ""}), walk_script({{one_link + one_link + done}}, one_link.size() + 20))
        << "cut by ourselves";
    leaks.expect_unchanged();
}

TEST(RawNetlink, ASilentKernelIsGivenUpAndTheNextQuestionStartsAfresh)
{
    raw_netlink::channel kernel{NETLINK_ROUTE};
    scripted = true;
    script = {{one_link}};
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ((walked{1, -ETIMEDOUT, ""}), walk(kernel));
    EXPECT_GE(std::chrono::milliseconds(2500), std::chrono::steady_clock::now() - begin);
    scripted = false;
    EXPECT_EQ(0, walk(kernel).result);
    EXPECT_LE(1, walk(kernel).delivered) << "lo";
}

TEST(RawNetlink, ATrickleEndsToo)
{
    pause_before = std::chrono::milliseconds(1500);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ((walked{4, -ETIMEDOUT, ""}), walk_script(std::deque<datagram>(10, {one_link})));
    EXPECT_GE(std::chrono::milliseconds(8000), std::chrono::steady_clock::now() - begin);
}

TEST(RawNetlink, RequestsAreBuiltAsTheKernelReadsThem)
{
    raw_netlink::channel kernel{NETLINK_ROUTE};
    raw_netlink::request bridge{RTM_NEWLINK, ifinfomsg{}};
    bridge.put_text(IFLA_IFNAME, "br7");
    bridge.put(IFLA_MTU, uint32_t{1400});
    {
        const raw_netlink::request::list info{bridge, IFLA_LINKINFO};
        bridge.put_text(IFLA_INFO_KIND, "bridge");
    }
    EXPECT_EQ(0, kernel.acknowledge(bridge, NLM_F_CREATE | NLM_F_EXCL)) << kernel.reason();
    EXPECT_EQ(-EEXIST, kernel.acknowledge(bridge, NLM_F_CREATE | NLM_F_EXCL));
    raw_netlink::request question{RTM_GETLINK, ifinfomsg{}};
    question.put_text(IFLA_IFNAME, "br7");
    kernel.ask(question, raw_netlink::how_much::one);
    vela_netif n = {};
    while (const auto m = kernel.next()) EXPECT_TRUE(vela::read_link(*m, n));
    EXPECT_EQ(0, kernel.result());
    EXPECT_STREQ("br7 bridge", (std::string(n.name) + " " + n.kind).c_str());
    EXPECT_EQ(1400U, n.mtu);

    raw_netlink::request wrong{RTM_GETLINK, ifinfomsg{.ifi_family = 0, .ifi_type = 0, .ifi_index = 0, .ifi_flags = 5}};
    kernel.ask(wrong, raw_netlink::how_much::all);
    EXPECT_FALSE(kernel.next());
    EXPECT_EQ(-EINVAL, kernel.result());
    EXPECT_STRNE("", kernel.reason()) << "the kernel says what it does not take";
    raw_netlink::request large{RTM_GETLINK, ifinfomsg{}};
    for (int i = 0; i < 20; ++i) large.put_bytes(IFLA_IFNAME, bytes(255));
    EXPECT_EQ(-EMSGSIZE, kernel.acknowledge(large));
    raw_netlink::channel unknown{31};
    EXPECT_EQ(-EOPNOTSUPP, walk(unknown).result);
}

TEST(RawNetlink, AnAnswerCutAnywhereIsReadWithinItsBounds)
{
    raw_netlink::channel kernel{NETLINK_ROUTE};
    raw_netlink::request questions[] = {raw_netlink::request{RTM_GETLINK, ifinfomsg{}},
                                        raw_netlink::request{RTM_GETADDR, ifaddrmsg{}},
                                        raw_netlink::request{RTM_GETROUTE, rtmsg{}}};
    for (auto &question : questions) {
        recorded.clear();
        kernel.ask(question, raw_netlink::how_much::all);
        while (kernel.next()) {}
        ASSERT_LT(100U, recorded.size());
        for (size_t n = 0; n < std::min<size_t>(recorded.size(), 3000); ++n) {
            const std::unique_ptr<uint8_t[]> block(new uint8_t[n]); // of exactly that size
            memcpy(block.get(), recorded.data(), n);
            raw_netlink::messages cut{{block.get(), n}, asked.nlmsg_seq, asked.nlmsg_pid};
            vela::internet_view view;
            while (const auto m = cut.next()) {
                vela_netif link_record;
                (void)vela::read_link(*m, link_record);
                EXPECT_EQ(0, view.note_route(*m));
                EXPECT_EQ(0, view.note_address(*m));
            }
        }
    }
}
