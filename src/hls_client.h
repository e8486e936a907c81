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

/* Creates the table of `count` slots; 0, or -15 when it cannot be allocated. */
int32_t hls_init_all_channel(int32_t count);
/* Closes every open channel (joining its thread) and releases the table; 0. */
int32_t hls_uninit_all_channel(void);
/* Opens `channel`: 0, -5 when the slot is occupied, -6 when the stream could
 * not be created. `ca_path` is the library's copy and may be null. */
int32_t hls_append_new_channel(int32_t channel, const hls_connect_param *param, const char *ca_path,
                               hls_frame_cb frame_cb, hls_status_cb status_cb);
/* Closes `channel` if it is open; 0. */
int32_t hls_remove_old_channel(int32_t channel);

#ifdef __cplusplus
}
#endif

#endif
