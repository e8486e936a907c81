// The server both downloaders' tests fetch from, with the error lines their
// failed transfers write.
#pragma once

#include <curl/curl.h>
#include <gmock/gmock.h>

#include <atomic>
#include <string>
#include <thread>

#include "local_server.h"
#include "stderr_capture.h"

// Fixed answers (remembering the client port of the last one, so that a test
// can tell a reused connection from a new one), a redirect chain to "/pl", a
// body cut short ("/half") and a segment sent in eight pieces 30 ms apart
// ("/seg"; with "?stall" it stops after the first piece until released).
struct DownloadServer {
    const std::string playlist = "#EXTM3U\n#EXT-X-TARGETDURATION:4\n#EXTINF:4,\nseg0.ts\n";
    std::string segment;
    std::atomic<bool> release{false};
    std::atomic<int> last_port{-1};
    std::atomic<Clock::rep> last_piece_at{0}; // written by the server thread
    LocalServer local;                        // after what its handlers use, so it stops first

    DownloadServer()
    {
        using namespace std::chrono_literals;
        for (char c = 'a'; c < 'i'; ++c)
            segment += std::string(500, c);
        httplib::Server &s = local.server();
        struct Route { const char *path; int status; std::string body; } routes[] = {
            {"/pl", 200, playlist},                 {"/empty", 200, ""}, {"/big", 200, std::string(200000, 'x')},
            {"/blob", 200, std::string(3000000, 'b')}, {"/missing", 404, "missing here"}, {"/nocontent", 204, ""}};
        for (const Route &r : routes)
            s.Get(r.path, [this, r](const httplib::Request &req, httplib::Response &res) {
                last_port = req.remote_port;
                res.status = r.status;
                res.set_content(r.body, "video/mp2t");
            });
        s.Get("/r1", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/r2"); });
        s.Get("/r2", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/pl", 301); });
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
        local.start();
    }
    ~DownloadServer() { release = true; }
    std::string url(const std::string &path) const { return local.url(path); }
};

// The line `<module>_prepare` writes when the transfer of `url` fails with
// `code`; with CURLE_OK, its start for any code.
inline std::string perform_failed(const std::string &module, const std::string &url, CURLcode code)
{
    std::string line = module + "_prepare>: curl_easy_perform(" + url + ") failed! ret:";
    return code ? line + std::to_string(code) + "-" + curl_easy_strerror(code) + "\n\033[0m" : line;
}

// The line `<module>_prepare` writes when the final status is not 200.
inline std::string status_failed(const std::string &module, const std::string &url, int status)
{
    return module + "_prepare>: curl_easy_getinfo(" + url + ", CURLINFO_RESPONSE_CODE): " + std::to_string(status) +
           "\n\033[0m";
}

// `err` holds `line` exactly once, and `<module>_prepare` reports from its
// own source file.
inline void expect_logged_once(const StderrCapture &err, const std::string &module, const std::string &line)
{
    EXPECT_EQ(err.count(line), 1u) << err.text();
    EXPECT_THAT(err.text(), testing::ContainsRegex("<ERROR! ([^ ]*/)?" + module + "\\.cpp:[0-9]+, " + module +
                                                   "_prepare>: "));
}
