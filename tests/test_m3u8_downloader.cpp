#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "local_server.h"
#include "m3u8_downloader.h"
#include "stderr_capture.h"
#include "torture.h"

using namespace std::chrono_literals;

namespace {

const std::string kPlaylist = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\nseg0.ts\n";

// A playlist server that remembers the client port of the last request, so a
// test can tell a reused connection from a new one, and one downloader.
class M3u8Downloader : public ::testing::Test {
protected:
    std::atomic<int> last_port{-1};
    std::atomic<bool> release{false};
    LocalServer local; // after what its handlers use, so it stops first
    m3u8_downloader *d = torture_retry((m3u8_downloader *)nullptr, [] { return m3u8_downloader_new(nullptr); });

    void SetUp() override
    {
        ASSERT_NE(d, nullptr);
        httplib::Server &s = local.server();
        struct Route {
            const char *path;
            int status;
            std::string body;
        } routes[] = {{"/pl", 200, kPlaylist},          {"/empty", 200, ""},    {"/big", 200, std::string(200000, 'x')},
                      {"/missing", 404, "missing here"}, {"/nocontent", 204, ""}};
        for (const Route &r : routes)
            s.Get(r.path, [this, r](const httplib::Request &req, httplib::Response &res) {
                last_port = req.remote_port;
                res.status = r.status;
                res.set_content(r.body, "text/plain");
            });
        s.Get("/r1", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/r2"); });
        s.Get("/r2", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/pl", 301); });
        // Sends the first line, then stalls until the test lets go.
        s.Get("/slow", [this](const httplib::Request &, httplib::Response &res) {
            res.set_chunked_content_provider("text/plain", [this](size_t, httplib::DataSink &sink) {
                sink.write("#EXTM3U\n", 8);
                for (auto end = Clock::now() + 10s; !release && Clock::now() < end;)
                    std::this_thread::sleep_for(10ms);
                sink.done();
                return true;
            });
        });
        local.start();
    }
    ~M3u8Downloader() override
    {
        release = true;
        m3u8_downloader_free(d);
    }
    int32_t prepare(const std::string &url, int32_t timeout = 5, int32_t ip_resolve = 0)
    {
        hls_connect_param p = make_param(url, 0, timeout);
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
    auto status = [&](const char *path, int code) {
        return "m3u8_downloader_prepare>: curl_easy_getinfo(" + local.url(path) + ", CURLINFO_RESPONSE_CODE): " +
               std::to_string(code) + "\n\033[0m";
    };
    auto perform = [](const std::string &url, CURLcode code) { // CURLE_OK: any code
        std::string line = "m3u8_downloader_prepare>: curl_easy_perform(" + url + ") failed! ret:";
        return code ? line + std::to_string(code) + "-" + curl_easy_strerror(code) + "\n" : line;
    };
    // message: the one error line, or none at all.
    struct Case { std::string url; int32_t timeout, ip_resolve, result; std::string body, message; double at_least; } cases[] = {
        {local.url("/pl"), 5, 0, 1, kPlaylist, "", 0},
        {local.url("/empty"), 5, 0, 1, "", "", 0},
        {local.url("/r1"), 5, 0, 1, kPlaylist, "", 0}, // redirect chain ending in 200
        {local.url("/pl"), 5, 1, 1, kPlaylist, "", 0}, // IPv4 only
        {local.url("/pl"), 5, 2, 0, "", perform(local.url("/pl"), CURLE_OK), 0}, // IPv6 only
        // What arrived before a failure stays in the buffer.
        {local.url("/missing"), 5, 0, 0, "missing here", status("/missing", 404), 0},
        {local.url("/nocontent"), 5, 0, 0, "", status("/nocontent", 204), 0},
        {local.url("/slow"), 1, 0, 0, "#EXTM3U\n", perform(local.url("/slow"), CURLE_OPERATION_TIMEDOUT), 0.95},
        {dead, 5, 0, 0, "", perform(dead, CURLE_COULDNT_CONNECT), 0},
    };
    EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1); // nothing transferred yet
    EXPECT_EQ(m3u8_downloader_get_buffer(d), nullptr);
    for (const Case &c : cases) {
        StderrCapture err;
        auto start = Clock::now();
        EXPECT_EQ(prepare(c.url, c.timeout, c.ip_resolve), c.result) << c.url;
        double took = std::chrono::duration<double>(Clock::now() - start).count();
        EXPECT_GE(took, c.at_least) << c.url;
        EXPECT_LT(took, c.at_least + 2.0) << c.url;
        EXPECT_EQ(body(), c.body) << c.url;
        // A failure releases the easy handle, so no count is left to query.
        EXPECT_EQ(m3u8_downloader_get_download_bytes(d), c.result ? (int64_t)c.body.size() : -1) << c.url;
        if (c.message.empty()) {
            EXPECT_EQ(err.text(), "") << c.url;
        } else {
            EXPECT_EQ(err.count(c.message), 1u) << err.text();
            EXPECT_EQ(err.reporting_file("m3u8_downloader_prepare"), "m3u8_downloader.cpp") << err.text();
        }
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

    ASSERT_EQ(prepare(local.url("/pl")), 1);
    hls_buffer *buffer = m3u8_downloader_get_buffer(d);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 65536u);
    int first = last_port;
    ASSERT_EQ(prepare(local.url("/big")), 1);
    EXPECT_TRUE(last_port == first || torture_mode()); // reset keeps the open connection
    EXPECT_EQ(buffer->size, 200000u);
    EXPECT_EQ(buffer->capacity, 4u * 65536u);
    ASSERT_EQ(prepare(local.url("/missing")), 0);
    EXPECT_TRUE(last_port == first || torture_mode());

    ASSERT_EQ(prepare(local.url("/pl")), 1);
    int after_failure = last_port;
    EXPECT_NE(after_failure, first); // a new easy handle, so a new connection

    EXPECT_EQ(m3u8_downloader_done(d), 1);
    EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1);
    EXPECT_EQ(body(), kPlaylist); // done keeps the buffer
    ASSERT_EQ(prepare(local.url("/pl")), 1);
    EXPECT_NE(last_port, after_failure);
    EXPECT_NE(last_port, first);
    // Every transfer cleared and reused the same block, never a new one.
    EXPECT_EQ(m3u8_downloader_get_buffer(d), buffer);
    EXPECT_EQ(buffer->capacity, 4u * 65536u);
}
