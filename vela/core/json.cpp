// Reads and writes members of JSON objects by their type, and keeps time series in them. Numbers in a document may come
// from anywhere: what is computed with them wraps or saturates, it never overflows.

#include <cerrno>
#include <vela/core/file.h>
#include <vela/core/internal/json.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/numbers.h>
#include <vela/core/internal/text.h>
#include <vela/core/json.h>

timespec vl_now = {};
static_assert(sizeof vl_now.tv_sec == 8, "exported: programs and library must agree on its size");

namespace
{

constexpr const char *log_module = "libvela_util";
constexpr const char *integer_reader = "vela_json_integer_value_from_obj";

constexpr size_t member_name_size = 40; // of a series' members, with the NUL
constexpr size_t series_max = 360;
constexpr int64_t first_interval_s = 10;

using member_name = vela::formatted<member_name_size>;

/// Seconds from then to now, as far as 64 bits can tell.
int64_t elapsed(int64_t now_s, int64_t then_s)
{
    int64_t difference;
    if (!__builtin_sub_overflow(now_s, then_s, &difference)) return difference;
    return now_s < then_s ? INT64_MIN : INT64_MAX;
}

vela::json_ref array_of(int64_t value)
{
    vela::json_ref array{json_array()};
    if (array && json_array_append_new(array.get(), json_integer(value)) != 0) array.reset();
    return array;
}

/// Drops every second element: those at odd places.
void thin(json_t *array)
{
    for (size_t i = 1; i < json_array_size(array); ++i) json_array_remove(array, i);
}

/// Logs as the reader that it is a step of.
int number_in_string(const json_t *member, const char *object_name, const char *key, int32_t *value)
{
    const char *text = json_string_value(member);
    if (!text) { // jansson has none such; an empty string is a text, though no number
        log_debug_as(integer_reader, "no string for obj_name %s, key %s", object_name, key);
        return 0;
    }
    int number;
    if (sscanf(text, "%i", &number) != 1) {
        log_debug_as(integer_reader, "invalid integer '%s' in object %s, key %s", text, object_name, key);
        return 0;
    }
    *value = number;
    return 1;
}

} // namespace

int64_t vela_grab_ts(void)
{
    (void)clock_gettime(CLOCK_MONOTONIC, &vl_now); // on Linux this clock is always there
    return vl_now.tv_sec;
}

void vela_set_ts(int64_t seconds) { vl_now.tv_sec = seconds; }

const char *vela_json_get_str(const json_t *object, const char *key, const char *default_value)
{
    const char *text = json_string_value(json_object_get(object, key));
    return text ? text : default_value;
}

int vela_json_get_bool(const json_t *object, const char *key, int default_value)
{
    const json_t *member = json_object_get(object, key);
    if (json_is_integer(member)) return json_integer_value(member) != 0;
    return json_is_boolean(member) ? json_is_true(member) : default_value;
}

int32_t vela_json_read_long(const json_t *object, const char *key, int32_t default_value)
{
    return static_cast<int32_t>(vela_json_read_i64(object, key, default_value));
}

int64_t vela_json_read_i64(const json_t *object, const char *key, int64_t default_value)
{
    const json_t *member = json_object_get(object, key);
    return json_is_integer(member) ? json_integer_value(member) : default_value;
}

int vela_json_read_array(const json_t *object, const char *key, int64_t **values, size_t *count)
{
    const json_t *array = json_object_get(object, key);
    const size_t size = json_array_size(array);
    if (size == 0) return -1;
    vela::heap<int64_t> found{static_cast<int64_t *>(malloc(size * sizeof(int64_t)))};
    if (!found) {
        log_error("Failed to allocate memory");
        return -1;
    }

    size_t n = 0;
    for (size_t i = 0; i < size; ++i) {
        const json_t *element = json_array_get(array, i);
        if (json_is_integer(element)) found.get()[n++] = json_integer_value(element);
    }
    if (n == 0) return -1;
    *values = found.release();
    *count = n;
    return 0;
}

char *vela_json_array_to_csv(const json_t *object, const char *key)
{
    const json_t *array = json_object_get(object, key);
    const auto text_at = [array](size_t i) { return json_string_value(json_array_get(array, i)); };

    size_t room = 0; // a separator or the NUL behind each text
    for (size_t i = 0; i < json_array_size(array); ++i) {
        if (const char *text = text_at(i)) room += strlen(text) + 1;
    }
    if (room == 0) return nullptr;
    char *joined = static_cast<char *>(malloc(room));
    if (!joined) return nullptr;

    char *end = joined;
    for (size_t i = 0; i < json_array_size(array); ++i) {
        const char *text = text_at(i);
        if (!text) continue;
        end = stpcpy(end, text);
        *end++ = ',';
    }
    end[-1] = '\0';
    return joined;
}

int vela_json_add_long(json_t *object, const char *key, int32_t delta) { return vela_json_add_i64(object, key, delta); }

int vela_json_add_i64(json_t *object, const char *key, int64_t delta)
{
    const int64_t sum = vela::wrapping_sum(vela_json_read_i64(object, key, 0), delta);
    return json_object_set_new(object, key, json_integer(sum));
}

int vela_json_append_array(json_t *object, const char *key, int64_t value)
{
    json_t *member = json_object_get(object, key);
    if (member) return json_array_append_new(member, json_integer(value));

    auto array = array_of(value);
    if (!array) {
        log_error("Failed to allocate json array");
        return -1;
    }
    return json_object_set_new(object, key, array.release());
}

int vela_json_maybe_append_array(json_t *object, const char *prefix, int64_t value)
{
    const member_name array_name{"%sArray", prefix};
    const member_name time_name{"%sTime", prefix};
    const member_name interval_name{"%sInterval", prefix};
    if (!array_name.fits() || !time_name.fits() || !interval_name.fits()) {
        log_error("key too long: %s\n", prefix);
        return -1;
    }
    // A time that could not be set only makes the next append come early.
    const auto set_time = [&] { (void)json_object_set_new(object, time_name.c_str(), json_integer(vl_now.tv_sec)); };

    json_t *array = json_object_get(object, array_name.c_str());
    if (!array) {
        auto fresh = array_of(value);
        if (!fresh) return -1;
        set_time();
        return json_object_set_new(object, array_name.c_str(), fresh.release());
    }

    const int64_t last_s = vela_json_read_i64(object, time_name.c_str(), 0);
    const int64_t interval_s = vela_json_read_i64(object, interval_name.c_str(), first_interval_s);
    if (last_s != 0 && elapsed(vl_now.tv_sec, last_s) < interval_s) return -ENOENT;

    if (json_array_size(array) >= series_max) {
        thin(array);
        const json_int_t doubled = vela::wrapping_sum(interval_s, interval_s);
        (void)json_object_set_new(object, interval_name.c_str(), json_integer(doubled)); // else thinned earlier again
    }
    set_time();
    return json_array_append_new(array, json_integer(value));
}

int vela_json_integer_value_from_obj(const json_t *object, const char *object_name, const char *key, int accept_integer,
                                     int32_t *value)
{
    if (!value) {
        log_error("NULL pointer provided for value, obj_name %s, key %s", object_name, key);
        return 0;
    }
    const json_t *member = json_object_get(object, key);
    if (!member) {
        log_debug("no obj for obj_name %s, key %s", object_name, key);
        return 0;
    }
    if (json_is_string(member)) return number_in_string(member, object_name, key, value);
    if (!json_is_integer(member)) {
        log_debug("JSON object is of type %d, not a string or integer, obj_name %s, key %s", json_typeof(member),
                  object_name, key);
        return 0;
    }
    if (!accept_integer) {
        log_debug("JSON object as integer is not acceptable, obj_name %s, key %s", object_name, key);
        return 0;
    }
    *value = static_cast<int32_t>(json_integer_value(member));
    return 2;
}

json_t *mac_str_to_oui_json_string(const char *mac)
{
    if (!mac) return nullptr;
    uint8_t byte[6] = {};
    if (vela::read_mac(mac, byte) < 3) return nullptr;
    return json_string(vela::formatted<sizeof "000000">{"%02x%02x%02x", byte[0], byte[1], byte[2]}.c_str());
}

int json_object_load_file_base64(json_t *object, const char *key, FILE *stream)
{
    const vela::c_string text{load_file_base64(stream)};
    const int set = json_object_set_new(object, key, json_string(text ? text.get() : ""));
    return text && set == 0 ? 0 : -1;
}
