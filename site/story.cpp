#include "site/story.h"

#include <cstdarg>
#include <cstdio>
#include <unistd.h>

namespace site
{
namespace
{

constexpr const char *bold = "\033[1m";
constexpr const char *green = "\033[32m";
constexpr const char *red = "\033[31m";
constexpr const char *dim = "\033[2m";
constexpr const char *plain = "\033[0m";

} // namespace

story::story(std::string title) : colour_{isatty(STDOUT_FILENO) == 1}
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("%s%s%s\n", colour_ ? bold : "", title.c_str(), colour_ ? plain : "");
}

void story::scene(std::string_view title)
{
    printf("\n%s%d. %.*s%s\n", colour_ ? bold : "", ++scenes_, static_cast<int>(title.size()), title.data(),
           colour_ ? plain : "");
}

void story::tell(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fputs("   ", stdout);
    vprintf(format, args);
    putchar('\n');
    va_end(args);
}

void story::quote(std::string_view text, size_t most)
{
    size_t lines = 0;
    while (!text.empty()) {
        const size_t end = text.find('\n');
        const auto line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (++lines > most) {
            printf("%s     | ...%s\n", colour_ ? dim : "", colour_ ? plain : "");
            return;
        }
        printf("%s     | %.*s%s\n", colour_ ? dim : "", static_cast<int>(line.size()), line.data(),
               colour_ ? plain : "");
    }
}

bool story::check(bool fact, const char *format, ...)
{
    ++(fact ? kept_ : broken_);
    printf("   %s%s%s ", colour_ ? (fact ? green : red) : "", fact ? "ok" : "NOT SO:", colour_ ? plain : "");
    va_list args;
    va_start(args, format);
    vprintf(format, args);
    va_end(args);
    putchar('\n');
    return fact;
}

int story::end() const
{
    printf("\n%s%d facts held, %d did not.%s\n", colour_ ? bold : "", kept_, broken_, colour_ ? plain : "");
    return broken_ == 0 && kept_ > 0 ? 0 : 1;
}

overheard::overheard() : said_{tmpfile()}, before_{dup(STDERR_FILENO)}
{
    fflush(stderr);
    dup2(fileno(said_), STDERR_FILENO);
}

overheard::~overheard()
{
    fflush(stderr);
    dup2(before_, STDERR_FILENO);
    close(before_);
    fclose(said_);
}

std::string overheard::text() const
{
    std::string all;
    char chunk[4096];
    for (ssize_t n; (n = pread(fileno(said_), chunk, sizeof chunk, static_cast<off_t>(all.size()))) > 0;) {
        all.append(chunk, static_cast<size_t>(n));
    }
    return all;
}

} // namespace site
