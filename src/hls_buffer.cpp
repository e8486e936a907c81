#include "hls_buffer.h"

#include <stdlib.h>
#include <string.h>

hls_buffer *hls_buffer_new(uint32_t capacity)
{
    if (capacity == 0)
        return NULL;
    hls_buffer *buffer = (hls_buffer *)malloc(sizeof(*buffer));
    if (!buffer)
        return NULL;
    buffer->capacity = capacity;
    buffer->size = 0;
    buffer->data = (uint8_t *)malloc(capacity);
    if (!buffer->data) {
        free(buffer);
        return NULL;
    }
    return buffer;
}

uint32_t hls_buffer_append(hls_buffer *buffer, const void *bytes, uint32_t count)
{
    if (!buffer || !bytes || count == 0)
        return 0;
    /* Worked out in 64 bits so that a size near 4 GiB cannot wrap; a capacity
     * that 32 bits cannot hold counts as failed growth. */
    uint64_t need = (uint64_t)buffer->size + count;
    if (need > buffer->capacity) {
        uint64_t new_capacity = (need + HLS_BUFFER_STEP - 1) / HLS_BUFFER_STEP * HLS_BUFFER_STEP;
        uint8_t *grown = NULL;
        if (new_capacity <= UINT32_MAX)
            grown = (uint8_t *)realloc(buffer->data, (size_t)new_capacity);
        if (!grown) {
            uint32_t room = buffer->capacity - buffer->size;
            if (room > 0)
                memcpy(buffer->data + buffer->size, bytes, room);
            buffer->size = buffer->capacity;
            return room;
        }
        buffer->data = grown;
        buffer->capacity = (uint32_t)new_capacity;
    }
    memcpy(buffer->data + buffer->size, bytes, count);
    buffer->size += count;
    return count;
}

hls_buffer *hls_buffer_dup(const hls_buffer *buffer)
{
    if (!buffer)
        return NULL;
    hls_buffer *copy = hls_buffer_new(buffer->capacity);
    if (!copy)
        return NULL;
    if (buffer->size > 0)
        hls_buffer_append(copy, buffer->data, buffer->size);
    return copy;
}

void hls_buffer_clear(hls_buffer *buffer)
{
    if (buffer)
        buffer->size = 0;
}

void hls_buffer_free(hls_buffer *buffer)
{
    if (!buffer)
        return;
    free(buffer->data);
    buffer->data = NULL;
    free(buffer);
}
