/* Segment downloader: one blocking transfer of a media segment streamed, as it
 * arrives, into the channel's TS demultiplexer, with a time limit from the
 * segment's duration and an optional receive-speed cap. A handle points at a
 * one-field cell holding the record; the record owns its easy handle and
 * borrows the demultiplexer and the CA path. */
#ifndef TS_DOWNLOADER_H
#define TS_DOWNLOADER_H

#include <stdint.h>

#include "HLSClientLib.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ts_downloader ts_downloader;

ts_downloader *ts_downloader_new(void *ts_demux, const char *ca_path);
/* 1 when the transfer completed with final status 200; 0 otherwise. */
int32_t ts_downloader_prepare(ts_downloader *handle, const hls_connect_param *param, uint32_t duration_ms);
int64_t ts_downloader_get_download_bytes(ts_downloader *handle);
int32_t ts_downloader_done(ts_downloader *handle);
void ts_downloader_free(ts_downloader *handle);
uint64_t ts_downloader_get_bandwidth_bps(ts_downloader *handle);
void ts_downloader_set_bandwidth_bps(ts_downloader *handle, uint64_t bps);

#ifdef __cplusplus
}
#endif

#endif
