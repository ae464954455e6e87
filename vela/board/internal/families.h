// Which system ids belong to which family of models: the one table behind the model predicates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace vela
{

/// In the order of the table.
enum class family : uint8_t {
    router_ap,
    hbx_switch,
    linkbar,
    hbx,
    orb4,
    orb5,
    orb6,
    orb6_tier2,
    orb6_wallplate,
    orb7_wallplate,
    orb_ac_wallplate,
    home_router7,
    orb7,
    orb7_tier2,
    orb_cellular,
    force_detect_loop,
    six_ghz,
};

/// Consecutive system ids, both ends included.
struct id_range {
    uint16_t first = 0;
    uint16_t last = 0;

    constexpr id_range() = default;
    constexpr id_range(uint16_t only) : id_range(only, only) {} // NOLINT: an id is a range of one
    constexpr id_range(uint16_t from, uint16_t to) : first{from}, last{to} {}
    [[nodiscard]] constexpr bool contains(uint16_t id) const { return id >= first && id <= last; }
};

struct id_set {
    family name;
    id_range ranges[20]; // those not used contain no id but 0, which no device has

    [[nodiscard]] constexpr bool contains(uint16_t id) const
    {
        for (const id_range &range : ranges) {
            if (range.first == 0) return false;
            if (range.contains(id)) return true;
        }
        return false;
    }
};

// A model belongs to its generation and to its sub-family: the sets overlap.
inline constexpr id_set families[] = {
    {family::router_ap, {42599, 42651, 42676}},
    {family::hbx_switch, {42655}},
    {family::linkbar, {59911}},
    {family::hbx, {42655, 59911}},
    {family::orb4, {60448, 60450, {60453, 60454}}},
    {family::orb5, {{42512, 42516}, 42528, 42560}},
    {family::orb6, {{42576, 42583}, 42599, 42613, 42657}},
    {family::orb6_tier2, {42580, 42582}},
    {family::orb6_wallplate, {42578, 42582}},
    {family::orb7_wallplate, {42661}},
    {family::orb_ac_wallplate, {58759, 58775}},
    {family::home_router7, {42618, 42669, 42681}},
    {family::orb7,
     {42618,
      {42625, 42626},
      {42629, 42632},
      {42642, 42644},
      {42646, 42649},
      42651,
      {42654, 42655},
      {42660, 42662},
      42665,
      {42667, 42673},
      {42675, 42676},
      {42681, 42682},
      42684,
      42687,
      59911}},
    {family::orb7_tier2, {{42647, 42649}, 42667, 42671, 42673, 42684}},
    {family::orb_cellular, {{58928, 58929}}},
    {family::force_detect_loop, {{56500, 56501}}},
    {family::six_ghz,
     {42580,
      42582,
      42618,
      {42625, 42626},
      {42629, 42630},
      {42646, 42649},
      42651,
      42655,
      42660,
      42662,
      42665,
      {42667, 42668},
      {42670, 42671},
      {42681, 42682},
      42684,
      59911}},
};
static_assert(
    [] {
        for (size_t i = 0; i < std::size(families); ++i) {
            if (families[i].name != static_cast<family>(i)) return false;
        }
        return std::size(families) == static_cast<size_t>(family::six_ghz) + 1;
    }(),
    "the table is indexed by family");

constexpr bool belongs_to(family name, uint16_t id) { return families[static_cast<size_t>(name)].contains(id); }

} // namespace vela
