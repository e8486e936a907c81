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

#endif
