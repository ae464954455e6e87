// The context of a bus connection: its requests, and its own objects.
//
// One request at a time waits, on the stack of the call that made it; the loss of the connection ends it. Calls to our
// own objects that arrive meanwhile are kept: their handlers run from the event handler only, one at a time, and may
// make requests of their own.

#include <cstddef>
#include <cstdlib>
#include <libubus.h>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <utility>
#include <vela/platform/ubus/transport.h>

namespace
{

using namespace vela::bus;
using vela::deadline;

constexpr int frames_per_event = 256; // then the caller's loop gets its turn: the descriptor stays readable

constexpr size_t kept_max = 4 * body_max; // bytes that may wait for a callback to return

/// Frames in the order they came.
class frame_queue
{
public:
    frame_queue() = default;
    frame_queue(const frame_queue &) = delete;
    frame_queue &operator=(const frame_queue &) = delete;
    ~frame_queue()
    {
        while (first_) pop();
    }

    [[nodiscard]] bool empty() const { return !first_; }
    [[nodiscard]] bool push(incoming &frame)
    {
        const size_t bytes = sizeof(node) + frame.payload().size();
        void *const memory = bytes_ + bytes <= kept_max ? malloc(sizeof(node)) : nullptr;
        if (!memory) return false;
        *last_ = std::construct_at(static_cast<node *>(memory), std::move(frame));
        last_ = &(*last_)->next;
        bytes_ += bytes;
        return true;
    }
    incoming pop()
    {
        node *const taken = first_;
        first_ = taken->next;
        if (!first_) last_ = &first_;
        incoming frame = std::move(taken->frame);
        bytes_ -= sizeof(node) + frame.payload().size();
        std::destroy_at(taken);
        free(taken);
        return frame;
    }

private:
    struct node {
        explicit node(incoming &&f) : frame{std::move(f)} {}
        incoming frame;
        node *next = nullptr;
    };
    node *first_ = nullptr;
    node **last_ = &first_;
    size_t bytes_ = 0;
};

/// A request that waits for its end.
struct exchange : ubus_request {
    void (*take)(exchange &, const attributes &); // what a DATA frame brings
    ubus_lookup_handler_t found;

    void end(int status)
    {
        status_msg = true;
        status_code = status;
    }
};

struct context : ubus_context {
    incoming frame;
    exchange *waiting = nullptr;
    ubus_object *objects = nullptr;
    frame_queue calls; // to them, in the order they came
    bool serving = false;

    [[nodiscard]] bool busy() const { return waiting || serving; }
};

context &inside(ubus_context *ctx) { return *static_cast<context *>(ctx); }
static_assert(offsetof(ubus_context, sock) == 0);   // from the descriptor to its context
static_assert(offsetof(ubus_subscriber, obj) == 0); // from the object to its handler

/// Makes a request the one that waits, while it lives.
class waiting_request
{
public:
    waiting_request(context &c, exchange &e) : context_{c} { context_.waiting = &e; }
    waiting_request(const waiting_request &) = delete;
    waiting_request &operator=(const waiting_request &) = delete;
    ~waiting_request() { context_.waiting = nullptr; }

private:
    context &context_;
};

/// A body under construction.
class body_builder
{
public:
    body_builder() { ok_ = blob_buf_init(&buf_, 0) == 0; }
    body_builder(const body_builder &) = delete;
    body_builder &operator=(const body_builder &) = delete;
    ~body_builder() { blob_buf_free(&buf_); }

    void text(attribute_id id, const char *value) { keep(ok_ ? blob_put_string(&buf_, id, value) : nullptr); }
    void number(attribute_id id, uint32_t value) { keep(ok_ ? blob_put_u32(&buf_, id, value) : nullptr); }
    void nested(attribute_id id, const blob_attr *value)
    {
        const auto length = static_cast<unsigned>(value ? blob_len(value) : 0);
        keep(ok_ ? blob_put(&buf_, id, value ? blob_data(value) : nullptr, length) : nullptr);
    }

    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] const blob_attr &body() const { return *buf_.head; }

private:
    void keep(const blob_attr *added) { ok_ = added != nullptr; }

    blob_buf buf_{};
    bool ok_;
};

/// Gives a connection up without a word. It stays open and readable, so that whoever watches it learns of the loss.
void give_up(context &c)
{
    c.sock.eof = true;
    c.frame.forget();
    if (c.sock.fd >= 0) (void)shutdown(c.sock.fd, SHUT_RDWR); // fails where the other side was first
}

void lose(context &c)
{
    give_up(c);
    if (c.waiting && !c.waiting->status_msg) c.waiting->end(UBUS_STATUS_CONNECTION_FAILED);
    if (c.connection_lost) c.connection_lost(&c);
}

progress send_message(context &c, message type, uint16_t seq, uint32_t peer, const body_builder &body,
                      const deadline &until)
{
    const frame_header header{
        .version = 0, .type = type, .seq = blob_be16(seq), .peer = blob_be32(peer), .body = body.body().id_len};
    const auto *const payload = static_cast<const uint8_t *>(blob_data(&body.body()));
    return send(c.sock.fd, header, {payload, blob_len(&body.body())}, until);
}

/// Hands a call to its object, and gives the status to answer with.
uint32_t run_handler(context &c, const frame_header &call, const attributes &a)
{
    if (!a[attr_objid]) return UBUS_STATUS_INVALID_ARGUMENT;
    ubus_object *object = c.objects;
    while (object && object->id != blob_get_u32(a[attr_objid])) object = object->next;
    if (!object) return UBUS_STATUS_NOT_FOUND;
    if (!a[attr_method] || !a[attr_data]) return UBUS_STATUS_INVALID_ARGUMENT;
    ubus_request_data request{.object = object->id, .peer = blob_be32(call.peer), .seq = blob_be16(call.seq)};
    const auto handler = reinterpret_cast<ubus_subscriber *>(object)->cb;
    const auto *const method = static_cast<const char *>(blob_data(a[attr_method]));
    return static_cast<uint32_t>(handler(&c, object, &request, method, a[attr_data])); // it may forget its object
}

void answer_call(context &c, const frame_header &call, const attributes &a, uint32_t status)
{
    if (c.sock.eof || (a[attr_no_reply] && blob_get_u8(a[attr_no_reply]) != 0)) return;
    body_builder body;
    body.number(attr_status, status);
    if (a[attr_objid]) body.number(attr_objid, blob_get_u32(a[attr_objid]));
    if (!body.ok()) return;
    const auto sent =
        send_message(c, message::status, blob_be16(call.seq), blob_be32(call.peer), body, deadline::after_ms(stall_ms));
    if (sent != progress::done) lose(c); // a daemon that asks on and does not listen would cost this much each time
}

void serve(context &c, incoming call)
{
    const attributes a = parse(call.payload());
    c.serving = true;
    const uint32_t status = run_handler(c, call.header, a);
    c.serving = false;
    answer_call(c, call.header, a, status);
}

void handle(context &c, incoming &frame)
{
    if (frame.header.type == message::invoke) {
        if (!c.calls.push(frame)) lose(c);
        return;
    }
    exchange *const e = c.waiting;
    // An answer that came too late, or a notice nobody here asked for, is passed over.
    if (!e || e->status_msg || e->seq != blob_be16(frame.header.seq) || e->peer != blob_be32(frame.header.peer)) return;
    const attributes a = parse(frame.payload());
    if (frame.header.type == message::data) e->take(*e, a);
    if (frame.header.type == message::status) {
        e->end(a[attr_status] ? static_cast<int>(blob_get_u32(a[attr_status])) : UBUS_STATUS_PARSE_ERROR);
    }
}

/// Handles one frame, or the loss of the connection.
progress handle_next(context &c)
{
    const progress got = c.sock.eof ? progress::broken : c.frame.receive(c.sock.fd);
    if (got == progress::broken) lose(c);
    if (got == progress::done) {
        incoming frame = std::move(c.frame);
        c.frame.forget();
        handle(c, frame);
    }
    return got;
}

void on_event(uloop_fd *sock, unsigned int /*events*/)
{
    context &c = inside(reinterpret_cast<ubus_context *>(sock));
    for (int i = 0; i < frames_per_event; ++i) {
        while (!c.calls.empty() && !c.busy()) serve(c, c.calls.pop());
        if (handle_next(c) != progress::done) break;
    }
    while (!c.calls.empty() && !c.busy()) serve(c, c.calls.pop());
}

/// Sends a request and handles what arrives until its status has come.
int perform(context &c, message type, const body_builder &body, exchange &e, const deadline &until)
{
    if (c.sock.fd < 0 || c.sock.eof || c.waiting) return UBUS_STATUS_INVALID_ARGUMENT;
    if (!body.ok()) return UBUS_STATUS_NO_MEMORY;
    if (blob_raw_len(&body.body()) > body_max) return UBUS_STATUS_INVALID_ARGUMENT;

    e.ctx = &c;
    e.seq = ++c.request_seq;
    const waiting_request here{c, e};
    const progress sent = send_message(c, type, e.seq, e.peer, body, until);
    if (sent == progress::nothing_yet) return UBUS_STATUS_TIMEOUT;
    if (sent == progress::broken) {
        give_up(c);
        return UBUS_STATUS_INVALID_ARGUMENT;
    }
    while (!e.status_msg) {
        if (until.passed()) return UBUS_STATUS_TIMEOUT;
        if (handle_next(c) != progress::nothing_yet) continue;
        const deadline patience = c.frame.begun() ? deadline::earlier(until, deadline::after_ms(stall_ms)) : until;
        if (!wait_until(c.sock.fd, POLLIN, patience) && !until.passed()) lose(c);
    }
    return e.status_code;
}

void take_object(exchange &e, const attributes &a)
{
    if (!e.found || !a[attr_objid] || !a[attr_objpath] || !a[attr_objtype]) return;
    ubus_object_data object{
        .id = blob_get_u32(a[attr_objid]),
        .type_id = blob_get_u32(a[attr_objtype]),
        .path = static_cast<const char *>(blob_data(a[attr_objpath])),
        .signature = a[attr_signature],
    };
    e.found(e.ctx, &object, e.priv);
}

void take_id(exchange &e, const attributes &a)
{
    if (a[attr_objid]) *static_cast<uint32_t *>(e.priv) = blob_get_u32(a[attr_objid]);
}

void take_reply(exchange &e, const attributes &a)
{
    if (e.data_cb && a[attr_data]) e.data_cb(&e, static_cast<int>(message::data), a[attr_data]);
}

int look_up(ubus_context *ctx, const char *path, exchange &e)
{
    body_builder body;
    if (path) body.text(attr_objpath, path);
    return perform(inside(ctx), message::lookup, body, e, deadline::after_ms(ctx->answer_ms));
}

} // namespace

ubus_context *ubus_connect_socket(int fd, int greeting_ms)
{
    vela::unique_fd socket{fd};
    uint32_t local_id = 0;
    if (!take_greeting(fd, local_id, deadline::after_ms(greeting_ms))) return nullptr;
    void *const memory = malloc(sizeof(context));
    if (!memory) return nullptr;
    auto *const c = std::construct_at(static_cast<context *>(memory));
    c->sock.cb = on_event;
    c->sock.fd = socket.release();
    c->local_id = local_id;
    return c;
}

int ubus_reconnect_socket(ubus_context *ctx, int fd, int greeting_ms)
{
    context &c = inside(ctx);
    const vela::unique_fd old{std::exchange(c.sock.fd, -1)};
    vela::unique_fd socket{fd};
    c.frame.forget();
    c.sock.eof = c.sock.error = c.sock.registered = false;
    if (!take_greeting(fd, c.local_id, deadline::after_ms(greeting_ms))) return UBUS_STATUS_UNKNOWN_ERROR;
    c.sock.fd = socket.release();
    return UBUS_STATUS_OK;
}

void ubus_free(ubus_context *ctx)
{
    if (!ctx) return;
    context &c = inside(ctx);
    const vela::unique_fd fd{c.sock.fd};
    std::destroy_at(&c);
    free(ctx);
}

int ubus_lookup(ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
    exchange e{};
    e.take = take_object;
    e.found = cb;
    e.priv = priv;
    return look_up(ctx, path, e);
}

int ubus_lookup_id(ubus_context *ctx, const char *path, uint32_t *id)
{
    exchange e{};
    e.take = take_id;
    e.priv = id;
    return look_up(ctx, path, e);
}

int ubus_invoke(ubus_context *ctx, uint32_t obj, const char *method, blob_attr *msg, ubus_data_handler_t cb, void *priv,
                int timeout_ms)
{
    exchange e{};
    e.take = take_reply;
    e.data_cb = cb;
    e.priv = priv;
    e.peer = obj;
    body_builder body;
    body.number(attr_objid, obj);
    body.text(attr_method, method);
    body.nested(attr_data, msg);
    return perform(inside(ctx), message::invoke, body, e,
                   timeout_ms > 0 ? deadline::after_ms(timeout_ms) : deadline::never());
}

int ubus_register_subscriber(ubus_context *ctx, ubus_subscriber *obj)
{
    exchange e{};
    e.take = take_id;
    e.priv = &obj->obj.id;
    obj->obj.id = 0;
    const int status = perform(inside(ctx), message::add_object, body_builder{}, e, deadline::after_ms(ctx->answer_ms));
    if (status != UBUS_STATUS_OK) return status;
    if (obj->obj.id == 0) return UBUS_STATUS_NO_DATA;
    obj->obj.next = std::exchange(inside(ctx).objects, &obj->obj);
    return UBUS_STATUS_OK;
}

int ubus_unregister_subscriber(ubus_context *ctx, ubus_subscriber *obj)
{
    exchange e{};
    e.take = [](exchange &, const attributes &) {};
    body_builder body;
    body.number(attr_objid, obj->obj.id);
    ubus_forget(ctx, &obj->obj);
    return perform(inside(ctx), message::remove_object, body, e, deadline::after_ms(ctx->answer_ms));
}

int ubus_subscribe(ubus_context *ctx, ubus_subscriber *obj, uint32_t id)
{
    exchange e{};
    e.take = [](exchange &, const attributes &) {};
    body_builder body;
    body.number(attr_objid, obj->obj.id);
    body.number(attr_target, id);
    return perform(inside(ctx), message::subscribe, body, e, deadline::after_ms(ctx->answer_ms));
}

void ubus_forget(ubus_context *ctx, ubus_object *obj)
{
    for (ubus_object **place = &inside(ctx).objects; *place; place = &(*place)->next) {
        if (*place != obj) continue;
        *place = obj->next;
        obj->id = 0;
        return;
    }
}
