// What must not stay in memory after use: keys, key schedules, hash states.
#pragma once

#include <cstring>

namespace vela
{

/// Has later code read a value from its place again, instead of keeping copies that may spill to the stack.
template <class T> inline void settle(T &value) { asm volatile("" : "+m"(value)); }

/// A value that its destructor wipes.
template <class T> struct secret {
    T value;

    secret() : value{} {}
    secret(const secret &) = delete;
    secret &operator=(const secret &) = delete;
    ~secret() { explicit_bzero(&value, sizeof value); }
};

} // namespace vela
