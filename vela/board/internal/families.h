// Which system ids belong to which family of models. A model belongs to its generation and to its sub-families: the
// sets overlap.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>

namespace vela::families
{

/// Consecutive system ids, both ends included.
struct id_range {
    constexpr id_range(uint16_t only) : id_range(only, only) {} // NOLINT: an id is a range of one
    constexpr id_range(uint16_t from, uint16_t to) : first{from}, last{to} {}

    uint16_t first;
    uint16_t last;
};

using id_set = std::span<const id_range>;

constexpr bool contains(id_set set, uint16_t id)
{
    return std::ranges::any_of(set, [id](const id_range &range) { return id >= range.first && id <= range.last; });
}

inline constexpr id_range router_ap[] = {42599, 42651, 42676};
inline constexpr id_range hbx_switch[] = {42655};
inline constexpr id_range linkbar[] = {59911};
inline constexpr id_range hbx[] = {42655, 59911};
inline constexpr id_range orb4[] = {60448, 60450, {60453, 60454}};
inline constexpr id_range orb5[] = {{42512, 42516}, 42528, 42560};
inline constexpr id_range orb6[] = {{42576, 42583}, 42599, 42613, 42657};
inline constexpr id_range orb6_tier2[] = {42580, 42582};
inline constexpr id_range orb6_wallplate[] = {42578, 42582};
inline constexpr id_range orb7_wallplate[] = {42661};
inline constexpr id_range orb_ac_wallplate[] = {58759, 58775};
inline constexpr id_range home_router7[] = {42618, 42669, 42681};
inline constexpr id_range orb7[] = {
    42618, {42625, 42626}, {42629, 42632}, {42642, 42644}, {42646, 42649}, 42651, {42654, 42655}, {42660, 42662},
    42665, {42667, 42673}, {42675, 42676}, {42681, 42682}, 42684,          42687, 59911,
};
inline constexpr id_range orb7_tier2[] = {{42647, 42649}, 42667, 42671, 42673, 42684};
inline constexpr id_range orb_cellular[] = {{58928, 58929}};
inline constexpr id_range force_detect_loop[] = {{56500, 56501}};
inline constexpr id_range six_ghz[] = {
    42580, 42582, 42618, {42625, 42626}, {42629, 42630}, {42646, 42649}, 42651, 42655,
    42660, 42662, 42665, {42667, 42668}, {42670, 42671}, {42681, 42682}, 42684, 59911,
};

/// What the device table must have a name for.
inline constexpr id_set all[] = {
    router_ap,      hbx_switch,     linkbar,          hbx,          orb4, orb5,       orb6,         orb6_tier2,
    orb6_wallplate, orb7_wallplate, orb_ac_wallplate, home_router7, orb7, orb7_tier2, orb_cellular, force_detect_loop,
    six_ghz};

} // namespace vela::families
