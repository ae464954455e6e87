// The regulatory tool's output: a band's listing, or a country's line.
#include <cassert>
#include <cstdlib>
#include <string>
#include <vela/wireless/internal/regulatory.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    (void)vela::regulatory::phy_modes(text.c_str());
    if (size == 0) return 0;

    FILE *listing = fmemopen(const_cast<uint8_t *>(data), size, "r");
    vela::regulatory::limits channels;
    vela::regulatory::read_channels(listing, 3, channels);
    fclose(listing);
    assert(channels.count <= vela::regulatory::channels_max);
    if (channels.count == 1) assert(vela::regulatory::find_channel(channels, channels.entries[0].channel));
    return 0;
}
