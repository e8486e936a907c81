// Host side for tests: recording frame and status callbacks, and test
// demultiplexers (exported from the test executable to the library) that log
// every piece they receive and turn a simple framed format into frames.
//
// Test frame format, concatenated in any number of pieces:
//   "TFRM" | frame_info (20 bytes) | payload (get-frame-length bytes)
// Bytes that do not start a record are skipped one at a time.
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "HLSClientLib.h"
#include "client_helpers.h"

struct HostEvent {
    enum Kind { Status, Frame, Put, DemuxNew, DemuxFree, Result };
    HostEvent(Kind kind, int32_t channel = -1, int32_t value = 0, void *handle = nullptr, bool flv = false)
        : kind(kind), channel(channel), value(value), handle(handle), flv(flv)
    {
    }
    Kind kind;
    int32_t channel;   // Status, Frame
    int32_t value;     // Status: the status; Put: piece size; Result: what a frame callback returned
    void *handle;      // Put, DemuxNew, DemuxFree: the demultiplexer
    bool flv;          // DemuxNew, DemuxFree, Put: an FLV demultiplexer
    frame_info info{};      // Frame
    std::string data;       // Frame: the frame bytes; Put: the piece
    std::thread::id thread;
    std::chrono::steady_clock::time_point at;
};

// How a failure message shows an event.
inline void PrintTo(const HostEvent &e, std::ostream *os)
{
    *os << "{kind " << e.kind << ", channel " << e.channel << ", value " << e.value << "}";
}

namespace test_host {

// Forgets every event and restores the defaults below.
void reset();
// Stamps `event` with the calling thread and the time, and logs it.
void record(HostEvent event);
// The events matching `pred` (every event without one), in order.
std::vector<HostEvent> events(const std::function<bool(const HostEvent &)> &pred = nullptr);
// The events of one kind (of one channel, unless `channel` is negative).
inline std::vector<HostEvent> events(HostEvent::Kind kind, int32_t channel = -1)
{
    return events([=](const HostEvent &e) { return e.kind == kind && (channel < 0 || e.channel == channel); });
}
// The statuses one channel reported, in order.
std::vector<int32_t> statuses_of(int32_t channel);
size_t status_count(int32_t channel, int32_t status);
size_t frame_count(int32_t channel);
// Concatenation of every piece the demultiplexers of one kind received.
std::string received_bytes(bool flv);
inline bool wait_for(const std::function<bool()> &pred, std::chrono::milliseconds timeout) { return wait_until(pred, timeout); }

// Host callbacks to give to hls_client_init.
int32_t frame_cb(int32_t channel, frame_info *info, uint8_t *data);
void status_cb(int32_t channel, int32_t status);

// Result that frame_cb returns (default 0).
extern std::atomic<int32_t> frame_result;
// When set, ts_demux_new / flv_demux_new return null.
extern std::atomic<bool> fail_ts_new;
extern std::atomic<bool> fail_flv_new;
// When set, Put events keep the piece bytes (off by default to keep long
// streams cheap; total sizes are always recorded).
extern std::atomic<bool> keep_pieces;

// Builds one record of the test frame format.
std::string make_frame(uint32_t type, const std::string &payload, uint32_t pts = 0, uint8_t frame_rate = 0,
                       uint16_t frame_rate_frac = 0);
inline bool is_video(const frame_info &info) { return (info.type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY; }

} // namespace test_host
