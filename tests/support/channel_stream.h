// Helpers shared by the channel-stream tests: stream builders, a scripted
// local server that logs every request, and a fixture that sets the library
// up with the recording host.
#pragma once

#include <gmock/gmock.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>

#include "client_helpers.h"
#include "local_server.h"
#include "stderr_capture.h"
#include "test_host.h"
#include "torture.h"

// The server library is not built for ThreadSanitizer, and its content
// providers write a shared static while streaming concurrent responses (the
// bytes sent stay intact). Reports whose stacks run through it concern the
// test server, never this library, so they are suppressed.
extern "C" const char *__tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

using namespace std::chrono_literals;

// The i-th streamed test frame, alone or wrapped in a transport packet so that
// a stream of them keeps the sync byte at every packet start.
inline std::string stream_payload(size_t i) { return "frame-" + std::to_string(i); }
inline std::string stream_frame(size_t i, bool ts_packet = false)
{
    std::string frame = test_host::make_frame(HLS_FRAME_TYPE_VIDEO_KEY, stream_payload(i), (uint32_t)i);
    if (ts_packet)
        frame = ("\x47" + frame).append(188 - 1 - frame.size(), '\x11');
    return frame;
}

const std::vector<int32_t> kStarted{HLS_STREAM_STARTED}, kStartedStopped{HLS_STREAM_STARTED, HLS_STREAM_STOPPED};
using test_host::statuses_of;

inline bool thread_named(const std::string &name)
{
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string line;
        if (std::getline(comm, line) && line == name)
            return true;
    }
    return false;
}

// A joined thread can stay listed for a moment: its exit finishes after the
// join returned (under qemu-user, the host thread behind it ends later still).
inline bool thread_gone(const std::string &name)
{
    return test_host::wait_for([&] { return !thread_named(name); }, std::chrono::seconds(2));
}

// One scripted answer: after `delay_ms`, `body` in one piece, then `frames`
// test frames 5 ms apart (SIZE_MAX: until the server stops or the client goes
// away), then the end of the body or, with `drop`, a dropped connection. A
// body that starts with a transport packet has its frames wrapped in packets.
// An empty body of no `type` goes without a Content-Type.
struct Reply {
    Reply(std::string body = "", std::string type = "application/vnd.apple.mpegurl", int status = 200, int delay_ms = 0,
          size_t frames = 0, bool drop = false, std::string location = "")
        : body(body), type(type), status(status), delay_ms(delay_ms), frames(frames), drop(drop), location(location)
    {
    }
    std::string body, type;
    int status, delay_ms;
    size_t frames;
    bool drop;
    std::string location; // redirect target
};
using Script = std::function<Reply(int hit)>; // hit counts from 1 per request target

// A local server on 127.0.0.1 (on `port`, or a free one when it is 0) that
// answers each request target (path and query) from a script, `fallback` for
// targets without one, and logs every request.
class Site {
public:
    explicit Site(Script fallback = [](int) { return Reply{"missing", "text/plain", 404}; }, int port = 0) : fallback_(fallback)
    {
        local_.server().new_task_queue = [] { return new httplib::ThreadPool(48); };
        local_.server().Get(".*", [this](const httplib::Request &rq, httplib::Response &rs) { serve(rq, rs); });
        local_.start(port);
    }
    ~Site()
    {
        closing_ = true;
        local_.stop();
    }

    void on(const std::string &target, Script script)
    {
        std::lock_guard<std::mutex> guard(lock_);
        scripts_[target] = std::move(script);
    }
    void on(const std::string &target, const Reply &reply) { on(target, [reply](int) { return reply; }); }
    // A playlist that stays the same; reloads after the first load are slowed
    // a little so that a loop polling an unchanged playlist stays cheap.
    void playlist(const std::string &target, const std::string &body)
    {
        on(target, [body](int hit) { return Reply{body, "application/vnd.apple.mpegurl", 200, hit > 2 ? 15 : 0}; });
    }

    std::string url(const std::string &target) const { return local_.url(target); }
    // Request times of `target`, in order.
    std::vector<Clock::time_point> times(const std::string &target)
    {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<Clock::time_point> out;
        for (const auto &hit : log_)
            if (hit.first == target)
                out.push_back(hit.second);
        return out;
    }
    size_t hits(const std::string &target) { return times(target).size(); }
    Clock::time_point nth_hit(const std::string &target, size_t n) { return times(target).at(n - 1); }
    // The first `n` request targets that start with `prefix`, in order.
    std::vector<std::string> order(const std::string &prefix, size_t n = SIZE_MAX)
    {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<std::string> out;
        for (const auto &hit : log_)
            if (out.size() < n && hit.first.compare(0, prefix.size(), prefix) == 0)
                out.push_back(hit.first);
        return out;
    }

private:
    void serve(const httplib::Request &rq, httplib::Response &rs)
    {
        Script script = fallback_;
        int hit;
        {
            std::lock_guard<std::mutex> guard(lock_);
            log_.push_back({rq.target, Clock::now()});
            hit = (int)std::count_if(log_.begin(), log_.end(), [&](const auto &h) { return h.first == rq.target; });
            if (scripts_.count(rq.target))
                script = scripts_[rq.target];
        }
        Reply reply = script(hit);
        for (int waited = 0; waited < reply.delay_ms && !closing_; waited += 5)
            std::this_thread::sleep_for(5ms);
        rs.status = reply.status;
        if (!reply.location.empty())
            rs.set_redirect(reply.location);
        else if (reply.frames > 0 || reply.drop)
            stream(rs, reply);
        else if (!reply.type.empty())
            rs.set_content(reply.body, reply.type);
    }

    // Streams with a declared length: the exact body size for a stream that
    // ends, an unreachable one otherwise, so that a dropped connection is a
    // broken transfer for the client. (Concurrent chunked responses race
    // inside the server library, so they are avoided.)
    void stream(httplib::Response &rs, const Reply &reply)
    {
        bool packets = reply.body.size() >= 188 && reply.body[0] == '\x47';
        // 1 TiB, or 1 GiB where size_t has 32 bits: more than any test sends.
        const size_t unreachable = size_t(std::min<uint64_t>(uint64_t(1) << 40, SIZE_MAX / 4));
        size_t length = reply.drop || reply.frames == SIZE_MAX ? unreachable : reply.body.size();
        for (size_t i = 0; length < unreachable && i < reply.frames; ++i)
            length += stream_frame(i, packets).size();
        auto sent = std::make_shared<size_t>(0);
        rs.set_content_provider(length, reply.type, [this, reply, packets, sent](size_t, size_t, httplib::DataSink &sink) {
            if (closing_ || (*sent == 0 && !reply.body.empty() && !sink.write(reply.body.data(), reply.body.size())))
                return false;
            if (*sent >= reply.frames)
                return !reply.drop;
            std::string frame = stream_frame((*sent)++, packets);
            std::this_thread::sleep_for(5ms);
            return sink.write(frame.data(), frame.size());
        });
    }

    LocalServer local_;
    Script fallback_;
    std::mutex lock_;
    std::map<std::string, Script> scripts_;
    std::vector<std::pair<std::string, Clock::time_point>> log_;
    std::atomic<bool> closing_{false};
};

// hls_client_init with the recording host. Without memory for the table
// (-15) the library counts as initialised and destroy is the remedy, so a
// torture retry starts afresh.
inline int32_t init_client(int32_t channels)
{
    return torture_retry(-15, [channels] {
        int32_t result = hls_client_init(channels, test_host::frame_cb, test_host::status_cb, nullptr);
        if (result == -15)
            hls_client_destroy();
        return result;
    });
}

// Sets the library up with the recording host for kChannels channels and
// tears it down (joining every channel) at the end of the test.
class ClientTest : public ::testing::Test {
protected:
    static constexpr int32_t kChannels = 8;
    void SetUp() override
    {
        test_host::reset();
        ASSERT_EQ(init_client(kChannels), 0);
    }

    void TearDown() override { hls_client_destroy(); }

    // Without memory for the channel stream a connect gives -6 and the slot
    // stays free for the torture retry.
    static void connect_to(int32_t channel, const std::string &url, int32_t low_bandwidth = 0)
    {
        hls_connect_param param = make_param(url, low_bandwidth);
        ASSERT_EQ(torture_retry(-6, [&] { return hls_client_connect(channel, &param); }), 0) << url;
    }
    // Disconnects and returns how long the call took, in seconds.
    static double timed_disconnect(int32_t channel)
    {
        auto start = Clock::now();
        EXPECT_EQ(hls_client_disconnect(channel), 0);
        return seconds_between(start, Clock::now());
    }
};
