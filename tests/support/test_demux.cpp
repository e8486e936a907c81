// Test demultiplexers exported to the library (linked as objects into every
// test executable that does not use the reference demultiplexers).
#include <string.h>

#include <string>

#include "hls_host_demux.h"
#include "test_host.h"

namespace {

struct TestDemux {
    demux_frame_cb cb;
    void *user;
    bool flv;
    std::string pending;
};

void *demux_new(demux_frame_cb cb, void *user, bool flv)
{
    if ((flv ? test_host::fail_flv_new : test_host::fail_ts_new).load())
        return nullptr;
    TestDemux *demux = new TestDemux{cb, user, flv, {}};
    test_host::record(HostEvent{HostEvent::DemuxNew, -1, 0, demux, flv});
    return demux;
}

int32_t demux_put(void *handle, const uint8_t *data, uint32_t size)
{
    TestDemux *demux = static_cast<TestDemux *>(handle);
    HostEvent e{HostEvent::Put, -1, (int32_t)size, demux, demux->flv};
    if (test_host::keep_pieces.load())
        e.data.assign(reinterpret_cast<const char *>(data), size);
    test_host::record(std::move(e));

    demux->pending.append(reinterpret_cast<const char *>(data), size);
    const size_t header = 4 + sizeof(frame_info);
    size_t at = 0;
    while (demux->pending.size() - at >= 4) {
        if (demux->pending.compare(at, 4, "TFRM") != 0) {
            ++at;
            continue;
        }
        if (demux->pending.size() - at < header)
            break;
        frame_info info;
        memcpy(&info, demux->pending.data() + at + 4, sizeof(info));
        uint32_t length = test_host::is_video(info) ? info.video.length : info.audio.length;
        if (demux->pending.size() - at - header < length)
            break;
        std::string bytes = demux->pending.substr(at + header, length);
        int32_t result = demux->cb(demux, &info, reinterpret_cast<uint8_t *>(&bytes[0]), demux->user);
        test_host::record(HostEvent{HostEvent::Result, -1, result});
        at += header + length;
    }
    demux->pending.erase(0, at);
    return 0;
}

void demux_free(void *handle)
{
    if (!handle)
        return;
    TestDemux *demux = static_cast<TestDemux *>(handle);
    test_host::record(HostEvent{HostEvent::DemuxFree, -1, 0, demux, demux->flv});
    delete demux;
}

} // namespace

extern "C" {
void *ts_demux_new(demux_frame_cb cb, void *user) { return demux_new(cb, user, false); }
int32_t ts_demux_put_data(void *handle, const uint8_t *data, uint32_t size) { return demux_put(handle, data, size); }
void ts_demux_free(void *handle) { demux_free(handle); }
void *flv_demux_new(demux_frame_cb cb, void *user) { return demux_new(cb, user, true); }
int32_t flv_demux_put_data(void *handle, const uint8_t *data, uint32_t size) { return demux_put(handle, data, size); }
void flv_demux_free(void *handle) { demux_free(handle); }
}
