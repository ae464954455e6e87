// Records as JSON: one table per record says which members are shown, how, and which value means "not known". What is
// not known is left out.
//
//     constexpr vela::json_row rows[] = {
//         {"mtu", VELA_MEMBER(vela_netif, mtu), vela::shown::number, vela::unknown::ones},
//         {"name", VELA_MEMBER(vela_netif, name), vela::shown::text, vela::unknown::zero},
//     };
//     vela::json_ref object = vela::record_json(rows, netif);
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <jansson.h>
#include <span>
#include <string_view>
#include <type_traits>
#include <vela/core/internal/json.h>

namespace vela
{

/// How a member is shown.
enum class shown : uint8_t {
    number, // an array member: an array of those that are known
    truth,  // true unless it is 0
    text,   // made UTF-8
    mac,    // "02:56:4c:00:00:0a"
    address,
    word, // the number's name; one without a name is not known
    bit,  // true where the row's bits are set
};

/// The value that means "not known".
enum class unknown : uint8_t {
    ones,   // all bits set
    lowest, // the signed type's minimum
    zero,   // 0, an empty text, an address of zeros
    never,  // always known
};

/// What a member is made of.
struct member_type {
    uint8_t size;
    bool is_signed;
    uint16_t count; // of an array, else 1

    template <class T> static consteval member_type of()
    {
        using element = std::remove_all_extents_t<T>;
        static_assert(std::is_integral_v<element>);
        constexpr size_t each = sizeof(element);
        return {each, std::is_signed_v<element>, sizeof(T) / each};
    }
};

/// Where a member is and what it is made of: two entries of a row.
#define VELA_MEMBER(record, member) offsetof(record, member), vela::member_type::of<decltype(record::member)>()

struct json_row {
    const char *key;
    size_t offset;
    member_type type;
    shown how;
    vela::unknown unknown;
    const char *(*word)(uint32_t number) = nullptr; // for shown::word: a static text, or null
    uint64_t bits = 0;                              // for shown::bit
};

/// Sets the members in an object that exists. `family` is that of the record's addresses: AF_INET, AF_INET6, or 0 where
/// it has none. False when memory is short.
bool put_record(json_t *object, std::span<const json_row> rows, const void *record, int family = 0);

/// A new object; null when memory is short.
template <class Record> json_ref record_json(std::span<const json_row> rows, const Record &record, int family = 0)
{
    json_ref object{json_object()};
    if (!object || !put_record(object.get(), rows, &record, family)) return {};
    return object;
}

/// A new array of them; null when memory is short.
template <class Record> json_ref records_json(std::span<const json_row> rows, std::span<const Record> records)
{
    json_ref array{json_array()};
    for (const Record &record : records) {
        if (json_array_append_new(array.get(), record_json(rows, record).release()) != 0) return {};
    }
    return array;
}

/// Sets one more member of an object. False when memory is short, be it for the value.
inline bool put_json(json_t *object, const char *key, json_ref value)
{
    return json_object_set_new(object, key, value.release()) == 0;
}

/// Bytes that may be anything as a text: made UTF-8, cut to 511 bytes. Null when memory is short.
json_ref text_json(std::string_view text);

/// Sets "partial": true in an object, or in each object of an array. False when memory is short.
bool mark_partial(json_t *result);

/// A number; one beyond what JSON holds here, 2^63 - 1, becomes that.
json_ref number_json(uint64_t number);

/// What a JSON writer answers: `gather(result)` reads tables of the kernel into a new array or object and gives 0 or
/// more, or a negative errno. After -EAGAIN (they changed meanwhile) it is asked again, three times; then each object
/// of the result is marked as partial. So it is when `gather` gives -ENOSPC: there was more than is held. Null with
/// errno on failure.
template <class Gather> json_t *gathered_json(const Gather &gather)
{
    json_ref result;
    int status = gather(result);
    for (int again = 0; again < 3 && status == -EAGAIN; ++again) status = gather(result);
    const bool partial = status == -EAGAIN || status == -ENOSPC;
    if (partial && !mark_partial(result.get())) status = -ENOMEM;
    if (status >= 0 || (partial && status != -ENOMEM)) return result.release();
    errno = -status;
    return nullptr;
}

/// The JSON writer of a list: `walk(each, arg)` is its ..._foreach with the other arguments bound, and `show(record)`
/// makes an object of a record, null when memory is short.
template <class Record, class Walk, class Show> json_t *list_json(const Walk &walk, const Show &show)
{
    struct list {
        const Show &object_of;
        json_ref array;
        bool full; // no memory for another
    };
    const auto add = [](const Record *record, void *arg) {
        auto &l = *static_cast<list *>(arg);
        l.full = json_array_append_new(l.array.get(), l.object_of(*record).release()) != 0;
        return l.full ? 1 : 0;
    };
    return gathered_json([&](json_ref &result) {
        list l{show, json_ref{json_array()}, false};
        const int status = walk(add, &l);
        result = std::move(l.array);
        return l.full || !result ? -ENOMEM : status;
    });
}

/// Numeric text of an address in network order; empty for another family than AF_INET and AF_INET6.
struct address_text {
    address_text(int family, const void *address);
    char text[46] = "";
};

} // namespace vela
