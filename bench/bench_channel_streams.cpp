// Channel stream costs: the probe's sniffer per attempt (with the marker
// search as built and with a full rescan per piece, for comparison), direct
// MPEG-TS throughput from a loopback server into the demultiplexer, time from
// connect to the first byte in the demultiplexer, and disconnect latency
// during a retry pause.
#include <benchmark/benchmark.h>
#include <string.h>

#include <string>

#include "HLSClientLib.h"
#include "bench_support.h"
#include "counting_demux.h"
#include "hls_demux.h"
#include "hls_demux_stream.h"
#include "local_server.h"
#include "sniff_rules.h"

namespace {

int32_t on_frame(int32_t, frame_info *, uint8_t *) { return 0; }
void on_status(int32_t, int32_t) {}

// A give-up body: 4097 bytes in which nothing is recognisable.
void feed(benchmark::State &state, size_t (*writer)(char *, size_t, size_t, void *))
{
    const size_t piece = (size_t)state.range(0);
    std::string body(4097, 'z');
    for (auto _ : state) {
        probe_result probe{};
        for (size_t at = 0; at < body.size(); at += piece) {
            size_t n = std::min(piece, body.size() - at);
            if (writer(&body[at], 1, n, &probe) == 0)
                break;
        }
        benchmark::DoNotOptimize(probe.protocol);
        free(probe.data);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)body.size());
}

// The same rules with the marker searched over the whole accumulation on
// every piece.
size_t rescanning_writer(char *ptr, size_t size, size_t nmemb, void *arg)
{
    probe_result *probe = (probe_result *)arg;
    size_t n = size * nmemb;
    probe->data = (uint8_t *)realloc(probe->data, probe->size + n);
    memcpy(probe->data + probe->size, ptr, n);
    probe->size += (uint32_t)n;
    bool more;
    sniff_rules(probe->data, probe->size, probe->protocol, more);
    return more ? n : 0;
}

void BM_ProbeSniffer(benchmark::State &state) { feed(state, protocol_writer); }
void BM_ProbeSnifferFullRescan(benchmark::State &state) { feed(state, rescanning_writer); }
BENCHMARK(BM_ProbeSniffer)->Arg(1)->Arg(64)->Arg(1448)->Arg(16384);
BENCHMARK(BM_ProbeSnifferFullRescan)->Arg(1)->Arg(64)->Arg(1448)->Arg(16384);

// A loopback server sending `total` bytes of whole transport packets.
struct TsServer {
    LocalServer local;
    explicit TsServer(size_t total)
    {
        std::string block = ts_sync_prefix(188 * 348);
        local.server().Get("/ts", [block, total](const httplib::Request &, httplib::Response &res) {
            res.set_content_provider(total, "video/MP2T", [block](size_t offset, size_t length, httplib::DataSink &sink) {
                (void)offset;
                return sink.write(block.data(), std::min(length, block.size()));
            });
        });
        local.start();
    }
};

// Whole stream (256 MiB) from connect to the last byte in the demultiplexer.
void BM_DirectTsThroughput(benchmark::State &state)
{
    const size_t total = size_t(256) << 20;
    TsServer server(total);
    hls_client_init(1, on_frame, on_status, nullptr);
    hls_connect_param param = make_param(server.local.url("/ts"));
    for (auto _ : state) {
        double took;
        if (!connect_until(param, [&] { return g_counted_bytes.load() >= total; }, &took))
            state.SkipWithError("stream did not arrive");
        state.SetIterationTime(took);
        hls_client_disconnect(0);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)total);
    hls_client_destroy();
}
BENCHMARK(BM_DirectTsThroughput)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

// Connect to the first byte pushed into the demultiplexer: one probe
// request, then the stream request.
void BM_ConnectToFirstByte(benchmark::State &state)
{
    TsServer server(size_t(64) << 20);
    hls_client_init(1, on_frame, on_status, nullptr);
    hls_connect_param param = make_param(server.local.url("/ts"));
    for (auto _ : state) {
        double took;
        if (!connect_until(param, [] { return g_counted_bytes.load() > 0; }, &took))
            state.SkipWithError("no bytes arrived");
        state.SetIterationTime(took);
        hls_client_disconnect(0);
    }
    hls_client_destroy();
}
BENCHMARK(BM_ConnectToFirstByte)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

// hls_client_disconnect while the thread pauses after a refused connection.
void BM_DisconnectDuringRetryPause(benchmark::State &state)
{
    hls_client_init(1, on_frame, on_status, nullptr);
    hls_connect_param param = make_param("http://127.0.0.1:1/"); // refused
    for (auto _ : state) {
        state.PauseTiming();
        hls_client_connect(0, &param);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        state.ResumeTiming();
        hls_client_disconnect(0);
    }
    hls_client_destroy();
}
BENCHMARK(BM_DisconnectDuringRetryPause)->Unit(benchmark::kMillisecond)->Iterations(20);

} // namespace

BENCHMARK_MAIN();
