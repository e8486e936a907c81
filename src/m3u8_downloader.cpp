#include "m3u8_downloader.h"

#include <stdlib.h>
#include <sys/stat.h>

#include "hls_log.h"
#include "hls_transfer.h"

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

extern "C" size_t m3u8_downloader_write(char *data, size_t size, size_t nmemb, void *user)
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

    CURL *curl = hls_transfer_handle(&record->curl);
    if (!curl) {
        HLS_LOG_ERROR("m3u8_downloader_prepare", "Could not create HTTP client\n");
        return 0;
    }
    hls_transfer_setup(curl, param, m3u8_downloader_write, record->buffer);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, (long)param->timeout);
    curl_easy_setopt(curl, CURLOPT_IPRESOLVE, hls_ip_resolve_option(param->ip_resolve));

    hls_transfer_status status;
    if (hls_transfer_run(&record->curl, param->url, record->ca_path, &status))
        return 1;
    HLS_TRANSFER_LOG_FAILURE("m3u8_downloader_prepare", param->url, status);
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
    hls_transfer_release(&handle->record->curl);
    return 1;
}

void m3u8_downloader_free(m3u8_downloader *handle)
{
    if (!handle)
        return;
    m3u8_downloader_record *record = handle->record;
    if (record) {
        hls_transfer_release(&record->curl);
        hls_buffer_free(record->buffer);
        record->buffer = NULL;
        free(record);
    }
    handle->record = NULL;
    free(handle);
}
