#include <cerrno>
#include <cmath>
#include <cstring>
#include <vela/core/util.h>
#include <vela/ipc/internal/bus_json.h>

namespace vela
{

namespace
{

constexpr int levels_max = 16; // objects and arrays inside one another, the outermost included

/// Appends JSON values to a message, within a budget of bytes.
class writer
{
public:
    writer(blob_buf &message, size_t most) : message_{message}, left_{most} {}

    int members(const json_t *object, int level)
    {
        if (level > levels_max) return -EINVAL;
        const char *name = nullptr;
        json_t *value = nullptr;
        json_object_foreach(const_cast<json_t *>(object), name, value)
        {
            if (const int result = put(name, value, level); result < 0) return result;
        }
        return 0;
    }

private:
    int elements(const json_t *array, int level)
    {
        if (level > levels_max) return -EINVAL;
        for (size_t i = 0; i < json_array_size(array); ++i) {
            if (const int result = put("", json_array_get(array, i), level); result < 0) return result;
        }
        return 0;
    }

    int put(const char *name, const json_t *value, int level)
    {
        switch (json_typeof(value)) {
        case JSON_OBJECT:
        case JSON_ARRAY: return put_nested(name, value, level + 1);
        case JSON_STRING: return put_text(name, value);
        case JSON_INTEGER: return put_integer(name, json_integer_value(value));
        case JSON_REAL:
            if (const int result = take(name, sizeof(double)); result < 0) return result;
            return added(blobmsg_add_double(&message_, name, json_real_value(value)));
        case JSON_TRUE:
        case JSON_FALSE:
            if (const int result = take(name, sizeof(uint8_t)); result < 0) return result;
            return added(blobmsg_add_u8(&message_, name, json_is_true(value) ? 1 : 0));
        case JSON_NULL:
            if (const int result = take(name, 0); result < 0) return result;
            return added(blobmsg_add_field(&message_, BLOBMSG_TYPE_UNSPEC, name, "", 0));
        }
        return -EINVAL;
    }

    int put_nested(const char *name, const json_t *value, int level)
    {
        if (const int result = take(name, 0); result < 0) return result;
        const bool is_array = json_is_array(value);
        void *const cookie = is_array ? blobmsg_open_array(&message_, name) : blobmsg_open_table(&message_, name);
        if (!cookie) return -ENOMEM;
        const int result = is_array ? elements(value, level) : members(value, level);
        blob_nest_end(&message_, cookie);
        return result;
    }

    int put_text(const char *name, const json_t *value)
    {
        const size_t length = json_string_length(value);
        if (strlen(json_string_value(value)) != length) return -EINVAL;
        if (const int result = take(name, length + 1); result < 0) return result;
        return added(blobmsg_add_field(&message_, BLOBMSG_TYPE_STRING, name, json_string_value(value),
                                       static_cast<unsigned>(length + 1)));
    }

    int put_integer(const char *name, json_int_t number)
    {
        const bool small = number >= INT32_MIN && number <= INT32_MAX;
        if (const int result = take(name, small ? sizeof(uint32_t) : sizeof(uint64_t)); result < 0) return result;
        return added(small ? blobmsg_add_u32(&message_, name, static_cast<uint32_t>(number))
                           : blobmsg_add_u64(&message_, name, static_cast<uint64_t>(number)));
    }

    /// Takes the bytes of a value from the budget: two headers, the name, the payload, each to whole words.
    int take(const char *name, size_t payload)
    {
        const size_t length = strlen(name);
        if (length > UINT16_MAX) return -EINVAL;
        const size_t header = sizeof(blob_attr) + static_cast<size_t>(blobmsg_hdrlen(static_cast<unsigned>(length)));
        const size_t size = payload > left_ ? payload : header + (payload + 3) / 4 * 4;
        if (size > left_) return -EMSGSIZE;
        left_ -= size;
        return 0;
    }

    static int added(int result) { return result == 0 ? 0 : -ENOMEM; }

    blob_buf &message_;
    size_t left_;
};

/// A copy that is valid UTF-8; null without memory.
c_string clean_copy(const char *text)
{
    c_string copy{strdup(text)};
    utf8_sanitize(copy.get());
    return copy;
}

int read_run(json_t *into, void *data, size_t left, int level);

/// Makes the JSON value of an attribute that has been checked; none where JSON has no word for it.
int read_value(json_ref &value, blob_attr *attr, int level)
{
    void *const data = blobmsg_data(attr);
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_TABLE: value.reset(json_object()); break;
    case BLOBMSG_TYPE_ARRAY: value.reset(json_array()); break;
    case BLOBMSG_TYPE_STRING: {
        const c_string text = clean_copy(static_cast<const char *>(data));
        value.reset(text ? json_string_nocheck(text.get()) : nullptr);
        break;
    }
    case BLOBMSG_TYPE_INT64: value.reset(json_integer(static_cast<int64_t>(blobmsg_get_u64(attr)))); break;
    case BLOBMSG_TYPE_INT32: value.reset(json_integer(static_cast<int32_t>(blobmsg_get_u32(attr)))); break;
    case BLOBMSG_TYPE_INT16: value.reset(json_integer(static_cast<int16_t>(blobmsg_get_u16(attr)))); break;
    case BLOBMSG_TYPE_INT8: value.reset(json_boolean(blobmsg_get_u8(attr) != 0)); break;
    case BLOBMSG_TYPE_DOUBLE:
        if (!std::isfinite(blobmsg_get_double(attr))) return 0;
        value.reset(json_real(blobmsg_get_double(attr)));
        break;
    default: value.reset(json_null()); break; // without a type: no other passes the check
    }
    if (!value) return -ENOMEM;
    if (!json_is_object(value.get()) && !json_is_array(value.get())) return 0;
    return read_run(value.get(), data, static_cast<size_t>(blobmsg_data_len(attr)), level + 1);
}

/// Adds one value to an array, or to an object, which has no place for one without a name.
int read_into(json_t *into, blob_attr *attr, int level)
{
    const char *const name = blob_is_extended(attr) ? blobmsg_name(attr) : "";
    const bool is_table = json_is_object(into);
    if (is_table && *name == '\0') return 0;
    json_ref value;
    if (const int result = read_value(value, attr, level); result < 0 || !value) return result;
    if (is_table) return add_clean(into, name, std::move(value));
    return json_array_append_new(into, value.release()) == 0 ? 0 : -ENOMEM;
}

int read_run(json_t *into, void *data, size_t left, int level)
{
    if (level > levels_max) return -EBADMSG;
    auto *attr = static_cast<blob_attr *>(data); // libubox reads through no const
    while (left >= sizeof *attr && blob_pad_len(attr) >= sizeof *attr && blob_pad_len(attr) <= left) {
        if (!blobmsg_check_attr(attr, false)) return -EBADMSG;
        if (const int result = read_into(into, attr, level); result < 0) return result;
        left -= blob_pad_len(attr);
        attr = blob_next(attr);
    }
    return 0;
}

} // namespace

int append_json(blob_buf &message, const json_t *object, size_t most)
{
    return writer{message, most}.members(object, 1);
}

int read_json(json_t *object, const blob_attr *message)
{
    return read_run(object, blob_data(message), static_cast<size_t>(blob_len(message)), 1);
}

int add_clean(json_t *object, const char *name, json_ref value)
{
    const c_string key = clean_copy(name);
    return key && json_object_set_new_nocheck(object, key.get(), value.release()) == 0 ? 0 : -ENOMEM;
}

} // namespace vela
