#include "hls_demux.h"

#include <curl/curl.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>

#include <new>

#include "hls_demux_stream.h"
#include "hls_host_demux.h"
#include "hls_log.h"

/* ======================================================================
 * Channel stream record, download thread, probe and direct TS/FLV paths.
 * ====================================================================== */

/* Sniffing limits: three transport packets settle MPEG-TS, and a body that
 * shows nothing recognisable within 4096 bytes is left to its Content-Type. */
enum {
    TS_PACKET_SIZE = 188,
    TS_PROBE_PACKETS = 3,
    PROBE_GIVE_UP_BYTES = 4096,
};

/* Every pause of the download thread is cut into 500 slices of 10 ms, so a
 * closed channel is noticed within one slice. */
enum {
    PAUSE_SLICES = 500,
    PAUSE_SLICE_USEC = 10000,
};

static const char M3U8_MARKER[] = "#EXTM3U";
static const size_t M3U8_MARKER_LEN = sizeof(M3U8_MARKER) - 1;

static long ip_resolve_option(int32_t ip_resolve)
{
    if (ip_resolve == 1)
        return CURL_IPRESOLVE_V4;
    if (ip_resolve == 2)
        return CURL_IPRESOLVE_V6;
    return CURL_IPRESOLVE_WHATEVER;
}

/* Sleeps one 5-second pause in 10 ms slices. Returns 0 when the channel was
 * closed during it (the caller ends), 1 when the whole pause passed. */
static int pause_while_running(http_demux *record)
{
    for (int slice = 0; slice < PAUSE_SLICES; ++slice) {
        if (record->running == 0)
            return 0;
        hal_usleep(PAUSE_SLICE_USEC);
    }
    return 1;
}

int32_t hal_usleep(uint32_t usec)
{
    struct timespec request;
    struct timespec remaining;
    request.tv_sec = 0;
    request.tv_nsec = (long)usec * 1000;
    /* A signal cuts nanosleep short; the rest of the time is slept again so
     * that the caller's slice keeps its length. */
    while (nanosleep(&request, &remaining) != 0) {
        if (errno != EINTR) {
            HLS_LOG_ERROR("hal_usleep", "nanosleep errno %d\n", errno);
            return -1;
        }
        request = remaining;
    }
    return 0;
}

http_demux *http_demux_new(int32_t channel, const hls_connect_param *param, const char *ca_path,
                           hls_frame_cb frame_cb, hls_status_cb status_cb)
{
    /* The record holds an atomic, so it is constructed, not malloc'd. */
    http_demux *record = new (std::nothrow) http_demux();
    if (record == NULL)
        return NULL;
    record->channel = channel;
    record->param = *param;
    record->ca_path = ca_path;
    record->frame_cb = frame_cb;
    record->status_cb = status_cb;
    record->running = 1;
    record->started = 0;
    record->demux = NULL;
    record->demux_free = free;
    if (pthread_create(&record->thread, NULL, download_routine, record) != 0) {
        http_demux_free(record);
        return NULL;
    }
    return record;
}

void http_demux_free(http_demux *record)
{
    if (record == NULL)
        return;
    if (record->demux_free != NULL && record->demux != NULL) {
        record->demux_free(record->demux);
        record->demux = NULL;
    }
    delete record;
}

void http_ts_demux_free(void *holder)
{
    http_ts_demux *ts = (http_ts_demux *)holder;
    if (ts == NULL)
        return;
    if (ts->ts_demux != NULL) {
        ts_demux_free(ts->ts_demux);
        ts->ts_demux = NULL;
    }
    free(ts);
}

void http_flv_demux_free(void *holder)
{
    http_flv_demux *flv = (http_flv_demux *)holder;
    if (flv == NULL)
        return;
    if (flv->flv_demux != NULL) {
        flv_demux_free(flv->flv_demux);
        flv->flv_demux = NULL;
    }
    free(flv);
}

void *download_routine(void *arg)
{
    http_demux *record = (http_demux *)arg;
    if (record == NULL) {
        HLS_LOG_ERROR("download_routine", "http_demux is NULL!\n");
        return NULL;
    }

    char name[32];
    snprintf(name, sizeof(name), "httpdown[%d]", record->channel);
    prctl(PR_SET_NAME, (unsigned long)name, 0UL, 0UL, 0UL);

    while (record->running != 0) {
        probe_result probe;
        int32_t protocol = get_url_actual_protocol(record, &probe);
        switch (protocol) {
        case HLS_PROTOCOL_TS:
            if (http_ts_demux_new(record) == 0)
                download_data_by_ts(record);
            return NULL;
        case HLS_PROTOCOL_FLV:
            if (http_flv_demux_new(record) == 0)
                download_data_by_flv(record);
            return NULL;
        case HLS_PROTOCOL_M3U8:
            /* The HLS holder runs the playback loop itself once it is built. */
            hls_demux_new(record);
            return NULL;
        case HLS_PROTOCOL_UNKNOWN:
            if (!pause_while_running(record))
                return NULL;
            break;
        default: /* unsupported Content-Type, or no transfer handle */
            return NULL;
        }
    }
    return NULL;
}

/* Maps a Content-Type to a protocol; the whole value must match, ignoring
 * case, so a type carrying parameters matches no row. */
static int32_t protocol_of_content_type(const char *content_type)
{
    static const struct {
        const char *type;
        int32_t protocol;
    } table[] = {
        {"video/MP2T", HLS_PROTOCOL_TS},
        {"video/x-flv", HLS_PROTOCOL_FLV},
        {"application/x-mpegURL", HLS_PROTOCOL_M3U8},
        {"application/vnd.apple.mpegurl", HLS_PROTOCOL_M3U8},
        {"audio/mpegurl", HLS_PROTOCOL_M3U8},
        {"audio/x-mpegurl", HLS_PROTOCOL_M3U8},
    };
    for (size_t i = 0; i < sizeof(table) / sizeof(table[0]); ++i)
        if (strcasecmp(content_type, table[i].type) == 0)
            return table[i].protocol;
    return HLS_PROTOCOL_UNSUPPORTED;
}

int32_t get_url_actual_protocol(http_demux *record, probe_result *probe)
{
    CURL *curl = curl_easy_init();
    if (curl == NULL) {
        HLS_LOG_ERROR("get_url_actual_protocol", "curl_easy_init failed!\n");
        return -1;
    }
    probe->protocol = HLS_PROTOCOL_UNKNOWN;
    probe->data = NULL;
    probe->size = 0;

    const hls_connect_param *param = &record->param;
    curl_easy_setopt(curl, CURLOPT_URL, param->url);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, (long)param->connect_timeout);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, (long)param->connect_timeout + 5);
    curl_easy_setopt(curl, CURLOPT_IPRESOLVE, ip_resolve_option(param->ip_resolve));
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 5L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, protocol_writer);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, probe);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
    hls_https_apply(curl, param->url, record->ca_path);

    CURLcode code = curl_easy_perform(curl);
    /* The bytes, when they settle anything, win over the Content-Type; the
     * header is consulted only for a transfer that ended or was given up. */
    if ((code == CURLE_OK || code == CURLE_WRITE_ERROR) && probe->protocol == HLS_PROTOCOL_UNKNOWN) {
        char *content_type = NULL;
        if (curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &content_type) == CURLE_OK && content_type != NULL) {
            probe->protocol = protocol_of_content_type(content_type);
            if (probe->protocol == HLS_PROTOCOL_UNSUPPORTED)
                HLS_LOG_ERROR("get_url_actual_protocol", "Not Supported Content-Type[%s] for url[%s]\n",
                              content_type, param->url);
        }
    }

    curl_easy_cleanup(curl);
    free(probe->data);
    probe->data = NULL;
    return probe->protocol;
}

size_t protocol_writer(char *ptr, size_t size, size_t nmemb, void *arg)
{
    probe_result *probe = (probe_result *)arg;
    size_t n = size * nmemb;
    if (n == 0)
        return 0;
    /* The accumulation stays near 4096 bytes plus one piece; a piece that
     * would push its size past 32 bits cannot be kept. */
    size_t old_size = probe->size;
    size_t new_size = old_size + n;
    uint8_t *grown = NULL;
    if (n <= UINT32_MAX - old_size)
        grown = (uint8_t *)realloc(probe->data, new_size);
    if (grown == NULL) {
        HLS_LOG_ERROR("protocol_writer", "realloc(%p, %d) failed!\n", (void *)probe->data, (int)new_size);
        return 0;
    }
    probe->data = grown;
    memcpy(grown + old_size, ptr, n);
    probe->size = (uint32_t)new_size;

    const uint8_t *b = grown;
    size_t length = new_size;
    if (length < 3)
        return n;
    if (memcmp(b, "FLV", 3) == 0) {
        probe->protocol = HLS_PROTOCOL_FLV;
        return 0;
    }
    if (length >= TS_PROBE_PACKETS * TS_PACKET_SIZE) {
        /* Every packet start received so far must carry the sync byte; a
         * partial last packet counts through its first byte only. */
        size_t offset = 0;
        while (offset < length && b[offset] == 0x47)
            offset += TS_PACKET_SIZE;
        if (offset >= length) {
            probe->protocol = HLS_PROTOCOL_TS;
            return 0;
        }
    }
    if (length < M3U8_MARKER_LEN)
        return n;
    /* Earlier pieces were already searched whenever the accumulation held a
     * whole marker, so only positions that reach into the new piece can hold
     * a first match; the result equals searching everything. */
    size_t from = old_size >= M3U8_MARKER_LEN ? old_size - (M3U8_MARKER_LEN - 1) : 0;
    if (memmem(b + from, length - from, M3U8_MARKER, M3U8_MARKER_LEN) != NULL) {
        probe->protocol = HLS_PROTOCOL_M3U8;
        return 0;
    }
    if (length > PROBE_GIVE_UP_BYTES)
        return 0;
    return n;
}

int32_t http_ts_demux_new(http_demux *record)
{
    http_ts_demux *holder = (http_ts_demux *)malloc(sizeof(*holder));
    if (holder == NULL) {
        HLS_LOG_ERROR("http_ts_demux_new", "malloc(%d) failed!\n", (int)sizeof(*holder));
        return -1;
    }
    holder->ts_demux = ts_demux_new(http_frame_forward, record);
    if (holder->ts_demux == NULL) {
        HLS_LOG_ERROR("http_ts_demux_new", "ts_demux_new failed!\n");
        http_ts_demux_free(holder);
        return -1;
    }
    record->demux = holder;
    record->demux_free = http_ts_demux_free;
    return 0;
}

int32_t http_flv_demux_new(http_demux *record)
{
    http_flv_demux *holder = (http_flv_demux *)malloc(sizeof(*holder));
    if (holder == NULL) {
        HLS_LOG_ERROR("http_flv_demux_new", "malloc(%d) failed!\n", (int)sizeof(*holder));
        return -1;
    }
    holder->flv_demux = flv_demux_new(http_frame_forward, record);
    if (holder->flv_demux == NULL) {
        HLS_LOG_ERROR("http_flv_demux_new", "flv_demux_new failed!\n");
        http_flv_demux_free(holder);
        return -1;
    }
    record->demux = holder;
    record->demux_free = http_flv_demux_free;
    return 0;
}

int32_t http_frame_forward(void *first, frame_info *info, uint8_t *data, void *user)
{
    (void)first;
    http_demux *record = (http_demux *)user;
    return record->frame_cb(record->channel, info, data);
}

/* The two direct paths differ only in their write callback and in the name
 * their messages carry. */
typedef struct direct_path {
    const char *name;
    curl_write_callback write;
} direct_path;

static const direct_path TS_PATH = {"download_data_by_ts", http_ts_write};
static const direct_path FLV_PATH = {"download_data_by_flv", http_flv_write};

/* Shared body of the direct write callbacks: refuse once the channel is
 * closed, report the start of every connection's stream before its first
 * bytes reach the demultiplexer, and hand each piece over as it came. */
static size_t direct_write(const char *ptr, size_t n, http_demux *record, void *handle,
                           int32_t (*put)(void *, const uint8_t *, uint32_t))
{
    if (record->started == 0) {
        record->started = 1;
        record->status_cb(record->channel, HLS_STREAM_STARTED);
    }
    put(handle, (const uint8_t *)ptr, (uint32_t)n);
    return n;
}

size_t http_ts_write(char *ptr, size_t size, size_t nmemb, void *arg)
{
    http_demux *record = (http_demux *)arg;
    if (record->running == 0 || record->demux == NULL)
        return 0;
    return direct_write(ptr, size * nmemb, record, ((http_ts_demux *)record->demux)->ts_demux, ts_demux_put_data);
}

size_t http_flv_write(char *ptr, size_t size, size_t nmemb, void *arg)
{
    http_demux *record = (http_demux *)arg;
    if (record->running == 0 || record->demux == NULL)
        return 0;
    return direct_write(ptr, size * nmemb, record, ((http_flv_demux *)record->demux)->flv_demux,
                        flv_demux_put_data);
}

static void download_direct(http_demux *record, const direct_path *path)
{
    CURL *curl = curl_easy_init();
    if (curl == NULL) {
        HLS_LOG_ERROR(path->name, "curl_easy_init failed!\n");
        return;
    }
    const hls_connect_param *param = &record->param;
    while (record->running != 0) {
        /* No overall time limit: the transfer lasts as long as the server
         * sends, and only a stall below 1 byte/s for 5 seconds breaks it. */
        curl_easy_setopt(curl, CURLOPT_URL, param->url);
        curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
        curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, (long)param->connect_timeout);
        curl_easy_setopt(curl, CURLOPT_IPRESOLVE, ip_resolve_option(param->ip_resolve));
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 5L);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, path->write);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, record);
        curl_easy_setopt(curl, CURLOPT_VERBOSE, 0L);
        hls_https_apply(curl, param->url, record->ca_path);

        CURLcode code = curl_easy_perform(curl);
        if (code == CURLE_OK) {
            HLS_LOG_ERROR(path->name, "curl_easy_perform(%s) immediately return CURLE_OK!\n", param->url);
            break;
        }
        /* Our own write callback stopped the transfer: the channel is closing. */
        if (code == CURLE_WRITE_ERROR)
            break;
        HLS_LOG_ERROR(path->name, "curl_easy_perform(%s) return error: %s!\n", param->url, curl_easy_strerror(code));
        if (record->started == 1) {
            record->started = 0;
            record->status_cb(record->channel, HLS_STREAM_STOPPED);
        }
        curl_easy_reset(curl);
        if (!pause_while_running(record))
            break;
    }
    curl_easy_cleanup(curl);
    /* The final report leaves `started` set: the stream has ended for good. */
    if (record->started == 1)
        record->status_cb(record->channel, HLS_STREAM_STOPPED);
}

void download_data_by_ts(http_demux *record)
{
    download_direct(record, &TS_PATH);
}

void download_data_by_flv(http_demux *record)
{
    download_direct(record, &FLV_PATH);
}

/* ======================================================================
 * HLS path: holder, frame delivery thread and playback loop.
 *
 * Everything below this banner belongs to the HLS path; the download thread
 * enters it through hls_demux_new once the probe has found a playlist.
 * ====================================================================== */

/* (HLS section: placeholder until the HLS path is built; the download thread
 * ends after the probe for playlists.) */
void hls_demux_new(http_demux *record)
{
    (void)record;
}
