/* What every transfer of the library shares: the base options of a request
 * on a connect record, the address-family option, the certificate rule for
 * HTTPS, the check of a finished transfer and its byte count. These helpers
 * write no message of their own: a failure comes back to the caller, which
 * reports it under its own name, file and line. */
#ifndef HLS_TRANSFER_H
#define HLS_TRANSFER_H

#include <curl/curl.h>
#include <stdint.h>

#include "HLSClientLib.h"
#include "hls_log.h"

#ifdef __cplusplus
extern "C" {
#endif

/* CURLOPT_IPRESOLVE value for a channel's `ip_resolve`: 2 IPv6 only, 1 IPv4
 * only, anything else either family. */
long hls_ip_resolve_option(int32_t ip_resolve);

/* Sets what every request of the library carries: the URL of `param`,
 * redirects followed, its connect time-out, no signals (many channels transfer
 * at once on their own threads) and the write callback with its data. */
void hls_transfer_setup(CURL *curl, const hls_connect_param *param, curl_write_callback write, void *data);

/* Applies the certificate rule to `curl` for a transfer of `url`: nothing for
 * a URL not starting "https"; otherwise the CA path as directory or file with
 * peer verification, or both verifications off when it is null or unusable.
 * Called after every other option of the transfer. */
void hls_https_apply(CURL *curl, const char *url, const char *ca_path);

/* A reusable easy handle in *curl: a new one when there is none, else the
 * same one with every option cleared (its open connections stay for reuse).
 * Null when a new handle cannot be created. */
CURL *hls_transfer_handle(CURL **curl);
/* Cleans up the easy handle in *curl, with any connection it holds, and
 * leaves null there; nothing when there is none. */
void hls_transfer_release(CURL **curl);

/* How a finished transfer ended. */
typedef struct hls_transfer_status {
    CURLcode code; /* libcurl's result */
    long response; /* final response status; 404 when libcurl cannot tell */
} hls_transfer_status;

/* Runs the transfer prepared on `curl`: 1 when it completed with status 200;
 * otherwise 0, with *status saying why (see HLS_TRANSFER_LOG_FAILURE). */
int32_t hls_transfer_perform(CURL *curl, hls_transfer_status *status);

/* The last steps of a downloader's transfer prepared in *curl: applies the
 * certificate rule for `url` and `ca_path`, runs the transfer and checks it
 * (hls_transfer_perform). On failure the easy handle is released, with any
 * connection it holds, so that the next transfer starts afresh; the caller
 * then reports *status. 1 or 0 like hls_transfer_perform. */
int32_t hls_transfer_run(CURL **curl, const char *url, const char *ca_path, hls_transfer_status *status);

/* Body bytes of the last transfer on `curl`; -1 without a handle or when
 * libcurl cannot tell. */
int64_t hls_transfer_bytes(CURL *curl);

#ifdef __cplusplus
}
#endif

/* Writes the error line of a transfer of `url` that hls_transfer_perform
 * refused. A macro, so that the line names the file and line of the function
 * `func` that reports it. */
#define HLS_TRANSFER_LOG_FAILURE(func, url, status)                                                  \
    do {                                                                                             \
        if ((status).code != CURLE_OK)                                                               \
            HLS_LOG_ERROR(func, "curl_easy_perform(%s) failed! ret:%d-%s\n", url, (int)(status).code, \
                          curl_easy_strerror((status).code));                                        \
        else                                                                                         \
            HLS_LOG_ERROR(func, "curl_easy_getinfo(%s, CURLINFO_RESPONSE_CODE): %ld\n", url,         \
                          (status).response);                                                        \
    } while (0)

#endif
