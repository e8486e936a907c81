/* Playlist downloader: one blocking transfer of a playlist into a reusable
 * buffer. A handle points at a one-field cell holding the record; the record
 * owns its easy handle and buffer and borrows the CA path. Also home of the
 * certificate rule that every HTTPS transfer of the library applies. */
#ifndef M3U8_DOWNLOADER_H
#define M3U8_DOWNLOADER_H

#include <curl/curl.h>
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

/* Applies the certificate rule to `curl` for a transfer of `url`: nothing for
 * a URL not starting "https"; otherwise the CA path as directory or file with
 * peer verification, or both verifications off when it is null or unusable.
 * Called after every other option of the transfer. */
void hls_https_apply(CURL *curl, const char *url, const char *ca_path);

/* CURLOPT_IPRESOLVE value for a channel's `ip_resolve`: 2 IPv6 only, 1 IPv4
 * only, anything else either family. */
long hls_ip_resolve_option(int32_t ip_resolve);

/* Runs the transfer prepared on `curl` and checks its final status: 1 when it
 * completed with status 200; otherwise writes the failure under the name of
 * the downloader `func` and returns 0 (the caller then drops the handle). */
int32_t hls_transfer_perform(CURL *curl, const char *url, const char *func);

/* Body bytes of the last transfer on `curl`; -1 without a handle or when
 * libcurl cannot tell. */
int64_t hls_transfer_bytes(CURL *curl);

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
