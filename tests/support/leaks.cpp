#include "tests/support/leaks.h"

#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

std::set<std::string> now_held()
{
    std::set<std::string> held;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        const auto target = std::filesystem::read_symlink(entry.path(), error);
        // Reading the directory opens a descriptor of its own.
        if (target.string().find("/fd") != std::string::npos && target.string().find("proc") != std::string::npos)
            continue;
        if (!error) held.insert("descriptor " + entry.path().filename().string() + " -> " + target.string());
    }
    for (const char *directory : {"/tmp", "/run"}) {
        for (const auto &entry : std::filesystem::directory_iterator(directory, error)) {
            held.insert("path " + entry.path().string());
        }
    }
    return held;
}

} // namespace

leak_check::leak_check() : held_{now_held()} {}

void leak_check::expect_unchanged() const
{
    for (const auto &thing : now_held()) EXPECT_TRUE(held_.count(thing)) << "left behind: " << thing;
    siginfo_t child = {};
    const bool has_child = waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0;
    EXPECT_FALSE(has_child) << "left behind: a child process";
}
