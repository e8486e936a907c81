/* Growable byte buffer that collects a playlist download. The record owns its
 * block; bytes are not NUL-terminated, readers use `size`. */
#ifndef HLS_BUFFER_H
#define HLS_BUFFER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HLS_BUFFER_STEP 65536

typedef struct hls_buffer {
    uint8_t *data;
    uint32_t size;
    uint32_t capacity;
} hls_buffer;

/* A new empty buffer with exactly `capacity` bytes allocated; null for 0 or
 * when memory runs out. */
hls_buffer *hls_buffer_new(uint32_t capacity);
/* Appends `count` bytes, growing in HLS_BUFFER_STEP steps. Returns the number
 * appended: `count`, or the free room when growth failed (the buffer is then
 * exactly full). Null arguments or a zero count append nothing. */
uint32_t hls_buffer_append(hls_buffer *buffer, const void *bytes, uint32_t count);
/* A new buffer of the same capacity holding a copy of the bytes in use. */
hls_buffer *hls_buffer_dup(const hls_buffer *buffer);
/* Empties the buffer and keeps its block for the next download. */
void hls_buffer_clear(hls_buffer *buffer);
void hls_buffer_free(hls_buffer *buffer);

#ifdef __cplusplus
}
#endif

#endif
