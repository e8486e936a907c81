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

/* ---- clock and pacing decisions ---- */

uint32_t hls_monotonic_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint32_t)((uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u);
}

uint32_t (*hls_monotonic_ms_fn)(void) = hls_monotonic_ms;
void (*hls_set_cap_fn)(ts_downloader *handle, uint64_t bps) = ts_downloader_set_bandwidth_bps;

/* Both comparisons are plain wrapping 32-bit arithmetic on purpose: that is
 * how the pacing rules are defined. Once every 49.7 days, when the clock
 * wraps, they can misjudge the one segment whose slot spans the wrap. */
int32_t hls_segment_is_late(uint32_t last_ms, uint32_t duration_ms, uint32_t now_ms)
{
    return (uint32_t)(last_ms + duration_ms) < now_ms ? 1 : 0;
}

int32_t hls_segment_is_early(uint32_t last_ms, uint32_t duration_ms, uint32_t now_ms)
{
    return (uint32_t)(now_ms + 20u - last_ms) < duration_ms ? 1 : 0;
}

uint64_t hls_first_cap_bps(int64_t bytes, uint64_t duration_ns)
{
    if (bytes < 1 || duration_ns == 0)
        return 0;
    /* bytes x 8 bits x 1e9 ns/s x 1.5 = bytes x 12e9, per nanosecond of media. */
    return (uint64_t)bytes * 12000000000ull / duration_ns;
}

uint64_t hls_late_cap_bps(uint64_t cap)
{
    return 5u * cap / 4u;
}

int32_t hls_variant_url(char *url, const char *uri)
{
    if (strncmp(uri, "http", 4) == 0) {
        strncpy(url, uri, 511);
        url[511] = '\0';
        return 1;
    }
    char scratch[512];
    memset(scratch, 0, sizeof(scratch));
    memcpy(scratch, url, strnlen(url, 511));
    char *slash = strrchr(scratch, '/');
    if (!slash)
        return 0;
    /* The URI replaces everything after the last "/" (a query part included)
     * and is appended as it stands. A join that would pass 511 characters is
     * cut there, like every other URL the loop builds: the fetch of the cut
     * URL then fails and is retried, rather than writing past the field. */
    size_t at = (size_t)(slash - scratch) + 1;
    size_t room = 511 - at;
    size_t len = strnlen(uri, room);
    memcpy(scratch + at, uri, len);
    memset(scratch + at + len, 0, sizeof(scratch) - at - len);
    memcpy(url, scratch, sizeof(scratch));
    return 1;
}

int32_t hls_frame_rate_of(int32_t rate, const frame_info *info)
{
    /* Only key frames carry a rate; other video frames keep the current one. */
    if (info->type != HLS_FRAME_TYPE_VIDEO_KEY)
        return rate;
    if (info->video.frame_rate_frac >= 500)
        return (int32_t)info->video.frame_rate + 1;
    return info->video.frame_rate ? (int32_t)info->video.frame_rate : 30;
}

int32_t hls_effective_rate(int32_t rate, uint32_t video_count)
{
    int32_t r = rate;
    if (video_count > 119) {
        uint32_t step = (video_count - 120) / 5;
        r = rate + (int32_t)(step < 40 ? step : 40);
    } else if (video_count <= 29) {
        uint32_t step = (30 - video_count) / 5;
        r = rate - (int32_t)(step < 5 ? step : 5);
    }
    /* A slow stream (rate 5 or less) with a nearly empty queue would reach 0
     * or below; one frame per second is the slowest pace we keep, so the
     * period stays finite and the deadline always lies ahead. */
    return r < 1 ? 1 : r;
}

uint32_t hls_frame_period_ns(int32_t r)
{
    return (uint32_t)(1000000000u / (uint32_t)(r < 1 ? 1 : r));
}

struct timespec hls_next_tick(struct timespec now, uint32_t period_ns)
{
    /* The grid of ticks restarts at every whole second of the clock. */
    uint64_t nsec = (uint64_t)now.tv_nsec;
    uint64_t x = (uint64_t)period_ns * (nsec / period_ns + 1);
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + (time_t)(x / 1000000000u);
    deadline.tv_nsec = (long)(x % 1000000000u);
    return deadline;
}

/* ---- holder ---- */

int32_t hls_frame_input(void *first, frame_info *info, uint8_t *data, void *user)
{
    (void)first;
    hls_demux *holder = (hls_demux *)user;
    if (!holder)
        return -2;
    return frame_queue_input(&holder->frame_queue, info, data);
}

void hls_demux_free(void *arg)
{
    hls_demux *holder = (hls_demux *)arg;
    if (!holder)
        return;
    /* The segment downloader goes before the demultiplexer it feeds. */
    if (holder->ts_downloader) {
        ts_downloader_free(holder->ts_downloader);
        holder->ts_downloader = NULL;
    }
    if (holder->ts_demux) {
        ts_demux_free(holder->ts_demux);
        holder->ts_demux = NULL;
    }
    if (holder->media_downloader) {
        m3u8_downloader_free(holder->media_downloader);
        holder->media_downloader = NULL;
    }
    if (holder->master_downloader) {
        m3u8_downloader_free(holder->master_downloader);
        holder->master_downloader = NULL;
    }
    if (holder->m3u8_client) {
        m3u8_client_free(holder->m3u8_client);
        holder->m3u8_client = NULL;
    }
    /* The loop halted the queue before we get here, so it holds no frames. */
    frame_queue_free(&holder->frame_queue);
    free(holder);
}

void hls_demux_new(http_demux *record)
{
    hls_demux *holder = (hls_demux *)calloc(1, sizeof(hls_demux));
    if (!holder) {
        HLS_LOG_ERROR("hls_demux_new", "malloc(%d) failed!\n", (int)sizeof(hls_demux));
        return;
    }
    /* A queue that cannot be set up refuses every frame and ends the delivery
     * thread at its first read; the stream still runs, so the result is not
     * examined. */
    frame_queue_init(&holder->frame_queue);
    holder->media_url_known = 0;
    holder->m3u8_client = m3u8_client_new();
    holder->master_downloader = m3u8_downloader_new(record->ca_path);
    holder->media_downloader = m3u8_downloader_new(record->ca_path);
    holder->ts_demux = ts_demux_new(hls_frame_input, holder);
    holder->ts_downloader = ts_downloader_new(holder->ts_demux, record->ca_path);
    if (!holder->ts_demux || !holder->ts_downloader || !holder->m3u8_client || !holder->master_downloader ||
        !holder->media_downloader) {
        hls_demux_free(holder);
        return;
    }
    record->demux = holder;
    record->demux_free = hls_demux_free;
    download_data_by_hls(record);
}

/* ---- frame delivery thread ---- */

void *hls_ctrl_routine(void *arg)
{
    http_demux *hd = (http_demux *)arg;
    if (!hd) {
        HLS_LOG_ERROR("hls_ctrl_routine", "http_demux is NULL!\n");
        return NULL;
    }
    hls_demux *holder = (hls_demux *)hd->demux;
    if (!holder) {
        HLS_LOG_ERROR("hls_ctrl_routine", "hls_demux is NULL!\n");
        return NULL;
    }
    char name[32];
    snprintf(name, sizeof(name), "hls_ctrl[%d]", hd->channel);
    prctl(PR_SET_NAME, name, 0, 0, 0);

    /* Nobody else knows this pair and nobody signals it: it is a sleep until
     * an absolute deadline on the monotonic clock, so time spent in the host's
     * callback counts towards the period. */
    pthread_condattr_t attr;
    pthread_mutex_t lock;
    pthread_cond_t cond;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_mutex_init(&lock, NULL);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);

    int32_t rate = 30;
    for (;;) {
        if (!hd->running.load())
            break;
        frame_info info;
        uint8_t *data = NULL;
        frame_queue_count count = {0, 0};
        /* Blocks while the queue is empty; a halt makes it fail, which is how
         * this thread ends at the end of an ordinary stream too. */
        if (frame_queue_get(&holder->frame_queue, &info, &data, &count) != 0) {
            HLS_LOG_ERROR("hls_ctrl_routine", "frame_queue_get(%d) failed!\n", hd->channel);
            break;
        }
        hd->frame_cb(hd->channel, &info, data);
        free(data);
        if ((info.type & HLS_FRAME_VIDEO_MASK) != HLS_FRAME_TYPE_VIDEO_KEY)
            continue; /* only video is paced */
        rate = hls_frame_rate_of(rate, &info);
        uint32_t period = hls_frame_period_ns(hls_effective_rate(rate, count.video_count));
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        struct timespec deadline = hls_next_tick(now, period);
        pthread_mutex_lock(&lock);
        pthread_cond_timedwait(&cond, &lock, &deadline);
        pthread_mutex_unlock(&lock);
    }
    pthread_cond_destroy(&cond);
    pthread_mutex_destroy(&lock);
    return NULL;
}

/* ---- playback loop ---- */

/* A playlist download's buffer, or null when the downloader kept none. The
 * byte count that libcurl reports must match what the buffer holds (as 64-bit
 * numbers, so -1 never matches); *bytes receives that count. */
static hls_buffer *hls_downloaded_buffer(m3u8_downloader *downloader, int64_t *bytes, int32_t *matches)
{
    *bytes = m3u8_downloader_get_download_bytes(downloader);
    hls_buffer *buffer = m3u8_downloader_get_buffer(downloader);
    *matches = buffer && *bytes == (int64_t)buffer->size;
    return buffer;
}

static const char *hls_text_or_placeholder(const char *text)
{
    return text ? text : "(null)";
}

int32_t parse_master_m3u8(http_demux *hd, hls_connect_param *req, int32_t *is_master)
{
    hls_demux *holder = (hls_demux *)hd->demux;
    if (!m3u8_downloader_prepare(holder->master_downloader, &hd->param))
        return HLS_STEP_RETRY;
    *req = hd->param;
    *is_master = 0;
    int64_t bytes;
    int32_t matches;
    hls_buffer *buffer = hls_downloaded_buffer(holder->master_downloader, &bytes, &matches);
    if (!buffer)
        return HLS_STEP_FINISH;
    if (!matches) {
        HLS_LOG_ERROR("parse_master_m3u8", "First m3u8 buffer size[%d] is not equal to download size[%lld]\n",
                      (int)buffer->size, (long long)bytes);
        return HLS_STEP_FINISH;
    }

    int32_t ret = m3u8_client_load_master_playlist(holder->m3u8_client, req->url, buffer, is_master);
    switch (ret) {
    case 0:
        break;
    case 1:
        /* The text shown is the last master playlist accepted, not the one
         * just refused; before any was accepted there is none. */
        HLS_LOG_ERROR("parse_master_m3u8", "First playlist: Incomplete M3U8 data[%s].\n",
                      hls_text_or_placeholder(m3u8_client_get_master_raw_data(holder->m3u8_client)));
        return HLS_STEP_FINISH;
    case 2:
        HLS_LOG_ERROR("parse_master_m3u8", "First playlist: Invalid M3U8 data. None UTF encoding\n");
        return HLS_STEP_FINISH;
    default:
        HLS_LOG_ERROR("parse_master_m3u8",
                      "Not expected return code. Please implement case branch for new return code\n");
        return HLS_STEP_FINISH;
    }
    if (!*is_master)
        return HLS_STEP_SEGMENTS; /* a media playlist: its segments are listed */

    char *uri = m3u8_client_get_second_playlist_by_bandwidth(holder->m3u8_client, req->low_bandwidth == 0 ? 1 : 0);
    if (!uri) {
        HLS_LOG_ERROR("parse_master_m3u8", "Not found second playlist uri by bandwidth\n");
        return HLS_STEP_FINISH;
    }
    if (!hls_variant_url(req->url, uri)) {
        /* Without a "/" there is nothing to join to: fetch the host's URL. */
        HLS_LOG_ERROR("parse_master_m3u8", "Not Found '/' from %s\n", req->url);
    }
    free(uri);
    return HLS_STEP_MEDIA;
}

int32_t parse_sub_m3u8(http_demux *hd, hls_connect_param *req)
{
    hls_demux *holder = (hls_demux *)hd->demux;
    if (!m3u8_downloader_prepare(holder->media_downloader, req))
        return HLS_STEP_RETRY;
    holder->media_param = *req;
    int64_t bytes;
    int32_t matches;
    hls_buffer *buffer = hls_downloaded_buffer(holder->media_downloader, &bytes, &matches);
    if (!buffer)
        return HLS_STEP_FINISH;
    if (!matches) {
        HLS_LOG_ERROR("parse_sub_m3u8", "Second m3u8 buffer size[%d] is not equal to download size[%lld]\n",
                      (int)buffer->size, (long long)bytes);
        return HLS_STEP_FINISH;
    }

    int32_t ret = m3u8_client_load_playlist(holder->m3u8_client, req->url, buffer);
    switch (ret) {
    case 0:
        /* From now on refreshes fetch this variant; the cap starts again from
         * its declared bandwidth at every load, changed text or not. */
        holder->media_url_known = 1;
        hls_set_cap_fn(holder->ts_downloader, m3u8_client_get_bandwidth_bps(holder->m3u8_client));
        return HLS_STEP_SEGMENTS;
    case 1:
        HLS_LOG_ERROR("parse_sub_m3u8", "Second playlist: Incomplete M3U8 data[%s].\n",
                      hls_text_or_placeholder(m3u8_client_get_raw_data(holder->m3u8_client)));
        return HLS_STEP_FINISH;
    case 2:
        HLS_LOG_ERROR("parse_sub_m3u8", "Second playlist: Invalid M3U8 data. None UTF encoding\n");
        return HLS_STEP_FINISH;
    default:
        HLS_LOG_ERROR("parse_sub_m3u8",
                      "Not expected return code. Please implement case branch for new return code\n");
        return HLS_STEP_FINISH;
    }
}

/* Holds the loop in 20 ms sleeps while the segment came early and 30 or more
 * video frames are queued; returns the clock reading it stopped at. */
static uint32_t hls_throttle(http_demux *hd, hls_demux *holder, uint32_t last_ms, uint32_t duration_ms,
                             uint32_t now_ms)
{
    for (;;) {
        frame_queue_count count = {0, 0};
        frame_queue_stat(&holder->frame_queue, &count);
        if (count.video_count <= 29)
            return now_ms;
        hal_usleep(20000);
        now_ms = hls_monotonic_ms_fn();
        if (!hd->running.load() || !hls_segment_is_early(last_ms, duration_ms, now_ms))
            return now_ms;
    }
}

/* Fetches pending segments one after another. Returns HLS_STEP_REFRESH when
 * the list runs out or a reload is due, HLS_STEP_FINISH on a disconnect. */
static int32_t hls_segment_loop(http_demux *hd, hls_connect_param *req, uint32_t *last_ms)
{
    hls_demux *holder = (hls_demux *)hd->demux;
    if (!hd->started) {
        hd->started = 1;
        hd->status_cb(hd->channel, HLS_STREAM_STARTED);
    }
    for (;;) {
        if (!hd->running.load())
            return HLS_STEP_FINISH;
        tsdata_fragment *fragment = m3u8_client_get_front_fragment(holder->m3u8_client);
        if (!fragment)
            return hd->running.load() ? HLS_STEP_REFRESH : HLS_STEP_FINISH;

        *req = hd->param;
        strncpy(req->url, fragment->uri, 511);
        req->url[511] = '\0';
        uint64_t duration_ns = fragment->duration;
        uint32_t duration_ms = (uint32_t)(duration_ns / 1000000u);

        if (!ts_downloader_prepare(holder->ts_downloader, req, duration_ms)) {
            /* Skipped: the mark, the cap and the reload check stay as they are. */
            m3u8_client_pop_front_fragment(holder->m3u8_client, fragment->sequence_no);
            tsdata_fragment_free(fragment);
            continue;
        }

        if (ts_downloader_get_bandwidth_bps(holder->ts_downloader) == 0) {
            uint64_t cap = hls_first_cap_bps(ts_downloader_get_download_bytes(holder->ts_downloader), duration_ns);
            if (cap)
                hls_set_cap_fn(holder->ts_downloader, cap);
        }

        uint32_t now_ms = hls_monotonic_ms_fn();
        if (hls_segment_is_late(*last_ms, duration_ms, now_ms)) {
            uint64_t cap = ts_downloader_get_bandwidth_bps(holder->ts_downloader);
            if (cap)
                hls_set_cap_fn(holder->ts_downloader, hls_late_cap_bps(cap));
        } else if (hd->running.load() && hls_segment_is_early(*last_ms, duration_ms, now_ms)) {
            now_ms = hls_throttle(hd, holder, *last_ms, duration_ms, now_ms);
        }
        *last_ms = now_ms;

        m3u8_client_pop_front_fragment(holder->m3u8_client, fragment->sequence_no);
        tsdata_fragment_free(fragment);

        if (m3u8_client_is_time_to_refresh_playlist(holder->m3u8_client))
            return hd->running.load() ? HLS_STEP_REFRESH : HLS_STEP_FINISH;
    }
}

/* 500 sleeps of 10 ms, so a disconnect is noticed within 10 ms. */
static int32_t hls_retry_wait(http_demux *hd)
{
    for (int i = 0; i < 500; i++) {
        if (!hd->running.load())
            return HLS_STEP_FINISH;
        hal_usleep(10000);
    }
    return hd->running.load() ? HLS_STEP_REFRESH : HLS_STEP_FINISH;
}

void download_data_by_hls(http_demux *hd)
{
    hls_demux *holder = (hls_demux *)hd->demux;
    if (!holder) {
        HLS_LOG_ERROR("download_data_by_hls", "hls_demux is NULL!\n");
        return;
    }
    pthread_t ctrl;
    if (pthread_create(&ctrl, NULL, hls_ctrl_routine, hd) != 0) {
        HLS_LOG_ERROR("download_data_by_hls", "pthread_create hls_ctrl_routine failed! \n");
        return;
    }

    hls_connect_param req = hd->param;
    int32_t is_master = 0;
    uint32_t last_ms = hls_monotonic_ms_fn();
    int32_t step = hd->running.load() ? HLS_STEP_REFRESH : HLS_STEP_FINISH;
    while (step != HLS_STEP_FINISH) {
        switch (step) {
        case HLS_STEP_REFRESH:
            if (holder->media_url_known) {
                req = holder->media_param;
                step = parse_sub_m3u8(hd, &req);
            } else {
                step = parse_master_m3u8(hd, &req, &is_master);
            }
            break;
        case HLS_STEP_MEDIA:
            step = parse_sub_m3u8(hd, &req);
            break;
        case HLS_STEP_SEGMENTS:
            step = hls_segment_loop(hd, &req, &last_ms);
            break;
        case HLS_STEP_RETRY:
            step = hls_retry_wait(hd);
            break;
        default:
            step = HLS_STEP_FINISH;
            break;
        }
    }

    ts_downloader_done(holder->ts_downloader);
    m3u8_downloader_done(holder->media_downloader);
    m3u8_downloader_done(holder->master_downloader);
    /* Halting drops what is queued and wakes the delivery thread if it waits
     * for a frame, so the join below cannot hang. */
    frame_queue_halt(&holder->frame_queue);
    pthread_join(ctrl, NULL);
    if (hd->started)
        hd->status_cb(hd->channel, HLS_STREAM_STOPPED);
}
