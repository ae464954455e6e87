// What must not stay in memory after use: keys, key schedules, hash states.
#pragma once

#include <cstring>

namespace vela
{

/// A value that its destructor wipes.
template <class T> struct secret {
    T value;

    secret() : value{} {}
    secret(const secret &) = delete;
    secret &operator=(const secret &) = delete;
    ~secret() { explicit_bzero(&value, sizeof value); }
};

} // namespace vela
