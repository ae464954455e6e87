// Keys: their natural order, a formatted one that is looked for, and an index for where every entry needs a lookup.
#pragma once

#include <vela/config/cfg.h>
#include <vela/core/internal/memory.h>
#include <vela/core/internal/text.h>

namespace vela
{

/// Case-insensitive order in which a run of digits counts by its value (modulo 2^32) and comes after every other
/// character. Null comes first.
int natural_compare(const char *a, const char *b);

/// What a caller's format and arguments spell: on the stack, or on the heap where it is long.
class formatted_key
{
public:
    formatted_key(const char *format, va_list args) VELA_PRINTF(2, 0);
    formatted_key(const formatted_key &) = delete;
    formatted_key &operator=(const formatted_key &) = delete;

    [[nodiscard]] bool ok() const { return text_ != nullptr; } ///< false when memory ran out
    [[nodiscard]] const char *c_str() const { return text_; }
    [[nodiscard]] std::string_view view() const { return vela::view(text_); }

private:
    char room_[256];
    c_string heap_;
    const char *text_;
};

/// Keys that start on a word are compared word by word. The parser sees to it that all of its keys do, and that memory
/// goes on to the end of the word that holds the NUL. Other keys have their last word read whole, too: an aligned word
/// never reaches into another page.
using word = uintptr_t;

/// A key that many others are compared with.
class wanted_key
{
public:
    explicit wanted_key(const formatted_key &key);

    /// Whether a key equals it in the natural order.
    [[nodiscard]] bool equals(const char *key) const;
    /// The first entry with this key, or null.
    [[nodiscard]] const cfg_entry *find_in(const cfg_entry *cfg) const;

private:
    static constexpr size_t words_max = 16;

    [[nodiscard]] bool equals_by_words(const char *key) const;

    const char *text_;
    bool by_words_;
    size_t last_;           ///< index of the word with the NUL
    word last_mask_;        ///< its bytes up to the NUL
    word first_mask_;       ///< what must not differ in the first word, whatever the case of letters
    word words_[words_max]; ///< in lower case
};

/// The first entry of each key, in a hash table of fixed size. Ends the process when memory runs out.
class key_index
{
public:
    explicit key_index(size_t entries_max);

    /// The entry that has this one's key already; else this one, which is kept.
    const cfg_entry *add(const cfg_entry *entry);
    /// The first entry with a key, or null.
    [[nodiscard]] const cfg_entry *find(const char *key) const { return *slot(key); }

private:
    [[nodiscard]] const cfg_entry **slot(const char *key) const;

    size_t mask_;
    heap<const cfg_entry *> table_;
};

} // namespace vela
