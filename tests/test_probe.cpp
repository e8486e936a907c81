// How a channel finds out what its URL serves: the byte sniffer at its
// boundaries, the Content-Type table, one probe attempt against real
// responses, and the download thread's retry pause and naming.
#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include "channel_stream.h"
#include "hls_demux.h"
#include "hls_demux_stream.h"

using namespace ::testing;

namespace {

std::string junk(size_t n) { return std::string(n, 'z'); }

TEST(ProbeSniffer, DecidesOnAccumulatedBytesAtEachBoundary)
{
    const std::string ts = ts_sync_prefix(752);
    auto edit = [](std::string s, size_t at, const std::string &with) { return s.replace(at, with.size(), with); };

    // stop_at: the piece after which the writer returned 0 (-1: never).
    struct Case { const char *what; std::vector<std::string> pieces; int stop_at; int32_t protocol; } cases[] = {
        {"FLV at once", {"FLV\x01"}, 0, HLS_PROTOCOL_FLV},
        {"FLV one byte at a time", {"F", "L", "V"}, 2, HLS_PROTOCOL_FLV},
        {"FL then not V", {"FL", "X", junk(20)}, -1, HLS_PROTOCOL_UNKNOWN},
        {"FLV wins over a marker", {"FLV#EXTM3U"}, 0, HLS_PROTOCOL_FLV},
        {"563 bytes of packets", {ts.substr(0, 563)}, -1, HLS_PROTOCOL_UNKNOWN},
        {"564th byte completes three packets", {ts.substr(0, 563), ts.substr(563, 1)}, 1, HLS_PROTOCOL_TS},
        {"bad third sync byte", {edit(ts.substr(0, 564), 376, "x")}, -1, HLS_PROTOCOL_UNKNOWN},
        {"partial fourth packet without sync", {edit(ts.substr(0, 565), 564, std::string(1, 0))}, -1, HLS_PROTOCOL_UNKNOWN},
        {"partial fourth packet with sync", {ts.substr(0, 565)}, 0, HLS_PROTOCOL_TS},
        {"fourth packet without sync", {edit(ts, 564, "x")}, -1, HLS_PROTOCOL_UNKNOWN},
        {"TS wins over a marker", {edit(ts.substr(0, 564), 10, "#EXTM3U")}, 0, HLS_PROTOCOL_TS},
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

class ProbeAttempt : public ClientTest {};

TEST_F(ProbeAttempt, SniffedBytesWinAndTheContentTypeDecidesOtherwise)
{
    StderrCapture err;
    Site site;
    const size_t kEndless = SIZE_MAX;
    const int32_t ts = HLS_PROTOCOL_TS, flv = HLS_PROTOCOL_FLV;
    const int32_t m3u8 = HLS_PROTOCOL_M3U8, none = HLS_PROTOCOL_UNSUPPORTED;
    // by_type: what the Content-Type alone decides (a redirect's final page is
    // text/html), the verdict when the probe could not keep its bytes.
    struct Case { const char *path; Reply reply; int32_t protocol, by_type; } cases[] = {
        {"/ts563", {ts_sync_prefix(563), "text/html"}, none, none},
        {"/ts564", {ts_sync_prefix(564), "text/html"}, ts, none},
        {"/fl", {"FLX" + junk(100), "video/MP2T"}, ts, ts},
        {"/bom", {"\xEF\xBB\xBF#EXTM3U\n#EXT-X-VERSION:3\n", "video/x-flv"}, m3u8, flv},
        {"/lower", {junk(5000), "video/mp2t"}, ts, ts},
        {"/html", {junk(5000), "text/html"}, none, none},
        {"/flvtype", {junk(10), "VIDEO/X-FLV"}, flv, flv},
        {"/m1", {junk(10), "application/x-mpegurl"}, m3u8, m3u8},
        {"/m2", {junk(10), "Application/Vnd.Apple.MpegURL"}, m3u8, m3u8},
        {"/m3", {junk(10), "audio/mpegurl"}, m3u8, m3u8},
        {"/m4", {junk(10), "AUDIO/X-MPEGURL"}, m3u8, m3u8},
        {"/param", {junk(10), "video/MP2T; charset=x"}, none, none},
        {"/empty", {"", "video/x-flv"}, flv, flv},
        // Redirects are followed; the final response decides.
        {"/hop", {"", "", 302, 0, 0, false, "/hop2"}, ts, none},
        {"/hop2", {"", "", 302, 0, 0, false, "/ts564"}, ts, none},
        // Endless bodies: only an early decision ends these transfers in time.
        {"/endless-ts", {ts_sync_prefix(), "text/html", 200, 0, kEndless}, ts, none},
        {"/gives-up", {junk(4097), "video/x-flv", 200, 0, kEndless}, flv, flv},
        {"/inside", {junk(4090) + "#EXTM3U", "video/x-flv", 200, 0, kEndless}, m3u8, flv},
    };
    for (const Case &c : cases)
        site.on(c.path, c.reply);
    for (const Case &c : cases) {
        size_t before = err.count("Not Supported");
        auto start = Clock::now();
        const bool failed_before = torture_mode();
        int32_t protocol = probe(site.url(c.path));
        const bool by_type = !failed_before && torture_mode();
        int32_t want = by_type ? c.by_type : c.protocol;
        EXPECT_EQ(protocol, want) << c.path;
        EXPECT_LT(seconds_between(start, Clock::now()), 2.0) << c.path << ": transfer not cut short";
        bool unsupported = want == HLS_PROTOCOL_UNSUPPORTED;
        EXPECT_EQ(err.count("Not Supported") - before, unsupported ? 1u : 0u) << c.path;
        std::string line = "get_url_actual_protocol>: Not Supported Content-Type[" + c.reply.type + "] for url[" + site.url(c.path);
        EXPECT_TRUE(err.contains(line + "]\n") == unsupported || (by_type && c.reply.status == 302)) << err.text();
    }
    EXPECT_EQ(site.hits("/ts564"), 3u); // directly and through each redirect
    EXPECT_EQ(site.hits("/ts563"), 1u);
}

class DownloadThread : public ClientTest {};

// A loopback port that refuses connections while `fd`, bound to it but not
// listening, stays open.
int refusing_port(int &fd)
{
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    fd = socket(AF_INET, SOCK_STREAM, 0);
    if (bind(fd, (sockaddr *)&addr, len) != 0 || getsockname(fd, (sockaddr *)&addr, &len) != 0)
        throw std::runtime_error("cannot bind a loopback port");
    return ntohs(addr.sin_port);
}

TEST_F(DownloadThread, UndecidedProbeRepeatsEveryFiveSecondsUntilClosed)
{
    StderrCapture err;
    // Channel 2: answers without a Content-Type. Channel 3: refuses at first,
    // then answers with a type the library does not play.
    Site bare([](int) { return Reply{"", ""}; });
    int fd, port = refusing_port(fd);
    auto connected = Clock::now();
    connect_to(2, bare.url("/"));
    connect_to(3, "http://127.0.0.1:" + std::to_string(port) + "/");

    ASSERT_TRUE(test_host::wait_for([&] { return bare.hits("/") == 1; }, 3s));
    EXPECT_TRUE(test_host::wait_for([] { return thread_named("httpdown[2]") && thread_named("httpdown[3]"); }, 2s));
    std::this_thread::sleep_for(500ms);
    close(fd);
    Site late([](int) { return Reply{"abcd", "text/plain"}; }, port);

    ASSERT_TRUE(test_host::wait_for([&] { return bare.hits("/") == 2; }, 8s));
    EXPECT_THAT(seconds_between(bare.nth_hit("/", 1), bare.nth_hit("/", 2)), AllOf(Ge(4.9), Lt(6.5)));
    ASSERT_TRUE(test_host::wait_for([&] { return err.contains("Not Supported Content-Type[text/plain]"); }, 3s));
    ASSERT_EQ(late.hits("/"), 1u);
    EXPECT_GE(seconds_between(connected, late.nth_hit("/", 1)), 4.9);

    // Channel 2 is pausing again: closing it ends the pause at once.
    std::this_thread::sleep_for(100ms);
    EXPECT_LT(timed_disconnect(2), 0.2);
    EXPECT_TRUE(thread_gone("httpdown[2]"));
    EXPECT_EQ(bare.hits("/"), 2u);
    EXPECT_EQ(err.count("Not Supported"), 1u); // a missing type is no verdict
    EXPECT_EQ(test_host::events().size(), 0u); // no demultiplexer, no status
}

std::atomic<int> g_signals{0};
void count_signal(int) { ++g_signals; }

TEST(HalSleep, ResumesAfterSignalsAndRejectsWholeSeconds)
{
    // nanosleep is never restarted after a handler, whatever its flags.
    auto old = signal(SIGUSR1, count_signal);
    pthread_t sleeper = pthread_self();
    std::atomic<bool> done{false};
    std::thread pester([&] {
        for (; !done; std::this_thread::sleep_for(1ms))
            pthread_kill(sleeper, SIGUSR1);
    });
    auto start = Clock::now();
    EXPECT_EQ(hal_usleep(60000), 0);
    double slept = seconds_between(start, Clock::now());
    int during = g_signals;
    done = true;
    pester.join();
    signal(SIGUSR1, old);
    EXPECT_GT(during, 3);    // the sleep really was interrupted
    EXPECT_GE(slept, 0.060); // and still lasted the whole time

    StderrCapture err;
    for (uint32_t usec : {1000000u, 4294968u, UINT32_MAX})
        EXPECT_EQ(hal_usleep(usec), -1) << usec;
    // The prefix names the file by its place in the source tree, whatever
    // folder the library was built in.
    EXPECT_TRUE(err.contains("<ERROR! src/hls_demux.cpp:")) << err.text();
    EXPECT_EQ(err.count("hal_usleep>: nanosleep errno 22\n"), 3u) << err.text();
    EXPECT_EQ(hal_usleep(999), 0);
}

} // namespace
