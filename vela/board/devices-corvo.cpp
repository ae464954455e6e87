// The table of devices: every product of the maker by its system id, access points and what stands beside them on a
// site. A board's row (boards-corvo.cpp) and a family's id (internal/families.h) each need a name here.

#include <iterator>
#include <vela/board/board.h>
#include <vela/board/internal/families.h>

namespace
{

constexpr device_record devices[] = {
    // Access points, by generation
    {"Orb", 45056},
    {"Orb Wide", 45057},
    {"Orb 2", 45058},
    {"Orb 2 Wide", 45059},
    {"Orb 2 Terrace", 45060},
    {"Orb 3", 45061},
    {"Orb 3 Wide", 45062},
    {"Orb 3 Hall", 45063},
    {"Orb 3 Terrace", 45064},
    {"Orb 4", 60448},
    {"Orb 4 Wide", 60450},
    {"Orb 4 Terrace", 60453},
    {"Orb 4 Hall", 60454},
    {"Orb AC Wallplate", 58759},
    {"Orb AC Wallplate Duo", 58775},
    {"Orb Cellular", 58928},
    {"Orb Cellular Terrace", 58929},
    {"Orb 5", 42512},
    {"Orb 5 Wide", 42513},
    {"Orb 5 Terrace", 42514},
    {"Orb 5 Hall", 42515},
    {"Orb 5 Desk", 42516},
    {"Orb 5 Ten", 42528},
    {"Orb 5 Socket", 42560},
    {"Orb 6", 42576},
    {"Orb 6 Hall", 42577},
    {"Orb 6 Wallplate", 42578},
    {"Orb 6 Terrace", 42579},
    {"Orb 6 Tri", 42580},
    {"Orb 6 Desk", 42581},
    {"Orb 6 Wallplate Tri", 42582},
    {"Orb 6 Socket", 42583},
    {"Orb 6 Router", 42599},
    {"Orb 6 Wide", 42613},
    {"Orb 6 Compact", 42657},
    {"Home Router 7", 42618},
    {"Home Router 7 Duo", 42669},
    {"Home Router 7 Tower", 42681},
    {"Orb 7 Hall", 42625},
    {"Orb 7 Atrium", 42626},
    {"Orb 7 Arena", 42629},
    {"Orb 7", 42630},
    {"Orb 7 Compact", 42631},
    {"Orb 7 Desk", 42632},
    {"Orb 7 Socket", 42642},
    {"Orb 7 Wide", 42643},
    {"Orb 7 Terrace Duo", 42644},
    {"Orb 7 Gallery", 42646},
    {"Orb 7 Studio", 42647},
    {"Orb 7 Studio Wide", 42648},
    {"Orb 7 Studio Terrace", 42649},
    {"Orb 7 Router", 42651},
    {"Orb 7 Cabin", 42654},
    {"HBX Switch 7", 42655},
    {"Orb 7 Court", 42660},
    {"Orb 7 Wallplate", 42661},
    {"Orb 7 Panel", 42662},
    {"Orb 7 Terrace", 42665},
    {"Orb 7 Studio Desk", 42667},
    {"Orb 7 Pole", 42668},
    {"Orb 7 Vault", 42670},
    {"Orb 7 Studio Hall", 42671},
    {"Orb 7 Shelf", 42672},
    {"Orb 7 Studio Compact", 42673},
    {"Orb 7 Seed", 42675},
    {"Orb 7 Router Duo", 42676},
    {"Orb 7 Mast", 42682},
    {"Orb 7 Studio Pole", 42684},
    {"Orb 7 Cloister", 42687},

    // Point-to-point links
    {"Linkbar 5", 45072},
    {"Linkbar 5 Far", 45073},
    {"Linkbar 60", 45074},
    {"Linkbar 7", 59911},

    // Wired
    {"Patch 4", 56500},
    {"Patch 8", 56501},
    {"Patch 16", 45088},
    {"Patch 24", 45089},
    {"Patch 7 Fiber", 45090},
    {"Rack 16", 45104},
    {"Rack 24", 45105},
    {"Rack 48", 45106},
    {"Rack 16 PoE", 45107},
    {"Rack 24 PoE", 45108},
    {"Rack 48 PoE", 45109},
    {"Rack 24 Fiber", 45110},
    {"Rack Spine 32", 45111},
    {"Gate 3", 45120},
    {"Gate 5", 45121},
    {"Gate 9", 45122},
    {"Gate Rack", 45123},

    // Power and the rest
    {"Outlet 2", 45136},
    {"Outlet 6", 45137},
    {"Outlet Rack 12", 45138},
    {"Site Controller", 45152},
    {"Site Controller Rack", 45153},
    {"Desk Phone", 45168},
    {"Wall Phone", 45169},
    {"Door Panel", 45170},
};

constexpr const device_record *find(uint16_t sysid)
{
    for (const device_record &device : devices) {
        if (device.system_id == sysid) return &device;
    }
    return nullptr;
}

constexpr bool every_id_once()
{
    for (const device_record &device : devices) {
        if (device.system_id == 0 || find(device.system_id) != &device) return false;
    }
    return true;
}

constexpr bool every_family_known()
{
    for (const vela::families::id_set family : vela::families::all) {
        for (const auto &range : family) {
            for (uint32_t id = range.first; id <= range.last; ++id) {
                if (!find(static_cast<uint16_t>(id))) return false;
            }
        }
    }
    return true;
}

static_assert(std::size(devices) == 98);
static_assert(every_id_once());
static_assert(every_family_known(), "a model that a predicate knows has no name");

} // namespace

const device_record *corvo_get_device(uint16_t sysid) { return find(sysid); }

const device_record *device_identify_by_sysid(uint16_t sysid) { return sysid == 0 ? nullptr : corvo_get_device(sysid); }
