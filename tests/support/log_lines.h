// What the library logs, caught at the kernel log's device: level, module, function and text of every message.
#pragma once

#include <ostream>
#include <string>
#include <vector>

struct log_line {
    std::string level;
    std::string module;
    std::string function;
    std::string text;
    bool operator==(const log_line &) const = default;
};

std::ostream &operator<<(std::ostream &out, const log_line &line);

/// While it lives, everything the library logs (all five levels unless told otherwise) comes here and nowhere else.
class log_lines
{
public:
    explicit log_lines(const char *verbosity = "trace");
    log_lines(const log_lines &) = delete;
    log_lines &operator=(const log_lines &) = delete;
    ~log_lines();

    /// The lines since the last call.
    std::vector<log_line> take();
    /// The same, each as "[error] cfg.parse(): the text".
    std::vector<std::string> shown();
    /// Their texts alone.
    std::vector<std::string> texts();

private:
    int fifo_;
    std::string rest_;
};
