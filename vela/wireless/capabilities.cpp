// The capability masks that the management daemons report upstream: which boards have which bit. What a bit means is
// the server's.

#include <algorithm>
#include <vela/board/board.h>
#include <vela/board/model.h>
#include <vela/core/internal/numbers.h>
#include <vela/wireless/freq.h>

namespace
{

constexpr uint32_t bit(unsigned n) { return uint32_t{1} << n; }

constexpr uint32_t base_of_set_a = 0x017FFECD;
constexpr uint32_t base_of_others = 0x017EFEDD;

bool in_set(uint32_t set)
{
    const board_record *board = board_identify();
    return board && (board->capability_sets & set) != 0;
}

bool has_radio_layout_2_or_4()
{
    const board_record *board = board_identify();
    return board && (board->radio_layout == 2 || board->radio_layout == 4);
}

bool some_radio_has(uint32_t flag)
{
    const board_record *board = board_identify();
    if (!board) return false;
    return std::ranges::any_of(vela::counted(board->radios, board->radio_count),
                               [flag](const board_radio &r) { return (r.flags & flag) != 0; });
}

} // namespace

int is_multi_5ghz(void) { return in_set(BOARD_MULTI_5GHZ); }

uint32_t get_wifi_cap(void)
{
    uint32_t cap = in_set(BOARD_SET_A) ? base_of_set_a : base_of_others;
    if (in_set(BOARD_SET_B)) cap |= bit(25);
    if (!is_multi_5ghz() && !is_hbx_switch() && !is_linkbar()) cap &= ~bit(14);
    if (get_wireless_uplink_state() == VL_UPLINK_ASSOCIATED) cap &= ~bit(4);
    if ((is_orb6() || is_orb5()) && has_radio_layout_2_or_4()) cap |= bit(26);
    if (is_6ghz_supported()) cap |= bit(27) | bit(30);
    cap |= bit(29) | bit(31);
    if (in_set(BOARD_SET_C)) cap |= bit(28);
    return cap;
}

uint32_t get_wifi_cap2(void)
{
    uint32_t cap = 0;
    if (is_orb7() && some_radio_has(BOARD_RADIO_MULTI_LINK)) cap |= bit(3);
    cap |= is_hbx() ? bit(0) : bit(0) | bit(5) | bit(6);
    cap |= bit(9);
    if (is_green_ap_supported()) cap |= bit(2);
    if (is_orb7()) cap |= bit(8) | bit(10) | bit(11) | bit(14);
    cap |= bit(4) | bit(7) | bit(8) | bit(10) | bit(11) | bit(13);
    if (is_hbx_switch() || is_linkbar()) cap |= bit(15);
    if (is_wifi_only()) cap |= bit(18);
    return cap;
}
