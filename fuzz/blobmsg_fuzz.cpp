// Messages from the bus: every reader, over a block of exactly the input's size; what is well formed is built again and
// must come out the same when that is read and built once more.
#include <cstdlib>
#include <libubox/blobmsg.h>
#include <vector>
#include <vela/core/log.h>
#include <vela/ipc/ubus.h>

namespace
{

constexpr blobmsg_policy policy[] = {{"satisfaction", BLOBMSG_CAST_INT64}, {"s", BLOBMSG_TYPE_STRING}};

size_t sum; // keeps the reads

/// Copies a run of values into `out`. False where one is not as the builder writes it.
bool rebuild(blob_buf *out, const blob_attr *attr, size_t left, int depth)
{
    for (; blob_fits(attr, left); left -= blob_pad_len(attr), attr = blob_next(attr)) {
        if (depth > 64 || !blobmsg_check_attr(attr, false)) return false;
        const char *const name = blobmsg_name(attr);
        sum += strlen(name) + blobmsg_cast_u64(attr);
        const int type = blobmsg_type(attr);
        if (type == BLOBMSG_TYPE_STRING) sum += strlen(blobmsg_get_string(attr));
        if (type == BLOBMSG_TYPE_DOUBLE) sum += blobmsg_get_double(attr) > 0;
        const auto *const value = static_cast<const blob_attr *>(blobmsg_data(attr));
        if (type == BLOBMSG_TYPE_ARRAY || type == BLOBMSG_TYPE_TABLE) {
            void *const nested = blobmsg_open_nested(out, name, type == BLOBMSG_TYPE_ARRAY);
            if (!rebuild(out, value, blobmsg_data_len(attr), depth + 1)) return false;
            blob_nest_end(out, nested);
        } else if (blobmsg_add_field(out, type, name, value, static_cast<unsigned>(blobmsg_data_len(attr))) != 0) {
            return false;
        }
    }
    return left == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1; // without a word
    libvela_log_level = 0;
    std::vector<uint8_t> block(data, data + size);
    auto *const run = reinterpret_cast<blob_attr *>(block.data());
    blob_attr *found[std::size(policy)];
    if (blobmsg_parse(policy, std::size(policy), found, run, static_cast<unsigned>(size)) == 0) {
        if (found[0]) sum += blobmsg_cast_u64(found[0]);
        if (found[1]) sum += strlen(blobmsg_get_string(found[1]));
    }
    (void)blobmsg_parse_array(policy, std::size(policy), found, run, static_cast<unsigned>(size));

    blob_buf copy{};
    (void)blob_buf_init(&copy, 0);
    if (rebuild(&copy, run, size, 0)) {
        // Names, padding and the extended bit may differ in what a sloppy sender wrote; built once more, nothing does.
        blob_buf again{};
        (void)blob_buf_init(&again, 0);
        if (!rebuild(&again, static_cast<blob_attr *>(blob_data(copy.head)), blob_len(copy.head), 0)) abort();
        if (blob_raw_len(again.head) != blob_raw_len(copy.head)) abort();
        if (memcmp(again.head, copy.head, blob_raw_len(copy.head)) != 0) abort();
        mgragent_ap_stats stats;
        (void)mgragent_stats_parse_ap_stats(&stats, copy.head);
        blob_buf_free(&again);
    }
    blob_buf_free(&copy);
    return 0;
}
