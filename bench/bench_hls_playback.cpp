// HLS path latencies on a local server: from hls_client_connect to the first
// segment bytes reaching the demultiplexer (media playlist first, and master
// plus variant), and how long hls_client_disconnect takes while the loop sits
// in its 5-second retry wait. Each repetition is one connect; run with
// --benchmark_repetitions=5 for the median.
#include <benchmark/benchmark.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "HLSClientLib.h"
#include "client_helpers.h"
#include "counting_demux.h"
#include "local_server.h"

namespace {

int32_t ignore_frame(int32_t, frame_info *, uint8_t *) { return 0; }
void ignore_status(int32_t, int32_t) {}

std::atomic<int> g_playlist_hits{0};

// /media.m3u8 and /master.m3u8 -> /v.m3u8 list one 188-kB segment; /fail.m3u8
// answers the probe and then fails every playlist download.
void serve(LocalServer &server)
{
    const std::string media = "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2.0,\nseg.ts\n";
    const std::string type = "application/vnd.apple.mpegurl";
    server.server().Get("/media.m3u8", [=](const httplib::Request &, httplib::Response &rs) { rs.set_content(media, type); });
    server.server().Get("/v.m3u8", [=](const httplib::Request &, httplib::Response &rs) { rs.set_content(media, type); });
    server.server().Get("/master.m3u8", [=](const httplib::Request &, httplib::Response &rs) {
        rs.set_content("#EXTM3U\n#EXT-X-STREAM-INF:BANDWIDTH=4000000\nv.m3u8\n", type);
    });
    server.server().Get("/seg.ts", [](const httplib::Request &, httplib::Response &rs) {
        rs.set_content(std::string(188 * 1000, '\x47'), "video/MP2T");
    });
    server.server().Get("/fail.m3u8", [=](const httplib::Request &, httplib::Response &rs) {
        if (++g_playlist_hits == 1)
            rs.set_content(media, type);
        else
            rs.status = 503;
    });
    server.start();
}

void connect(int32_t channel, const std::string &url)
{
    hls_connect_param p = make_param(url);
    hls_client_connect(channel, &p);
}

void first_segment_bytes(benchmark::State &state, const char *path)
{
    LocalServer server;
    serve(server);
    hls_client_init(1, ignore_frame, ignore_status, nullptr);
    for (auto _ : state) {
        uint64_t before = g_counted_bytes.load();
        auto start = Clock::now();
        connect(0, server.url(path));
        while (g_counted_bytes.load() == before)
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        state.SetIterationTime(seconds_between(start, Clock::now()));
        hls_client_disconnect(0);
    }
    hls_client_destroy();
}

void BM_ConnectToFirstSegmentBytes_Media(benchmark::State &state) { first_segment_bytes(state, "/media.m3u8"); }
void BM_ConnectToFirstSegmentBytes_Master(benchmark::State &state) { first_segment_bytes(state, "/master.m3u8"); }

void BM_DisconnectDuringRetryWait(benchmark::State &state)
{
    LocalServer server;
    serve(server);
    hls_client_init(1, ignore_frame, ignore_status, nullptr);
    for (auto _ : state) {
        g_playlist_hits = 0;
        connect(0, server.url("/fail.m3u8"));
        while (g_playlist_hits.load() < 2)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::this_thread::sleep_for(std::chrono::milliseconds(500)); // inside the wait
        auto start = Clock::now();
        hls_client_disconnect(0);
        state.SetIterationTime(seconds_between(start, Clock::now()));
    }
    hls_client_destroy();
}

} // namespace

BENCHMARK(BM_ConnectToFirstSegmentBytes_Media)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConnectToFirstSegmentBytes_Master)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DisconnectDuringRetryWait)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
