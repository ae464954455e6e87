// Counts what a call could leave behind: descriptors, children, temporary paths.
#pragma once

#include <gtest/gtest.h>
#include <set>
#include <string>

/// Taken before; `expect_unchanged()` after. Covers /proc/self/fd, this process's children, and the entries of /tmp,
/// /run (/var/run).
class leak_check
{
public:
    leak_check();
    void expect_unchanged() const;

private:
    std::set<std::string> held_;
};
