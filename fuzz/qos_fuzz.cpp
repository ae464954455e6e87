// A message of the kernel's traffic control as a rule of ours. What is taken for one can be asked for again.
#include <algorithm>
#include <cstdlib>
#include <memory>
#include <vela/wireless/internal/qos_filter.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vela;
    if (size < sizeof(tcmsg)) return 0;
    constexpr unsigned ifindex = 7;
    const std::unique_ptr<uint8_t[]> block(new uint8_t[size]);
    std::copy(data, data + size, block.get());
    const auto d = data[0] & 1 ? qos::direction::to_station : qos::direction::from_station;
    const tcmsg ours = qos::address_of(ifindex, d, data[0]);
    memcpy(block.get(), &ours, sizeof ours); // a number of 20 bytes that no fuzzer finds by itself
    const auto found = qos::read_filter({RTM_NEWTFILTER, 0, {block.get(), size}}, ifindex, d);
    if (!found || found->does.is_nothing()) return 0;
    if (found->does.priority > 7) abort();
    if (!qos::make_request(ifindex, d, found->mac, found->does, found->handle).fits()) abort();
    return 0;
}
