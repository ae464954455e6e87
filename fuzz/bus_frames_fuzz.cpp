// What a bus daemon sends: the input follows a greeting, while the client makes requests of every kind and has an
// object that is called, and calls back. Then the daemon is gone.
#include <cstdlib>
#include <libubus.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr uint8_t greeting[] = {0, 0, 0, 0, 0x9a, 0x44, 0x99, 0x96, 0, 0, 0, 4};
constexpr size_t input_max = 16 * 1024; // its answers fit the socket

size_t sum; // keeps the reads

void on_object(ubus_context *, ubus_object_data *object, void *)
{
    sum += object->id + object->type_id + strlen(object->path) + (object->signature ? blob_len(object->signature) : 0);
}

void on_data(ubus_request *, int, blob_attr *part) { sum += blob_len(part); }

int on_call(ubus_context *ctx, ubus_object *, ubus_request_data *request, const char *method, blob_attr *message)
{
    sum += request->peer + strlen(method) + blob_len(message);
    return ubus_invoke(ctx, request->peer, method, message, on_data, nullptr, 1000);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    int ends[2];
    if (size > input_max || socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends) != 0) return 0;
    if (write(ends[1], greeting, sizeof greeting) < 0 || (size != 0 && write(ends[1], data, size) < 0)) abort();
    shutdown(ends[1], SHUT_WR);

    ubus_context *const ctx = ubus_connect_socket(ends[0], 1000);
    if (!ctx) abort();
    ctx->answer_ms = 1000;
    ubus_subscriber ours{};
    ours.cb = on_call;
    uint32_t id = 0;
    (void)ubus_register_subscriber(ctx, &ours);
    (void)ubus_lookup_id(ctx, "vt", &id);
    (void)ubus_subscribe(ctx, &ours, id);
    (void)ubus_invoke(ctx, id, "get", nullptr, on_data, nullptr, 1000);
    (void)ubus_lookup(ctx, "v*", on_object, nullptr);
    while (!ctx->sock.eof) ctx->sock.cb(&ctx->sock, ULOOP_READ);
    ctx->sock.cb(&ctx->sock, ULOOP_READ);
    (void)ubus_unregister_subscriber(ctx, &ours);
    ubus_free(ctx);
    close(ends[1]);
    return 0;
}
