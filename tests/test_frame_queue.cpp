#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "frame_queue.h"
#include "stderr_capture.h"
#include "test_host.h"
#include "torture.h"

using namespace std::chrono_literals;

namespace {

const uint32_t kAudio = 0x0f000001u;

// An initialised queue, halted and freed when it goes out of scope.
struct Queue {
    frame_queue q{};
    Queue() { EXPECT_EQ(frame_queue_init(&q), 0); }
    ~Queue()
    {
        frame_queue_halt(&q);
        frame_queue_free(&q);
    }
    // Puts `bytes` as one frame whose two layouts agree on its length; word 1
    // carries `tag`.
    int32_t put(uint32_t type, const std::string &bytes, uint32_t tag = 0)
    {
        uint32_t n = (uint32_t)bytes.size(), words[5] = {type, tag, 0, n, n};
        frame_info info;
        memcpy(&info, words, sizeof(info));
        return frame_queue_input(&q, &info, (const uint8_t *)bytes.data());
    }
};

} // namespace

TEST(FrameQueue, NullUninitialisedAndFreedQueuesGiveTheirCodes)
{
    frame_info info{};
    uint8_t byte = 7, *out = nullptr;
    frame_queue_count count{};
    frame_queue fresh{}, freed{};
    ASSERT_EQ(frame_queue_init(&freed), 0);
    ASSERT_EQ(frame_queue_halt(&freed), 0);
    ASSERT_EQ(frame_queue_free(&freed), 0);
    for (const auto &c : {std::make_pair((frame_queue *)nullptr, -2), {&fresh, -3}, {&freed, -3}}) {
        EXPECT_EQ(frame_queue_free(c.first), c.second);
        EXPECT_EQ(frame_queue_print(c.first), c.second);
        EXPECT_EQ(frame_queue_stat(c.first, &count), c.second);
        EXPECT_EQ(frame_queue_halt(c.first), c.second);
        EXPECT_EQ(frame_queue_input(c.first, &info, &byte), c.second);
        EXPECT_EQ(frame_queue_get(c.first, &info, &out, &count), c.second);
    }
    EXPECT_EQ(frame_queue_init(nullptr), -2);

    Queue queue;
    EXPECT_EQ(frame_queue_stat(&queue.q, nullptr), -2);
    EXPECT_EQ(frame_queue_input(&queue.q, nullptr, &byte), -2);
    EXPECT_EQ(frame_queue_input(&queue.q, &info, nullptr), -2);
    EXPECT_EQ(frame_queue_get(&queue.q, nullptr, &out, nullptr), -2);
    EXPECT_EQ(frame_queue_get(&queue.q, &info, nullptr, nullptr), -2);
}

TEST(FrameQueue, FramesAreCountedListedAndTakenInInputOrderByTheVideoRule)
{
    // Video is the type with bit 24 ignored; words 3 and 4 both hold
    // plausible lengths, and only the one of the frame's layout is right.
    // The dump shows word 3 as pts for video and word 2 for the rest.
    struct Case { uint32_t type; bool video; } cases[] = {
        {0xf8010000u, true},  {0xf9010000u, true},  {0xf8010001u, false}, {0xfa010000u, false},
        {0x78010000u, false}, {0xf8000000u, false}, {0x00000000u, false}, {0xf9010100u, false},
    };
    const std::string bytes = "0123456789";
    Queue queue;
    frame_queue_count left{0, 0};
    for (const Case &c : cases) {
        uint32_t words[5] = {c.type, 0, 0, 5, 9};
        frame_info info;
        memcpy(&info, words, sizeof(info));
        // Without memory for the node or the copy the frame is refused (-6)
        // and nothing is kept, as the counts and the dump below show.
        ASSERT_EQ(torture_retry(-6, [&] { return frame_queue_input(&queue.q, &info, (const uint8_t *)bytes.data()); }), 0);
        ++(c.video ? left.video_count : left.audio_count);
    }
    frame_queue_count count{};
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.video_count, left.video_count);
    EXPECT_EQ(count.audio_count, left.audio_count);

    std::string dump = "--------------------frame queue count[8] ----------------------------\n";
    char line[256];
    const Case *c = cases;
    for (frame_queue_node *n = queue.q.head; n; n = n->next, ++c) {
        snprintf(line, sizeof(line), "--------------------frame[%p] type[%#x] pts[%u] next[%p]--------------------\n",
                 (void *)n, c->type, c->video ? 5 : 0, (void *)n->next);
        dump += line;
    }
    testing::internal::CaptureStdout();
    EXPECT_EQ(frame_queue_print(&queue.q), 0);
    fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), dump);

    for (const Case &c : cases) {
        frame_info got{};
        uint8_t *data = nullptr;
        count = {99, 99};
        ASSERT_EQ(frame_queue_get(&queue.q, &got, &data, &count), 0);
        EXPECT_EQ(std::string((const char *)data, get_frame_length(&got)), bytes.substr(0, c.video ? 9 : 5));
        free(data);
        uint32_t words[5] = {c.type, 0, 0, 5, 9}; // in input order, all five words copied
        EXPECT_EQ(memcmp(&got, words, sizeof(words)), 0) << std::hex << c.type;
        --(c.video ? left.video_count : left.audio_count);
        EXPECT_EQ(count.video_count, left.video_count) << std::hex << c.type;
        EXPECT_EQ(count.audio_count, left.audio_count) << std::hex << c.type;
    }
}

TEST(FrameQueue, HaltDropsEverythingAndRefusesUntilInitReactivates)
{
    // Leaks of dropped nodes or data show up under the address sanitizer.
    Queue queue;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(queue.put(i ? kAudio : HLS_FRAME_TYPE_VIDEO_KEY, std::string(100 + i, 'a')), 0);
    ASSERT_EQ(frame_queue_halt(&queue.q), 0);
    frame_queue_count count{7, 7};
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.video_count + count.audio_count, 0u);
    EXPECT_EQ(queue.q.head, nullptr);
    {
        StderrCapture err;
        EXPECT_EQ(queue.put(kAudio, "x"), -1);
        EXPECT_EQ(err.count("frame_queue_input>: frame_queue is not actived!\n"), 1u);
    }
    frame_info info{};
    uint8_t *data = nullptr;
    EXPECT_EQ(frame_queue_get(&queue.q, &info, &data, nullptr), -1); // at once, no wait

    ASSERT_EQ(frame_queue_init(&queue.q), 0);
    ASSERT_EQ(queue.put(kAudio, "again"), 0);
    ASSERT_EQ(frame_queue_init(&queue.q), 0); // releases the frame still queued
    ASSERT_EQ(frame_queue_stat(&queue.q, &count), 0);
    EXPECT_EQ(count.audio_count, 0u);
}

TEST(FrameQueue, BlockingGetWakesOnInputAndOnHalt)
{
    Queue queue;
    std::atomic<int> result{1};
    std::string got;
    for (bool by_halt : {false, true}) {
        result = 1;
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
        EXPECT_EQ(by_halt ? frame_queue_halt(&queue.q) : queue.put(0x1234u, "wake"), 0);
        bool woke = test_host::wait_for([&] { return result.load() != 1; }, 5000ms);
        EXPECT_TRUE(woke) << by_halt;
        if (!woke) // a lost wake-up: free the reader so that the test ends
            pthread_cond_signal(&queue.q.cond);
        reader.join();
        EXPECT_EQ(result.load(), by_halt ? -1 : 0);
    }
    EXPECT_EQ(got, "wake");
}

TEST(FrameQueue, ProducerAndConsumerPassEveryFrameOnceInOrderIntact)
{
    const uint32_t frames = 20000;
    auto payload = [](uint32_t i) { return std::string(1 + (i * 37) % 700, (char)('a' + i % 26)); };
    auto type_of = [](uint32_t i) { return i % 3 == 0 ? kAudio : (i % 2 ? 0xf8010000u : 0xf9010000u); };

    Queue queue;
    uint32_t bad = 0;
    std::atomic<uint32_t> received{0};
    std::atomic<bool> stopped{false};
    std::thread consumer([&] {
        for (uint32_t i = 0; i < frames; ++i) {
            frame_info info{};
            uint8_t *data = nullptr;
            frame_queue_count count{};
            if (frame_queue_get(&queue.q, &info, &data, &count) != 0)
                break;
            std::string expect = payload(i);
            uint32_t n = (uint32_t)expect.size(), words[5] = {type_of(i), i, 0, n, n};
            bad += memcmp(&info, words, sizeof(words)) != 0 || memcmp(data, expect.data(), n) != 0 ||
                   count.video_count + count.audio_count > frames - 1 - i;
            free(data);
            ++received;
        }
        stopped = true;
    });
    for (uint32_t i = 0; i < frames; ++i) {
        // Hold back so the list stays short, reading the fill level meanwhile
        // like the playback loop does.
        frame_queue_count count{};
        while (i - received >= 64 && !stopped && frame_queue_stat(&queue.q, &count) == 0)
            std::this_thread::yield();
        if (queue.put(type_of(i), payload(i), i) != 0) {
            ADD_FAILURE() << "input " << i << " refused";
            frame_queue_halt(&queue.q); // lets the consumer return
            break;
        }
    }
    consumer.join();
    EXPECT_EQ(received.load(), frames);
    EXPECT_EQ(bad, 0u);
}
