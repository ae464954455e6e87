#include <bit>
#include <vela/config/internal/cfg_key.h>
#include <vela/core/util.h>

namespace
{

using vela::word;

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

constexpr word every_byte(uint8_t b) { return ~word{0} / 0xff * b; }
constexpr word letter_case = every_byte('a' ^ 'A');
bool starts_on_word(const char *key) { return reinterpret_cast<uintptr_t>(key) % sizeof(word) == 0; }

__attribute__((no_sanitize("address"))) inline word load(const char *key)
{
    word w;
    memcpy(&w, __builtin_assume_aligned(key, sizeof w), sizeof w);
    return w;
}

/// Every byte of a word that is an ASCII capital, in lower case.
constexpr word lower_bytes(word w)
{
    const word low_bits = w & every_byte(0x7f);
    const word from_a = low_bits + every_byte(0x80 - 'A');   // top bit: 'A' or above
    const word beyond_z = low_bits + every_byte(0x7f - 'Z'); // top bit: above 'Z'
    const word capitals = from_a & ~beyond_z & ~w & every_byte(0x80);
    return w | capitals >> 2; // 0x80 becomes 0x20, the bit between the cases
}
static_assert(lower_bytes(0x415a405b) == 0x617a405b && lower_bytes(0xc1da617a) == 0xc1da617a);

/// The first entry whose key pleases.
template <class Predicate> const cfg_entry *first_of(const cfg_entry *entry, const Predicate &pleases)
{
    for (; entry; entry = entry->next) {
        // Records of one file lie side by side: stepping over them does not wait for each to tell where the next is.
        for (;; ++entry) {
            if (pleases(entry->key)) return entry;
            if (entry->next != entry + 1) break;
        }
    }
    return nullptr;
}

/// Whether a run of digits is too long for its value to tell it. Such a run covers one of every ten places.
bool has_long_number(std::string_view text)
{
    for (size_t i = digits_without_wrap; i < text.size(); i += digits_without_wrap + 1) {
        if (!vela::is_digit(text[i])) continue;
        size_t start = i;
        while (start > 0 && vela::is_digit(text[start - 1])) --start;
        if (count_digits(&text[start]) > digits_without_wrap) return true;
    }
    return false;
}

/// The bytes of a word up to one of its places.
constexpr word bytes_up_to(size_t place)
{
    const size_t others = 8 * (sizeof(word) - 1 - place);
    return std::endian::native == std::endian::little ? ~word{0} >> others : ~word{0} << others;
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

    last_mask_ = bytes_up_to(text.size() % sizeof(word));
    first_mask_ = (last_ == 0 ? last_mask_ : ~word{0}) & ~letter_case;
}

// Inlined by force, as most of a lookup's time is spent here.
__attribute__((always_inline)) inline bool vela::wanted_key::equals_by_words(const char *key) const
{
    const word *wanted = words_;
    for (const word *last = words_ + last_; wanted != last; ++wanted, key += sizeof(word)) {
        const word w = load(key);
        if (w == *wanted) continue;
        if (((w ^ *wanted) & ~letter_case) != 0 || lower_bytes(w) != *wanted) return false;
    }
    return ((lower_bytes(load(key)) ^ *wanted) & last_mask_) == 0;
}

bool vela::wanted_key::equals(const char *key) const
{
    if (by_words_ && key && starts_on_word(key)) return equals_by_words(key);
    return natural_compare(key, text_) == 0;
}

const cfg_entry *vela::wanted_key::find_in(const cfg_entry *cfg) const
{
    if (!by_words_) return first_of(cfg, [this](const char *key) { return natural_compare(key, text_) == 0; });
    return first_of(cfg, [this, first = words_[0], mask = first_mask_](const char *key) {
        if (!key || !starts_on_word(key)) return natural_compare(key, text_) == 0;
        return ((load(key) ^ first) & mask) == 0 && equals_by_words(key);
    });
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
