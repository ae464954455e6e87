// Keys of a configuration: the order they compare in, a key that is looked for, and entries sorted by key.
#pragma once

#include <vela/config/cfg.h>
#include <vela/core/internal/memory.h>
#include <vela/core/internal/text.h>

namespace vela
{

/// The order of keys: ASCII letters without their case, a run of digits as its number (modulo 2^32), every number
/// behind every other character. Null comes first.
int natural_compare(const char *a, const char *b);

/// A key, or the start of one, as a caller's format and arguments spell it.
class wanted_key
{
public:
    /// Logs "OOM" for `function` when there is no memory for a long key.
    wanted_key(const char *function, const char *format, va_list args) VELA_PRINTF(3, 0);
    wanted_key(const wanted_key &) = delete;
    wanted_key &operator=(const wanted_key &) = delete;

    [[nodiscard]] bool ok() const { return text_ != nullptr; } ///< false when memory ran out
    [[nodiscard]] const char *c_str() const { return text_; }
    [[nodiscard]] size_t size() const { return length_; }

    /// Whether a key equals this one in the natural order.
    [[nodiscard]] bool equals(const char *key) const
    {
        return key && (long_number_ ? natural_compare(key, text_) : strcasecmp(key, text_)) == 0;
    }
    /// Whether a key begins with this one, byte by byte.
    [[nodiscard]] bool begins(const char *key) const { return key && strncmp(key, text_, length_) == 0; }

private:
    char room_[256];
    c_string heap_; ///< instead of the room, for longer keys
    const char *text_ = room_;
    size_t length_ = 0;
    bool long_number_ = false;
};

/// The entries of a list in the order of their keys; entries with equal keys in the order of the list. Ends the process
/// when memory runs out.
class sorted_entries
{
public:
    struct place {
        cfg_entry *entry;
        size_t number; ///< its place in the list, from 0
    };

    /// The entries are const only for who gives a const list.
    explicit sorted_entries(const cfg_entry *list);

    /// The list's first entry with a key, or null.
    [[nodiscard]] const cfg_entry *find(const char *key) const;
    [[nodiscard]] const place *begin() const { return places_.get(); }
    [[nodiscard]] const place *end() const { return places_.get() + count_; }

private:
    size_t count_;
    heap<place> places_;
};

} // namespace vela
