#include <gtest/gtest.h>

#include <string>

#include "download_server.h"
#include "m3u8_downloader.h"
#include "torture.h"

namespace {

class M3u8Downloader : public ::testing::Test {
protected:
    DownloadServer server;
    m3u8_downloader *d = torture_retry((m3u8_downloader *)nullptr, [] { return m3u8_downloader_new(nullptr); });

    void SetUp() override { ASSERT_NE(d, nullptr); }
    ~M3u8Downloader() override { m3u8_downloader_free(d); }
    int32_t prepare(const std::string &path, int32_t timeout = 5, int32_t ip_resolve = 0)
    {
        hls_connect_param p = make_param(path[0] == '/' ? server.url(path) : path, 0, timeout);
        p.ip_resolve = ip_resolve;
        // Without memory for the buffer, or to grow it (a write error), the
        // transfer fails.
        return torture_retry(0, [&] { return m3u8_downloader_prepare(d, &p); });
    }
    std::string body()
    {
        hls_buffer *b = m3u8_downloader_get_buffer(d);
        return b ? std::string((const char *)b->data, b->size) : "<no buffer>";
    }
};

} // namespace

TEST_F(M3u8Downloader, OnlyFinalStatusTwoHundredSucceedsAndFailuresSayWhy)
{
    const std::string dead = [] { LocalServer gone; gone.start(); return gone.url("/pl"); }();
    const std::string pl = server.playlist;
    const std::string m = "m3u8_downloader";
    const std::string timed_out = perform_failed(m, server.url("/seg?stall"), CURLE_OPERATION_TIMEDOUT);
    // line: the one error line, or none at all.
    struct Case { std::string path; int32_t timeout, ip, result; std::string body, line; double at_least; } cases[] = {
        {"/pl", 5, 0, 1, pl, "", 0},
        {"/empty", 5, 0, 1, "", "", 0},
        {"/r1", 5, 0, 1, pl, "", 0}, // redirect chain ending in 200
        {"/pl", 5, 1, 1, pl, "", 0}, // IPv4 only
        {"/pl", 5, 2, 0, "", perform_failed(m, server.url("/pl"), CURLE_OK), 0}, // IPv6 only
        // What arrived before a failure stays in the buffer.
        {"/missing", 5, 0, 0, "missing here", status_failed(m, server.url("/missing"), 404), 0},
        {"/nocontent", 5, 0, 0, "", status_failed(m, server.url("/nocontent"), 204), 0},
        {"/seg?stall", 1, 0, 0, server.segment.substr(0, 500), timed_out, 0.95},
        {dead, 5, 0, 0, "", perform_failed(m, dead, CURLE_COULDNT_CONNECT), 0},
    };
    EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1); // nothing transferred yet
    EXPECT_EQ(m3u8_downloader_get_buffer(d), nullptr);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        StderrCapture err;
        auto start = Clock::now();
        EXPECT_EQ(prepare(c.path, c.timeout, c.ip), c.result);
        double took = seconds_between(start, Clock::now());
        EXPECT_GE(took, c.at_least);
        EXPECT_LT(took, c.at_least + 2.0);
        EXPECT_EQ(body(), c.body);
        // A failure releases the easy handle, so no count is left to query.
        EXPECT_EQ(m3u8_downloader_get_download_bytes(d), c.result ? (int64_t)c.body.size() : -1);
        if (c.line.empty())
            EXPECT_EQ(err.text(), "");
        else
            expect_logged_once(err, m, c.line);
    }
}

TEST_F(M3u8Downloader, HandleConnectionAndBufferLiveAcrossTransfersUntilFailureOrDone)
{
    StderrCapture err;
    hls_connect_param p{};
    EXPECT_EQ(m3u8_downloader_prepare(nullptr, &p), 0); // missing handle or request: 0, quietly
    EXPECT_EQ(m3u8_downloader_prepare(d, nullptr), 0);
    EXPECT_EQ(m3u8_downloader_get_download_bytes(nullptr), -1);
    EXPECT_EQ(m3u8_downloader_get_buffer(nullptr), nullptr);
    EXPECT_EQ(m3u8_downloader_done(nullptr), 0);
    EXPECT_EQ(m3u8_downloader_done(d), 1);
    m3u8_downloader_free(nullptr);
    EXPECT_EQ(err.text(), "");

    ASSERT_EQ(prepare("/pl"), 1);
    hls_buffer *buffer = m3u8_downloader_get_buffer(d);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 65536u);
    int first = server.last_port;
    ASSERT_EQ(prepare("/big"), 1);
    EXPECT_TRUE(server.last_port == first || torture_mode()); // reset keeps the open connection
    EXPECT_EQ(buffer->size, 200000u);
    EXPECT_EQ(buffer->capacity, 4u * 65536u);
    ASSERT_EQ(prepare("/missing"), 0);
    EXPECT_TRUE(server.last_port == first || torture_mode());

    ASSERT_EQ(prepare("/pl"), 1);
    int after_failure = server.last_port;
    EXPECT_NE(after_failure, first); // a new easy handle, so a new connection

    EXPECT_EQ(m3u8_downloader_done(d), 1);
    EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1);
    EXPECT_EQ(body(), server.playlist); // done keeps the buffer
    ASSERT_EQ(prepare("/pl"), 1);
    EXPECT_NE(server.last_port, after_failure);
    EXPECT_NE(server.last_port, first);
    // Every transfer cleared and reused the same block, never a new one.
    EXPECT_EQ(m3u8_downloader_get_buffer(d), buffer);
    EXPECT_EQ(buffer->capacity, 4u * 65536u);
}
