// How a channel finds out what its URL serves: the byte sniffer at its
// boundaries, the Content-Type table, one probe attempt against real
// responses, and the download thread's retry pause and naming.
#include <dirent.h>
#include <signal.h>

#include <fstream>

#include "channel_stream_fixture.h"
#include "hls_demux.h"
#include "hls_demux_stream.h"

namespace {

std::string junk(size_t n) { return std::string(n, 'z'); }

TEST(ProbeSniffer, DecidesOnAccumulatedBytesAtEachBoundary)
{
    const std::string ts = ts_sync_prefix(752);
    std::string ts_bad_third = ts.substr(0, 564);
    ts_bad_third[376] = 'x';
    std::string ts_bad_partial = ts.substr(0, 565);
    ts_bad_partial[564] = '\0';
    std::string ts_bad_fourth = ts;
    ts_bad_fourth[564] = 'x';
    std::string ts_with_marker = ts.substr(0, 564);
    ts_with_marker.replace(10, 7, "#EXTM3U");

    struct Case {
        const char *what;
        std::vector<std::string> pieces;
        int stop_at;      // piece after which the writer returned 0; -1: never
        int32_t protocol; // HLS_PROTOCOL_*
    } cases[] = {
        {"FLV at once", {"FLV\x01"}, 0, HLS_PROTOCOL_FLV},
        {"FLV one byte at a time", {"F", "L", "V"}, 2, HLS_PROTOCOL_FLV},
        {"FL then not V", {"FL", "X", junk(20)}, -1, HLS_PROTOCOL_UNKNOWN},
        {"FLV wins over a marker", {"FLV#EXTM3U"}, 0, HLS_PROTOCOL_FLV},
        {"563 bytes of packets", {ts.substr(0, 563)}, -1, HLS_PROTOCOL_UNKNOWN},
        {"564th byte completes three packets", {ts.substr(0, 563), ts.substr(563, 1)}, 1, HLS_PROTOCOL_TS},
        {"bad third sync byte", {ts_bad_third}, -1, HLS_PROTOCOL_UNKNOWN},
        {"partial fourth packet without sync", {ts_bad_partial}, -1, HLS_PROTOCOL_UNKNOWN},
        {"partial fourth packet with sync", {ts.substr(0, 565)}, 0, HLS_PROTOCOL_TS},
        {"fourth packet without sync", {ts_bad_fourth}, -1, HLS_PROTOCOL_UNKNOWN},
        {"TS wins over a marker", {ts_with_marker}, 0, HLS_PROTOCOL_TS},
        {"marker at start", {"#EXTM3U\n"}, 0, HLS_PROTOCOL_M3U8},
        {"marker after BOM", {"\xEF\xBB\xBF#EXTM3U\n"}, 0, HLS_PROTOCOL_M3U8},
        {"marker split across pieces", {"\r\n\n#EXT", "M3U\n"}, 1, HLS_PROTOCOL_M3U8},
        {"marker split one byte each", {"#", "E", "X", "T", "M", "3", "U"}, 6, HLS_PROTOCOL_M3U8},
        {"marker incomplete", {"#EXTM3", "u"}, -1, HLS_PROTOCOL_UNKNOWN},
        {"4096 bytes: still listening", {junk(4096)}, -1, HLS_PROTOCOL_UNKNOWN},
        {"4097th byte gives up", {junk(4096), "z", "#EXTM3U"}, 1, HLS_PROTOCOL_UNKNOWN},
        {"marker in the piece that passes 4096", {junk(4000), junk(90) + "#EXTM3U"}, 1, HLS_PROTOCOL_M3U8},
        {"marker after 4096 in one piece", {junk(5000) + "#EXTM3U"}, 0, HLS_PROTOCOL_M3U8},
        {"early marker found late", {"ab#EXTM", "3U" + junk(5000)}, 1, HLS_PROTOCOL_M3U8},
    };
    for (const Case &c : cases) {
        probe_result probe{};
        int stopped = -1;
        std::string fed;
        for (size_t i = 0; i < c.pieces.size() && stopped < 0; ++i) {
            std::string piece = c.pieces[i];
            fed += piece;
            size_t taken = protocol_writer(&piece[0], 1, piece.size(), &probe);
            if (taken == 0)
                stopped = (int)i;
            else
                EXPECT_EQ(taken, piece.size()) << c.what;
        }
        EXPECT_EQ(stopped, c.stop_at) << c.what;
        EXPECT_EQ(probe.protocol, c.protocol) << c.what;
        ASSERT_EQ(probe.size, fed.size()) << c.what;
        EXPECT_EQ(std::string((const char *)probe.data, probe.size), fed) << c.what;
        free(probe.data);
    }
}

// One probe attempt against a real server, on a record that no thread runs.
class ProbeAttempt : public ::testing::Test {
protected:
    void SetUp() override { curl_global_init(CURL_GLOBAL_ALL); }
    void TearDown() override { curl_global_cleanup(); }

    int32_t probe(const std::string &url)
    {
        http_demux record{};
        record.param = make_param(url);
        probe_result result{};
        int32_t protocol = get_url_actual_protocol(&record, &result);
        EXPECT_EQ(result.data, nullptr) << "probe bytes not released";
        EXPECT_EQ(protocol, result.protocol);
        return protocol;
    }
};

TEST_F(ProbeAttempt, BytesWinOverContentTypeWhichDecidesOtherwise)
{
    StderrCapture err;
    StreamServer srv;
    struct Case {
        const char *path;
        std::string body;
        const char *content_type;
        int32_t protocol;
    } cases[] = {
        {"/ts563", ts_sync_prefix(563), "text/html", HLS_PROTOCOL_UNSUPPORTED},
        {"/ts564", ts_sync_prefix(564), "text/html", HLS_PROTOCOL_TS},
        {"/flv", "FLV" + junk(100), "text/html", HLS_PROTOCOL_FLV},
        {"/fl", "FLX" + junk(100), "video/MP2T", HLS_PROTOCOL_TS},
        {"/bom", "\xEF\xBB\xBF#EXTM3U\n#EXT-X-VERSION:3\n", "video/x-flv", HLS_PROTOCOL_M3U8},
        {"/blank", "\n\r\n  \n#EXTM3U\n", "text/html", HLS_PROTOCOL_M3U8},
        {"/lower", junk(5000), "video/mp2t", HLS_PROTOCOL_TS},
        {"/html", junk(5000), "text/html", HLS_PROTOCOL_UNSUPPORTED},
        {"/flvtype", junk(10), "VIDEO/X-FLV", HLS_PROTOCOL_FLV},
        {"/m1", junk(10), "application/x-mpegurl", HLS_PROTOCOL_M3U8},
        {"/m2", junk(10), "Application/Vnd.Apple.MpegURL", HLS_PROTOCOL_M3U8},
        {"/m3", junk(10), "audio/mpegurl", HLS_PROTOCOL_M3U8},
        {"/m4", junk(10), "AUDIO/X-MPEGURL", HLS_PROTOCOL_M3U8},
        {"/param", junk(10), "video/MP2T; charset=x", HLS_PROTOCOL_UNSUPPORTED},
        {"/empty", "", "video/x-flv", HLS_PROTOCOL_FLV},
    };
    for (const Case &c : cases) {
        std::string body = c.body, type = c.content_type, path = c.path;
        srv.server().Get(path, [&srv, body, type, path](const httplib::Request &, httplib::Response &res) {
            srv.note_request(path);
            res.set_content(body, type);
        });
    }
    // Redirects are followed; the final response decides.
    srv.server().Get("/hop", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/hop2"); });
    srv.server().Get("/hop2", [](const httplib::Request &, httplib::Response &res) { res.set_redirect("/ts564"); });
    srv.start();

    for (const Case &c : cases) {
        size_t before = err.count("Not Supported");
        EXPECT_EQ(probe(srv.url(c.path)), c.protocol) << c.path;
        EXPECT_EQ(srv.requests(c.path), 1u) << c.path;
        bool unsupported = c.protocol == HLS_PROTOCOL_UNSUPPORTED;
        EXPECT_EQ(err.count("Not Supported") - before, unsupported ? 1u : 0u) << c.path;
        if (unsupported) {
            std::string line = "get_url_actual_protocol>: Not Supported Content-Type[" + std::string(c.content_type) +
                               "] for url[" + srv.url(c.path) + "]\n";
            EXPECT_TRUE(err.contains(line)) << err.text();
        }
    }
    EXPECT_EQ(probe(srv.url("/hop")), HLS_PROTOCOL_TS);
    EXPECT_EQ(srv.requests("/ts564"), 2u);
}

TEST_F(ProbeAttempt, GivesUpAfter4096BytesAndStopsEarlyOnASignature)
{
    StreamServer srv;
    // Endless bodies: only an early decision ends these transfers quickly.
    srv.stream("/late", "video/x-flv", [](int) {
        StreamPlan plan = plan_of(junk(4097), SIZE_MAX, false, "#EXTM3U");
        plan.interval = 100ms; // the marker comes well after the first 4097 bytes
        return plan;
    });
    srv.stream("/inside", "video/x-flv", [](int) { return plan_of(junk(4090) + "#EXTM3U"); });
    srv.stream("/endless-ts", "text/html", [](int) { return plan_of(ts_sync_prefix()); });
    srv.start();
    struct Case {
        const char *path;
        int32_t protocol;
    } cases[] = {
        {"/late", HLS_PROTOCOL_FLV},
        {"/inside", HLS_PROTOCOL_M3U8},
        {"/endless-ts", HLS_PROTOCOL_TS},
    };
    for (const Case &c : cases) {
        auto start = Clock::now();
        EXPECT_EQ(probe(srv.url(c.path)), c.protocol) << c.path;
        EXPECT_LT(seconds_between(start, Clock::now()), 2.0) << c.path << ": transfer not cut short";
    }
}

TEST_F(ProbeAttempt, NoContentTypeOrRefusedConnectionLeavesItOpen)
{
    StderrCapture err;
    RawServer refused;
    EXPECT_EQ(probe(refused.url("/")), HLS_PROTOCOL_UNKNOWN);
    RawServer bare;
    bare.listen_and_answer("HTTP/1.1 200 OK\r\nContent-Length: 20\r\nConnection: close\r\n\r\n" + junk(20));
    EXPECT_EQ(probe(bare.url("/")), HLS_PROTOCOL_UNKNOWN);
    EXPECT_EQ(bare.request_times().size(), 1u);
    EXPECT_EQ(err.text(), "");
}

class DownloadThread : public ClientTest {};

bool thread_named(const std::string &name)
{
    DIR *dir = opendir("/proc/self/task");
    if (!dir)
        return false;
    bool found = false;
    while (dirent *entry = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string line;
        if (std::getline(comm, line) && line == name)
            found = true;
    }
    closedir(dir);
    return found;
}

TEST_F(DownloadThread, UndecidedProbeRepeatsEveryFiveSecondsUntilClosed)
{
    StderrCapture err;
    // Channel 2: answers without a Content-Type. Channel 3: refuses at first,
    // then answers with a type the library does not play.
    RawServer bare, late;
    bare.listen_and_answer("HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\nabcd");
    hls_connect_param bare_param = make_param(bare.url("/"));
    hls_connect_param late_param = make_param(late.url("/"));
    auto connected = Clock::now();
    ASSERT_EQ(hls_client_connect(2, &bare_param), 0);
    ASSERT_EQ(hls_client_connect(3, &late_param), 0);

    ASSERT_TRUE(test_host::wait_for([&] { return bare.request_times().size() == 1; }, 3s));
    EXPECT_TRUE(test_host::wait_for([] { return thread_named("httpdown[2]") && thread_named("httpdown[3]"); }, 2s));
    std::this_thread::sleep_for(500ms);
    late.listen_and_answer("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 4\r\n\r\nabcd");

    ASSERT_TRUE(test_host::wait_for([&] { return bare.request_times().size() == 2; }, 8s));
    auto bare_times = bare.request_times();
    double gap = seconds_between(bare_times[0], bare_times[1]);
    EXPECT_GE(gap, 4.9);
    EXPECT_LT(gap, 6.5);

    ASSERT_TRUE(test_host::wait_for([&] { return err.contains("Not Supported Content-Type[text/plain]"); }, 3s));
    ASSERT_EQ(late.request_times().size(), 1u);
    EXPECT_GE(seconds_between(connected, late.request_times()[0]), 4.9);

    // Channel 2 is pausing again: closing it ends the pause at once.
    std::this_thread::sleep_for(100ms);
    auto start = Clock::now();
    EXPECT_EQ(hls_client_disconnect(2), 0);
    EXPECT_LT(seconds_between(start, Clock::now()), 0.2);
    EXPECT_FALSE(thread_named("httpdown[2]"));
    EXPECT_EQ(hls_client_disconnect(3), 0);
    EXPECT_EQ(bare.request_times().size(), 2u);
    EXPECT_EQ(test_host::events().size(), 0u); // no demultiplexer, no status
}

TEST_F(DownloadThread, PlaylistGoesNeitherToTheDirectPathsNorToTheContentType)
{
    // The bytes say playlist while the header says FLV: the thread must leave
    // the direct paths alone (no FLV demultiplexer, nothing pushed into any
    // demultiplexer, no unsupported type). What the playlist path does next
    // is its own business; only its first request is counted here.
    StderrCapture err;
    StreamServer srv;
    srv.server().Get("/live", [&srv](const httplib::Request &, httplib::Response &res) {
        srv.note_request("/live");
        res.set_content("\xEF\xBB\xBF\n#EXTM3U\n#EXT-X-TARGETDURATION:1\n", "video/x-flv");
    });
    srv.start();
    hls_connect_param param = make_param(srv.url("/live"));
    ASSERT_EQ(hls_client_connect(0, &param), 0);
    ASSERT_TRUE(test_host::wait_for([&] { return srv.requests("/live") >= 1; }, 3s));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(test_host::count([](const HostEvent &e) { return e.flv || e.kind == HostEvent::Put; }), 0u);
    EXPECT_FALSE(err.contains("Not Supported"));
    EXPECT_FALSE(err.contains("download_data_by_"));
    EXPECT_EQ(hls_client_disconnect(0), 0);
}

std::atomic<int> g_signals{0};
void count_signal(int) { ++g_signals; }

TEST(HalSleep, ResumesAfterSignalsAndRejectsWholeSeconds)
{
    struct sigaction action{}, old{};
    action.sa_handler = count_signal; // no SA_RESTART: nanosleep returns EINTR
    sigaction(SIGUSR1, &action, &old);
    pthread_t sleeper = pthread_self();
    std::atomic<bool> done{false};
    std::thread pester([&] {
        while (!done) {
            pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(1ms);
        }
    });
    int before = g_signals;
    auto start = Clock::now();
    int32_t result = hal_usleep(60000);
    double slept = seconds_between(start, Clock::now());
    int during = g_signals - before;
    done = true;
    pester.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(result, 0);
    EXPECT_GT(during, 3);    // the sleep really was interrupted
    EXPECT_GE(slept, 0.060); // and still lasted the whole time

    StderrCapture err;
    EXPECT_EQ(hal_usleep(1000000), -1);
    EXPECT_TRUE(err.contains("hal_usleep>: nanosleep errno 22\n")) << err.text();
    EXPECT_EQ(hal_usleep(999999 - 999000), 0);
}

} // namespace
