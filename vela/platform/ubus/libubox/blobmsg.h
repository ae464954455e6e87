/**
 * @file
 * Named, typed values in attributes: the messages of the system bus. A value is an extended attribute whose id is its
 * type and whose payload is the name's length (16 bits, network order), the name, a NUL, zero bytes up to the next
 * multiple of four, and then the value. Elements of an array have an empty name.
 *
 * Values are aligned to four bytes only; the getters read them wherever they lie.
 */
#ifndef LIBUBOX_BLOBMSG_H
#define LIBUBOX_BLOBMSG_H

#include <libubox/blob.h>
#include <string.h>

#ifdef __cplusplus
extern "C" {
#endif

enum blobmsg_type {
    BLOBMSG_TYPE_UNSPEC,
    BLOBMSG_TYPE_ARRAY,
    BLOBMSG_TYPE_TABLE,
    BLOBMSG_TYPE_STRING,
    BLOBMSG_TYPE_INT64,
    BLOBMSG_TYPE_INT32,
    BLOBMSG_TYPE_INT16,
    BLOBMSG_TYPE_INT8,
    BLOBMSG_TYPE_DOUBLE,
    BLOBMSG_TYPE_LAST = BLOBMSG_TYPE_DOUBLE,
    BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
};

struct blobmsg_hdr {
    uint16_t namelen; /**< in network order, without the NUL */
    __extension__ uint8_t name[];
} __attribute__((packed));

/** What to look for: a name, and the type it must have (BLOBMSG_TYPE_UNSPEC: any). */
struct blobmsg_policy {
    const char *name;
    enum blobmsg_type type;
};

/** Bytes that a name of the given length takes in front of a value. */
static inline unsigned int blobmsg_hdrlen(unsigned int namelen)
{
    return (unsigned int)((sizeof(struct blobmsg_hdr) + namelen + 1 + 3) & ~3U);
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr) { return blob_be16(hdr->namelen); }

static inline int blobmsg_type(const struct blob_attr *attr) { return (int)blob_id(attr); }

/** The name, NUL-terminated; "" for an attribute without one. For values that passed blobmsg_check_attr(). */
static inline const char *blobmsg_name(const struct blob_attr *attr)
{
    if (!blob_is_extended(attr)) return "";
    return (const char *)((const struct blobmsg_hdr *)blob_data(attr))->name;
}

/** The value, behind the name. */
static inline void *blobmsg_data(const struct blob_attr *attr)
{
    char *data = (char *)blob_data(attr);
    if (blob_is_extended(attr)) data += blobmsg_hdrlen(blobmsg_namelen((const struct blobmsg_hdr *)data));
    return data;
}

/** Length of the value; 0 where the name leaves no room for one. */
static inline size_t blobmsg_data_len(const struct blob_attr *attr)
{
    const size_t name = (size_t)((char *)blobmsg_data(attr) - (char *)blob_data(attr));
    return name > blob_len(attr) ? 0 : blob_len(attr) - name;
}

/**
 * Whether a value is well formed: a type that exists, a name that ends inside it, a whole number of its type's width, a
 * double of 8 bytes at least, a text with its NUL. What a table or an array holds is not looked at.
 *
 * @param attr  a whole attribute: its length has been compared with what holds it
 * @param name  whether a name is required
 */
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);

/**
 * Finds named values in a run of values.
 *
 * A name with another type than asked for leaves its slot NULL; of several with one name the first counts; values
 * without a name are passed over. Where an attribute is cut short the walk ends without an error.
 *
 * @param tb    receives one attribute per policy entry, or NULL; the attributes lie in `data`
 * @param data  the values: blob_data() of a reply, blobmsg_data() of a table
 * @return 0; -EINVAL if `data` is NULL or `len` 0; -1 at a malformed value, with what was found before it
 */
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb, void *data,
                  unsigned int len);

/** Adds a value. @param name  NULL is the empty name  @return 0, or -1 when memory or room runs out */
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data, unsigned int len);

/** Opens a table or an array. @return the cookie that closes it, or NULL */
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double number)
{
    uint64_t bits;
    memcpy(&bits, &number, sizeof bits);
    bits = blob_be64(bits);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof bits);
}

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t number)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &number, sizeof number);
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t number)
{
    number = blob_be32(number);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &number, sizeof number);
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t number)
{
    number = blob_be64(number);
    return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &number, sizeof number);
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *text)
{
    return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, text, (unsigned int)strlen(text) + 1);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, false);
}

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
    return blobmsg_open_nested(buf, name, true);
}

/* The value as a number of the stated width. The caller has made sure of the type: blobmsg_parse() does. */
static inline uint8_t blobmsg_get_u8(const struct blob_attr *attr) { return *(const uint8_t *)blobmsg_data(attr); }

static inline uint16_t blobmsg_get_u16(const struct blob_attr *attr)
{
    uint16_t number;
    memcpy(&number, blobmsg_data(attr), sizeof number);
    return blob_be16(number);
}

static inline uint32_t blobmsg_get_u32(const struct blob_attr *attr)
{
    uint32_t number;
    memcpy(&number, blobmsg_data(attr), sizeof number);
    return blob_be32(number);
}

static inline uint64_t blobmsg_get_u64(const struct blob_attr *attr)
{
    uint64_t number;
    memcpy(&number, blobmsg_data(attr), sizeof number);
    return blob_be64(number);
}

static inline double blobmsg_get_double(const struct blob_attr *attr)
{
    const uint64_t bits = blobmsg_get_u64(attr);
    double number;
    memcpy(&number, &bits, sizeof number);
    return number;
}

#ifdef __cplusplus
}
#endif

#endif
