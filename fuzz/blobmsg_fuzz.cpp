// Messages from the bus, over a block of exactly the input's size: values looked up by name, and values as JSON, which
// must come out the same when the JSON is made a message and read once more.
#include <cstdlib>
#include <vector>
#include <vela/core/log.h>
#include <vela/ipc/internal/bus_json.h>
#include <vela/ipc/ubus.h>

namespace
{

using vela::json_ref;

constexpr blobmsg_policy policy[] = {{"satisfaction", BLOBMSG_TYPE_INT32},
                                     {"s", BLOBMSG_TYPE_STRING},
                                     {"d", BLOBMSG_TYPE_DOUBLE},
                                     {"a", BLOBMSG_TYPE_UNSPEC}};

volatile size_t sum; // keeps the reads

void look_up(blob_attr *run, unsigned size)
{
    blob_attr *found[std::size(policy)];
    (void)blobmsg_parse(policy, std::size(policy), found, run, size);
    if (found[0]) sum = sum + blobmsg_get_u32(found[0]);
    if (found[1]) sum = sum + strlen(static_cast<char *>(blobmsg_data(found[1])));
    if (found[2]) sum = sum + (blobmsg_get_double(found[2]) > 0);
    if (found[3]) sum = sum + blobmsg_data_len(found[3]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1; // without a word
    libvela_log_level = 0;
    if (size > BLOB_ATTR_LEN_MASK - sizeof(blob_attr)) return 0;
    const uint32_t header = blob_be32(static_cast<uint32_t>(size + sizeof(blob_attr)));
    std::vector<uint8_t> block(sizeof header + size);
    memcpy(block.data(), &header, sizeof header);
    if (size != 0) memcpy(block.data() + sizeof header, data, size);
    auto *const message = reinterpret_cast<blob_attr *>(block.data());
    look_up(static_cast<blob_attr *>(blob_data(message)), static_cast<unsigned>(size));
    mgragent_ap_stats stats;
    (void)mgragent_stats_parse_ap_stats(&stats, message);

    const json_ref read{json_object()};
    if (vela::read_json(read.get(), message) != 0) return 0;
    blob_buf again{};
    const json_ref twice{json_object()};
    if (blob_buf_init(&again, 0) != 0 || vela::append_json(again, read.get(), SIZE_MAX) != 0) abort();
    if (vela::read_json(twice.get(), again.head) != 0 || json_equal(read.get(), twice.get()) == 0) abort();
    blob_buf_free(&again);
    return 0;
}
