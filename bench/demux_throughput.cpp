// Throughput of the reference demultiplexers over the sample streams, for
// docs/performance.md; scripts/bench builds and runs it from the source tree
// (build/bench/demux_throughput, started in the source directory).
// Prints, per sample and piece size, the median of 5 runs in MB/s of input.
#include <stdio.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "hls_host_demux.h"

static uint64_t g_frames;

static int32_t count(void *, frame_info *, uint8_t *, void *)
{
    g_frames++;
    return 0;
}

static double run(bool flv, const std::string &bytes, size_t piece, int repeat)
{
    auto start = std::chrono::steady_clock::now();
    for (int r = 0; r < repeat; r++) {
        void *d = flv ? flv_demux_new(count, nullptr) : ts_demux_new(count, nullptr);
        for (size_t at = 0; at < bytes.size(); at += piece) {
            const uint8_t *p = reinterpret_cast<const uint8_t *>(bytes.data()) + at;
            uint32_t n = (uint32_t)std::min(piece, bytes.size() - at);
            flv ? flv_demux_put_data(d, p, n) : ts_demux_put_data(d, p, n);
        }
        flv ? flv_demux_free(d) : ts_demux_free(d);
    }
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return bytes.size() * (double)repeat / s / 1e6;
}

int main()
{
    const char *names[] = {"tests/data/stream.ts", "tests/data/hevc_mp3.ts", "tests/data/stream.flv"};
    for (const char *name : names) {
        std::ifstream in(name, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        std::string bytes = ss.str();
        bool flv = std::string(name).find(".flv") != std::string::npos;
        int repeat = (int)(100e6 / bytes.size()) + 1;
        for (size_t piece : {bytes.size(), (size_t)16384, (size_t)1316, (size_t)1000, (size_t)64}) {
            std::vector<double> mbs;
            for (int i = 0; i < 5; i++)
                mbs.push_back(run(flv, bytes, piece, piece < 1000 ? repeat / 4 + 1 : repeat));
            std::sort(mbs.begin(), mbs.end());
            printf("%-24s piece %7zu  %8.0f MB/s\n", name, piece, mbs[2]);
        }
    }
    return g_frames ? 0 : 1;
}
