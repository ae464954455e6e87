// Named values: what is well formed, finding values by name, adding them to a message.

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <libubox/blobmsg.h>
#include <vela/platform/ubus/builder.h>

namespace
{

constexpr size_t name_max = UINT16_MAX;

bool has_type(const blob_attr *attr, enum blobmsg_type wanted)
{
    return wanted == BLOBMSG_TYPE_UNSPEC || blobmsg_type(attr) == static_cast<int>(wanted);
}

/// Whether the name ends inside the attribute, with its NUL and padding.
bool name_fits(const blob_attr *attr, bool required)
{
    if (!blob_is_extended(attr)) return !required;
    if (blob_len(attr) < sizeof(blobmsg_hdr)) return false;
    const auto *const hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
    const unsigned length = blobmsg_namelen(hdr);
    if (required && length == 0) return false;
    return blobmsg_hdrlen(length) <= blob_len(attr) && hdr->name[length] == '\0';
}

bool value_fits(const blob_attr *attr)
{
    const size_t length = blobmsg_data_len(attr);
    switch (blobmsg_type(attr)) {
    case BLOBMSG_TYPE_UNSPEC:
    case BLOBMSG_TYPE_ARRAY:
    case BLOBMSG_TYPE_TABLE: return true;
    case BLOBMSG_TYPE_STRING: return length > 0 && static_cast<const char *>(blobmsg_data(attr))[length - 1] == '\0';
    case BLOBMSG_TYPE_INT64: return length == 8;
    case BLOBMSG_TYPE_DOUBLE: return length >= 8;
    case BLOBMSG_TYPE_INT32: return length == 4;
    case BLOBMSG_TYPE_INT16: return length == 2;
    case BLOBMSG_TYPE_INT8: return length == 1;
    default: return false;
    }
}

bool is_named(const blob_attr *attr, const char *name)
{
    const auto *const hdr = static_cast<const blobmsg_hdr *>(blob_data(attr));
    const size_t length = blobmsg_namelen(hdr); // a NUL inside a name makes it another
    return name && strlen(name) == length && memcmp(name, hdr->name, length) == 0;
}

void take(const blobmsg_policy *policy, int count, blob_attr **tb, blob_attr *attr)
{
    for (int i = 0; i < count; ++i) {
        if (!tb[i] && is_named(attr, policy[i].name) && has_type(attr, policy[i].type)) tb[i] = attr;
    }
}

blob_attr *append_named(blob_buf *buf, int type, const char *name, size_t length)
{
    const size_t namelen = name ? strlen(name) : 0;
    if (namelen > name_max || length > BLOB_ATTR_LEN_MASK) return nullptr;
    const unsigned header = blobmsg_hdrlen(static_cast<unsigned>(namelen));
    blob_attr *const attr = vela::bus::append(buf, BLOB_ATTR_EXTENDED | vela::bus::id_bits(type), header + length);
    if (!attr) return nullptr;

    auto *const hdr = static_cast<blobmsg_hdr *>(blob_data(attr));
    memset(hdr, 0, header);
    hdr->namelen = blob_be16(static_cast<uint16_t>(namelen));
    if (namelen != 0) memcpy(hdr->name, name, namelen);
    return attr;
}

} // namespace

bool blobmsg_check_attr(const blob_attr *attr, bool name)
{
    return blob_raw_len(attr) >= sizeof *attr && name_fits(attr, name) && value_fits(attr);
}

int blobmsg_parse(const blobmsg_policy *policy, int policy_len, blob_attr **tb, void *data, unsigned int len)
{
    std::fill_n(tb, policy_len, nullptr);
    if (!data || len == 0) return -EINVAL;
    size_t left = len;
    for (auto *attr = static_cast<blob_attr *>(data); blob_fits(attr, left); attr = blob_next(attr)) {
        if (!blobmsg_check_attr(attr, false)) return -1;
        if (*blobmsg_name(attr) != '\0') take(policy, policy_len, tb, attr);
        left -= blob_pad_len(attr);
    }
    return 0;
}

int blobmsg_add_field(blob_buf *buf, int type, const char *name, const void *data, unsigned int len)
{
    blob_attr *const attr = append_named(buf, type, name, len);
    if (!attr) return -1;
    if (len != 0) memcpy(blobmsg_data(attr), data, len);
    return 0;
}

void *blobmsg_open_nested(blob_buf *buf, const char *name, bool array)
{
    return vela::bus::open(buf, append_named(buf, array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE, name, 0));
}
