// Bytes from the air: information elements into an entry, and a kernel's scan answer into records and entries.
#include <cstdlib>
#include <cstring>
#include <linux/netlink.h>
#include <memory>
#include <netlink/netlink.h>
//
#include <netlink/attr.h>
#include <netlink/genl/genl.h>
#include <netlink/handlers.h>
#include <netlink/msg.h>
#include <netlink/socket.h>
#include <vela/core/log.h>
#include <vela/wireless/cfg80211.h>
#include <vela/wireless/scan.h>

namespace
{

scan_entry *end_of(scan_list &list) { return reinterpret_cast<scan_entry *>(&list); }

void free_entries(scan_list &list)
{
    while (list.first != end_of(list)) {
        scan_entry *e = list.first;
        list.first = e->next;
        free(e);
    }
    list = {end_of(list), end_of(list)};
}

scan_list entries = {end_of(entries), end_of(entries)};

/// A record of exactly its size around the bytes, the name as long as the first says.
void convert_record(const uint8_t *data, size_t size)
{
    if (size == 0 || size > UINT16_MAX) return;
    const size_t essid = std::min<size_t>(data[0], size);
    const std::unique_ptr<uint8_t[]> block(new uint8_t[offsetof(scan_result, data) + size]());
    auto *result = reinterpret_cast<scan_result *>(block.get());
    result->essid_len = static_cast<uint8_t>(essid);
    result->ies_len = static_cast<uint16_t>(size - essid);
    memcpy(result->data, data, size);
    add_scan_entry(result, &entries);
    if (strlen(entries.last->essid) > 31) abort();
}

const uint8_t *answer;
size_t answer_size;

int give_answer(nl_sock *, sockaddr_nl *from, unsigned char **data, ucred **)
{
    const size_t size = answer_size;
    if (size == 0) return -NLE_AGAIN;
    answer_size = 0;
    *from = {};
    from->nl_family = AF_NETLINK;
    *data = static_cast<unsigned char *>(malloc(size));
    memcpy(*data, answer, size);
    return static_cast<int>(size);
}

/// The bytes as what the kernel answers to the request for its scan list.
void convert_answer(const uint8_t *data, size_t size)
{
    nl_cb *callbacks = nl_cb_alloc(NL_CB_DEFAULT);
    nl_cb_overwrite_recv(callbacks, give_answer);
    nl_cb_overwrite_send(callbacks, [](nl_sock *, nl_msg *) { return 1; });
    nl_cb_set(
        callbacks, NL_CB_SEQ_CHECK, NL_CB_CUSTOM, [](nl_msg *, void *) { return static_cast<int>(NL_OK); }, nullptr);
    answer = data;
    answer_size = size;
    vl_cfg80211_context context = {};
    context.cmd_sock = nl_socket_alloc_cb(callbacks);
    alignas(scan_result) uint8_t buffer[3072];
    vl_cfg80211_send_generic_set_command_ctx(
        &context, "lo", buffer, sizeof buffer,
        [](wifi_cfg80211_data *reply) {
            const auto *result = static_cast<const scan_result *>(reply->data);
            if (offsetof(scan_result, data) + result->essid_len + result->ies_len != reply->length) abort();
            add_scan_entry(result, &entries);
        },
        WIFI_COMMAND_SCAN_LIST);
    nl_socket_free(context.cmd_sock);
    nl_cb_put(callbacks);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    libvela_log_env_ready = 1;
    libvela_log_level = 0;
    if (size == 0) return 0;
    if (data[0] & 1) {
        convert_record(data + 1, size - 1);
    } else {
        convert_answer(data + 1, size - 1);
    }
    free_entries(entries);
    return 0;
}
