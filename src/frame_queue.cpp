#include "frame_queue.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "hls_log.h"

static int is_video_type(uint32_t type)
{
    return (type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY;
}

uint32_t get_frame_length(const frame_info *info)
{
    return is_video_type(info->type) ? info->video.length : info->audio.length;
}

/* Releases every queued node, each node's data first. Caller holds the lock. */
static void release_nodes(frame_queue *queue)
{
    frame_queue_node *node = queue->head;
    while (node) {
        frame_queue_node *next = node->next;
        free(node->data);
        free(node);
        node = next;
    }
    queue->head = NULL;
}

int32_t frame_queue_init(frame_queue *queue)
{
    if (!queue)
        return -2;
    if (queue->inited) {
        /* Re-activation after a halt; the lock and condition variable exist. */
        pthread_mutex_lock(&queue->lock);
        release_nodes(queue);
        queue->actived = 1;
        queue->video_count = 0;
        queue->audio_count = 0;
        pthread_mutex_unlock(&queue->lock);
        return 0;
    }
    queue->head = NULL;
    queue->actived = 1;
    queue->video_count = 0;
    queue->audio_count = 0;
    int err = pthread_mutex_init(&queue->lock, NULL);
    if (err != 0) {
        /* pthread reports through its result; errno carries it for the message. */
        errno = err;
        HLS_LOG_ERROR("frame_queue_init", "pthread_mutex_init failed! errno:%d\n", errno);
        return -1;
    }
    err = pthread_cond_init(&queue->cond, NULL);
    if (err != 0) {
        errno = err;
        HLS_LOG_ERROR("frame_queue_init", "pthread_cond_init failed! errno:%d\n", errno);
        pthread_mutex_destroy(&queue->lock);
        return -1;
    }
    queue->inited = 1;
    return 0;
}

int32_t frame_queue_free(frame_queue *queue)
{
    if (!queue)
        return -2;
    if (!queue->inited)
        return -3;
    /* The owner halts the queue before freeing it, so the list is empty. */
    pthread_cond_destroy(&queue->cond);
    pthread_mutex_destroy(&queue->lock);
    queue->inited = 0;
    return 0;
}

int32_t frame_queue_print(frame_queue *queue)
{
    if (!queue)
        return -2;
    if (!queue->inited)
        return -3;
    pthread_mutex_lock(&queue->lock);
    printf("--------------------frame queue count[%d] ----------------------------\n",
           (int)(queue->video_count + queue->audio_count));
    for (frame_queue_node *node = queue->head; node; node = node->next) {
        /* Only the two exact video types carry their pts at offset 12. */
        uint32_t type = node->info.type;
        uint32_t pts = (type == HLS_FRAME_TYPE_VIDEO_KEY || type == HLS_FRAME_TYPE_VIDEO_OTHER)
                           ? node->info.video.pts
                           : node->info.audio.pts;
        printf("--------------------frame[%p] type[%#x] pts[%u] next[%p]--------------------\n", (void *)node,
               type, pts, (void *)node->next);
    }
    pthread_mutex_unlock(&queue->lock);
    return 0;
}

int32_t frame_queue_stat(frame_queue *queue, frame_queue_count *count)
{
    if (!queue || !count)
        return -2;
    if (!queue->inited)
        return -3;
    pthread_mutex_lock(&queue->lock);
    count->video_count = queue->video_count;
    count->audio_count = queue->audio_count;
    pthread_mutex_unlock(&queue->lock);
    return 0;
}

int32_t frame_queue_halt(frame_queue *queue)
{
    if (!queue)
        return -2;
    if (!queue->inited)
        return -3;
    pthread_mutex_lock(&queue->lock);
    release_nodes(queue);
    queue->actived = 0;
    queue->video_count = 0;
    queue->audio_count = 0;
    /* One consumer per queue, so one signal wakes every possible waiter. */
    pthread_cond_signal(&queue->cond);
    pthread_mutex_unlock(&queue->lock);
    return 0;
}

int32_t frame_queue_input(frame_queue *queue, const frame_info *info, const uint8_t *data)
{
    if (!queue || !info || !data)
        return -2;
    if (!queue->inited)
        return -3;
    uint32_t length = get_frame_length(info);

    pthread_mutex_lock(&queue->lock);
    if (!queue->actived) {
        HLS_LOG_ERROR("frame_queue_input", "frame_queue is not actived!\n");
        pthread_mutex_unlock(&queue->lock);
        return -1;
    }
    frame_queue_node *node = (frame_queue_node *)malloc(sizeof(*node));
    if (!node) {
        HLS_LOG_ERROR("frame_queue_input", "malloc frame_info failed!\n");
        pthread_mutex_unlock(&queue->lock);
        return -6;
    }
    node->next = NULL;
    node->info = *info;
    /* malloc(0) may legitimately return null; a zero-length frame still
     * needs a pointer the consumer can free, so ask for at least one byte. */
    node->data = (uint8_t *)malloc(length ? length : 1);
    if (!node->data) {
        HLS_LOG_ERROR("frame_queue_input", "malloc frame_data failed!\n");
        pthread_mutex_unlock(&queue->lock);
        free(node);
        return -6;
    }
    memcpy(node->data, data, length);

    if (!queue->head) {
        queue->head = node;
        /* A reader only ever waits on an empty queue. */
        pthread_cond_signal(&queue->cond);
    } else {
        /* Queues stay short (the loop holds back downloads), so a walk to the
         * tail is cheaper than keeping a tail pointer consistent. */
        frame_queue_node *last = queue->head;
        while (last->next)
            last = last->next;
        last->next = node;
    }
    if (is_video_type(info->type))
        queue->video_count++;
    else
        queue->audio_count++;
    pthread_mutex_unlock(&queue->lock);
    return 0;
}

int32_t frame_queue_get(frame_queue *queue, frame_info *info, uint8_t **data, frame_queue_count *count)
{
    if (!queue || !info || !data)
        return -2;
    if (!queue->inited)
        return -3;
    pthread_mutex_lock(&queue->lock);
    if (!queue->actived) {
        pthread_mutex_unlock(&queue->lock);
        return -1;
    }
    while (!queue->head) {
        pthread_cond_wait(&queue->cond, &queue->lock);
        if (!queue->actived) {
            pthread_mutex_unlock(&queue->lock);
            return -1;
        }
    }
    frame_queue_node *node = queue->head;
    queue->head = node->next;
    *info = node->info;
    *data = node->data;
    if (is_video_type(node->info.type))
        queue->video_count--;
    else
        queue->audio_count--;
    free(node);
    if (count) {
        count->video_count = queue->video_count;
        count->audio_count = queue->audio_count;
    }
    pthread_mutex_unlock(&queue->lock);
    return 0;
}
