// Figures that scripts/bench puts side by side: a large MPEG-TS body served
// as fast as loopback allows, once through a library channel (probe, direct
// path, counting demultiplexer) and once through a plain libcurl transfer
// into a discarding callback; and how long hls_client_disconnect takes while
// the HLS loop is inside a segment download that the server holds open.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <string.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "HLSClientLib.h"
#include "bench_support.h"
#include "counting_demux.h"
#include "local_server.h"

namespace {

constexpr size_t kTsBody = size_t(256) << 20;

int32_t ignore_frame(int32_t, frame_info *, uint8_t *) { return 0; }
void ignore_status(int32_t, int32_t) {}

// One server for the run. /ts: kTsBody bytes of whole transport packets from
// one shared block. /hold.m3u8 lists one segment whose body sends 100 packets
// and then holds the connection open until the client goes away or the
// server is released.
std::atomic<bool> g_release{false};

LocalServer &server()
{
    static LocalServer *local = [] {
        auto *s = new LocalServer;
        static std::string block = ts_sync_prefix(188 * 348);
        s->server().Get("/ts", [](const httplib::Request &, httplib::Response &res) {
            res.set_content_provider(kTsBody, "video/MP2T", [](size_t offset, size_t length, httplib::DataSink &sink) {
                size_t at = offset % block.size();
                return sink.write(block.data() + at, std::min(length, block.size() - at));
            });
        });
        s->server().Get("/hold.m3u8", [](const httplib::Request &, httplib::Response &res) {
            res.set_content("#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXT-X-MEDIA-SEQUENCE:1\n#EXTINF:2.0,\nhold.ts\n",
                            "application/vnd.apple.mpegurl");
        });
        s->server().Get("/hold.ts", [](const httplib::Request &, httplib::Response &res) {
            res.set_content_provider(block.size() * 4, "video/MP2T",
                                     [](size_t offset, size_t, httplib::DataSink &sink) {
                                         if (offset == 0)
                                             return sink.write(block.data(), 188 * 100);
                                         while (!g_release.load() && sink.is_writable())
                                             std::this_thread::sleep_for(std::chrono::milliseconds(5));
                                         return false;
                                     });
        });
        s->start();
        return s;
    }();
    return *local;
}

void BM_DirectTsLibrary(benchmark::State &state)
{
    hls_client_init(1, ignore_frame, ignore_status, nullptr);
    hls_connect_param param = make_param(server().url("/ts"));
    for (auto _ : state) {
        double took;
        if (!connect_until(param, [] { return g_counted_bytes.load() >= kTsBody; }, &took))
            state.SkipWithError("stream did not arrive");
        state.SetIterationTime(took);
        hls_client_disconnect(0);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kTsBody));
    hls_client_destroy();
}

size_t discard(void *, size_t size, size_t nmemb, void *) { return size * nmemb; }

void BM_DirectTsPlainLibcurl(benchmark::State &state)
{
    const std::string url = server().url("/ts");
    for (auto _ : state) {
        auto start = Clock::now();
        CURL *curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
        curl_off_t got = 0;
        if (curl_easy_perform(curl) != CURLE_OK ||
            curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &got) != CURLE_OK || got != curl_off_t(kTsBody))
            state.SkipWithError("plain transfer failed");
        curl_easy_cleanup(curl);
        state.SetIterationTime(seconds_between(start, Clock::now()));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kTsBody));
}

// The segment's first bytes have reached the demultiplexer and the server
// holds the rest back; the figure is how long the disconnect call blocks.
void BM_DisconnectDuringSegmentDownload(benchmark::State &state)
{
    g_release = false;
    hls_client_init(1, ignore_frame, ignore_status, nullptr);
    hls_connect_param param = make_param(server().url("/hold.m3u8"));
    for (auto _ : state) {
        double took;
        if (!connect_until(param, [] { return g_counted_bytes.load() > 0; }, &took))
            state.SkipWithError("segment did not start");
        std::this_thread::sleep_for(std::chrono::milliseconds(200)); // inside the held transfer
        auto start = Clock::now();
        hls_client_disconnect(0);
        state.SetIterationTime(seconds_between(start, Clock::now()));
    }
    hls_client_destroy();
    g_release = true;
}

} // namespace

BENCHMARK(BM_DirectTsLibrary)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DirectTsPlainLibcurl)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(BM_DisconnectDuringSegmentDownload)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK_MAIN();
