// Records out of the answers of bus objects: the table that shows a record as JSON also says what is read into it.
#pragma once

#include <cerrno>
#include <cstddef>
#include <span>
#include <vela/core/internal/json.h>
#include <vela/core/internal/record_json.h>
#include <vela/core/internal/wait.h>
#include <vela/ipc/ubus.h>

namespace vela
{

/// Fills a record of so many bytes: zero, then each member of the table "not known", then what the object has of the
/// table's keys. A value of another type or beyond the member's range stays not known; a text is cut to its member.
void read_record(const json_t *object, std::span<const json_row> rows, void *record, size_t size);

/// Copies a text of the bus into a member: cut at a character, with its NUL; "" for null.
void read_text(const char *text, char *out, size_t size);

/// What a family asks the bus in one of its calls: within 3 s in all, however many questions it takes.
class bus_questions
{
public:
    explicit bus_questions(vela_ubus_interface_t *iface, int patience_ms = 3000)
        : iface_{iface}, until_{deadline::after_ms(patience_ms)}
    {
    }
    /// 0, or a negative errno: -ENOENT where nobody offers the object, -ENOTCONN without a bus, also for a null record.
    int ask(const char *object, const char *method, const json_t *args, json_ref &answer);

private:
    vela_ubus_interface_t *iface_;
    deadline until_;
};

/// True for an answer that says that there is no bus, or nobody on it: what falls back to another source goes on then.
bool nobody_there(int result);

/// The elements of a list in an answer, each read into a record, as long as `each` gives 0.
///
/// @return how many were delivered; -ENOSPC when there were more than `most`, after delivering so many
template <class Record, class Each>
int each_record(const json_t *list, std::span<const json_row> rows, size_t most, Each each)
{
    const size_t size = json_array_size(list);
    int delivered = 0;
    for (size_t i = 0; i < size; ++i) {
        if (static_cast<size_t>(delivered) == most) return -ENOSPC;
        const json_t *element = json_array_get(list, i);
        if (!json_is_object(element)) continue;
        Record record;
        read_record(element, rows, &record, sizeof record);
        ++delivered;
        if (each(record) != 0) break;
    }
    return delivered;
}

} // namespace vela
