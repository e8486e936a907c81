#include "ts_downloader.h"

#include <curl/curl.h>
#include <limits.h>
#include <stdlib.h>

#include "hls_host_demux.h"
#include "hls_log.h"
#include "hls_transfer.h"

/* The record behind a handle. It owns `curl`; the demultiplexer belongs to
 * the HLS holder and the CA path to the library-wide settings. */
typedef struct ts_downloader_record {
    CURL *curl;
    void *ts_demux;
    const char *ca_path;
    uint64_t bandwidth_bps; /* receive cap for the next transfers; 0 = none */
} ts_downloader_record;

/* A handle is a one-field cell holding the record's address. */
struct ts_downloader {
    ts_downloader_record *record;
};

extern "C" size_t ts_downloader_write(char *data, size_t size, size_t nmemb, void *user)
{
    size_t count = size * nmemb;
    ts_downloader_record *record = (ts_downloader_record *)user;
    /* Every piece goes straight on; the demultiplexer can never stop the
     * transfer, so its result is not looked at. */
    ts_demux_put_data(record->ts_demux, (const uint8_t *)data, (uint32_t)count);
    return count;
}

ts_downloader *ts_downloader_new(void *ts_demux, const char *ca_path)
{
    ts_downloader *handle = (ts_downloader *)malloc(sizeof(*handle));
    if (!handle)
        return NULL;
    ts_downloader_record *record = (ts_downloader_record *)malloc(sizeof(*record));
    if (!record) {
        free(handle);
        return NULL;
    }
    record->curl = NULL;
    record->ts_demux = ts_demux;
    record->ca_path = ca_path;
    record->bandwidth_bps = 0;
    handle->record = record;
    return handle;
}

int32_t ts_downloader_prepare(ts_downloader *handle, const hls_connect_param *param, uint32_t duration_ms)
{
    if (!handle || !handle->record || !param)
        return 0;
    ts_downloader_record *record = handle->record;

    CURL *curl = hls_transfer_handle(&record->curl);
    if (!curl) {
        HLS_LOG_ERROR("ts_downloader_prepare", "Could not create HTTP client\n");
        return 0;
    }

    /* A segment may take twice its own duration, but never less than a
     * second; worked out in 32 bits like the duration itself. */
    uint32_t timeout_ms = 2u * duration_ms;
    if (timeout_ms < 1000u)
        timeout_ms = 1000u;
    /* Bits to bytes per second; 0 leaves libcurl uncapped. */
    curl_off_t max_recv = (curl_off_t)((int64_t)record->bandwidth_bps / 8);

    /* No overall CURLOPT_TIMEOUT and no address-family choice: a segment is
     * bounded by the connect time-out and its own time limit only. */
    hls_transfer_setup(curl, param, ts_downloader_write, record);
    /* A long has 32 bits on some targets: past LONG_MAX libcurl would refuse
     * the option and leave the transfer without a time limit. */
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeout_ms > (uint32_t)LONG_MAX ? LONG_MAX : (long)timeout_ms);
    curl_easy_setopt(curl, CURLOPT_MAX_RECV_SPEED_LARGE, max_recv);

    hls_transfer_status status;
    if (hls_transfer_run(&record->curl, param->url, record->ca_path, &status))
        return 1;
    HLS_TRANSFER_LOG_FAILURE("ts_downloader_prepare", param->url, status);
    return 0;
}

int64_t ts_downloader_get_download_bytes(ts_downloader *handle)
{
    if (!handle || !handle->record)
        return -1;
    return hls_transfer_bytes(handle->record->curl);
}

int32_t ts_downloader_done(ts_downloader *handle)
{
    if (!handle || !handle->record)
        return 0;
    hls_transfer_release(&handle->record->curl);
    return 1;
}

void ts_downloader_free(ts_downloader *handle)
{
    if (!handle)
        return;
    ts_downloader_record *record = handle->record;
    if (record) {
        hls_transfer_release(&record->curl);
        free(record);
    }
    handle->record = NULL;
    free(handle);
}

/* Both accessors are for the HLS loop, which always has a live handle; a
 * null one reads as no cap and is otherwise ignored. */
uint64_t ts_downloader_get_bandwidth_bps(ts_downloader *handle)
{
    if (!handle || !handle->record)
        return 0;
    return handle->record->bandwidth_bps;
}

void ts_downloader_set_bandwidth_bps(ts_downloader *handle, uint64_t bps)
{
    if (handle && handle->record)
        handle->record->bandwidth_bps = bps;
}
