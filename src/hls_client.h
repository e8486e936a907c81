/* The channel table: one slot per channel, each null or the channel stream
 * record of an open channel, all under one process-wide lock. The table owns
 * the records. */
#ifndef HLS_CLIENT_H
#define HLS_CLIENT_H

#include <stdint.h>

#include "HLSClientLib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Creates the table of `count` slots; HLS_OK, or HLS_ERR_NO_MEMORY when it
 * cannot be allocated. */
int32_t hls_init_all_channel(int32_t count);
/* Closes every open channel (joining its thread) and releases the table;
 * HLS_OK. */
int32_t hls_uninit_all_channel(void);
/* Opens `channel`: HLS_OK, HLS_ERR_CHANNEL_BUSY when the slot is occupied,
 * HLS_ERR_NO_STREAM when the stream could not be created, HLS_ERR_BAD_ARGUMENT
 * without a table or slot. `ca_path` is the library's copy and may be null. */
int32_t hls_append_new_channel(int32_t channel, const hls_connect_param *param, const char *ca_path,
                               hls_frame_cb frame_cb, hls_status_cb status_cb);
/* Closes `channel` if it is open; HLS_OK. */
int32_t hls_remove_old_channel(int32_t channel);

#ifdef __cplusplus
}
#endif

#endif
