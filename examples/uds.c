/* A server, and a client that says one thing to it: ./example-uds */
#include <stdio.h>
#include <vela/ipc/uds.h>

int main(void)
{
    uds_sock server;
    uds_sock client;
    char text[64] = "";
    int status = 1;

    if (uds_sock_open_server("/tmp/example.sock", &server) < 0) return 1;
    if (uds_sock_open_client("/tmp/example.sock", &client) >= 0) {
        if (send(uds_get_sock(&client), "hello", sizeof "hello", 0) > 0 &&
            recv(uds_get_sock(&server), text, sizeof text - 1, 0) > 0) {
            printf("%s said: %s\n", client.local.sun_path, text);
            status = 0;
        }
        uds_sock_close(&client);
    }
    uds_sock_close(&server);
    return status;
}
