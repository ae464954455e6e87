// Answers of the bus, read into records by their tables.

#include <vela/core/internal/text.h>
#include <vela/core/util.h>
#include <vela/services/internal/bus_record.h>

namespace vela
{
namespace
{

constexpr uint32_t words_max = 32; // numbers that a row may have words for

/// Writes a number into one element of a member, which it fits.
void store(const member_type &type, uint8_t *at, uint64_t number)
{
    const auto write = [at](auto narrow) { memcpy(at, &narrow, sizeof narrow); };
    switch (type.size) {
    case 1: return write(static_cast<uint8_t>(number));
    case 2: return write(static_cast<uint16_t>(number));
    case 4: return write(static_cast<uint32_t>(number));
    default: return write(number);
    }
}

void set_unknown(const json_row &row, uint8_t *at)
{
    for (size_t i = 0; i < row.type.count; ++i, at += row.type.size) {
        if (row.unknown == unknown::ones) store(row.type, at, UINT64_MAX);
        if (row.unknown == unknown::lowest) store(row.type, at, uint64_t{1} << (8 * row.type.size - 1));
    }
}

bool fits(const member_type &type, json_int_t number)
{
    const unsigned bits = 8U * type.size;
    if (!type.is_signed) return number >= 0 && (bits == 64 || static_cast<uint64_t>(number) >> bits == 0);
    const json_int_t most = static_cast<json_int_t>((uint64_t{1} << (bits - 1)) - 1);
    return number <= most && number >= -most - 1;
}

/// The number that a row's word stands for; nothing for a word it does not have.
std::optional<uint32_t> number_of(const json_row &row, const char *word)
{
    for (uint32_t number = 0; number < words_max; ++number) {
        const char *known = row.word(number);
        if (known && strcmp(known, word) == 0) return number;
    }
    return std::nullopt;
}

void read_member(const json_t *value, const json_row &row, uint8_t *at)
{
    const char *text = json_string_value(value);
    switch (row.how) {
    case shown::number:
        if (json_is_integer(value) && fits(row.type, json_integer_value(value))) {
            store(row.type, at, static_cast<uint64_t>(json_integer_value(value)));
        }
        break;
    case shown::truth: // some providers have no booleans
        if (json_is_boolean(value)) store(row.type, at, json_is_true(value));
        if (json_is_integer(value)) store(row.type, at, json_integer_value(value) != 0);
        break;
    case shown::text: read_text(text, reinterpret_cast<char *>(at), size_t{row.type.size} * row.type.count); break;
    case shown::mac: (void)strtomac(text, at); break; // leaves it zero
    case shown::word:
        if (const auto number = text ? number_of(row, text) : std::nullopt) store(row.type, at, *number);
        break;
    case shown::bit:
    case shown::address: break; // none of these records has one
    }
}

} // namespace

void read_record(const json_t *object, std::span<const json_row> rows, void *record, size_t size)
{
    memset(record, 0, size);
    for (const json_row &row : rows) {
        auto *at = static_cast<uint8_t *>(record) + row.offset;
        set_unknown(row, at);
        read_member(json_object_get(object, row.key), row, at);
    }
}

void read_text(const char *text, char *out, size_t size)
{
    if (!text) text = "";
    copy_text(out, size, {text, utf8_truncate_len(text, size, size - 1)});
}

int bus_questions::ask(const char *object, const char *method, const json_t *args, json_ref &answer)
{
    if (!iface_) return -ENOTCONN;
    const int left_ms = until_.left_ms();
    if (left_ms == 0) return -ETIMEDOUT;
    json_t *given = nullptr;
    const int result = vela_ubus_call_object(iface_, object, method, args, &given, left_ms);
    if (result == 0) answer.reset(given);
    return result;
}

bool nobody_there(int result) { return result == -ENOENT || result == -ENOTCONN; }

} // namespace vela
