/**
 * @file
 * A growable byte buffer used as a queue: bytes or formatted text go in at the tail, come out at the head.
 *
 * Its operations are members of the object and take it as their first argument:
 *
 *     buffer *b = buffer_create();
 *     b->printf(b, "%s=%d\n", key, value);
 *     b->send(b, fd, MSG_NOSIGNAL);
 *     b->destroy(b);
 *
 * Where the C library makes printf a macro (clang with _FORTIFY_SOURCE), write (b->printf)(b, ...).
 *
 * Only a buffer that has been drained uses the room of what was read again: one that always keeps a byte grows by all
 * that goes through it. Drain it, or reset() it, now and then.
 *
 * Nothing here ends the process for want of memory: a growth that fails says so and changes nothing that was unread.
 * Pointers into the data hold until the next operation that adds, resets or destroys.
 */
#ifndef VELA_CORE_BUFFER_H
#define VELA_CORE_BUFFER_H

#include <stdint.h>
#include <sys/types.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Capacity of buffer_create(), and the step by which buffers grow, in bytes. */
#define BUFFER_DEFAULT_CAPACITY 4096
/** Largest capacity a buffer can be created with, in bytes; it may grow beyond. */
#define BUFFER_CAPACITY_MAX 4194304

typedef struct buffer buffer;
typedef struct buffer_state buffer_state;

struct buffer {
    buffer_state *state; /**< private */

    /** Gives the buffer an empty, zeroed data area, in place of the one it had. The constructors have called it. 0, or
     *  -1 when the capacity exceeds BUFFER_CAPACITY_MAX or memory is short. */
    int (*init)(buffer *b, uint32_t capacity);

    /** Unread bytes. */
    uint32_t (*length)(const buffer *b);

    /** Bytes allocated at present, whether used or not. */
    uint32_t (*capacity)(const buffer *b);

    /** Copies bytes to the tail; they may be the buffer's own. Returns count, or 0 for a null pointer, a count of 0 or
     *  a growth that failed. */
    uint32_t (*append)(buffer *b, const void *bytes, uint32_t count);

    /** Appends formatted text and returns its length, 0 when growth fails. A NUL follows the text without being part
     *  of the unread bytes, so that data() is a C string and what is appended next continues the text. */
    uint32_t (*printf)(buffer *b, const char *format, ...) VELA_PRINTF(2, 3);

    /** Takes up to count bytes from the head and returns how many. out receives them, or is null to drop them. */
    uint32_t (*read)(buffer *b, void *out, uint32_t count);

    /** The first unread byte; length() of them follow. */
    uint8_t *(*data)(const buffer *b);

    /** A new buffer with a copy of the unread bytes and the same capacity; of default capacity when there are none.
     *  Null when memory is short or this buffer has grown beyond BUFFER_CAPACITY_MAX. The caller destroys it. */
    buffer *(*clone)(const buffer *b);

    /** Forgets everything, goes back to the capacity at creation and zeroes the data area. */
    void (*reset)(buffer *b);

    /** Makes what was read unread again, back to the last time the buffer was reset or took bytes while empty. */
    void (*rewind)(buffer *b);

    /** Frees the buffer with all its bytes. */
    void (*destroy)(buffer *b);

    /** One send(2) of the unread bytes; what was sent is consumed. Returns the bytes sent, the negative result of
     *  send(2) with its errno, or -1 for a negative descriptor. Pass MSG_NOSIGNAL where a closed peer must not raise
     *  SIGPIPE. */
    ssize_t (*send)(buffer *b, int fd, int flags);

    /** Appends count zero bytes and returns a pointer to them, for the caller to fill; null when growth fails. */
    uint8_t *(*append_zeroed)(buffer *b, uint32_t count);
};

/**
 * Creates an empty buffer; release it with buffer_destroy() or its own destroy().
 *
 * @param capacity  bytes to allocate now, at most BUFFER_CAPACITY_MAX
 * @return the buffer; null when the capacity is too large or memory is short
 */
VELA_API buffer *buffer_create2(uint32_t capacity);

/** buffer_create2() with BUFFER_DEFAULT_CAPACITY. */
VELA_API buffer *buffer_create(void);

/** Destroys a buffer; null is allowed. */
VELA_API void buffer_destroy(buffer *b);

/** Drops count bytes from the tail, at most all of the unread ones. */
VELA_API void buffer_pop(buffer *b, uint32_t count);

/** Appends count numbered lines of test data; stops early where memory is short. */
VELA_API void buffer_fill(buffer *b, uint32_t count);

#ifdef __cplusplus
}
#endif

#endif
