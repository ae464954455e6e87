// What tells of a lease: the client's file as it is, and the network daemon's answer as JSON.
#include <cstring>
#include <vela/core/internal/json.h>
#include <vela/services/internal/dhcp.h>
#include <vela/services/internal/power.h>

namespace
{

vela_dhcp_lease named()
{
    vela_dhcp_lease lease = {};
    strcpy(lease.ifname, "wan");
    return lease;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view text{reinterpret_cast<const char *>(data), size};
    vela_dhcp_lease from_file = named();
    (void)vela::dhcp::read_file(text, 60, from_file);

    const vela::json_ref answer{json_loadb(text.data(), text.size(), 0, nullptr)};
    vela_dhcp_lease from_bus = named();
    (void)vela::dhcp::read_dump(answer.get(), from_bus);

    (void)vela::power::read_outlet({data, size});
    return 0;
}
