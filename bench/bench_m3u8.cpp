// Playlist parsing and the playlist client on long lists: parse throughput,
// loading and reloading a long media playlist, and marking plus the reload
// rule per fragment. Sizes run 2,000 to 20,000 entries to show the scaling.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <string>

#include "hls_m3u8.h"

namespace {

const char *kUrl = "http://origin.example.net/live/ch1/index.m3u8";

std::string media_text(int64_t first, int64_t count)
{
    std::string text = "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:7\n#EXT-X-MEDIA-SEQUENCE:" +
                       std::to_string(first) + "\n";
    char entry[96];
    for (int64_t i = first; i < first + count; ++i) {
        snprintf(entry, sizeof(entry), "#EXTINF:6.006,\n1080p/segment_%07lld.ts\n", (long long)i);
        text += entry;
    }
    return text;
}

std::string master_text(int variants)
{
    std::string text = "#EXTM3U\n";
    char entry[192];
    for (int i = 0; i < variants; ++i) {
        snprintf(entry, sizeof(entry),
                 "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=%d,RESOLUTION=1280x720,CODECS=\"avc1.4d401f,mp4a.40.2\"\n"
                 "variant_%02d/index.m3u8\n",
                 200000 + 100000 * i, i);
        text += entry;
    }
    return text;
}

hls_buffer view(const std::string &text)
{
    return hls_buffer{(uint8_t *)text.data(), (uint32_t)text.size(), (uint32_t)text.size()};
}

void BM_ParseMedia(benchmark::State &state)
{
    const std::string text = media_text(1000, state.range(0));
    for (auto _ : state) {
        M3U8Parser parser;
        M3UTSPlaylist playlist = parser.parse(kUrl, text);
        benchmark::DoNotOptimize(playlist.items.data());
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)text.size());
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ParseMedia)->Arg(2000)->Arg(5000)->Arg(10000)->Arg(20000)->Complexity(benchmark::oN)->Unit(benchmark::kMicrosecond);

void BM_ParseMaster50(benchmark::State &state)
{
    const std::string text = master_text(50);
    for (auto _ : state) {
        M3U8Parser parser;
        MasterM3UPlaylist master = parser.parseMaster(kUrl, text);
        benchmark::DoNotOptimize(master.playlists.data());
    }
    state.SetBytesProcessed(state.iterations() * (int64_t)text.size());
}
BENCHMARK(BM_ParseMaster50)->Unit(benchmark::kMicrosecond);

// First load of N entries into an empty client (parse, resolve, append).
void BM_LoadMedia(benchmark::State &state)
{
    const std::string text = media_text(1000, state.range(0));
    hls_buffer buffer = view(text);
    for (auto _ : state) {
        m3u8_client *client = m3u8_client_new();
        benchmark::DoNotOptimize(m3u8_client_load_playlist(client, kUrl, &buffer));
        state.PauseTiming();
        m3u8_client_free(client);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_LoadMedia)->Arg(2000)->Arg(5000)->Arg(10000)->Arg(20000)->Complexity(benchmark::oN)->Unit(benchmark::kMicrosecond);

// A reload slid by one entry against a list of N: N - 1 entries are known,
// one is new. A walk of the list per entry would make this quadratic.
void BM_ReloadSlidByOne(benchmark::State &state)
{
    const std::string first = media_text(1000, state.range(0));
    const std::string slid = media_text(1001, state.range(0));
    hls_buffer first_buffer = view(first), slid_buffer = view(slid);
    for (auto _ : state) {
        state.PauseTiming();
        m3u8_client *client = m3u8_client_new();
        m3u8_client_load_playlist(client, kUrl, &first_buffer);
        state.ResumeTiming();
        benchmark::DoNotOptimize(m3u8_client_load_playlist(client, kUrl, &slid_buffer));
        state.PauseTiming();
        m3u8_client_free(client);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_ReloadSlidByOne)->Arg(2000)->Arg(5000)->Arg(10000)->Arg(20000)->Complexity(benchmark::oN)->Unit(benchmark::kMicrosecond);

// The playback loop's round per fragment on a long list: take the front,
// mark it, ask the reload rule. Reported per fragment.
void BM_FrontPopRefresh(benchmark::State &state)
{
    const std::string text = media_text(1000, state.range(0));
    hls_buffer buffer = view(text);
    for (auto _ : state) {
        state.PauseTiming();
        m3u8_client *client = m3u8_client_new();
        m3u8_client_load_playlist(client, kUrl, &buffer);
        state.ResumeTiming();
        for (int64_t i = 0; i < state.range(0); ++i) {
            tsdata_fragment *fragment = m3u8_client_get_front_fragment(client);
            m3u8_client_pop_front_fragment(client, fragment->sequence_no);
            tsdata_fragment_free(fragment);
            benchmark::DoNotOptimize(m3u8_client_is_time_to_refresh_playlist(client));
        }
        state.PauseTiming();
        m3u8_client_free(client);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_FrontPopRefresh)->Arg(2000)->Arg(5000)->Arg(10000)->Arg(20000)->Complexity(benchmark::oN)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
