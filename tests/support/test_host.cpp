#include "test_host.h"

#include <string.h>

#include <mutex>

namespace test_host {

std::atomic<int32_t> frame_result{0};
std::atomic<bool> fail_ts_new{false};
std::atomic<bool> fail_flv_new{false};
std::atomic<bool> keep_pieces{false};

namespace {
std::mutex g_lock;
std::vector<HostEvent> g_events;
std::vector<int32_t> g_results;

void record(HostEvent event)
{
    event.thread = std::this_thread::get_id();
    event.at = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> guard(g_lock);
    g_events.push_back(std::move(event));
}
} // namespace

void record_event(HostEvent event) { record(std::move(event)); }

void record_callback_result(int32_t result)
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_results.push_back(result);
}

void reset()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_events.clear();
    g_results.clear();
    frame_result = 0;
    fail_ts_new = false;
    fail_flv_new = false;
    keep_pieces = false;
}

std::vector<HostEvent> events()
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_events;
}

std::vector<int32_t> callback_results()
{
    std::lock_guard<std::mutex> guard(g_lock);
    return g_results;
}

size_t count(const std::function<bool(const HostEvent &)> &pred)
{
    std::lock_guard<std::mutex> guard(g_lock);
    size_t n = 0;
    for (const HostEvent &e : g_events)
        n += pred(e) ? 1 : 0;
    return n;
}

size_t status_count(int32_t channel, int32_t status)
{
    return count([&](const HostEvent &e) { return e.kind == HostEvent::Status && e.channel == channel && e.value == status; });
}

size_t frame_count(int32_t channel)
{
    return count([&](const HostEvent &e) { return e.kind == HostEvent::Frame && e.channel == channel; });
}

std::string received_bytes(bool flv)
{
    std::lock_guard<std::mutex> guard(g_lock);
    std::string all;
    for (const HostEvent &e : g_events)
        if (e.kind == HostEvent::Put && e.flv == flv)
            all += e.data;
    return all;
}

int32_t frame_cb(int32_t channel, frame_info *info, uint8_t *data)
{
    HostEvent e{HostEvent::Frame};
    e.channel = channel;
    e.info = *info;
    uint32_t length = is_video(*info) ? info->video.length : info->audio.length;
    e.data.assign(reinterpret_cast<const char *>(data), length);
    record(std::move(e));
    return frame_result.load();
}

void status_cb(int32_t channel, int32_t status)
{
    HostEvent e{HostEvent::Status};
    e.channel = channel;
    e.value = status;
    record(std::move(e));
}

std::string make_frame(uint32_t type, const std::string &payload, uint32_t pts, uint8_t frame_rate,
                       uint16_t frame_rate_frac)
{
    frame_info info;
    memset(&info, 0, sizeof(info));
    info.type = type;
    if (is_video(info)) {
        info.video.frame_rate = frame_rate;
        info.video.frame_rate_frac = frame_rate_frac;
        info.video.pts = pts;
        info.video.length = (uint32_t)payload.size();
    } else {
        info.audio.pts = pts;
        info.audio.length = (uint32_t)payload.size();
    }
    std::string record = "TFRM";
    record.append(reinterpret_cast<const char *>(&info), sizeof(info));
    record += payload;
    return record;
}

} // namespace test_host
