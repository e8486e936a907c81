#include "hls_client.h"

#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>

#include "hls_demux.h"
#include "hls_log.h"

/* Statically initialised so that it exists before the library is set up and
 * survives every tear-down; it is never destroyed. Only the client calls take
 * it, never a library thread, so holding it across a join cannot deadlock
 * unless the host disconnects from inside one of its own callbacks. */
static pthread_mutex_t channel_lock = PTHREAD_MUTEX_INITIALIZER;

/* The table owns every record it points at. Both fields change only under
 * channel_lock. The count is set before the slots are allocated, so a failed
 * allocation leaves a count without slots: every access tests `channels`. */
static http_demux **channels;
static int32_t channel_count;

/* Caller holds channel_lock and has checked the slot. The join waits until the
 * download thread has seen `running` cleared and reported its own end. */
static void close_slot(int32_t channel)
{
    http_demux *record = channels[channel];
    record->running = 0;
    pthread_join(record->thread, NULL);
    http_demux_free(record);
    channels[channel] = NULL;
}

static int slot_valid(int32_t channel)
{
    return channels != NULL && channel >= 0 && channel < channel_count;
}

int32_t hls_init_all_channel(int32_t count)
{
    pthread_mutex_lock(&channel_lock);
    channel_count = count;
    /* A count below one or a byte size that does not fit size_t cannot be
     * allocated; it is treated exactly like a failed allocation. calloc also
     * checks the multiplication and leaves every slot null. */
    http_demux **slots = NULL;
    if (count >= 1 && (uint64_t)count <= SIZE_MAX / sizeof(http_demux *))
        slots = (http_demux **)calloc((size_t)count, sizeof(http_demux *));
    if (slots == NULL) {
        HLS_LOG_ERROR("hls_init_all_channel", "out of memory\n");
        pthread_mutex_unlock(&channel_lock);
        return HLS_ERR_NO_MEMORY;
    }
    channels = slots;
    pthread_mutex_unlock(&channel_lock);
    return HLS_OK;
}

int32_t hls_uninit_all_channel(void)
{
    pthread_mutex_lock(&channel_lock);
    if (channels != NULL) {
        for (int32_t channel = 0; channel < channel_count; ++channel)
            if (channels[channel] != NULL)
                close_slot(channel);
        free(channels);
        channels = NULL;
        channel_count = 0;
    }
    pthread_mutex_unlock(&channel_lock);
    return HLS_OK;
}

int32_t hls_append_new_channel(int32_t channel, const hls_connect_param *param, const char *ca_path,
                               hls_frame_cb frame_cb, hls_status_cb status_cb)
{
    pthread_mutex_lock(&channel_lock);
    /* The client interface has already checked the range against its own
     * count; this guards the table against direct callers and a missing table. */
    if (!slot_valid(channel) || param == NULL) {
        pthread_mutex_unlock(&channel_lock);
        return HLS_ERR_BAD_ARGUMENT;
    }
    /* An ended stream keeps its slot until the host disconnects it. */
    if (channels[channel] != NULL) {
        pthread_mutex_unlock(&channel_lock);
        return HLS_ERR_CHANNEL_BUSY;
    }
    http_demux *record = http_demux_new(channel, param, ca_path, frame_cb, status_cb);
    if (record == NULL) {
        pthread_mutex_unlock(&channel_lock);
        return HLS_ERR_NO_STREAM;
    }
    channels[channel] = record;
    pthread_mutex_unlock(&channel_lock);
    return HLS_OK;
}

int32_t hls_remove_old_channel(int32_t channel)
{
    pthread_mutex_lock(&channel_lock);
    if (slot_valid(channel) && channels[channel] != NULL)
        close_slot(channel);
    pthread_mutex_unlock(&channel_lock);
    return HLS_OK;
}
