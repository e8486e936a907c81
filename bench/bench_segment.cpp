// Bytes per second of a segment download from a local server into the
// counting demultiplexer, uncapped, next to a plain libcurl transfer of the
// same body into a callback that discards it. The ratio of the two is the
// downloader's own overhead.
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <string>

#include "counting_demux.h"
#include "hls_host_demux.h"
#include "local_server.h"
#include "ts_downloader.h"

namespace {

constexpr size_t kBody = 32u << 20;

// One server for the whole run, serving the body from one shared block.
LocalServer &server()
{
    static std::string body(kBody, 'G');
    static std::unique_ptr<LocalServer> local = [] {
        std::unique_ptr<LocalServer> s(new LocalServer);
        s->server().Get("/seg.ts", [](const httplib::Request &, httplib::Response &res) {
            res.set_content_provider(kBody, "video/mp2t", [](size_t offset, size_t length, httplib::DataSink &sink) {
                sink.write(body.data() + offset, std::min<size_t>(length, 256 * 1024));
                return true;
            });
        });
        s->start();
        return s;
    }();
    return *local;
}

void BM_TsDownloader(benchmark::State &state)
{
    hls_connect_param param = make_param(server().url("/seg.ts"), 0, 0);
    void *demux = ts_demux_new(nullptr, nullptr);
    ts_downloader *dl = ts_downloader_new(demux, nullptr);
    for (auto _ : state) {
        g_counted_bytes = 0;
        // 60 s of segment: the time limit never interferes.
        if (ts_downloader_prepare(dl, &param, 60000) != 1 || g_counted_bytes != kBody) {
            state.SkipWithError("segment transfer failed");
            break;
        }
    }
    ts_downloader_free(dl);
    ts_demux_free(demux);
    state.SetBytesProcessed(state.iterations() * (int64_t)kBody);
}

size_t discard(void *, size_t size, size_t nmemb, void *) { return size * nmemb; }

void BM_PlainLibcurl(benchmark::State &state)
{
    const std::string url = server().url("/seg.ts");
    CURL *curl = curl_easy_init();
    for (auto _ : state) {
        curl_easy_reset(curl);
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, discard);
        curl_off_t got = 0;
        if (curl_easy_perform(curl) != CURLE_OK ||
            curl_easy_getinfo(curl, CURLINFO_SIZE_DOWNLOAD_T, &got) != CURLE_OK || got != (curl_off_t)kBody) {
            state.SkipWithError("plain transfer failed");
            break;
        }
    }
    curl_easy_cleanup(curl);
    state.SetBytesProcessed(state.iterations() * (int64_t)kBody);
}

} // namespace

BENCHMARK(BM_TsDownloader)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_PlainLibcurl)->UseRealTime()->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK_MAIN();
