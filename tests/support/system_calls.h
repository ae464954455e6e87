// System calls that fail on demand: every one that a process makes, those within libraries and the C library too. The
// kernel asks the test about each (seccomp's user notification), so no debugger is needed.
#pragma once

#include <functional>
#include <string>

namespace system_calls
{

/// How a process fared one of whose calls failed.
struct outcome {
    int status = 0; ///< as waitpid() gives it
    int made = 0;   ///< calls that could have failed
    double seconds = 0;
    std::string failed; ///< which call did, and how
};

/// Whether this kernel, and whoever confines us, lets a process do this.
bool can_fail();

/// Runs `body` in a process of its own, which then ends with what `after` returns. The n-th system call of its main
/// thread within `body` fails, none with -1. Calls that give back what is held never do, or something would be left.
/// Killed after so many seconds. Call it from a process with one thread.
outcome run(const std::function<void()> &body, const std::function<int()> &after, int n, double limit_s);

} // namespace system_calls
