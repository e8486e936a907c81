#include <curl/curl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <httplib.h>

#include "hls_host_demux.h"
#include "m3u8_downloader.h"
#include "stderr_capture.h"
#include "test_host.h"
#include "ts_downloader.h"

namespace {

std::string run(const std::string &command)
{
    std::string out;
    FILE *pipe = popen(command.c_str(), "r");
    if (!pipe)
        return out;
    char chunk[256];
    size_t n;
    while ((n = fread(chunk, 1, sizeof(chunk), pipe)) > 0)
        out.append(chunk, n);
    pclose(pipe);
    return out;
}

// A throw-away self-signed certificate for 127.0.0.1 and localhost, a TLS
// server using it, and the CA paths the tests hand to the downloaders.
class Https : public ::testing::Test {
protected:
    static std::string dir, cert, key, hashed_dir, empty_dir, dir_link, fifo;
    static std::unique_ptr<httplib::SSLServer> server;
    static std::thread thread;
    static int port;

    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/hls-https-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        cert = dir + "/cert.pem";
        key = dir + "/key.pem";
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=localhost"
            " -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout " + key + " -out " + cert + " 2>/dev/null");
        // A CA directory is searched by subject hash: <hash>.0 names the file.
        std::string hash = run("openssl x509 -hash -noout -in " + cert);
        hash.erase(hash.find_last_not_of("\n") + 1);
        hashed_dir = dir + "/hashed";
        empty_dir = dir + "/empty";
        dir_link = dir + "/link";
        fifo = dir + "/fifo";
        mkdir(hashed_dir.c_str(), 0700);
        mkdir(empty_dir.c_str(), 0700);
        ASSERT_EQ(symlink(cert.c_str(), (hashed_dir + "/" + hash + ".0").c_str()), 0);
        ASSERT_EQ(symlink(hashed_dir.c_str(), dir_link.c_str()), 0);
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);

        server.reset(new httplib::SSLServer(cert.c_str(), key.c_str()));
        ASSERT_TRUE(server->is_valid()) << "certificate generation failed";
        server->Get("/pl", [](const httplib::Request &, httplib::Response &res) {
            res.set_content("#EXTM3U\n", "application/vnd.apple.mpegurl");
        });
        server->Get("/seg.ts", [](const httplib::Request &, httplib::Response &res) {
            res.set_content(std::string(3000, 't'), "video/mp2t");
        });
        port = server->bind_to_any_port("127.0.0.1");
        ASSERT_GT(port, 0);
        thread = std::thread([] { server->listen_after_bind(); });
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!server->is_running() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    static void TearDownTestSuite()
    {
        if (thread.joinable()) {
            server->stop();
            thread.join();
        }
        server.reset();
        run("rm -rf " + dir);
    }

    static std::string url(const std::string &scheme, const std::string &path)
    {
        return scheme + "://127.0.0.1:" + std::to_string(port) + path;
    }

    static hls_connect_param param(const std::string &u)
    {
        hls_connect_param p{};
        snprintf(p.url, sizeof(p.url), "%s", u.c_str());
        p.connect_timeout = 2;
        p.timeout = 5;
        return p;
    }
};

std::string Https::dir, Https::cert, Https::key, Https::hashed_dir, Https::empty_dir, Https::dir_link, Https::fifo;
std::unique_ptr<httplib::SSLServer> Https::server;
std::thread Https::thread;
int Https::port = 0;

} // namespace

TEST_F(Https, CertificateRuleDecidesPlaylistTransfers)
{
    const std::string missing = dir + "/no-such-path";
    struct Case {
        const char *what;
        const char *ca_path;
        const char *scheme;
        int32_t expect;
    } cases[] = {
        {"certificate as CA file", cert.c_str(), "https", 1},
        {"CA directory holding it", hashed_dir.c_str(), "https", 1},
        {"symbolic link to that directory", dir_link.c_str(), "https", 1},
        {"CA directory without it", empty_dir.c_str(), "https", 0},
        {"missing CA path: verification off", missing.c_str(), "https", 1},
        {"pipe as CA path: verification off", fifo.c_str(), "https", 1},
        {"no CA path: verification off", nullptr, "https", 1},
        // A capitalised scheme is left to libcurl's own defaults, which
        // verify against the system store and so reject this certificate.
        {"capitalised scheme", missing.c_str(), "HTTPS", 0},
    };
    for (const Case &c : cases) {
        m3u8_downloader *d = m3u8_downloader_new(c.ca_path);
        hls_connect_param p = param(url(c.scheme, "/pl"));
        StderrCapture err;
        EXPECT_EQ(m3u8_downloader_prepare(d, &p), c.expect) << c.what;
        if (c.expect) {
            hls_buffer *b = m3u8_downloader_get_buffer(d);
            EXPECT_EQ(std::string((const char *)b->data, b->size), "#EXTM3U\n") << c.what;
        } else {
            EXPECT_TRUE(err.contains("ret:" + std::to_string(CURLE_PEER_FAILED_VERIFICATION) + "-")) << c.what << "\n"
                                                                                                     << err.text();
        }
        m3u8_downloader_free(d);
    }
}

TEST_F(Https, CertificateRuleDecidesSegmentTransfers)
{
    struct Case {
        const char *ca_path;
        int32_t expect;
        size_t fed;
    } cases[] = {{cert.c_str(), 1, 3000}, {empty_dir.c_str(), 0, 0}, {nullptr, 1, 3000}};
    for (const Case &c : cases) {
        test_host::reset();
        void *demux = ts_demux_new([](void *, frame_info *, uint8_t *, void *) { return 0; }, nullptr);
        ts_downloader *d = ts_downloader_new(demux, c.ca_path);
        hls_connect_param p = param(url("https", "/seg.ts"));
        StderrCapture err;
        EXPECT_EQ(ts_downloader_prepare(d, &p, 2000), c.expect) << (c.ca_path ? c.ca_path : "null");
        size_t fed = 0;
        for (const HostEvent &e : test_host::events())
            fed += e.kind == HostEvent::Put ? (size_t)e.value : 0;
        EXPECT_EQ(fed, c.fed) << (c.ca_path ? c.ca_path : "null");
        ts_downloader_free(d);
        ts_demux_free(demux);
    }
}

TEST_F(Https, CaPathCheckAcceptsDirectoriesAndRegularFilesOnly)
{
    const std::string file_link = dir + "/file-link", dangling = dir + "/dangling";
    ASSERT_EQ(symlink(cert.c_str(), file_link.c_str()), 0);
    ASSERT_EQ(symlink((dir + "/gone").c_str(), dangling.c_str()), 0);
    struct Case {
        std::string path;
        int32_t result, is_dir; // is_dir starts at 7: 7 means untouched
    } cases[] = {
        {hashed_dir, 1, 1}, {cert, 1, 0},     {dir_link, 1, 1},         {file_link, 1, 0},
        {dir + "/none", 0, 7}, {dangling, 0, 7}, {fifo, 0, 7}, {"/dev/null", 0, 7},
    };
    for (const Case &c : cases) {
        int32_t is_dir = 7;
        EXPECT_EQ(check_ca_path_valid(c.path.c_str(), &is_dir), c.result) << c.path;
        EXPECT_EQ(is_dir, c.is_dir) << c.path;
    }
}
