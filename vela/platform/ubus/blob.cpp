// Building messages. Attributes are appended behind the innermost open one, whose length grows at once; those around it
// learn theirs when it is closed. Offsets rather than pointers name positions, because growing moves the buffer.

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <libubox/blob.h>
#include <vela/platform/ubus/builder.h>

namespace
{

constexpr size_t header_size = sizeof(blob_attr);
constexpr size_t message_max = BLOB_ATTR_LEN_MASK & ~3U; // what 24 bits of length can count, whole words
constexpr size_t first_size = 256;                       // room for most messages

constexpr size_t padded(size_t n) { return (n + BLOB_ATTR_ALIGN - 1) & ~static_cast<size_t>(BLOB_ATTR_ALIGN - 1); }

size_t capacity(const blob_buf &buf) { return buf.buflen > 0 ? static_cast<size_t>(buf.buflen) : 0; }

size_t offset(const blob_buf &buf, const void *at)
{
    return static_cast<size_t>(static_cast<const char *>(at) - static_cast<const char *>(buf.buf));
}

blob_attr *attribute(const blob_buf &buf, size_t offset)
{
    return reinterpret_cast<blob_attr *>(static_cast<char *>(buf.buf) + offset);
}

void set_header(blob_attr *attr, uint32_t id_bits, size_t raw_len)
{
    attr->id_len = blob_be32(id_bits | static_cast<uint32_t>(raw_len));
}

void set_length(blob_attr *attr, size_t raw_len) { set_header(attr, blob_word(attr) & ~BLOB_ATTR_LEN_MASK, raw_len); }

bool grow(blob_buf *buf, int minlen)
{
    const size_t size = std::max({first_size, 2 * capacity(*buf), capacity(*buf) + static_cast<size_t>(minlen)});
    void *const moved = realloc(buf->buf, size);
    if (!moved) return false;
    buf->buf = moved;
    buf->buflen = static_cast<int>(size);
    return true;
}

bool make_room(blob_buf *buf, size_t end)
{
    if (end <= capacity(*buf)) return true;
    return buf->grow(buf, static_cast<int>(end - capacity(*buf))) && end <= capacity(*buf);
}

} // namespace

namespace vela::bus
{

blob_attr *append(blob_buf *buf, uint32_t id_bits, size_t payload)
{
    if (!buf->head) return nullptr;
    const size_t head = offset(*buf, buf->head);
    const size_t start = head + blob_pad_len(buf->head);
    if (payload > message_max || start + header_size + padded(payload) > message_max) return nullptr;

    const size_t end = start + header_size + padded(payload);
    if (!make_room(buf, end)) return nullptr;
    buf->head = attribute(*buf, head);
    set_length(buf->head, end - head);

    blob_attr *const attr = attribute(*buf, start);
    memset(attribute(*buf, end - BLOB_ATTR_ALIGN), 0, BLOB_ATTR_ALIGN); // padding; before the header, which may be it
    set_header(attr, id_bits, header_size + payload);
    return attr;
}

void *open(blob_buf *buf, blob_attr *attr)
{
    if (!attr) return nullptr;
    const size_t parent = offset(*buf, buf->head);
    buf->head = attr;
    return reinterpret_cast<void *>(parent + 1); // the outermost lies at 0, which would read as a failure
}

} // namespace vela::bus

using vela::bus::append;
using vela::bus::id_bits;

int blob_buf_init(blob_buf *buf, int id)
{
    if (!buf->grow) buf->grow = grow;
    buf->head = nullptr;
    if (!make_room(buf, header_size)) return -ENOMEM;
    buf->head = attribute(*buf, 0);
    set_header(buf->head, id_bits(id), header_size);
    return 0;
}

void blob_buf_free(blob_buf *buf)
{
    free(buf->buf);
    *buf = {};
}

blob_attr *blob_put(blob_buf *buf, int id, const void *ptr, unsigned int len)
{
    blob_attr *const attr = append(buf, id_bits(id), len);
    if (!attr || len == 0) return attr;
    if (ptr)
        memcpy(blob_data(attr), ptr, len);
    else
        memset(blob_data(attr), 0, len);
    return attr;
}

blob_attr *blob_put_string(blob_buf *buf, int id, const char *text)
{
    return blob_put(buf, id, text, static_cast<unsigned>(strlen(text)) + 1);
}

blob_attr *blob_put_u32(blob_buf *buf, int id, uint32_t number)
{
    number = blob_be32(number);
    return blob_put(buf, id, &number, sizeof number);
}

void blob_nest_end(blob_buf *buf, void *cookie)
{
    if (!cookie || !buf->head) return;
    const size_t parent = reinterpret_cast<uintptr_t>(cookie) - 1;
    const size_t child = offset(*buf, buf->head);
    if (parent >= child) return; // closed already
    const size_t end = child + blob_pad_len(buf->head);
    buf->head = attribute(*buf, parent);
    set_length(buf->head, end - parent);
}
