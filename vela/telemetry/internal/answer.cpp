#include <vela/core/internal/log.h>
#include <vela/telemetry/internal/answer.h>

namespace vela::telemetry
{
namespace
{

constexpr const char *log_module = "crash";
constexpr const char *upload_url_key = "upload_url";

} // namespace

json_ref parse_answer(std::string_view body)
{
    json_error_t error = {};
    json_ref answer{json_loadb(body.data(), body.size(), 0, &error)};
    if (!answer) {
        log_warn_as("post_crash", "Failed to parse response: %s at line %d, column %d", error.text, error.line,
                    error.column);
    }
    return answer;
}

c_string upload_url(const json_t *answer)
{
    const char *url = json_string_value(json_object_get(answer, upload_url_key));
    return c_string{url ? strdup(url) : nullptr};
}

} // namespace vela::telemetry
