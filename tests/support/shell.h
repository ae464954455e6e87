// Shell commands that a test's world is laid out with.
#pragma once

#include "site/world.h"

#include <gtest/gtest.h>

/// Fails the test where one of them fails.
inline void must_run(const std::string &commands) { ASSERT_EQ(0, site::run("set -e; " + commands)) << commands; }
