// One rule's filter in one direction, as rtnetlink has it.
#pragma once

#include <cstdint>
#include <optional>
#include <vela/core/internal/raw_netlink.h>

namespace vela::qos
{

enum class direction { to_station, from_station };

/// What a filter does with the packets of its station.
struct treatment {
    int32_t priority = -1; // 0 to 7; -1: left as it is
    uint32_t kbps = 0;     // 0: no limit

    [[nodiscard]] bool is_nothing() const { return priority < 0 && kbps == 0; }
    bool operator==(const treatment &) const = default;
};

/// A filter of ours that the kernel has.
struct filter {
    uint8_t mac[6];
    uint32_t handle;
    treatment does;
    bool as_made = true; // its parts are such as we make them: nobody changed them
    uint64_t bytes = UINT64_MAX, drops = UINT64_MAX;
};

/// Which of an interface's filters a message is about: those of our priority, in one direction.
tcmsg address_of(unsigned ifindex, direction d, uint32_t handle = 0);

/// The request that makes a filter, or changes the one of this handle.
raw_netlink::request make_request(unsigned ifindex, direction d, const uint8_t *mac, const treatment &does,
                                  uint32_t handle);

/// The filter in a message of the kernel's; nothing when it is not one of ours.
std::optional<filter> read_filter(const raw_netlink::message &m, unsigned ifindex, direction d);

} // namespace vela::qos
