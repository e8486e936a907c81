/* Exported interface of libhlsclient: set-up, tear-down, channel connect and
 * disconnect, the connect parameters and the frame description the host's
 * demultiplexers produce and its frame callback receives.
 *
 * What the process must provide. The library is linked against neither
 * libcurl nor the demultiplexers: it calls libcurl and the six functions of
 * hls_host_demux.h, and the dynamic linker finds them in the process's global
 * scope. Link the host with -lcurl (with -Wl,--no-as-needed in front of it
 * where the toolchain drops libraries the host itself never calls) and export
 * the demultiplexer functions, either from the executable (-rdynamic, or
 * CMake's ENABLE_EXPORTS) or from a shared library the executable links, such
 * as the reference libhostdemux. A host that loads the library with dlopen
 * must have libcurl and the demultiplexers in the global scope first: linked
 * into the executable, or loaded with RTLD_GLOBAL. The library binds these
 * functions lazily: with RTLD_LAZY, dlopen succeeds even when one is missing
 * and the process is ended ("symbol lookup error") the first time the library
 * calls it; with RTLD_NOW (or LD_BIND_NOW set) dlopen fails instead and
 * dlerror names the missing function.
 *
 * Threads. Each open channel has a download thread of its own, and an HLS
 * channel a delivery thread besides. The status callback always runs on the
 * channel's download thread. The frame callback runs on the download thread
 * for MPEG-TS and FLV streams and on the delivery thread for HLS, so for an
 * HLS channel both callbacks can run at the same time; callbacks of different
 * channels always can. A channel's frames arrive between its
 * HLS_STREAM_STARTED and HLS_STREAM_STOPPED reports; no callback of a channel
 * runs once hls_client_disconnect for it (or hls_client_destroy) returns.
 *
 * No client call from inside a callback. A callback must not call any
 * hls_client_* function. A disconnect or destroy from inside a callback waits
 * for the thread that is running that callback: from a frame callback of an
 * HLS channel it never returns (deadlock); from the download thread, the
 * channel is freed under the thread still using it. A connect from inside a
 * callback deadlocks as soon as another thread disconnects at the same moment:
 * the disconnect holds the table lock while it waits for the callback's
 * thread, and that thread waits for the same lock. A host that wants to react
 * to a report hands it to a thread of its own.
 *
 * Frame bytes. The frame_info record and the bytes passed to the frame
 * callback belong to the library; they are valid only until the callback
 * returns, after which they are freed or reused. Copy what you keep. The
 * callback's result is not looked at by the library.
 *
 * Blocking. hls_client_init and hls_client_destroy must not run at the same
 * time as any other client call. hls_client_connect and hls_client_disconnect
 * may be called from any of the host's threads; they share one lock over the
 * whole channel table. hls_client_disconnect stops the channel and waits for
 * its threads to end, holding that lock meanwhile, so every other connect and
 * disconnect waits too. The wait lasts until the channel's current network
 * transfer ends: an MPEG-TS or FLV stream stops at its next bytes, or after
 * about 5 s without any; finding out the stream type takes at most
 * connect_timeout + 5 s; setting up a stream's connection at most
 * connect_timeout s; an HLS playlist download at most `timeout` s (no limit
 * when `timeout` is 0 or below); an HLS segment download at most twice the
 * segment's duration, and at least 1 s. Add up to one second of the delivery
 * thread's pacing and whatever the host's own callbacks take.
 * hls_client_destroy disconnects every channel in turn. A host that must not
 * block (a user-interface or event-loop thread) disconnects from a thread of
 * its own.
 *
 * Certificates. For https the library verifies the server's certificate
 * against ca_path, a directory of hashed CA certificates or a single file of
 * them. A null ca_path, or one that names neither an existing directory nor
 * an existing regular file, switches certificate verification off for every
 * https transfer: the peer and its host name are then not checked. */
#ifndef HLS_CLIENT_LIB_H
#define HLS_CLIENT_LIB_H

#include <stdint.h>

/* Version of this header and of the library built from it. A host built
 * against major version N runs with any library of major version N whose
 * minor version is at least the one it was built with. */
#define HLSCLIENT_VERSION_MAJOR 1
#define HLSCLIENT_VERSION_MINOR 0
#define HLSCLIENT_VERSION_PATCH 0
#define HLSCLIENT_VERSION_STRING "1.0.0"

#ifdef __cplusplus
extern "C" {
#endif

#define HLS_STREAM_STARTED 0
#define HLS_STREAM_STOPPED 1

/* Connect parameters; the library copies the whole record at connect time. */
typedef struct hls_connect_param {
    char url[512];           /* NUL-terminated, 1 to 511 characters */
    int32_t low_bandwidth;   /* 0: highest-bandwidth variant, else the lowest */
    int32_t connect_timeout; /* seconds, 1 to 30 */
    int32_t timeout;         /* seconds, limit of each whole playlist download;
                                0 or below: no limit */
    int32_t ip_resolve;      /* 1: IPv4 only, 2: IPv6 only, else either */
} hls_connect_param;

/* Anonymous unions are standard in C11 and C++; C99 has them only as a GNU
 * extension, which __extension__ admits without a -pedantic warning. */
#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L) || !defined(__GNUC__)
#define HLS_ANONYMOUS_UNION union
#else
#define HLS_ANONYMOUS_UNION __extension__ union
#endif

#define HLS_FRAME_TYPE_VIDEO_KEY   0xf8010000u
#define HLS_FRAME_TYPE_VIDEO_OTHER 0xf9010000u
#define HLS_FRAME_VIDEO_MASK       0xfeffffffu

/* Five little-endian 32-bit words. A frame is video when (type & 0xfeffffff)
 * equals 0xf8010000; every other type is audio. The frame's bytes travel
 * beside the record, never inside it. */
typedef struct frame_info {
    uint32_t type;
    HLS_ANONYMOUS_UNION {
        struct {
            uint8_t reserved0;
            uint8_t frame_rate;        /* whole frames per second (key frames) */
            uint16_t frame_rate_frac;  /* fraction; 500 or more rounds up */
            uint32_t reserved1;
            uint32_t pts;
            uint32_t length;           /* bytes of frame data */
        } video;
        struct {
            uint32_t reserved0;
            uint32_t pts;
            uint32_t length;           /* bytes of frame data */
            uint32_t reserved1;
        } audio;
    };
} frame_info;

#if defined(__cplusplus)
static_assert(sizeof(frame_info) == 20, "frame_info is five 32-bit words");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(frame_info) == 20, "frame_info is five 32-bit words");
#else
typedef char hls_frame_info_is_five_words[sizeof(frame_info) == 20 ? 1 : -1];
#endif

typedef int32_t (*hls_frame_cb)(int32_t channel, frame_info *info, uint8_t *data);
typedef void (*hls_status_cb)(int32_t channel, int32_t status);

/* 0; -2 bad argument; -1 libcurl's global set-up failed; -15 no memory. */
int32_t hls_client_init(int32_t max_channels, hls_frame_cb frame_cb, hls_status_cb status_cb,
                        const char *ca_path);
/* Closes every channel, forgets the callbacks; always 0. */
int32_t hls_client_destroy(void);
/* 0; -3 not initialised; -2 bad argument; -5 channel in use; -6 no stream. */
int32_t hls_client_connect(int32_t channel, const hls_connect_param *param);
/* 0 (also for a closed channel); -3 not initialised; -2 out of range. */
int32_t hls_client_disconnect(int32_t channel);

#ifdef __cplusplus
}
#endif

#endif
