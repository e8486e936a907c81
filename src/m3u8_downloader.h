/* Playlist downloader: one blocking transfer of a playlist into a reusable
 * buffer. A handle points at a one-field cell holding the record; the record
 * owns its easy handle and buffer and borrows the CA path. Also home of the
 * CA path check that the certificate rule of every HTTPS transfer relies on
 * (hls_transfer.h). */
#ifndef M3U8_DOWNLOADER_H
#define M3U8_DOWNLOADER_H

#include <stdint.h>

#include "HLSClientLib.h"
#include "hls_buffer.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct m3u8_downloader m3u8_downloader;

/* 1 when `path` is a directory (*is_dir = 1) or a regular file (*is_dir = 0),
 * following symbolic links; 0 otherwise, *is_dir untouched. */
int32_t check_ca_path_valid(const char *path, int32_t *is_dir);

m3u8_downloader *m3u8_downloader_new(const char *ca_path);
/* 1 when the transfer completed with final status 200; 0 on any failure. */
int32_t m3u8_downloader_prepare(m3u8_downloader *handle, const hls_connect_param *param);
/* Body bytes of the last transfer; -1 without an easy handle. */
int64_t m3u8_downloader_get_download_bytes(m3u8_downloader *handle);
/* The downloader's own buffer (not a copy); valid until the next prepare. */
hls_buffer *m3u8_downloader_get_buffer(m3u8_downloader *handle);
/* Releases the easy handle, keeps the buffer; 1, or 0 for a null handle. */
int32_t m3u8_downloader_done(m3u8_downloader *handle);
void m3u8_downloader_free(m3u8_downloader *handle);

#ifdef __cplusplus
}
#endif

#endif
