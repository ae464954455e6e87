#include "site/world.h"
#include "tests/support/faults.h"
#include "tests/support/leaks.h"
#include "tests/support/log_lines.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>
#include <vela/ipc/uds.h>

using testing::ElementsAre;

TEST(Uds, ClientReachesServerAndBothLeaveNothing)
{
    const leak_check nothing;
    site::put_file("/var/run/server", "stale");
    uds_sock server;
    uds_sock client;
    srand(7);
    const int number = rand() & 0xFFFF;
    srand(7);
    ASSERT_GE(uds_sock_open_server("/var/run/server", &server), 0);
    ASSERT_GE(uds_sock_open_client("/var/run/server", &client), 0);
    EXPECT_EQ("/var/run/uds_client-" + std::to_string(getpid()) + "-" + std::to_string(number), client.local.sun_path);
    EXPECT_STREQ("/var/run/server", client.remote.sun_path);
    EXPECT_STREQ("/var/run/server", server.local.sun_path);
    EXPECT_EQ(FD_CLOEXEC, fcntl(uds_get_sock(&client), F_GETFD));

    sockaddr_un from = {};
    socklen_t length = sizeof from;
    char byte = 'x';
    EXPECT_EQ(1, send(client.fd, &byte, 1, 0));
    EXPECT_EQ(1, recvfrom(server.fd, &byte, 1, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &length));
    EXPECT_STREQ(client.local.sun_path, from.sun_path);

    const int fd = client.fd;
    uds_sock_close(&client);
    EXPECT_EQ(fd, client.fd) << "kept as it was";
    uds_sock_close(&server);
    uds_sock_close(nullptr);
    EXPECT_EQ(-1, uds_get_sock(nullptr));
    nothing.expect_unchanged();
}

TEST(Uds, AFailedOpenLeavesNothingAndItsHandleClosesNothing)
{
    log_lines log;
    const auto error = [](const std::string &text) { return log_line{"error", "uds", "uds_socket_create", text}; };
    const auto reason = [](int number) { return std::to_string(number) + "/" + strerror(number); };
    const leak_check nothing;
    uds_sock h;
    const auto fails = [&](const char *path, int is_server) {
        memset(&h, 'x', sizeof h);
        EXPECT_EQ(-1, uds_socket_create(path, &h, is_server));
        EXPECT_EQ(-1, uds_get_sock(&h));
        EXPECT_STREQ("", h.local.sun_path);
        uds_sock_close(&h);
        const auto lines = log.take();
        return lines.size() == 1 ? lines[0] : log_line{};
    };
    EXPECT_EQ(-1, uds_socket_create("/var/run/server", nullptr, 1));
    EXPECT_THAT(log.take(), ElementsAre(error("invalid parameter")));
    EXPECT_EQ(error("invalid parameter"), fails(nullptr, 0));
    EXPECT_EQ(error("bind error, path:/var/run/no/server, errno:" + reason(ENOENT)), fails("/var/run/no/server", 1));
    EXPECT_EQ(error("connect error, path:/var/run/server, errno:" + reason(ENOENT)), fails("/var/run/server", 0));
    {
        const faults::refuse none(faults::call::socket, EMFILE);
        EXPECT_EQ(error("uds socket error, errno:" + reason(EMFILE)), fails("/var/run/server", 1));
    }
    nothing.expect_unchanged();
}

TEST(Uds, PathsAreCutAt107Characters)
{
    const std::string path = "/tmp/" + std::string(110, 'p');
    const leak_check nothing;
    uds_sock server;
    uds_sock client;
    EXPECT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    EXPECT_GE(uds_sock_open_client(path.c_str(), &client), 0);
    EXPECT_EQ(path.substr(0, 107), server.local.sun_path);
    EXPECT_EQ(path.substr(0, 107), client.remote.sun_path);
    uds_sock_close(&client);
    uds_sock_close(&server);
    nothing.expect_unchanged();
}
