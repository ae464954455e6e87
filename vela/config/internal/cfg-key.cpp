#include <bit>
#include <vela/config/internal/cfg-key.h>
#include <vela/core/util.h>

namespace
{

constexpr int after_every_letter = 256;
constexpr size_t digits_without_wrap = 9; // numbers of up to nine digits fit 32 bits: equal means the same digits

size_t count_digits(const char *text)
{
    size_t n = 0;
    while (vela::is_digit(text[n])) ++n;
    return n;
}

constexpr uint32_t digit(char c) { return static_cast<uint32_t>(c - '0'); }

/// Orders two runs of digits. Every position counts for itself, as the number that starts there; the first that differs
/// decides. Going from right to left, that number is the one before with a digit ahead, so one pass is enough.
int compare_numbers(std::string_view a, std::string_view b)
{
    int order = 0;
    uint32_t a_value = 0, a_scale = 1;
    uint32_t b_value = 0, b_scale = 1;
    const size_t shared = std::min(a.size(), b.size());
    for (size_t i = std::max(a.size(), b.size()); i-- > 0;) {
        if (i < a.size()) {
            a_value += a_scale * digit(a[i]);
            a_scale *= 10;
        }
        if (i < b.size()) {
            b_value += b_scale * digit(b[i]);
            b_scale *= 10;
        }
        if (i < shared && a_value != b_value) order = a_value < b_value ? -1 : 1;
    }
    return order;
}

/// Place of a character among others of which at most one is a digit.
int rank(char c) { return vela::is_digit(c) ? after_every_letter : static_cast<unsigned char>(vela::lower(c)); }

/// Every byte of a word that is an ASCII capital, in lower case.
constexpr vela::word lower_bytes(vela::word w)
{
    using vela::every_byte;
    const vela::word low_bits = w & every_byte(0x7f);
    const vela::word from_a = low_bits + every_byte(0x80 - 'A');   // top bit: 'A' or above
    const vela::word beyond_z = low_bits + every_byte(0x7f - 'Z'); // top bit: above 'Z'
    const vela::word capitals = from_a & ~beyond_z & ~w & every_byte(0x80);
    return w | capitals >> 2; // 0x80 becomes 0x20, the bit between the cases
}
static_assert(lower_bytes(0x415a405b) == 0x617a405b && lower_bytes(0xc1da617a) == 0xc1da617a);

bool has_long_number(std::string_view text)
{
    size_t run = 0;
    for (const char c : text) {
        run = vela::is_digit(c) ? run + 1 : 0;
        if (run > digits_without_wrap) return true;
    }
    return false;
}

/// Equal for keys that compare equal.
size_t natural_hash(const char *key)
{
    constexpr size_t prime = 0x01000193;
    size_t hash = 0x811c9dc5;
    while (key && *key) {
        if (const size_t digits = count_digits(key)) {
            uint32_t value = 0;
            for (size_t i = 0; i < digits; ++i) value = value * 10 + digit(key[i]);
            hash = ((hash ^ value) * prime ^ digits) * prime;
            key += digits;
        } else {
            hash = (hash ^ static_cast<size_t>(rank(*key++))) * prime;
        }
    }
    return hash ^ hash >> 15;
}

} // namespace

int vela::natural_compare(const char *a, const char *b)
{
    if (a == b) return 0;
    if (!a) return -1;
    if (!b) return 1;
    for (;;) {
        if (is_digit(*a) && is_digit(*b)) {
            const std::string_view a_run{a, count_digits(a)};
            const std::string_view b_run{b, count_digits(b)};
            if (const int order = compare_numbers(a_run, b_run)) return order;
            const size_t shared = std::min(a_run.size(), b_run.size());
            a += shared;
            b += shared;
        } else {
            const int order = rank(*a) - rank(*b);
            if (order != 0 || *a == '\0') return order;
            ++a;
            ++b;
        }
    }
}

vela::formatted_key::formatted_key(const char *format, va_list args)
{
    if (!strchr(format, '%')) {
        text_ = format;
        return;
    }
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(room_, sizeof room_, format, args);
    if (length >= 0 && static_cast<size_t>(length) < sizeof room_) {
        text_ = room_;
    } else {
        heap_.reset(malloc_vprintf(format, again));
        text_ = heap_.get();
    }
    va_end(again);
}

vela::wanted_key::wanted_key(const formatted_key &key) : text_{key.c_str()}
{
    const std::string_view text = key.view();
    by_words_ = text.size() < sizeof words_ && !has_long_number(text);
    if (!by_words_) return;

    last_ = text.size() / sizeof(word);
    words_[last_] = 0;
    memcpy(words_, text.data(), text.size());
    for (size_t i = 0; i <= last_; ++i) words_[i] = lower_bytes(words_[i]);

    uint8_t mask[sizeof(word)] = {};
    memset(mask, 0xff, text.size() % sizeof(word) + 1);
    memcpy(&last_mask_, mask, sizeof mask);
    first_mask_ = (last_ == 0 ? last_mask_ : ~word{0}) & ~every_byte('a' ^ 'A');
}

bool vela::wanted_key::equals_by_words(const char *key) const
{
    const word *wanted = words_;
    for (; wanted < words_ + last_; ++wanted, key += sizeof(word)) {
        const word w = load(key);
        if (w != *wanted && lower_bytes(w) != *wanted) return false;
    }
    return ((lower_bytes(load(key)) ^ *wanted) & last_mask_) == 0;
}

vela::key_index::key_index(size_t entries_max)
    : mask_{std::bit_ceil(2 * entries_max + 1) - 1}, table_{static_cast<const cfg_entry **>(
                                                         calloc(mask_ + 1, sizeof(const cfg_entry *)))}
{
    if (!table_) out_of_memory("cfg", __LINE__);
}

const cfg_entry *vela::key_index::add(const cfg_entry *entry)
{
    const cfg_entry **place = slot(entry->key);
    if (!*place) *place = entry;
    return *place;
}

const cfg_entry **vela::key_index::slot(const char *key) const
{
    for (size_t i = natural_hash(key);; ++i) {
        const cfg_entry **place = table_.get() + (i & mask_);
        if (!*place || natural_compare((*place)->key, key) == 0) return place;
    }
}
