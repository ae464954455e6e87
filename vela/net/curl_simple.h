/**
 * @file
 * One HTTP request per call, over libcurl: GET, POST or PUT, with or without a JSON body, certificates and host names
 * always verified, redirects followed (a redirected POST or PUT arrives without its body).
 *
 * Every call returns libcurl's result code (CURLcode): 0 when a response arrived, whatever its HTTP status. A transfer
 * ends after 5 seconds at most; with DNS over HTTPS that holds for each resolver tried, and where the system resolver
 * is stuck, the call returns when that gives up. URL, headers and body are borrowed for the call. Nothing is shared
 * between calls; a program with threads calls curl_global_init() itself, before it starts them.
 *
 *     curl_simple_response *response = curl_simple_response_init(2048);
 *     if (curl_simple_get("https://a.example/", 0, NULL, response) == 0 && response->status == 200)
 *         fwrite(response->body->data(response->body), 1, response->body->length(response->body), stdout);
 *     curl_simple_response_free(response);
 */
#ifndef VELA_NET_CURL_SIMPLE_H
#define VELA_NET_CURL_SIMPLE_H

#include <jansson.h>
#include <stdint.h>
#include <vela/core/api.h>
#include <vela/core/buffer.h>

#ifdef __cplusplus
extern "C" {
#endif

struct curl_slist;

/** Request flags. */
enum {
    /** Resolve the host through curl_simple_doh_providers, in order: the next one only where one cannot resolve it. */
    CURL_SIMPLE_USE_DOH = 1,
    /** With CURL_SIMPLE_USE_DOH: the system resolver when no provider could resolve the host. Alone: no effect. */
    CURL_SIMPLE_DOH_FALLBACK = 2,
};

/** "GET", "POST", "PUT". */
extern VELA_API const char *const curl_simple_method_str[3];
/** URLs of the DNS-over-HTTPS resolvers, ended by NULL. */
extern VELA_API const char *const curl_simple_doh_providers[3];

/** What came back. One record serves one request. */
typedef struct curl_simple_response {
    long status;       /**< HTTP status of the last response; 0 when none arrived */
    buffer *body;      /**< the body's first max_size bytes, without a NUL behind them */
    uint32_t max_size; /**< most bytes kept; keep it below 4 MiB */
    uint32_t received; /**< bytes that arrived; above the body's length where it was cut */
} curl_simple_response;

/**
 * Makes an empty response record.
 *
 * @param max_size  bytes of the body to keep; what arrives beyond is counted and dropped, and is no failure
 * @return the record, for curl_simple_response_free(); null when memory is short
 */
VELA_API curl_simple_response *curl_simple_response_init(uint32_t max_size);

/** Frees a response record with its body; null is allowed. */
VELA_API void curl_simple_response_free(curl_simple_response *resp);

/**
 * Sends a GET request.
 *
 * @param flags    of CURL_SIMPLE_USE_DOH and CURL_SIMPLE_DOH_FALLBACK
 * @param headers  further request headers; null for none
 * @param resp     receives status and body; null when neither matters
 * @return libcurl's result code: 0 when a response arrived; 6 when the host cannot be resolved; 28 after 5 seconds; 60
 *         for a certificate that does not verify; ...
 */
VELA_API int curl_simple_get(const char *url, uint32_t flags, struct curl_slist *headers, curl_simple_response *resp);

/** Sends a POST request with `size` bytes as its body: none where data is null or size is not above 0. */
VELA_API int curl_simple_post(const char *url, uint32_t flags, struct curl_slist *headers, const char *data, long size,
                              curl_simple_response *resp);

/** curl_simple_post() with PUT. */
VELA_API int curl_simple_put(const char *url, uint32_t flags, struct curl_slist *headers, const char *data, long size,
                             curl_simple_response *resp);

/**
 * Sends a POST request with a JSON document, compact, as "application/json".
 *
 * @param payload  borrowed; null sends the header and no body
 * @return as curl_simple_get(); 27 also when the document cannot be written
 */
VELA_API int curl_simple_post_json(const char *url, uint32_t flags, json_t *payload, curl_simple_response *resp);

/** curl_simple_post_json() with PUT. */
VELA_API int curl_simple_put_json(const char *url, uint32_t flags, json_t *payload, curl_simple_response *resp);

#ifdef __cplusplus
}
#endif

#endif
