#include "hls_demux.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "hls_host_demux.h"
#include "hls_log.h"

/* ======================================================================
 * Channel stream record, download thread, probe and direct TS/FLV paths.
 * ====================================================================== */

/* (channel stream section) */

/* ======================================================================
 * HLS path: holder, frame delivery thread and playback loop.
 *
 * Everything below this banner belongs to the HLS path; the download thread
 * enters it through hls_demux_new once the probe has found a playlist.
 * ====================================================================== */


#include <pthread.h>
#include <sys/prctl.h>

/* ---- clock and pacing decisions ---- */

uint32_t hls_monotonic_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint32_t)((uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u);
}

uint32_t (*hls_monotonic_ms_fn)(void) = hls_monotonic_ms;

/* Both comparisons are written on purpose in wrapping 32-bit arithmetic, the
 * way the loop has always compared them; near the wrap of the clock they can
 * misjudge a segment for one step, which the next segment corrects. */
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
        ts_downloader_set_bandwidth_bps(holder->ts_downloader, m3u8_client_get_bandwidth_bps(holder->m3u8_client));
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
                ts_downloader_set_bandwidth_bps(holder->ts_downloader, cap);
        }

        uint32_t now_ms = hls_monotonic_ms_fn();
        if (hls_segment_is_late(*last_ms, duration_ms, now_ms)) {
            uint64_t cap = ts_downloader_get_bandwidth_bps(holder->ts_downloader);
            if (cap)
                ts_downloader_set_bandwidth_bps(holder->ts_downloader, hls_late_cap_bps(cap));
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
