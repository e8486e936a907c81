/* Steps of a channel's download thread: the probe that decides how a URL is
 * played and the direct MPEG-TS and FLV paths. They run only on the download
 * thread of their record; they are declared here for that thread and for the
 * tests that drive single steps. */
#ifndef HLS_DEMUX_STREAM_H
#define HLS_DEMUX_STREAM_H

#include <stddef.h>
#include <stdint.h>

#include "hls_demux.h"

extern "C" {

/* Thread entry; `arg` is the http_demux record. Returns null. */
void *download_routine(void *arg);

/* One probe attempt on record->param.url, sniffing into `probe` (whose bytes
 * are freed before returning). Returns the protocol found (HLS_PROTOCOL_*),
 * or -1 when no transfer handle could be created. */
int32_t get_url_actual_protocol(http_demux *record, probe_result *probe);
/* libcurl write callback of the probe; `probe` is a probe_result. Returns
 * size * nmemb to go on receiving, 0 once the bytes settle the protocol, after
 * giving up past 4096 bytes, or when the bytes cannot be kept. */
size_t protocol_writer(char *ptr, size_t size, size_t nmemb, void *probe);

/* Attach a direct-path holder with a new host demultiplexer to the record.
 * 0, or -1 (message written, nothing attached) when that fails. */
int32_t http_ts_demux_new(http_demux *record);
int32_t http_flv_demux_new(http_demux *record);

/* Stream record->param.url into the attached holder until the channel is
 * closed or the server ends the stream; broken transfers are retried after a
 * pause of 5 seconds. Report HLS_STREAM_STOPPED when a started stream ends. */
void download_data_by_ts(http_demux *record);
void download_data_by_flv(http_demux *record);

/* libcurl write callbacks of the direct paths; `record` is the http_demux.
 * Return size * nmemb, or 0 to stop the transfer once the channel is closed. */
size_t http_ts_write(char *ptr, size_t size, size_t nmemb, void *record);
size_t http_flv_write(char *ptr, size_t size, size_t nmemb, void *record);

/* Frame callback of both direct demultiplexers; `user` is the http_demux.
 * Returns the host frame callback's result unchanged. */
int32_t http_frame_forward(void *first, frame_info *info, uint8_t *data, void *user);

}

#endif
