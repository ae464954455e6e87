// A growable byte buffer, used as a queue. Its data area holds, in this order: bytes already read, unread bytes, free
// room. Unread bytes keep their place; the room of the read ones is used again once the buffer has been drained.

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <sys/socket.h>
#include <vela/core/buffer.h>
#include <vela/core/internal/buffer.h>
#include <vela/core/internal/log.h>

struct buffer_state {
    uint8_t *data;
    uint32_t read;   // offset of the first unread byte
    uint32_t write;  // offset behind the last byte written
    uint32_t length; // unread bytes
    uint32_t allocated;
    uint32_t initial_capacity;
};

static_assert(offsetof(buffer, init) == sizeof(void *) && offsetof(buffer, append_zeroed) == 13 * sizeof(void *));

namespace
{

constexpr const char *log_module = "buffer";

constexpr uint64_t growth_step = 4096;
constexpr size_t short_text = 256; // formatted text up to here needs no allocation of its own

/// The object that callers see, and behind it what they do not.
struct buffer_block {
    buffer object;
    buffer_state state;
};

/// A data area may have 0 bytes, an allocation may not: its result would look like a failure.
constexpr size_t allocation_size(uint32_t capacity) { return std::max<size_t>(capacity, 1); }

/// Whether n bytes fit behind the last one written, with nothing to reclaim before.
bool has_room(const buffer_state &s, uint32_t n) { return s.length != 0 && n <= s.allocated - s.write; }

bool make_room(buffer_state &s, uint32_t n)
{
    if (s.length == 0) s.read = s.write = 0;
    if (n <= s.allocated - s.write) return true;
    const uint64_t allocated = s.allocated + (n + growth_step - 1) / growth_step * growth_step;
    if (allocated > UINT32_MAX) return false;
    void *data = realloc(s.data, allocated);
    if (!data) return false;
    s.data = static_cast<uint8_t *>(data);
    s.allocated = static_cast<uint32_t>(allocated);
    return true;
}

/// Counts the next n bytes as unread and returns their place.
uint8_t *take(buffer_state &s, uint32_t n)
{
    uint8_t *tail = s.data + s.write;
    s.write += n;
    s.length = s.write - s.read;
    return tail;
}

/// The same, with room made for them; null when it cannot be had.
uint8_t *grow(buffer_state &s, uint32_t n) { return has_room(s, n) || make_room(s, n) ? take(s, n) : nullptr; }

void consume(buffer_state &s, uint32_t n)
{
    s.read += n;
    s.length -= n;
}

namespace operation
{

int init(buffer *b, uint32_t capacity)
{
    if (capacity > BUFFER_CAPACITY_MAX) return -1;
    auto *data = static_cast<uint8_t *>(calloc(allocation_size(capacity), 1));
    if (!data) return -1;
    free(b->state->data);
    *b->state = {.data = data, .allocated = capacity, .initial_capacity = capacity};
    return 0;
}

uint32_t length(const buffer *b) { return b->state->length; }

uint32_t capacity(const buffer *b) { return b->state->allocated; }

/// Appends after making room, which moves bytes that are the buffer's own. A function apart: append() is called for
/// every few bytes and has nothing to save without it (a quarter of its time).
[[gnu::noinline]] uint32_t append_moved(buffer_state &s, const void *bytes, uint32_t count)
{
    const uintptr_t own_offset = reinterpret_cast<uintptr_t>(bytes) - reinterpret_cast<uintptr_t>(s.data);
    const bool own = own_offset < s.allocated;
    if (!make_room(s, count)) return 0;
    memmove(take(s, count), own ? s.data + own_offset : bytes, count);
    return count;
}

uint32_t append(buffer *b, const void *bytes, uint32_t count)
{
    if (!bytes || count == 0) return 0;
    buffer_state &s = *b->state;
    if (!has_room(s, count)) return append_moved(s, bytes, count);
    memmove(take(s, count), bytes, count);
    return count;
}

/// Appends text with its NUL, which the next growth overwrites.
uint32_t append_text(buffer_state &s, const char *text, uint32_t length)
{
    if (length == UINT32_MAX) return 0;
    uint8_t *tail = grow(s, length + 1);
    if (!tail) return 0;
    memcpy(tail, text, size_t{length} + 1);
    --s.write;
    --s.length;
    return length;
}

// Formatted elsewhere first: the arguments may be the buffer's own bytes.
VELA_PRINTF(2, 3) uint32_t printf(buffer *b, const char *format, ...)
{
    char text[short_text];
    va_list args;
    va_start(args, format);
    int length = vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (length < 0) return 0;
    if (static_cast<size_t>(length) < sizeof text) return append_text(*b->state, text, static_cast<uint32_t>(length));

    char *long_text = nullptr;
    va_start(args, format);
    length = vasprintf(&long_text, format, args);
    va_end(args);
    if (length < 0) return 0;
    const vela::c_string owned{long_text};
    return append_text(*b->state, long_text, static_cast<uint32_t>(length));
}

uint32_t read(buffer *b, void *out, uint32_t count)
{
    buffer_state &s = *b->state;
    const uint32_t n = std::min(count, s.length);
    if (out && n != 0) memcpy(out, s.data + s.read, n);
    consume(s, n);
    return n;
}

uint8_t *data(const buffer *b) { return b->state->data + b->state->read; }

buffer *clone(const buffer *b)
{
    const buffer_state &s = *b->state;
    if (s.length == 0) return buffer_create();
    vela::buffer_ptr copy{buffer_create2(s.allocated)};
    if (!copy || append(copy.get(), data(b), s.length) == 0) return nullptr;
    return copy.release();
}

void reset(buffer *b)
{
    buffer_state &s = *b->state;
    s.read = s.write = s.length = 0;
    if (s.allocated > s.initial_capacity) {
        if (void *data = realloc(s.data, allocation_size(s.initial_capacity))) {
            s.data = static_cast<uint8_t *>(data);
            s.allocated = s.initial_capacity;
        } else {
            log_warn_as("buffer_reset", "Failed to reallocate buffer");
        }
    }
    memset(s.data, 0, s.allocated);
}

void rewind(buffer *b)
{
    b->state->read = 0;
    b->state->length = b->state->write;
}

void destroy(buffer *b)
{
    free(b->state->data);
    free(b); // with its state
}

ssize_t send(buffer *b, int fd, int flags)
{
    if (fd < 0) return -1;
    buffer_state &s = *b->state;
    const ssize_t sent = ::send(fd, s.data + s.read, s.length, flags);
    if (sent > 0) consume(s, static_cast<uint32_t>(sent));
    return sent;
}

uint8_t *append_zeroed(buffer *b, uint32_t count)
{
    uint8_t *tail = grow(*b->state, count);
    if (tail) memset(tail, 0, count);
    return tail;
}

} // namespace operation

constexpr buffer without_state = {
    .state = nullptr,
    .init = operation::init,
    .length = operation::length,
    .capacity = operation::capacity,
    .append = operation::append,
    .printf = operation::printf,
    .read = operation::read,
    .data = operation::data,
    .clone = operation::clone,
    .reset = operation::reset,
    .rewind = operation::rewind,
    .destroy = operation::destroy,
    .send = operation::send,
    .append_zeroed = operation::append_zeroed,
};

} // namespace

uint32_t vela::bytes_to_end(const buffer &b) { return b.state->allocated - b.state->read; }

buffer *buffer_create2(uint32_t capacity)
{
    auto *block = static_cast<buffer_block *>(malloc(sizeof(buffer_block)));
    if (!block) return nullptr;
    *block = {.object = without_state, .state = {}};
    block->object.state = &block->state;
    vela::buffer_ptr b{&block->object};
    return b->init(b.get(), capacity) == 0 ? b.release() : nullptr;
}

buffer *buffer_create(void) { return buffer_create2(BUFFER_DEFAULT_CAPACITY); }

void buffer_destroy(buffer *b)
{
    if (b) b->destroy(b);
}

void buffer_pop(buffer *b, uint32_t count)
{
    buffer_state &s = *b->state;
    s.length -= std::min(count, s.length);
    s.write -= std::min(count, s.write);
}

void buffer_fill(buffer *b, uint32_t count)
{
    constexpr char digits[] = "12345678901234567890123456789012345678901234567890";
    constexpr char line_end[] = "123456789012345678901234567890123456789\n++++++++++";
    static_assert(sizeof digits == 51 && sizeof line_end == 51);

    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t start = i * 100;
        if (b->printf(b, "%04d-%04d ", static_cast<int>(start + 1), static_cast<int>(start + 100)) == 0) return;
        if (b->append(b, digits, 50) == 0 || b->append(b, line_end, 50) == 0) return;
    }
}
