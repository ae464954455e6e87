// Members as JSON values, by the rows of their record.

#include <algorithm>
#include <arpa/inet.h>
#include <vela/core/internal/record_json.h>
#include <vela/core/internal/text.h>
#include <vela/core/util.h>

namespace vela
{
namespace
{

constexpr size_t text_max = 511;

/// An element of a member, widened; signed ones keep their sign.
uint64_t element(const uint8_t *at, const member_type &type)
{
    const auto widened = [at, &type]<class Unsigned, class Signed>(Unsigned number, Signed negative) {
        memcpy(&number, at, sizeof number);
        memcpy(&negative, at, sizeof negative);
        return type.is_signed ? static_cast<uint64_t>(int64_t{negative}) : uint64_t{number};
    };
    switch (type.size) {
    case 1: return widened(uint8_t{}, int8_t{});
    case 2: return widened(uint16_t{}, int16_t{});
    case 4: return widened(uint32_t{}, int32_t{});
    default: return widened(uint64_t{}, int64_t{});
    }
}

bool is_known(uint64_t number, const json_row &row)
{
    const unsigned above = 64 - 8U * row.type.size; // bits that the member does not have
    switch (row.unknown) {
    case unknown::ones: return number << above >> above != UINT64_MAX >> above;
    case unknown::lowest: return number != static_cast<uint64_t>(INT64_MIN >> above);
    case unknown::zero: return number != 0;
    case unknown::never: return true;
    }
    return true;
}

json_ref shown_number(uint64_t number, const json_row &row)
{
    switch (row.how) {
    case shown::bit: return json_ref{json_boolean((number & row.bits) != 0)};
    case shown::truth: return json_ref{json_boolean(number != 0)};
    case shown::word: return json_ref{json_string(row.word(static_cast<uint32_t>(number)))};
    default: break;
    }
    return row.type.is_signed ? json_ref{json_integer(static_cast<json_int_t>(number))} : number_json(number);
}

json_ref number_array(const uint8_t *at, const json_row &row)
{
    json_ref array{json_array()};
    for (size_t i = 0; i < row.type.count; ++i) {
        const uint64_t number = element(at + i * row.type.size, row.type);
        if (!is_known(number, row)) continue;
        if (json_array_append_new(array.get(), shown_number(number, row).release()) != 0) return {};
    }
    return array;
}

enum class outcome { known, not_known, no_memory };

outcome put(json_t *object, const char *key, json_ref value)
{
    return json_object_set_new(object, key, value.release()) == 0 ? outcome::known : outcome::no_memory;
}

bool is_bytes(shown how) { return how == shown::text || how == shown::mac || how == shown::address; }

bool all_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

outcome put_bytes(json_t *object, const json_row &row, std::span<const uint8_t> bytes, int family)
{
    const auto *text = reinterpret_cast<const char *>(bytes.data());
    if (row.how == shown::text && (*text != '\0' || row.unknown == unknown::never)) {
        return put(object, row.key, text_json({text, strnlen(text, bytes.size())}));
    }
    if (row.how == shown::text || (all_zero(bytes) && row.unknown != unknown::never)) return outcome::not_known;
    if (row.how == shown::mac) return put(object, row.key, json_ref{json_string(mac_text{bytes.data()}.c_str())});
    const address_text address{family, bytes.data()};
    return *address.text ? put(object, row.key, json_ref{json_string(address.text)}) : outcome::not_known;
}

outcome put_numbers(json_t *object, const json_row &row, const uint8_t *at)
{
    json_ref array = number_array(at, row);
    if (array && json_array_size(array.get()) == 0) return outcome::not_known;
    return put(object, row.key, std::move(array));
}

outcome put_member(json_t *object, const json_row &row, const uint8_t *at, int family)
{
    if (is_bytes(row.how)) return put_bytes(object, row, {at, size_t{row.type.size} * row.type.count}, family);
    if (row.type.count > 1) return put_numbers(object, row, at);
    const uint64_t number = element(at, row.type);
    if (!is_known(number, row)) return outcome::not_known;
    if (row.how == shown::word && !row.word(static_cast<uint32_t>(number))) return outcome::not_known;
    return put(object, row.key, shown_number(number, row));
}

} // namespace

bool put_record(json_t *object, std::span<const json_row> rows, const void *record, int family)
{
    return std::all_of(rows.begin(), rows.end(), [=](const json_row &row) {
        return put_member(object, row, static_cast<const uint8_t *>(record) + row.offset, family) != outcome::no_memory;
    });
}

json_ref text_json(std::string_view text)
{
    char copy[text_max + 1];
    copy_text(copy, text);
    utf8_sanitize(copy);
    return json_ref{json_string(copy)};
}

bool mark_partial(json_t *result)
{
    if (json_is_object(result)) return json_object_set_new(result, "partial", json_true()) == 0;
    for (size_t i = 0; i < json_array_size(result); ++i) {
        if (!mark_partial(json_array_get(result, i))) return false;
    }
    return true;
}

json_ref number_json(uint64_t number)
{
    return json_ref{json_integer(static_cast<json_int_t>(std::min(number, uint64_t{INT64_MAX})))};
}

address_text::address_text(int family, const void *address)
{
    if (family == AF_INET || family == AF_INET6) (void)inet_ntop(family, address, text, sizeof text); // the size fits
}

} // namespace vela
