#include "hls_transfer.h"

#include <string.h>

#include "m3u8_downloader.h"

long hls_ip_resolve_option(int32_t ip_resolve)
{
    if (ip_resolve == 2)
        return CURL_IPRESOLVE_V6;
    if (ip_resolve == 1)
        return CURL_IPRESOLVE_V4;
    return CURL_IPRESOLVE_WHATEVER;
}

void hls_transfer_setup(CURL *curl, const hls_connect_param *param, curl_write_callback write, void *data)
{
    curl_easy_setopt(curl, CURLOPT_URL, param->url);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, (long)param->connect_timeout);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, data);
}

void hls_https_apply(CURL *curl, const char *url, const char *ca_path)
{
    if (strncmp(url, "https", 5) != 0)
        return;
    int32_t is_dir = 0;
    if (ca_path && check_ca_path_valid(ca_path, &is_dir)) {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
        /* The host-name check keeps libcurl's default on this branch. */
        curl_easy_setopt(curl, is_dir ? CURLOPT_CAPATH : CURLOPT_CAINFO, ca_path);
        return;
    }
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
}

CURL *hls_transfer_handle(CURL **curl)
{
    if (*curl)
        curl_easy_reset(*curl);
    else
        *curl = curl_easy_init();
    return *curl;
}

void hls_transfer_release(CURL **curl)
{
    if (!*curl)
        return;
    curl_easy_cleanup(*curl);
    *curl = NULL;
}

int32_t hls_transfer_perform(CURL *curl, hls_transfer_status *status)
{
    status->code = curl_easy_perform(curl);
    /* A failed query leaves 404, which counts as a failed download. */
    status->response = 404;
    if (status->code != CURLE_OK)
        return 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status->response);
    return status->response == 200;
}

int32_t hls_transfer_run(CURL **curl, const char *url, const char *ca_path, hls_transfer_status *status)
{
    hls_https_apply(*curl, url, ca_path);
    if (hls_transfer_perform(*curl, status))
        return 1;
    hls_transfer_release(curl);
    return 0;
}

int64_t hls_transfer_bytes(CURL *curl)
{
    if (!curl)
        return -1;
    curl_off_t bytes = 0;
    if (curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &bytes) != CURLE_OK)
        return -1;
    return (int64_t)bytes;
}
