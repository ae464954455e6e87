// Questions to nl80211 whose answers are lists: over a socket of their own, so that a walk never waits without end and
// leaves nothing behind in the service's; and the tables by which attributes become members of a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <linux/genetlink.h>
#include <linux/nl80211.h>
#include <span>
#include <vela/core/internal/raw_netlink.h>
#include <vela/core/internal/record_json.h>
#include <vela/wireless/nl80211.h>

namespace vela::nl80211
{

using bytes = std::span<const uint8_t>;

/// A request to the family that a service found.
class question
{
public:
    question(const vl_nl80211_service &service, uint8_t command)
        : family_{static_cast<uint16_t>(service.family)}, request_{family_, genlmsghdr{command, 0, 0}}
    {
    }
    void put_flag(uint16_t attribute) { request_.put_bytes(attribute, {}); }
    void put_u32(uint16_t attribute, uint32_t value) { request_.put(attribute, value); }
    void put_mac(const uint8_t *mac) { request_.put_bytes(NL80211_ATTR_MAC, {mac, 6}); }

    /// Asks, and hands over the attributes of each message of the answer until `use` returns false. 0, or how the
    /// answer ended; being told to stop is no failure.
    template <class Use> int ask(raw_netlink::how_much wanted, Use use)
    {
        raw_netlink::channel kernel{NETLINK_GENERIC, raw_netlink::checking::lenient};
        kernel.ask(request_, wanted);
        while (const auto m = kernel.next()) {
            genlmsghdr header;
            bytes attributes;
            if (m->type != family_ || !raw_netlink::split(*m, header, attributes)) continue;
            if (!use(attributes)) return 0;
        }
        return kernel.result();
    }

private:
    uint16_t family_;
    raw_netlink::request request_;
};

/// 0; -EINVAL for null or a service that is not initialised.
int check(const vl_nl80211_service *service);

/// Puts an interface's index into a question. 0; -EINVAL for null, -ENODEV for no such interface.
int address_to(question &q, const char *ifname);

/// An attribute that is a number, and the member of a record that it goes to.
struct number_row {
    uint16_t attribute;
    size_t offset;
    member_type type;
    bool yields = false; ///< to a better attribute of the same figure
};

/// Stores an attribute in the member that its row names, as the member's type: a signed one takes the attribute's sign,
/// an attribute without a value is 1. What is wider than its member is not taken. False when no row names it.
bool store(std::span<const number_row> rows, const raw_netlink::attribute &a, void *record);

/// Reads each entry of a list into a record of its own, as many as are kept. Returns the number of all.
template <class Record, size_t N, class Read>
uint32_t read_list(const raw_netlink::attribute &outer, Record (&kept)[N], Read read)
{
    uint32_t count = 0;
    auto walk = raw_netlink::attributes::inside(outer);
    while (const auto entry = walk.next()) {
        if (count < N) read(*entry, kept[count]);
        ++count;
    }
    return count;
}

/// Six bytes of address, where there are so many.
void store_mac(const raw_netlink::attribute &a, uint8_t (&mac)[6]);

} // namespace vela::nl80211
