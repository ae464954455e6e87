// What the crash service answers: its JSON, and the address in it that a dump is uploaded to.

#include <curl/curl.h>
#include <strings.h>
#include <vela/core/internal/log.h>
#include <vela/telemetry/internal/answer.h>

namespace vela::telemetry
{
namespace
{

constexpr const char *log_module = "crash";
constexpr const char *upload_url_key = "upload_url";

using curl_text = std::unique_ptr<char, releaser<curl_free>>;
using curl_address = std::unique_ptr<CURLU, releaser<curl_url_cleanup>>;

/// Whether the client would take the address for another protocol than HTTP. A service must not choose that: a local
/// file, for one, would be an answer to the client, and answers end up in the log.
bool is_foreign(const char *url)
{
    const curl_address address{curl_url()};
    if (!address) return true;
    char *scheme = nullptr;
    constexpr unsigned as_the_client_does = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
    if (curl_url_set(address.get(), CURLUPART_URL, url, as_the_client_does)) return false; // it will refuse
    if (curl_url_get(address.get(), CURLUPART_SCHEME, &scheme, 0)) return true;
    const curl_text owned{scheme};
    if (strcasecmp(scheme, "http") == 0 || strcasecmp(scheme, "https") == 0) return false;
    log_debug_as("send_crash", "upload_url has scheme \"%s\", not http or https", scheme);
    return true;
}

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
    return c_string{url && !is_foreign(url) ? strdup(url) : nullptr};
}

} // namespace vela::telemetry
