// Frames per second through one frame queue: a producer thread puts frames
// in (holding back while 30 or more are queued, as the playback loop does
// with video) and the benchmark thread takes them out and frees their bytes.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <string>
#include <thread>

#include "frame_queue.h"

namespace {

constexpr uint32_t kBatch = 20000;
constexpr uint32_t kHoldBack = 30;

void run_queue(benchmark::State &state, uint32_t type, uint32_t size)
{
    frame_info info{};
    info.type = type;
    if ((type & HLS_FRAME_VIDEO_MASK) == HLS_FRAME_TYPE_VIDEO_KEY)
        info.video.length = size;
    else
        info.audio.length = size;
    const std::string payload(size, 'f');

    frame_queue queue{};
    if (frame_queue_init(&queue) != 0) {
        state.SkipWithError("frame_queue_init failed");
        return;
    }
    for (auto _ : state) {
        std::thread producer([&] {
            for (uint32_t i = 0; i < kBatch; ++i) {
                frame_queue_count count{};
                while (frame_queue_stat(&queue, &count) == 0 && count.video_count + count.audio_count >= kHoldBack)
                    std::this_thread::yield();
                frame_queue_input(&queue, &info, (const uint8_t *)payload.data());
            }
        });
        for (uint32_t i = 0; i < kBatch; ++i) {
            frame_info out;
            uint8_t *data = nullptr;
            if (frame_queue_get(&queue, &out, &data, nullptr) != 0)
                break;
            benchmark::DoNotOptimize(data[0]);
            free(data);
        }
        producer.join();
    }
    frame_queue_halt(&queue);
    frame_queue_free(&queue);
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.SetBytesProcessed(state.iterations() * kBatch * (int64_t)size);
}

void BM_QueueVideo20K(benchmark::State &state) { run_queue(state, HLS_FRAME_TYPE_VIDEO_KEY, 20 * 1024); }
void BM_QueueAudio400(benchmark::State &state) { run_queue(state, 0x0f000001u, 400); }

} // namespace

BENCHMARK(BM_QueueVideo20K)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_QueueAudio400)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
