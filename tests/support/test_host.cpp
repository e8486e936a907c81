#include "test_host.h"

#include <algorithm>
#include <iterator>
#include <mutex>

namespace test_host {

std::atomic<int32_t> frame_result{0};
std::atomic<bool> fail_ts_new{false};
std::atomic<bool> fail_flv_new{false};
std::atomic<bool> keep_pieces{false};

namespace {
std::mutex g_lock;
std::vector<HostEvent> g_events;
} // namespace

void record(HostEvent event)
{
    event.thread = std::this_thread::get_id();
    event.at = std::chrono::steady_clock::now();
    std::lock_guard<std::mutex> guard(g_lock);
    g_events.push_back(std::move(event));
}

void reset()
{
    std::lock_guard<std::mutex> guard(g_lock);
    g_events.clear();
    frame_result = 0;
    fail_ts_new = false;
    fail_flv_new = false;
    keep_pieces = false;
}

std::vector<HostEvent> events(const std::function<bool(const HostEvent &)> &pred)
{
    std::lock_guard<std::mutex> guard(g_lock);
    std::vector<HostEvent> out;
    std::copy_if(g_events.begin(), g_events.end(), std::back_inserter(out),
                 [&](const HostEvent &e) { return !pred || pred(e); });
    return out;
}

std::vector<int32_t> statuses_of(int32_t channel)
{
    std::vector<int32_t> out;
    for (const HostEvent &e : events(HostEvent::Status, channel))
        out.push_back(e.value);
    return out;
}

size_t status_count(int32_t channel, int32_t status)
{
    const std::vector<int32_t> statuses = statuses_of(channel);
    return (size_t)std::count(statuses.begin(), statuses.end(), status);
}

size_t frame_count(int32_t channel)
{
    return events(HostEvent::Frame, channel).size();
}

std::string received_bytes(bool flv)
{
    std::string all;
    for (const HostEvent &e : events([&](const HostEvent &e) { return e.kind == HostEvent::Put && e.flv == flv; }))
        all += e.data;
    return all;
}

int32_t frame_cb(int32_t channel, frame_info *info, uint8_t *data)
{
    HostEvent e{HostEvent::Frame, channel};
    e.info = *info;
    e.data.assign(reinterpret_cast<const char *>(data), is_video(*info) ? info->video.length : info->audio.length);
    record(std::move(e));
    return frame_result.load();
}

void status_cb(int32_t channel, int32_t status) { record(HostEvent{HostEvent::Status, channel, status}); }

std::string make_frame(uint32_t type, const std::string &payload, uint32_t pts, uint8_t frame_rate,
                       uint16_t frame_rate_frac)
{
    frame_info info{};
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
    return record + payload;
}

} // namespace test_host
