// Helpers shared by the client-interface, probe and direct-stream tests:
// connect parameters, a streaming local server whose responses stop when the
// test ends, a raw loopback server for what httplib cannot send (no
// Content-Type at all, refused connections), and a fixture that sets the
// library up with the recording host.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "HLSClientLib.h"
#include "local_server.h"
#include "stderr_capture.h"
#include "test_host.h"

// The server library is not built for ThreadSanitizer, and its content
// providers write a shared static while streaming concurrent responses (the
// bytes sent stay intact). Reports whose stacks run through it concern the
// test server, never this library, so they are suppressed.
extern "C" const char *__tsan_default_suppressions() { return "race:libcpp-httplib.so\n"; }

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

inline hls_connect_param make_param(const std::string &url, int32_t connect_timeout = 2)
{
    hls_connect_param param;
    memset(&param, 0, sizeof(param));
    snprintf(param.url, sizeof(param.url), "%s", url.c_str());
    param.connect_timeout = connect_timeout;
    param.timeout = 2;
    return param;
}

inline double seconds_between(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double>(to - from).count();
}

// Three 188-byte packets that start with the MPEG-TS sync byte: what the
// probe needs to see to call a body MPEG-TS. The filler holds no "TFRM".
inline std::string ts_sync_prefix(size_t bytes = 564)
{
    std::string prefix(bytes, '\x11');
    for (size_t at = 0; at < bytes; at += 188)
        prefix[at] = '\x47';
    return prefix;
}

// One 188-byte transport packet: the sync byte, `content` (below 188 bytes)
// and filler. A stream of such packets keeps the sync byte at every packet
// start, however the client happens to receive it.
inline std::string ts_packet(const std::string &content)
{
    std::string packet = "\x47" + content;
    packet.resize(188, '\x11');
    return packet;
}

// How one streamed response behaves after its prefix.
struct StreamPlan {
    std::string prefix;       // sent first, in one piece
    std::string then;         // sent next, in a piece of its own
    size_t frames = SIZE_MAX; // frames to send; SIZE_MAX streams until stopped
    bool drop_at_end = false; // close the connection instead of ending the body
    bool ts_packets = false;  // wrap every frame in a transport packet
    std::chrono::milliseconds interval{5};
};

// A plan that sends `prefix`, then `frames` frames, then ends the body
// (or drops the connection).
inline StreamPlan plan_of(std::string prefix, size_t frames = SIZE_MAX, bool drop_at_end = false,
                          std::string then = std::string())
{
    StreamPlan plan;
    plan.ts_packets = prefix.size() >= 188 && prefix[0] == '\x47';
    plan.prefix = std::move(prefix);
    plan.then = std::move(then);
    plan.frames = frames;
    plan.drop_at_end = drop_at_end;
    return plan;
}

// Payload of the i-th streamed frame; tests check them in order.
inline std::string stream_payload(size_t i) { return "frame-" + std::to_string(i); }
inline std::string stream_frame(size_t i, bool ts_packets = false)
{
    std::string frame = test_host::make_frame(HLS_FRAME_TYPE_VIDEO_KEY, stream_payload(i), (uint32_t)i);
    return ts_packets ? ts_packet(frame) : frame;
}

// A local server whose streaming responses end promptly once the server is
// stopped (or the client goes away), and which counts requests per path.
class StreamServer {
public:
    StreamServer() = default;
    ~StreamServer() { stop(); }

    httplib::Server &server() { return local_.server(); }
    void start() { local_.start(); }
    void stop()
    {
        stopping_ = true;
        local_.stop();
    }
    std::string url(const std::string &path) const { return local_.url(path); }

    // Handler that streams `plan_for(request number on this path)`.
    void stream(const std::string &path, const std::string &content_type,
                std::function<StreamPlan(int)> plan_for)
    {
        server().Get(path, [this, path, content_type, plan_for](const httplib::Request &, httplib::Response &res) {
            StreamPlan plan = plan_for(note_request(path));
            send_plan(res, content_type, plan);
        });
    }

    // Streams with a declared length: the exact body size for a stream that
    // ends, an unreachable one otherwise, so that a dropped connection is a
    // broken transfer for the client. (Concurrent chunked responses race
    // inside the server library, so they are avoided.)
    void send_plan(httplib::Response &res, const std::string &content_type, const StreamPlan &plan)
    {
        size_t length = size_t(1) << 40;
        if (plan.frames != SIZE_MAX && !plan.drop_at_end) {
            length = plan.prefix.size() + plan.then.size();
            for (size_t i = 0; i < plan.frames; ++i)
                length += stream_frame(i, plan.ts_packets).size();
        }
        auto sent = std::make_shared<size_t>(0);
        res.set_content_provider(length, content_type, [this, plan, sent](size_t, size_t, httplib::DataSink &sink) {
            if (stopping_)
                return false;
            if (*sent == 0 && !plan.prefix.empty() && !sink.write(plan.prefix.data(), plan.prefix.size()))
                return false;
            if (*sent == 0 && !plan.then.empty()) {
                std::this_thread::sleep_for(plan.interval);
                if (!sink.write(plan.then.data(), plan.then.size()))
                    return false;
            }
            if (*sent < plan.frames) {
                std::string frame = stream_frame(*sent, plan.ts_packets);
                ++*sent;
                if (!sink.write(frame.data(), frame.size()))
                    return false;
                std::this_thread::sleep_for(plan.interval);
                return true;
            }
            return !plan.drop_at_end;
        });
    }

    // Records a request on `path`; returns its number there, from 1.
    int note_request(const std::string &path)
    {
        std::lock_guard<std::mutex> guard(lock_);
        requests_.push_back({path, Clock::now()});
        int n = 0;
        for (const auto &r : requests_)
            n += r.first == path ? 1 : 0;
        return n;
    }
    std::vector<Clock::time_point> request_times(const std::string &path)
    {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<Clock::time_point> times;
        for (const auto &r : requests_)
            if (r.first == path)
                times.push_back(r.second);
        return times;
    }
    size_t requests(const std::string &path) { return request_times(path).size(); }

private:
    LocalServer local_;
    std::atomic<bool> stopping_{false};
    std::mutex lock_;
    std::vector<std::pair<std::string, Clock::time_point>> requests_;
};

// A loopback socket bound at construction but not listening, so connections
// to it are refused until listen_and_answer() makes it answer every request
// with `response` (raw HTTP text) and close the connection.
class RawServer {
public:
    RawServer()
    {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ < 0 || bind(fd_, (sockaddr *)&addr, sizeof(addr)) != 0)
            throw std::runtime_error("cannot bind a loopback port");
        socklen_t len = sizeof(addr);
        getsockname(fd_, (sockaddr *)&addr, &len);
        port_ = ntohs(addr.sin_port);
    }
    ~RawServer()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        close(fd_);
    }

    std::string url(const std::string &path) const { return "http://127.0.0.1:" + std::to_string(port_) + path; }

    void listen_and_answer(const std::string &response)
    {
        response_ = response;
        listen(fd_, 8);
        thread_ = std::thread([this] { serve(); });
    }

    std::vector<Clock::time_point> request_times()
    {
        std::lock_guard<std::mutex> guard(lock_);
        return times_;
    }

private:
    void serve()
    {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 10) <= 0)
                continue;
            int client = accept(fd_, nullptr, nullptr);
            if (client < 0)
                continue;
            std::string request;
            char buf[1024];
            auto deadline = Clock::now() + 2s;
            while (request.find("\r\n\r\n") == std::string::npos && Clock::now() < deadline && !stop_) {
                pollfd c{client, POLLIN, 0};
                if (poll(&c, 1, 10) <= 0)
                    continue;
                ssize_t n = recv(client, buf, sizeof(buf), 0);
                if (n <= 0)
                    break;
                request.append(buf, (size_t)n);
            }
            {
                std::lock_guard<std::mutex> guard(lock_);
                times_.push_back(Clock::now());
            }
            (void)!send(client, response_.data(), response_.size(), MSG_NOSIGNAL);
            close(client);
        }
    }

    int fd_ = -1;
    int port_ = 0;
    std::string response_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex lock_;
    std::vector<Clock::time_point> times_;
};

// Sets the library up with the recording host for `channels` channels and
// tears it down (joining every channel) at the end of the test.
class ClientTest : public ::testing::Test {
protected:
    static constexpr int32_t kChannels = 4;
    void SetUp() override
    {
        test_host::reset();
        ASSERT_EQ(hls_client_init(kChannels, test_host::frame_cb, test_host::status_cb, nullptr), 0);
    }
    void TearDown() override { hls_client_destroy(); }
};
