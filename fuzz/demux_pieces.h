// Shared body of the demultiplexer fuzz targets: any bytes, cut into pieces
// whose size two of the input's bytes choose, go through one
// demultiplexer; every frame handed out is read whole.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <vector>

#include "hls_host_demux.h"

static int32_t touch_frame(void *, frame_info *info, uint8_t *data, void *)
{
    uint32_t len = (info->type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY ? info->video.length
                                                                                   : info->audio.length;
    volatile uint8_t sum = 0;
    for (uint32_t i = 0; i < len; i++)
        sum = (uint8_t)(sum + data[i]);
    return 0;
}

static void feed_in_pieces(const uint8_t *data, size_t size, void *(*create)(demux_frame_cb, void *),
                           int32_t (*put)(void *, const uint8_t *, uint32_t), void (*release)(void *))
{
    FuzzedDataProvider in(data, size);
    size_t piece = 1 + in.ConsumeIntegral<uint16_t>();
    std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
    void *demux = create(touch_frame, nullptr);
    for (size_t at = 0; at < bytes.size(); at += piece)
        put(demux, bytes.data() + at, (uint32_t)std::min(piece, bytes.size() - at));
    release(demux);
}
