#include "counting_demux.h"

#include "hls_host_demux.h"

std::atomic<uint64_t> g_counted_bytes{0};

namespace {
int g_handle;
}

extern "C" {
void *ts_demux_new(demux_frame_cb, void *) { return &g_handle; }
int32_t ts_demux_put_data(void *, const uint8_t *, uint32_t size)
{
    g_counted_bytes.fetch_add(size, std::memory_order_relaxed);
    return 0;
}
void ts_demux_free(void *) {}
void *flv_demux_new(demux_frame_cb, void *) { return &g_handle; }
int32_t flv_demux_put_data(void *handle, const uint8_t *data, uint32_t size)
{
    return ts_demux_put_data(handle, data, size);
}
void flv_demux_free(void *) {}
}
