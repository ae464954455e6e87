// Ends the process when memory has run out.

#include <cstdio>
#include <vela/core/internal/memory.h>

namespace vela
{

void out_of_memory(const char *source, int line)
{
    (void)fprintf(stderr, "%s:%d: Out of memory\n", source, line);
    exit(1);
}

} // namespace vela
