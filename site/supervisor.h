// The watchdog's side of a watched process: starts it with a pipe in XWD_FD and listens for its signs of life.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace site
{

struct watch_report {
    std::string heard;             ///< every byte that came
    std::string fault;             ///< how they broke the rules; "" for not at all
    bool ended_on_purpose = false; ///< said so before its end
    bool killed = false;           ///< gave no sign of life in time
    int status = 0;                ///< as waitpid has it
};

/// Runs `body` in a child and watches it to its end. From its start to its "E" the child must not be silent for longer
/// than `patience`, else it is killed.
watch_report supervise(const std::function<void()> &body, std::chrono::milliseconds patience);

} // namespace site
