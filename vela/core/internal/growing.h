// A list whose length the outside decides: one block, doubled as it fills, with a cap.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <span>
#include <type_traits>
#include <vela/core/internal/memory.h>

namespace vela
{

template <class T> class growing_list
{
    static_assert(std::is_trivially_copyable_v<T>); // realloc moves it

public:
    explicit growing_list(size_t cap) : cap_{cap} {}

    /// 0; -ENOMEM; -ENOSPC beyond the cap.
    int add(const T &element)
    {
        if (count_ == cap_) return -ENOSPC;
        if (count_ == room_) {
            const size_t room = std::min(cap_, std::max(8192 / sizeof(T), 2 * room_));
            auto *grown = static_cast<T *>(realloc(static_cast<void *>(block_.get()), room * sizeof(T)));
            if (!grown) return -ENOMEM;
            (void)block_.release(); // realloc has taken it
            block_.reset(grown);
            room_ = room;
        }
        block_.get()[count_++] = element;
        return 0;
    }

    [[nodiscard]] std::span<T> items() { return {block_.get(), count_}; }
    [[nodiscard]] std::span<const T> items() const { return {block_.get(), count_}; }

private:
    heap<T> block_;
    size_t count_ = 0;
    size_t room_ = 0;
    size_t cap_;
};

} // namespace vela
