// Calls on the bus with JSON: the arguments become a message, the parts of the reply one object.

#include <algorithm>
#include <array>
#include <cerrno>
#include <vela/core/internal/pipe_signal.h>
#include <vela/ipc/internal/bus_json.h>
#include <vela/ipc/internal/bus_library.h>
#include <vela/ipc/internal/ubus_record.h>

namespace
{

using vela::deadline;
using vela::json_ref;
using vela::ubus_record;

constexpr int default_timeout_ms = 3000;
constexpr int timeout_max_ms = 60'000;
constexpr size_t frame_max = size_t{1} << 20; // the body of a frame, as the bus allows it
constexpr size_t reply_max = size_t{4} << 20; // bytes of all parts of a reply

struct outcome {
    int status; // of the bus
    int error;
    const char *text;
};
// By number: not every libubus has a name for those above 10.
constexpr std::array outcomes{
    outcome{0, 0, "success"},
    outcome{1, -ENOSYS, "no such method"},
    outcome{2, -EINVAL, "invalid argument"},
    outcome{3, -ENOSYS, "no such method"},
    outcome{4, -ENOENT, "no such object"},
    outcome{5, -ENODATA, "no data"},
    outcome{6, -EACCES, "not allowed"},
    outcome{7, -ETIMEDOUT, "no answer in time"},
    outcome{8, -EOPNOTSUPP, "not supported"},
    outcome{9, -EIO, "unknown error"},
    outcome{10, -ENOTCONN, "no connection to the bus"},
    outcome{11, -ENOMEM, "out of memory"},
    outcome{12, -EBADMSG, "malformed message"},
    outcome{13, -EIO, "unknown error"},
    outcome{-1, -EMSGSIZE, "message too large"}, // never leaves this process
};
constexpr const outcome &unknown = outcomes[9];

/// A message under construction.
class message
{
public:
    message() : begun_{blob_buf_init(&buffer_, 0) == 0} {}
    message(const message &) = delete;
    message &operator=(const message &) = delete;
    ~message() { blob_buf_free(&buffer_); }

    /// Puts a call's arguments in. 0 or a negative errno.
    int set_arguments(const json_t *args, const char *method)
    {
        if (!begun_) return -ENOMEM;
        // Beside the arguments a call holds its own header, the object's id and the method's name.
        const size_t overhead = 4 + 8 + 4 + (strlen(method) + 1 + 3) / 4 * 4 + 4;
        if (overhead > frame_max) return -EMSGSIZE;
        return args ? vela::append_json(buffer_, args, frame_max - overhead) : 0;
    }
    [[nodiscard]] blob_attr *get() const { return buffer_.head; }

private:
    blob_buf buffer_{};
    bool begun_;
};

/// The answer as its parts arrive.
struct reply {
    json_ref values{json_object()};
    size_t bytes = 0;
    int fault = values ? 0 : -ENOMEM;
};

void take_part(ubus_request *request, int /*type*/, blob_attr *part)
{
    auto &r = *static_cast<reply *>(request->priv);
    r.bytes += static_cast<size_t>(blob_pad_len(part));
    if (r.fault == 0) r.fault = r.bytes > reply_max ? -EBADMSG : vela::read_json(r.values.get(), part);
}

int invoke(ubus_record &record, uint32_t id, const char *method, const message &args, json_t **answer,
           const deadline &until)
{
    const int left_ms = until.left_ms();
    if (left_ms == 0) return -ETIMEDOUT; // to the library below 0 means no limit
    reply r;
    int result = 0;
    {
        const vela::pipe_signal_blocked quiet;
        const int status = ubus_invoke(record.ctx, id, method, args.get(), take_part, &r, left_ms);
        result = vela::request_error(record, status);
    }
    if (result == 0) result = r.fault;
    if (result == 0 && answer) *answer = r.values.release();
    return result;
}

/// A call to an object by name; `id` is what it is believed to be, 0 for not known, and corrected where it has changed.
int call(ubus_record &record, const char *object, uint32_t &id, const char *method, const json_t *args, json_t **answer,
         int timeout_ms)
{
    if (!method || *method == '\0' || (args && !json_is_object(args)) || timeout_ms > timeout_max_ms) return -EINVAL;
    const vela::ubus_call here;
    const auto until = deadline::after_ms(timeout_ms > 0 ? timeout_ms : default_timeout_ms);
    message m;
    if (const int result = m.set_arguments(args, method); result < 0) return result;
    if (!vela::connected(record)) return -ENOTCONN;

    int result = id != 0 ? invoke(record, id, method, m, answer, until) : -ENOENT;
    if (result == -ENOENT) {
        // Ids do not outlive their daemon or their provider. The same once more: the provider itself said so.
        uint32_t now = 0;
        result = vela::look_up(record, object, now, until);
        if (result == 0 && now == id) result = -ENOENT;
        if (result == 0) result = invoke(record, id = now, method, m, answer, until);
    }
    vela::deliver_later(record);
    return result;
}

// ---- what there is to call

/// By the type of an argument, as a signature has it.
constexpr std::array type_names{"any", "array", "table", "string", "int64", "int32", "int16", "boolean", "double"};

/// The objects that a lookup finds, as they arrive.
struct listing {
    json_ref objects{json_object()};
    int fault = objects ? 0 : -ENOMEM;
};

/// Puts words in place of the numbers of types.
int name_types(json_t *methods)
{
    const char *method = nullptr;
    json_t *arguments = nullptr;
    json_object_foreach(methods, method, arguments)
    {
        const char *name = nullptr;
        json_t *type = nullptr;
        json_object_foreach(arguments, name, type)
        {
            const auto number = static_cast<uint64_t>(json_integer_value(type));
            const char *const word = number < type_names.size() ? type_names[number] : type_names[0];
            if (json_object_set_new_nocheck(arguments, name, json_string(word)) != 0) return -ENOMEM;
        }
    }
    return 0;
}

void take_object(ubus_context * /*ctx*/, ubus_object_data *object, void *arg)
{
    auto &l = *static_cast<listing *>(arg);
    if (l.fault != 0) return;
    json_ref methods{json_object()};
    if (!methods) l.fault = -ENOMEM;
    if (l.fault == 0 && object->signature) l.fault = vela::read_json(methods.get(), object->signature);
    if (l.fault == 0) l.fault = name_types(methods.get());
    if (l.fault == 0 && vela::add_clean(l.objects.get(), object->path, std::move(methods)) != 0) l.fault = -ENOMEM;
}

template <class Number> const outcome &find_outcome(Number outcome::*member, Number wanted)
{
    const auto *const found =
        std::find_if(outcomes.begin(), outcomes.end(), [=](const outcome &o) { return o.*member == wanted; });
    return found != outcomes.end() ? *found : unknown;
}

} // namespace

int vela::bus_error(int status) { return status < 0 ? unknown.error : find_outcome(&outcome::status, status).error; }

int vela_ubus_call(vela_ubus_interface_t *iface, const char *method, const json_t *args, json_t **answer,
                   int timeout_ms)
{
    if (!iface) return -EINVAL;
    const char *const found = vela::inside(*iface).object.get();
    const char *const object = found ? found : iface->service;
    if (!object) return -EINVAL;
    return call(vela::inside(*iface), object, iface->id, method, args, answer, timeout_ms);
}

int vela_ubus_call_object(vela_ubus_interface_t *iface, const char *object, const char *method, const json_t *args,
                          json_t **answer, int timeout_ms)
{
    if (!iface || !object || *object == '\0') return -EINVAL;
    uint32_t id = 0;
    return call(vela::inside(*iface), object, id, method, args, answer, timeout_ms);
}

json_t *vela_ubus_objects_json(vela_ubus_interface_t *iface, const char *path)
{
    listing l;
    int result = iface ? l.fault : -EINVAL;
    if (result == 0) {
        ubus_record &record = vela::inside(*iface);
        const vela::ubus_call here;
        result = vela::may_request(record, deadline::after_ms(vela::bus_answer_ms));
        if (result == 0) {
            const vela::pipe_signal_blocked quiet;
            result = vela::request_error(record, ubus_lookup(record.ctx, path, take_object, &l));
        }
        vela::deliver_later(record);
    }
    if (result == 0) result = l.fault;
    if (result == 0) return l.objects.release();
    errno = -result;
    return nullptr;
}

const char *vela_ubus_error_text(int result) { return find_outcome(&outcome::error, result).text; }
