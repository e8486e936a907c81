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
#include "torture.h"

using namespace std::chrono_literals;

namespace {

// Segment server plus one downloader feeding a test demultiplexer that keeps
// every piece it is given.
class TsDownloader : public ::testing::Test {
protected:
    // The handlers use these, so they outlive the server.
    std::string segment;
    std::atomic<bool> release{false};
    std::atomic<Clock::rep> last_piece_at{0}; // written by the server thread
    LocalServer local;
    void *demux = nullptr;
    ts_downloader *dl = nullptr;

    void SetUp() override
    {
        test_host::reset();
        test_host::keep_pieces = true;
        for (char c = 'a'; c < 'i'; ++c)
            segment += std::string(500, c);
        httplib::Server &s = local.server();
        // The segment in eight pieces, 30 ms apart; with "stall" it stops
        // after the first piece until the test lets go.
        s.Get("/seg", [this](const httplib::Request &req, httplib::Response &res) {
            bool stall = req.has_param("stall");
            res.set_chunked_content_provider("video/mp2t", [this, stall](size_t, httplib::DataSink &sink) {
                auto end = Clock::now() + 10s;
                for (size_t at = 0; at < segment.size(); at += 500) {
                    std::this_thread::sleep_for(30ms);
                    last_piece_at = Clock::now().time_since_epoch().count();
                    if (!sink.write(segment.data() + at, 500))
                        return false; // the client has gone
                    while (stall && !release && Clock::now() < end)
                        std::this_thread::sleep_for(10ms);
                }
                sink.done();
                return true;
            });
        });
        // Promises 10000 bytes, sends 4000, then drops the connection.
        s.Get("/half", [](const httplib::Request &, httplib::Response &res) {
            res.set_content_provider(10000, "video/mp2t", [](size_t offset, size_t, httplib::DataSink &sink) {
                return offset == 0 && sink.write(std::string(4000, 'h').data(), 4000);
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
        local.start();
        demux = ts_demux_new([](void *, frame_info *, uint8_t *, void *) { return 0; }, nullptr);
        dl = torture_retry((ts_downloader *)nullptr, [this] { return ts_downloader_new(demux, nullptr); });
    }
    ~TsDownloader() override
    {
        release = true;
        ts_downloader_free(dl);
        ts_demux_free(demux);
    }
    // Runs one transfer; returns its result and stores its duration. The
    // playlist-only settings (a 1 s whole-transfer limit, IPv6 only) are set
    // so that a segment transfer that obeyed them would show.
    int32_t fetch(const std::string &path, uint32_t duration_ms, double *seconds = nullptr)
    {
        hls_connect_param p = make_param(local.url(path), 0, 1);
        p.ip_resolve = 2;
        auto start = Clock::now();
        int32_t r = ts_downloader_prepare(dl, &p, duration_ms);
        if (seconds)
            *seconds = seconds_between(start, Clock::now());
        return r;
    }
};

} // namespace

TEST_F(TsDownloader, BytesReachTheDemultiplexerAsTheyArrive)
{
    ASSERT_EQ(fetch("/seg", 4000), 1);
    ASSERT_EQ(test_host::received_bytes(false), segment);
    EXPECT_EQ(ts_downloader_get_download_bytes(dl), (int64_t)segment.size());
    // The first piece was fed before the server had sent the last one.
    std::vector<HostEvent> events = test_host::events();
    auto put = std::find_if(events.begin(), events.end(), [](const HostEvent &e) { return e.kind == HostEvent::Put; });
    EXPECT_LT(put->at.time_since_epoch().count(), last_piece_at.load());
}

TEST_F(TsDownloader, FailedTransfersEndInTimeAndKeepWhatTheyFed)
{
    auto perform = [&](const char *path, CURLcode code) {
        return "ts_downloader_prepare>: curl_easy_perform(" + local.url(path) + ") failed! ret:" +
               std::to_string(code) + "-" + curl_easy_strerror(code) + "\n";
    };
    const std::string status = "ts_downloader_prepare>: curl_easy_getinfo(" + local.url("/missing") +
                               ", CURLINFO_RESPONSE_CODE): 404\n",
                      timed_out = perform("/seg?stall", CURLE_OPERATION_TIMEDOUT), stalled = segment.substr(0, 500);
    // The time limit is twice the duration, at least 1 s, in 32-bit arithmetic.
    struct Case { const char *path; uint32_t duration_ms; std::string fed, message; double at_least; } cases[] = {
        {"/half", 4000, std::string(4000, 'h'), perform("/half", CURLE_PARTIAL_FILE), 0},
        {"/missing", 4000, "not here", status, 0},
        {"/seg?stall", 400, stalled, timed_out, 0.95},         // 800 ms raised to 1000
        {"/seg?stall", 0x80000000u, stalled, timed_out, 0.95}, // doubling wraps to 0: 1000 again
        {"/seg?stall", 1000, stalled, timed_out, 1.9},
    };
    for (const Case &c : cases) {
        test_host::reset();
        test_host::keep_pieces = true;
        StderrCapture err;
        double took = 0;
        EXPECT_EQ(fetch(c.path, c.duration_ms, &took), 0) << c.path;
        EXPECT_GE(took, c.at_least) << c.path << " " << c.duration_ms;
        EXPECT_LT(took, c.at_least + 2.0) << c.path << " " << c.duration_ms;
        EXPECT_EQ(test_host::received_bytes(false), c.fed) << c.path;
        EXPECT_EQ(err.count(c.message), 1u) << err.text();
        EXPECT_EQ(err.reporting_file("ts_downloader_prepare"), "ts_downloader.cpp") << err.text();
        EXPECT_EQ(ts_downloader_get_download_bytes(dl), -1) << c.path; // easy handle released
    }
}

TEST_F(TsDownloader, BandwidthCapsTheReceiveRateInBytesPerSecond)
{
    // 2 Mbit/s is 250,000 bytes/s: after a first pass of at most about 1.6 MB
    // the rest of the 3 MB waits until the average is down to the cap, at
    // least 5.6 s in. An uncapped transfer must end well before that; it is
    // mostly copying, which takes one to two seconds where the whole test
    // runs under an emulator on a busy machine.
    const double uncapped_limit = 4.0;
    double took = 0;
    ASSERT_EQ(fetch("/blob", 20000, &took), 1);
    EXPECT_LT(took, uncapped_limit) << "uncapped";

    // The cap outlives the easy handle.
    ts_downloader_set_bandwidth_bps(dl, 2000000);
    EXPECT_EQ(ts_downloader_done(dl), 1);
    ASSERT_EQ(fetch("/blob", 20000, &took), 1);
    EXPECT_GT(took, 5.0);
    EXPECT_LT(took, 14.0);

    ts_downloader_set_bandwidth_bps(dl, 7); // 7 / 8 = 0: no cap
    ASSERT_EQ(fetch("/blob", 20000, &took), 1);
    EXPECT_LT(took, uncapped_limit) << "7 bit/s";

    ts_downloader_set_bandwidth_bps(dl, 8); // 1 byte/s cannot finish in 1 s
    StderrCapture err;
    EXPECT_EQ(fetch("/blob", 400, &took), 0);
    EXPECT_LT(took, 3.0);
    EXPECT_TRUE(err.contains("ret:" + std::to_string(CURLE_OPERATION_TIMEDOUT) + "-")) << err.text();
}

TEST_F(TsDownloader, MissingHandleOrRequestFailsQuietly)
{
    hls_connect_param p{};
    StderrCapture err;
    EXPECT_EQ(ts_downloader_prepare(nullptr, &p, 1000), 0);
    EXPECT_EQ(ts_downloader_prepare(dl, nullptr, 1000), 0);
    EXPECT_EQ(ts_downloader_get_download_bytes(dl), -1); // no transfer yet
    EXPECT_EQ(ts_downloader_get_download_bytes(nullptr), -1);
    EXPECT_EQ(ts_downloader_done(nullptr), 0);
    EXPECT_EQ(ts_downloader_get_bandwidth_bps(dl), 0u); // no cap at first
    ts_downloader_free(nullptr);
    EXPECT_EQ(err.text(), "");
}
