// Timing and rate decisions of the HLS path, checked as pure functions at
// their edges (the 32-bit millisecond wrap, the queue-depth steps, the rate
// clamp), and the holder's frame input and start-up guards.
#include <gtest/gtest.h>

#include "hls_demux.h"
#include "stderr_capture.h"
#include "test_host.h"

namespace {

constexpr uint32_t kMax = 0xFFFFFFFFu;

TEST(HlsPacingDecisions, LateAndEarlySegmentComparisonsWrapAt32Bits)
{
    struct Case { uint32_t last, duration, now; int32_t late, early; } cases[] = {
        // A 6 s segment 2 s after the mark is held until 5980 ms after it.
        {1000, 6000, 3000, 0, 1},         {1000, 6000, 6979, 0, 1},         {1000, 6000, 6980, 0, 0},
        {1000, 6000, 7000, 0, 0},         {1000, 6000, 7001, 1, 0},         {1000, 0, 1000, 0, 0},
        {1000, 0, 1001, 1, 0},            {1000, 20, 1000, 0, 0},           {1000, 21, 1000, 0, 1},
        // last + duration wraps to 4999: a reading 1000 ms after the mark is
        // taken as late (the comparison is plain 32-bit), 5000 after the wrap too.
        {kMax - 1000, 6000, kMax, 1, 1},  {kMax - 1000, 6000, 4999, 0, 0},  {kMax - 1000, 6000, 5000, 1, 0},
        {kMax, 1, kMax, 1, 0},            {kMax, 1, 0, 0, 0},               {kMax, 1, 1, 1, 0},
        // The mark just before the wrap, the reading just after it.
        {kMax - 15, 6000, 16, 0, 1},      {kMax - 15, 6000, 5963, 0, 1},    {kMax - 15, 6000, 5964, 0, 0},
        // now + 20 itself wraps.
        {kMax - 100, 6000, kMax - 5, 1, 1}, {kMax, 6000, kMax, 1, 1},       {kMax - 5979, 6000, kMax, 1, 1},
        {kMax - 5980, 6000, kMax, 1, 0},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(hls_segment_is_late(c.last, c.duration, c.now), c.late) << c.last << "+" << c.duration << " vs " << c.now;
        EXPECT_EQ(hls_segment_is_early(c.last, c.duration, c.now), c.early) << c.last << "/" << c.duration << "/" << c.now;
    }
}

TEST(HlsPacingDecisions, ReceiveCapFromFirstSegmentAndLateRaise)
{
    // 500,000 bytes over 2 s: 1.5 x 2,000,000 bit/s; late, a quarter more.
    EXPECT_EQ(hls_first_cap_bps(500000, 2000000000ull), 3000000u);
    EXPECT_EQ(hls_late_cap_bps(hls_first_cap_bps(500000, 2000000000ull)), 3750000u);
    EXPECT_EQ(hls_first_cap_bps(1, 3000000000ull), 4u); // truncated
    EXPECT_EQ(hls_first_cap_bps(0, 2000000000ull), 0u);
    EXPECT_EQ(hls_first_cap_bps(-1, 2000000000ull), 0u);
    EXPECT_EQ(hls_first_cap_bps(500000, 0), 0u);
    EXPECT_EQ(hls_late_cap_bps(1000000), 1250000u);
    EXPECT_EQ(hls_late_cap_bps(7), 8u);
    EXPECT_EQ(hls_late_cap_bps(0), 0u);
    EXPECT_EQ(hls_late_cap_bps(1ull << 63), 1ull << 61); // 5 x cap is taken modulo 2^64
}

TEST(HlsPacingDecisions, FrameRateTakenFromKeyFramesOnly)
{
    const uint32_t key = HLS_FRAME_TYPE_VIDEO_KEY, other = HLS_FRAME_TYPE_VIDEO_OTHER;
    struct Case { int32_t current; uint32_t type; uint8_t rate; uint16_t frac; int32_t expect; } cases[] = {
        {30, key, 29, 970, 30}, {30, key, 25, 0, 25},  {25, key, 0, 0, 30},       {25, key, 0, 500, 1},
        {25, key, 24, 499, 24}, {25, key, 255, 65535, 256},
        // Other video frames keep whatever rate was last seen.
        {25, other, 60, 0, 25}, {30, other, 10, 900, 30},
    };
    for (const Case &c : cases) {
        frame_info info{};
        info.type = c.type;
        info.video.frame_rate = c.rate;
        info.video.frame_rate_frac = c.frac;
        EXPECT_EQ(hls_frame_rate_of(c.current, &info), c.expect) << std::hex << c.type << std::dec << " " << int(c.rate) << "." << c.frac;
    }
}

TEST(HlsPacingDecisions, QueueDepthNudgesTheRateInWholeSteps)
{
    struct Case { int32_t rate; uint32_t queued; int32_t expect; } cases[] = {
        {30, 30, 30},  {30, 119, 30}, {30, 120, 30}, {30, 124, 30}, {30, 125, 31},
        {30, 200, 46}, {30, 319, 69}, {30, 320, 70}, {30, 100000, 70},
        {30, 29, 30},  {30, 26, 30},  {30, 25, 29},  {30, 21, 29},  {30, 20, 28},
        {30, 5, 25},   {30, 1, 25},   {30, 0, 25},
        // Slow streams never fall to zero or below: one frame per second.
        {5, 0, 1},     {5, 1, 1},     {5, 6, 1},     {5, 10, 1},    {5, 11, 2},
        {1, 0, 1},     {1, 29, 1},    {1, 120, 1},   {6, 0, 1},     {7, 0, 2},
    };
    for (const Case &c : cases)
        EXPECT_EQ(hls_effective_rate(c.rate, c.queued), c.expect) << c.rate << " with " << c.queued << " queued";
}

TEST(HlsPacingDecisions, PeriodAndNextTickOnTheSecondGrid)
{
    const int32_t rates[] = {30, 46, 25, 1, 0, -3};
    const uint32_t periods[] = {33333333, 21739130, 40000000, 1000000000, 1000000000, 1000000000};
    for (size_t i = 0; i < 6; ++i)
        EXPECT_EQ(hls_frame_period_ns(rates[i]), periods[i]) << rates[i];
    struct Case { long nsec; uint32_t period; time_t sec_out; long nsec_out; } cases[] = {
        {0, 40000000, 10, 40000000}, // strictly after: not "now"
        {39999999, 40000000, 10, 40000000},
        {40000000, 40000000, 10, 80000000},
        {960000000, 40000000, 11, 0},
        {999999999, 33333333, 11, 33333323}, // carries past the second, off the next grid
        {966666656, 33333333, 10, 966666657},
        {5, 1000000000, 11, 0},
        {999999999, 1000000000, 11, 0},
    };
    for (const Case &c : cases) {
        struct timespec tick = hls_next_tick({10, c.nsec}, c.period);
        EXPECT_EQ(tick.tv_sec, c.sec_out) << c.nsec << " / " << c.period;
        EXPECT_EQ(tick.tv_nsec, c.nsec_out) << c.nsec << " / " << c.period;
    }
}

TEST(HlsHolder, FrameInputQueuesIntoTheHolderAndHandsBackTheQueueResult)
{
    hls_demux holder{};
    ASSERT_EQ(frame_queue_init(&holder.frame_queue), 0);
    frame_info info{};
    info.type = HLS_FRAME_TYPE_VIDEO_KEY;
    info.video.length = 4;
    uint8_t bytes[4] = {'v', 'v', 'v', 'v'};
    EXPECT_EQ(hls_frame_input(nullptr, &info, bytes, &holder), 0);
    frame_queue_count count = {0, 0};
    ASSERT_EQ(frame_queue_stat(&holder.frame_queue, &count), 0);
    EXPECT_EQ(count.video_count, 1u);
    EXPECT_EQ(hls_frame_input(nullptr, &info, bytes, nullptr), -2);
    StderrCapture capture;
    ASSERT_EQ(frame_queue_halt(&holder.frame_queue), 0);
    EXPECT_EQ(hls_frame_input(nullptr, &info, bytes, &holder), -1);
    EXPECT_TRUE(capture.contains("frame_queue is not actived!"));
    frame_queue_free(&holder.frame_queue);
    hls_demux_free(nullptr);
}

TEST(HlsHolder, MissingRecordOrHolderEndsAtOnceWithoutStatus)
{
    test_host::reset();
    StderrCapture capture;
    http_demux record{};
    record.frame_cb = test_host::frame_cb;
    record.status_cb = test_host::status_cb;
    record.running = 1;
    EXPECT_EQ(hls_ctrl_routine(nullptr), nullptr);
    EXPECT_EQ(hls_ctrl_routine(&record), nullptr);
    download_data_by_hls(&record);
    for (const char *line : {"hls_ctrl_routine>: http_demux is NULL!", "hls_ctrl_routine>: hls_demux is NULL!",
                             "download_data_by_hls>: hls_demux is NULL!"})
        EXPECT_TRUE(capture.contains(line)) << line;
    EXPECT_EQ(test_host::events().size(), 0u);
}

} // namespace
