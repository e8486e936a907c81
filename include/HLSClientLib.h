/* Exported interface of libhlsclient: set-up, tear-down, channel connect and
 * disconnect, the connect parameters and the frame description the host's
 * demultiplexers produce and its frame callback receives. */
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
    int32_t timeout;         /* seconds, limit of each whole playlist download */
    int32_t ip_resolve;      /* 1: IPv4 only, 2: IPv6 only, else either */
} hls_connect_param;

#define HLS_FRAME_TYPE_VIDEO_KEY   0xf8010000u
#define HLS_FRAME_TYPE_VIDEO_OTHER 0xf9010000u
#define HLS_FRAME_VIDEO_MASK       0xfeffffffu

/* Five little-endian 32-bit words. A frame is video when (type & 0xfeffffff)
 * equals 0xf8010000; every other type is audio. The frame's bytes travel
 * beside the record, never inside it. */
typedef struct frame_info {
    uint32_t type;
    union {
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

#ifdef __cplusplus
static_assert(sizeof(frame_info) == 20, "frame_info is five 32-bit words");
#else
_Static_assert(sizeof(frame_info) == 20, "frame_info is five 32-bit words");
#endif

typedef int32_t (*hls_frame_cb)(int32_t channel, frame_info *info, uint8_t *data);
typedef void (*hls_status_cb)(int32_t channel, int32_t status);

/* Results of the calls below; the numbers are part of the contract. */
#define HLS_OK 0
#define HLS_ERR_HTTP_INIT (-1)        /* libcurl's global set-up failed */
#define HLS_ERR_BAD_ARGUMENT (-2)
#define HLS_ERR_NOT_INITIALISED (-3)
#define HLS_ERR_CHANNEL_BUSY (-5)     /* the channel is already connected */
#define HLS_ERR_NO_STREAM (-6)        /* the channel's stream could not be created */
#define HLS_ERR_NO_MEMORY (-15)

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
