#include "m3u8_downloader.h"

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "hls_log.h"

int32_t check_ca_path_valid(const char *path, int32_t *is_dir)
{
    struct stat st;
    if (stat(path, &st) != 0)
        return 0;
    if (S_ISDIR(st.st_mode)) {
        *is_dir = 1;
        return 1;
    }
    if (S_ISREG(st.st_mode)) {
        *is_dir = 0;
        return 1;
    }
    return 0;
}

int32_t hls_transfer_perform(CURL *curl, const char *url, const char *func)
{
    CURLcode ret = curl_easy_perform(curl);
    if (ret != CURLE_OK) {
        HLS_LOG_ERROR(func, "curl_easy_perform(%s) failed! ret:%d-%s\n", url, (int)ret, curl_easy_strerror(ret));
        return 0;
    }
    /* A failed query leaves 404, which counts as a failed download. */
    long status = 404;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status == 200)
        return 1;
    HLS_LOG_ERROR(func, "curl_easy_getinfo(%s, CURLINFO_RESPONSE_CODE): %ld\n", url, status);
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

long hls_ip_resolve_option(int32_t ip_resolve)
{
    if (ip_resolve == 2)
        return CURL_IPRESOLVE_V6;
    if (ip_resolve == 1)
        return CURL_IPRESOLVE_V4;
    return CURL_IPRESOLVE_WHATEVER;
}

/* The record behind a handle. It owns `buffer` and `curl` and borrows
 * `ca_path` from the library-wide settings. */
typedef struct m3u8_downloader_record {
    hls_buffer *buffer;
    CURL *curl;
    const char *ca_path;
} m3u8_downloader_record;

/* A handle is a one-field cell holding the record's address. */
struct m3u8_downloader {
    m3u8_downloader_record *record;
};

#define M3U8_BUFFER_CAPACITY 65536

extern "C" size_t m3u8_downloader_write(void *data, size_t size, size_t nmemb, void *user)
{
    /* A short count from a buffer that could not grow ends the transfer
     * with a write error, which prepare reports. */
    return hls_buffer_append((hls_buffer *)user, data, (uint32_t)(size * nmemb));
}

m3u8_downloader *m3u8_downloader_new(const char *ca_path)
{
    m3u8_downloader *handle = (m3u8_downloader *)malloc(sizeof(*handle));
    if (!handle)
        return NULL;
    m3u8_downloader_record *record = (m3u8_downloader_record *)malloc(sizeof(*record));
    if (!record) {
        free(handle);
        return NULL;
    }
    record->buffer = NULL;
    record->curl = NULL;
    record->ca_path = ca_path;
    handle->record = record;
    return handle;
}

/* After a failed transfer the easy handle is dropped, together with any
 * connection it holds, so that the next transfer starts afresh. */
static void release_curl(m3u8_downloader_record *record)
{
    curl_easy_cleanup(record->curl);
    record->curl = NULL;
}

int32_t m3u8_downloader_prepare(m3u8_downloader *handle, const hls_connect_param *param)
{
    if (!handle || !handle->record || !param)
        return 0;
    m3u8_downloader_record *record = handle->record;

    if (!record->buffer) {
        record->buffer = hls_buffer_new(M3U8_BUFFER_CAPACITY);
        if (!record->buffer) {
            HLS_LOG_ERROR("m3u8_downloader_prepare", "Could not malloc buffer[size:%d]\n", M3U8_BUFFER_CAPACITY);
            return 0;
        }
    } else {
        hls_buffer_clear(record->buffer);
    }

    if (!record->curl) {
        record->curl = curl_easy_init();
        if (!record->curl) {
            HLS_LOG_ERROR("m3u8_downloader_prepare", "Could not create HTTP client\n");
            return 0;
        }
    } else {
        /* Clears every option but keeps open connections for reuse. */
        curl_easy_reset(record->curl);
    }

    CURL *curl = record->curl;
    curl_easy_setopt(curl, CURLOPT_URL, param->url);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, (long)param->connect_timeout);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, (long)param->timeout);
    curl_easy_setopt(curl, CURLOPT_IPRESOLVE, hls_ip_resolve_option(param->ip_resolve));
    /* Many channels transfer at once on their own threads. */
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, m3u8_downloader_write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, record->buffer);
    hls_https_apply(curl, param->url, record->ca_path);

    if (hls_transfer_perform(curl, param->url, "m3u8_downloader_prepare"))
        return 1;
    release_curl(record);
    return 0;
}

int64_t m3u8_downloader_get_download_bytes(m3u8_downloader *handle)
{
    if (!handle || !handle->record)
        return -1;
    return hls_transfer_bytes(handle->record->curl);
}

hls_buffer *m3u8_downloader_get_buffer(m3u8_downloader *handle)
{
    if (!handle || !handle->record)
        return NULL;
    return handle->record->buffer;
}

int32_t m3u8_downloader_done(m3u8_downloader *handle)
{
    if (!handle || !handle->record)
        return 0;
    if (handle->record->curl)
        release_curl(handle->record);
    return 1;
}

void m3u8_downloader_free(m3u8_downloader *handle)
{
    if (!handle)
        return;
    m3u8_downloader_record *record = handle->record;
    if (record) {
        if (record->curl)
            release_curl(record);
        hls_buffer_free(record->buffer);
        record->buffer = NULL;
        free(record);
    }
    handle->record = NULL;
    free(handle);
}
