// What a configured value switches: on, off, or neither.
#pragma once

#include <optional>
#include <vela/core/internal/text.h>

namespace vela
{

constexpr std::string_view trim_blanks(std::string_view s)
{
    constexpr auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
    while (!s.empty() && is_blank(s.front())) s.remove_prefix(1);
    while (!s.empty() && is_blank(s.back())) s.remove_suffix(1);
    return s;
}

/// What a word switches, whatever its case and the blanks around it; nothing for any other value.
constexpr std::optional<bool> switch_value(std::string_view value)
{
    constexpr struct {
        std::string_view on, off;
    } words[] = {{"on", "off"},         {"enabled", "disabled"}, {"1", "0"},
                 {"enable", "disable"}, {"active", "inactive"},  {"true", "false"}};
    constexpr auto same_letter = [](char a, char b) { return lower(a) == b; };

    value = trim_blanks(value);
    for (const auto &pair : words) {
        if (std::equal(value.begin(), value.end(), pair.on.begin(), pair.on.end(), same_letter)) return true;
        if (std::equal(value.begin(), value.end(), pair.off.begin(), pair.off.end(), same_letter)) return false;
    }
    return {};
}

} // namespace vela
