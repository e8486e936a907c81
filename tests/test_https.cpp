#include <curl/curl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <memory>
#include <string>

#include "hls_host_demux.h"
#include "hls_transfer.h"
#include "local_server.h"
#include "m3u8_downloader.h"
#include "stderr_capture.h"
#include "test_host.h"
#include "ts_downloader.h"

namespace {

// A throw-away self-signed certificate for 127.0.0.1 and localhost, a TLS
// server using it, and CA paths of every kind in one temporary directory.
std::string dir;
std::unique_ptr<BasicLocalServer<httplib::SSLServer>> local;

std::string at(const char *name) { return dir + "/" + name; }

class Https : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/hls-https-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir = tmpl;
        // A CA directory is searched by subject hash: <hash>.0 names the file.
        const std::string script =
            "cd " + dir + " && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
            " -subj /CN=localhost -addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout key.pem -out cert.pem"
            " 2>/dev/null && mkdir hashed empty && ln -s ../cert.pem hashed/$(openssl x509 -hash -noout -in cert.pem).0"
            " && ln -s hashed link && ln -s cert.pem file-link && ln -s gone dangling && mkfifo fifo";
        ASSERT_EQ(system(script.c_str()), 0);
        local.reset(new BasicLocalServer<httplib::SSLServer>(at("cert.pem").c_str(), at("key.pem").c_str()));
        ASSERT_TRUE(local->server().is_valid());
        local->server().Get("/pl", [](const httplib::Request &, httplib::Response &res) {
            res.set_content("#EXTM3U\n", "application/vnd.apple.mpegurl");
        });
        local->server().Get("/seg.ts", [](const httplib::Request &, httplib::Response &res) {
            res.set_content(std::string(3000, 't'), "video/mp2t");
        });
        local->start();
    }

    static void TearDownTestSuite()
    {
        local.reset();
        ASSERT_EQ(system(("rm -rf " + dir).c_str()), 0);
    }
};

hls_connect_param param(const std::string &scheme, const char *path)
{
    hls_connect_param p = make_param(scheme + "://127.0.0.1:" + std::to_string(local->port()) + path, 0, 30);
    // Both ends of every handshake run in this process, and the client also
    // reads the system's whole CA bundle (libcurl's default CA file stays
    // set beside a CA directory). Under an emulator on a busy machine that
    // takes seconds, so the limits leave room; nothing here waits for them.
    p.connect_timeout = 30;
    return p;
}

} // namespace

TEST_F(Https, CaPathKindDecidesVerificationOfPlaylistAndSegmentTransfers)
{
    // check: what check_ca_path_valid returns and stores (7: left untouched);
    // an empty ca_path: none at all.
    struct Case { std::string ca_path; const char *scheme; int32_t check, is_dir, expect; } cases[] = {
        {at("cert.pem"), "https", 1, 0, 1},  // the certificate as CA file
        {at("file-link"), "https", 1, 0, 1}, // a symbolic link to it
        {at("hashed"), "https", 1, 1, 1},    // a CA directory holding it
        {at("link"), "https", 1, 1, 1},      // a symbolic link to that directory
        {at("empty"), "https", 1, 1, 0},     // a CA directory without it
        // Nothing usable at the CA path: verification off.
        {at("none"), "https", 0, 7, 1},
        {at("dangling"), "https", 0, 7, 1},
        {at("fifo"), "https", 0, 7, 1},
        {"/dev/null", "https", 0, 7, 1},
        {"", "https", 0, 7, 1},
        // A capitalised scheme is left to libcurl's own defaults, which
        // verify against the system store and so reject this certificate.
        {at("none"), "HTTPS", 0, 7, 0},
    };
    const std::string rejected = "ret:" + std::to_string(CURLE_PEER_FAILED_VERIFICATION) + "-";
    for (const Case &c : cases) {
        const char *ca_path = c.ca_path.empty() ? nullptr : c.ca_path.c_str();
        int32_t is_dir = 7;
        if (ca_path) {
            EXPECT_EQ(check_ca_path_valid(ca_path, &is_dir), c.check) << c.ca_path;
            EXPECT_EQ(is_dir, c.is_dir) << c.ca_path;
        }
        StderrCapture err;
        m3u8_downloader *d = m3u8_downloader_new(ca_path);
        hls_connect_param p = param(c.scheme, "/pl");
        EXPECT_EQ(m3u8_downloader_prepare(d, &p), c.expect) << c.ca_path << " " << c.scheme;
        hls_buffer *b = m3u8_downloader_get_buffer(d);
        EXPECT_EQ(std::string((const char *)b->data, b->size), c.expect ? "#EXTM3U\n" : "") << c.ca_path;
        m3u8_downloader_free(d);

        test_host::reset();
        test_host::keep_pieces = true;
        void *demux = ts_demux_new([](void *, frame_info *, uint8_t *, void *) { return 0; }, nullptr);
        ts_downloader *t = ts_downloader_new(demux, ca_path);
        p = param(c.scheme, "/seg.ts");
        EXPECT_EQ(ts_downloader_prepare(t, &p, 15000), c.expect) << c.ca_path << " " << c.scheme; // 30 s limit
        EXPECT_EQ(test_host::received_bytes(false), c.expect ? std::string(3000, 't') : "") << c.ca_path;
        ts_downloader_free(t);
        ts_demux_free(demux);
        EXPECT_EQ(err.count(rejected), c.expect ? 0u : 2u) << err.text();
    }
}

TEST(TransferSettings, IpResolveMapsOneToV4TwoToV6AndTheRestToAny)
{
    const std::pair<int32_t, long> cases[] = {{1, CURL_IPRESOLVE_V4},       {2, CURL_IPRESOLVE_V6},
                                              {3, CURL_IPRESOLVE_WHATEVER}, {0, CURL_IPRESOLVE_WHATEVER},
                                              {-1, CURL_IPRESOLVE_WHATEVER}};
    for (const auto &c : cases)
        EXPECT_EQ(hls_ip_resolve_option(c.first), c.second) << c.first;
}
