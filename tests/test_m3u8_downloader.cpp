#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "local_server.h"
#include "m3u8_downloader.h"
#include "stderr_capture.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kPlaylist = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\nseg0.ts\n";

hls_connect_param make_param(const std::string &url, int32_t timeout = 5, int32_t ip_resolve = 0)
{
    hls_connect_param p{};
    snprintf(p.url, sizeof(p.url), "%s", url.c_str());
    p.connect_timeout = 2;
    p.timeout = timeout;
    p.ip_resolve = ip_resolve;
    return p;
}

// A playlist server that remembers the client port of every request, so a
// test can tell a reused connection from a new one.
struct PlaylistServer {
    LocalServer local;
    std::mutex lock;
    std::vector<int> ports;
    std::atomic<bool> release{false};

    PlaylistServer()
    {
        httplib::Server &s = local.server();
        auto remember = [this](const httplib::Request &req) {
            std::lock_guard<std::mutex> g(lock);
            ports.push_back(req.remote_port);
        };
        s.Get("/pl", [=](const httplib::Request &req, httplib::Response &res) {
            remember(req);
            res.set_content(kPlaylist, "application/vnd.apple.mpegurl");
        });
        s.Get("/empty", [](const httplib::Request &, httplib::Response &res) { res.set_content("", "text/plain"); });
        s.Get("/big", [](const httplib::Request &, httplib::Response &res) {
            res.set_content(std::string(200000, 'x'), "text/plain");
        });
        s.Get("/missing", [=](const httplib::Request &req, httplib::Response &res) {
            remember(req);
            res.status = 404;
            res.set_content("missing here", "text/plain");
        });
        s.Get("/nocontent", [](const httplib::Request &, httplib::Response &res) { res.status = 204; });
        s.Get("/broken", [](const httplib::Request &, httplib::Response &res) {
            res.status = 500;
            res.set_content("oops", "text/plain");
        });
        s.Get("/r1", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/r2"); });
        s.Get("/r2", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/pl", 301); });
        // Sends the first line, then stalls until the test lets go.
        s.Get("/slow", [this](const httplib::Request &, httplib::Response &res) {
            res.set_chunked_content_provider("text/plain", [this](size_t, httplib::DataSink &sink) {
                sink.write("#EXTM3U\n", 8);
                auto deadline = Clock::now() + 10s;
                while (!release && Clock::now() < deadline)
                    std::this_thread::sleep_for(10ms);
                sink.done();
                return true;
            });
        });
        local.start();
    }
    ~PlaylistServer() { release = true; }
    std::string url(const std::string &path) { return local.url(path); }
    int last_port()
    {
        std::lock_guard<std::mutex> g(lock);
        return ports.empty() ? -1 : ports.back();
    }
};

std::string body(m3u8_downloader *d)
{
    hls_buffer *b = m3u8_downloader_get_buffer(d);
    return b ? std::string((const char *)b->data, b->size) : "<no buffer>";
}

} // namespace

TEST(M3u8Downloader, StatusTwoHundredStoresTheBodyAndItsCount)
{
    PlaylistServer server;
    m3u8_downloader *d = m3u8_downloader_new(nullptr);
    ASSERT_NE(d, nullptr);
    EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1); // nothing transferred yet
    EXPECT_EQ(m3u8_downloader_get_buffer(d), nullptr);

    struct Case {
        const char *path;
        std::string expect;
    } cases[] = {{"/pl", kPlaylist}, {"/empty", ""}, {"/r1", kPlaylist}, {"/pl", kPlaylist}};
    for (const Case &c : cases) {
        StderrCapture err;
        hls_connect_param p = make_param(server.url(c.path));
        EXPECT_EQ(m3u8_downloader_prepare(d, &p), 1) << c.path;
        EXPECT_EQ(body(d), c.expect) << c.path;
        EXPECT_EQ(m3u8_downloader_get_download_bytes(d), (int64_t)c.expect.size()) << c.path;
        EXPECT_EQ(err.text(), "") << c.path;
    }
    m3u8_downloader_free(d);
}

TEST(M3u8Downloader, OtherFinalStatusesFailWithTheStatusInTheMessage)
{
    PlaylistServer server;
    m3u8_downloader *d = m3u8_downloader_new(nullptr);
    struct Case {
        const char *path;
        long status;
        std::string body;
    } cases[] = {{"/missing", 404, "missing here"}, {"/nocontent", 204, ""}, {"/broken", 500, "oops"}};
    for (const Case &c : cases) {
        hls_connect_param p = make_param(server.url(c.path));
        StderrCapture err;
        EXPECT_EQ(m3u8_downloader_prepare(d, &p), 0) << c.path;
        std::string line = "m3u8_downloader_prepare>: curl_easy_getinfo(" + server.url(c.path) +
                           ", CURLINFO_RESPONSE_CODE): " + std::to_string(c.status) + "\n\033[0m";
        EXPECT_EQ(err.count(line), 1u) << err.text();
        EXPECT_EQ(body(d), c.body) << c.path; // what arrived stays in the buffer
        EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1) << c.path; // handle released
    }
    m3u8_downloader_free(d);
}

TEST(M3u8Downloader, TransferFailuresAreReportedWithLibcurlsCode)
{
    PlaylistServer server;
    m3u8_downloader *d = m3u8_downloader_new(nullptr);

    // A server that stalls mid-body trips the whole-transfer limit of 1 s.
    hls_connect_param p = make_param(server.url("/slow"), 1);
    StderrCapture err;
    auto start = Clock::now();
    EXPECT_EQ(m3u8_downloader_prepare(d, &p), 0);
    double took = std::chrono::duration<double>(Clock::now() - start).count();
    server.release = true;
    EXPECT_GT(took, 0.95);
    EXPECT_LT(took, 3.0);
    EXPECT_TRUE(err.contains("m3u8_downloader_prepare>: curl_easy_perform(" + server.url("/slow") + ") failed! ret:" +
                             std::to_string(CURLE_OPERATION_TIMEDOUT) + "-" +
                             curl_easy_strerror(CURLE_OPERATION_TIMEDOUT) + "\n"))
        << err.text();
    EXPECT_EQ(body(d), "#EXTM3U\n");

    // Nothing listens on the port of a stopped server.
    std::string dead;
    {
        LocalServer gone;
        gone.start();
        dead = gone.url("/pl");
    }
    p = make_param(dead);
    EXPECT_EQ(m3u8_downloader_prepare(d, &p), 0);
    EXPECT_TRUE(err.contains("curl_easy_perform(" + dead + ") failed! ret:" + std::to_string(CURLE_COULDNT_CONNECT) +
                             "-"))
        << err.text();
    m3u8_downloader_free(d);
}

TEST(M3u8Downloader, EasyHandleAndConnectionLiveUntilAFailureOrDone)
{
    PlaylistServer server;
    m3u8_downloader *d = m3u8_downloader_new(nullptr);
    hls_connect_param ok = make_param(server.url("/pl")), missing = make_param(server.url("/missing"));
    StderrCapture err; // keeps the expected 404 line out of the test log

    ASSERT_EQ(m3u8_downloader_prepare(d, &ok), 1);
    int first = server.last_port();
    ASSERT_EQ(m3u8_downloader_prepare(d, &ok), 1);
    EXPECT_EQ(server.last_port(), first); // reset keeps the open connection
    ASSERT_EQ(m3u8_downloader_prepare(d, &missing), 0);
    EXPECT_EQ(server.last_port(), first);

    ASSERT_EQ(m3u8_downloader_prepare(d, &ok), 1);
    int after_failure = server.last_port();
    EXPECT_NE(after_failure, first); // a new easy handle, so a new connection

    EXPECT_EQ(m3u8_downloader_done(d), 1);
    EXPECT_EQ(m3u8_downloader_get_download_bytes(d), -1);
    EXPECT_EQ(body(d), kPlaylist); // done keeps the buffer
    ASSERT_EQ(m3u8_downloader_prepare(d, &ok), 1);
    EXPECT_NE(server.last_port(), after_failure);
    EXPECT_NE(server.last_port(), first);
    m3u8_downloader_free(d);
}

TEST(M3u8Downloader, BufferKeepsItsBlockAcrossPrepares)
{
    PlaylistServer server;
    m3u8_downloader *d = m3u8_downloader_new(nullptr);
    hls_connect_param big = make_param(server.url("/big")), small = make_param(server.url("/pl")),
                      missing = make_param(server.url("/missing"));
    StderrCapture err;
    ASSERT_EQ(m3u8_downloader_prepare(d, &small), 1);
    hls_buffer *buffer = m3u8_downloader_get_buffer(d);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->capacity, 65536u);

    ASSERT_EQ(m3u8_downloader_prepare(d, &big), 1);
    EXPECT_EQ(buffer->size, 200000u);
    EXPECT_EQ(buffer->capacity, 4u * 65536u);
    for (hls_connect_param *p : {&small, &missing, &small}) {
        m3u8_downloader_prepare(d, p);
        EXPECT_EQ(m3u8_downloader_get_buffer(d), buffer); // same record, not a new one
        EXPECT_EQ(buffer->capacity, 4u * 65536u);
    }
    EXPECT_EQ(body(d), kPlaylist); // cleared before each transfer
    m3u8_downloader_free(d);
}

TEST(M3u8Downloader, IpResolveChoosesTheAddressFamily)
{
    struct Case {
        int32_t ip_resolve;
        long option;
        int32_t result_for_ipv4_url;
    } cases[] = {
        {1, CURL_IPRESOLVE_V4, 1},       {2, CURL_IPRESOLVE_V6, 0},      {3, CURL_IPRESOLVE_WHATEVER, 1},
        {0, CURL_IPRESOLVE_WHATEVER, 1}, {-1, CURL_IPRESOLVE_WHATEVER, 1},
    };
    PlaylistServer server;
    m3u8_downloader *d = m3u8_downloader_new(nullptr);
    for (const Case &c : cases) {
        EXPECT_EQ(hls_ip_resolve_option(c.ip_resolve), c.option) << c.ip_resolve;
        hls_connect_param p = make_param(server.url("/pl"), 5, c.ip_resolve);
        StderrCapture err;
        EXPECT_EQ(m3u8_downloader_prepare(d, &p), c.result_for_ipv4_url) << c.ip_resolve;
        EXPECT_EQ(err.contains("curl_easy_perform("), c.result_for_ipv4_url == 0) << err.text();
    }
    m3u8_downloader_free(d);
}

TEST(M3u8Downloader, MissingHandleOrRequestFailsQuietly)
{
    m3u8_downloader *d = m3u8_downloader_new(nullptr);
    hls_connect_param p = make_param("http://127.0.0.1:1/pl");
    StderrCapture err;
    EXPECT_EQ(m3u8_downloader_prepare(nullptr, &p), 0);
    EXPECT_EQ(m3u8_downloader_prepare(d, nullptr), 0);
    EXPECT_EQ(m3u8_downloader_get_download_bytes(nullptr), -1);
    EXPECT_EQ(m3u8_downloader_get_buffer(nullptr), nullptr);
    EXPECT_EQ(m3u8_downloader_done(nullptr), 0);
    EXPECT_EQ(m3u8_downloader_done(d), 1);
    m3u8_downloader_free(nullptr);
    m3u8_downloader_free(d);
    EXPECT_EQ(err.text(), "");
}
