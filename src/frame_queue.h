/* Frame queue between an HLS channel's demultiplexer (producer, download
 * thread) and its delivery thread (consumer). The queue owns its nodes and
 * their data copies; its owner embeds the record. */
#ifndef FRAME_QUEUE_H
#define FRAME_QUEUE_H

#include <pthread.h>
#include <stdint.h>

#include "HLSClientLib.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct frame_queue_count {
    uint32_t video_count;
    uint32_t audio_count;
} frame_queue_count;

typedef struct frame_queue_node {
    struct frame_queue_node *next;
    frame_info info;
    uint8_t *data;
} frame_queue_node;

typedef struct frame_queue {
    frame_queue_node *head; /* oldest frame; singly linked, no tail pointer */
    int32_t actived;        /* 1 after init, 0 after halt: input refused, readers return */
    int32_t inited;         /* 1 once the lock and condition variable exist */
    uint32_t video_count;
    uint32_t audio_count;
    pthread_mutex_t lock;
    pthread_cond_t cond;
} frame_queue;

/* `length` of the layout that `type` selects (offset 16 video, 12 audio). */
uint32_t get_frame_length(const frame_info *info);
int32_t frame_queue_init(frame_queue *queue);
int32_t frame_queue_free(frame_queue *queue);
int32_t frame_queue_print(frame_queue *queue);
int32_t frame_queue_stat(frame_queue *queue, frame_queue_count *count);
int32_t frame_queue_halt(frame_queue *queue);
int32_t frame_queue_input(frame_queue *queue, const frame_info *info, const uint8_t *data);
/* Blocks while the queue is empty. The caller owns *data and frees it. */
int32_t frame_queue_get(frame_queue *queue, frame_info *info, uint8_t **data, frame_queue_count *count);

#ifdef __cplusplus
}
#endif

#endif
