// What crash reports and traces have in common: facts of the device, the services' addresses, members of a report.

#include <cstdlib>
#include <vela/board/status.h>
#include <vela/core/file.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/text.h>
#include <vela/telemetry/internal/report.h>

namespace vela::telemetry
{
namespace
{

constexpr const char *analytics_mode_path = "/var/run/system.analytics.mode";
constexpr const char *factory_default_path = "/proc/velahal/status/IsDefault";

constexpr long anonymous_analytics = 2; // the mode while nobody has chosen one
constexpr int development = 2;          // what get_brix_env_limit_prod() calls it

} // namespace

bool analytics_on() { return freadlong(analytics_mode_path, anonymous_analytics) != 0; }

const char *service_url(const char *production, const char *development_url)
{
    return get_brix_env_limit_prod(nullptr) == development ? development_url : production;
}

bool is_factory_default()
{
    char line[16];
    freadline(factory_default_path, line, sizeof line, "false");
    return view(line) == "true" || strtol(line, nullptr, 10) != 0;
}

const char *firmware_version(const char *module, const char *function)
{
    const char *version = nullptr;
    const int error = get_version(&version);
    if (error != 0)
        log_at(LIBVELA_LOG_WARN, module, function, "Couldn't obtain firmware version! error code = %d", error);
    return version;
}

json_t *decimal_text(json_int_t value) { return json_sprintf("%" JSON_INTEGER_FORMAT, value); }

void add(json_t *object, const char *key, json_t *value) { (void)json_object_set_new(object, key, value); }

void add_unless_empty(json_t *object, const char *key, const char *text)
{
    if (*text) add(object, key, json_string(text));
}

std::string_view body_of(const curl_simple_response &response)
{
    return {reinterpret_cast<const char *>(response.body->data(response.body)), response.body->length(response.body)};
}

} // namespace vela::telemetry
