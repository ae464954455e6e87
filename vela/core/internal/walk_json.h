// The elements of a walk as one JSON array.
#pragma once

#include <cerrno>
#include <vela/core/internal/json.h>

namespace vela
{

/// Calls `walk` with a callback and its argument, as the public walks take them, and makes an object of each element by
/// `one`. A table that changes while it is read is read again, three times at most; then what came last is the answer.
/// Null, with errno, when the walk fails or memory is short.
template <class Record, class Walk> json_t *walk_json(Walk walk, json_ref (*one)(const Record &))
{
    struct gathering {
        json_ref array{json_array()};
        json_ref (*one)(const Record &);
        bool whole = true;
    };
    const auto append = [](const Record *record, void *arg) {
        auto &g = *static_cast<gathering *>(arg);
        g.whole = json_array_append_new(g.array.get(), g.one(*record).release()) == 0;
        return g.whole ? 0 : 1;
    };
    for (int tries = 3;; --tries) {
        gathering g{.one = one};
        const int result = g.array ? walk(+append, static_cast<void *>(&g)) : -ENOMEM;
        if (result == -EAGAIN && g.whole && tries > 1) continue;
        if (g.whole && (result >= 0 || result == -EAGAIN)) return g.array.release();
        errno = g.whole ? -result : ENOMEM;
        return nullptr;
    }
}

} // namespace vela
