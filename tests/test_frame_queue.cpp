#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame_queue.h"
#include "stderr_capture.h"
#include "test_host.h"

using namespace std::chrono_literals;

namespace {

// A frame whose length word for `type`'s layout is `length`; the other
// layout's length word holds a different value so a wrong offset shows.
frame_info make_info(uint32_t type, uint32_t length, uint32_t pts = 0)
{
    frame_info info{};
    info.type = type;
    if (test_host::is_video(info)) {
        info.video.length = length;
        info.video.pts = pts;
    } else {
        info.audio.length = length;
        info.audio.pts = pts;
        info.audio.reserved1 = length + 1000;
    }
    return info;
}

struct Queue {
    frame_queue q{};
    Queue() { EXPECT_EQ(frame_queue_init(&q), 0); }
    ~Queue()
    {
        frame_queue_halt(&q);
        frame_queue_free(&q);
    }
    int32_t put(uint32_t type, const std::string &bytes, uint32_t pts = 0)
    {
        frame_info info = make_info(type, (uint32_t)bytes.size(), pts);
        return frame_queue_input(&q, &info, (const uint8_t *)bytes.data());
    }
};

// Takes one frame; returns its bytes (as its length says) and frees them.
std::string take(frame_queue *q, frame_info *info, frame_queue_count *count = nullptr)
{
    uint8_t *data = nullptr;
    EXPECT_EQ(frame_queue_get(q, info, &data, count), 0);
    std::string bytes(data ? (const char *)data : "", data ? get_frame_length(info) : 0);
    free(data);
    return bytes;
}

} // namespace

TEST(FrameQueue, NullUninitialisedAndHaltedQueuesGiveTheirCodes)
{
    frame_info info = make_info(HLS_FRAME_TYPE_VIDEO_KEY, 1);
    uint8_t byte = 7, *out = nullptr;
    frame_queue_count count{};
    frame_queue fresh{};
    struct Case {
        frame_queue *q;
        int32_t expect;
    } cases[] = {{nullptr, -2}, {&fresh, -3}};
    for (const Case &c : cases) {
        EXPECT_EQ(frame_queue_free(c.q), c.expect);
        EXPECT_EQ(frame_queue_print(c.q), c.expect);
        EXPECT_EQ(frame_queue_stat(c.q, &count), c.expect);
        EXPECT_EQ(frame_queue_halt(c.q), c.expect);
        EXPECT_EQ(frame_queue_input(c.q, &info, &byte), c.expect);
        EXPECT_EQ(frame_queue_get(c.q, &info, &out, &count), c.expect);
    }
    EXPECT_EQ(frame_queue_init(nullptr), -2);

    Queue queue;
    EXPECT_EQ(frame_queue_stat(&queue.q, nullptr), -2);
    EXPECT_EQ(frame_queue_input(&queue.q, nullptr, &byte), -2);
    EXPECT_EQ(frame_queue_input(&queue.q, &info, nullptr), -2);
    EXPECT_EQ(frame_queue_get(&queue.q, nullptr, &out, nullptr), -2);
    EXPECT_EQ(frame_queue_get(&queue.q, &info, nullptr, nullptr), -2);

    ASSERT_EQ(frame_queue_halt(&queue.q), 0);
    {
        StderrCapture err;
        EXPECT_EQ(queue.put(HLS_FRAME_TYPE_VIDEO_KEY, "x"), -1);
        EXPECT_EQ(err.count("frame_queue_input>: frame_queue is not actived!\n"), 1u);
    }
    EXPECT_EQ(frame_queue_get(&queue.q, &info, &out, nullptr), -1); // at once, no wait

    frame_queue freed{};
    ASSERT_EQ(frame_queue_init(&freed), 0);
    ASSERT_EQ(frame_queue_halt(&freed), 0);
    ASSERT_EQ(frame_queue_free(&freed), 0);
    EXPECT_EQ(frame_queue_stat(&freed, &count), -3);
    EXPECT_EQ(frame_queue_free(&freed), -3);
}

TEST(FrameQueue, VideoIsTypeWithBit24IgnoredAndLengthFollowsLayout)
{
    struct Case {
        uint32_t type;
        bool video;
    } cases[] = {
        {0xf8010000u, true},  {0xf9010000u, true},  {0xf8010001u, false}, {0xfa010000u, false},
        {0x78010000u, false}, {0xf8000000u, false}, {0x00000000u, false}, {0xf9010100u, false},
    };
    for (const Case &c : cases) {
        // Word 3 and word 4 both hold plausible lengths; only one is right.
        frame_info info{};
        uint32_t words[5] = {c.type, 0, 0, 5, 9};
        memcpy(&info, words, sizeof(words));
        EXPECT_EQ(get_frame_length(&info), c.video ? 9u : 5u) << std::hex << c.type;

        Queue queue;
        const std::string bytes = "0123456789";
        ASSERT_EQ(frame_queue_input(&queue.q, &info, (const uint8_t *)bytes.data()), 0);
        frame_queue_count count{};
        ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
        EXPECT_EQ(count.video_count, c.video ? 1u : 0u) << std::hex << c.type;
        EXPECT_EQ(count.audio_count, c.video ? 0u : 1u) << std::hex << c.type;
        frame_info got{};
        EXPECT_EQ(take(&queue.q, &got), bytes.substr(0, c.video ? 9 : 5));
        EXPECT_EQ(memcmp(&got, &info, sizeof(info)), 0);
    }
}

TEST(FrameQueue, FramesLeaveInInputOrderAndCountsFollow)
{
    Queue queue;
    ASSERT_EQ(queue.put(HLS_FRAME_TYPE_VIDEO_KEY, "key", 1), 0);
    ASSERT_EQ(queue.put(0x0f000001u, "aud", 2), 0);
    ASSERT_EQ(queue.put(HLS_FRAME_TYPE_VIDEO_OTHER, "inter", 3), 0);
    frame_queue_count count{};
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.video_count, 2u);
    EXPECT_EQ(count.audio_count, 1u);

    frame_info info{};
    count = {99, 99};
    EXPECT_EQ(take(&queue.q, &info, &count), "key");
    EXPECT_EQ(info.video.pts, 1u);
    EXPECT_EQ(count.video_count, 1u);
    EXPECT_EQ(count.audio_count, 1u);
    EXPECT_EQ(take(&queue.q, &info, &count), "aud");
    EXPECT_EQ(info.audio.pts, 2u);
    EXPECT_EQ(count.audio_count, 0u);
    EXPECT_EQ(take(&queue.q, &info, nullptr), "inter");
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.video_count + count.audio_count, 0u);
}

TEST(FrameQueue, BlockingGetWakesOnInputAndOnHalt)
{
    Queue queue;
    std::atomic<int> result{1};
    std::string got;
    std::thread reader([&] {
        frame_info info{};
        uint8_t *data = nullptr;
        int32_t r = frame_queue_get(&queue.q, &info, &data, nullptr);
        if (r == 0)
            got.assign((const char *)data, get_frame_length(&info));
        free(data);
        result = r;
    });
    std::this_thread::sleep_for(50ms); // give the reader time to block
    EXPECT_EQ(result.load(), 1);       // still waiting on the empty queue
    ASSERT_EQ(queue.put(0x1234u, "wake"), 0);
    EXPECT_TRUE(test_host::wait_for([&] { return result.load() != 1; }, 5000ms));
    reader.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_EQ(got, "wake");

    result = 1;
    std::thread halted([&] {
        frame_info info{};
        uint8_t *data = nullptr;
        result = frame_queue_get(&queue.q, &info, &data, nullptr);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(result.load(), 1);
    ASSERT_EQ(frame_queue_halt(&queue.q), 0);
    EXPECT_TRUE(test_host::wait_for([&] { return result.load() != 1; }, 5000ms));
    halted.join();
    EXPECT_EQ(result.load(), -1);
}

TEST(FrameQueue, HaltDropsEverythingAndInitReactivates)
{
    // Leaks of dropped nodes or data show up under the address sanitizer.
    Queue queue;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(queue.put(i ? 0x22u : HLS_FRAME_TYPE_VIDEO_KEY, std::string(100 + i, 'a')), 0);
    ASSERT_EQ(frame_queue_halt(&queue.q), 0);
    frame_queue_count count{7, 7};
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.video_count, 0u);
    EXPECT_EQ(count.audio_count, 0u);
    EXPECT_EQ(queue.q.head, nullptr);

    ASSERT_EQ(frame_queue_init(&queue.q), 0);
    ASSERT_EQ(queue.put(0x22u, "again"), 0);
    // Re-initialising a queue that still holds a frame releases it too.
    ASSERT_EQ(frame_queue_init(&queue.q), 0);
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.audio_count, 0u);
    ASSERT_EQ(queue.put(0x22u, "last"), 0);
    frame_info info{};
    EXPECT_EQ(take(&queue.q, &info), "last");
}

TEST(FrameQueue, ProducerAndConsumerPassEveryFrameOnceInOrderIntact)
{
    const uint32_t frames = 20000;
    auto payload = [](uint32_t i) {
        std::string s(1 + (i * 37) % 700, '\0');
        for (size_t k = 0; k < s.size(); ++k)
            s[k] = (char)(i * 131 + k);
        return s;
    };
    auto type_of = [](uint32_t i) { return i % 3 == 0 ? 0x0f000001u : (i % 2 ? 0xf8010000u : 0xf9010000u); };

    Queue queue;
    uint32_t bad = 0, received = 0, over = 0;
    std::thread consumer([&] {
        for (uint32_t i = 0; i < frames; ++i) {
            frame_info info{};
            uint8_t *data = nullptr;
            frame_queue_count count{};
            if (frame_queue_get(&queue.q, &info, &data, &count) != 0)
                break;
            uint32_t seq = test_host::is_video(info) ? info.video.pts : info.audio.pts;
            std::string expect = payload(i);
            if (seq != i || info.type != type_of(i) || get_frame_length(&info) != expect.size() ||
                memcmp(data, expect.data(), expect.size()) != 0)
                ++bad;
            if (count.video_count + count.audio_count > frames - 1 - i)
                ++over;
            free(data);
            ++received;
        }
    });
    for (uint32_t i = 0; i < frames; ++i) {
        // Hold back like the playback loop does, so the list stays short.
        frame_queue_count count{};
        while (frame_queue_stat(&queue.q, &count) == 0 && count.video_count + count.audio_count >= 64)
            std::this_thread::yield();
        if (queue.put(type_of(i), payload(i), i) != 0) {
            ADD_FAILURE() << "input " << i << " refused";
            frame_queue_halt(&queue.q); // lets the consumer return
            break;
        }
    }
    consumer.join();
    EXPECT_EQ(received, frames);
    EXPECT_EQ(bad, 0u);
    EXPECT_EQ(over, 0u);
}

TEST(FrameQueue, PrintListsCountAndEveryNodeOnStandardOutput)
{
    Queue queue;
    ASSERT_EQ(queue.put(HLS_FRAME_TYPE_VIDEO_KEY, "v", 11), 0);
    ASSERT_EQ(queue.put(0x0f000001u, "a", 22), 0);
    ASSERT_EQ(queue.put(HLS_FRAME_TYPE_VIDEO_OTHER, "w", 33), 0);
    ASSERT_EQ(queue.put(0xf8000000u, "b", 44), 0); // audio: pts at offset 8

    std::string expect;
    char line[256];
    snprintf(line, sizeof(line), "--------------------frame queue count[%d] ----------------------------\n", 4);
    expect += line;
    const uint32_t pts[] = {11, 22, 33, 44};
    int i = 0;
    for (frame_queue_node *n = queue.q.head; n; n = n->next, ++i) {
        snprintf(line, sizeof(line), "--------------------frame[%p] type[%#x] pts[%u] next[%p]--------------------\n",
                 (void *)n, n->info.type, pts[i], (void *)n->next);
        expect += line;
    }

    fflush(stdout);
    char path[] = "/tmp/fq_stdout_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    int saved = dup(1);
    dup2(fd, 1);
    int32_t r = frame_queue_print(&queue.q);
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string out(4096, '\0');
    ssize_t n = pread(fd, &out[0], out.size(), 0);
    close(fd);
    unlink(path);
    ASSERT_EQ(r, 0);
    out.resize(n > 0 ? (size_t)n : 0);
    EXPECT_EQ(out, expect);
}
