/* Demultiplexer functions that the process loading libhlsclient provides.
 * The library declares them here and never defines them: they are resolved
 * from the host at load time.
 *
 * Contract: bytes arrive through *_put_data in pieces of any size, cut
 * anywhere. For every complete frame the demultiplexer calls its callback
 * synchronously, on the pushing thread, before *_put_data returns, with its
 * own handle as first argument, the frame description, the frame bytes and
 * the user pointer given at creation. The callback's result is the host's
 * business. */
#ifndef HLS_HOST_DEMUX_H
#define HLS_HOST_DEMUX_H

#include <stdint.h>

#include "HLSClientLib.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Frame types of the reference demultiplexers. Video frames use the two
 * video types of HLSClientLib.h: HLS_FRAME_TYPE_VIDEO_KEY for H.264 IDR and
 * H.265 IRAP access units, carrying the frame rate, and
 * HLS_FRAME_TYPE_VIDEO_OTHER for the rest; the bytes are the access unit in
 * Annex B form. Audio frames use the types below, one frame per audio frame.
 * pts is in 90 kHz units, the low 32 bits: a TS stream's own time stamps, an
 * FLV stream's millisecond time stamps times 90. */
#define HLS_FRAME_TYPE_AUDIO_AAC   0xfa010000u /* one ADTS frame, header included */
#define HLS_FRAME_TYPE_AUDIO_MPEG  0xfa020000u /* one MPEG audio (layer I, II, III) frame */

typedef int32_t (*demux_frame_cb)(void *first, frame_info *info, uint8_t *data, void *user);

void *ts_demux_new(demux_frame_cb cb, void *user);
int32_t ts_demux_put_data(void *handle, const uint8_t *data, uint32_t size);
void ts_demux_free(void *handle);

void *flv_demux_new(demux_frame_cb cb, void *user);
int32_t flv_demux_put_data(void *handle, const uint8_t *data, uint32_t size);
void flv_demux_free(void *handle);

#ifdef __cplusplus
}
#endif

#endif
