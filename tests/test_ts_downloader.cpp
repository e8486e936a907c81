#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "download_server.h"
#include "hls_host_demux.h"
#include "test_host.h"
#include "ts_downloader.h"
#include "torture.h"

namespace {

// One downloader feeding a test demultiplexer that keeps every piece it is
// given.
class TsDownloader : public ::testing::Test {
protected:
    DownloadServer server;
    void *demux = ts_demux_new([](void *, frame_info *, uint8_t *, void *) { return 0; }, nullptr);
    ts_downloader *dl = torture_retry((ts_downloader *)nullptr, [this] { return ts_downloader_new(demux, nullptr); });

    void SetUp() override
    {
        test_host::reset();
        test_host::keep_pieces = true;
    }
    ~TsDownloader() override
    {
        ts_downloader_free(dl);
        ts_demux_free(demux);
    }
    // Runs one transfer; returns its result and stores its duration. The
    // playlist-only settings (a 1 s whole-transfer limit, IPv6 only) are set
    // so that a segment transfer that obeyed them would show.
    int32_t fetch(const std::string &path, uint32_t duration_ms, double *seconds = nullptr)
    {
        hls_connect_param p = make_param(server.url(path), 0, 1);
        p.ip_resolve = 2;
        auto start = Clock::now();
        int32_t r = ts_downloader_prepare(dl, &p, duration_ms);
        if (seconds)
            *seconds = seconds_between(start, Clock::now());
        return r;
    }
};

} // namespace

TEST_F(TsDownloader, BytesReachTheDemultiplexerAsTheyArriveAndMissingArgumentsFailQuietly)
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

    ASSERT_EQ(fetch("/seg", 4000), 1);
    ASSERT_EQ(test_host::received_bytes(false), server.segment);
    EXPECT_EQ(ts_downloader_get_download_bytes(dl), (int64_t)server.segment.size());
    // The first piece was fed before the server had sent the last one.
    std::vector<HostEvent> events = test_host::events();
    auto put = std::find_if(events.begin(), events.end(), [](const HostEvent &e) { return e.kind == HostEvent::Put; });
    EXPECT_LT(put->at.time_since_epoch().count(), server.last_piece_at.load());
}

TEST_F(TsDownloader, FailedTransfersEndInTimeAndKeepWhatTheyFed)
{
    const std::string t = "ts_downloader";
    const std::string timed_out = perform_failed(t, server.url("/seg?stall"), CURLE_OPERATION_TIMEDOUT);
    const std::string stalled = server.segment.substr(0, 500);
    // The time limit is twice the duration, at least 1 s, in 32-bit arithmetic.
    struct Case { const char *path; uint32_t duration_ms; std::string fed, line; double at_least; } cases[] = {
        {"/half", 4000, std::string(4000, 'h'), perform_failed(t, server.url("/half"), CURLE_PARTIAL_FILE), 0},
        {"/missing", 4000, "missing here", status_failed(t, server.url("/missing"), 404), 0},
        {"/seg?stall", 400, stalled, timed_out, 0.95},         // 800 ms raised to 1000
        {"/seg?stall", 0x80000000u, stalled, timed_out, 0.95}, // doubling wraps to 0: 1000 again
        {"/seg?stall", 1000, stalled, timed_out, 1.9},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.path) + " " + std::to_string(c.duration_ms));
        test_host::reset();
        test_host::keep_pieces = true;
        StderrCapture err;
        double took = 0;
        EXPECT_EQ(fetch(c.path, c.duration_ms, &took), 0);
        EXPECT_GE(took, c.at_least);
        EXPECT_LT(took, c.at_least + 2.0);
        EXPECT_EQ(test_host::received_bytes(false), c.fed);
        expect_logged_once(err, t, c.line);
        EXPECT_EQ(ts_downloader_get_download_bytes(dl), -1); // easy handle released
    }
}

TEST_F(TsDownloader, BandwidthCapsTheReceiveRateInBytesPerSecond)
{
    // 2 Mbit/s is 250,000 bytes/s: libcurl reads up to about 1.6 MB (100
    // reads of 16 KiB) in one pass before it looks at the cap, so the rest of
    // the 3 MB waits until the average is down to the cap, at least 5.6 s in.
    // An uncapped transfer must end well before that; it is mostly copying,
    // which takes one to two seconds where the whole test runs under an
    // emulator on a busy machine.
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
