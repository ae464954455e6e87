// Tells a person what happens on the simulated site, and keeps count of what did not happen as it should.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

namespace site
{

class story
{
public:
    explicit story(std::string title);

    void scene(std::string_view title); ///< a heading
    void tell(const char *format, ...) __attribute__((format(printf, 2, 3)));
    void quote(std::string_view text, size_t most = 24); ///< lines as they are, indented; so many at the most
    bool check(bool fact, const char *format, ...) __attribute__((format(printf, 3, 4)));

    /// Says how it ended; the program's exit status.
    int end() const;

private:
    int scenes_ = 0;
    int kept_ = 0;
    int broken_ = 0;
    bool colour_;
};

/// Keeps from the terminal what is said on standard error while it lives: what the library logs, for the story to
/// quote.
class overheard
{
public:
    overheard();
    overheard(const overheard &) = delete;
    overheard &operator=(const overheard &) = delete;
    ~overheard();

    /// All of it so far.
    [[nodiscard]] std::string text() const;

private:
    FILE *said_;
    int before_; ///< standard error as it was
};

} // namespace site
