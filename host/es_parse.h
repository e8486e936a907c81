/* Elementary-stream helpers shared by the reference demultiplexers: video
 * parameter-set parsing for the frame rate, access-unit scanning for key
 * frames, audio frame headers, the frame-rate choice and frame_info filling.
 * Every parser reads only the bytes it is given and treats them as hostile. */
#ifndef HLS_HOST_ES_PARSE_H
#define HLS_HOST_ES_PARSE_H

#include <stddef.h>
#include <stdint.h>

#include "hls_host_demux.h"

/* Largest frame (video access unit, FLV tag, PES packet) a demultiplexer
 * assembles; anything bigger is dropped. */
#define ES_MAX_FRAME (8u * 1024u * 1024u)

/* Frame rate in thousandths of a frame per second from the timing
 * information of an H.264 / H.265 sequence parameter set (NAL unit with its
 * header, emulation prevention bytes still in); 0 when absent or malformed. */
uint32_t es_h264_sps_rate(const uint8_t *nal, size_t size);
uint32_t es_h265_sps_rate(const uint8_t *nal, size_t size);

/* What es_scan_annexb learns from the NAL units of one access unit that
 * come before its first slice. */
typedef struct es_au_info {
    int key;           /* H.264 IDR slice, or H.265 IRAP picture */
    int has_ps;        /* carries its own SPS and PPS */
    uint32_t sps_rate; /* rate from an in-band SPS, 0 if none or no timing */
} es_au_info;

/* Scans an Annex B access unit up to and including its first slice. */
void es_scan_annexb(const uint8_t *au, size_t size, int hevc, es_au_info *out);

/* Audio frame header at p (size bytes readable). Returns the frame length
 * in bytes and sets the frame's sample count and sample rate, or returns 0
 * when p does not hold a plausible header or too few bytes to tell. */
size_t es_adts_header(const uint8_t *p, size_t size, uint32_t *samples, uint32_t *rate);
size_t es_mpa_header(const uint8_t *p, size_t size, uint32_t *samples, uint32_t *rate);

/* Index of an AAC sampling frequency in the ADTS table, or -1. */
int es_aac_rate_index(uint32_t rate);

/* The parts of an AAC AudioSpecificConfig that an ADTS header repeats. */
typedef struct es_aac_config {
    uint8_t profile;    /* audio object type - 1 (0 Main, 1 LC, 2 SSR, 3 LTP) */
    uint8_t rate_index; /* of the core coder, for HE-AAC the lower rate */
    uint8_t channels;   /* channel configuration */
} es_aac_config;

/* Parses an AudioSpecificConfig; returns 0 when it cannot be expressed in
 * ADTS (object type beyond LTP, unlisted sampling rate) or is malformed. */
int es_aac_parse_config(const uint8_t *p, size_t size, es_aac_config *out);
/* Writes the 7-byte ADTS header (no CRC) of a frame of `frame_len` bytes,
 * header included; frame_len must be 7 to 8191. */
void es_adts_write(uint8_t *header, const es_aac_config *config, size_t frame_len);

/* Where a video stream's frame rate comes from, best first: the SPS timing
 * information, container metadata, then the spacing of recent time stamps. */
typedef struct es_rate {
    uint32_t sps_milli;
    uint32_t meta_milli;
    uint64_t last_stamp; /* 90 kHz */
    int have_stamp;
    uint32_t deltas[16];
    uint32_t delta_count;
    uint32_t delta_pos;
    uint64_t delta_sum;
} es_rate;

void es_rate_reset_spacing(es_rate *r);
/* Records the decode time stamp (90 kHz) of the next video frame; `wrap`
 * masks differences to the time stamp's width (2^33-1 for TS). */
void es_rate_add_stamp(es_rate *r, uint64_t stamp, uint64_t wrap);
/* Best current estimate in thousandths of a frame per second, or 0. */
uint32_t es_rate_milli(const es_rate *r);

/* Fills a video frame_info: key frames carry the rate, other frames carry 0. */
void es_video_info(frame_info *info, int key, uint32_t milli, uint32_t pts, uint32_t length);
void es_audio_info(frame_info *info, uint32_t type, uint32_t pts, uint32_t length);

/* Start of the next Annex B start code (00 00 01) at or after `from`, or
 * `size` when there is none. */
size_t es_next_start_code(const uint8_t *p, size_t from, size_t size);

#endif
