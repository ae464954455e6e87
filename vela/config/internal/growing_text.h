// A zeroed text that doubles when it is exactly full. One byte more than its capacity is never filled, so it always
// ends in a NUL. Ends the process when memory runs out.
#pragma once

#include <vela/core/internal/memory.h>

namespace vela
{

class growing_text
{
public:
    /// `source` and the two lines go into the out-of-memory text: of the first block, and of those it grows into.
    growing_text(size_t size, const char *source, int first_line, int growth_line)
        : source_{source}, growth_line_{growth_line}, capacity_{size}, bytes_{static_cast<char *>(calloc(size + 1, 1))}
    {
        if (!bytes_) out_of_memory(source, first_line);
    }

    [[nodiscard]] char *room() { return bytes_.get() + used_; }
    [[nodiscard]] size_t room_size() const { return capacity_ - used_; }
    [[nodiscard]] size_t size() const { return used_; }
    [[nodiscard]] const char *data() const { return bytes_.get(); }
    [[nodiscard]] char *release() { return bytes_.release(); }

    /// Takes n bytes that were written into the room.
    void took(size_t n)
    {
        used_ += n;
        if (used_ == capacity_) grow();
    }

private:
    void grow()
    {
        size_t doubled = 0;
        if (__builtin_mul_overflow(capacity_, 2, &doubled)) out_of_memory(source_, growth_line_);
        char *moved = static_cast<char *>(realloc(bytes_.get(), doubled + 1));
        if (!moved) out_of_memory(source_, growth_line_);
        (void)bytes_.release();
        bytes_.reset(moved);
        memset(moved + capacity_, 0, doubled + 1 - capacity_);
        capacity_ = doubled;
    }

    const char *source_;
    int growth_line_;
    size_t capacity_;
    size_t used_ = 0;
    c_string bytes_;
};

} // namespace vela
