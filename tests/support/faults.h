// Failures on demand. The test program's own malloc and a few system calls stand before libc's, for the library too.
// Allocation faults are not available under the address sanitizer: `faults::can_refuse_memory` says so.
#pragma once

#include <functional>

namespace faults
{

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool can_refuse_memory = false;
#else
inline constexpr bool can_refuse_memory = true;
#endif

/// While it lives, the n-th allocation of this thread from now (0: the next one) fails; with `all`, all after it too.
class refuse_memory
{
public:
    explicit refuse_memory(int n = 0, bool all = false);
    refuse_memory(const refuse_memory &) = delete;
    refuse_memory &operator=(const refuse_memory &) = delete;
    ~refuse_memory();
    [[nodiscard]] bool happened() const; ///< whether an allocation was refused
};

enum class call { fork, socket, bind, setsockopt, flock, ftruncate, uname, clock_gettime, write, send, count_ };

/// While it lives, the n-th such call from now fails with the given errno; with `all`, all after it too.
class refuse
{
public:
    refuse(call which, int error, int n = 0, bool all = true);
    refuse(const refuse &) = delete;
    refuse &operator=(const refuse &) = delete;
    ~refuse();

private:
    call which_;
};

/// How many allocations this thread makes in `body`, and how many blocks of them are left after it.
struct allocations {
    int made;
    int left;
};
allocations count_allocations(const std::function<void()> &body);

/// Runs `body` with its first, second, ... allocation refused, until it runs without any being refused.
void for_each_allocation(const std::function<void()> &body);

} // namespace faults
