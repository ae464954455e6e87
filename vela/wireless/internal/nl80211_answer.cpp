// Attributes into members.

#include <algorithm>
#include <cerrno>
#include <vela/core/internal/netlink.h>
#include <vela/wireless/internal/nl80211_answer.h>

namespace vela::nl80211
{
namespace
{

constexpr size_t mac_size = 6;
constexpr uint8_t not_known[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

/// A number of 1, 2, 4 or 8 bytes, widened with its sign or without; 1 for a flag.
std::optional<uint64_t> number_in(const raw_netlink::attribute &a, bool is_signed)
{
    const auto widened = [is_signed](auto number) {
        using with_sign = std::make_signed_t<decltype(number)>;
        return is_signed ? static_cast<uint64_t>(int64_t{static_cast<with_sign>(number)}) : uint64_t{number};
    };
    switch (a.value.size()) {
    case 0: return 1;
    case 1: return widened(*a.as<uint8_t>());
    case 2: return widened(*a.as<uint16_t>());
    case 4: return widened(*a.as<uint32_t>());
    case 8: return widened(*a.as<uint64_t>());
    default: return std::nullopt;
    }
}

void put(uint8_t *member, size_t size, uint64_t value)
{
    const auto narrowed = [member](auto number) { memcpy(member, &number, sizeof number); };
    switch (size) {
    case 1: return narrowed(static_cast<uint8_t>(value));
    case 2: return narrowed(static_cast<uint16_t>(value));
    case 4: return narrowed(static_cast<uint32_t>(value));
    default: return narrowed(value);
    }
}

} // namespace

int check(const vl_nl80211_service *service) { return service && service->family > 0 ? 0 : -EINVAL; }

int address_to(question &q, const char *ifname)
{
    if (!ifname) return -EINVAL;
    const unsigned index = netlink::interface_index(ifname);
    if (index == 0) return -ENODEV;
    q.put_u32(NL80211_ATTR_IFINDEX, index);
    return 0;
}

bool store(std::span<const number_row> rows, const raw_netlink::attribute &a, void *record)
{
    const auto row = std::ranges::find(rows, a.type, &number_row::attribute);
    if (row == rows.end()) return false;
    auto *const member = static_cast<uint8_t *>(record) + row->offset;
    const size_t size = row->type.size;
    const auto number = number_in(a, row->type.is_signed);
    const bool better_is_there = row->yields && memcmp(member, not_known, size) != 0;
    if (number && a.value.size() <= size && !better_is_there) put(member, size, *number);
    return true;
}

void store_mac(const raw_netlink::attribute &a, uint8_t (&mac)[6])
{
    if (a.value.size() == mac_size) memcpy(mac, a.value.data(), mac_size);
}

} // namespace vela::nl80211
