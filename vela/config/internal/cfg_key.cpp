// How keys of a configuration compare, and the index of a list that is searched for many of them.

#include <vela/config/internal/cfg_key.h>
#include <vela/core/internal/log.h>
#include <vela/core/util.h>

namespace
{

constexpr const char *log_module = "cfg";

/// The digits that a text starts with.
std::string_view leading_digits(const char *text)
{
    size_t n = 0;
    while (vela::is_digit(text[n])) ++n;
    return {text, n};
}

/// A number modulo 2^32 that grows digit by digit, from its end to its start.
struct number {
    uint32_t value = 0;
    uint32_t scale = 1;

    void prepend(char digit)
    {
        value += scale * static_cast<uint32_t>(digit - '0');
        scale *= 10;
    }
};

/// Orders two runs of digits: each place of a run counts as the number from there to its end, and the first place where
/// these differ decides.
int compare_numbers(std::string_view a, std::string_view b)
{
    number x, y;
    int order = 0;
    for (size_t i = std::max(a.size(), b.size()); i-- > 0;) {
        if (i < a.size()) x.prepend(a[i]);
        if (i < b.size()) y.prepend(b[i]);
        if (i < std::min(a.size(), b.size()) && x.value != y.value) order = x.value < y.value ? -1 : 1;
    }
    return order;
}

/// Place of a character among others of which at most one is a digit.
int rank(char c)
{
    constexpr int after_every_letter = 256;
    return vela::is_digit(c) ? after_every_letter : static_cast<unsigned char>(vela::lower(c));
}

/// True for a key that may equal one with other digits. That takes 30 of them: 8 * 10^29 is the smallest multiple of
/// 2^32 that changes a single digit.
bool has_long_number(const char *key)
{
    constexpr int digits_that_wrap = 30;
    for (int digits = 0; *key; ++key) {
        digits = vela::is_digit(*key) ? digits + 1 : 0;
        if (digits == digits_that_wrap) return true;
    }
    return false;
}

} // namespace

int vela::natural_compare(const char *a, const char *b)
{
    if (a == b) return 0;
    if (!a) return -1;
    if (!b) return 1;
    for (;;) {
        const auto a_digits = leading_digits(a), b_digits = leading_digits(b);
        const size_t shared = std::min(a_digits.size(), b_digits.size());
        const int order = shared > 0 ? compare_numbers(a_digits, b_digits) : rank(*a) - rank(*b);
        if (order != 0 || *a == '\0') return order;
        a += std::max(shared, size_t{1});
        b += std::max(shared, size_t{1});
    }
}

vela::wanted_key::wanted_key(const char *function, const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(room_, sizeof room_, format, args);
    if (length < 0 || static_cast<size_t>(length) >= sizeof room_) {
        heap_.reset(malloc_vprintf(format, again));
        text_ = heap_.get();
    }
    va_end(again);
    if (!text_) {
        log_error_as(function, "OOM");
        return;
    }
    length_ = strlen(text_);
    long_number_ = has_long_number(text_);
}

vela::sorted_entries::sorted_entries(const cfg_entry *list)
    : count_{static_cast<size_t>(get_cfg_count(list))}, places_{static_cast<place *>(calloc(count_ + 1, sizeof(place)))}
{
    if (!places_) out_of_memory("cfg", __LINE__);
    place *next = places_.get();
    for (; list; list = list->next, ++next) *next = {const_cast<cfg_entry *>(list), size_t(next - places_.get())};
    std::sort(places_.get(), next, [](const place &a, const place &b) {
        const int order = natural_compare(a.entry->key, b.entry->key);
        return order != 0 ? order < 0 : a.number < b.number;
    });
}

const cfg_entry *vela::sorted_entries::find(const char *key) const
{
    const place *found = std::lower_bound(begin(), end(), key, [](const place &p, const char *wanted) {
        return natural_compare(p.entry->key, wanted) < 0;
    });
    return found != end() && natural_compare(found->entry->key, key) == 0 ? found->entry : nullptr;
}
