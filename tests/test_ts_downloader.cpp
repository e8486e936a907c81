#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "hls_host_demux.h"
#include "local_server.h"
#include "stderr_capture.h"
#include "test_host.h"
#include "ts_downloader.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

hls_connect_param make_param(const std::string &url)
{
    hls_connect_param p{};
    snprintf(p.url, sizeof(p.url), "%s", url.c_str());
    p.connect_timeout = 2;
    p.timeout = 30;
    return p;
}

std::atomic<int> g_frames{0};
int32_t count_frame(void *, frame_info *, uint8_t *, void *)
{
    ++g_frames;
    return 0;
}

// Segment server plus one downloader feeding a test demultiplexer.
struct Fixture {
    LocalServer local;
    std::atomic<bool> release{false};
    std::atomic<Clock::rep> last_chunk_at{0}; // written by the server thread
    std::string segment;
    void *demux = nullptr;
    ts_downloader *dl = nullptr;

    Fixture()
    {
        test_host::reset();
        test_host::keep_pieces = true;
        g_frames = 0;
        for (int i = 0; i < 8; ++i)
            segment += test_host::make_frame(i % 2 ? 0x0f000001u : HLS_FRAME_TYPE_VIDEO_KEY, std::string(500, 'a' + i));
        httplib::Server &s = local.server();
        // The segment in eight pieces, 30 ms apart.
        s.Get("/seg", [this](const httplib::Request &, httplib::Response &res) {
            res.set_chunked_content_provider("video/mp2t", [this](size_t, httplib::DataSink &sink) {
                const size_t piece = segment.size() / 8;
                for (size_t at = 0; at < segment.size(); at += piece) {
                    std::this_thread::sleep_for(30ms);
                    last_chunk_at = Clock::now().time_since_epoch().count();
                    sink.write(segment.data() + at, std::min(piece, segment.size() - at));
                }
                sink.done();
                return true;
            });
        });
        // Promises 10000 bytes, sends 4000, then drops the connection.
        s.Get("/half", [](const httplib::Request &, httplib::Response &res) {
            res.set_content_provider(10000, "video/mp2t", [](size_t offset, size_t, httplib::DataSink &sink) {
                if (offset > 0)
                    return false;
                sink.write(std::string(4000, 'h').data(), 4000);
                return true;
            });
        });
        s.Get("/missing", [](const httplib::Request &, httplib::Response &res) {
            res.status = 404;
            res.set_content("not here", "text/plain");
        });
        // libcurl reads up to about 1.6 MB (100 reads of 16 KiB) in one pass
        // before it looks at the cap, so the cap shows only past that.
        s.Get("/blob", [](const httplib::Request &, httplib::Response &res) {
            res.set_content(std::string(3000000, 'b'), "video/mp2t");
        });
        // Sends 100 bytes, then stalls until released.
        s.Get("/stall", [this](const httplib::Request &, httplib::Response &res) {
            res.set_chunked_content_provider("video/mp2t", [this](size_t, httplib::DataSink &sink) {
                sink.write(std::string(100, 's').data(), 100);
                hold(10s);
                sink.done();
                return true;
            });
        });
        // Answers only after 1.5 s.
        s.Get("/late", [this](const httplib::Request &, httplib::Response &res) {
            hold(1500ms);
            res.set_content("late", "video/mp2t");
        });
        local.start();
        demux = ts_demux_new(count_frame, nullptr);
        dl = ts_downloader_new(demux, nullptr);
    }
    ~Fixture()
    {
        release = true;
        ts_downloader_free(dl);
        ts_demux_free(demux);
    }
    void hold(std::chrono::milliseconds most)
    {
        auto deadline = Clock::now() + most;
        while (!release && Clock::now() < deadline)
            std::this_thread::sleep_for(10ms);
    }
    // Runs one transfer; returns its result and stores its duration.
    int32_t fetch(const std::string &path, uint32_t duration_ms, double *seconds = nullptr)
    {
        hls_connect_param p = make_param(local.url(path));
        auto start = Clock::now();
        int32_t r = ts_downloader_prepare(dl, &p, duration_ms);
        if (seconds)
            *seconds = std::chrono::duration<double>(Clock::now() - start).count();
        return r;
    }
};

size_t put_count()
{
    return test_host::count([](const HostEvent &e) { return e.kind == HostEvent::Put; });
}

} // namespace

TEST(TsDownloader, BytesReachTheDemultiplexerAsTheyArrive)
{
    Fixture f;
    ASSERT_EQ(f.fetch("/seg", 4000), 1);
    EXPECT_EQ(test_host::received_bytes(false), f.segment);
    EXPECT_EQ(ts_downloader_get_download_bytes(f.dl), (int64_t)f.segment.size());
    EXPECT_EQ(g_frames.load(), 8);
    std::vector<HostEvent> events = test_host::events();
    ASSERT_GE(put_count(), 2u);
    auto first_put = std::find_if(events.begin(), events.end(), [](const HostEvent &e) { return e.kind == HostEvent::Put; });
    EXPECT_LT(first_put->at.time_since_epoch().count(), f.last_chunk_at.load()); // fed before the server had sent everything
}

TEST(TsDownloader, FailedTransfersKeepWhatTheyAlreadyFed)
{
    Fixture f;
    struct Case {
        const char *path;
        std::string fed, message;
    } cases[] = {
        {"/half", std::string(4000, 'h'), "ts_downloader_prepare>: curl_easy_perform(" + f.local.url("/half") + ") failed! ret:"},
        {"/missing", "not here",
         "ts_downloader_prepare>: curl_easy_getinfo(" + f.local.url("/missing") + ", CURLINFO_RESPONSE_CODE): 404\n"},
    };
    for (const Case &c : cases) {
        test_host::reset();
        test_host::keep_pieces = true;
        StderrCapture err;
        EXPECT_EQ(f.fetch(c.path, 4000), 0) << c.path;
        EXPECT_EQ(test_host::received_bytes(false), c.fed) << c.path;
        EXPECT_EQ(err.count(c.message), 1u) << err.text();
        EXPECT_EQ(ts_downloader_get_download_bytes(f.dl), -1) << c.path; // easy handle released
    }
}

TEST(TsDownloader, TimeLimitIsTwiceTheDurationWithAOneSecondFloor)
{
    Fixture f;
    struct Case {
        uint32_t duration_ms;
        double at_least, below;
    } cases[] = {
        {400, 0.95, 3.0},        // 800 ms raised to the 1000 ms floor
        {0x80000000u, 0.95, 3.0}, // doubling wraps to 0 in 32 bits: the floor again
        {1000, 1.9, 4.0},        // 2000 ms
    };
    for (const Case &c : cases) {
        StderrCapture err;
        double took = 0;
        EXPECT_EQ(f.fetch("/stall", c.duration_ms, &took), 0) << c.duration_ms;
        EXPECT_GE(took, c.at_least) << c.duration_ms;
        EXPECT_LT(took, c.below) << c.duration_ms;
        EXPECT_TRUE(err.contains("ret:" + std::to_string(CURLE_OPERATION_TIMEDOUT) + "-")) << err.text();
    }
}

TEST(TsDownloader, BandwidthCapsTheReceiveRateInBytesPerSecond)
{
    Fixture f;
    double took = 0;
    ASSERT_EQ(f.fetch("/blob", 20000, &took), 1);
    EXPECT_LT(took, 1.0) << "uncapped";

    // 8 Mbit/s is 1,000,000 bytes/s: after a first pass of about 1.6 MB the
    // rest of the 3 MB waits for the average to drop to the cap. The cap
    // outlives the easy handle.
    ts_downloader_set_bandwidth_bps(f.dl, 8000000);
    EXPECT_EQ(ts_downloader_done(f.dl), 1);
    ASSERT_EQ(f.fetch("/blob", 20000, &took), 1);
    EXPECT_GT(took, 1.2);
    EXPECT_LT(took, 6.0);

    ts_downloader_set_bandwidth_bps(f.dl, 7); // 7 / 8 = 0: no cap
    ASSERT_EQ(f.fetch("/blob", 20000, &took), 1);
    EXPECT_LT(took, 1.0) << "7 bit/s";

    ts_downloader_set_bandwidth_bps(f.dl, 8); // 1 byte/s cannot finish in 1 s
    StderrCapture err;
    EXPECT_EQ(f.fetch("/blob", 400, &took), 0);
    EXPECT_LT(took, 3.0);
    EXPECT_TRUE(err.contains("ret:" + std::to_string(CURLE_OPERATION_TIMEDOUT) + "-")) << err.text();
}

TEST(TsDownloader, SegmentIgnoresPlaylistTimeoutAndAddressFamily)
{
    // The request's whole-transfer limit (1 s) and IPv6-only choice belong to
    // playlists; a segment that may take 20 s waits for a slow answer over
    // IPv4 and is not cut at the 1 s connect time-out either.
    Fixture f;
    hls_connect_param p = make_param(f.local.url("/late"));
    p.connect_timeout = 1;
    p.timeout = 1;
    p.ip_resolve = 2;
    auto start = Clock::now();
    EXPECT_EQ(ts_downloader_prepare(f.dl, &p, 10000), 1);
    EXPECT_GE(std::chrono::duration<double>(Clock::now() - start).count(), 1.4);
    EXPECT_EQ(test_host::received_bytes(false), "late");
}

TEST(TsDownloader, MissingHandleOrRequestFailsQuietly)
{
    ts_downloader *dl = ts_downloader_new(nullptr, nullptr);
    ASSERT_NE(dl, nullptr);
    hls_connect_param p = make_param("http://127.0.0.1:1/seg.ts");
    StderrCapture err;
    EXPECT_EQ(ts_downloader_prepare(nullptr, &p, 1000), 0);
    EXPECT_EQ(ts_downloader_prepare(dl, nullptr, 1000), 0);
    EXPECT_EQ(ts_downloader_get_download_bytes(dl), -1);
    EXPECT_EQ(ts_downloader_get_download_bytes(nullptr), -1);
    EXPECT_EQ(ts_downloader_done(nullptr), 0);
    EXPECT_EQ(ts_downloader_get_bandwidth_bps(dl), 0u);
    ts_downloader_free(nullptr);
    ts_downloader_free(dl);
    EXPECT_EQ(err.text(), "");
}
