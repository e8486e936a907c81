// libFuzzer target: any bytes, cut into pieces chosen by the input itself,
// go through the TS demultiplexer; every frame handed out is read whole.
#include <stddef.h>
#include <stdint.h>

#include "hls_host_demux.h"

static int32_t touch(void *, frame_info *info, uint8_t *data, void *)
{
    uint32_t len = (info->type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY ? info->video.length
                                                                                   : info->audio.length;
    volatile uint8_t sum = 0;
    for (uint32_t i = 0; i < len; i++)
        sum = (uint8_t)(sum + data[i]);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2)
        return 0;
    size_t piece = 1 + (data[0] << 8 | data[1]);
    data += 2;
    size -= 2;
    void *demux = ts_demux_new(touch, nullptr);
    for (size_t at = 0; at < size; at += piece)
        ts_demux_put_data(demux, data + at, (uint32_t)(size - at < piece ? size - at : piece));
    ts_demux_free(demux);
    return 0;
}
