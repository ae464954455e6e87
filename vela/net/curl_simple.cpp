// One HTTP request per call, over libcurl: a handle is made, set up, used once and cleaned up.
//
// SIGPIPE stays blocked meanwhile: libcurl is told to leave signals alone, so nobody else would ignore the one that a
// closed peer raises.

#include <algorithm>
#include <curl/curl.h>
#include <vela/core/internal/json.h>
#include <vela/core/internal/log.h>
#include <vela/core/internal/pipe_signal.h>
#include <vela/net/curl_simple.h>
#include <vela/settings.h>

const char *const curl_simple_method_str[3] = {"GET", "POST", "PUT"};
const char *const curl_simple_doh_providers[3] = {vela::settings::doh_url_1, vela::settings::doh_url_2, nullptr};

namespace
{

constexpr const char *log_module = "curl_simple";
constexpr const char *json_header = "Content-Type: application/json";
constexpr long transfer_timeout_s = 5;

enum method { get, post, put }; // indexes curl_simple_method_str

using handle_ptr = std::unique_ptr<CURL, vela::releaser<curl_easy_cleanup>>;
using header_list = std::unique_ptr<curl_slist, vela::releaser<curl_slist_free_all>>;
using response_ptr = std::unique_ptr<curl_simple_response, vela::releaser<curl_simple_response_free>>;

struct request {
    method how;
    const char *url;
    uint32_t flags;
    curl_slist *headers = nullptr;
    const char *data = nullptr;
    long size = 0;
};

size_t keep_body(const void *bytes, size_t size, size_t count, void *arg)
{
    auto &response = *static_cast<curl_simple_response *>(arg);
    const size_t n = size * count; // libcurl holds as much in memory: no overflow
    response.received += static_cast<uint32_t>(n);

    const uint64_t length = response.body->length(response.body);
    if (length + n <= response.max_size) return response.body->append(response.body, bytes, static_cast<uint32_t>(n));
    const uint64_t room = length < response.max_size ? response.max_size - length : 0;
    response.body->append(response.body, bytes, static_cast<uint32_t>(room));
    return n; // the rest is dropped, the transfer goes on
}

size_t drop_body(const void *, size_t size, size_t count, void *) { return size * count; }

/// A server must not choose another protocol: libcurl alone would also follow it to FTP.
void follow_http_only(CURL *handle)
{
#if LIBCURL_VERSION_NUM >= 0x075500
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
#else
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS, CURLPROTO_HTTP | CURLPROTO_HTTPS);
#endif
}

void set_options(CURL *handle, const request &r, char *error_text, curl_simple_response *response)
{
    curl_easy_setopt(handle, CURLOPT_URL, r.url);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, curl_simple_method_str[r.how]);
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    follow_http_only(handle);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    if (r.headers) curl_easy_setopt(handle, CURLOPT_HTTPHEADER, r.headers);
    if (r.data && r.size > 0) {
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, r.data);
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE, r.size);
    }
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, transfer_timeout_s);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error_text);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, response ? keep_body : drop_body);
    if (response) curl_easy_setopt(handle, CURLOPT_WRITEDATA, response);
}

CURLcode perform(CURL *handle, char *error_text)
{
    error_text[0] = '\0'; // it may hold the text of an earlier try
    return curl_easy_perform(handle);
}

CURLcode perform_over_doh(CURL *handle, char *error_text, bool fall_back)
{
    // The handle would remember a name that the first resolver did not find, and ask nobody else.
    curl_easy_setopt(handle, CURLOPT_DNS_CACHE_TIMEOUT, 0L);
    for (const char *const *provider = curl_simple_doh_providers; *provider; ++provider) {
        curl_easy_setopt(handle, CURLOPT_DOH_URL, *provider);
        const CURLcode result = perform(handle, error_text);
        if (result != CURLE_COULDNT_RESOLVE_HOST) return result;
    }
    if (!fall_back) return CURLE_COULDNT_RESOLVE_HOST;
    curl_easy_setopt(handle, CURLOPT_DOH_URL, nullptr);
    return perform(handle, error_text);
}

int curl_simple(const request &r, curl_simple_response *response)
{
    const vela::pipe_signal_blocked no_signal; // outlives the handle, which may write when it is cleaned up
    char error_text[CURL_ERROR_SIZE] = "";
    const handle_ptr handle{curl_easy_init()};
    if (!handle) {
        log_debug("Failed to init request");
        return CURLE_FAILED_INIT;
    }
    set_options(handle.get(), r, error_text, response);

    const CURLcode result = r.flags & CURL_SIMPLE_USE_DOH
                                ? perform_over_doh(handle.get(), error_text, r.flags & CURL_SIMPLE_DOH_FALLBACK)
                                : perform(handle.get(), error_text);
    if (result != CURLE_OK) {
        log_debug("%s '%s' failed: [%d] %s", curl_simple_method_str[r.how], r.url, result,
                  *error_text ? error_text : curl_easy_strerror(result));
    }
    if (response) curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &response->status);
    return result;
}

int curl_simple_json(method how, const char *url, uint32_t flags, const json_t *payload, curl_simple_response *response)
{
    const header_list headers{curl_slist_append(nullptr, json_header)};
    if (!headers) {
        log_error("Failed to add HTTP header");
        return CURLE_OUT_OF_MEMORY;
    }
    if (!payload) return curl_simple({how, url, flags, headers.get()}, response);

    const vela::c_string text{json_dumps(payload, JSON_COMPACT)};
    if (!text) {
        log_error("Failed to dump json payload object");
        return CURLE_OUT_OF_MEMORY;
    }
    return curl_simple({how, url, flags, headers.get(), text.get(), static_cast<long>(strlen(text.get()))}, response);
}

} // namespace

curl_simple_response *curl_simple_response_init(uint32_t max_size)
{
    response_ptr response{static_cast<curl_simple_response *>(calloc(1, sizeof(curl_simple_response)))};
    if (!response) {
        log_error("Failed to allocate curl_simple_response");
        return nullptr;
    }
    response->max_size = max_size;
    response->body = buffer_create();
    if (!response->body) {
        log_error("Failed to allocate response buffer");
        return nullptr;
    }
    return response.release();
}

void curl_simple_response_free(curl_simple_response *resp)
{
    if (!resp) return;
    buffer_destroy(resp->body);
    free(resp);
}

int curl_simple_get(const char *url, uint32_t flags, struct curl_slist *headers, curl_simple_response *resp)
{
    return curl_simple({get, url, flags, headers}, resp);
}

int curl_simple_post(const char *url, uint32_t flags, struct curl_slist *headers, const char *data, long size,
                     curl_simple_response *resp)
{
    return curl_simple({post, url, flags, headers, data, size}, resp);
}

int curl_simple_put(const char *url, uint32_t flags, struct curl_slist *headers, const char *data, long size,
                    curl_simple_response *resp)
{
    return curl_simple({put, url, flags, headers, data, size}, resp);
}

int curl_simple_post_json(const char *url, uint32_t flags, json_t *payload, curl_simple_response *resp)
{
    return curl_simple_json(post, url, flags, payload, resp);
}

int curl_simple_put_json(const char *url, uint32_t flags, json_t *payload, curl_simple_response *resp)
{
    return curl_simple_json(put, url, flags, payload, resp);
}
