#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"
#include "tests/support/table.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/ipc/uds.h>

TEST(Uds, ClientReachesServerAndBothLeaveNothing)
{
    const leak_check nothing;
    const std::string path = "/var/run/" + std::string(110, 'p');
    const std::string cut = path.substr(0, 107);
    site::put_file(cut, "stale");
    uds_sock server;
    uds_sock client;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
    EXPECT_THAT(client.local.sun_path, testing::StartsWith("/var/run/uds_client-" + std::to_string(getpid()) + "-"));
    EXPECT_EQ(cut, client.remote.sun_path);
    EXPECT_EQ(cut, server.local.sun_path);
    EXPECT_EQ(FD_CLOEXEC, fcntl(uds_get_sock(&client), F_GETFD));

    sockaddr_un from = {};
    socklen_t length = sizeof from;
    char byte = 'x';
    EXPECT_EQ(1, send(client.fd, &byte, 1, 0));
    EXPECT_EQ(1, recvfrom(server.fd, &byte, 1, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &length));
    EXPECT_STREQ(client.local.sun_path, from.sun_path);
    uds_sock_close(&client);
    uds_sock_close(&server);
    uds_sock_close(nullptr);
    EXPECT_EQ(-1, uds_get_sock(nullptr));
    nothing.expect_unchanged();
}

TEST(Uds, AFailedOpenLeavesNothingAndItsHandleClosesNothing)
{
    log_lines log;
    const leak_check nothing;
    const auto reason = [](int number) { return std::to_string(number) + "/" + strerror(number); };
    const table<const char *, int, std::string> cases = {
        {nullptr, 0, "invalid parameter"},
        {"/var/run/no/server", 1, "bind error, path:/var/run/no/server, errno:" + reason(ENOENT)},
        {"/var/run/server", 0, "connect error, path:/var/run/server, errno:" + reason(ENOENT)},
        {"no socket", 1, "uds socket error, errno:" + reason(EMFILE)},
    };
    for (const auto &[path, is_server, told] : cases) {
        const faults::refuse none(faults::call::socket, EMFILE, told.starts_with("uds socket") ? 0 : 1);
        uds_sock h;
        memset(&h, 'x', sizeof h);
        EXPECT_EQ(-1, uds_socket_create(path, &h, is_server));
        EXPECT_EQ(-1, uds_get_sock(&h));
        EXPECT_STREQ("", h.local.sun_path);
        uds_sock_close(&h);
        EXPECT_THAT(log.take(), testing::ElementsAre(log_line{"error", "uds", "uds_socket_create", told}));
    }
    EXPECT_EQ(-1, uds_socket_create("/var/run/server", nullptr, 1));
    nothing.expect_unchanged();
}
