/**
 * @file
 * Attributes: the binary format of the system bus. An attribute is one 32-bit word in network order (bit 31 extended,
 * bits 30..24 id, bits 23..0 length with this word), its payload, and zero bytes up to the next multiple of four, which
 * its own length does not count and its parent's does.
 *
 * Attributes may lie at any address; nothing here reads them as aligned words.
 */
#ifndef LIBUBOX_BLOB_H
#define LIBUBOX_BLOB_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BLOB_ATTR_ID_MASK 0x7f000000
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffff
#define BLOB_ATTR_ALIGN 4
#define BLOB_ATTR_EXTENDED 0x80000000

struct blob_attr {
    uint32_t id_len; /**< in network order; blob_id() and blob_raw_len() take it apart */
    __extension__ char data[];
} __attribute__((packed));

/**
 * A message being built. Zero it before its first use, start each message with blob_buf_init(), end with
 * blob_buf_free(). What is added moves the message: take no pointers into it before it is complete.
 */
struct blob_buf {
    struct blob_attr *head;                         /**< the message; while a table or an array is open, that one */
    bool (*grow)(struct blob_buf *buf, int minlen); /**< set by blob_buf_init() where it is NULL */
    int buflen;
    void *buf;
};

/** Between network order and this machine's; the way there is the way back. */
static inline uint16_t blob_be16(uint16_t n)
{
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? n : __builtin_bswap16(n);
}
static inline uint32_t blob_be32(uint32_t n)
{
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? n : __builtin_bswap32(n);
}
static inline uint64_t blob_be64(uint64_t n)
{
    return __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? n : __builtin_bswap64(n);
}

static inline uint32_t blob_word(const struct blob_attr *attr) { return blob_be32(attr->id_len); }

/** Id, 0 to 127. */
static inline unsigned int blob_id(const struct blob_attr *attr)
{
    return (blob_word(attr) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

/** Whether a name stands before the value. */
static inline bool blob_is_extended(const struct blob_attr *attr)
{
    return (blob_word(attr) & BLOB_ATTR_EXTENDED) != 0;
}

/** Length with the header, without padding. */
static inline size_t blob_raw_len(const struct blob_attr *attr) { return blob_word(attr) & BLOB_ATTR_LEN_MASK; }

/** Length with header and padding: the way to the next attribute. */
static inline size_t blob_pad_len(const struct blob_attr *attr)
{
    return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

/** Length of the payload; 0 for a header that claims to be shorter than itself. */
static inline size_t blob_len(const struct blob_attr *attr)
{
    const size_t raw = blob_raw_len(attr);
    return raw < sizeof(struct blob_attr) ? 0 : raw - sizeof(struct blob_attr);
}

/** The payload. */
static inline void *blob_data(const struct blob_attr *attr) { return (void *)(attr + 1); }

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
    return (struct blob_attr *)((const char *)attr + blob_pad_len(attr));
}

/**
 * Whether a whole attribute, its padding included, stands at the beginning of `left` bytes. A length of 1 to 3 passes,
 * as it does in libubox: such an attribute is there, and malformed.
 */
static inline bool blob_fits(const struct blob_attr *attr, size_t left)
{
    return left >= sizeof(struct blob_attr) && blob_pad_len(attr) >= sizeof(struct blob_attr) &&
           blob_pad_len(attr) <= left;
}

/** Payload as a number of the stated width. The caller has made sure that it has that width. */
static inline uint8_t blob_get_u8(const struct blob_attr *attr) { return *(const uint8_t *)blob_data(attr); }
static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
    uint32_t number;
    __builtin_memcpy(&number, blob_data(attr), sizeof number);
    return blob_be32(number);
}

/**
 * Begins a message, forgetting what the buffer held.
 *
 * @param id  id of the outermost attribute
 * @return 0, or -ENOMEM
 */
int blob_buf_init(struct blob_buf *buf, int id);

/** Gives the memory back; the buffer is as zeroed. */
void blob_buf_free(struct blob_buf *buf);

/**
 * Adds one attribute to the message.
 *
 * @param ptr  payload, copied; NULL leaves it zero
 * @return the attribute, valid until more is added; NULL when memory or the 24 bits of a length run out
 */
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);

/** @return as blob_put() */
struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *text);
struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t number);

/** Closes what a function that opens an attribute gave a cookie for. A NULL cookie does nothing. */
void blob_nest_end(struct blob_buf *buf, void *cookie);

#ifdef __cplusplus
}
#endif

#endif
