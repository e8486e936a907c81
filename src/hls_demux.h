/* Channel streams: the per-channel record and its download thread (probe,
 * direct TS and FLV paths), and the HLS path (holder, playback loop, frame
 * delivery thread). */
#ifndef HLS_DEMUX_H
#define HLS_DEMUX_H

#include <pthread.h>
#include <stdint.h>

#include <atomic>

#include "HLSClientLib.h"
#include "frame_queue.h"
#include "hls_m3u8.h"
#include "m3u8_downloader.h"
#include "ts_downloader.h"

/* Probe results. */
enum {
    HLS_PROTOCOL_UNKNOWN = 0,
    HLS_PROTOCOL_TS = 1,
    HLS_PROTOCOL_FLV = 2,
    HLS_PROTOCOL_M3U8 = 3,
    HLS_PROTOCOL_UNSUPPORTED = 4,
};

/* One open channel. Owned by the channel table; owns its protocol holder
 * (`demux`, released by `demux_free`) and its download thread. */
typedef struct http_demux {
    int32_t channel;
    hls_connect_param param;        /* the library's own copy */
    const char *ca_path;            /* borrowed library-wide copy, may be null */
    hls_frame_cb frame_cb;
    hls_status_cb status_cb;
    std::atomic<int32_t> running;   /* 1 until the client interface clears it */
    int32_t started;                /* written by the download thread only */
    pthread_t thread;
    void *demux;
    void (*demux_free)(void *);
} http_demux;

/* Direct MPEG-TS holder; owns the host demultiplexer handle. */
typedef struct http_ts_demux {
    void *ts_demux;
} http_ts_demux;

/* Direct FLV holder; owns the host demultiplexer handle. */
typedef struct http_flv_demux {
    void *flv_demux;
} http_flv_demux;

/* One probe attempt's state; owns `data`. */
typedef struct probe_result {
    int32_t protocol;
    uint8_t *data;
    uint32_t size;
} probe_result;

/* HLS holder; owns its downloaders, playlist client, demultiplexer and queue. */
typedef struct hls_demux {
    struct ts_downloader *ts_downloader;
    struct m3u8_downloader *master_downloader;
    struct m3u8_downloader *media_downloader;
    struct m3u8_client *m3u8_client;
    int32_t media_url_known;
    void *ts_demux;
    hls_connect_param media_param;
    struct frame_queue frame_queue;
} hls_demux;

extern "C" {

/* A new record with its download thread running, or null. */
http_demux *http_demux_new(int32_t channel, const hls_connect_param *param, const char *ca_path,
                           hls_frame_cb frame_cb, hls_status_cb status_cb);
/* Releases the holder and the record; null is accepted. Call after the join. */
void http_demux_free(http_demux *record);
/* Sleeps `usec` microseconds (below one second), resuming after signals.
 * 0, or -1 on a failure other than an interruption. */
int32_t hal_usleep(uint32_t usec);

void http_ts_demux_free(void *holder);
void http_flv_demux_free(void *holder);

/* HLS path. */
void hls_demux_new(http_demux *record);
void hls_demux_free(void *holder);
int32_t hls_frame_input(void *first, frame_info *info, uint8_t *data, void *user);
void *hls_ctrl_routine(void *arg);
void download_data_by_hls(http_demux *record);

}

/* ---- HLS path: steps of the playback loop ---- */

/* Where the playback loop goes next; the playlist steps return one of these. */
enum {
    HLS_STEP_REFRESH = 0,  /* reload the playlist (first or media, by media_url_known) */
    HLS_STEP_MEDIA = 1,    /* fetch and load the media playlist named by the request */
    HLS_STEP_SEGMENTS = 2, /* fetch pending segments */
    HLS_STEP_RETRY = 3,    /* wait 5 s (ended early by a disconnect), then refresh */
    HLS_STEP_FINISH = 4,   /* stop transfers, halt the queue, join, report */
};

extern "C" {

/* First playlist at the host's URL, and the variant choice when it is a master
 * playlist: leaves the media playlist's URL in *req. Returns an HLS_STEP_*. */
int32_t parse_master_m3u8(http_demux *record, hls_connect_param *req, int32_t *is_master);
/* Media playlist named by *req. Returns an HLS_STEP_*. */
int32_t parse_sub_m3u8(http_demux *record, hls_connect_param *req);

/* ---- HLS path: clock and pacing decisions ----
 * The playback loop and the delivery thread take every timing decision
 * through these functions, so the decisions can be checked at their edges
 * (the wrap of the 32-bit millisecond clock, the rate limits) without
 * running threads. */

/* CLOCK_MONOTONIC in milliseconds, truncated to 32 bits (wraps). */
uint32_t hls_monotonic_ms(void);
/* The millisecond clock the playback loop reads: hls_monotonic_ms unless
 * replaced. Replace it only while no HLS channel is open. */
extern uint32_t (*hls_monotonic_ms_fn)(void);
/* The receive-cap setter the playback loop calls on its segment downloader:
 * ts_downloader_set_bandwidth_bps unless replaced (to watch the caps it
 * sets). Replace it only while no HLS channel is open. */
extern void (*hls_set_cap_fn)(ts_downloader *handle, uint64_t bps);

/* 1 when a segment finished more than its duration after the last mark:
 * last_ms + duration_ms < now_ms in wrapping 32-bit arithmetic. */
int32_t hls_segment_is_late(uint32_t last_ms, uint32_t duration_ms, uint32_t now_ms);
/* 1 while the loop is more than 20 ms ahead of the segment's slot:
 * now_ms + 20 - last_ms < duration_ms in wrapping 32-bit arithmetic. */
int32_t hls_segment_is_early(uint32_t last_ms, uint32_t duration_ms, uint32_t now_ms);
/* Receive cap from the first measured segment: bytes x 12e9 / duration_ns
 * (1.5 x its bit rate); 0 when there is nothing to measure. */
uint64_t hls_first_cap_bps(int64_t bytes, uint64_t duration_ns);
/* A late segment raises the cap by a quarter: 5 x cap / 4. */
uint64_t hls_late_cap_bps(uint64_t cap);
/* Joins a variant URI to the request URL in place (url holds 512 characters).
 * An URI starting "http" replaces the URL; any other is put after the URL's
 * last "/". The result is cut to 511 characters. Returns 0, URL unchanged,
 * when a join is needed and the URL has no "/". */
int32_t hls_variant_url(char *url, const char *uri);

/* Frame rate the delivery thread paces at after `info`, given the current one. */
int32_t hls_frame_rate_of(int32_t rate, const frame_info *info);
/* Rate nudged by the number of video frames still queued; always >= 1. */
int32_t hls_effective_rate(int32_t rate, uint32_t video_count);
/* Nanoseconds between ticks at `r` frames per second (r >= 1). */
uint32_t hls_frame_period_ns(int32_t r);
/* First multiple of period_ns, counted from the start of now's second, that
 * lies strictly after now. */
struct timespec hls_next_tick(struct timespec now, uint32_t period_ns);

}

#endif
