// The crash service's answer, from its bytes to the address that a dump goes to.

#include <cstdlib>
#include <cstring>
#include <vela/core/log.h>
#include <vela/telemetry/internal/answer.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    return setenv("LIBVELA_VERBOSITY", "error", 1); // refusals are warnings
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto answer = vela::telemetry::parse_answer({reinterpret_cast<const char *>(data), size});
    const auto url = vela::telemetry::upload_url(answer.get());
    if (url && (!json_is_object(answer.get()) || strlen(url.get()) > size)) abort();
    return 0;
}
